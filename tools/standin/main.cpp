// vexhostd-standin [SECONDS]: answers managers in the place of vexhostd while that one is replaced
// by another version. It registers the same groups with the master behind the agent, serves what
// the agent published last, refuses sets, and so is asked from the moment in which the agent goes
// to that in which the next one has come. Returns when the master has taken it, or after two
// seconds; a process of its own stays for SECONDS (60), or until SIGTERM, whose number is printed.
// Status 1 when there is nothing to serve or no master. For the scripts of packages.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/sources.h"
#include "framework/process/log.h"
#include "framework/registry/image.h"
#include "framework/registry/registry_file.h"
#include "framework/snmp/mib_table.h"
#include "framework/snmp/snmp_thread.h"

namespace {

using namespace vex;

constexpr char kName[] = "vexhostd-standin";
constexpr int kLongest = 60;  // seconds
constexpr int kMostSeconds = 600;
constexpr timespec kPollInterval = {0, 20'000'000};
constexpr int kMostPolls = 100;  // two seconds

uint32_t InstanceOf(std::string_view name) {
  uint32_t instance = 0;
  const size_t dot = name.rfind('.');
  if (dot != name.npos) {
    std::from_chars(name.data() + dot + 1, name.data() + name.size(), instance);
  }
  return instance;
}

// The object as managers are to see it, or null: nothing of it is in the MIB, or it cannot be read.
std::shared_ptr<const Image> ReadImage(const std::string &name, uint64_t id) {
  std::optional<FileObject> object = ReadObjectFile(name);
  if (!object) {
    return nullptr;
  }
  auto layout = std::make_shared<Layout>();
  auto image = std::make_shared<Image>();
  for (size_t slot = 0; slot < object->variables.size(); slot++) {
    // Its place within the data has been looked at by whoever has read the file.
    const FileVariable &variable = object->variables[slot];
    const MibVariable *mib = FindMibVariable(variable.name);
    if (mib == nullptr || mib->type != variable.type) {
      continue;
    }
    layout->variables.push_back({mib, static_cast<int>(slot), static_cast<int>(variable.size),
                                 variable.offset, variable.type, false});
    image->octet_lengths.push_back(variable.length);
  }
  if (layout->variables.empty()) {
    return nullptr;
  }
  image->layout = std::move(layout);
  image->object_id = id;
  image->instance = InstanceOf(name);
  image->data = std::move(object->data);
  return image;
}

// Publishes all objects of the agent. How many.
uint64_t Publish() {
  uint64_t count = 0;
  for (const std::string &name : ListObjects()) {
    if (name.starts_with(host_objects)) {
      if (std::shared_ptr<const Image> image = ReadImage(name, count + 1)) {
        SnmpPublish(std::move(image));
        count++;
      }
    }
  }
  return count;
}

// Serves for so long; tells through ready that it does.
int Serve(int seconds, int ready) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  signal(SIGHUP, SIG_IGN);
  if (Publish() == 0) {
    return 1;
  }
  SnmpStandBehind();
  SnmpEnableSets(false);
  if (SnmpStart("vexhostd", nullptr) != 0) {
    return 1;
  }
  for (int polls = 0; polls < kMostPolls && !SnmpUp(); polls++) {
    nanosleep(&kPollInterval, nullptr);
  }
  const bool up = SnmpUp();
  if (up) {
    (void)!write(ready, "", 1);
    close(ready);
    const timespec longest = {seconds, 0};
    while (sigtimedwait(&ends, nullptr, &longest) < 0 && errno == EINTR) {
    }
  }
  SnmpStop();
  return up ? 0 : 1;
}

// /dev/null, beyond the standard descriptors: whoever started this may have closed some, and what
// is opened next must not come into their place. -1 with errno.
int OpenNull() {
  int null = -1;
  do {
    null = open("/dev/null", O_RDWR | O_CLOEXEC);
  } while (null >= 0 && null <= STDERR_FILENO);
  return null;
}

// Leaves the script's session and descriptors, so that nobody waits for this process, and serves.
[[noreturn]] void Stay(int seconds, int null, int ready) {
  setsid();
  (void)!chdir("/");
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    dup2(null, fd);
  }
  // Where a thread is left behind in a library, it still uses what an ordinary end destroys.
  _exit(Serve(seconds, ready));
}

// Tells the number of the process that serves, once it does.
int Tell(pid_t child, int ready) {
  char byte;
  if (read(ready, &byte, 1) == 1) {
    if (dprintf(STDOUT_FILENO, "%d\n", static_cast<int>(child)) > 0) {
      return 0;
    }
    perror(kName);
  }
  // Nobody else would end it.
  kill(child, SIGTERM);
  waitpid(child, nullptr, 0);
  return 1;
}

// What both do after the fork. A function of its own, for scripts/coverage counts each time that
// one is entered.
int GoOn(pid_t child, int seconds, int null, const int (&ready)[2]) {
  if (child < 0) {
    perror(kName);
    return 1;
  }
  if (child == 0) {
    close(ready[0]);
    Stay(seconds, null, ready[1]);
  }
  close(ready[1]);
  return Tell(child, ready[0]);
}

// A number of seconds, or 0.
int SecondsIn(std::string_view text) {
  int seconds = 0;
  const char *const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  return error == std::errc() && stop == end && seconds <= kMostSeconds ? seconds : 0;
}

}  // namespace

int main(int argc, char **argv) {
  const int seconds = argc == 1 ? kLongest : argc == 2 ? SecondsIn(argv[1]) : 0;
  if (seconds < 1) {
    fprintf(stderr, "usage: %s [SECONDS]\n", kName);
    return 2;
  }
  const int null = OpenNull();
  if (null < 0) {
    perror("vexhostd-standin: /dev/null");
    return 1;
  }
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) {
    perror(kName);
    return 1;
  }
  SetLogName(kName);
  signal(SIGPIPE, SIG_IGN);  // neither the caller nor a master that goes is its end
  // Before any thread.
  return GoOn(fork(), seconds, null, ready);
}
