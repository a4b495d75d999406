#include "detail/beside.h"

#include <string.h>

#include "common/util.h"

// The row's place, with room made for it; null without memory.
static beside_row *place_of(beside_table *table, int number) {
  const auto index = static_cast<size_t>(number);
  if (index >= table->room) {
    const size_t wanted = 2 * index + 64;
    if (!grow(&table->rows, wanted)) {
      return nullptr;
    }
    memset(table->rows + table->room, 0, (wanted - table->room) * sizeof(*table->rows));
    table->room = wanted;
  }
  return &table->rows[index];
}

void begin_beside(beside_table *table) {
  for (size_t i = 0; i < table->room; i++) {
    table->rows[i].seen = false;
  }
}

int keep_beside(beside_table *table, int number) {
  beside_row *row = place_of(table, number);
  if (row == nullptr) {
    return -1;
  }
  row->seen = true;
  return 0;
}

int put_beside(beside_table *table, int number, const void *block) {
  beside_row *row = place_of(table, number);
  if (row == nullptr) {
    return -1;
  }
  row->seen = true;
  if (row->object == nullptr) {
    row->object = create_row(*table->of, number);
    row->published = false;
  }
  if (row->object == nullptr) {
    return -1;
  }
  const auto size = static_cast<size_t>(table->of->data_size);
  if (row->published && memcmp(row->object->data, block, size) == 0) {
    return 0;
  }
  memcpy(row->object->data, block, size);
  row->published = log_data(row->object) == 0;
  return 0;
}

void end_beside(beside_table *table) {
  for (size_t i = 0; i < table->room; i++) {
    beside_row &row = table->rows[i];
    if (row.object != nullptr && !row.seen && delete_obj(&obj_Q, row.object, 0) == 0) {
      row.object = nullptr;
    }
  }
}
