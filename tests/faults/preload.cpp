// Preloaded into the agent: says when main() begins, and lets the n-th allocation from the mark on
// fail. Allocations of the C++ and C libraries come here as well.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/faults/page.h"

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
}

namespace {

faults::Page *page;
__thread bool inside __attribute__((tls_model("initial-exec")));  // ours are not counted

// The stack, as "file+offset" lines that addr2line(1) understands.
void NotePlace() {
  void *frames[40];
  const int count = backtrace(frames, 40);
  size_t used = 0;
  for (int i = 2; i < count; i++) {
    Dl_info info;
    if (dladdr(frames[i], &info) == 0 || info.dli_fname == nullptr) {
      continue;
    }
    const auto offset =
        static_cast<size_t>(static_cast<char *>(frames[i]) - static_cast<char *>(info.dli_fbase));
    const int length = snprintf(page->place + used, sizeof(page->place) - used, "%s+0x%zx\n",
                                info.dli_fname, offset - 1);
    if (length <= 0 || used + static_cast<size_t>(length) >= sizeof(page->place)) {
      break;
    }
    used += static_cast<size_t>(length);
  }
}

void Spoil() {
  switch (page->sabotage.exchange(faults::Sabotage::kNone)) {
    case faults::Sabotage::kLeakDescriptor:
      open("/dev/null", O_RDONLY | O_CLOEXEC);
      break;
    case faults::Sabotage::kLeaveChild:
      if (fork() == 0) {
        pause();
        _exit(0);
      }
      break;
    case faults::Sabotage::kAbort:
      abort();
    case faults::Sabotage::kExitSilently:
      _exit(1);
    case faults::Sabotage::kNone:
      break;
  }
}

// Whether this allocation is the one.
bool Fails() {
  if (page == nullptr || page->armed == 0 || inside ||
      (page->whole_family == 0 && getpid() != page->agent)) {
    return false;
  }
  inside = true;
  Spoil();
  const bool fails = ++page->allocations == page->fail_allocation;
  if (fails) {
    page->failed_allocations++;
    NotePlace();
    errno = ENOMEM;
  }
  inside = false;
  return fails;
}

using Main = int (*)(int, char **, char **);
Main real_main;

int MarkedMain(int argc, char **argv, char **environment) {
  if (page != nullptr) {
    page->agent = getpid();
    page->armed = page->arm_in_main.load();
  }
  const int status = real_main(argc, argv, environment);
  if (page != nullptr && page->disarm_after_main != 0 && getpid() == page->agent) {
    page->armed = 0;
  }
  return status;
}

__attribute__((constructor)) void Attach() {
  const char *path = getenv(faults::kPageVariable);
  if (path == nullptr) {
    return;
  }
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  if (fd >= 0) {
    void *at = mmap(nullptr, sizeof(*page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (at != MAP_FAILED) {
      page = static_cast<faults::Page *>(at);
    }
    close(fd);
  }
  unsetenv(faults::kPageVariable);
  void *frames[4];
  backtrace(frames, 4);  // loads what it needs now
}

}  // namespace

#define INTERPOSE extern "C" __attribute__((visibility("default")))

INTERPOSE int __libc_start_main(Main main, int argc, char **argv, void (*init)(), void (*fini)(),
                                void (*loader_fini)(), void *stack_end) {
  using Start = int (*)(Main, int, char **, void (*)(), void (*)(), void (*)(), void *);
  real_main = main;
  const auto start = reinterpret_cast<Start>(dlsym(RTLD_NEXT, "__libc_start_main"));
  return start(MarkedMain, argc, argv, init, fini, loader_fini, stack_end);
}

INTERPOSE void *malloc(size_t size) noexcept {
  return Fails() ? nullptr : __libc_malloc(size);
}

INTERPOSE void *calloc(size_t count, size_t size) noexcept {
  return Fails() ? nullptr : __libc_calloc(count, size);
}

INTERPOSE void *realloc(void *old, size_t size) noexcept {
  return Fails() ? nullptr : __libc_realloc(old, size);
}

INTERPOSE void *memalign(size_t alignment, size_t size) noexcept {
  return Fails() ? nullptr : __libc_memalign(alignment, size);
}

INTERPOSE void *aligned_alloc(size_t alignment, size_t size) noexcept {
  return Fails() ? nullptr : __libc_memalign(alignment, size);
}

INTERPOSE int posix_memalign(void **result, size_t alignment, size_t size) noexcept {
  void *memory = Fails() ? nullptr : __libc_memalign(alignment, size);
  if (memory == nullptr) {
    return ENOMEM;
  }
  *result = memory;
  return 0;
}
