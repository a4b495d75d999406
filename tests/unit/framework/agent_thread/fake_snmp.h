// The SNMP side in memory, and a small MIB: for tests of the framework's agent-thread half.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_AGENT_THREAD_FAKE_SNMP_H
#define VEX_TESTS_UNIT_FRAMEWORK_AGENT_THREAD_FAKE_SNMP_H

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "framework/registry/image.h"
#include "framework/snmp/set_channel.h"
#include "framework/snmp/snmp_thread.h"

namespace vex {

struct FakeSnmp {
  bool start_fails = false;
  SnmpSettings settings;
  bool running = false;
  bool failed = false;
  bool stays = false;  // its thread is left behind at the end
  std::string application;
  bool sets_enabled = true;
  bool sets_closed = false;
  std::map<uint64_t, std::shared_ptr<const Image>> served;
  int publications = 0;
  std::vector<Notification> notifications;
  void (*asked_what_waits)() = nullptr;  // called when somebody wants to know
  bool nothing_waiting = true;
  bool up = false;
  int publish_fails = 0;  // so often there is no memory for an image,
  int notify_fails = 0;   // for a notification,
  int unsent_fails = 0;   // and for what is unsent
  std::optional<std::vector<Notification>> unsent = std::vector<Notification>();
  void (*tick)() = nullptr;
  int tick_ms = 0;
  // The next query's answer and what was asked.
  SnmpAnswer answer{QueryEnd::kAnswered, 0, 0};
  std::string queried;
  int queries = 0;
  std::chrono::nanoseconds patience{0};
  bool answered_late = false;
  // Items that ServeSets() runs (check, then apply) when set_fd is readable.
  int set_fd = -1;
  std::vector<SetItem> pending;
  std::vector<int> set_results;
  // So long it then holds a set whose apply does not come, unless the agent is to end.
  std::chrono::milliseconds hold{0};
  bool wanted = true;  // the set that is applied
};
FakeSnmp &TheFakeSnmp();

// The MIB has these, all below enterprises.4891.99: exampleCount (integer), exampleName and
// exampleRole (display strings), exampleDate (octets), and rowSize, rowLabel (columns).

}  // namespace vex

#endif
