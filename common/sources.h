// Names of what the agent reads and writes that a tool which explains the agent looks at as well.
// Nothing but constants: tools include this and no group's header.
#ifndef VEX_COMMON_SOURCES_H
#define VEX_COMMON_SOURCES_H

#include <stdint.h>

// The directory of the agent's objects, below REGISTRY_ROOT, and what their names begin with.
inline constexpr char host_directory[] = "host";
inline constexpr char host_objects[] = "host/";

inline constexpr char mount_table_path[] = "/etc/mtab";
inline constexpr int mount_line_size = 4096;  // what a line has beyond that is passed over
inline constexpr char memory_sizes_path[] = "/proc/meminfo";
inline constexpr char processor_times_path[] = "/proc/stat";
inline constexpr char processors_path[] = "/proc/cpuinfo";
inline constexpr char load_averages_path[] = "/proc/loadavg";
inline constexpr char uptime_path[] = "/proc/uptime";

// Mounts of these types are not asked and have no row.
inline constexpr const char *ignored_mount_types[] = {"nfs", "smb", "mvfs"};

inline constexpr char vmfs_directory[] = "/vmfs";
inline constexpr char vmfs_volume_tool[] = "/usr/sbin/vmkfstools";  // -l, with a volume's path

// What drivers say of their devices.
inline constexpr char array_files[] = "/proc/driver/tlxarray/ida*";
inline constexpr char raid_files[] = "/proc/driver/cciss/cciss*";
inline constexpr char fibre_channel_files[] = "/proc/scsi/qla*/[0-9][0-9]*";
inline constexpr char scsi_device_list[] = "/proc/scsi/scsi";
inline constexpr char ide_files[] = "/proc/ide/ide*/hd*/identify";
inline constexpr char network_adapter_files[] = "/proc/net/nicinfo/eth*.info";

// The segment of the program that manages RAID devices has the key of this path and number.
inline constexpr char raid_key_path[] = "/opt/qv";
inline constexpr int raid_key_project = 10745;
inline constexpr uint32_t raid_segment_size = 222;

// The kernel's configuration, behind whose name its release stands.
inline constexpr char kernel_configuration_prefix[] = "/boot/config-";

// The package has dpkg touch it after each run. With a newer modification time than at the poll
// before, the packages are read again.
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
