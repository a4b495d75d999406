#include "detail/mount.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include "common/util.h"
#include "detail/truth.h"
#include "monitors/filesys.h"

// ---- Data block -----------------------------------------------------------------------------

struct [[gnu::packed]] mount_block {
  char device[256];
  char directory[256];
  char type[64];
  int32_t read_only;  // true(1) or false(2)
  int32_t state;      // enum mount_state_value
};
static_assert(offsetof(mount_block, read_only) == 576);
static_assert(sizeof(mount_block) == 584);

// ---- Variables ------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoMountDevice", mount_block, device),
    READ_ONLY("tlxHoMountDirectory", mount_block, directory),
    READ_ONLY("tlxHoMountType", mount_block, type),
    READ_ONLY("tlxHoMountReadOnly", mount_block, read_only),
    READ_ONLY("tlxHoMountState", mount_block, state),
};

constexpr group mount_group = described<mount_block>({
    .name = "mount",
    .title = "mount",
    .flag = 1,
    .variables = variables,
    .refresh = do_mount,
    .each_poll = false,
    .absence = nullptr,
});

// ---- State ----------------------------------------------------------------------------------

enum mount_state_value : int32_t { ANSWERS = 1, FAILING = 2, SILENT = 3 };

// A row for each of the file-system table's, at the place of its number.
struct mount_row {
  registry_object *object;  // null: there is no row of this number
  bool published;
  bool seen;  // by this pass
};
static mount_row *rows;
static size_t room;

// ---- Computing ------------------------------------------------------------------------------

static mount_block block_of(const mount_view &view) {
  mount_block block = {};
  const size_t longest = sizeof(block.device) - 1;
  const size_t length = view.device_length < longest ? view.device_length : longest;
  memcpy(block.device, view.device, length);
  copy_field(block.directory, view.directory);
  copy_field(block.type, view.type);
  block.read_only = truth_value(view.read_only);
  block.state = view.answers ? ANSWERS : view.failing ? FAILING : SILENT;
  return block;
}

// ---- Publishing -----------------------------------------------------------------------------

// Makes room for a row of this number. False when there is no memory.
static bool reserve(size_t number) {
  if (number < room) {
    return true;
  }
  const size_t wanted = 2 * number + 64;
  void *grown = realloc(rows, wanted * sizeof(*rows));
  if (grown == nullptr) {
    return false;
  }
  rows = static_cast<mount_row *>(grown);
  memset(rows + room, 0, (wanted - room) * sizeof(*rows));
  room = wanted;
  return true;
}

static int refresh(const mount_view &view) {
  if (!reserve(static_cast<size_t>(view.instance))) {
    return -1;
  }
  mount_row &row = rows[view.instance];
  row.seen = true;
  if (!view.listed) {
    return 0;  // as long as the file system's row stays, so does this one as it is
  }
  if (row.object == nullptr) {
    row.object = create_row(mount_group, view.instance);
    row.published = false;
  }
  if (row.object == nullptr) {
    return -1;
  }
  const mount_block block = block_of(view);
  if (row.published && memcmp(row.object->data, &block, sizeof(block)) == 0) {
    return 0;
  }
  memcpy(row.object->data, &block, sizeof(block));
  row.published = log_data(row.object) == 0;
  return 0;
}

// ---- Entry point ----------------------------------------------------------------------------

int do_mount() {
  int result = 0;
  for (size_t i = 0; i < room; i++) {
    rows[i].seen = false;
  }
  mount_view view;
  for (queue_element *cursor = first_mount(); next_mount(&cursor, &view);) {
    if (refresh(view) != 0) {
      result = -1;
    }
  }
  for (size_t i = 0; i < room; i++) {
    if (rows[i].object != nullptr && !rows[i].seen && delete_obj(&obj_Q, rows[i].object, 0) == 0) {
      rows[i].object = nullptr;
    }
  }
  return result;
}
