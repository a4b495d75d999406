#include "tests/support/failing_new.h"

#include <cstdlib>
#include <new>

namespace vex {

int allocations_left;

}  // namespace vex

void *operator new(size_t size) {
  const bool fails =
      vex::allocations_left < 0 || (vex::allocations_left > 0 && --vex::allocations_left == 0);
  void *memory = fails ? nullptr : malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
// A sanitizer has one of its own, whose memory must not be freed like this.
void *operator new(size_t size, const std::nothrow_t &) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}
void operator delete(void *memory) noexcept {
  free(memory);
}
void operator delete(void *memory, size_t) noexcept {
  free(memory);
}
