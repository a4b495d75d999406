#include "common/next_index.h"

#include <string.h>

static registry_object *keeper;  // null while it does not exist
static size_t place;             // in its data block

void keep_next_index_in(registry_object *object, size_t offset) {
  keeper = object;
  place = offset;
}

int set_next_index(int32_t index) {
  if (keeper == nullptr) {
    return -1;
  }
  memcpy(keeper->data + place, &index, sizeof(index));
  return log_data(keeper);
}

int32_t next_index() {
  int32_t index = 0;
  if (keeper != nullptr) {
    memcpy(&index, keeper->data + place, sizeof(index));
  }
  return index;
}
