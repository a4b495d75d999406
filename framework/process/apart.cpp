#include "framework/process/apart.h"

#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "framework/process/child.h"
#include "framework/process/clock.h"

namespace vex {
namespace {

// Where the child is.
struct Progress {
  std::atomic<int64_t> since;  // when the present step began, in nanoseconds
  std::atomic<size_t> at;      // that step; the number of steps at the end
};
static_assert(std::atomic<size_t>::is_always_lock_free);
static_assert(std::atomic<int64_t>::is_always_lock_free);
constexpr size_t kResultsAt = 64;
static_assert(sizeof(Progress) <= kResultsAt);

struct Work {
  apart_fn step;
  size_t count;
  size_t size;
  Progress *progress;
  char *results;
};

// In the child.
void DoSteps(void *argument) {
  const Work &work = *static_cast<const Work *>(argument);
  for (size_t at = 0; at < work.count; at++) {
    work.progress->since.store(ClockNs());
    work.progress->at.store(at);
    work.step(at, work.results + at * work.size);
  }
  work.progress->at.store(work.count);
}

// Children that had not ended soon after they were killed: a call that cannot even be killed. Agent
// thread.
constexpr size_t kMostLeft = 16;
Child left[kMostLeft];
size_t left_count;

void BuryLeft() {
  const auto ended = [](const Child &child) {
    if (!HasEnded(child)) {
      return false;
    }
    Bury(child);
    return true;
  };
  left_count = static_cast<size_t>(std::remove_if(left, left + left_count, ended) - left);
}

void WaitForEnd(const Child &child, int64_t until) {
  pollfd end = {child.alive, POLLIN, 0};
  const int64_t ns = std::max(until - ClockNs(), int64_t{0});
  poll(&end, 1, static_cast<int>((ns + kNsPerMs - 1) / kNsPerMs));
}

void Kill(const Child &child) {
  constexpr int64_t kSoon = 100 * kNsPerMs;
  kill(child.pid, SIGKILL);
  const int64_t until = ClockNs() + kSoon;
  while (!HasEnded(child) && ClockNs() < until) {
    WaitForEnd(child, until);
  }
  if (HasEnded(child)) {
    Bury(child);
  } else {
    left[left_count++] = child;
  }
}

// Until the child has ended or has to. 0, or why it was killed.
int Watch(const Child &child, const Progress &progress, int64_t limit, int64_t whole_until,
          bool (*ending)()) {
  for (;;) {
    const size_t at = progress.at;
    const int64_t step_until = progress.since + limit;
    const int64_t now = ClockNs();
    int error = 0;
    if (HasEnded(child)) {
      Bury(child);
      return 0;
    }
    if (ending()) {
      error = EINTR;
    } else if (now >= step_until) {
      error = ETIMEDOUT;
    } else if (now >= whole_until) {
      error = ETIME;
    }
    if (error == 0) {
      WaitForEnd(child, std::min(step_until, whole_until));
      continue;
    }
    Kill(child);
    // It may have gone on just before.
    return error == ETIMEDOUT && progress.at != at ? EAGAIN : error;
  }
}

}  // namespace

size_t RunApart(apart_fn step, size_t count, void *results, size_t size, int limit_ms, int whole_ms,
                bool (*ending)()) {
  const int64_t whole_until = ClockNs() + whole_ms * kNsPerMs;
  BuryLeft();
  if (left_count == kMostLeft) {
    errno = EAGAIN;
    return 0;
  }
  const SharedMemory shared(kResultsAt + count * size);
  if (!shared) {
    errno = ENOMEM;
    return 0;
  }
  Work work = {step, count, size, shared.At<Progress>(0), shared.At<char>(kResultsAt)};
  work.progress->since = ClockNs();
  Child child;
  const int failed = StartChild("process-asker", DoSteps, &work, &child);
  if (failed != 0) {
    errno = failed;
    return 0;
  }
  const int killed = Watch(child, *work.progress, limit_ms * kNsPerMs, whole_until, ending);
  const size_t done = work.progress->at;
  if (done > 0) {
    memcpy(results, work.results, done * size);
  }
  errno = killed != 0 ? killed : ECHILD;
  return done;
}

}  // namespace vex

extern "C" size_t run_apart(apart_fn step, size_t count, void *results, size_t size, int limit_ms,
                            int whole_ms) {
  return vex::RunApart(step, count, results, size, limit_ms, whole_ms,
                       [] { return agent_ending() != 0; });
}
