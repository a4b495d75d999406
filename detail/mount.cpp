#include "detail/mount.h"

#include <stddef.h>
#include <string.h>

#include "common/util.h"
#include "detail/beside.h"
#include "detail/truth.h"
#include "monitors/filesys.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] mount_block {
  char device[256];
  char directory[256];
  char type[64];
  int32_t read_only;  // true(1) or false(2)
  int32_t state;      // enum mount_state_value
};
static_assert(offsetof(mount_block, read_only) == 576);
static_assert(sizeof(mount_block) == 584);

// ---- Variables ----------------------------------------------------------------------------------

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

// ---- State --------------------------------------------------------------------------------------

enum mount_state_value : int32_t { ANSWERS = 1, FAILING = 2, SILENT = 3 };

static beside_table table = {&mount_group, nullptr, 0};

// ---- Computing ----------------------------------------------------------------------------------

// The length of the UTF-8 character (RFC 3629) that begins here; 0 when none does.
static size_t character_length(const char *text, size_t length) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) {
    return 1;
  }
  const size_t wanted = first < 0xC2   ? 0
                        : first < 0xE0 ? 2
                        : first < 0xF0 ? 3
                        : first < 0xF5 ? 4
                                       : 0;
  if (wanted == 0 || wanted > length) {
    return 0;
  }
  uint32_t number = first & (0x7F >> wanted);
  for (size_t i = 1; i < wanted; i++) {
    const auto octet = static_cast<unsigned char>(text[i]);
    if ((octet & 0xC0) != 0x80) {
      return 0;
    }
    number = number << 6 | (octet & 0x3F);
  }
  // Neither longer than it needs to be, nor a surrogate, nor beyond the last.
  const uint32_t least = wanted == 2 ? 0x80 : wanted == 3 ? 0x800 : 0x10000;
  const bool surrogate = number >= 0xD800 && number <= 0xDFFF;
  return number < least || number > 0x10FFFF || surrogate ? 0 : wanted;
}

// Copies a text as UTF-8 into an empty field: an octet of no character as '?', and no character in
// part. There are stations that refuse all of a host's values for one text that is no UTF-8.
template <size_t Size>
static void copy_characters(char (&field)[Size], const char *text, size_t length) {
  size_t used = 0;
  for (size_t at = 0; at < length;) {
    const size_t found = character_length(text + at, length - at);
    const size_t octets = found != 0 ? found : 1;
    if (used + octets > Size - 1) {
      return;
    }
    memcpy(field + used, found != 0 ? text + at : "?", octets);
    used += octets;
    at += octets;
  }
}

static mount_block block_of(const mount_view &view) {
  mount_block block = {};
  copy_characters(block.device, view.device, view.device_length);
  copy_characters(block.directory, view.directory, strlen(view.directory));
  copy_characters(block.type, view.type, strlen(view.type));
  block.read_only = truth_value(view.read_only);
  block.state = view.answers ? ANSWERS : view.failing ? FAILING : SILENT;
  return block;
}

// ---- Entry point --------------------------------------------------------------------------------

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
