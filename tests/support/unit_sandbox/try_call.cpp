// try_call CALL [ARGUMENT...]: makes one system call, by name or number, and prints its result or
// its error's name. Arguments are numbers or, when they are none, texts.
#include <ctype.h>
#include <seccomp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char **argv) {
  long number = -1;
  if (argc > 1) {
    number = isdigit(argv[1][0]) != 0 ? strtol(argv[1], nullptr, 0)
                                      : seccomp_syscall_resolve_name(argv[1]);
  }
  if (number < 0 || argc > 8) {
    fprintf(stderr, "usage: try_call CALL [ARGUMENT...]\n");
    return 2;
  }
  long arguments[6] = {};
  for (int i = 2; i < argc; i++) {
    char *end = nullptr;
    arguments[i - 2] = strtol(argv[i], &end, 0);
    if (*end != '\0') {
      arguments[i - 2] = reinterpret_cast<long>(argv[i]);
    }
  }
  const long result = syscall(number, arguments[0], arguments[1], arguments[2], arguments[3],
                              arguments[4], arguments[5]);
  if (result < 0) {
    printf("%s\n", strerrorname_np(errno));
  } else {
    printf("%ld\n", result);
  }
  return 0;
}
