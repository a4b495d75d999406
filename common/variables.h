// Defining a group's variables from its table: one table per group, in slot order. What could not
// be defined or published, for want of memory, is made up for by the next poll.
#ifndef VEX_COMMON_VARIABLES_H
#define VEX_COMMON_VARIABLES_H

#include <stddef.h>

#include "platform/framework.h"

// One variable of a group; the index in the table is the slot.
struct variable {
  const char *name;
  int size;
  int type;       // enum variable_type
  int access;     // enum variable_access
  size_t offset;  // of the value in the data block
  set_handler_fn set_handler;
};

// Calls init_info() for every slot of the object in order. The table must live as long as the
// process: slots that failed are defined, and the object published, by a later repair_objects().
void define_variables(registry_object *object, const variable *table, size_t count);

template <size_t N>
void define_variables(registry_object *object, const variable (&table)[N]) {
  define_variables(object, table, N);
}

// log_data() for an object that no later pass publishes again by itself: when it fails, a later
// repair_objects() does it.
void publish_once(registry_object *object);

// The end of every poll: tries again what failed above, for objects that are still alive.
void repair_objects();

#endif
