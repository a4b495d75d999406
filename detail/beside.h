// Tables whose rows stand beside those of another table, with their numbers.
#ifndef VEX_DETAIL_BESIDE_H
#define VEX_DETAIL_BESIDE_H

#include <stddef.h>

#include "common/group.h"

struct beside_row {
  registry_object *object;  // null: there is no row of this number
  bool published;
  bool seen;  // by this pass
};

// One of each group; the rows are made by the functions below and last as long as the process.
struct beside_table {
  const group *of;
  beside_row *rows;
  size_t room;
};

// A pass over the other table: begin, a call for each of its rows, end. Agent thread.
void begin_beside(beside_table *table);

// The row of this number exists and says what the data block says, which is as large as the
// group's; published when it is new, has changed or could not be published before. Returns 0, or -1
// when it cannot be made, and the next pass tries again.
int put_beside(beside_table *table, int number, const void *block);

// The row of this number stays as it is, if there is one. Returns 0, or -1 without memory.
int keep_beside(beside_table *table, int number);

// Removes the rows that this pass has not named. One that cannot be removed stays for the next
// pass.
void end_beside(beside_table *table);

#endif
