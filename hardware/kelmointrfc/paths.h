// Where the kernel shows the SMBIOS tables.
#ifndef VEX_HARDWARE_KELMOINTRFC_PATHS_H
#define VEX_HARDWARE_KELMOINTRFC_PATHS_H

namespace vex {

inline constexpr char kSmbiosDirectory[] = "/sys/firmware/dmi/tables";
inline constexpr char kSmbiosEntryPoint[] = "/sys/firmware/dmi/tables/smbios_entry_point";
inline constexpr char kSmbiosTable[] = "/sys/firmware/dmi/tables/DMI";

}  // namespace vex

#endif
