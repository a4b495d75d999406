#include "framework/snmp_config.h"

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
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <vector>

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

// A directory that cannot exist: whatever the library thinks of keeping, it has no place.
constexpr char kNowhere[] = "/dev/null/vexhostd";
constexpr int kSubagent = 1;

// What the files say, until the libraries have read them all.
struct Read {
  int poll_interval = 0;
  std::string community;        // vexhostd.conf
  std::string snmpd_community;  // snmpd.conf
};
Read files;

class Environment {
 public:
  explicit Environment(const char *name) : name_(name) {
    if (const char *value = getenv(name)) {
      before_ = value;
    }
    setenv(name, "", 1);
  }
  ~Environment() {
    if (before_) {
      setenv(name_, before_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  Environment(const Environment &) = delete;
  Environment &operator=(const Environment &) = delete;

 private:
  const char *name_;
  std::optional<std::string> before_;
};

std::string Trimmed(const char *line) {
  std::string text = line;
  size_t first = text.find_first_not_of(" \t\r\n");
  size_t last = text.find_last_not_of(" \t\r\n");
  return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

void ReadPollInterval(const char *, char *line) {
  std::string text = Trimmed(line);
  int seconds = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size() || seconds < 1) {
    agentlog_fprintf(stderr, "pollInterval: \"%s\" is not a number of seconds; ignored\n",
                     text.c_str());
    return;
  }
  files.poll_interval = seconds;
}

void ReadCommunity(const char *, char *line) {
  files.community = Trimmed(line);
}

void ReadSnmpdLine(const char *token, char *line) {
  if (files.snmpd_community.empty()) {
    files.snmpd_community = CommunityOfLine(token, line);
  }
}

int Log(int, int, void *message, void *) {
  const auto *entry = static_cast<const snmp_log_message *>(message);
  if (entry != nullptr && entry->msg != nullptr && entry->priority <= LOG_INFO) {
    size_t length = strlen(entry->msg);
    agentlog_fprintf(stderr, "%s%s", entry->msg,
                     length > 0 && entry->msg[length - 1] == '\n' ? "" : "\n");
  }
  return SNMP_ERR_NOERROR;
}

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
    if (before.count(fd) == 0) {
      fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
  }
}

}  // namespace

std::string UnixPathOf(const std::string &target) {
  constexpr char kPrefix[] = "unix:";
  if (strncasecmp(target.c_str(), kPrefix, strlen(kPrefix)) == 0) {
    return target.substr(strlen(kPrefix));
  }
  return !target.empty() && target[0] == '/' ? target : "";
}

std::optional<AgentxSession::TcpAddress> TcpAddressOf(const std::string &target) {
  constexpr char kPrefix[] = "tcp:";
  size_t colon = target.rfind(':');
  if (strncasecmp(target.c_str(), kPrefix, strlen(kPrefix)) != 0 || colon < strlen(kPrefix)) {
    return std::nullopt;
  }
  std::string host = target.substr(strlen(kPrefix), colon - strlen(kPrefix));
  AgentxSession::TcpAddress address{host == "localhost" ? "127.0.0.1" : host, 0};
  const char *end = target.data() + target.size();
  auto [at, error] = std::from_chars(target.data() + colon + 1, end, address.port);
  in_addr ignored;
  if (error != std::errc() || at != end ||
      inet_pton(AF_INET, address.ipv4.c_str(), &ignored) != 1) {
    return std::nullopt;
  }
  return address;
}

std::string CommunityOfLine(const std::string &token, const std::string &line) {
  // snmpd.conf(5): rocommunity COMMUNITY [...], com2sec [-Cn CONTEXT] NAME SOURCE COMMUNITY,
  // com2secunix [-Cn CONTEXT] NAME SOCKPATH COMMUNITY.
  std::vector<std::string> words;
  std::string word;
  bool quoted = false;
  bool some = false;
  for (char c : line) {
    if (c == '"') {
      quoted = !quoted;
      some = true;
    } else if (!quoted && (c == ' ' || c == '\t' || c == '\r' || c == '\n')) {
      if (some) {
        words.push_back(word);
      }
      word.clear();
      some = false;
    } else {
      word += c;
      some = true;
    }
  }
  if (some) {
    words.push_back(word);
  }
  size_t place = 0;
  if (strncasecmp(token.c_str(), "com2sec", 7) == 0) {
    place = !words.empty() && words[0] == "-Cn" ? 4 : 2;
  }
  return place < words.size() ? words[place] : "";
}

int LoadSnmpConfiguration(const std::string &application, SnmpSettings *settings,
                          AgentxSession::Settings *session) {
  InitAgent init = LibraryInitAgent();
  if (init == nullptr) {
    agentlog_fprintf(stderr, "init_agent() of the SNMP agent library not found\n");
    return -1;
  }
  std::set<int> open_before = OpenDescriptors();
  snmp_disable_stderrlog();
  snmp_enable_calllog();
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, Log, nullptr);

  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, kSubagent);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
  set_persistent_directory(kNowhere);
  // snmpd.conf is read for one thing only; the rest of it is unknown here.
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_NO_TOKEN_WARNINGS, 1);

  if (init(application.c_str()) != 0) {
    return -1;
  }
  // The session is opened by AgentxSession; the library's way would wait for the master here.
  snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, subagent_startup,
                           nullptr, 0);

  files = {};
  register_config_handler(application.c_str(), "pollInterval", ReadPollInterval, nullptr,
                          "SECONDS");
  register_config_handler(application.c_str(), "community", ReadCommunity, nullptr, "NAME");
  for (const char *token : {"rocommunity", "rocommunity6", "rwcommunity", "rwcommunity6", "com2sec",
                            "com2sec6", "com2secunix"}) {
    register_config_handler("snmpd", token, ReadSnmpdLine, nullptr, "");
  }

  {
    // No MIB module is parsed: the build has made a table of ours, and no other is needed.
    Environment modules("MIBS");
    Environment directories("MIBDIRS");
    Environment module_files("MIBFILES");
    const char *locale = setlocale(LC_CTYPE, nullptr);
    std::string before = locale != nullptr ? locale : "C";
    init_snmp(application.c_str());
    setlocale(LC_CTYPE, before.c_str());  // init_snmp() takes the environment's
  }
  CloseOnExec(open_before);

  settings->poll_interval = files.poll_interval;
  const char *fallback = netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_COMMUNITY);
  if (!files.community.empty()) {
    settings->community = files.community;
  } else if (fallback != nullptr && fallback[0] != '\0') {
    settings->community = fallback;
  } else {
    settings->community = files.snmpd_community;
  }

  session->name = application;
  const char *target = netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET);
  if (target == nullptr || target[0] == '\0') {
    target = netsnmp_lookup_default_target("agentx", "unix");
  }
  session->target = target != nullptr ? target : "";
  session->unix_path = UnixPathOf(session->target);
  session->tcp = TcpAddressOf(session->target);
  int ping = netsnmp_ds_get_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL);
  session->ping_seconds = ping > 0 ? ping : session->ping_seconds;
  int timeout = netsnmp_ds_get_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_TIMEOUT);
  // One octet in the Open PDU (RFC 2741 6.2.1).
  session->timeout_seconds = timeout > 0 ? static_cast<int>(std::min(timeout / ONE_SEC, 255L)) : 0;
  session->groups = MibGroups();
  return 0;
}

void UnloadSnmp(const std::string &application) {
  snmp_shutdown(application.c_str());
  shutdown_agent();
}

}  // namespace vex
