#include "detail/swkind.h"

#include <stddef.h>

#include "common/util.h"
#include "detail/beside.h"
#include "software/swver.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] swkind_block {
  char name[128];
  int32_t kind;  // enum swver_type
};
static_assert(offsetof(swkind_block, kind) == 128);
static_assert(sizeof(swkind_block) == 132);

// ---- Variables ----------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoSwKindName", swkind_block, name),
    READ_ONLY("tlxHoSwKind", swkind_block, kind),
};

constexpr group swkind_group = described<swkind_block>({
    .name = "swkind",
    .title = "software kind",
    .flag = 1,
    .variables = variables,
    .refresh = do_swkind,
    .each_poll = false,
    .absence = nullptr,
});

// ---- State --------------------------------------------------------------------------------------

static beside_table table = {&swkind_group, nullptr, 0};

// ---- Entry point --------------------------------------------------------------------------------

int do_swkind() {
  int result = 0;
  begin_beside(&table);
  queue_element *cursor = swver_first();
  while (const swver_row *row = swver_next(&cursor)) {
    swkind_block block = {};
    copy_field(block.name, row->key);
    block.kind = row->judged;
    if (put_beside(&table, row->object->instance, &block) != 0) {
      result = -1;
    }
  }
  end_beside(&table);
  return result;
}
