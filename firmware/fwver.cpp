#include "firmware/fwver.h"

#include <glob.h>
#include <stdlib.h>
#include <string.h>

#include "common/group.h"
#include "common/next_index.h"
#include "common/row_table.h"
#include "common/sources.h"
#include "common/util.h"
#include "firmware/controller.h"
#include "firmware/powerpic.h"
#include "firmware/proc_drivers.h"
#include "firmware/programmable_logic.h"
#include "firmware/system_rom.h"
#include "platform/framework.h"

// ---- Variables ----------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoFwVerIndex", firmware_record, index),
    READ_ONLY("tlxHoFwVerCategory", firmware_record, category),
    READ_ONLY("tlxHoFwVerDeviceType", firmware_record, device_type),
    READ_ONLY("tlxHoFwVerDisplayName", firmware_record, display_name),
    READ_ONLY("tlxHoFwVerVersion", firmware_record, version),
    READ_ONLY("tlxHoFwVerLocation", firmware_record, location),
    READ_ONLY("tlxHoFwVerXmlString", firmware_record, xml),
    READ_ONLY("tlxHoFwVerKeyString", firmware_record, key),
    READ_ONLY("tlxHoFwVerUpdateMethod", firmware_record, update_method),
};

constexpr group fwver_group = described<firmware_record>({
    .name = "fwver",
    .title = "firmware",
    .flag = 1,
    .variables = variables,
    .refresh = do_fwver,
    .each_poll = false,
    .absence = "no poll has found any firmware yet",
});

// ---- State --------------------------------------------------------------------------------------

// Collectors in the order in which they are called. A name that begins with "/" is a pattern: each
// file that matches is read, and its row is named by the path without prefix and suffix.
struct collector_entry {
  const char *name;
  size_t prefix;
  size_t suffix;
  firmware_collector collect;
  uint32_t key;  // tells whose rows are whose
  int divisor;   // called on the first pass and then on every divisor-th
  int counter;
};

static collector_entry collectors[] = {
    {"System Rom", 0, 0, collect_system_rom, 0xdead1, 1, 0},
    {"System Management Chip", 0, 0, collect_integrated_controller, 0xdead2, 1, 0},
    {"Remote Management Card", 0, 0, collect_remote_card, 0xdead3, 1, 0},
    {array_files, 22, 0, collect_ida, 0xdead4, 1, 0},
    {raid_files, 19, 0, collect_cciss, 0xdead5, 1, 0},
    {fibre_channel_files, 11, 0, collect_fibre_channel, 0xdead6, 1, 0},
    {scsi_device_list, 0, 0, collect_scsi_device, 0xdead7, 1, 0},
    {ide_files, 10, 9, collect_ide_drive, 0xdead8, 1, 0},
    {network_adapter_files, 18, 5, collect_network_adapter, 0xdead9, 1, 0},
    {"PowerPIC", 0, 0, collect_powerpic, 0xdeada, 1, 0},
    {"Servala KX770 R7 SPI Board PAL", 0, 0, collect_programmable_logic, 0xdeadb, 1, 0},
    {"Servala KX770 R7 Main I/O PAL", 0, 0, collect_programmable_logic, 0xdeadc, 1, 0},
    {"Servala KX770 R7 Upper CPU PAL", 0, 0, collect_programmable_logic, 0xdeadd, 1, 0},
    {"Servala KX770 R7 Lower CPU PAL", 0, 0, collect_programmable_logic, 0xdeade, 1, 0},
    {"Servala KX770 R7 Upper ZRB", 0, 0, collect_programmable_logic, 0xdeadf, 1, 0},
    {"Servala KX770 R7 Lower ZRB", 0, 0, collect_programmable_logic, 0xdead10, 1, 0},
    {"Servala KX770 R7 ZRB Upper FPGA", 0, 0, collect_programmable_logic, 0xdead11, 1, 0},
    {"Servala KX770 R7 ZRB Lower FPGA", 0, 0, collect_programmable_logic, 0xdead12, 1, 0},
    {"Servala KX770 R7 SFF PCIe Board PAL", 0, 0, collect_programmable_logic, 0xdead13, 1, 0},
    {"Servala KX770 R7 Standard PCIe Board PAL", 0, 0, collect_programmable_logic, 0xdead14, 1, 0},
    {"Servala KX770 R7 Combo PCIe & PCI-X Board PAL", 0, 0, collect_programmable_logic, 0xdead15, 1,
     0},
};
static_assert(sizeof(collectors) / sizeof(*collectors) == 21);

struct fwver_row {
  char *name;       // owned; collectors' results are matched to rows by it
  int32_t seen;     // 1: produced by its collector in this pass
  int32_t changed;  // 1: differs from what was last published
  uint32_t collector_key;
  registry_object *object;
};

static row_table<fwver_row, &fwver_row::object, &fwver_row::name> table;

// ---- Rows ---------------------------------------------------------------------------------------

static void release(fwver_row *row) {
  free(row->name);
  free(row);
}

// A new row with its object in the table; null when something failed. An object whose row cannot be
// inserted stays in the registry, unpublished.
static fwver_row *insert_row(const char *name, int index) {
  auto *row = static_cast<fwver_row *>(calloc(1, sizeof(fwver_row)));
  if (row == nullptr) {
    return nullptr;
  }
  row->name = strdup(name);
  if (row->name == nullptr) {
    release(row);
    return nullptr;
  }
  row->object = create_or_take_row(fwver_group, index);
  if (row->object == nullptr || !table.insert(row)) {
    release(row);
    return nullptr;
  }
  return row;
}

static fwver_row *create(const char *name, const firmware_record *record) {
  const int index = table.free_index();
  fwver_row *row = insert_row(name, index);
  if (row == nullptr) {
    agentlog_fprintf(stderr, "%s: Can't %s object: %s  (PEER3023)\n", "vexhostd", "create",
                     printable(name).text);
    return nullptr;
  }
  auto *data = reinterpret_cast<firmware_record *>(row->object->data);
  *data = *record;
  data->index = static_cast<uint32_t>(index);
  // The software table's next index is this table's too; managers know it so.
  set_next_index(table.free_index());
  row->changed = 1;
  return row;
}

// Takes over a collector's record, whose index is always 0. The index takes part: at its first
// update a row reads 0 in its index column. Rows are told apart by their objects' numbers.
static void update_row(const char *name, uint32_t collector_key, const firmware_record *record) {
  fwver_row *row = table.find(name);
  if (row == nullptr) {
    row = create(name, record);
    if (row == nullptr) {
      return;
    }
  } else {
    if (memcmp(row->object->data, record, sizeof(*record)) != 0) {
      row->changed = 1;
    }
    memcpy(row->object->data, record, sizeof(*record));
  }
  row->seen = 1;
  row->collector_key = collector_key;
}

queue_element *first_firmware() {
  return table.rows.head;
}

bool next_firmware(queue_element **cursor, firmware_view *view) {
  const fwver_row *row = table.next(cursor);
  if (row == nullptr) {
    return false;
  }
  view->instance = row->object->instance;
  view->record = reinterpret_cast<const firmware_record *>(row->object->data);
  return true;
}

static void forget_seen(uint32_t collector_key) {
  queue_element *cursor = table.rows.head;
  while (fwver_row *row = table.next(&cursor)) {
    if (row->collector_key == collector_key) {
      row->seen = 0;
    }
  }
}

// ---- Collecting ---------------------------------------------------------------------------------

size_t row_name_of(char (&buffer)[longest_row_name + 1], const char *path, size_t prefix,
                   size_t suffix) {
  size_t length = strlen(path);
  const size_t cut = prefix < length ? prefix : length;
  path += cut;
  length -= cut;
  if (suffix <= length) {
    length -= suffix;
  }
  if (length > longest_row_name) {
    length = longest_row_name;
  }
  memcpy(buffer, path, length);
  buffer[length] = '\0';
  return length;
}

static void collect_fixed(const collector_entry &entry) {
  firmware_record record = {};
  int more = 0;
  if (entry.collect(nullptr, entry.name, &record, &more) == 0) {
    update_row(entry.name, entry.key, &record);
  }
}

// All records of one file: the first has the file's row name, the others a number after it.
static void collect_file(const collector_entry &entry, const char *path) {
  const stream_handle stream(fopen(path, "re"));
  if (!stream) {
    return;
  }
  char name[longest_row_name + 1];
  const size_t base = row_name_of(name, path, entry.prefix, entry.suffix);
  int more = 0;
  for (int number = 1;; number++) {
    firmware_record record = {};
    if (entry.collect(stream.get(), name, &record, &more) == 0) {
      update_row(name, entry.key, &record);
    }
    if (feof(stream.get()) != 0 || (more & 1) == 0) {
      return;
    }
    snprintf(name + base, sizeof(name) - base, "%d", number);
  }
}

static void collect_pattern(const collector_entry &entry) {
  glob_t matches = {};
  if (glob(entry.name, 0, nullptr, &matches) == 0) {
    for (size_t i = 0; i < matches.gl_pathc; i++) {
      collect_file(entry, matches.gl_pathv[i]);
    }
    globfree(&matches);
  }
}

bool is_due(int *counter, int divisor) {
  if (*counter < divisor) {
    ++*counter;
    return *counter == 1;
  }
  *counter = 1;
  return true;
}

// ---- Publishing ---------------------------------------------------------------------------------

static void publish_changed() {
  queue_element *cursor = table.rows.head;
  while (fwver_row *row = table.next(&cursor)) {
    if (row->changed == 1 && row->seen == 1) {
      row->changed = log_data(row->object) != 0;  // else the next pass publishes it
    }
  }
}

static void remove_unseen() {
  queue_element *cursor = table.rows.head;
  while (fwver_row *row = table.next(&cursor)) {
    if (row->seen == 0 && table.remove(row) != nullptr) {
      // An object that cannot be deleted stays in the registry; its row is gone either way.
      delete_obj(&obj_Q, row->object, 0);
      release(row);
    }
  }
}

// ---- Entry point --------------------------------------------------------------------------------

int do_fwver() {
  for (collector_entry &entry : collectors) {
    if (agent_ending() != 0) {
      return 0;
    }
    if (!is_due(&entry.counter, entry.divisor)) {
      continue;
    }
    forget_seen(entry.key);
    if (entry.name[0] == '/') {
      collect_pattern(entry);
    } else {
      collect_fixed(entry);
    }
  }
  publish_changed();
  remove_unseen();
  return 0;
}
