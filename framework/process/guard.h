// Nothing is thrown across the C interface: memory that runs out is an ordinary failure there.
#ifndef VEX_FRAMEWORK_PROCESS_GUARD_H
#define VEX_FRAMEWORK_PROCESS_GUARD_H

#include <errno.h>

#include <new>

namespace vex {

// For what is asked once a process: calls the function again, twice, when memory ran out, because
// one allocation that fails must not decide on an answer that lasts. Throws what the last call
// throws.
template <typename Function>
auto Persistently(Function function) {
  for (int tries = 1; tries < 3; tries++) {
    try {
      return function();
    } catch (const std::bad_alloc &) {
      // Once more.
    }
  }
  return function();
}

template <typename Result, typename Function>
Result Guarded(Result failure, Function function) noexcept {
  try {
    return function();
  } catch (...) {
    errno = ENOMEM;
    return failure;
  }
}

}  // namespace vex

#endif
