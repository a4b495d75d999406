// The SNMP thread: its loop, and its face to the agent thread (snmp_side.h).
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "framework/agentx_session.h"
#include "framework/mib_index.h"
#include "framework/notifications.h"
#include "framework/oid_text.h"
#include "framework/set_channel.h"
#include "framework/snmp_config.h"
#include "framework/snmp_query.h"
#include "framework/snmp_requests.h"
#include "framework/snmp_side.h"
#include "platform/framework.h"

namespace vex {
namespace {

using Clock = std::chrono::steady_clock;

// A manager that walks asks again within this time, and going to sleep costs more than the answer:
// looking on for a moment makes a walk take half as long.
constexpr std::chrono::microseconds kLookOn{75};
constexpr std::chrono::milliseconds kLongestLookOn{2};  // then the rest has its turn
constexpr std::chrono::seconds kQueryPatience{2};
constexpr std::chrono::seconds kStopPatience{3};
constexpr std::chrono::milliseconds kLastNotifications{500};  // before the end
constexpr uint8_t kPriorityBehind = 200;                      // of registrations; usual are 127
// Images that nobody asked for are still taken over now and then, so that each is held once only.
constexpr std::chrono::seconds kLongestSleep{30};

// What the two threads share.
struct Shared {
  // Published, not yet in the index; null: withdrawn.
  std::mutex images_mutex;
  std::unordered_map<uint64_t, std::shared_ptr<const Image>> images;
  std::atomic<bool> images_waiting{false};

  NotificationQueue notifications;
  std::vector<Notification> unsent;  // of the thread until it has finished

  std::mutex queries_mutex;
  std::vector<std::shared_ptr<SnmpQuery>> queries;

  std::atomic<bool> sets_enabled{true};
  std::atomic<bool> stand_behind{false};
  std::atomic<bool> up{false};
  std::atomic<void (*)()> tick{nullptr};
  std::atomic<int> tick_ms{0};
  std::atomic<bool> stop{false};

  std::mutex state_mutex;
  std::condition_variable state_changed;
  bool running = false;   // SnmpStart() has succeeded
  bool finished = false;  // the loop has ended

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

class Loop {
 public:
  explicit Loop(AgentxSession::Settings settings)
      : index_(MibVariables()),
        requests_(&index_, &Sets()),
        sender_(&Side().notifications),
        session_(std::move(settings),
                 {[this](netsnmp_pdu *pdu) { Request(pdu); },
                  [] { Side().notifications.SetUp(true); }, [this] { Lost(); }}) {}

  void Run() {
    next_tick_ = Clock::now();
    while (!Side().stop.load()) {
      Wait();
      LookOn();
      Work();
    }
    SendLast();
    session_.Close();
    Lost();
    // Nobody will send them.
    while (std::optional<Notification> notification = Side().notifications.Pop()) {
      Side().unsent.push_back(std::move(*notification));
    }
  }

 private:
  // What is to be notified before the end, more than may be under way at once.
  void SendLast() {
    Clock::time_point until = Clock::now() + kLastNotifications;
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
    TakeImages();
    requests_.Handle(&session_, pdu, Side().sets_enabled.load());
    look_on_until_ = Clock::now() + kLookOn;
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
    std::unordered_map<uint64_t, std::shared_ptr<const Image>> images;
    {
      std::lock_guard lock(Side().images_mutex);
      images.swap(Side().images);
      Side().images_waiting.store(false, std::memory_order_relaxed);
    }
    for (auto &[id, image] : images) {
      if (image) {
        index_.Put(std::move(image));
      } else {
        index_.Remove(id);
      }
    }
  }

  // Answers the requests that follow one another closely, without the rest of a pass in between:
  // the sooner the answer, the likelier it finds the master still awake.
  void LookOn() {
    Clock::time_point now = Clock::now();
    Clock::time_point longest = now + kLongestLookOn;
    while (now < look_on_until_ && now < longest) {
      pollfd fds[] = {{session_.Socket(), POLLIN, 0}, {Side().wake_fd, POLLIN, 0}};
      if (poll(fds, 2, 0) > 0) {
        if (fds[1].revents != 0 || fds[0].revents != POLLIN) {
          return;
        }
        session_.SocketReady(true, false);
      }
      now = Clock::now();
    }
  }

  void Wait() {
    Clock::time_point now = Clock::now();
    std::chrono::nanoseconds patience{0};
    if (now >= look_on_until_) {
      Clock::time_point due = now + kLongestSleep;
      due = std::min({due, session_.NextDue(), requests_.NextDue(), queries_.NextDue()});
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
    if (Clock::now() >= look_on_until_) {
      TakeImages();
    }
    session_.Work();
    Side().up = session_.Up();
    requests_.Work(&session_);
    sender_.Send(&session_);
    std::vector<std::shared_ptr<SnmpQuery>> fresh;
    {
      std::lock_guard lock(Side().queries_mutex);
      fresh.swap(Side().queries);
    }
    for (std::shared_ptr<SnmpQuery> &query : fresh) {
      queries_.Start(std::move(query));
    }
    queries_.Work();
    Tick();
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
  Clock::time_point look_on_until_;
  Clock::time_point next_tick_;
};

void ThreadMain(const std::string &application, SnmpSettings *settings, int *result) {
  pthread_setname_np(pthread_self(), "snmp");
  Shared &side = Side();
  AgentxSession::Settings session;
  int loaded = LoadSnmpConfiguration(application, settings, &session);
  if (side.stand_behind) {
    session.priority = kPriorityBehind;
  }
  {
    std::lock_guard lock(side.state_mutex);
    *result = loaded;
    side.running = true;
    side.state_changed.notify_all();
  }
  if (loaded == 0) {
    {
      Loop loop(std::move(session));
      loop.Run();
    }
    UnloadSnmp(application);
  }
  std::lock_guard lock(side.state_mutex);
  side.finished = true;
  side.state_changed.notify_all();
}

}  // namespace

int SnmpStart(const char *application, SnmpSettings *settings) {
  Shared &side = Side();
  if (side.thread.joinable()) {
    return -1;
  }
  if (side.wake_fd < 0) {
    side.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (side.wake_fd < 0) {
      return -1;
    }
  }
  side.stop = false;
  side.finished = false;
  side.up = false;
  side.unsent.clear();
  Sets().SetWake(WakeThread);

  // Signals are for the agent thread alone.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  int result = -1;
  SnmpSettings read;
  try {
    side.thread = std::thread(ThreadMain, std::string(application), &read, &result);
  } catch (const std::system_error &) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return -1;
  }
  {
    std::unique_lock lock(side.state_mutex);
    side.state_changed.wait(lock, [&side] { return side.running; });
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (result != 0) {
    side.thread.join();
    side.running = false;
    return -1;
  }
  if (settings != nullptr) {
    *settings = std::move(read);
  }
  return 0;
}

void SnmpStop() {
  Shared &side = Side();
  if (!side.thread.joinable()) {
    return;
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
  std::lock_guard lock(side.queries_mutex);
  for (std::shared_ptr<SnmpQuery> &query : side.queries) {
    query->Done();
  }
  side.queries.clear();
}

std::vector<Notification> SnmpUnsent() {
  Shared &side = Side();
  std::lock_guard lock(side.state_mutex);
  return side.finished ? std::exchange(side.unsent, {}) : std::vector<Notification>{};
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
  uint64_t id = image->object_id;
  std::lock_guard lock(side.images_mutex);
  side.images[id].swap(image);  // the one before is released after the lock
  side.images_waiting.store(true, std::memory_order_release);
}

void SnmpWithdraw(uint64_t object_id) {
  Shared &side = Side();
  std::lock_guard lock(side.images_mutex);
  side.images[object_id] = nullptr;
  side.images_waiting.store(true, std::memory_order_release);
}

void SnmpNotify(Notification notification) {
  Side().notifications.Push(std::move(notification));
  if (Side().wake_fd >= 0) {
    WakeThread();
  }
}

int SnmpQueryInteger(const std::string &address, const std::string &community, const char *oid,
                     int32_t *value, int *status) {
  std::optional<std::vector<uint32_t>> name = ParseOid(oid != nullptr ? oid : "");
  if (!name || !SnmpRunning()) {
    return -1;
  }
  auto query = std::make_shared<SnmpQuery>();
  query->address = address;
  query->community = community;
  query->oid = std::move(*name);
  {
    std::lock_guard lock(Side().queries_mutex);
    Side().queries.push_back(query);
  }
  WakeThread();
  if (!query->Wait(Clock::now() + kQueryPatience)) {
    return -1;
  }
  if (status != nullptr && query->has_status) {
    *status = query->status;
  }
  if (!query->has_value) {
    return -1;
  }
  *value = query->value;
  return 0;
}

}  // namespace vex
