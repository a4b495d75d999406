// Where EVs are found: a raw file by its name, and UEFI variables.
#ifndef VEX_HARDWARE_QVEV_PATHS_H
#define VEX_HARDWARE_QVEV_PATHS_H

namespace vex {

inline constexpr char kRawEvDirectory[] = "/var/lib/quorix/ev";
inline constexpr char kUefiVariableDirectory[] = "/sys/firmware/efi/efivars";

}  // namespace vex

#endif
