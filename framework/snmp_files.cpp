#include "framework/snmp_files.h"

// In this order:
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// Of the headers of the agent library only this one: the numbers of what is configured.
#include <net-snmp/agent/ds_agent.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>

#include "platform/framework.h"

namespace vex {
namespace {

// A directory that cannot exist: whatever the library thinks of keeping, it has no place.
constexpr char kNowhere[] = "/dev/null/vexhostd";
constexpr char kDefaultAgentxSocket[] = "/var/agentx/master";

// What the files say, until the library has read them all.
struct Read {
  int poll_interval = 0;
  std::string community;  // of the application's own file
  std::vector<std::pair<std::string, std::string>> master_lines;
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

void ReadMasterLine(const char *token, char *line) {
  files.master_lines.emplace_back(token, line);
}

void ReadAgentxSocket(const char *, char *line) {
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, line);
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

}  // namespace

void PrepareSnmpLibrary() {
  snmp_disable_stderrlog();
  snmp_enable_calllog();
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, Log, nullptr);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
  set_persistent_directory(kNowhere);
  // snmpd.conf is read for one thing only; the rest of it is unknown here.
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_NO_TOKEN_WARNINGS, 1);
}

void RegisterAgentxSocket(const std::string &application) {
  netsnmp_register_default_target("agentx", "unix", kDefaultAgentxSocket);
  register_config_handler(application.c_str(), "agentXSocket", ReadAgentxSocket, nullptr,
                          "ADDRESS");
}

SnmpFiles ReadSnmpFiles(const std::string &application) {
  files = {};
  register_config_handler(application.c_str(), "pollInterval", ReadPollInterval, nullptr,
                          "SECONDS");
  register_config_handler(application.c_str(), "community", ReadCommunity, nullptr, "NAME");
  for (const char *token : {"rocommunity", "rocommunity6", "rwcommunity", "rwcommunity6", "com2sec",
                            "com2sec6", "com2secunix"}) {
    register_config_handler("snmpd", token, ReadMasterLine, nullptr, "");
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

  SnmpFiles read;
  read.poll_interval = files.poll_interval;
  read.master_lines = files.master_lines;
  const char *common = netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_COMMUNITY);
  if (!files.community.empty()) {
    read.community = files.community;
    read.source = CommunitySource::kOwn;
  } else if (common != nullptr && common[0] != '\0') {
    read.community = common;
    read.source = CommunitySource::kCommon;
  } else {
    for (const auto &[token, line] : files.master_lines) {
      if (read.community.empty()) {
        read.community = CommunityOfLine(token, line);
      }
    }
    read.source = read.community.empty() ? CommunitySource::kNone : CommunitySource::kMaster;
  }
  return read;
}

std::string AgentxTarget() {
  const char *target = netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET);
  if (target == nullptr || target[0] == '\0') {
    target = netsnmp_lookup_default_target("agentx", "unix");
  }
  return target != nullptr ? target : "";
}

std::vector<std::string> UnreadableSnmpFiles(const std::string &application) {
  std::vector<std::string> unreadable;
  std::istringstream directories(get_configuration_directory());
  for (std::string directory; std::getline(directories, directory, ENV_SEPARATOR_CHAR);) {
    for (const std::string &name : {application, std::string("snmp"), std::string("snmpd")}) {
      for (const char *end : {".conf", ".local.conf"}) {
        std::string path = directory;
        path.append("/").append(name).append(end);
        if (access(path.c_str(), R_OK) != 0 && errno == EACCES) {
          unreadable.push_back(path);
        }
      }
    }
  }
  return unreadable;
}

std::string UnixPathOf(const std::string &target) {
  constexpr char kPrefix[] = "unix:";
  if (strncasecmp(target.c_str(), kPrefix, strlen(kPrefix)) == 0) {
    return target.substr(strlen(kPrefix));
  }
  return !target.empty() && target[0] == '/' ? target : "";
}

std::vector<std::string> WordsOf(const std::string &line) {
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
  return words;
}

std::string CommunityOfLine(const std::string &token, const std::string &line) {
  // snmpd.conf(5): rocommunity COMMUNITY [...], com2sec [-Cn CONTEXT] NAME SOURCE COMMUNITY,
  // com2secunix [-Cn CONTEXT] NAME SOCKPATH COMMUNITY.
  const std::vector<std::string> words = WordsOf(line);
  size_t place = 0;
  if (strncasecmp(token.c_str(), "com2sec", 7) == 0) {
    place = !words.empty() && words[0] == "-Cn" ? 4 : 2;
  }
  return place < words.size() ? words[place] : "";
}

}  // namespace vex
