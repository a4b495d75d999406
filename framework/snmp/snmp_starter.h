// The starter: a small process that reads the configuration, gives up nearly all rights, and from
// then on does nothing but start SNMP processes, one at a time. It has a single thread, as whoever
// forks must, and ends with the agent.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_STARTER_H
#define VEX_FRAMEWORK_SNMP_SNMP_STARTER_H

#include <sys/types.h>

#include <string>

#include "framework/process/clock.h"
#include "framework/snmp/confinement.h"
#include "framework/snmp/frames.h"
#include "framework/snmp/snmp_wire.h"

namespace vex {

// The agent's side of it. One thread at a time.
class SnmpStarter {
 public:
  SnmpStarter() = default;
  ~SnmpStarter();
  SnmpStarter(const SnmpStarter &) = delete;
  SnmpStarter &operator=(const SnmpStarter &) = delete;

  // Tells whether this process may fork such a process: it has one thread. False with errno when
  // that cannot be told.
  static bool Possible(bool *possible);
  // False with errno. Throws std::bad_alloc.
  bool Start(const std::string &application, bool behind, const SnmpUser &user);
  FrameSocket *Channel() {
    return &channel_;
  }
  // Ends it, and the process that it started, in a moment at most.
  void End();

 private:
  FrameSocket channel_;
  pid_t pid_ = -1;
};

}  // namespace vex

#endif
