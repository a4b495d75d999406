// What a capture holds: names of its members, and its description (capture.json).
#ifndef VEX_TOOLS_VEXREG_CAPTURED_HOST_H
#define VEX_TOOLS_VEXREG_CAPTURED_HOST_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "framework/process/descriptor.h"
#include "tools/vexreg/archive.h"

namespace vex {

// Members of a capture. docs/capture-format.md describes them.
inline constexpr char kDescriptionMember[] = "capture.json";
inline constexpr char kFindingsMember[] = "doctor.json";
inline constexpr char kFiguresMember[] = "figures";
inline constexpr char kRaidKeyMember[] = "raid-key";
inline constexpr std::string_view kHostMembers = "host/";  // files as they stand on the host
inline constexpr std::string_view kRegistryMembers = "registry/";  // files of the registry
inline constexpr std::string_view kCommandMembers = "commands/";   // what commands print
// The agent's last lines.
inline constexpr char kLogFileMember[] = "log/file";
inline constexpr char kJournalMember[] = "log/journal";

inline constexpr int kCaptureFormat = 1;

// Where a file comes from and goes to.
enum class Treatment {
  kWhole,        // read by the agent, and put into place in a replay
  kPresence,     // only that it is there, and when it was changed
  kSnmp,         // configuration of net-snmp: without secrets, and for people alone
  kAssignments,  // KEY=VALUE lines: without secrets
  kMountTable    // without the mounts' options but for ro and rw
};
struct Source {
  const char *pattern;  // of glob(3)
  Treatment treatment;
};
// All files that the agent reads, but for those of the registry.
const std::vector<Source> &Sources();
// The source that a path is of; null when it is of none.
const Source *SourceOf(const std::string &path);

// A command that the agent runs, and what it did.
struct CommandRun {
  std::vector<std::string> words;
  std::string member;  // its output; empty when there is no such command
  int status = 0;
};
// The programs that a replay stands in for.
inline constexpr const char *kStoodIn[] = {"dpkg", "rpm", "vdf"};

// One source that could not be taken, or not whole.
struct Omission {
  std::string source;
  std::string reason;
};

struct Capture {
  std::string host;                       // the host's name
  std::string made;                       // when, as text
  std::string program;                    // the version of vexreg
  std::string agent;                      // the version of the agent; empty when it was not known
  std::string release, version, machine;  // of the kernel
  std::vector<CommandRun> commands;
  std::vector<std::string> siblings;                   // program paths of running ones
  std::vector<std::pair<std::string, int32_t>> asked;  // numeric OIDs that snmpd answered
  std::vector<Omission> omissions;
  std::set<std::string> variables;  // that the agent knew, with a value or not; empty: not told

  std::vector<Member> members;
  const Member *Find(std::string_view name) const;
  // `made` in seconds since 1970; nothing when it is no time.
  std::optional<int64_t> Moment() const;
};

// The description as the bytes of its member.
std::string DescriptionJson(const Capture &capture);
// The capture of an archive's members. Nothing, with the reason, when they are none.
std::optional<Capture> CaptureOf(std::vector<Member> members, std::string *error);
// Reads a file ("-": standard input). Nothing after a complaint.
std::optional<Capture> ReadCapture(const std::string &path);

// From now on this process's local time is that of the captured host; UTC where it has told none.
void UseTimeZoneOf(const Capture &capture);

// A capture's registry as files, in a directory of this user's (below TMPDIR, else /tmp) that goes
// away again, also when this process is killed: a child waits for its end.
class CapturedRegistry {
 public:
  CapturedRegistry() = default;
  ~CapturedRegistry();
  CapturedRegistry(const CapturedRegistry &) = delete;
  CapturedRegistry &operator=(const CapturedRegistry &) = delete;
  // Reads the capture and writes the files. False after a complaint.
  bool Open(const std::string &path);
  const std::string &root() const {
    return root_;
  }
  const Capture &capture() const {
    return capture_;
  }

 private:
  // Fills root_. False with errno.
  bool MakeDirectory();

  Capture capture_;
  std::string root_;
  Descriptor alive_;  // closed by this process's end, which the sweeper sees
  pid_t sweeper_ = -1;
};

// The directories above a relative name and the file itself, below a directory that only this user
// can change. False with errno.
bool WriteBelow(int directory, const std::string &name, std::string_view bytes, mode_t mode,
                mode_t directory_mode, int64_t modified = 0);

}  // namespace vex

#endif
