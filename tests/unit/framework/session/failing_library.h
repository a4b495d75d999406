// Libraries that fail, and a clock that jumps, for the pieces of the SNMP side: what the product's
// archives call, taken over at link time.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_SESSION_FAILING_LIBRARY_H
#define VEX_TESTS_UNIT_FRAMEWORK_SESSION_FAILING_LIBRARY_H

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>

namespace vex {

// While it lives, calls of one function fail: the n-th from now on (1: the next), and so many in
// all. Each function must stand in failing_library.cpp. One at a time.
class FailingLibrary {
 public:
  static constexpr int kAll = 1 << 30;

  explicit FailingLibrary(const char *function, int error = ENOMEM, int nth = 1, int count = 1);
  ~FailingLibrary();
  FailingLibrary(const FailingLibrary &) = delete;
  FailingLibrary &operator=(const FailingLibrary &) = delete;
  // So many have failed.
  static int Failed();
};

// What the libraries do otherwise.
struct MovedLibrary {
  // The steady clock shows so much more than it is, and goes on by so much with each look at it.
  std::atomic<int64_t> clock_ahead_ns{0};
  std::atomic<int64_t> clock_step_ns{0};
  // Where somebody connects to port 161.
  std::atomic<uint16_t> snmp_port{161};
  std::atomic<bool> ending{false};            // what agent_ending() says
  std::atomic<void (*)()> at_look{nullptr};   // called whenever it is asked
  std::atomic<const char *> passwd{nullptr};  // the file in the place of /etc/passwd
  // Instead of the agent library's own init_agent().
  std::atomic<int (*)(const char *)> init_agent{nullptr};
};
MovedLibrary &TheLibrary();

inline void AdvanceClock(std::chrono::nanoseconds by) {
  TheLibrary().clock_ahead_ns += by.count();
}
// For the end of a test.
void RestoreLibrary();

}  // namespace vex

#endif
