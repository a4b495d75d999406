// The owner of a file descriptor. For the framework, the hardware libraries and the tools.
#ifndef VEX_FRAMEWORK_PROCESS_DESCRIPTOR_H
#define VEX_FRAMEWORK_PROCESS_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace vex {

// A file descriptor that closes itself.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    Reset();
  }
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    Reset(std::exchange(other.fd_, -1));
    return *this;
  }
  int get() const {
    return fd_;
  }
  explicit operator bool() const {
    return fd_ >= 0;
  }
  int Release() {
    return std::exchange(fd_, -1);
  }
  void Reset(int fd = -1) {
    if (fd_ >= 0) {
      close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace vex

#endif
