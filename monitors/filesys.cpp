#include "monitors/filesys.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <mntent.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include "common/group.h"
#include "common/row_table.h"
#include "common/sources.h"
#include "common/util.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] filesys_block {
  int32_t index;
  char description[256];
  filesys_figures figures;
};
static_assert(offsetof(filesys_block, description) == 4);
static_assert(offsetof(filesys_block, figures) == 260);
static_assert(offsetof(filesys_figures, units_total) == 8);
static_assert(offsetof(filesys_figures, percent_used) == 16);
static_assert(sizeof(filesys_block) == 280);

// ---- Variables ----------------------------------------------------------------------------------

// The percentage comes before the allocation units here, and after them in the data block.
static constexpr variable variables[] = {
    READ_ONLY("tlxHoFileSysIndex", filesys_block, index),
    READ_ONLY("tlxHoFileSysDesc", filesys_block, description),
    READ_ONLY("tlxHoFileSysSpaceTotal", filesys_block, figures.space_total),
    READ_ONLY("tlxHoFileSysSpaceUsed", filesys_block, figures.space_used),
    READ_ONLY("tlxHoFileSysPercentSpaceUsed", filesys_block, figures.percent_used),
    READ_ONLY("tlxHoFileSysAllocUnitsTotal", filesys_block, figures.units_total),
    READ_ONLY("tlxHoFileSysAllocUnitsUsed", filesys_block, figures.units_used),
};

constexpr group filesys_group = described<filesys_block>({
    .name = "filesys",
    .title = "file systems",
    .flag = 1,
    .variables = variables,
    .refresh = do_filesys,
    .each_poll = false,
    .absence = "nothing is mounted that the table lists",
});

// ---- State --------------------------------------------------------------------------------------

static constexpr char vmfs_volumes_directory[] = "/vmfs/volumes";
static constexpr char vdf_command[] = "vdf | grep \"/vmfs/volumes\"";
static constexpr size_t command_size = 128;
// What all commands of one scan may take together, in milliseconds.
static constexpr int commands_limit = 10000;
static constexpr int vmware_period = 20;  // passes
static constexpr int mount_table_attempts = 3;

// Names of this length and longer are cut, to be published whole in one description.
static constexpr size_t long_name = 100;
static constexpr size_t cut_name = 96;  // and "..."

// Passes that a row outlives its last sighting: what a VMware scan listed may be missed by the next
// one.
enum countdown : uint8_t { LISTED_BY_MOUNT_TABLE = 1, LISTED_BY_VMWARE_SCAN = 40 };

struct filesys_row {
  registry_object *object;
  char *key;          // the mount directory; owned by the row
  uint8_t countdown;  // passes to live
  size_t entry;       // its place in the mount table as it was last read, or not_listed
  filesys_block published;
};

static constexpr size_t not_listed = SIZE_MAX;

static row_table<filesys_row, &filesys_row::object, &filesys_row::key> table;
static int vmware_phase;  // the scans run when it is 0

// ---- Reading: the mount table -------------------------------------------------------------------

// One entry of the mount table: where its texts begin in the list's.
struct mount_entry {
  size_t device;
  size_t directory;
  size_t type;
  bool read_only;
};

// The entries of one pass that get a row. Grows as needed and is kept for the next pass.
struct mount_list {
  char *texts;
  size_t texts_used;
  size_t texts_room;
  mount_entry *entries;
  const char **paths;
  mount_stats *stats;
  size_t count;
  size_t room;
};

static mount_list mounts;

// Adds at most mount_name_size - 1 bytes of a text. False when there is no memory.
static bool add_text(mount_list *list, const char *text, size_t *at) {
  const size_t length = strnlen(text, mount_name_size - 1);
  if (list->texts_room - list->texts_used <= length) {
    const size_t room = 2 * list->texts_room + mount_name_size;
    if (!grow(&list->texts, room)) {
      return false;
    }
    list->texts_room = room;
  }
  *at = list->texts_used;
  memcpy(list->texts + *at, text, length);
  list->texts[*at + length] = '\0';
  list->texts_used += length + 1;
  return true;
}

static bool add_entry(mount_list *list, const mntent &entry) {
  if (list->count == list->room) {
    const size_t room = 2 * list->room + 64;
    if (!grow(&list->entries, room) || !grow(&list->paths, room) || !grow(&list->stats, room)) {
      return false;
    }
    list->room = room;
  }
  mount_entry &added = list->entries[list->count];
  if (!add_text(list, entry.mnt_fsname, &added.device) ||
      !add_text(list, entry.mnt_dir, &added.directory) ||
      !add_text(list, entry.mnt_type, &added.type)) {
    return false;
  }
  added.read_only = hasmntopt(&entry, MNTOPT_RO) != nullptr;
  list->count++;
  return true;
}

static bool is_ignored(const char *type) {
  for (const char *ignored : ignored_mount_types) {
    if (strcmp(type, ignored) == 0) {
      return true;
    }
  }
  return false;
}

// 0, or -1 when there is no memory or the table cannot be read to its end (errno).
static int read_mount_table(FILE *file, mount_list *list) {
  list->count = 0;
  list->texts_used = 0;
  // getmntent() would find no mount ever again once it had no memory for its buffer.
  static char line[mount_line_size];
  mntent entry;
  while (getmntent_r(file, &entry, line, sizeof(line)) != nullptr) {
    if (!is_ignored(entry.mnt_type) && !add_entry(list, entry)) {
      return -1;
    }
  }
  if (ferror(file) != 0) {
    return -1;
  }
  for (size_t i = 0; i < list->count; i++) {
    list->paths[i] = list->texts + list->entries[i].directory;
  }
  return 0;
}

// ---- Reading: VMware's commands -----------------------------------------------------------------

void parse_vmkfstools(FILE *output, uint64_t *capacity, uint64_t *available) {
  unsigned long long bytes = 0;
  unsigned long long free_bytes = 0;
  char word[32];
  while (fscanf(output, "%31s", word) != EOF) {
    if (strcmp(word, "Capacity") == 0) {
      // What cannot be read stays 0.
      (void)!fscanf(output, "%llu %*[^,], %llu", &bytes, &free_bytes);
      break;
    }
  }
  *capacity = bytes;
  *available = free_bytes;
}

bool is_plain_name(const char *name) {
  for (; *name != '\0'; name++) {
    const auto c = static_cast<unsigned char>(*name);
    // Letters beyond ASCII mean nothing to a shell.
    if (c < 0x80 && isalnum(c) == 0 && strchr("._-:+,@%=", c) == nullptr) {
      return false;
    }
  }
  return true;
}

// ---- Computing ----------------------------------------------------------------------------------

// Blocks as megabytes, cut off.
static __int128 megabytes(uint64_t blocks, uint64_t block_size) {
  return static_cast<__int128>((static_cast<unsigned __int128>(blocks) * block_size) >> 20);
}

filesys_figures figures_of_mount(const mount_stats &stats) {
  filesys_figures figures = {};
  const __int128 blocks = stats.blocks;
  const __int128 taken = blocks - stats.bfree;
  if (stats.frsize != 0 && stats.blocks != 0) {
    // Total and free are cut off each for itself.
    const __int128 total = megabytes(stats.blocks, stats.frsize);
    figures.space_total = clamp_int32(total);
    figures.space_used = clamp_int32(total - megabytes(stats.bfree, stats.frsize));
  }
  if (figures.space_total != 0 && figures.space_used != 0 && taken > 0) {
    figures.percent_used = clamp_int32((100 * taken + blocks - 1) / blocks);
  }
  figures.units_total = clamp_int32(stats.files);
  if (stats.files != 0) {
    figures.units_used = clamp_int32(static_cast<__int128>(stats.files) - stats.ffree);
  }
  return figures;
}

filesys_figures figures_of_volume(uint64_t capacity, uint64_t available) {
  filesys_figures figures = {};
  figures.space_total = static_cast<int32_t>(static_cast<uint32_t>(capacity >> 20));
  figures.space_used = static_cast<int32_t>(static_cast<uint32_t>((capacity - available) >> 20));
  if (figures.space_total > 0 && figures.space_used > 0) {
    const auto all = static_cast<double>(capacity);
    const double percent = (all - static_cast<double>(available)) * 100 / all + 0.5;
    figures.percent_used = percent <= INT32_MIN ? INT32_MIN : static_cast<int32_t>(percent);
  }
  return figures;
}

// ---- Publishing ---------------------------------------------------------------------------------

static filesys_block *block_of(const filesys_row *row) {
  return reinterpret_cast<filesys_block *>(row->object->data);
}

static void describe(const filesys_row *row, const char *device) {
  char text[sizeof(filesys_block::description)];
  // Cut off, as every text that is too long for its field.
  snprintf(text, sizeof(text), "%s on %s", device, row->key);
  copy_field(block_of(row)->description, text);
}

// What no row has for its index.
static constexpr int32_t no_index = -1;

// Publishes the row if anything in it changed. 0, or what log_data() says.
static int publish(filesys_row *row) {
  if (memcmp(row->object->data, &row->published, sizeof(row->published)) == 0) {
    return 0;
  }
  memcpy(&row->published, row->object->data, sizeof(row->published));
  const int result = log_data(row->object);
  if (result != 0) {
    row->published.index = no_index;  // differs: the next pass publishes it
  }
  return result;
}

static filesys_row *create(const char *key) {
  auto *row = static_cast<filesys_row *>(calloc(1, sizeof(filesys_row)));
  if (row == nullptr) {
    return nullptr;
  }
  row->key = strdup(key);
  if (row->key == nullptr) {
    free(row);
    return nullptr;
  }
  row->object = create_row(filesys_group, table.free_index());
  if (row->object == nullptr || !table.insert(row)) {
    free(row->key);
    free(row);
    return nullptr;
  }
  row->entry = not_listed;
  block_of(row)->index = row->object->instance;
  publish_once(row->object);
  return row;
}

// The row of a mount directory, made if there is none.
static filesys_row *row_of(const char *key) {
  filesys_row *row = table.find(key);
  if (row == nullptr) {
    row = create(key);
  }
  if (row == nullptr) {
    agentlog_fprintf(stderr, "%s: Can't %s object: %s  (PEER3023)\n", agent, "create",
                     printable(key).text);
    // On purpose: a row that cannot be created ends the process here and now, by the signal of a
    // null pointer. A supervisor starts the agent anew; nobody is served half a table.
    signal(SIGSEGV, SIG_DFL);
    raise(SIGSEGV);
    abort();
  }
  return row;
}

static void report_update_failure(const char *key) {
  agentlog_fprintf(stderr, "%s: Can't %s object: %s  (PEER3023)\n", agent, "update OS filesys",
                   printable(key).text);
}

int remove_filesys_rows(filesys_row *row) {
  filesys_row *next = row != nullptr ? table.remove(row) : table.remove_first();
  if (next == nullptr) {
    return row != nullptr ? -1 : 0;
  }
  do {
    if (delete_obj(&obj_Q, next->object, 0) != 0) {
      return -1;
    }
    free(next->key);
    free(next);
    next = row != nullptr ? nullptr : table.remove_first();
  } while (next != nullptr);
  return 0;
}

// ---- The three sources --------------------------------------------------------------------------

// Cuts a name in place when it is too long for the description.
static bool cut_long_name(char *name) {
  if (strlen(name) < long_name) {
    return false;
  }
  memcpy(name + cut_name, "...", sizeof("..."));
  return true;
}

static int refresh_from_mount(filesys_row *row, const char *device, const mount_stats &stats) {
  block_of(row)->figures = figures_of_mount(stats);
  char cut_device[cut_name + sizeof("...")];
  if (strlen(device) >= long_name) {
    snprintf(cut_device, sizeof(cut_device), "%.*s...", static_cast<int>(cut_name), device);
    device = cut_device;
  }
  // On purpose the row's own key is cut and not a copy: the next pass does not find the row by its
  // directory, makes a new one and drops this one. A long directory has a fresh row at every pass.
  if (cut_long_name(row->key)) {
    rekey_Q(&table.rows, row);
  }
  describe(row, device);
  return publish(row);
}

static void refresh_mount(size_t entry) {
  const char *device = mounts.texts + mounts.entries[entry].device;
  const char *directory = mounts.paths[entry];
  const mount_stats &stats = mounts.stats[entry];
  filesys_row *row = row_of(directory);
  row->countdown = LISTED_BY_MOUNT_TABLE;
  row->entry = entry;
  switch (stats.state) {
    case MOUNT_ANSWERED:
      if (refresh_from_mount(row, device, stats) != 0) {
        report_update_failure(directory);
      }
      break;
    case MOUNT_WAITED_FOR:
    case MOUNT_STILL_SILENT:
      // Reported when the silence began: a mount may hang for days.
      break;
    default:
      report_update_failure(directory);
  }
}

static void report_mount_table(const char *verb) {
  // The file's name in the message is an older one, which log filters know.
  agentlog_fprintf(stderr, "%s: Can't %s the file /etc/mnttab, error %d  (PEER3034)\n", agent, verb,
                   errno);
}

// Lists the mounts. 0, or -1. A table that was read in part would cost the other mounts their rows,
// so it is read again.
static int list_mounts(mount_list *list) {
  for (int attempt = 0; attempt < mount_table_attempts; attempt++) {
    FILE *file = setmntent(mount_table_path, "r");
    if (file == nullptr) {
      report_mount_table("open");
      return -1;
    }
    const int result = read_mount_table(file, list);
    const int error = errno;
    endmntent(file);
    errno = error;
    if (result == 0) {
      return 0;
    }
  }
  report_mount_table("read");
  return -1;
}

// The entries of the last pass are read over.
static void forget_entries() {
  queue_element *cursor = table.rows.head;
  while (filesys_row *row = table.next(&cursor)) {
    row->entry = not_listed;
  }
}

static int refresh_mounts() {
  forget_entries();
  if (list_mounts(&mounts) != 0 || stat_mounts(mounts.paths, mounts.count, mounts.stats) != 0) {
    return -1;
  }
  for (size_t i = 0; i < mounts.count; i++) {
    refresh_mount(i);
  }
  return 0;
}

static int refresh_from_vmkfstools(filesys_row *row, const char *device, FILE *output) {
  uint64_t capacity;
  uint64_t available;
  parse_vmkfstools(output, &capacity, &available);
  block_of(row)->figures = figures_of_volume(capacity, available);
  describe(row, device);
  return publish(row);
}

// What a command of VMware's printed.
static char command_output[256 * 1024];

// Runs a command within what is left of the limit and stores its output. Its exit status means
// nothing. False when it could not be run or ran out of time: then its output counts as none.
static bool read_command(const char *command, const shared_limit &limit, size_t *length) {
  const int left = limit.left();
  return left > 0 &&
         run_command(command, left, command_output, sizeof(command_output), length) >= 0;
}

// One VMFS-2 volume: an entry of /vmfs with a colon in its name.
static void scan_vmfs_entry(const char *name, const shared_limit &limit) {
  if (strchr(name, ':') == nullptr || !is_plain_name(name)) {
    return;
  }
  char command[command_size];
  snprintf(command, sizeof(command), "%s -l %s/%s", vmfs_volume_tool, vmfs_directory, name);
  size_t length = 0;
  if (!read_command(command, limit, &length)) {
    return;
  }
  const stream_handle output(fmemopen(command_output, length, "r"));
  if (!output) {
    return;
  }
  char key[sizeof(vmfs_directory) + sizeof(dirent::d_name) + 1];
  snprintf(key, sizeof(key), "%s/%s", vmfs_directory, name);
  filesys_row *row = row_of(key);
  row->countdown = LISTED_BY_VMWARE_SCAN;
  if (refresh_from_vmkfstools(row, "vmfs", output.get()) != 0) {
    report_update_failure(key);
  }
}

static void scan_vmfs(const shared_limit &limit) {
  const directory_handle directory(opendir(vmfs_directory));
  if (!directory) {
    return;
  }
  while (const dirent *entry = readdir(directory.get())) {
    scan_vmfs_entry(entry->d_name, limit);
  }
}

static void scan_vmfs_volumes(const shared_limit &limit) {
  // Tells only whether this is a VMware console.
  if (!directory_handle(opendir(vmfs_volumes_directory))) {
    return;
  }
  static char device[mount_name_size];
  static char key[mount_name_size];
  // What a broken line lacks keeps the value of the line before.
  unsigned long long total = 0;
  unsigned long long used = 0;
  unsigned long long available = 0;
  int percent = 0;
  key[0] = '\0';
  size_t length = 0;
  if (!read_command(vdf_command, limit, &length)) {
    return;
  }
  const stream_handle output(fmemopen(command_output, length, "r"));
  if (!output) {
    return;
  }
  while (fscanf(output.get(), "%8191s %llu %llu %llu %d%*[%] %8191s\n", device, &total, &used,
                &available, &percent, key) != EOF) {
    if (key[0] == '\0') {
      continue;  // broken from the beginning
    }
    filesys_row *row = row_of(key);
    row->countdown = LISTED_BY_VMWARE_SCAN;
    filesys_figures &figures = block_of(row)->figures;
    figures.space_total = clamp_int32(total >> 10);
    figures.space_used = clamp_int32(used >> 10);
    figures.percent_used = percent;
    describe(row, device);
    publish(row);
  }
}

// ---- Entry point --------------------------------------------------------------------------------

static void remove_unlisted() {
  queue_element *cursor = table.rows.head;
  while (filesys_row *row = table.next(&cursor)) {
    if (row->countdown != 0) {
      row->countdown--;
    } else {
      remove_filesys_rows(row);
    }
  }
}

int do_filesys() {
  if (refresh_mounts() != 0) {
    return -1;
  }
  if (vmware_phase == 0) {
    const shared_limit limit(commands_limit);
    scan_vmfs(limit);
    scan_vmfs_volumes(limit);
  }
  vmware_phase = (vmware_phase + 1) % vmware_period;
  remove_unlisted();
  return 0;
}

// ---- For the mount details ----------------------------------------------------------------------

static mount_view view_of_volume(const filesys_row *row) {
  mount_view view = {};
  view.directory = row->key;
  view.type = "vmfs";
  view.answers = true;
  // The description is the device, " on ", and the directory, possibly cut off.
  const char *description = block_of(row)->description;
  const char *end = strstr(description, " on ");
  view.device = description;
  view.device_length = end != nullptr ? static_cast<size_t>(end - description) : 0;
  return view;
}

bool next_mount(queue_element **cursor, mount_view *view) {
  filesys_row *row = *cursor != nullptr ? table.next(cursor) : nullptr;
  if (row == nullptr) {
    return false;
  }
  if (row->entry == not_listed) {
    *view = view_of_volume(row);
    view->listed = row->countdown > LISTED_BY_MOUNT_TABLE;
  } else {
    const mount_entry &entry = mounts.entries[row->entry];
    *view = {};
    view->listed = true;
    view->device = mounts.texts + entry.device;
    view->device_length = strlen(view->device);
    view->directory = mounts.paths[row->entry];
    view->type = mounts.texts + entry.type;
    view->read_only = entry.read_only;
    const mount_stats &stats = mounts.stats[row->entry];
    const bool late = stats.state == MOUNT_WAITED_FOR;  // then its last answer counts
    view->answers = stats.state == MOUNT_ANSWERED || (late && stats.error == 0);
    view->failing = stats.state == MOUNT_FAILED || (late && stats.error != 0);
  }
  view->instance = row->object->instance;
  return true;
}

queue_element *first_mount() {
  return table.rows.head;
}
