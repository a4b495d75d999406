// Calls of the C library that fail when a test wants it: those of the code that is linked into the
// test itself (--wrap, see failing_calls in CMakeLists.txt), made by the thread that asks for it.
#ifndef VEX_TESTS_SUPPORT_FAILING_CALLS_H
#define VEX_TESTS_SUPPORT_FAILING_CALLS_H

namespace vex {

// What is to fail: counted down, none at 0.
struct FailingCall {
  const char *name = "";
  int left = 0;
  int error = 0;
};
extern thread_local FailingCall failing_call;

// Every call that can fail.
extern const char *const kFailingCalls[];
extern const int kFailingCallCount;

// Lets the n-th call of that name fail with this error. False when there were not so many.
template <typename Function>
bool FailCall(const char *name, int n, int error, Function function) {
  failing_call = {name, n, error};
  function();
  const bool failed = failing_call.left == 0;
  failing_call = {};
  return failed;
}

// Does it once for every single call in it, which fails with this error; `afterwards(name, n)`
// comes each time. How many calls failed.
template <typename Function, typename Afterwards>
int FailEachCall(int error, Function function, Afterwards afterwards) {
  int failures = 0;
  for (int i = 0; i < kFailingCallCount; i++) {
    for (int n = 1;; n++) {
      const bool failed = FailCall(kFailingCalls[i], n, error, function);
      afterwards(kFailingCalls[i], n);
      if (!failed) {
        break;
      }
      failures++;
    }
  }
  return failures;
}

}  // namespace vex

#endif
