#include "framework/snmp/snmp_config.h"

// In this order:
#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <net-snmp/agent/ds_agent.h>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <stdexcept>

#include "platform/framework.h"

// Of libnetsnmpagent. Its headers declare an init_agent() that is not the hook of
// platform/framework.h, and nothing of them is needed but this; subagent_startup() is exported
// without a header.
extern "C" {
int subagent_startup(int major, int minor, void *server, void *client);
void shutdown_agent(void);
}

namespace vex {
namespace {

constexpr int kSubagent = 1;

// The agent library's init_agent(). The executable exports a hook of that name, which the dynamic
// linker would put in its place.
using InitAgent = int (*)(const char *);
InitAgent LibraryInitAgent() {
  Dl_info library;
  if (dladdr(reinterpret_cast<void *>(&shutdown_agent), &library) == 0) {
    return nullptr;
  }
  void *handle = dlopen(library.dli_fname, RTLD_NOLOAD | RTLD_LAZY);
  if (handle == nullptr) {
    return nullptr;
  }
  auto function = reinterpret_cast<InitAgent>(dlsym(handle, "init_agent"));
  dlclose(handle);  // it stays loaded: this library is linked with it
  return function;
}

std::set<int> OpenDescriptors() {
  std::set<int> open;
  if (DIR *directory = opendir("/proc/self/fd")) {
    while (const dirent *entry = readdir(directory)) {
      int fd = atoi(entry->d_name);
      if (fd != dirfd(directory)) {
        open.insert(fd);
      }
    }
    closedir(directory);
  }
  return open;
}

// The library's pipes, opened without it. The agent thread waits while this runs: no child can be
// started in between.
void CloseOnExec(const std::set<int> &before) {
  for (int fd : OpenDescriptors()) {
    // Where they could not be listed before, standard output and error are still to be inherited.
    if (fd > STDERR_FILENO && before.count(fd) == 0) {
      fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
  }
}

}  // namespace

std::optional<MasterAddress::Tcp> TcpAddressOf(const std::string &target) {
  constexpr char kPrefix[] = "tcp:";
  size_t colon = target.rfind(':');
  if (strncasecmp(target.c_str(), kPrefix, strlen(kPrefix)) != 0 || colon < strlen(kPrefix)) {
    return std::nullopt;
  }
  std::string host = target.substr(strlen(kPrefix), colon - strlen(kPrefix));
  MasterAddress::Tcp address{host == "localhost" ? "127.0.0.1" : host, 0};
  const char *end = target.data() + target.size();
  auto [at, error] = std::from_chars(target.data() + colon + 1, end, address.port);
  in_addr ignored;
  if (error != std::errc() || at != end ||
      inet_pton(AF_INET, address.ipv4.c_str(), &ignored) != 1) {
    return std::nullopt;
  }
  return address;
}

void LoadSnmpConfiguration(const std::string &application, SnmpSettings *settings,
                           AgentxSession::Settings *session) {
  InitAgent init = LibraryInitAgent();
  if (init == nullptr) {
    throw std::runtime_error("init_agent() of the SNMP agent library not found");
  }
  std::set<int> open_before = OpenDescriptors();
  PrepareSnmpLibrary();
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, kSubagent);

  if (init(application.c_str()) != 0) {
    throw std::runtime_error("the SNMP agent library does not start");
  }
  // The session is opened by AgentxSession; the library's way would wait for the master here.
  snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, subagent_startup,
                           nullptr, 0);

  ReportUnknownTokens(application);
  const SnmpFiles files = ReadSnmpFiles(application);
  CloseOnExec(open_before);
  if (!files.failed.empty()) {
    UnloadSnmp(application);
    throw std::runtime_error(files.failed);
  }

  settings->poll_interval = files.poll_interval;
  settings->community = files.community;

  session->name = application;
  session->master.target = AgentxTarget();
  session->master.unix_path = UnixPathOf(session->master.target);
  session->master.tcp = TcpAddressOf(session->master.target);
  int ping = netsnmp_ds_get_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL);
  session->ping_seconds = ping > 0 ? ping : session->ping_seconds;
  int timeout = netsnmp_ds_get_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_TIMEOUT);
  // One octet in the Open PDU (RFC 2741 6.2.1).
  session->timeout_seconds = timeout > 0 ? static_cast<int>(std::min(timeout / ONE_SEC, 255L)) : 0;
  session->groups = MibGroups();
}

void UnloadSnmp(const std::string &application) {
  snmp_shutdown(application.c_str());
  shutdown_agent();
}

}  // namespace vex
