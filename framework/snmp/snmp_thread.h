// The SNMP side, which makes every call into net-snmp's libraries: a process behind a relay thread,
// or, where there is none, a thread of the agent. These functions are its face to the agent thread.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_THREAD_H
#define VEX_FRAMEWORK_SNMP_SNMP_THREAD_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "framework/registry/image.h"
#include "framework/snmp/query_patience.h"

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
// and connects to the master in the background. Waits until the configuration is read and, where
// there is an SNMP process, that one serves: a minute at most, or until the agent is ending. 0, or
// -1, which is logged and lets SnmpFailed() say so unless the agent is ending.
int SnmpStart(const char *application, SnmpSettings *settings);
// Closes the AgentX session and joins the thread, in well under a second whatever the master does;
// harmless when it was never started. False when the thread hangs in a library: it is left behind,
// and the process must end without running what is registered for its exit.
bool SnmpStop();
// After SnmpStop(): what was notified and nobody took, oldest first, the newest 256; once. Nothing
// when that cannot be told: the thread hangs or has failed. Throws std::bad_alloc; call again.
std::optional<std::vector<Notification>> SnmpUnsent();
bool SnmpRunning();
// Before SnmpStart(): registers behind an agent that serves the same groups, and so answers only
// while that one is not there.
void SnmpStandBehind();
// Whether the master has taken all registrations. Any thread.
bool SnmpUp();
// Whether there is no SNMP side though there should be: it could not be started, or has ended (the
// agent thread's SetChannelFd() then becomes readable). Any thread.
bool SnmpFailed();

// Calls tick on the relay or SNMP thread about every interval_ms milliseconds (null: never); it
// must not block. Before or after SnmpStart().
void SnmpSetTick(void (*tick)(), int interval_ms);

// Whether sets are accepted at all (the default); while not, every variable is notWritable.
void SnmpEnableSets(bool enabled);

// Hands over a new image of an object, replacing the one before; every read that arrives after the
// return sees it. Never waits for the thread's work. Before SnmpStart() images are kept. Throws
// std::bad_alloc, and has then changed nothing.
void SnmpPublish(std::shared_ptr<const Image> image);
void SnmpWithdraw(uint64_t object_id) noexcept;

// Kept (the newest 256) until the session is up; any order of arrival is the order of sending.
// Throws std::bad_alloc.
void SnmpNotify(Notification notification);
// The same for what is older than everything that waits, in its order: all or, with std::bad_alloc,
// none of them.
void SnmpNotifyOlder(std::vector<Notification> notifications);
// Whether the master has answered for everything that was notified. Any thread.
bool SnmpNothingWaiting();

struct SnmpAnswer {
  QueryEnd end = QueryEnd::kNotAsked;
  std::optional<int32_t> value;
  int status = 0;  // error-status of an answer
};
// One SNMPv2c GET of an integer at address:161, made by the SNMP side while the caller waits that
// long at most, and not on when the agent is ending. oid: as get_one_snmp_integer_from_api().
// Throws std::bad_alloc.
SnmpAnswer SnmpQueryInteger(const std::string &address, const std::string &community,
                            const char *oid, std::chrono::nanoseconds patience);
// Whether the last query that ended as silent has been answered since, within the full patience;
// said once.
bool SnmpAnsweredLate();

}  // namespace vex

#endif
