#include "common/variables.h"

#include <stdio.h>
#include <string.h>

#include "common/util.h"

// ---- State --------------------------------------------------------------------------------------

// An object with something to make up for. The name tells whether it is still the object of that
// address.
struct repair {
  registry_object *object;  // null: a free place
  const variable *table;    // null: only to be published
  int count;
  char name[128];
};

// Without allocation: it is needed when there is no memory.
static constexpr int most_repairs = 256;
static repair repairs[most_repairs];

// ---- Repairs ------------------------------------------------------------------------------------

static repair *place_for(const registry_object *object) {
  repair *unused = nullptr;
  for (repair &r : repairs) {
    if (r.object == object && strcmp(r.name, object->name) == 0) {
      return &r;
    }
    if (r.object == nullptr && unused == nullptr) {
      unused = &r;
    }
  }
  return unused;
}

static void remember(registry_object *object, const variable *table, int count) {
  repair *place = place_for(object);
  if (place == nullptr || strlen(object->name) >= sizeof(place->name)) {
    agentlog_fprintf(stderr, "%s: Object stays incomplete until the next start: %s\n", agent,
                     object->name);
    return;
  }
  place->object = object;
  copy_field(place->name, object->name);
  if (table != nullptr) {
    agentlog_fprintf(stderr, "%s: Object is incomplete until the next poll: %s\n", agent,
                     object->name);
    place->table = table;
    place->count = count;
  }
}

// Defines the slots that are not yet. False when one of them still cannot be.
static bool define_missing(registry_object *object, const variable *table, int count) {
  bool whole = true;
  for (int slot = 0; slot < count; slot++) {
    const variable &v = table[slot];
    if (object->desc[slot].type == 0 &&
        init_info(slot, &object->desc[slot], v.name, v.size, v.type, v.access, 1,
                  object->data + v.offset, v.set_handler) != 0) {
      whole = false;
    }
  }
  return whole;
}

void define_variables(registry_object *object, const variable_table &table) {
  if (!define_missing(object, table.first, table.count)) {
    remember(object, table.first, table.count);
  }
}

void publish_once(registry_object *object) {
  if (log_data(object) != 0) {
    remember(object, nullptr, 0);
  }
}

void repair_objects() {
  for (repair &r : repairs) {
    if (r.object == nullptr) {
      continue;
    }
    const bool alive = find_obj(&obj_Q, 0, r.name) == r.object;
    if (alive && (!define_missing(r.object, r.table, r.count) || log_data(r.object) != 0)) {
      continue;
    }
    r = {};
  }
}
