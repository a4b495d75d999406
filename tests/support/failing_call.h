// Calls of the C library that fail when a test wants it: those that the test's program makes
// itself, the product's archives in it included. A call that the C library or another shared
// library makes is not among them.
#ifndef VEX_TESTS_SUPPORT_FAILING_CALL_H
#define VEX_TESTS_SUPPORT_FAILING_CALL_H

#include <sys/types.h>

#include <functional>

namespace vex {

// While it lives, calls of one function fail with this error: the n-th from now on (1: the next),
// and so many in all. What is forked meanwhile goes on counting by itself. With the error 0 the
// call does nothing and returns 0. A process has eight of them at most, and each function must
// stand in failing_call.cpp.
class FailingCall {
 public:
  static constexpr int kAll = 1 << 30;

  FailingCall(const char *function, int error, int nth = 1, int count = 1);
  // Instead of failing, each of these calls is made after this. The calls of `before` itself are
  // neither counted nor touched.
  FailingCall(const char *function, std::function<void()> before, int nth = 1, int count = 1);
  ~FailingCall();
  FailingCall(const FailingCall &) = delete;
  FailingCall &operator=(const FailingCall &) = delete;

  // In this thread alone.
  FailingCall &In(pid_t thread);
  // Only where the path that is given to the call is this or ends with these components. The text
  // must last.
  FailingCall &On(const char *path);
  // So many have failed, in this process.
  int Failed() const;

 private:
  int slot_ = 0;
};

}  // namespace vex

#endif
