// A made-up peer: a process that is there, and nothing else. At SIGUSR1 it maps the file that its
// argument names.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

int main(int argc, char **argv) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  int signal = 0;
  sigwait(&signals, &signal);
  const int file = argc > 1 ? open(argv[1], O_RDWR | O_CLOEXEC) : -1;
  if (file >= 0) {
    (void)mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, file, 0);
  }
  for (;;) {
    pause();
  }
}
