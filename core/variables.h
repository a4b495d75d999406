// Defining a group's variables from its table: one table per group, in slot order.
#ifndef VEX_CORE_VARIABLES_H
#define VEX_CORE_VARIABLES_H

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

// Calls init_info() for every slot of the object in order.
template <size_t N>
void define_variables(registry_object *object, const variable (&table)[N]) {
  for (size_t slot = 0; slot < N; slot++) {
    const variable &v = table[slot];
    init_info(static_cast<int>(slot), &object->desc[slot], v.name, v.size, v.type, v.access, 1,
              object->data + v.offset, v.set_handler);
  }
}

#endif
