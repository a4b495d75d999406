#include "framework/snmp/snmp_thread.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "framework/process/log.h"
#include "framework/snmp/oid_text.h"
#include "framework/snmp/snmp_config.h"
#include "framework/snmp/snmp_loop.h"
#include "framework/snmp/snmp_relay.h"
#include "framework/snmp/snmp_shared.h"
#include "platform/framework.h"

namespace vex {
namespace {

constexpr std::chrono::milliseconds kEndingSlice{50};  // of a wait that the agent's end cuts short
constexpr std::chrono::minutes kStartPatience{1};
constexpr std::chrono::milliseconds kStopPatience{800};  // with SnmpShared::kGoodbye
constexpr uint8_t kPriorityBehind = 200;                 // of registrations; usual are 127

// The agent thread waits for none of them any more.
void EndQueries() {
  SnmpShared &side = Side();
  std::lock_guard lock(side.queries_mutex);
  for (std::shared_ptr<SnmpQuery> &query : side.queries) {
    query->Done();
  }
  side.queries.clear();
}

// The loop's seat in a thread of the agent.
class ThreadSeat final : public SnmpSeat {
 public:
  explicit ThreadSeat(MasterAddress master) : finder_(std::move(master)) {}

  int Fd() const override {
    return Side().wake_fd;
  }
  void Ready() override {
    Woken();
  }
  int WatchFd() const override {
    return finder_.WatchFd();
  }
  void WatchReady() override {
    finder_.WatchReady();
  }
  void Work() override {
    ticker_.Work();
  }
  Clock::time_point NextDue() const override {
    const Clock::time_point due = ticker_.NextDue();
    return connected_ ? due : std::min(due, finder_.NextAttempt());
  }
  bool Stopping() const override {
    return Side().stop.load();
  }

  bool TakeImages(MibIndex *index, bool) override;
  bool SetsEnabled() const override {
    return Side().sets_enabled.load();
  }
  SetPort *Sets() override {
    return &vex::Sets();
  }
  NotificationSource *Notifications() override {
    return &Side().notifications;
  }
  size_t NotificationsWaiting() const override {
    return Side().notifications.Size();
  }
  std::list<std::shared_ptr<SnmpQuery>> TakeQueries() override {
    std::list<std::shared_ptr<SnmpQuery>> fresh;
    std::lock_guard lock(Side().queries_mutex);
    fresh.swap(Side().queries);
    return fresh;
  }

  netsnmp_transport *Connection(int *error) override;
  void ConnectionFailed(int error) override {
    connected_ = false;
    finder_.Failed(error);
  }
  void SessionOpen() override {
    Side().notifications.SetUp(true);
  }
  void SessionWelcome() override {
    finder_.Welcome();
  }
  void SessionUp() override {
    Side().up = true;
    finder_.Found();
  }
  void SessionRefused() override {
    finder_.Refused();
  }
  void SessionEnded(bool was_open, bool refused) override {
    Side().up = false;
    connected_ = false;
    if (was_open) {
      Side().notifications.SetUp(false);
    }
    finder_.Lost(refused);
  }

 private:
  MasterFinder finder_;
  SnmpTicker ticker_;
  bool connected_ = false;
};

bool ThreadSeat::TakeImages(MibIndex *index, bool) {
  SnmpShared &side = Side();
  if (!side.images_waiting.load(std::memory_order_acquire)) {
    return true;
  }
  while (true) {
    uint64_t id;
    std::shared_ptr<const Image> image;
    {
      std::lock_guard lock(side.images_mutex);
      SnmpShared::Published *entry = side.first_waiting;
      if (entry == nullptr) {
        side.images_waiting.store(false, std::memory_order_relaxed);
        return true;
      }
      side.first_waiting = entry->next;
      entry->waiting = false;
      id = entry->object_id;
      image = std::move(entry->image);
      if (image == nullptr) {
        side.images.erase(id);
      }
    }
    if (image == nullptr) {
      index->Remove(id);
      continue;
    }
    try {
      index->Put(image);
    } catch (...) {
      // It waits again, unless a newer one does.
      std::lock_guard lock(side.images_mutex);
      const auto place = side.images.find(id);
      if (place != side.images.end() && !place->second.waiting) {
        place->second.image = std::move(image);
        Enqueue(&place->second);
      }
      throw;
    }
  }
}

netsnmp_transport *ThreadSeat::Connection(int *error) {
  if (Clock::now() < finder_.NextAttempt()) {
    return nullptr;
  }
  finder_.Watch();
  netsnmp_transport *transport = nullptr;
  if (finder_.Address().Plain()) {
    transport = StreamTransport(finder_.Connect());
  } else {
    // Names and other transports are the library's; its connecting waits.
    transport = netsnmp_transport_open_client("agentx", finder_.Address().target.c_str());
    if (transport != nullptr) {
      fcntl(transport->sock, F_SETFD, FD_CLOEXEC);
    }
  }
  connected_ = transport != nullptr;
  *error = connected_ ? 0 : errno != 0 ? errno : ENOTCONN;
  return transport;
}

// What SnmpStart() and its thread share.
struct Starting {
  std::string application;
  SnmpSettings settings;
  // Where there is a process; else the thread does it all.
  std::unique_ptr<SnmpRelay> relay;
};

// Says why there is no SNMP side, once, and lets the agent thread see it.
void Fail(const char *what, const char *why) {
  SnmpShared &side = Side();
  if (!side.failed.exchange(true)) {
    agentlog_fprintf(stderr, "%s: %s: %s\n", AgentName(), what, why);
  }
  Sets().WakeAgent();
}

constexpr char kCannotStart[] = "Can't start the SNMP side";
constexpr char kHasEnded[] = "The SNMP side has ended";

void HasBegun(bool *begun) {
  SnmpShared &side = Side();
  std::lock_guard lock(side.state_mutex);
  side.running = true;
  *begun = true;
  side.state_changed.notify_all();
}

void RunThread(Starting &starting, bool *begun) {
  SnmpShared &side = Side();
  AgentxSession::Settings session;
  LoadSnmpConfiguration(starting.application, &starting.settings, &session);
  if (side.stand_behind) {
    session.priority = kPriorityBehind;
  }
  {
    ThreadSeat seat(session.master);
    SnmpLoop loop(std::move(session), &seat);
    HasBegun(begun);
    side.unsent_whole = false;
    loop.Run({SnmpShared::kLastNotifications, SnmpShared::kGoodbye});
    KeepUnsent();
  }
  UnloadSnmp(starting.application);
}

void ThreadMain(const std::shared_ptr<Starting> &starting) noexcept {
  pthread_setname_np(pthread_self(), "snmp");
  SnmpShared &side = Side();
  bool begun = false;
  try {
    if (starting->relay != nullptr) {
      HasBegun(&begun);
      side.unsent_whole = false;
      starting->relay->Run();
      KeepUnsent();
    } else {
      RunThread(*starting, &begun);
    }
  } catch (const std::exception &e) {
    Fail(begun ? kHasEnded : kCannotStart, e.what());
  } catch (...) {
    Fail(begun ? kHasEnded : kCannotStart, "unknown exception");
  }
  if (starting->relay != nullptr) {
    starting->relay.reset();
    KeepUnsent();
  }
  std::lock_guard lock(side.state_mutex);
  side.running = false;
  side.finished = true;
  side.state_changed.notify_all();
  EndQueries();
}

int StartThread(const std::shared_ptr<Starting> &starting) {
  SnmpShared &side = Side();
  // Signals are for the agent thread alone.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  int error = 0;
  try {
    side.thread = std::thread(ThreadMain, starting);
  } catch (const std::system_error &e) {
    error = e.code().value();
  } catch (const std::exception &) {
    error = ENOMEM;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return error == 0 ? 0 : -1;
}

// With images_mutex held: hands the entry's image to the process, where there is one. False when it
// is to wait, for the thread, or for room.
bool PutIntoRing(SnmpShared::Published *entry) noexcept {
  ImageRingWriter *ring = Side().ring.get();
  if (ring == nullptr || entry->waiting) {
    return entry->waiting;  // the relay takes what it has then
  }
  const size_t before = ring->Unread();
  const ImageRingWriter::Put put =
      entry->image != nullptr ? ring->PutImage(*entry->image, entry->sent != entry->image->layout)
                              : ring->PutWithdrawal(entry->object_id);
  if (put != ImageRingWriter::Put::kDone) {
    ring->SetBacklog(true);
    WakeThread();
    return false;
  }
  if (entry->image == nullptr) {
    Side().images.erase(entry->object_id);
  } else {
    entry->sent = entry->image->layout;
  }
  constexpr size_t kMuch = ImageRingWriter::kMuchUnread;
  if (before <= kMuch && ring->Unread() > kMuch) {
    WakeThread();
  }
  return true;
}

// What a process that did not come to be has left: the thread takes all images.
void TakeImagesBack() {
  SnmpShared &side = Side();
  std::lock_guard lock(side.images_mutex);
  side.ring.reset();
  for (auto &[id, entry] : side.images) {
    Enqueue(&entry);
  }
}

// Lets the SNMP side be a process of its own, where that is possible: starting->relay is it. False
// when the SNMP side cannot be started at all, or the agent is to end.
bool StartProcess(Starting *starting) {
  std::optional<SnmpUser> user;
  std::string why;
  bool possible = false;
  if (geteuid() != 0) {
    why = "it is not root's";
  } else if (!FindSnmpUser(&user) || (user && !SnmpStarter::Possible(&possible))) {
    // What passes is no reason to run on with more rights.
    Fail(kCannotStart, strerror(errno));
    return false;
  } else if (!user) {
    why = std::string("there is no unprivileged user ") + kSnmpUser;
  } else if (!possible) {
    why = "the agent has threads";
  } else {
    auto relay = std::make_unique<SnmpRelay>();
    switch (relay->Begin(starting->application, *user, Clock::now() + kStartPatience,
                         &starting->settings, &why)) {
      case SnmpRelay::Begun::kRuns:
        if (!GiveUpStartersCapabilities()) {
          agentlog_fprintf(stderr,
                           "%s: Info: the agent keeps capabilities that it does not need: %s\n",
                           AgentName(), strerror(errno));
        }
        starting->relay = std::move(relay);
        return true;
      case SnmpRelay::Begun::kFailed:
        Fail(kCannotStart, why.c_str());
        return false;
      case SnmpRelay::Begun::kEnding:
        if (!why.empty()) {
          Fail(kCannotStart, why.c_str());
        }
        return false;
      case SnmpRelay::Begun::kUnable:
        break;
    }
    relay.reset();
    TakeImagesBack();
  }
  agentlog_fprintf(stderr, "Info: the SNMP side is no process of its own: %s\n", why.c_str());
  return true;
}

}  // namespace

static int StartSide(const char *application, SnmpSettings *settings) {
  SnmpShared &side = Side();
  if (side.thread.joinable()) {
    return -1;
  }
  side.failed = false;
  if (side.wake_fd < 0) {
    side.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  }
  if (side.wake_fd < 0 || !Sets().Ready()) {
    Fail(kCannotStart, strerror(errno));
    return -1;
  }
  side.stop = false;
  side.finished = false;
  side.up = false;
  side.notifications.Done(side.unsent.size());
  side.unsent.clear();
  Sets().SetWake(WakeThread);

  const auto starting = std::make_shared<Starting>();
  starting->application = application;
  if (!StartProcess(starting.get())) {
    return -1;
  }
  if (StartThread(starting) != 0) {
    Fail(kCannotStart, strerror(errno));
    return -1;
  }
  const Clock::time_point until = Clock::now() + kStartPatience;
  std::unique_lock lock(side.state_mutex);
  while (!side.running && !side.finished) {
    if (agent_ending() != 0) {
      return -1;
    }
    if (Clock::now() >= until) {
      Fail(kCannotStart, "reading its configuration takes more than a minute");
      return -1;
    }
    side.state_changed.wait_for(lock, kEndingSlice);
  }
  if (!side.running) {
    lock.unlock();
    side.thread.join();
    return -1;
  }
  if (settings != nullptr) {
    *settings = std::move(starting->settings);
  }
  return 0;
}

int SnmpStart(const char *application, SnmpSettings *settings) {
  try {
    return StartSide(application, settings);
  } catch (const std::bad_alloc &) {
    Fail(kCannotStart, strerror(ENOMEM));
  } catch (const std::exception &e) {
    Fail(kCannotStart, e.what());
  }
  return -1;
}

bool SnmpStop() {
  SnmpShared &side = Side();
  if (!side.thread.joinable()) {
    return true;
  }
  side.stop = true;
  WakeThread();
  bool finished;
  {
    std::unique_lock lock(side.state_mutex);
    finished = side.state_changed.wait_for(lock, kStopPatience, [&side] { return side.finished; });
    side.running = false;
  }
  // A thread that hangs in a library must not keep the process.
  if (finished) {
    side.thread.join();
  } else {
    side.thread.detach();
  }
  EndQueries();
  return finished;
}

bool SnmpFailed() {
  return Side().failed;
}

std::optional<std::vector<Notification>> SnmpUnsent() {
  SnmpShared &side = Side();
  std::lock_guard lock(side.state_mutex);
  if (!side.finished || !side.unsent_whole) {
    return std::nullopt;
  }
  std::vector<Notification> unsent;
  for (const WaitingNotification &waiting : side.unsent) {
    unsent.push_back(waiting.notification);
  }
  side.notifications.Done(side.unsent.size());
  side.unsent.clear();
  return unsent;
}

bool SnmpRunning() {
  SnmpShared &side = Side();
  std::lock_guard lock(side.state_mutex);
  return side.running;
}

void SnmpStandBehind() {
  Side().stand_behind = true;
}

bool SnmpUp() {
  return Side().up;
}

void SnmpSetTick(void (*tick)(), int interval_ms) {
  SnmpShared &side = Side();
  side.tick_ms = interval_ms;
  side.tick = tick;
  if (side.wake_fd >= 0) {
    WakeThread();
  }
}

void SnmpEnableSets(bool enabled) {
  SnmpShared &side = Side();
  std::lock_guard lock(side.images_mutex);
  side.sets_enabled = enabled;
  if (side.ring != nullptr) {
    side.ring->RefuseSets(!enabled);
  }
}

void SnmpPublish(std::shared_ptr<const Image> image) {
  if (!image) {
    return;
  }
  SnmpShared &side = Side();
  const uint64_t id = image->object_id;
  std::lock_guard lock(side.images_mutex);
  SnmpShared::Published &entry =
      side.images.try_emplace(id, SnmpShared::Published{id, nullptr, nullptr}).first->second;
  entry.image.swap(image);  // the one before is released after the lock
  if (!PutIntoRing(&entry)) {
    Enqueue(&entry);
  }
}

void SnmpWithdraw(uint64_t object_id) noexcept {
  SnmpShared &side = Side();
  std::shared_ptr<const Image> image;
  std::lock_guard lock(side.images_mutex);
  const auto place = side.images.find(object_id);
  if (place != side.images.end()) {
    image.swap(place->second.image);
    if (!PutIntoRing(&place->second)) {
      Enqueue(&place->second);
    }
  }
}

void SnmpNotify(Notification notification) {
  Side().notifications.Push(std::move(notification));
  if (Side().wake_fd >= 0) {
    WakeThread();
  }
}

void SnmpNotifyOlder(std::vector<Notification> notifications) {
  Notifications older;
  for (Notification &notification : notifications) {
    older.push_back({std::move(notification)});
  }
  Side().notifications.PushOlder(std::move(older));
  if (Side().wake_fd >= 0) {
    WakeThread();
  }
}

bool SnmpNothingWaiting() {
  return Side().notifications.AllDone();
}

SnmpAnswer SnmpQueryInteger(const std::string &address, const std::string &community,
                            const char *oid, std::chrono::nanoseconds patience) {
  SnmpShared &side = Side();
  SnmpAnswer answer;
  std::optional<std::vector<uint32_t>> name = ParseOid(oid != nullptr ? oid : "");
  if (!name) {
    return answer;
  }
  auto query = std::make_shared<SnmpQuery>();
  query->address = address;
  query->community = community;
  query->oid = std::move(*name);
  side.silent_query.reset();
  {
    std::list<std::shared_ptr<SnmpQuery>> asked = {query};
    std::lock_guard lock(side.queries_mutex);
    side.queries.splice(side.queries.end(), asked);
  }
  // Only now: a thread that ends meanwhile has ended this query, too.
  if (!SnmpRunning()) {
    return answer;
  }
  WakeThread();
  const Clock::time_point until = Clock::now() + patience;
  while (!query->Wait(std::min(until, Clock::now() + kEndingSlice))) {
    if (agent_ending() != 0) {
      return answer;
    }
    if (Clock::now() >= until) {
      side.silent_query = query;
      answer.end = QueryEnd::kSilent;
      return answer;
    }
  }
  if (query->has_status) {
    answer.end = QueryEnd::kAnswered;
    answer.status = query->status;
    if (query->has_value) {
      answer.value = query->value;
    }
  } else if (query->refused) {
    answer.end = QueryEnd::kRefused;
  } else if (query->sent) {
    answer.end = QueryEnd::kSilent;  // its tries are over
  }
  return answer;
}

bool SnmpAnsweredLate() {
  std::shared_ptr<SnmpQuery> &query = Side().silent_query;
  if (query == nullptr || !query->AnsweredLate()) {
    return false;
  }
  query.reset();
  return true;
}

}  // namespace vex
