#include "detail/mount.h"

#include <stddef.h>
#include <string.h>

#include "common/util.h"
#include "detail/beside.h"
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

static beside_table table = {&mount_group, nullptr, 0};

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

// ---- Entry point ----------------------------------------------------------------------------

static int refresh(const mount_view &view) {
  if (!view.listed) {
    // As long as the file system's row stays, so does this one as it is.
    return keep_beside(&table, view.instance);
  }
  const mount_block block = block_of(view);
  return put_beside(&table, view.instance, &block);
}

int do_mount() {
  int result = 0;
  begin_beside(&table);
  mount_view view;
  for (queue_element *cursor = first_mount(); next_mount(&cursor, &view);) {
    if (refresh(view) != 0) {
      result = -1;
    }
  }
  end_beside(&table);
  return result;
}
