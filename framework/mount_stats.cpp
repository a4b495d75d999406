#include "framework/mount_stats.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

namespace vex {
namespace {

using Clock = std::chrono::steady_clock;

// Virtual; a worker touches little of it. Sanitizers and the C library's own data need some.
constexpr size_t kStackSize = 64 * 1024;

struct Batch {
  const char *const *paths;
  mount_stats *results;
  std::vector<size_t> ask;  // which of them, in this order
  size_t next = 0;          // the first of `ask` that nobody has taken
};

struct Worker {
  const MountAsker::Settings *settings;
  std::mutex *lock;
  std::condition_variable *progress;
  // Under the lock from here on.
  Batch *batch;  // null once abandoned
  size_t index = 0;
  bool calling = false;
  Clock::time_point since = {};  // when the call began
  bool ended = false;            // the thread's last sign of life
};

void Store(const struct statvfs &from, mount_stats *to) {
  *to = {.state = MOUNT_ANSWERED,
         .error = 0,
         .frsize = from.f_frsize,
         .blocks = from.f_blocks,
         .bfree = from.f_bfree,
         .files = from.f_files,
         .ffree = from.f_ffree};
}

mount_stats NoFigures(int state, int error) {
  mount_stats result = {};
  result.state = state;
  result.error = error;
  return result;
}

// Takes one mount after the other until the batch has no more or the worker is abandoned.
// Allocates nothing: a thread's first allocation would give it a heap of its own.
void *Work(void *argument) {
  Worker &me = *static_cast<Worker *>(argument);
  std::unique_lock hold(*me.lock);
  while (me.batch != nullptr && me.batch->next < me.batch->ask.size()) {
    me.index = me.batch->ask[me.batch->next++];
    // The batch may be gone by the time that the call is made.
    char path[PATH_MAX];
    const size_t length = strnlen(me.batch->paths[me.index], sizeof(path));
    memcpy(path, me.batch->paths[me.index], length < sizeof(path) ? length + 1 : length);
    me.calling = true;
    me.since = Clock::now();
    hold.unlock();
    struct statvfs figures = {};
    int error = ENAMETOOLONG;
    if (length < sizeof(path)) {
      error = me.settings->stat(path, &figures) == 0 ? 0 : errno;
    }
    hold.lock();
    me.calling = false;
    if (me.batch != nullptr) {
      mount_stats &result = me.batch->results[me.index];
      if (error == 0) {
        Store(figures, &result);
      } else {
        result = NoFigures(MOUNT_FAILED, error);
      }
    }
  }
  me.ended = true;
  me.progress->notify_all();
  return nullptr;
}

// Starts a detached thread that takes no signals. 0 or an errno.
int Start(Worker *worker) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kStackSize);
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const int error = pthread_create(&thread, &attributes, Work, worker);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  return error;
}

}  // namespace

struct MountAsker::State {
  // A path that gave no answer when it was last listed.
  struct Silence {
    const Worker *worker;  // who waits for its outstanding call; null when it has come back, or
                           // when nobody could ask
    bool listed;           // by the present call
  };

  Settings settings;
  mutable std::mutex lock;
  std::condition_variable progress;
  std::list<Worker> workers;  // of the present batch, and those abandoned earlier
  std::unordered_map<std::string, Silence> silent;

  void Reap();
  bool MayAsk(const char *path);
  void Silent(Batch *batch, size_t index, const Worker *worker);
  void Settle(const Batch &batch);
  void Run(Batch *batch, std::unique_lock<std::mutex> *hold);
  int StartWorkers(Batch *batch, size_t number);
};

// Drops the records of threads that have ended.
void MountAsker::State::Reap() {
  for (auto worker = workers.begin(); worker != workers.end();) {
    if (!worker->ended) {
      ++worker;
      continue;
    }
    for (auto &[path, silence] : silent) {
      if (silence.worker == &*worker) {
        silence.worker = nullptr;
      }
    }
    worker = workers.erase(worker);
  }
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
  return found->second.worker == nullptr;
}

void MountAsker::State::Silent(Batch *batch, size_t index, const Worker *worker) {
  const auto [entry, first] = silent.try_emplace(batch->paths[index], Silence{worker, true});
  if (entry->second.worker == nullptr) {
    entry->second.worker = worker;
  }
  batch->results[index] = NoFigures(first ? MOUNT_SILENT : MOUNT_STILL_SILENT, ETIMEDOUT);
}

// Forgets the silence of mounts that answered, and of those that are not listed any more.
void MountAsker::State::Settle(const Batch &batch) {
  if (silent.empty()) {
    return;
  }
  for (const size_t index : batch.ask) {
    if (batch.results[index].state == MOUNT_ANSWERED ||
        batch.results[index].state == MOUNT_FAILED) {
      silent.erase(batch.paths[index]);
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

// 0, or the errno of the first that could not be started.
int MountAsker::State::StartWorkers(Batch *batch, size_t number) {
  for (; number > 0; number--) {
    workers.push_back({&settings, &lock, &progress, batch});
    const int error = Start(&workers.back());
    if (error != 0) {
      workers.pop_back();
      return error;
    }
  }
  return 0;
}

void MountAsker::State::Run(Batch *batch, std::unique_lock<std::mutex> *hold) {
  // With the limit reached, the batch still gets one worker: its mounts may all be healthy.
  int error = StartWorkers(batch, batch->ask.empty() ? 0 : 1);
  for (;;) {
    const auto now = Clock::now();
    size_t moving = 0;
    size_t held_up = 0;
    for (Worker &worker : workers) {
      if (worker.batch != batch || worker.ended) {
        continue;
      }
      if (!worker.calling || now - worker.since < settings.patience) {
        moving++;
      } else if (now - worker.since < settings.limit) {
        held_up++;
      } else {
        worker.batch = nullptr;
        Silent(batch, worker.index, &worker);
      }
    }
    const size_t rest = batch->ask.size() - batch->next;
    if (rest > 0 && moving == 0 && error == 0) {
      // As many again as are held up: a dead server with hundreds of mounts is soon behind us.
      Reap();
      const size_t room =
          settings.most_outstanding - std::min(settings.most_outstanding, workers.size());
      const size_t number = std::min({rest, room, held_up + 1});
      error = StartWorkers(batch, number);
      moving = number;
    }
    if (moving == 0 && held_up == 0) {
      break;
    }
    progress.wait_for(*hold, settings.patience);
  }
  // Nobody is there to ask the rest.
  for (; batch->next < batch->ask.size(); batch->next++) {
    const size_t index = batch->ask[batch->next];
    if (error != 0) {
      batch->results[index] = NoFigures(MOUNT_FAILED, error);
    } else {
      Silent(batch, index, nullptr);
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
  std::unique_lock hold(state.lock);
  state.Reap();
  Batch batch{.paths = paths, .results = results, .ask = {}};
  batch.ask.reserve(count);
  for (size_t index = 0; index < count; index++) {
    if (state.MayAsk(paths[index])) {
      batch.ask.push_back(index);
    } else {
      results[index] = NoFigures(MOUNT_STILL_SILENT, ETIMEDOUT);
    }
  }
  try {
    state.Run(&batch, &hold);
    state.Settle(batch);
  } catch (...) {
    for (Worker &worker : state.workers) {
      worker.batch = nullptr;  // the batch goes
    }
    throw;
  }
}

size_t MountAsker::Outstanding() const {
  const std::lock_guard hold(state_->lock);
  size_t count = 0;
  for (const Worker &worker : state_->workers) {
    count += !worker.ended;
  }
  return count;
}

}  // namespace vex

extern "C" int stat_mounts(const char *const *paths, size_t count, struct mount_stats *results) {
  // Never destroyed: abandoned threads may come back during the process's end.
  static auto *asker = new (std::nothrow) vex::MountAsker;
  if (asker == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  try {
    asker->Ask(paths, count, results);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
  return 0;
}
