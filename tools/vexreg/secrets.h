// What must not leave the host with its configuration. Pure.
#ifndef VEX_TOOLS_VEXREG_SECRETS_H
#define VEX_TOOLS_VEXREG_SECRETS_H

#include <set>
#include <string>
#include <string_view>

namespace vex {

// Words that were left out: they are looked for in other texts as well.
using Secrets = std::set<std::string, std::less<>>;

inline constexpr char kLeftOut[] = "(left out)";

// A net-snmp configuration file with nothing of the lines that may give a community, a user's key
// or a command: the tokens whose values are harmless keep them, every other one stands with its
// value left out, whatever its spelling; comments go. The words left out are added to the secrets.
std::string WithoutSnmpSecrets(std::string_view text, Secrets *secrets);

// A file of KEY=VALUE lines with the values of keys left out that sound like a secret's.
std::string WithoutAssignedSecrets(std::string_view text, Secrets *secrets);

// Any text without the words that are secrets, and what stands for them. Words of three characters
// and fewer are not looked for.
std::string WithoutWords(std::string_view text, const Secrets &secrets);

}  // namespace vex

#endif
