// The SNMP thread: every call into net-snmp's libraries is made there. These functions are its face
// to the agent thread.
#ifndef VEX_FRAMEWORK_SNMP_SIDE_H
#define VEX_FRAMEWORK_SNMP_SIDE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "framework/image.h"

namespace vex {

// What the configuration files say, read once by SnmpStart().
struct SnmpSettings {
  int poll_interval = 0;  // token pollInterval, 0 when absent
  std::string community;  // "" when none: `community`, else defCommunity, else snmpd.conf
};

struct NotificationVariable {
  const MibVariable *mib;
  uint32_t instance;
  std::vector<uint8_t> value;  // an int32_t in host order, or the octets
};
struct Notification {
  uint32_t number = 0;
  std::vector<NotificationVariable> variables;
  std::string description;
};

// Starts the thread (all signals blocked in it), which reads the configuration for `application`
// and connects to the master in the background. Waits until the configuration is read. 0 or -1.
int SnmpStart(const char *application, SnmpSettings *settings);
// Closes the AgentX session and joins the thread; harmless when it was never started.
void SnmpStop();
// After SnmpStop(): what was notified and nobody took, oldest first, the newest 256; once.
std::vector<Notification> SnmpUnsent();
bool SnmpRunning();
// Before SnmpStart(): registers behind an agent that serves the same groups, and so answers only
// while that one is not there.
void SnmpStandBehind();
// Whether the master has taken all registrations. Any thread.
bool SnmpUp();

// Calls tick on the SNMP thread about every interval_ms milliseconds (null: never); it must not
// block. Before or after SnmpStart().
void SnmpSetTick(void (*tick)(), int interval_ms);

// Whether sets are accepted at all (the default); while not, every variable is notWritable.
void SnmpEnableSets(bool enabled);

// Hands over a new image of an object, replacing the one before; every read that arrives after the
// return sees it. Never waits for the thread's work. Before SnmpStart() images are kept.
void SnmpPublish(std::shared_ptr<const Image> image);
void SnmpWithdraw(uint64_t object_id);

// Kept (the newest 256) until the session is up; any order of arrival is the order of sending.
void SnmpNotify(Notification notification);

// One SNMPv2c GET of an integer at address:161, made by the SNMP thread while the caller waits, at
// most two seconds. oid: as get_one_snmp_integer_from_api(). 0 or -1.
int SnmpQueryInteger(const std::string &address, const std::string &community, const char *oid,
                     int32_t *value, int *status);

}  // namespace vex

#endif
