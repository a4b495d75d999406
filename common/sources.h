// Names of what the agent reads that a tool which explains the agent looks at as well. Nothing but
// constants: tools include this and no group's header.
#ifndef VEX_COMMON_SOURCES_H
#define VEX_COMMON_SOURCES_H

#include <stdint.h>

inline constexpr char mount_table_path[] = "/etc/mtab";
inline constexpr char memory_sizes_path[] = "/proc/meminfo";
inline constexpr char processor_times_path[] = "/proc/stat";

// dpkg writes to it whenever packages come or go; with another modification time the packages are
// read again.
inline constexpr char package_database_path[] = "/var/lib/dpkg/available";

// The class of the hardware platform.
inline constexpr char platform_ev[] = "ZTHRN4";
inline constexpr uint32_t platform_ev_size = 5;  // a shorter one is taken as absent

// The versions of the maker's utilities, which their installers maintain.
inline constexpr char version_ev[] = "ZTHUV";
inline constexpr uint32_t version_ev_size = 136;  // what a shorter one lacks counts as zero

// The GUID that the generator gives where there is no eth0: the same on every such host.
inline constexpr unsigned char guid_without_eth0[16] = {
    0x58, 0x14, 0x2D, 0xA9, 0x53, 0xCD, 0x34, 0x5B, 0x33, 0x85, 0xC5, 0x44, 0xA4, 0xDC, 0x7A, 0xFD};

#endif
