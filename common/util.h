// Small things that several groups need: bounded copies, pauses and clocks, and handles that close
// themselves.
#ifndef VEX_COMMON_UTIL_H
#define VEX_COMMON_UTIL_H

#include <dirent.h>
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "platform/framework.h"

// Copies at most size - 1 bytes of text into a field of a data block and zeroes the rest of the
// field, so that two blocks with the same text compare equal. size is at least 1.
inline void copy_field(char *field, size_t size, const char *text) {
  const size_t length = strnlen(text, size - 1);
  memcpy(field, text, length);
  memset(field + length, 0, size - length);
}

template <size_t Size>
void copy_field(char (&field)[Size], const char *text) {
  copy_field(field, Size, text);
}

// Of a mount's device or directory, with its NUL.
inline constexpr size_t mount_name_size = 8192;

// A text from outside as a log line may have it: what ends a line or moves a terminal is shown as
// '?', also the C1 controls in UTF-8. Cut to the longest name of a mount.
struct printable {
  char text[mount_name_size];

  explicit printable(const char *from) {
    copy_field(text, from);
    for (char *c = text; *c != '\0'; c++) {
      const auto byte = static_cast<unsigned char>(*c);
      if (byte < ' ' || byte == 0x7F) {
        *c = '?';
      } else if (byte == 0xC2 && c[1] != '\0' && static_cast<unsigned char>(c[1]) < 0xA0) {
        c[0] = '?';
        c[1] = '?';
      }
    }
  }
};

// What fits a signed 32-bit variable; what does not is clamped to the nearest value that does.
inline int32_t clamp_int32(__int128 value) {
  if (value > INT32_MAX) {
    return INT32_MAX;
  }
  return value < INT32_MIN ? INT32_MIN : static_cast<int32_t>(value);
}

// Whether an error comes from want of descriptors or memory, or from the disk's bus, and so may
// pass; a file system without writing does not.
inline bool may_pass(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR || error == EIO;
}

// Sleeps that many seconds, also when signals come in between, but not beyond the agent's end.
inline void sleep_whole(unsigned seconds) {
  while (seconds != 0 && agent_ending() == 0) {
    seconds = sleep(seconds);
  }
}

// Gives an array from malloc() or null room for that many elements; those it had stay. False
// without memory: then it is as it was.
template <typename T>
bool grow(T **array, size_t room) {
  auto *grown = static_cast<T *>(realloc(*array, room * sizeof(T)));
  if (grown == nullptr) {
    return false;
  }
  *array = grown;
  return true;
}

// A clock that does not step, for limits and ages.
inline int64_t monotonic_nanoseconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * INT64_C(1'000'000'000) + now.tv_nsec;
}

inline int64_t monotonic_milliseconds() {
  return monotonic_nanoseconds() / 1'000'000;
}

// A stream or directory that is closed at the end of its scope. Null when opening failed.
template <typename Handle, int (*Close)(Handle *)>
class closing {
 public:
  explicit closing(Handle *handle) : handle_(handle) {}
  ~closing() {
    if (handle_ != nullptr) {
      Close(handle_);
    }
  }
  closing(const closing &) = delete;
  closing &operator=(const closing &) = delete;

  explicit operator bool() const {
    return handle_ != nullptr;
  }
  Handle *get() const {
    return handle_;
  }
  // Gives the handle to the caller, who closes it.
  Handle *release() {
    Handle *handle = handle_;
    handle_ = nullptr;
    return handle;
  }

 private:
  Handle *handle_;
};

// A descriptor that is closed at the end of its scope. Negative when opening failed.
class descriptor_handle {
 public:
  explicit descriptor_handle(int descriptor) : descriptor_(descriptor) {}
  ~descriptor_handle() {
    if (descriptor_ >= 0) {
      close(descriptor_);
    }
  }
  descriptor_handle(const descriptor_handle &) = delete;
  descriptor_handle &operator=(const descriptor_handle &) = delete;

  explicit operator bool() const {
    return descriptor_ >= 0;
  }
  int get() const {
    return descriptor_;
  }

 private:
  int descriptor_;
};

using stream_handle = closing<FILE, fclose>;      // from fopen, fmemopen
using directory_handle = closing<DIR, closedir>;  // from opendir

// The time that several commands share: a tool that hangs costs it once, however often it would be
// asked.
class shared_limit {
 public:
  explicit shared_limit(int milliseconds) : deadline_(monotonic_milliseconds() + milliseconds) {}
  // What is left in milliseconds, 0 at the least.
  int left() const {
    const int64_t left = deadline_ - monotonic_milliseconds();
    return left > 0 ? static_cast<int>(left) : 0;
  }

 private:
  int64_t deadline_;
};

// Memory from malloc() and its kin, freed at the end of its scope.
template <typename T>
class freeing {
 public:
  explicit freeing(T *memory) : memory_(memory) {}
  ~freeing() {
    free(memory_);
  }
  freeing(const freeing &) = delete;
  freeing &operator=(const freeing &) = delete;

  explicit operator bool() const {
    return memory_ != nullptr;
  }
  T *get() const {
    return memory_;
  }
  T *operator->() const {
    return memory_;
  }
  // Gives the memory to the caller, who frees it.
  T *release() {
    T *memory = memory_;
    memory_ = nullptr;
    return memory;
  }

 private:
  T *memory_;
};

#endif
