// The [Service] section of a systemd unit, read as the service manager reads it: what it takes away
// from the service's processes. A key that is neither known here nor known to take nothing away is
// an error, so that nothing of a unit is left out in silence.
#ifndef VEX_TESTS_SUPPORT_UNIT_SANDBOX_UNIT_FILE_H
#define VEX_TESTS_SUPPORT_UNIT_SANDBOX_UNIT_FILE_H

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace unit_sandbox {

class UnitError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A list that names what is allowed, or what is refused.
template <typename Content>
struct Filter {
  bool given = false;
  bool allows = false;  // the content is allowed and nothing else; else it is refused
  Content content;
};

struct Unit {
  uint64_t bounding_set = ~uint64_t{0};  // one bit a capability
  uint64_t ambient_set = 0;
  bool no_new_privileges = false;
  // System calls by name, groups expanded; the errno of each, or -1 for the filter's own.
  Filter<std::map<std::string, int>> system_calls;
  int system_call_errno = 0;                        // 0: the process is killed
  std::optional<std::set<uint32_t>> architectures;  // as libseccomp numbers them, beside the native
  Filter<std::set<int>> address_families;
  unsigned long refused_namespaces = 0;  // CLONE_NEW... flags
  bool restrict_realtime = false;
  bool restrict_suid_sgid = false;
  bool lock_personality = false;
  bool memory_deny_write_execute = false;
  bool protect_hostname = false;
  bool protect_clock = false;
  std::optional<mode_t> umask;
  std::map<int, rlimit> limits;  // by RLIMIT_...
};

// The flags of all kinds of namespaces.
unsigned long AllNamespaces();

// The members of a group of system calls ("@clock"), as this machine's systemd has them.
const std::vector<std::string> &SystemCallGroup(const std::string &name);

// Throws UnitError.
Unit ReadUnit(const std::string &path);

}  // namespace unit_sandbox

#endif
