// The end of the SNMP side, also on a busy machine.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_STOPPED_H
#define VEX_TESTS_UNIT_FRAMEWORK_STOPPED_H

#include <chrono>
#include <mutex>
#include <thread>

#include "framework/snmp/snmp_shared.h"
#include "framework/snmp/snmp_thread.h"

namespace vex {

// Whether the SNMP side ends when it is told to. An agent that ends does not wait for long and
// leaves it behind; a test does wait, so that the next one finds nothing of it.
inline bool Stopped() {
  bool stopped = SnmpStop();
  for (int i = 0; i < 10000 && !stopped; i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const std::lock_guard lock(Side().state_mutex);
    stopped = Side().finished;
  }
  return stopped;
}

}  // namespace vex

#endif
