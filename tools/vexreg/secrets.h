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
// value left out, whatever its spelling; comments go. The words left out are added to the secrets:
// communities all, others where they are long enough to be told from an ordinary word.
std::string WithoutSnmpSecrets(std::string_view text, Secrets *secrets);

// A file of KEY=VALUE lines with the values of keys left out that sound like a secret's.
std::string WithoutAssignedSecrets(std::string_view text, Secrets *secrets);

// A mount table with the options of each mount left out, but for whether it is read-only: some have
// passwords, and the agent reads no other.
std::string WithoutMountOptions(std::string_view table);

// Any text without the words that are secrets, and what stands for them.
std::string WithoutWords(std::string_view text, const Secrets &secrets);

}  // namespace vex

#endif
