// Notifications that nobody took before the agent ended, kept in the registry's root for the next
// one: an upgrade or a restart while the master is away loses none.
#ifndef VEX_FRAMEWORK_SNMP_UNSENT_H
#define VEX_FRAMEWORK_SNMP_UNSENT_H

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "framework/snmp/snmp_thread.h"

namespace vex {

// The file of an application: its name and ".traps", below the root. It stays until the master has
// what stands in it, so an agent that is killed in between lets the next one send that again:
// twice is better than never. Agent thread.
class UnsentFile {
 public:
  UnsentFile(std::string root, const std::string &application);

  // Whether the file may hold what this process does not have.
  bool Unread() const {
    return state_ == State::kUnread;
  }
  // What was kept, oldest first; the file stays. Empty when there is none, or it is one that is not
  // used, which is logged. Nothing, with errno, when it cannot be read now. Throws std::bad_alloc.
  // What a killed agent left of a new file is removed.
  std::optional<std::vector<Notification>> Read();
  // Read() or what follows it has failed: says so, once.
  void SayUnread(int error);
  // The caller has all that Read() returned: from now on the file is replaced, not added to.
  void Taken();
  // The master has all of it: removes the file. A failure is logged once; call again.
  void AllSent();
  // While it runs: puts these, oldest first, in place of everything, on the disk before it returns,
  // for the case that the process is killed. Not while Unread(). A failure is logged once; call
  // again. 0 or -1. Throws nothing.
  int KeepMeanwhile(std::span<const Notification> notifications) noexcept;
  // At the end: leaves these, oldest first, for the next start, on the disk before it returns:
  // after what was not read, and else in place of everything. The newest 256 stay. Nothing is
  // touched for none that follow an unread file. 0, or -1 with errno, which is logged; the file is
  // then as it was, or whole in its new state. Throws nothing.
  int Keep(std::span<const Notification> notifications) noexcept;

 private:
  enum class State {
    kUnread,
    kRefused,  // holds nothing of ours
    kTaken,
    kGone,
  };

  std::optional<std::string> Contents(int directory);
  int Write(int directory, std::span<const Notification> notifications) const;
  int Replace(std::span<const Notification> notifications);

  std::string root_;
  std::string name_;  // "" for a name that is none
  std::string path_;
  State state_ = State::kUnread;
  bool said_unread_ = false;
  bool said_stays_ = false;
  bool said_unkept_ = false;
};

}  // namespace vex

#endif
