// A made-up peer: a process that is there, and nothing else.
#include <unistd.h>

int main() {
  for (;;) {
    pause();
  }
}
