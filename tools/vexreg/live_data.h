// What the live view knows: the groups of objects with their rows, what changed lately, and how the
// processors and the memory fared. Pure: what is looked at comes in, nothing is read here.
#ifndef VEX_TOOLS_VEXREG_LIVE_DATA_H
#define VEX_TOOLS_VEXREG_LIVE_DATA_H

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "framework/registry/registry_file.h"
#include "tools/vexreg/follower.h"
#include "tools/vexreg/tables.h"
#include "tools/vexreg/words.h"

namespace vex {

// Percentages, the oldest first; -1: not known.
using History = std::deque<int>;

struct LiveRow {
  std::string name;    // of the object, from the root
  std::string number;  // behind the dot; empty of an object that is no row
  std::string called;  // what people call what the row is of; empty when it has no such text
  int level = 0;       // of a file system's use, among those that are news
  std::shared_ptr<const FileObject> object;
  History history;            // of a processor: its last minutes' averages
  mutable std::string words;  // what a filter searches, small letters; empty: not made yet
};

// Rows by their number.
struct NumberLess {
  bool operator()(const std::string &a, const std::string &b) const;
};

struct LiveGroup {
  std::map<std::string, LiveRow, NumberLess> rows;
  uint64_t version = 0;  // another one once a row has come, gone or changed; never used again
};

// One line of what changed.
struct LiveChange {
  int64_t seconds = 0;  // wall clock
  std::string what;     // "host/mount.3 State"
  std::string how;      // "answers -> silent"
};

class LiveData {
 public:
  // raw: changes have the numbers as they are.
  explicit LiveData(bool raw) : raw_(raw) {}

  // Takes a look's steps. The first look is no change. wall: seconds since 1970; clock_ns: of a
  // clock that does not step.
  void Take(const Look &look, int64_t wall, int64_t clock_ns);

  const std::map<std::string, LiveGroup> &groups() const {
    return groups_;
  }
  // Null when it has no rows.
  const LiveGroup *Group(std::string_view name) const;
  // The row of a group with that number, "" for an object that is no row; null when there is none.
  const LiveRow *Row(std::string_view group, const std::string &number) const;
  const FileObject *Object(std::string_view group) const;
  // The newest first.
  const std::deque<LiveChange> &changes() const {
    return changes_;
  }
  // Of the share of the memory that cannot be given to programs any more.
  const History &memory_history() const {
    return memory_history_;
  }
  const Look &last_look() const {
    return last_look_;
  }
  // Seconds since the agent published anything that it publishes at each poll; -1 when nothing of
  // that is there.
  int64_t AgeOfValues(int64_t wall, int64_t clock_ns) const;
  // Seconds between polls; the default where it is not told.
  int PollSeconds() const;
  // Whether the values are older than they get while the agent is well.
  bool IsStale(int64_t wall, int64_t clock_ns) const;

 private:
  // A row that has come or gone.
  struct Coming {
    std::string group;
    std::string name;
    std::string number;
    std::string called;  // of one that has gone
    bool added;
  };
  void NoteComing(const std::vector<Coming> &coming, int64_t wall);
  void Note(int64_t wall, std::string what, std::string how);
  void NoteUse(int64_t wall, const std::string &what, std::optional<int> before,
               std::optional<int> now, int *level);
  std::string CalledOf(std::string_view group, const LiveRow &row) const;
  void NoteVariables(const LiveRow &row, const FileObject &before, int64_t wall);

  const bool raw_;
  bool first_ = true;
  uint64_t version_ = 0;
  std::map<std::string, LiveGroup> groups_;
  std::deque<LiveChange> changes_;
  uint64_t changes_version_ = 0;
  History memory_history_;
  int memory_level_ = 0;
  Look last_look_;              // without its steps
  int64_t newest_ns_ = 0;       // publication of a group of each poll
  int64_t newest_seen_ns_ = 0;  // when a newer one was last seen; 0: never, only the first one
};

// A variable of that name; null when the object has none.
const FileVariable *VariableOf(const FileObject &object, std::string_view name);
// Its integer; nothing also when it is -1, which stands for what is not known.
std::optional<int32_t> KnownNumber(const FileObject *object, std::string_view name);
// Its text, safe to print; empty when there is none.
std::string TextOf(const FileObject *object, std::string_view name);
// The percentage of the memory that is in use and cannot be given back; nothing when that is not
// known.
std::optional<int> MemoryUse(const FileObject *memory, const FileObject *detail);
std::optional<int> MemoryUse(const LiveData &data);
// The percentage of a swap space that is in use; nothing when there is none.
std::optional<int> SwapUse(const FileObject *memory);

// The groups that the agent publishes at each poll, whatever the host, and of which there is one
// object: by these its values have an age.
std::vector<std::string> HeadGroups();
// The same data as a live view's after its first look at these objects.
LiveData DataOf(const std::vector<NamedObject> &objects, bool raw, int64_t wall, int64_t clock_ns);

// Groups and variables that the view treats by name.
inline constexpr std::string_view kProcessors = "host/cpu";
inline constexpr std::string_view kFileSystems = "host/filesys";
inline constexpr std::string_view kMounts = "host/mount";
inline constexpr std::string_view kMemory = "host/memory";
inline constexpr std::string_view kMemoryDetail = "host/memdetail";
inline constexpr std::string_view kSiblings = "host/sibling";
inline constexpr std::string_view kLoad = "host/load";
inline constexpr std::string_view kAgentGroup = "host/agent";
inline constexpr std::string_view kInfo = "host/info";
inline constexpr std::string_view kMisc = "host/misc";

}  // namespace vex

#endif
