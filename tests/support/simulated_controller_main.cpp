// simulated_controller [SOCKET] [MOOD...]: a management controller on its socket, until it is
// ended. tests/README.md shows how to try the agent against it.
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "tests/support/simulated_controller.h"

int main(int argc, char **argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  std::string path = vex::kControllerSocket;
  if (!words.empty() && words[0].find('/') != std::string::npos) {
    path = words[0];
    words.erase(words.begin());
  }
  sigset_t ends;
  sigemptyset(&ends);
  for (int number : {SIGINT, SIGTERM, SIGHUP}) {
    sigaddset(&ends, number);
  }
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  try {
    vex::SimulatedController controller(vex::ParseMood(words), path);
    printf("a controller at %s\n", path.c_str());
    fflush(stdout);
    int number = 0;
    sigwait(&ends, &number);
    for (const std::string &request : controller.Requests()) {
      printf("asked:");
      for (unsigned char byte : request) {
        printf(" %02X", byte);
      }
      printf("\n");
    }
  } catch (const std::exception &error) {
    fprintf(stderr,
            "simulated_controller: %s\n"
            "usage: simulated_controller [SOCKET] [version=2.05] [generation=6] [code=A1]\n"
            "       [logic=0102...] [length=N] [silent] [resets=N] [resume]\n",
            error.what());
    return 2;
  }
  return 0;
}
