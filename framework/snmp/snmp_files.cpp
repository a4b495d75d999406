#include "framework/snmp/snmp_files.h"

// In this order:
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// Of the headers of the agent library only this one: the numbers of what is configured.
#include <net-snmp/agent/ds_agent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>

#include "platform/framework.h"

namespace vex {
namespace {

// A directory that cannot exist: whatever the library thinks of keeping, it has no place.
constexpr char kNowhere[] = "/dev/null/vexhostd";

constexpr int kLongestPollInterval = 60;  // seconds

// What the files say, until the library has read them all.
struct Read {
  int poll_interval = 0;
  std::string community;       // of the application's own file
  std::string failed;          // a file that could not be opened, and why
  std::set<std::string> said;  // messages: the library reads each file twice
  std::vector<std::pair<std::string, std::string>> master_lines;
  size_t receivers = 0;
  size_t users = 0;
};
Read files;
bool reading = false;
std::string reported_application;

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
  constexpr char kBlanks[] = " \t\r\n";
  std::string text = line;
  text.erase(0, text.find_first_not_of(kBlanks));
  text.erase(text.find_last_not_of(kBlanks) + 1);
  return text;
}

// As the library reads its own tokens: what stands in quotation marks, else all of it. What looks
// like a comment there is part of the value, which is said: the value is seldom meant so.
std::string ValueOf(const char *token, const char *line) {
  const std::string text = Trimmed(line);
  const bool quoted = text[0] == '"' || text[0] == '\'';
  if (!quoted && (text.find(" #") != text.npos || text.find("\t#") != text.npos)) {
    agentlog_fprintf(stderr,
                     "%s: all of its line is the value, with what follows a '#': a comment has a "
                     "line of its own\n",
                     token);
  }
  return quoted ? WordsOf(text).front() : text;
}

void ReadPollInterval(const char *token, char *line) {
  const std::string text = ValueOf(token, line);
  int seconds = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  const bool too_many = error == std::errc::result_out_of_range && text[0] != '-';
  if (too_many) {
    seconds = kLongestPollInterval;
  }
  if ((error != std::errc() && !too_many) || end != text.data() + text.size() || seconds < 1) {
    agentlog_fprintf(stderr, "pollInterval: \"%s\" is not a number of seconds; ignored\n",
                     text.c_str());
    return;
  }
  files.poll_interval = std::min(seconds, kLongestPollInterval);
}

void ReadCommunity(const char *token, char *line) {
  files.community = ValueOf(token, line);
}

void ReadMasterLine(const char *token, char *line) {
  files.master_lines.emplace_back(token, line);
}

void CountReceiver(const char *, char *) {
  files.receivers++;
}

void CountUser(const char *, char *) {
  files.users++;
}

// group NAME MODEL USER
void CountGroupsUser(const char *, char *line) {
  const std::vector<std::string> words = WordsOf(line);
  files.users += words.size() > 1 && words[1] == "usm" ? 1 : 0;
}

void ReadAgentxSocket(const char *, char *line) {
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, line);
}

// Where the library looks for files.
std::vector<std::string> ConfigurationDirectories() {
  const char *all = getenv("SNMPCONFPATH");
  all = all != nullptr ? all : get_configuration_directory();
  std::istringstream text(all != nullptr ? all : "");
  std::vector<std::string> directories;
  for (std::string directory; std::getline(text, directory, ENV_SEPARATOR_CHAR);) {
    directories.push_back(directory);
  }
  return directories;
}

// The files that it reads for the application, whether they are there or not.
std::vector<std::string> ConfigurationFiles(const std::string &application) {
  std::vector<std::string> paths;
  for (const std::string &directory : ConfigurationDirectories()) {
    for (const std::string &name : {application, std::string("snmp"), std::string("snmpd")}) {
      for (const char *end : {".conf", ".local.conf"}) {
        paths.push_back(std::string(directory).append("/").append(name).append(end));
      }
    }
  }
  return paths;
}

// The first of them that the library would wait for; "" when there is none.
std::string PipeAmongFiles(const std::string &application) {
  for (const std::string &path : ConfigurationFiles(application)) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode)) {
      return path;
    }
  }
  return "";
}

// The library passes over a directory in a file's place without a word.
void ReportDirectoriesAmongFiles(const std::string &application) {
  for (const std::string &path : ConfigurationFiles(application)) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      agentlog_fprintf(stderr, "%s: %s: It is a directory, and not read\n", application.c_str(),
                       path.c_str());
    }
  }
}

// Whether the library looks in that directory for an application's files. A file of the same name
// elsewhere is one that another application's file includes.
bool IsConfigurationDirectory(std::string_view directory) {
  const std::vector<std::string> all = ConfigurationDirectories();
  return std::find(all.begin(), all.end(), directory) != all.end();
}

// Whether the message is the library's about an unknown token in a file that is not one of
// reported_application's: "PATH: line NUMBER: Warning: Unknown token: TOKEN.".
bool AboutAnothersToken(const char *message) {
  if (strstr(message, ": Warning: Unknown token: ") == nullptr) {
    return false;
  }
  const std::string_view text = message;
  const std::string_view path = text.substr(0, text.find(": line "));
  const size_t slash = path.rfind('/');
  const std::string_view name = slash == path.npos ? path : path.substr(slash + 1);
  if (slash != path.npos && !IsConfigurationDirectory(path.substr(0, slash))) {
    return true;
  }
  for (const char *end : {".conf", ".local.conf"}) {
    if (name == reported_application + end) {
      return false;
    }
  }
  return true;
}

// Notes the file when the message is the library's about one that it could not open for a reason
// that may pass ("PATH: REASON"): without it the configuration would be another one.
void NoteFailure(const char *message) {
  std::string_view text = message;
  text = text.substr(0, text.find('\n'));
  for (const int error : {EMFILE, ENFILE, ENOMEM, EINTR, EIO}) {
    if (text.ends_with(std::string(".conf: ") + strerror(error))) {
      files.failed = text;
    }
  }
}

int Log(int, int, void *message, void *) {
  const auto *entry = static_cast<const snmp_log_message *>(message);
  try {
    if (entry != nullptr && entry->msg != nullptr && entry->priority <= LOG_INFO &&
        !AboutAnothersToken(entry->msg) && (!reading || files.said.insert(entry->msg).second)) {
      NoteFailure(entry->msg);
      size_t length = strlen(entry->msg);
      agentlog_fprintf(stderr, "%s%s", entry->msg,
                       length > 0 && entry->msg[length - 1] == '\n' ? "" : "\n");
    }
  } catch (const std::exception &) {
    // Nothing may be thrown through the library.
  }
  return SNMP_ERR_NOERROR;
}

// A token that is known and has no effect.
void Ignore(const char *, char *) {}

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

void RegisterMasterSettings() {
  for (const char *token : {"trapsink", "trap2sink", "informsink", "trapsess"}) {
    register_config_handler("snmpd", token, CountReceiver, nullptr, "");
  }
  for (const char *token : {"rouser", "rwuser"}) {
    register_config_handler("snmpd", token, CountUser, nullptr, "");
  }
  register_config_handler("snmpd", "group", CountGroupsUser, nullptr, "");
}

void ReportUnknownTokens(const std::string &application) {
  reported_application = application;
  // The master's alone; it may well be written here, too.
  register_config_handler(application.c_str(), "agentXPerms", Ignore, nullptr, "");
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_NO_TOKEN_WARNINGS, 0);
}

SnmpFiles ReadSnmpFiles(const std::string &application) {
  files = {};
  const std::string pipe = PipeAmongFiles(application);
  if (!pipe.empty()) {
    SnmpFiles none;
    none.failed = pipe + ": It is a pipe";
    return none;
  }
  ReportDirectoriesAmongFiles(application);
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
    const std::string before = setlocale(LC_CTYPE, nullptr);
    reading = true;
    init_snmp(application.c_str());
    reading = false;
    setlocale(LC_CTYPE, before.c_str());  // init_snmp() takes the environment's
  }

  SnmpFiles read;
  read.poll_interval = files.poll_interval;
  read.master_lines = files.master_lines;
  read.receivers = files.receivers;
  read.users = files.users;
  read.failed = files.failed;
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
  for (const std::string &path : ConfigurationFiles(application)) {
    if (access(path.c_str(), R_OK) != 0 && errno == EACCES) {
      unreadable.push_back(path);
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
  const auto is_blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  std::vector<std::string> words;
  size_t at = 0;
  while (true) {
    while (at < line.size() && is_blank(line[at])) {
      at++;
    }
    if (at == line.size()) {
      return words;
    }
    const char quote = line[at] == '"' || line[at] == '\'' ? line[at++] : '\0';
    std::string word;
    while (at < line.size() && (quote != '\0' ? line[at] != quote : !is_blank(line[at]))) {
      if (line[at] == '\\' && at + 1 < line.size()) {
        at++;
      }
      word += line[at++];
    }
    at += quote != '\0' && at < line.size() ? 1 : 0;
    words.push_back(std::move(word));
  }
}

// snmpd.conf(5): rocommunity COMMUNITY [SOURCE [...]], com2sec [-Cn CONTEXT] NAME SOURCE COMMUNITY,
// com2secunix [-Cn CONTEXT] NAME SOCKPATH COMMUNITY.
std::string SourceOfLine(const std::string &token, const std::string &line) {
  const std::vector<std::string> words = WordsOf(line);
  if (strcasecmp(token.c_str(), "com2secunix") == 0) {
    return "";
  }
  if (strncasecmp(token.c_str(), "com2sec", 7) == 0) {
    const size_t place = !words.empty() && words[0] == "-Cn" ? 3 : 1;
    return place < words.size() ? words[place] : "";
  }
  return words.size() > 1 ? words[1] : words.empty() ? "" : "default";
}

std::string CommunityOfLine(const std::string &token, const std::string &line) {
  const std::vector<std::string> words = WordsOf(line);
  size_t place = 0;
  if (strncasecmp(token.c_str(), "com2sec", 7) == 0) {
    place = !words.empty() && words[0] == "-Cn" ? 4 : 2;
  }
  return place < words.size() ? words[place] : "";
}

}  // namespace vex
