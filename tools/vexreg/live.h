// vexreg watch on a terminal.
#ifndef VEX_TOOLS_VEXREG_LIVE_H
#define VEX_TOOLS_VEXREG_LIVE_H

#include <vector>

#include "tools/vexreg/commands.h"
#include "tools/vexreg/signals.h"

namespace vex {

// Keeps a view of the whole screen until the reader or a signal ends it. objects: what the
// selection stands for at the start.
void ShowLive(const Selection &selection, const View &view, const std::vector<NamedObject> &objects,
              const ViewSignals &signals);

}  // namespace vex

#endif
