// The page that a scenario shares with the library it preloads into the daemon (probe.cpp): the
// daemon's clock, its pauses and its alarms, moved and watched from outside. The product knows
// nothing of it.
#ifndef VEX_TESTS_SUPPORT_PROBE_H
#define VEX_TESTS_SUPPORT_PROBE_H

#include <atomic>
#include <cstdint>

namespace made_up {

inline constexpr char kProbeVariable[] = "MADE_UP_PROBE";  // path of the page's file

struct ProbePage {
  // Written by the scenario.
  std::atomic<int64_t> clock_offset_ns;  // added to CLOCK_REALTIME and what is derived from it
  std::atomic<int64_t> age_offset_ns;    // added to CLOCK_BOOTTIME, which ages are taken from
  std::atomic<int64_t> clock_stands_ns;  // not 0: that clock stands there, but for the offset
  std::atomic<uint32_t> quick_start;     // 1: the process's first sleep() ends at once
  std::atomic<uint32_t> sleep_percent;   // of every later sleep()
  std::atomic<uint32_t> hold_alarms;     // 1: alarm(n) is noted, and does not arm anything
  std::atomic<uint32_t> card_answers;    // 1: the remote management card's ioctl() succeeds ...
  unsigned char card_reply[80];          // ... with this reply
  std::atomic<uint32_t> refuse_shmat;    // 1: no segment can be attached
  // Makes the next calls of one kind fail for a path (its end): "open" (openat too), "fstat",
  // "read" or "fsync". Written before the daemon starts, or while it waits.
  char fault_call[16];
  char fault_path[128];
  std::atomic<int32_t> fault_error;
  std::atomic<int32_t> fault_count;  // how many more
  // What uname() says of the kernel; an empty release: the machine's own.
  char kernel_release[65];
  char kernel_version[65];
  char machine[65];
  // Written by the daemon.
  std::atomic<uint32_t> alarms;         // calls of alarm(n), n > 0
  std::atomic<uint32_t> alarm_seconds;  // n of the last of them
  std::atomic<uint32_t> sleeps;         // calls of sleep()
  std::atomic<uint32_t> slept_seconds;  // their sum, as asked for
};

}  // namespace made_up

#endif
