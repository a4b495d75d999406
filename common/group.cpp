#include "common/group.h"

#include <stdio.h>

#include "common/sources.h"

static constexpr int no_number = -1;

// Room for the name of a group's object, as a path.
using object_name = char[sizeof(log_dir) + 32];

static void name_object(object_name &name, const char *directory, const group &g, int number) {
  if (number == no_number) {
    snprintf(name, sizeof(name), "%s/%s", directory, g.name);
  } else {
    snprintf(name, sizeof(name), "%s/%s.%d", directory, g.name, number);
  }
}

static registry_object *create(const group &g, int number) {
  object_name name;
  name_object(name, log_dir, g, number);
  return create_obj(&obj_Q, get_id(), name, g.flag, g.data_size, g.variables.count);
}

static registry_object *create_defined(const group &g, int number) {
  registry_object *object = create(g, number);
  if (object != nullptr) {
    define_variables(object, g.variables);
  }
  return object;
}

static registry_object *find(const group &g, int number) {
  object_name name;
  name_object(name, host_directory, g, number);
  return find_obj(&obj_Q, 0, name);
}

registry_object *create_object(const group &g) {
  return create_defined(g, no_number);
}

registry_object *create_row(const group &g, int number) {
  return create_defined(g, number);
}

registry_object *create_or_take_row(const group &g, int number) {
  registry_object *object = create_row(g, number);
  return object != nullptr ? object : find_row(g, number);
}

registry_object *create_undefined_object(const group &g) {
  return create(g, no_number);
}

registry_object *find_object(const group &g) {
  return find(g, no_number);
}

registry_object *find_row(const group &g, int number) {
  return find(g, number);
}

registry_object *find_or_create_object(const group &g) {
  registry_object *object = find_object(g);
  return object != nullptr ? object : create_object(g);
}

void report_no_object(const char *entry_point, bool first) {
  agentlog_fprintf(stderr, "%s: %s returns NULL, return NOT_OK\n", entry_point,
                   first ? "do_init" : "find_obj");
}
