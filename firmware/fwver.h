// The table of firmware versions: what its collectors fill, and the pass that calls them.
#ifndef VEX_FIRMWARE_FWVER_H
#define VEX_FIRMWARE_FWVER_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "common/group.h"

extern const group fwver_group;

// The data block of a row.
struct [[gnu::packed]] firmware_record {
  uint32_t index;
  int32_t category;
  int32_t device_type;
  char display_name[129];
  char version[33];
  char location[257];
  char xml[257];
  char key[129];
  uint8_t pad[3];
  int32_t update_method;
};
static_assert(sizeof(firmware_record) == 824);
static_assert(offsetof(firmware_record, display_name) == 12);
static_assert(offsetof(firmware_record, version) == 141);
static_assert(offsetof(firmware_record, location) == 174);
static_assert(offsetof(firmware_record, xml) == 431);
static_assert(offsetof(firmware_record, key) == 688);
static_assert(offsetof(firmware_record, update_method) == 820);

// What most collectors give as update method.
inline constexpr int32_t usual_update_method = 3;
inline constexpr char system_board[] = "System Board";

// Reads one firmware item.
// stream  the matched file of a pattern, where the call before left it; null for a fixed item.
// name    the row's name; for a fixed item the entry's.
// record  zeroed; the collector leaves the index alone.
// more    bit 0 set by the collector: the stream holds a further record.
// Returns 0 when the record is valid; any other value means that there is no row.
using firmware_collector = int (*)(FILE *stream, const char *name, firmware_record *record,
                                   int *more);

// Calls every collector that is due, and publishes what changed. Returns 0.
int do_fwver();

// What the last pass has of one row.
struct firmware_view {
  int instance;                   // of the row
  const firmware_record *record;  // the group's; until the next pass
};

// Walks the rows in the order of their numbers: start with *cursor = first_firmware(). False at the
// end. No pass may come in between.
queue_element *first_firmware();
bool next_firmware(queue_element **cursor, firmware_view *view);

// ---- Pieces of the pass, for its tests ----------------------------------------------------------

inline constexpr size_t longest_row_name = 256;

// Builds the name of a matched file's row: the path without its first `prefix` and its last
// `suffix` characters. Of a path that is shorter than both together, what follows the prefix is
// left. Returns the name's length.
size_t row_name_of(char (&buffer)[longest_row_name + 1], const char *path, size_t prefix,
                   size_t suffix);

// Whether a collector's turn has come: on the first pass and then on every divisor-th. counter is
// its own, 0 at first.
bool is_due(int *counter, int divisor);

#endif
