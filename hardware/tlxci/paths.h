// Where a management controller is found.
#ifndef VEX_HARDWARE_TLXCI_PATHS_H
#define VEX_HARDWARE_TLXCI_PATHS_H

namespace vex {

inline constexpr char kControllerSocket[] = "/run/quorix/tlxci.sock";  // integrated
inline constexpr char kControllerCard[] = "/dev/tlxrmc0";              // remote card

}  // namespace vex

#endif
