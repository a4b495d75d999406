#include "framework/snmp/snmp_thread.h"

#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "framework/process/clock.h"
#include "framework/process/log.h"
#include "framework/snmp/agentx_session.h"
#include "framework/snmp/mib_index.h"
#include "framework/snmp/notifications.h"
#include "framework/snmp/oid_text.h"
#include "framework/snmp/set_channel.h"
#include "framework/snmp/snmp_config.h"
#include "framework/snmp/snmp_query.h"
#include "framework/snmp/snmp_requests.h"
#include "framework/snmp/spin_policy.h"
#include "platform/framework.h"

namespace vex {
namespace {

constexpr std::chrono::milliseconds kLongestSpin{2};   // then the rest has its turn
constexpr std::chrono::milliseconds kEndingSlice{50};  // of a wait that the agent's end cuts short
constexpr std::chrono::minutes kStartPatience{1};
// An agent that was told to end has a second in all. The thread's last notifications and its
// goodbye to the master have their part of it, and what the libraries do then has the rest.
constexpr std::chrono::milliseconds kLastNotifications{300};
constexpr std::chrono::milliseconds kGoodbye{450};
constexpr std::chrono::milliseconds kStopPatience{800};
// After want of memory: the next try must not take the processor for itself.
constexpr std::chrono::milliseconds kRest{10};
constexpr uint8_t kPriorityBehind = 200;  // of registrations; usual are 127
// Images that nobody asked for are still taken over now and then, so that each is held once only.
constexpr std::chrono::seconds kLongestSleep{30};

// What the two threads share.
struct Shared {
  // Of every object that is published. An entry stays for as long as its object: withdrawing must
  // not need memory.
  struct Published {
    uint64_t object_id;
    std::shared_ptr<const Image> image;  // not yet in the index; null: none, or withdrawn
    bool waiting = false;                // in the list below
    Published *next = nullptr;
  };
  std::mutex images_mutex;
  std::unordered_map<uint64_t, Published> images;
  Published *first_waiting = nullptr;  // for the thread, in any order
  std::atomic<bool> images_waiting{false};

  NotificationQueue notifications;
  Notifications unsent;      // of the thread until it has finished
  bool unsent_whole = true;  // likewise: the list above has all that is unsent

  std::mutex queries_mutex;
  std::list<std::shared_ptr<SnmpQuery>> queries;
  std::shared_ptr<SnmpQuery> silent_query;  // agent thread

  std::atomic<bool> sets_enabled{true};
  std::atomic<bool> stand_behind{false};
  std::atomic<bool> up{false};
  std::atomic<void (*)()> tick{nullptr};
  std::atomic<int> tick_ms{0};
  std::atomic<bool> stop{false};

  std::mutex state_mutex;
  std::condition_variable state_changed;
  bool running = false;   // the thread's loop has begun
  bool finished = false;  // the thread is at its end
  std::atomic<bool> failed{false};

  int wake_fd = -1;
  std::thread thread;
};

Shared &Side() {
  static auto *shared = new Shared;  // outlives every thread
  return *shared;
}

void WakeThread() {
  uint64_t one = 1;
  (void)!write(Side().wake_fd, &one, sizeof(one));
}

// The agent thread waits for none of them any more.
void EndQueries() {
  Shared &side = Side();
  std::lock_guard lock(side.queries_mutex);
  for (std::shared_ptr<SnmpQuery> &query : side.queries) {
    query->Done();
  }
  side.queries.clear();
}

void Enqueue(Shared::Published *entry) {
  Shared &side = Side();
  if (!entry->waiting) {
    entry->waiting = true;
    entry->next = side.first_waiting;
    side.first_waiting = entry;
    side.images_waiting.store(true, std::memory_order_release);
  }
}

// That this thread may run on. Where they are more than the set has room for, the call fails.
int Processors() {
  cpu_set_t set;
  return sched_getaffinity(0, sizeof(set), &set) == 0 ? CPU_COUNT(&set) : CPU_SETSIZE;
}

class Loop {
 public:
  explicit Loop(AgentxSession::Settings settings)
      : index_(MibVariables()),
        requests_(&index_, &Sets()),
        sender_(&Side().notifications),
        session_(std::move(settings),
                 {[this](netsnmp_pdu *pdu) { Request(pdu); },
                  [this](const AgentxSession::PacketHeader &header) {
                    requests_.HandleUnread(&session_, header);
                  },
                  [] { Side().notifications.SetUp(true); }, [this] { Lost(); }}) {
    fds_.reserve(kUsualDescriptors);
    query_fds_.reserve(kUsualDescriptors);
  }

  void Run() {
    next_tick_ = Clock::now();
    while (!Side().stop.load()) {
      short_of_memory_ = false;
      Try([this] { Wait(); });
      Try([this] { Spin(); });
      Work();
      if (short_of_memory_) {
        poll(nullptr, 0, static_cast<int>(kRest.count()));
      }
      Say();
    }
    const Clock::time_point now = Clock::now();
    Try([&] {
      SendLast(now + kLastNotifications);
      session_.Close(now + kGoodbye);
    });
    Lost();
    // Nobody will send them.
    for (auto one = Side().notifications.Pop(); !one.empty(); one = Side().notifications.Pop()) {
      Side().unsent.splice(Side().unsent.end(), one);
    }
    Side().unsent_whole = true;
  }

 private:
  static constexpr size_t kUsualDescriptors = 16;

  // Does one part of the work; what it leaves undone, for want of memory, is done by a later pass.
  template <typename Function>
  void Try(Function function) noexcept {
    try {
      function();
    } catch (...) {
      short_of_memory_ = true;
    }
  }

  void Say() {
    if (short_of_memory_) {
      last_short_ = Clock::now();
    }
    if (said_short_ != short_of_memory_ &&
        (short_of_memory_ || Clock::now() - last_short_ > std::chrono::seconds(1))) {
      said_short_ = short_of_memory_;
      agentlog_fprintf(stderr, said_short_ ? "The SNMP side is short of memory; trying again\n"
                                           : "The SNMP side has memory again\n");
    }
  }

  // What is to be notified before the end, more than may be under way at once.
  void SendLast(Clock::time_point until) {
    sender_.Send(&session_);
    while (session_.Open() && Side().notifications.Size() > 0 && Clock::now() < until) {
      short wanted = session_.WantsToWrite() ? POLLIN | POLLOUT : POLLIN;
      pollfd entry = {session_.Socket(), wanted, 0};
      if (poll(&entry, 1, 20) > 0) {
        session_.SocketReady((entry.revents & ~POLLOUT) != 0, (entry.revents & POLLOUT) != 0);
      }
      sender_.Send(&session_);
    }
  }

  void Request(const netsnmp_pdu *pdu) {
    spinning_.Asked(Clock::now());
    bool current = true;
    try {
      TakeImages();
    } catch (const std::exception &) {
      short_of_memory_ = true;
      current = false;
    }
    requests_.Handle(&session_, pdu, Side().sets_enabled.load(), current);
    const Clock::time_point now = Clock::now();
    spin_until_ = now + spinning_.Answered(now);
  }

  void Lost() {
    Side().notifications.SetUp(false);
    sender_.SessionLost();
    requests_.SessionLost();
  }

  void TakeImages() {
    if (!Side().images_waiting.load(std::memory_order_acquire)) {
      return;
    }
    Shared &side = Side();
    while (true) {
      uint64_t id;
      std::shared_ptr<const Image> image;
      {
        std::lock_guard lock(side.images_mutex);
        Shared::Published *entry = side.first_waiting;
        if (entry == nullptr) {
          side.images_waiting.store(false, std::memory_order_relaxed);
          return;
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
        index_.Remove(id);
        continue;
      }
      try {
        index_.Put(image);
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

  // Answers the requests that follow one another closely, without the rest of a pass in between:
  // the sooner the answer, the likelier it finds the master still awake.
  void Spin() {
    Clock::time_point now = Clock::now();
    Clock::time_point longest = now + kLongestSpin;
    while (now < spin_until_ && now < longest) {
      pollfd fds[] = {{session_.Socket(), POLLIN, 0}, {Side().wake_fd, POLLIN, 0}};
      if (poll(fds, 2, 0) > 0) {
        if (fds[1].revents != 0 || fds[0].revents != POLLIN) {
          return;
        }
        session_.SocketReady(true, false);
        now = Clock::now();
        continue;
      }
      const Clock::time_point before = now;
      now = Clock::now();
      if (!spinning_.Looked(before, now)) {
        spin_until_ = now;
      }
    }
  }

  void Wait() {
    Clock::time_point now = Clock::now();
    std::chrono::nanoseconds patience{0};
    if (now >= spin_until_) {
      Clock::time_point due = now + kLongestSleep;
      due = std::min(
          {due, session_.NextDue(), requests_.NextDue(), queries_.NextDue(), sender_.NextDue()});
      if (Side().tick.load() != nullptr) {
        due = std::min(due, next_tick_);
      }
      patience = std::max(due - now, Clock::duration::zero());
    }

    fds_.clear();
    fds_.push_back({Side().wake_fd, POLLIN, 0});
    // poll(2) passes over negative descriptors.
    short wanted = session_.WantsToWrite() ? POLLIN | POLLOUT : POLLIN;
    fds_.push_back({session_.Socket(), wanted, 0});
    fds_.push_back({session_.WatchFd(), POLLIN, 0});
    query_fds_.clear();
    queries_.Collect(&query_fds_);
    for (int fd : query_fds_) {
      fds_.push_back({fd, POLLIN, 0});
    }
    auto whole = std::chrono::duration_cast<std::chrono::seconds>(patience);
    timespec timeout = {whole.count(), (patience - whole).count()};
    if (ppoll(fds_.data(), fds_.size(), &timeout, nullptr) <= 0) {
      return;
    }

    if (fds_[0].revents != 0) {
      uint64_t count;
      (void)!read(Side().wake_fd, &count, sizeof(count));
    }
    if (fds_[1].revents != 0) {
      session_.SocketReady((fds_[1].revents & ~POLLOUT) != 0, (fds_[1].revents & POLLOUT) != 0);
    }
    if (fds_[2].revents != 0 && session_.WatchFd() >= 0) {
      session_.WatchReady();
    }
    for (size_t i = 3; i < fds_.size(); i++) {
      if (fds_[i].revents != 0) {
        queries_.Ready(fds_[i].fd);
      }
    }
  }

  void Work() {
    if (Clock::now() >= spin_until_) {
      Try([this] { TakeImages(); });
    }
    Try([this] { session_.Work(); });
    Side().up = session_.Up();
    Try([this] { requests_.Work(&session_); });
    Try([this] { sender_.Send(&session_); });
    std::list<std::shared_ptr<SnmpQuery>> fresh;
    {
      std::lock_guard lock(Side().queries_mutex);
      fresh.swap(Side().queries);
    }
    for (const std::shared_ptr<SnmpQuery> &query : fresh) {
      queries_.Start(query);
    }
    Try([this] { queries_.Work(); });
    Try([this] { Tick(); });
  }

  void Tick() {
    void (*tick)() = Side().tick.load();
    Clock::time_point now = Clock::now();
    if (tick != nullptr && now >= next_tick_) {
      next_tick_ = now + std::chrono::milliseconds(std::max(Side().tick_ms.load(), 1));
      tick();
    }
  }

  MibIndex index_;
  SnmpRequests requests_;
  NotificationSender sender_;
  SnmpQueries queries_;
  AgentxSession session_;  // last: it calls the others
  std::vector<pollfd> fds_;
  std::vector<int> query_fds_;
  SpinPolicy spinning_{Processors()};
  Clock::time_point spin_until_;
  Clock::time_point next_tick_;
  bool short_of_memory_ = false;  // in this pass
  bool said_short_ = false;
  Clock::time_point last_short_;
};

// What SnmpStart() and its thread share.
struct Starting {
  std::string application;
  SnmpSettings settings;
};

// Says why there is no SNMP side, once, and lets the agent thread see it.
void Fail(const char *what, const char *why) {
  Shared &side = Side();
  if (!side.failed.exchange(true)) {
    agentlog_fprintf(stderr, "%s: %s: %s\n", AgentName(), what, why);
  }
  Sets().WakeAgent();
}

constexpr char kCannotStart[] = "Can't start the SNMP side";
constexpr char kHasEnded[] = "The SNMP side has ended";

void RunThread(Starting &starting, bool *begun) {
  Shared &side = Side();
  AgentxSession::Settings session;
  LoadSnmpConfiguration(starting.application, &starting.settings, &session);
  if (side.stand_behind) {
    session.priority = kPriorityBehind;
  }
  {
    Loop loop(std::move(session));
    {
      std::lock_guard lock(side.state_mutex);
      side.running = true;
      *begun = true;
      side.state_changed.notify_all();
    }
    side.unsent_whole = false;
    loop.Run();
  }
  UnloadSnmp(starting.application);
}

void ThreadMain(const std::shared_ptr<Starting> &starting) noexcept {
  pthread_setname_np(pthread_self(), "snmp");
  Shared &side = Side();
  bool begun = false;
  try {
    RunThread(*starting, &begun);
  } catch (const std::exception &e) {
    Fail(begun ? kHasEnded : kCannotStart, e.what());
  } catch (...) {
    Fail(begun ? kHasEnded : kCannotStart, "unknown exception");
  }
  std::lock_guard lock(side.state_mutex);
  side.running = false;
  side.finished = true;
  side.state_changed.notify_all();
  EndQueries();
}

int StartThread(const std::shared_ptr<Starting> &starting) {
  Shared &side = Side();
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

}  // namespace

int SnmpStart(const char *application, SnmpSettings *settings) {
  Shared &side = Side();
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

  std::shared_ptr<Starting> starting;
  try {
    starting = std::make_shared<Starting>();
    starting->application = application;
  } catch (const std::exception &) {
    Fail(kCannotStart, strerror(ENOMEM));
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

bool SnmpStop() {
  Shared &side = Side();
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
  Shared &side = Side();
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
  Shared &side = Side();
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
  Shared &side = Side();
  side.tick_ms = interval_ms;
  side.tick = tick;
  if (side.wake_fd >= 0) {
    WakeThread();
  }
}

void SnmpEnableSets(bool enabled) {
  Side().sets_enabled = enabled;
}

void SnmpPublish(std::shared_ptr<const Image> image) {
  if (!image) {
    return;
  }
  Shared &side = Side();
  const uint64_t id = image->object_id;
  std::lock_guard lock(side.images_mutex);
  Shared::Published &entry =
      side.images.try_emplace(id, Shared::Published{id, nullptr}).first->second;
  entry.image.swap(image);  // the one before is released after the lock
  Enqueue(&entry);
}

void SnmpWithdraw(uint64_t object_id) noexcept {
  Shared &side = Side();
  std::shared_ptr<const Image> image;
  std::lock_guard lock(side.images_mutex);
  const auto place = side.images.find(object_id);
  if (place != side.images.end()) {
    image.swap(place->second.image);
    Enqueue(&place->second);
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
  Shared &side = Side();
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
