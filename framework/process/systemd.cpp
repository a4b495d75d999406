#include "framework/process/systemd.h"

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>

#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "framework/process/main_loop.h"
#include "framework/snmp/snmp_thread.h"

namespace vex {

namespace {

constexpr int64_t kLongestHookNs = 3600 * kNsPerSecond;

std::string &SocketPath() {
  static auto *path = new std::string;
  return *path;
}
int watchdog_ms;  // half the interval; 0: none

// A message that cannot be sent is lost: the manager's own time-outs deal with it.
void Notify(std::string_view message) {
  const std::string &path = SocketPath();
  sockaddr_un address = {};
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    return;
  }
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.data(), path.size());
  if (path[0] == '@') {
    address.sun_path[0] = '\0';  // the abstract namespace: no NUL behind the name
  }
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  Descriptor fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (fd) {
    sendto(fd.get(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const sockaddr *>(&address), size);
  }
}

template <typename Number>
bool ReadNumber(const char *text, Number *number) {
  if (text == nullptr) {
    return false;
  }
  const char *end = text + strlen(text);
  const auto [stop, error] = std::from_chars(text, end, *number);
  return error == std::errc() && stop == end;
}

void Tick() {
  if (AgentThreadAlive(InHookSince(), ClockNs())) {
    Notify("WATCHDOG=1");
  }
}

}  // namespace

bool AgentThreadAlive(int64_t in_hook_since, int64_t now) {
  return in_hook_since == 0 || now - in_hook_since <= kLongestHookNs;
}

void SystemdPrepare() {
  const char *path = getenv("NOTIFY_SOCKET");
  SocketPath() = path != nullptr && (path[0] == '/' || path[0] == '@') ? path : "";
  uint64_t interval_us = 0;
  pid_t pid = getpid();
  watchdog_ms = 0;
  if (!SocketPath().empty() && ReadNumber(getenv("WATCHDOG_USEC"), &interval_us) &&
      interval_us != 0 &&
      (getenv("WATCHDOG_PID") == nullptr ||
       (ReadNumber(getenv("WATCHDOG_PID"), &pid) && pid == getpid()))) {
    watchdog_ms = static_cast<int>(std::clamp<uint64_t>(interval_us / 2000, 1, 3'600'000));
  }
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  unsetenv("WATCHDOG_PID");
}

void SystemdReady() {
  Notify("READY=1");
  if (watchdog_ms != 0) {
    SnmpSetTick(Tick, watchdog_ms);
  }
}

void SystemdStopping() {
  Notify("STOPPING=1");
}

}  // namespace vex
