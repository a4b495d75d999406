// A room for a captured host: namespaces of its own, and a root of nothing but this machine's
// programs and what the capture has of the host.
#ifndef VEX_TOOLS_VEXREG_REPLAY_ROOM_H
#define VEX_TOOLS_VEXREG_REPLAY_ROOM_H

#include <functional>
#include <string>

#include "tools/vexreg/captured_host.h"

namespace vex {

struct RoomSettings {
  std::string agent;    // the program; its prefix can be read in the room
  std::string library;  // that answers for the host's kernel
  std::string card;     // a remote management card's version reply; empty: there is none
};

// Where things are in the room.
inline constexpr char kRoomDirectory[] = "/run/vexreg-replay";
inline constexpr char kRoomFacts[] = "/run/vexreg-replay/facts";
inline constexpr char kRoomCommands[] = "/run/vexreg-replay/bin";
inline constexpr char kRoomSnmp[] = "/run/vexreg-replay/snmp";

// Does the work as the first process of the room, which ends with it, and all that it started too.
// The exit status that the work returned; kFailed after a complaint. As root.
int DoInRoom(const Capture &capture, const RoomSettings &settings,
             const std::function<int()> &work);

}  // namespace vex

#endif
