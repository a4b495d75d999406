// fault_launcher PAGE NAME=VALUE... COMMAND...: has the page's system calls announced to the
// scenario, which lets them pass or makes them fail, and becomes the command. No call is made to
// fail by a preloaded library, which would not see those that the C library makes for itself.
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/faults/page.h"

namespace {

// A signal must not break off a call that the scenario has not decided yet: it would count twice.
#ifndef SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV
#define SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV (1UL << 5)
#endif

int Announce(const uint32_t *calls) {
  sock_filter filter[2 * faults::kMostCalls + 2];
  unsigned short length = 0;
  const auto put = [&](uint16_t code, uint32_t k, uint8_t yes = 0, uint8_t no = 0) {
    filter[length++] = {code, yes, no, k};
  };
  put(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr));
  for (; *calls != 0; calls++) {
    put(BPF_JMP | BPF_JEQ | BPF_K, *calls - 1, 0, 1);
    put(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
  }
  put(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  sock_fprog program = {length, filter};
  unsigned long flags = SECCOMP_FILTER_FLAG_NEW_LISTENER | SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV;
  long result = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &program);
  if (result < 0 && errno == EINVAL) {  // before Linux 5.19
    flags = SECCOMP_FILTER_FLAG_NEW_LISTENER;
    result = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &program);
  }
  return result < 0 ? -errno : static_cast<int>(result) + 1;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: fault_launcher PAGE [NAME=VALUE...] COMMAND...\n");
    return 2;
  }
  const int fd = open(argv[1], O_RDWR | O_CLOEXEC);
  void *at = mmap(nullptr, sizeof(faults::Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (fd < 0 || at == MAP_FAILED) {
    perror(argv[1]);
    return 2;
  }
  auto *page = static_cast<faults::Page *>(at);
  close(fd);
  setenv(faults::kPageVariable, argv[1], 1);
  int word = 2;
  for (; word < argc && strchr(argv[word], '=') != nullptr; word++) {
    putenv(argv[word]);
  }
  if (word == argc) {
    fprintf(stderr, "fault_launcher: no command\n");
    return 2;
  }
  page->listener = Announce(page->calls);
  while (page->go == 0) {  // no call: each might wait for the listener
    __builtin_ia32_pause();
  }
  execv(argv[word], argv + word);
  perror(argv[word]);
  return 2;
}
