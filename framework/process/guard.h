// Nothing is thrown across the C interface: memory that runs out is an ordinary failure there.
#ifndef VEX_FRAMEWORK_PROCESS_GUARD_H
#define VEX_FRAMEWORK_PROCESS_GUARD_H

#include <errno.h>

namespace vex {

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
