#include "framework/mount_stats.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <list>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

namespace vex {
namespace {

constexpr int64_t kBetweenCalls = -1;
constexpr int64_t kAbandoned = -2;

// What a child and its parent tell each other.
struct Slot {
  std::atomic<int64_t> current;  // what is being asked, or one of the two above
  std::atomic<int64_t> since;    // when that began, in nanoseconds
};

int64_t Nanoseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

mount_stats NoFigures(int state, int error) {
  mount_stats result = {};
  result.state = state;
  result.error = error;
  return result;
}

mount_stats Figures(const struct statvfs &from) {
  return {.state = MOUNT_ANSWERED,
          .error = 0,
          .frsize = from.f_frsize,
          .blocks = from.f_blocks,
          .bfree = from.f_bfree,
          .files = from.f_files,
          .ffree = from.f_ffree};
}

// Memory that a batch shares with its children. Those that are abandoned keep their view of it.
class Shared {
 public:
  Shared(size_t slots, size_t results)
      : slots_(slots), size_(ResultsAt() + results * sizeof(mount_stats)) {
    memory_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory_ == MAP_FAILED) {
      throw std::bad_alloc();
    }
  }
  ~Shared() {
    munmap(memory_, size_);
  }
  Shared(const Shared &) = delete;
  Shared &operator=(const Shared &) = delete;

  // The first mount that nobody has taken.
  std::atomic<size_t> &Next() {
    return *At<std::atomic<size_t>>(0);
  }
  Slot &SlotOf(size_t number) {
    return At<Slot>(kSlotsAt)[number];
  }
  size_t Slots() const {
    return slots_;
  }
  mount_stats *Results() {
    return At<mount_stats>(ResultsAt());
  }

 private:
  static constexpr size_t kSlotsAt = 64;
  size_t ResultsAt() const {
    return kSlotsAt + slots_ * sizeof(Slot);
  }
  template <typename T>
  T *At(size_t offset) {
    return reinterpret_cast<T *>(static_cast<char *>(memory_) + offset);
  }

  size_t slots_;
  size_t size_;
  void *memory_;
};
static_assert(std::atomic<size_t>::is_always_lock_free);
static_assert(std::atomic<int64_t>::is_always_lock_free);

struct Batch {
  const char *const *paths;
  std::vector<size_t> ask;  // which of them, in this order
  Shared shared;            // results by position in `ask`
  size_t children = 0;      // started so far
};

// Closes every descriptor but one, so that an abandoned child holds nothing of the agent's open.
void CloseAllBut(int kept) {
  const auto keep = static_cast<unsigned>(kept);
  if ((keep > 0 && syscall(SYS_close_range, 0U, keep - 1, 0) != 0) ||
      syscall(SYS_close_range, keep + 1, ~0U, 0) != 0) {
    for (int fd = 0; fd < 4096; fd++) {
      if (fd != kept) {
        close(fd);
      }
    }
  }
}

// The child: takes one mount after the other until there are no more or it is abandoned. The parent
// has other threads, so nothing is called here that takes a lock or memory.
[[noreturn]] void Work(const MountAsker::Settings &settings, Batch &batch, Slot &slot, int alive,
                       pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(0);
  }
  prctl(PR_SET_NAME, "mount-asker");
  CloseAllBut(alive);
  for (;;) {
    const size_t at = batch.shared.Next().fetch_add(1);
    if (at >= batch.ask.size()) {
      _exit(0);
    }
    slot.since.store(Nanoseconds());
    slot.current.store(static_cast<int64_t>(at));
    struct statvfs figures = {};
    const int error = settings.stat(batch.paths[batch.ask[at]], &figures) == 0 ? 0 : errno;
    auto mine = static_cast<int64_t>(at);
    if (!slot.current.compare_exchange_strong(mine, kBetweenCalls)) {
      _exit(0);
    }
    batch.shared.Results()[at] = error == 0 ? Figures(figures) : NoFigures(MOUNT_FAILED, error);
  }
}

struct Child {
  pid_t pid;
  int alive;   // end of a pipe that hangs up when the child ends
  Slot *slot;  // null once abandoned
};

bool HasEnded(const Child &child) {
  pollfd end = {child.alive, POLLIN, 0};
  return poll(&end, 1, 0) == 1;
}

void Bury(const Child &child) {
  close(child.alive);
  waitpid(child.pid, nullptr, 0);
}

}  // namespace

struct MountAsker::State {
  // A path that gave no answer when it was last listed.
  struct Silence {
    pid_t child;  // waits for its outstanding call; 0 when that has come back, or nobody could ask
    bool listed;  // by the present call
  };

  Settings settings;
  std::list<Child> working;  // on the present batch
  std::list<Child> abandoned;
  std::unordered_map<std::string, Silence> silent;

  void Reap();
  bool MayAsk(const char *path);
  void Silent(const char *path, pid_t child, mount_stats *result);
  void Settle(const char *const *paths, size_t count, const mount_stats *results);
  int StartChild(Batch *batch);
  void Ended(std::list<Child>::iterator child);
  void Wait();
  void Run(Batch *batch);
};

// Forgets abandoned children that have ended.
void MountAsker::State::Reap() {
  std::erase_if(abandoned, [&](const Child &child) {
    if (!HasEnded(child)) {
      return false;
    }
    Bury(child);
    for (auto &[path, silence] : silent) {
      if (silence.child == child.pid) {
        silence.child = 0;
      }
    }
    return true;
  });
}

// False while the path's outstanding call has not come back.
bool MountAsker::State::MayAsk(const char *path) {
  if (silent.empty()) {
    return true;
  }
  const auto found = silent.find(path);
  if (found == silent.end()) {
    return true;
  }
  found->second.listed = true;
  return found->second.child == 0;
}

void MountAsker::State::Silent(const char *path, pid_t child, mount_stats *result) {
  const auto [entry, first] = silent.try_emplace(path, Silence{child, true});
  if (entry->second.child == 0) {
    entry->second.child = child;
  }
  *result = NoFigures(first ? MOUNT_SILENT : MOUNT_STILL_SILENT, ETIMEDOUT);
}

// Forgets the silence of mounts that answered, and of those that are not listed any more.
void MountAsker::State::Settle(const char *const *paths, size_t count, const mount_stats *results) {
  if (silent.empty()) {
    return;
  }
  for (size_t i = 0; i < count; i++) {
    if (results[i].state == MOUNT_ANSWERED || results[i].state == MOUNT_FAILED) {
      silent.erase(paths[i]);
    }
  }
  for (auto entry = silent.begin(); entry != silent.end();) {
    if (entry->second.listed) {
      entry->second.listed = false;
      ++entry;
    } else {
      entry = silent.erase(entry);
    }
  }
}

// 0 or an errno.
int MountAsker::State::StartChild(Batch *batch) {
  working.push_back({});
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    working.pop_back();
    return errno;
  }
  Slot &slot = batch->shared.SlotOf(batch->children);
  slot.current = kBetweenCalls;
  // No handler of the agent may run in the child.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    Work(settings, *batch, slot, ends[1], parent);
  }
  const int error = pid < 0 ? errno : 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  close(ends[1]);
  if (error != 0) {
    close(ends[0]);
    working.pop_back();
    return error;
  }
  batch->children++;
  working.back() = {pid, ends[0], &slot};
  return 0;
}

// A child has ended: by itself, or killed by somebody, and then what it had taken has failed.
void MountAsker::State::Ended(std::list<Child>::iterator child) {
  Bury(*child);
  working.erase(child);
}

// Until a child ends, at most for as long as a child is given before another one starts.
void MountAsker::State::Wait() {
  std::vector<pollfd> ends;
  ends.reserve(working.size());
  for (const Child &child : working) {
    ends.push_back({child.alive, POLLIN, 0});
  }
  poll(ends.data(), ends.size(), static_cast<int>(settings.patience.count()));
}

void MountAsker::State::Run(Batch *batch) {
  const std::chrono::nanoseconds limit = settings.limit;
  const std::chrono::nanoseconds patience = settings.patience;
  mount_stats *results = batch->shared.Results();
  // With the limit reached, the batch still gets one child: its mounts may all be healthy.
  int error = batch->ask.empty() ? 0 : StartChild(batch);
  for (;;) {
    size_t moving = 0;
    size_t held_up = 0;
    const int64_t now = Nanoseconds();
    for (auto child = working.begin(); child != working.end();) {
      const auto next = std::next(child);
      int64_t at = child->slot->current;
      const int64_t waited = now - child->slot->since;
      if (HasEnded(*child)) {
        Ended(child);
      } else if (at < 0 || waited < patience.count()) {
        moving++;
      } else if (waited < limit.count() ||
                 !child->slot->current.compare_exchange_strong(at, kAbandoned)) {
        held_up++;
      } else {
        const auto where = static_cast<size_t>(at);
        Silent(batch->paths[batch->ask[where]], child->pid, &results[where]);
        child->slot = nullptr;
        abandoned.splice(abandoned.end(), working, child);
      }
      child = next;
    }
    const size_t taken = std::min(batch->shared.Next().load(), batch->ask.size());
    const size_t rest = batch->ask.size() - taken;
    if (rest > 0 && moving == 0 && error == 0) {
      // As many again as are held up: a dead server with hundreds of mounts is soon behind us.
      Reap();
      const size_t busy = working.size() + abandoned.size();
      const size_t room = settings.most_outstanding - std::min(settings.most_outstanding, busy);
      const size_t slots = batch->shared.Slots() - batch->children;
      for (size_t n = std::min({rest, room, slots, held_up + 1}); n > 0 && error == 0; n--) {
        error = StartChild(batch);
        moving += error == 0;
      }
    }
    if (working.empty()) {
      break;
    }
    Wait();
  }
  // Nobody is there to ask the rest.
  for (size_t at = batch->shared.Next(); at < batch->ask.size(); at++) {
    if (error != 0) {
      results[at] = NoFigures(MOUNT_FAILED, error);
    } else {
      Silent(batch->paths[batch->ask[at]], 0, &results[at]);
    }
  }
}

MountAsker::MountAsker() : MountAsker(Settings{}) {}

MountAsker::MountAsker(const Settings &settings) : state_(std::make_unique<State>()) {
  state_->settings = settings;
}

MountAsker::~MountAsker() = default;

void MountAsker::Ask(const char *const *paths, size_t count, mount_stats *results) {
  State &state = *state_;
  state.Reap();
  std::vector<size_t> ask;
  ask.reserve(count);
  for (size_t index = 0; index < count; index++) {
    if (state.MayAsk(paths[index])) {
      ask.push_back(index);
    } else {
      results[index] = NoFigures(MOUNT_STILL_SILENT, ETIMEDOUT);
    }
  }
  // Room for every child that may be abandoned, and for those that come to a healthy end.
  const size_t slots = std::min(2 * state.settings.most_outstanding, count) + 1;
  Batch batch{paths, std::move(ask), Shared(slots, count)};
  // Until a child stores what it was told: it may be killed at any point, and zeros look like an
  // answer.
  std::fill_n(batch.shared.Results(), batch.ask.size(), NoFigures(MOUNT_FAILED, EINTR));
  try {
    state.Run(&batch);
  } catch (...) {
    // The children see no more of the batch.
    for (Child &child : state.working) {
      kill(child.pid, SIGKILL);
      child.slot = nullptr;
    }
    state.abandoned.splice(state.abandoned.end(), state.working);
    throw;
  }
  for (size_t at = 0; at < batch.ask.size(); at++) {
    results[batch.ask[at]] = batch.shared.Results()[at];
  }
  state.Settle(paths, count, results);
}

size_t MountAsker::Outstanding() {
  state_->Reap();
  return state_->abandoned.size();
}

}  // namespace vex

extern "C" int stat_mounts(const char *const *paths, size_t count, struct mount_stats *results) {
  static vex::MountAsker asker;
  try {
    asker.Ask(paths, count, results);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
  return 0;
}
