// Preloaded into an agent whose power is cut: nothing that it writes is waited for, and the test
// has to find what is lost.
#include <unistd.h>

#define INTERPOSE extern "C" __attribute__((visibility("default")))

INTERPOSE int fsync(int) {
  return 0;
}

INTERPOSE int fdatasync(int) {
  return 0;
}
