// What a group is: the record by which it describes itself, and how its objects are made and found.
// Everything that lists groups is made from these records or compared with them
// (docs/adding-a-group.md).
#ifndef VEX_COMMON_GROUP_H
#define VEX_COMMON_GROUP_H

#include <stddef.h>

#include "common/kept_file.h"
#include "common/variables.h"
#include "platform/framework.h"

// A group: an object host/NAME, or a table of rows host/NAME.0, host/NAME.1 and so on.
struct group {
  const char *name;   // of its object; of its rows, before the dot
  const char *title;  // what the log calls it
  int flag;           // for create_obj(); of a new group 1 for a table, 0 for an object
  variable_table variables;
  // Builds the group at the first call and refreshes it at later ones. Returns 0, or -1 on failure.
  // Null when another group's does it.
  int (*refresh)();
  const group *along = nullptr;  // another one that the same calls build and refresh
  bool each_poll;                // published at every poll; else when something has changed
  // The files in which the group keeps what managers set, up to a null; null when there are none.
  const kept_file *const *kept = nullptr;
  // For people: how a machine can do without the group while all is well. Null when none can.
  const char *absence;
  int data_size = 0;  // bytes of its data block; described() sets it
};

// Never a constant, so whoever calls it in one does not compile.
int a_variable_does_not_lie_in_the_data_block();

// A group's record, complete with the size of its data block. Does not compile when a variable lies
// outside.
template <typename Block>
constexpr group described(group record) {
  for (int slot = 0; slot < record.variables.count; slot++) {
    const variable &v = record.variables.first[slot];
    if (v.offset + static_cast<size_t>(v.size) > sizeof(Block)) {
      a_variable_does_not_lie_in_the_data_block();
    }
  }
  record.data_size = sizeof(Block);
  return record;
}

// True at a group's first call, false at its later ones. `called` is the group's own, false before.
// For groups without whose object the agent does not start: what the first call could not make, no
// later one makes. Any other group takes find_or_create_object().
inline bool first_call(bool *called) {
  const bool first = !*called;
  *called = true;
  return first;
}

// Creates the group's object, or its row of that number, with its variables defined and its data
// block zeroed; nothing is published yet. Returns it (owned by the framework), or null as
// create_obj() does. Agent thread, as what follows.
registry_object *create_object(const group &g);
registry_object *create_row(const group &g, int number);

// The row, also one that is there already: where a row's place in its table could not be had, its
// object stays, unpublished, and a later pass takes it. Null without memory.
registry_object *create_or_take_row(const group &g, int number);

// The same as create_object() with no variable defined: for a group that may never have a value.
registry_object *create_undefined_object(const group &g);

// Finds the live object of the group, or its row of that number. Null when there is none.
registry_object *find_object(const group &g);
registry_object *find_row(const group &g, int number);

// The live object of the group, made when there is none: what could not be made at the start is
// made by a poll. Null when it cannot be made now either.
registry_object *find_or_create_object(const group &g);

// Logs that an entry point could not create its object (at the first call) or did not find it.
void report_no_object(const char *entry_point, bool first);

#endif
