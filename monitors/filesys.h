// File-system table: one row per mounted file system, from the mount table and, on a VMware
// console, from vmkfstools and vdf.
#ifndef VEX_MONITORS_FILESYS_H
#define VEX_MONITORS_FILESYS_H

#include <stdint.h>
#include <stdio.h>

#include "common/group.h"
#include "platform/framework.h"

extern const group filesys_group;

struct filesys_row;

// One refresh of the whole table. Returns 0, or -1 when the mount table cannot be read. A row that
// cannot be created ends the process by a signal.
int do_filesys();

// Deletes a row, or all of them when row is null. Returns 0, or -1 when the row is not in the table
// or its object cannot be deleted.
int remove_filesys_rows(filesys_row *row);

// What the last pass has seen of one row. The texts are the group's and last until the next pass.
struct mount_view {
  int instance;  // of the row
  bool listed;   // false: the last pass has not seen it, and the rest says nothing
  const char *device;
  size_t device_length;
  const char *directory;
  const char *type;
  bool read_only;
  bool answers;
  bool failing;  // when it does not answer: it says so
};

// Walks the rows in the order of their numbers: start with *cursor = first_mount(). False at the
// end. No pass may come in between.
queue_element *first_mount();
bool next_mount(queue_element **cursor, mount_view *view);

// The published figures of a file system.
struct [[gnu::packed]] filesys_figures {
  int32_t space_total;  // megabytes (2^20 bytes)
  int32_t space_used;
  int32_t units_total;  // inodes
  int32_t units_used;
  int32_t percent_used;
};

// Figures from statvfs(3). Reserved blocks count as used; the percentage is rounded up. What does
// not fit is clamped to the nearest value.
filesys_figures figures_of_mount(const mount_stats &stats);

// Figures from a volume's capacity and available bytes. The percentage is rounded half up; of the
// megabytes the low 32 bits are kept.
filesys_figures figures_of_volume(uint64_t capacity, uint64_t available);

// Finds the bytes of capacity and available space in what vmkfstools prints; 0 when missing.
void parse_vmkfstools(FILE *output, uint64_t *capacity, uint64_t *available);

// Whether a directory entry may become part of a command line: nothing in it means anything to a
// shell.
bool is_plain_name(const char *name);

#endif
