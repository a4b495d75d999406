#include "framework/machine/mount_stats.h"

#include <poll.h>
#include <signal.h>
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

#include "framework/process/child.h"
#include "framework/process/clock.h"
#include "framework/process/printable.h"

namespace vex {
namespace {

constexpr int64_t kBetweenCalls = -1;
constexpr int64_t kLeftAlone = -2;  // nobody waits: the answer goes into the slot

int64_t Nanoseconds(std::chrono::nanoseconds duration) {
  return duration.count();
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

// What a mount said, and how long it took.
struct Answer {
  mount_stats stats;
  int64_t took;
};

// What a child and its parent tell each other. The child's until the child has ended.
struct Slot {
  std::atomic<int64_t> current;  // what is being asked, or one of the two above
  std::atomic<int64_t> since;    // when that began, in nanoseconds
  std::atomic<bool> answered;    // `late` is complete
  Answer late;                   // of a child that was left alone
};

static_assert(std::atomic<size_t>::is_always_lock_free);
static_assert(std::atomic<int64_t>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);

// The mounts of one pass that are waited for.
struct Batch {
  Batch(const char *const *all_paths, std::vector<size_t> to_ask)
      : paths(all_paths),
        ask(std::move(to_ask)),
        shared(kAnswersAt + ask.size() * sizeof(Answer)) {}

  // The first mount that nobody has taken.
  std::atomic<size_t> &Next() {
    return *shared.At<std::atomic<size_t>>(0);
  }
  Answer *Answers() {
    return shared.At<Answer>(kAnswersAt);
  }

  static constexpr size_t kAnswersAt = 64;
  const char *const *paths;
  const std::vector<size_t> ask;  // which of them, in this order
  SharedMemory shared;            // answers by position in `ask`
};

// What follows runs in a child. The parent has other threads, so nothing is called here that takes
// a lock or memory.

Answer AskOne(const MountAsker::Settings &settings, const char *path, int64_t since) {
  struct statvfs figures = {};
  const int error = settings.stat(path, &figures) == 0 ? 0 : errno;
  return {error == 0 ? Figures(figures) : NoFigures(MOUNT_FAILED, error), ClockNs() - since};
}

[[noreturn]] void LeaveAnswer(Slot *slot, const Answer &answer) {
  slot->late = answer;
  slot->answered.store(true);
  _exit(0);
}

// Takes one mount after the other until there are no more or it is left alone.
[[noreturn]] void Work(const MountAsker::Settings &settings, Batch *batch, Slot *slot) {
  for (;;) {
    const size_t at = batch->Next().fetch_add(1);
    if (at >= batch->ask.size()) {
      _exit(0);
    }
    const int64_t since = ClockNs();
    slot->since.store(since);
    slot->current.store(static_cast<int64_t>(at));
    const Answer answer = AskOne(settings, batch->paths[batch->ask[at]], since);
    auto mine = static_cast<int64_t>(at);
    if (!slot->current.compare_exchange_strong(mine, kBetweenCalls)) {
      LeaveAnswer(slot, answer);
    }
    batch->Answers()[at] = answer;
  }
}

// A child that asks mounts.
struct Asker : Child {
  Slot *slot;
  std::string path;  // that it asks, once nobody waits for it
};

// What a child is told.
struct Task {
  const MountAsker::Settings *settings;
  Batch *batch;      // that it works on, or
  const char *path;  // the one mount that it asks
  Slot *slot;
};

[[noreturn]] void DoTask(void *argument) {
  const Task &task = *static_cast<const Task *>(argument);
  if (task.batch != nullptr) {
    Work(*task.settings, task.batch, task.slot);
  }
  LeaveAnswer(task.slot, AskOne(*task.settings, task.path, ClockNs()));
}

}  // namespace

struct MountAsker::State {
  // A mount that is not waited for, or that nobody could ask.
  struct Known {
    bool slow = false;          // its last answer took long, or has not come: asked between passes
    bool late_told = false;     // the log knows that it answers late
    bool silence_told = false;  // the caller knows that it does not answer
    pid_t child = 0;            // that asks it; 0 for none
    bool has_answer = false;
    Answer answer = {};
    uint64_t asked = 0;    // passes, by number: when a child was last sent between two,
    uint64_t listed = 0;   // when the path was last listed,
    uint64_t settled = 0;  // when it had `result`
    mount_stats result = {};
  };
  using Mounts = std::unordered_map<std::string, Known>;

  Settings settings;
  std::unique_ptr<SharedMemory> slots;
  std::vector<size_t> free_slots;
  std::list<Asker> working;  // on the present batch
  std::list<Asker> alone;    // that nobody waits for
  Mounts known;
  uint64_t pass = 0;

  bool MakeSlots();
  void ReapChild(const Asker &child);
  void Reap();
  bool MayAsk(const char *path, mount_stats *result);
  mount_stats Outcome(Mounts::iterator mount);
  void Silent(const char *path, pid_t child, mount_stats *result);
  void Take(const char *path, const Answer &answer);
  void Unlist();
  void AskBetweenPasses();
  size_t Outstanding() const;
  int StartChild(Batch *batch, const char *path);
  void GiveUp(Batch *batch);
  void Wait();
  void Run(Batch *batch);
};

// False when there is no memory.
bool MountAsker::State::MakeSlots() {
  if (slots == nullptr) {
    auto made = std::make_unique<SharedMemory>(settings.most_children * sizeof(Slot));
    if (!*made) {
      return false;
    }
    free_slots.resize(settings.most_children);
    for (size_t i = 0; i < free_slots.size(); i++) {
      free_slots[i] = i;
    }
    slots = std::move(made);
  }
  return true;
}

// Of a child that has ended.
void MountAsker::State::ReapChild(const Asker &child) {
  vex::ReapChild(child);
  // There was room for it before it was taken.
  free_slots.push_back(static_cast<size_t>(child.slot - slots->At<Slot>(0)));
}

// Takes over what children left that have ended.
void MountAsker::State::Reap() {
  std::erase_if(alone, [&](const Asker &child) {
    if (!HasEnded(child)) {
      return false;
    }
    // A path that was not listed in between is another mount's by now, maybe.
    const auto mount = known.find(child.path);
    if (mount != known.end() && mount->second.child == child.pid) {
      mount->second.child = 0;
      mount->second.has_answer = child.slot->answered;
      if (child.slot->answered) {
        mount->second.answer = child.slot->late;
      }
    }
    ReapChild(child);
    return true;
  });
}

// What a pass gets of a mount that is not waited for.
mount_stats MountAsker::State::Outcome(Mounts::iterator mount) {
  Known &it = mount->second;
  if (it.child == 0) {
    if (!it.has_answer) {
      return it.silence_told ? NoFigures(MOUNT_STILL_SILENT, ETIMEDOUT)
                             : NoFigures(MOUNT_WAITED_FOR, it.answer.stats.error);
    }
    if (!it.late_told) {
      agentlog_fprintf(stderr, "Info: mount %s answered after %.1f seconds; %s\n",
                       Printable(mount->first).c_str(), static_cast<double>(it.answer.took) / 1e9,
                       "asked between polls until it is quick again");
      it.late_told = true;
    }
    it.has_answer = false;
    if (it.answer.took <= Nanoseconds(settings.silence)) {
      it.silence_told = false;
    }
    return it.answer.stats;
  }
  const auto asks = std::find_if(alone.begin(), alone.end(),
                                 [&](const Asker &child) { return child.pid == it.child; });
  const bool silent =
      asks != alone.end() && ClockNs() - asks->slot->since > Nanoseconds(settings.silence);
  if (!silent && !it.silence_told) {
    return NoFigures(MOUNT_WAITED_FOR, it.answer.stats.error);
  }
  const bool news = !it.silence_told;
  it.silence_told = true;
  return NoFigures(news ? MOUNT_SILENT : MOUNT_STILL_SILENT, ETIMEDOUT);
}

// False, with the result, for a mount that is not waited for.
bool MountAsker::State::MayAsk(const char *path, mount_stats *result) {
  if (known.empty()) {
    return true;
  }
  const auto mount = known.find(path);
  if (mount == known.end()) {
    return true;
  }
  Known &it = mount->second;
  it.listed = pass;
  if (!it.slow) {
    return true;  // nobody could ask it
  }
  if (it.settled == pass) {
    // Listed twice. The silence is news once.
    *result = it.result;
    if (result->state == MOUNT_SILENT) {
      result->state = MOUNT_STILL_SILENT;
    }
    return false;
  }
  if (it.child == 0 && it.has_answer && it.answer.took < Nanoseconds(settings.quick)) {
    if (it.late_told) {
      agentlog_fprintf(stderr, "Info: mount %s answers quickly again\n",
                       Printable(mount->first).c_str());
    }
    known.erase(mount);
    return true;
  }
  it.result = Outcome(mount);
  it.settled = pass;
  *result = it.result;
  return false;
}

// The mount gave no answer within the limit: to that child, or nobody could ask it (0).
void MountAsker::State::Silent(const char *path, pid_t child, mount_stats *result) {
  Known &it = known[path];
  it.listed = pass;
  if (child != 0 && it.child == 0) {
    it.slow = true;
    it.child = child;
    it.has_answer = false;
  }
  const bool news = !it.silence_told;
  it.silence_told = true;
  *result = NoFigures(news ? MOUNT_SILENT : MOUNT_STILL_SILENT, ETIMEDOUT);
}

// Within the limit.
void MountAsker::State::Take(const char *path, const Answer &answer) {
  if (answer.took < Nanoseconds(settings.slow)) {
    if (!known.empty()) {
      known.erase(path);
    }
    return;
  }
  Known &it = known[path];
  it.listed = pass;
  it.slow = true;
  it.silence_told = false;
  it.answer = answer;
}

// Forgets mounts that are not listed any more.
void MountAsker::State::Unlist() {
  std::erase_if(known, [&](const auto &mount) { return mount.second.listed != pass; });
}

size_t MountAsker::State::Outstanding() const {
  return working.size() + alone.size();
}

// Asks the slow mounts, one child each, for the next pass to take over.
void MountAsker::State::AskBetweenPasses() {
  std::vector<Mounts::value_type *> due;
  for (auto &mount : known) {
    if (mount.second.slow && mount.second.child == 0 && !mount.second.has_answer) {
      due.push_back(&mount);
    }
  }
  const size_t busy = Outstanding();
  const size_t room = settings.most_outstanding - std::min(settings.most_outstanding, busy);
  if (due.size() > room) {
    // Each has its turn.
    std::sort(due.begin(), due.end(),
              [](const auto *a, const auto *b) { return a->second.asked < b->second.asked; });
    due.resize(room);
  }
  for (auto *mount : due) {
    if (settings.ending() || StartChild(nullptr, mount->first.c_str()) != 0) {
      return;  // the next pass tries again
    }
    mount->second.asked = pass;
    mount->second.child = working.back().pid;
    alone.splice(alone.end(), working, std::prev(working.end()));
  }
}

// Starts a child that works on the batch, or, without one, asks one mount and leaves the answer.
// Stands last in `working` then. 0 or an errno.
int MountAsker::State::StartChild(Batch *batch, const char *path) {
  if (free_slots.empty()) {
    return EAGAIN;
  }
  working.push_back({{0, -1}, nullptr, batch == nullptr ? path : ""});
  Slot *slot = slots->At<Slot>(0) + free_slots.back();
  slot->answered = false;
  slot->since = ClockNs();
  slot->current = batch != nullptr ? kBetweenCalls : kLeftAlone;
  Task task = {&settings, batch, path, slot};
  const int error = vex::StartChild("mount-asker", DoTask, &task, &working.back());
  if (error != 0) {
    working.pop_back();
    return error;
  }
  free_slots.pop_back();
  working.back().slot = slot;
  return 0;
}

// Ends the batch before its time.
void MountAsker::State::GiveUp(Batch *batch) {
  batch->Next() = batch->ask.size();  // for children that are between two mounts
  for (const Asker &child : working) {
    kill(child.pid, SIGKILL);
  }
  alone.splice(alone.end(), working);
}

// Until a child ends, at most for as long as a child is given before another one starts.
void MountAsker::State::Wait() {
  std::vector<pollfd> ends;
  ends.reserve(working.size());
  for (const Asker &child : working) {
    ends.push_back({child.alive, POLLIN, 0});
  }
  poll(ends.data(), ends.size(), static_cast<int>(settings.patience.count()));
}

void MountAsker::State::Run(Batch *batch) {
  const int64_t patience = Nanoseconds(settings.patience);
  // Where so many are silent, the next one is likelier to be silent as well than to be slow: each
  // pass would meet one of them. The answer of a slow one is taken over by the next pass.
  const int64_t shortest = std::min(Nanoseconds(settings.limit), 5 * patience);
  const int64_t whole =
      Outstanding() < settings.most_outstanding ? Nanoseconds(settings.limit) : shortest;
  const int64_t began = ClockNs();
  Answer *answers = batch->Answers();
  // With the limit reached, the batch still gets one child: its mounts may all be healthy.
  int error = 0;
  if (!batch->ask.empty() && Outstanding() < settings.most_children) {
    error = StartChild(batch, nullptr);
  }
  for (;;) {
    size_t moving = 0;
    size_t held_up = 0;
    const int64_t now = ClockNs();
    for (auto child = working.begin(); child != working.end();) {
      const auto next = std::next(child);
      int64_t at = child->slot->current;
      const int64_t since = child->slot->since;
      const int64_t waited = now - since;
      // The limit is the pass's: who was come to late has what is left of it.
      const int64_t limit = std::max(shortest, whole - (since - began));
      if (HasEnded(*child)) {
        // By itself, or killed by somebody, and then what it had taken has failed.
        ReapChild(*child);
        working.erase(child);
      } else if (at < 0 || waited < patience) {
        moving++;
      } else if (waited < limit || !child->slot->current.compare_exchange_strong(at, kLeftAlone)) {
        held_up++;
      } else {
        const auto where = static_cast<size_t>(at);
        const char *path = batch->paths[batch->ask[where]];
        // First what may run out of memory: the path is how its answer is found.
        child->path = path;
        Silent(path, child->pid, &answers[where].stats);
        alone.splice(alone.end(), working, child);
      }
      child = next;
    }
    const size_t taken = std::min(batch->Next().load(), batch->ask.size());
    const size_t rest = batch->ask.size() - taken;
    if (rest > 0 && moving == 0 && error == 0) {
      // As many again as are held up: a dead server with hundreds of mounts is soon behind us.
      Reap();
      const size_t busy = Outstanding();
      const size_t room = settings.most_outstanding - std::min(settings.most_outstanding, busy);
      for (size_t n = std::min({rest, room, held_up + 1}); n > 0 && error == 0; n--) {
        error = StartChild(batch, nullptr);
        moving += error == 0;
      }
    }
    if (working.empty()) {
      break;
    }
    if (settings.ending()) {
      GiveUp(batch);
      return;
    }
    Wait();
  }
  // Nobody is there to ask the rest.
  for (size_t at = batch->Next(); at < batch->ask.size(); at++) {
    if (error != 0) {
      answers[at] = {NoFigures(MOUNT_FAILED, error), 0};
    } else {
      Silent(batch->paths[batch->ask[at]], 0, &answers[at].stats);
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
  if (!state.MakeSlots()) {
    std::fill_n(results, count, NoFigures(MOUNT_FAILED, ENOMEM));
    return;
  }
  state.pass++;
  state.Reap();
  std::vector<size_t> ask;
  ask.reserve(count);
  for (size_t index = 0; index < count; index++) {
    if (state.MayAsk(paths[index], &results[index])) {
      ask.push_back(index);
    }
  }
  Batch batch(paths, std::move(ask));
  if (!batch.shared) {
    for (const size_t index : batch.ask) {
      results[index] = NoFigures(MOUNT_FAILED, ENOMEM);
    }
    state.Unlist();
    return;
  }
  // Until a child stores what it was told: it may be killed at any point, and zeros look like an
  // answer. Whoever ends has no time for failures.
  std::fill_n(batch.Answers(), batch.ask.size(), Answer{NoFigures(MOUNT_FAILED, EINTR), 0});
  try {
    state.Run(&batch);
  } catch (...) {
    state.GiveUp(&batch);
    throw;
  }
  const bool ending = state.settings.ending();
  for (size_t at = 0; at < batch.ask.size(); at++) {
    const Answer &answer = batch.Answers()[at];
    mount_stats &result = results[batch.ask[at]];
    result = answer.stats;
    if (ending && result.state == MOUNT_FAILED && result.error == EINTR) {
      result = NoFigures(MOUNT_STILL_SILENT, EINTR);
    } else if (result.state == MOUNT_ANSWERED || result.state == MOUNT_FAILED) {
      state.Take(paths[batch.ask[at]], answer);
    }
  }
  state.Unlist();
  try {
    state.AskBetweenPasses();
  } catch (const std::bad_alloc &) {
    // The next pass tries again.
  }
}

size_t MountAsker::Outstanding() {
  state_->Reap();
  return state_->alone.size();
}

}  // namespace vex

extern "C" int stat_mounts(const char *const *paths, size_t count, struct mount_stats *results) {
  try {
    static vex::MountAsker asker;
    asker.Ask(paths, count, results);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
  return 0;
}
