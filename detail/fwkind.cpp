#include "detail/fwkind.h"

#include <stddef.h>

#include "common/util.h"
#include "detail/beside.h"
#include "firmware/fwver.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] fwkind_block {
  char name[129];
  char location[257];
  uint8_t pad[2];
  int32_t owner;   // the record's category
  int32_t device;  // enum device_kind
};
static_assert(offsetof(fwkind_block, owner) == 388);
static_assert(sizeof(fwkind_block) == 396);

// ---- Variables ----------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoFwKindName", fwkind_block, name),
    READ_ONLY("tlxHoFwKindLocation", fwkind_block, location),
    READ_ONLY("tlxHoFwKindOwner", fwkind_block, owner),
    READ_ONLY("tlxHoFwKindDevice", fwkind_block, device),
};

constexpr group fwkind_group = described<fwkind_block>({
    .name = "fwkind",
    .title = "firmware kind",
    .flag = 1,
    .variables = variables,
    .refresh = do_fwkind,
    .each_poll = false,
    .absence = "this machine has no source for it",
});

// ---- State --------------------------------------------------------------------------------------

enum device_kind : int32_t {
  OTHER_DEVICE = 1,
  SYSTEM_ROM = 2,
  PROGRAMMABLE_LOGIC = 3,
  MANAGEMENT_CONTROLLER = 4,
  POWER_MICROCONTROLLER = 5,
  NETWORK_ADAPTER = 6,
  ARRAY_CONTROLLER = 7,
  FIBRE_CHANNEL_ADAPTER = 8,
  SCSI_DISK = 9,
  SCSI_TAPE = 10,
  SCSI_MEDIUM_CHANGER = 11,
  SCSI_CDROM = 12,
  SCSI_COMMUNICATIONS = 13,
  SCSI_OTHER = 14,
  IDE_DRIVE = 15,
  IDE_REMOVABLE = 16,
};

struct known_device {
  int32_t category;
  int32_t device_type;
  device_kind kind;
};
static constexpr known_device known_devices[] = {
    {1, 25, POWER_MICROCONTROLLER},
    {2, 1, SCSI_OTHER},
    {2, 2, ARRAY_CONTROLLER},
    {2, 3, FIBRE_CHANNEL_ADAPTER},
    {2, 7, IDE_REMOVABLE},
    {2, 8, IDE_DRIVE},
    {2, 10, SCSI_DISK},
    {2, 11, SCSI_TAPE},
    {2, 12, SCSI_MEDIUM_CHANGER},
    {2, 23, SCSI_CDROM},
    {2, 24, SCSI_COMMUNICATIONS},
    {3, 24, NETWORK_ADAPTER},
    {4, 25, MANAGEMENT_CONTROLLER},
    {5, 23, SYSTEM_ROM},
    {5, 26, PROGRAMMABLE_LOGIC},
};

static beside_table table = {&fwkind_group, nullptr, 0};

// ---- Computing ----------------------------------------------------------------------------------

int32_t firmware_device(int32_t category, int32_t device_type) {
  for (const known_device &known : known_devices) {
    if (known.category == category && known.device_type == device_type) {
      return known.kind;
    }
  }
  return OTHER_DEVICE;
}

static fwkind_block block_of(const firmware_record &record) {
  fwkind_block block = {};
  static_assert(sizeof(block.name) == sizeof(record.display_name));
  static_assert(sizeof(block.location) == sizeof(record.location));
  copy_field(block.name, record.display_name);
  copy_field(block.location, record.location);
  block.owner = record.category;
  block.device = firmware_device(record.category, record.device_type);
  return block;
}

// ---- Entry point --------------------------------------------------------------------------------

int do_fwkind() {
  int result = 0;
  begin_beside(&table);
  firmware_view view;
  for (queue_element *cursor = first_firmware(); next_firmware(&cursor, &view);) {
    const fwkind_block block = block_of(*view.record);
    if (put_beside(&table, view.instance, &block) != 0) {
      result = -1;
    }
  }
  end_beside(&table);
  return result;
}
