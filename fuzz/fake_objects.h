// The framework's objects in memory alone, for fuzzers of code that makes rows. Included once.
#ifndef VEX_FUZZ_FAKE_OBJECTS_H
#define VEX_FUZZ_FAKE_OBJECTS_H

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "fuzz/require.h"
#include "platform/framework.h"

char log_dir[80] = "/var/spool/quorix/kelmo/registry/host";
const char *agent = "fuzz";
queue obj_Q;
int32_t poll_time = 1;

namespace fake {

inline int live;  // objects that were created and not deleted

}  // namespace fake

extern "C" {

int get_id(void) {
  return 1;
}

registry_object *create_obj(queue *, int, const char *name, int, int data_size, int var_count) {
  auto *object = static_cast<registry_object *>(calloc(1, sizeof(registry_object)));
  object->name = strdup(name);
  object->data_size = data_size;
  object->var_count = var_count;
  object->data = static_cast<unsigned char *>(calloc(1, static_cast<size_t>(data_size)));
  object->desc =
      static_cast<descriptor *>(calloc(static_cast<size_t>(var_count), sizeof(descriptor)));
  const char *dot = strrchr(name, '.');
  object->instance = dot != nullptr ? atoi(dot + 1) : 0;
  fake::live++;
  return object;
}

int init_info(int slot, descriptor *desc, const char *name, int size, int type, int access, int,
              void *value, set_handler_fn handler) {
  desc->slot = slot;
  desc->name = name;
  desc->size = size;
  desc->type = type;
  desc->access = access;
  desc->value = value;
  desc->set_handler = handler;
  desc->length = static_cast<uint16_t>(size);
  return 0;
}

int log_data(registry_object *object) {
  for (int slot = 0; slot < object->var_count; slot++) {
    const descriptor &d = object->desc[slot];
    if (d.value == nullptr) {
      continue;
    }
    const auto *at = static_cast<const unsigned char *>(d.value);
    Require(at >= object->data && at + d.size <= object->data + object->data_size);
    Require(d.type != VAR_OCTET_STRING || d.length <= d.size);
  }
  return 0;
}

registry_object *find_obj(queue *, int, const char *) {
  return nullptr;
}

int agent_ending(void) {
  return 0;
}

int delete_obj(queue *, registry_object *object, int) {
  free(const_cast<char *>(object->name));
  free(object->data);
  free(object->desc);
  free(object);
  fake::live--;
  return 0;
}

// What is logged is one line that a terminal shows and does not act on.
int agentlog_fprintf(FILE *, const char *format, ...) {
  char text[16384];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  Require(length >= 0);
  for (const char *c = text; *c != '\0'; c++) {
    Require((*c >= ' ' || *c < 0 || (*c == '\n' && c[1] == '\0')) && *c != 0x7F);
  }
  return length;
}

}  // extern "C"

#endif
