// Where the master agent is, and when to look for it again: connecting never waits. One thread.
#ifndef VEX_FRAMEWORK_SNMP_MASTER_FINDER_H
#define VEX_FRAMEWORK_SNMP_MASTER_FINDER_H

#include <cstdint>
#include <optional>
#include <string>

#include "framework/process/clock.h"

namespace vex {

struct MasterAddress {
  struct Tcp {
    std::string ipv4;
    uint16_t port = 0;
  };
  std::string target;      // agentXSocket, as configured
  std::string unix_path;   // of the socket; empty when the target is not a Unix socket
  std::optional<Tcp> tcp;  // when it is a numeric one
  // Whether it can be connected to without looking up a name.
  bool Plain() const {
    return !unix_path.empty() || tcp.has_value();
  }
};

class MasterFinder {
 public:
  explicit MasterFinder(MasterAddress address);
  ~MasterFinder();
  MasterFinder(const MasterFinder &) = delete;
  MasterFinder &operator=(const MasterFinder &) = delete;

  const MasterAddress &Address() const {
    return address_;
  }
  // When to try again, while there is no session.
  Clock::time_point NextAttempt() const {
    return next_attempt_;
  }
  // Readable when the directory of the master's socket has changed, for WatchReady(); -1 for none.
  int WatchFd() const {
    return watch_fd_;
  }
  // True when NextAttempt() is now.
  bool WatchReady();
  // Before an attempt: what happens from now on is seen.
  void Watch();
  // A connected socket of a plain address, close-on-exec and not blocking, or -1 with errno.
  int Connect() const;
  // The attempt has failed with this error; 0: for want of memory.
  void Failed(int error);
  // The session has ended: when to try again. refused: the master did not want it.
  void Lost(bool refused);
  // The master has refused to open a session.
  void Refused();
  // The master takes registrations: it is there.
  void Welcome();
  // It has taken all of them.
  void Found();

 private:
  void RetryLater(Clock::duration longest);

  const MasterAddress address_;
  std::string watched_directory_;  // of the socket, and the socket's name in it
  std::string watched_name_;
  int watch_fd_ = -1;
  Clock::duration retry_;
  Clock::time_point next_attempt_;
  bool said_ = false;   // that there is none yet; or there has been one
  int said_error_ = 0;  // of connecting; 0: none, or nobody listens
};

}  // namespace vex

#endif
