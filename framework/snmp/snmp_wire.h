// How the agent's process and that of its SNMP side tell each other what they have, by frames. What
// is taken is checked; nothing of it is believed that was not.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_WIRE_H
#define VEX_FRAMEWORK_SNMP_SNMP_WIRE_H

#include <vector>

#include "framework/registry/image.h"
#include "framework/snmp/frames.h"
#include "framework/snmp/master_finder.h"
#include "framework/snmp/set_channel.h"
#include "framework/snmp/snmp_thread.h"

namespace vex {

// All of them: Put throws std::bad_alloc, Take besides; Take returns false for what makes no sense.

struct Configured {
  SnmpSettings settings;
  MasterAddress master;
};
void Put(FrameWriter *frame, const Configured &configured);
bool Take(FrameReader *frame, Configured *configured);

void Put(FrameWriter *frame, const Notification &notification);
bool Take(FrameReader *frame, Notification *notification);

void Put(FrameWriter *frame, const std::vector<SetItem> &items);
bool Take(FrameReader *frame, std::vector<SetItem> *items);

// What became of a session (FrameType::kSession).
enum class SessionEvent : uint8_t { kOpen, kWelcome, kUp, kRefused, kEnded, kEndedRefused };

// Whether this is a set that the object's image lets anybody make: type, access and length, once
// more, from what the agent itself has published.
bool MaySet(const Image &image, const SetItem &item);

}  // namespace vex

#endif
