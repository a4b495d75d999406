// Children that make calls which may be held up, and that can be killed or left behind.
#ifndef VEX_FRAMEWORK_PROCESS_CHILD_H
#define VEX_FRAMEWORK_PROCESS_CHILD_H

#include <sys/types.h>

#include <cstddef>

namespace vex {

// Memory that is shared with children; a child that lives on keeps its view of it.
class SharedMemory {
 public:
  // Zeros. Maps nothing when there is no memory: then it converts to false.
  explicit SharedMemory(size_t size);
  ~SharedMemory();
  SharedMemory(const SharedMemory &) = delete;
  SharedMemory &operator=(const SharedMemory &) = delete;

  explicit operator bool() const {
    return memory_ != nullptr;
  }
  template <typename T>
  T *At(size_t offset) const {
    return reinterpret_cast<T *>(static_cast<char *>(memory_) + offset);
  }

 private:
  size_t size_;
  void *memory_;
};

struct Child {
  pid_t pid;
  int alive;  // end of a pipe that hangs up when the child ends
};

// Starts a child of that name that calls work(argument) and ends with status 0, and that ends with
// the calling thread. It runs no signal handler and holds nothing open but its end of the pipe. The
// process may have other threads, so work() takes no lock and no memory. 0 or an errno.
int StartChild(const char *name, void (*work)(void *argument), void *argument, Child *child);

bool HasEnded(const Child &child);

// Whether it sleeps in a call, rather than runs, waits for a processor, or has been stopped. What
// cannot be told counts as sleep.
bool IsAsleep(const Child &child);

// Of a child that has ended: closes the pipe and takes its status.
void ReapChild(const Child &child);

}  // namespace vex

#endif
