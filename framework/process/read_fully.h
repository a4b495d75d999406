// Reading what a file has, whatever the pieces in which it comes. For the framework, the hardware
// libraries and the tools.
#ifndef VEX_FRAMEWORK_PROCESS_READ_FULLY_H
#define VEX_FRAMEWORK_PROCESS_READ_FULLY_H

#include <errno.h>
#include <stddef.h>
#include <sys/types.h>
#include <unistd.h>

namespace vex {

// Reads until `size` bytes are there or the file ends; signals in between do not count. The number
// of bytes, or -1 with errno.
inline ssize_t ReadFully(int fd, void *buffer, size_t size) {
  size_t got = 0;
  while (got < size) {
    const ssize_t n = read(fd, static_cast<char *>(buffer) + got, size - got);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      return -1;
    }
    if (n == 0) {
      break;
    }
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

}  // namespace vex

#endif
