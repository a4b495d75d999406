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

// Where the child is: steps that it has begun and done. Between two steps they are the same.
struct Progress {
  std::atomic<size_t> begun;
  std::atomic<size_t> done;
};
static_assert(std::atomic<size_t>::is_always_lock_free);
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
    work.progress->begun.store(at + 1);
    work.step(at, work.results + at * work.size);
    work.progress->done.store(at + 1);
  }
}

// Children that had not ended soon after they were killed: a call that cannot even be killed. Agent
// thread.
constexpr size_t kMostLeft = 16;
Child left[kMostLeft];
size_t left_count;

void ReapLeft() {
  const auto ended = [](const Child &child) {
    if (!HasEnded(child)) {
      return false;
    }
    ReapChild(child);
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
    ReapChild(child);
  } else {
    left[left_count++] = child;
  }
}

// Until the child has ended or has to. 0, or why it was killed.
// A step is held up only while the child sleeps in a call: a child that waits for a processor, or
// that somebody has stopped, tells nothing about what the step asks.
int Watch(const Child &child, const Progress &progress, int64_t limit, int64_t whole_until,
          bool (*ending)()) {
  // A look at the child speaks for the time since the look before it, but not for longer than this:
  // this process may have waited for a processor as well.
  constexpr int kLooksInLimit = 8;
  const int64_t between_looks = std::max(limit / kLooksInLimit, kNsPerMs);
  size_t step = 0;
  int64_t held_up = 0;
  int64_t looked_at = ClockNs();
  for (;;) {
    const size_t done = progress.done;
    const size_t begun = progress.begun;
    const int64_t now = ClockNs();
    int error = 0;
    if (HasEnded(child)) {
      ReapChild(child);
      return 0;
    }
    if (begun != step) {
      step = begun;
      held_up = 0;
    } else if (done < begun && IsAsleep(child)) {
      held_up += std::min(now - looked_at, between_looks);
    }
    looked_at = now;
    if (ending()) {
      error = EINTR;
    } else if (held_up >= limit) {
      error = ETIMEDOUT;
    } else if (now >= whole_until) {
      error = ETIME;
    }
    if (error == 0) {
      WaitForEnd(child, std::min(now + between_looks, whole_until));
      continue;
    }
    Kill(child);
    // It may have gone on just before.
    return error == ETIMEDOUT && progress.done != done ? EAGAIN : error;
  }
}

}  // namespace

size_t RunApart(apart_fn step, size_t count, void *results, size_t size, int limit_ms, int whole_ms,
                bool (*ending)()) {
  const int64_t whole_until = ClockNs() + whole_ms * kNsPerMs;
  ReapLeft();
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
  Child child;
  const int failed = StartChild("process-asker", DoSteps, &work, &child);
  if (failed != 0) {
    errno = failed;
    return 0;
  }
  const int killed = Watch(child, *work.progress, limit_ms * kNsPerMs, whole_until, ending);
  const size_t done = work.progress->done;
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
