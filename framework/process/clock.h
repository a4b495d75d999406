// The clocks of the framework and the tools. Any thread; nothing here can fail.
#ifndef VEX_FRAMEWORK_PROCESS_CLOCK_H
#define VEX_FRAMEWORK_PROCESS_CLOCK_H

#include <time.h>

#include <chrono>
#include <cstdint>

namespace vex {

// For ages and limits: a clock that does not step.
using Clock = std::chrono::steady_clock;

inline constexpr int64_t kNsPerSecond = 1'000'000'000;
inline constexpr int64_t kNsPerMs = 1'000'000;

// What a clock shows, in nanoseconds, where std::chrono has no such clock or the number goes into
// a file or shared memory.
inline int64_t ClockNs(clockid_t clock = CLOCK_MONOTONIC) {
  timespec now = {};
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * kNsPerSecond + now.tv_nsec;
}

}  // namespace vex

#endif
