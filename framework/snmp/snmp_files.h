// What net-snmp's configuration files say to an agent of ours. Needs libnetsnmp, not its agent
// library: the agent's SNMP side and tools read the same files the same way.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_FILES_H
#define VEX_FRAMEWORK_SNMP_SNMP_FILES_H

#include <string>
#include <utility>
#include <vector>

namespace vex {

// Where a master agent has its socket unless agentXSocket says otherwise.
inline constexpr char kDefaultAgentxSocket[] = "/var/agentx/master";

enum class CommunitySource { kNone, kOwn, kCommon, kMaster };

struct SnmpFiles {
  int poll_interval = 0;  // token pollInterval, 60 at most; 0 when absent
  std::string community;  // `community`, else defCommunity, else of snmpd.conf; "" when none
  CommunitySource source = CommunitySource::kNone;  // and which of them it was
  // Token and rest of the lines of snmpd.conf that give a community.
  std::vector<std::pair<std::string, std::string>> master_lines;
  // Of snmpd.conf, after RegisterMasterSettings(): receivers of notifications, SNMPv3 users.
  size_t receivers = 0;
  size_t users = 0;
  // A file that is there and could not be read, this time, and why; "" when there was none.
  std::string failed;
};

// Before the library is initialised: it logs through agentlog_fprintf() and keeps nothing on disk.
void PrepareSnmpLibrary();
// Lets agentXSocket be read, as the agent library does where there is one. Before ReadSnmpFiles().
void RegisterAgentxSocket(const std::string &application);
// Lets what snmpd.conf says to stations be read: receivers and users, whose lines may hold secrets
// and are only counted. Before ReadSnmpFiles().
void RegisterMasterSettings();
// Lets each unknown token of the application's own files be logged, for which the handlers of its
// libraries must be there. The common files are for many programs, whose tokens are not known here.
// Before ReadSnmpFiles().
void ReportUnknownTokens(const std::string &application);
// Initialises the library for `application`, without any MIB module, which reads the files.
SnmpFiles ReadSnmpFiles(const std::string &application);
// Where the master agent's AgentX socket is, afterwards: agentXSocket, else the default.
std::string AgentxTarget();

// The configuration files that this process may not read.
std::vector<std::string> UnreadableSnmpFiles(const std::string &application);

// The path of an AgentX target that is a Unix socket ("/path", "unix:/path"); else empty.
std::string UnixPathOf(const std::string &target);
// The words of a line of configuration, as net-snmp takes them: a word may stand in quotation marks
// of either kind, which hold blanks together; a backslash takes the next character as it stands.
std::vector<std::string> WordsOf(const std::string &line);
// The community that a line of snmpd.conf gives for reading; empty when it gives none.
std::string CommunityOfLine(const std::string &token, const std::string &line);
// Whence such a line lets that community in: an address, a network or a name; "default" when from
// anywhere; empty when it is no line of networks.
std::string SourceOfLine(const std::string &token, const std::string &line);

}  // namespace vex

#endif
