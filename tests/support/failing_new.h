// Allocations by new that fail when a test wants it.
#ifndef VEX_TESTS_SUPPORT_FAILING_NEW_H
#define VEX_TESTS_SUPPORT_FAILING_NEW_H

namespace vex {

// The allocation that fails: counted down, none at 0; all at -1.
extern int allocations_left;

// Lets the n-th allocation fail. False when there were not so many.
template <typename Function>
bool FailAllocation(int n, Function function) {
  allocations_left = n;
  function();
  const bool failed = allocations_left == 0;
  allocations_left = 0;
  return failed;
}

// Lets all of them fail.
template <typename Function>
void FailAllocations(Function function) {
  allocations_left = -1;
  function();
  allocations_left = 0;
}

}  // namespace vex

#endif
