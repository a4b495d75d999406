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
void operator delete(void *memory) noexcept {
  free(memory);
}
void operator delete(void *memory, size_t) noexcept {
  free(memory);
}
