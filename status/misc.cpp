#include "status/misc.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "common/group.h"
#include "common/next_index.h"
#include "common/util.h"
#include "platform/framework.h"
#include "status/guid.h"
#include "status/mib_status.h"

// ---- Data block ---------------------------------------------------------------------------------

// Year (big-endian), month, day, hour, minute, second.
using date_octets = unsigned char[7];

struct [[gnu::packed]] misc_data {
  int32_t mib_rev_major;
  int32_t mib_rev_minor;
  int32_t mib_condition;
  int32_t poll_frequency;  // seconds
  int32_t sw_ver_next_index;
  char generic_data[255];
  date_octets client_last_modified;
  unsigned char mib_status_array[STATUS_ARRAY_SIZE];
  int32_t trap_flags;
  date_octets config_changed_date;
  unsigned char guid[GUID_SIZE];
  int32_t code_server;
  int32_t web_mgmt_port;
  char guid_canonical[256];
  unsigned char mib_health_status_array[STATUS_ARRAY_SIZE];
};
static_assert(sizeof(misc_data) == 1085);
static_assert(offsetof(misc_data, generic_data) == 20);
static_assert(offsetof(misc_data, client_last_modified) == 275);
static_assert(offsetof(misc_data, mib_status_array) == 282);
static_assert(offsetof(misc_data, trap_flags) == 538);
static_assert(offsetof(misc_data, config_changed_date) == 542);
static_assert(offsetof(misc_data, guid) == 549);
static_assert(offsetof(misc_data, code_server) == 565);
static_assert(offsetof(misc_data, guid_canonical) == 573);
static_assert(offsetof(misc_data, mib_health_status_array) == 829);

enum misc_slot {
  POLL_FREQUENCY = 3,
  GENERIC_DATA = 5,
  MIB_STATUS_ARRAY = 7,
  CONFIG_CHANGED_DATE = 9,
  GUID = 10
};

static int set_misc(uint8_t phase, registry_object *object, descriptor *desc, const void *value,
                    int length);

static constexpr variable variables[] = {
    READ_ONLY("tlxHoMibRevMajor", misc_data, mib_rev_major),
    READ_ONLY("tlxHoMibRevMinor", misc_data, mib_rev_minor),
    READ_ONLY("tlxHoMibCondition", misc_data, mib_condition),
    SETTABLE("tlxHoOsCommonPollFreq", misc_data, poll_frequency, set_misc),
    READ_ONLY("tlxHoSwVerNextIndex", misc_data, sw_ver_next_index),
    SETTABLE("tlxHoGenericData", misc_data, generic_data, set_misc),
    READ_ONLY("tlxHoClientLastModified", misc_data, client_last_modified),
    READ_ONLY("tlxHoMibStatusArray", misc_data, mib_status_array),
    READ_ONLY("tlxHoTrapFlags", misc_data, trap_flags),
    READ_ONLY("tlxHoConfigChangedDate", misc_data, config_changed_date),
    SETTABLE("tlxHoGUID", misc_data, guid, set_misc),
    READ_ONLY("tlxHoCodeServer", misc_data, code_server),
    READ_ONLY("tlxHoWebMgmtPort", misc_data, web_mgmt_port),
    SETTABLE("tlxHoGUIDCanonical", misc_data, guid_canonical, set_misc),
    READ_ONLY("tlxHoMibHealthStatusArray", misc_data, mib_health_status_array),
};

static constexpr const kept_file *kept_files[] = {&guid_file, nullptr};

constexpr group misc_group = described<misc_data>({
    .name = "misc",
    .title = "misc",
    .flag = 0,
    .variables = variables,
    .refresh = do_misc,
    .each_poll = true,
    .kept = kept_files,
    .absence = nullptr,
});

// ---- State --------------------------------------------------------------------------------------

static constexpr int mib_number = 11;
static constexpr int32_t condition_normal = 2;
static constexpr int32_t condition_degraded = 3;
static constexpr int32_t condition_failed = 4;
static constexpr int32_t web_management_port = 2301;

static bool called;
static bool threshold_failure_logged;
static bool thresholds_unlisted;  // at the last poll

static misc_data *data_of(registry_object *misc) {
  return reinterpret_cast<misc_data *>(misc->data);
}

// ---- Reading ------------------------------------------------------------------------------------

static void read_start_date(date_octets date) {
  const time_t now = time(nullptr);
  tm local = {};
  localtime_r(&now, &local);
  const int year = local.tm_year + 1900;
  date[0] = static_cast<unsigned char>(year >> 8);
  date[1] = static_cast<unsigned char>(year);
  date[2] = static_cast<unsigned char>(local.tm_mon + 1);
  date[3] = static_cast<unsigned char>(local.tm_mday);
  date[4] = static_cast<unsigned char>(local.tm_hour);
  date[5] = static_cast<unsigned char>(local.tm_min);
  date[6] = static_cast<unsigned char>(local.tm_sec);
}

// An entry of the threshold agent: what is read of its data block.
static constexpr int watched_oid_offset = 8;  // text
static constexpr int severity_offset = 292;
static constexpr int flag_offsets[] = {552, 556};
static constexpr int entry_size = 560;

static constexpr char threshold_directory[] = "../threshold";  // seen from log_dir
static constexpr char entry_prefix[] = "entry.";
static constexpr char watched_subtree[] = "4891.11.2.4";

static int32_t word_at(const unsigned char *data, int offset) {
  int32_t word = 0;
  memcpy(&word, data + offset, sizeof(word));
  return word;
}

// The severity of a raised threshold on this MIB; 0 for any other entry, or one that is too short.
static int32_t entry_severity(const registry_object *entry) {
  if (entry->data == nullptr || entry->data_size < entry_size) {
    return 0;
  }
  const char *oid = reinterpret_cast<const char *>(entry->data) + watched_oid_offset;
  const size_t length = strnlen(oid, severity_offset - watched_oid_offset);
  if (memmem(oid, length, watched_subtree, strlen(watched_subtree)) == nullptr) {
    return 0;
  }
  for (const int offset : flag_offsets) {
    if (word_at(entry->data, offset) != 0) {
      return word_at(entry->data, severity_offset);
    }
  }
  return 0;
}

// What an entry's file said. A machine may have thousands of them, which seldom change.
struct known_entry {
  dev_t device;
  ino_t inode;  // 0: a free place
  off_t size;
  timespec changed;  // 0: as good as changed since
  int32_t severity;
};

// By inode number; a place is the first free one from the number on.
struct entry_table {
  known_entry *places;
  size_t size;  // 0, or a power of two that is at least twice `used`
  size_t used;
};

static entry_table known_entries;  // of the poll before
static int32_t known_largest;      // of its severities

static known_entry *place_of(const entry_table *table, ino_t inode) {
  size_t at = static_cast<size_t>(inode) & (table->size - 1);
  while (table->places[at].inode != 0 && table->places[at].inode != inode) {
    at = (at + 1) & (table->size - 1);
  }
  return &table->places[at];
}

// Without memory the entry is read again at the next poll, nothing worse.
static void remember(entry_table *table, const known_entry &entry) {
  constexpr size_t first_size = 64;
  if (entry.inode == 0) {
    return;
  }
  if (2 * table->used >= table->size) {
    entry_table larger = {nullptr, table->size != 0 ? 2 * table->size : first_size, table->used};
    larger.places = static_cast<known_entry *>(calloc(larger.size, sizeof(known_entry)));
    if (larger.places == nullptr) {
      return;
    }
    for (size_t i = 0; i < table->size; i++) {
      if (table->places[i].inode != 0) {
        *place_of(&larger, table->places[i].inode) = table->places[i];
      }
    }
    free(table->places);
    *table = larger;
  }
  known_entry *place = place_of(table, entry.inode);
  table->used += place->inode == 0 ? 1 : 0;
  *place = entry;
}

// What the entry's file was last seen to say; inode 0: nothing.
static known_entry recall(const struct stat &status) {
  if (known_entries.size != 0) {
    const known_entry entry = *place_of(&known_entries, status.st_ino);
    if (entry.inode == status.st_ino && entry.device == status.st_dev) {
      return entry;
    }
  }
  return {};
}

static bool is_unchanged(const struct stat &status, const known_entry &entry) {
  return entry.size == status.st_size && entry.changed.tv_sec == status.st_ctim.tv_sec &&
         entry.changed.tv_nsec == status.st_ctim.tv_nsec;
}

static constexpr int most_tries = 3;  // of what may pass, a poll

// Null with errno: one that may pass when the object may be there and could not be read.
static registry_object *read_object(const char *name) {
  for (int tries = 1;; tries++) {
    errno = 0;
    registry_object *object = get_obj(name);
    if (object != nullptr || !may_pass(errno) || tries == most_tries) {
      return object;
    }
  }
}

// The severity of one entry of the directory, which is kept in `seen` for the next poll. One that
// cannot be read now has the one that it had: a threshold that is raised is not cleared by that.
static int32_t read_entry(int directory, const char *path, const char *name, entry_table *seen) {
  struct stat status = {};
  const bool there = fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
  known_entry entry = there ? recall(status) : known_entry{};
  if (entry.inode != 0 && is_unchanged(status, entry)) {
    remember(seen, entry);
    return entry.severity;
  }
  char full_name[sizeof(log_dir) + sizeof(threshold_directory) + sizeof(dirent::d_name)];
  snprintf(full_name, sizeof(full_name), "%s/%s", path, name);
  const freeing<registry_object> object_read(read_object(full_name));
  if (!object_read) {
    if (!may_pass(errno)) {
      return 0;
    }
    entry.changed = {};
    remember(seen, entry);
    return entry.severity;
  }
  entry = {status.st_dev, status.st_ino, status.st_size, status.st_ctim,
           entry_severity(object_read.get())};
  // A file's times go by ticks of the clock: of one that has just changed, the next change may not
  // show in them.
  constexpr time_t settled = 2;
  if (status.st_ctim.tv_sec + settled >= time(nullptr)) {
    entry.changed = {};
  }
  remember(seen, entry);
  return entry.severity;
}

// The largest severity among the entries of the directory, at least 1; 0 when it cannot be opened,
// -1 when the listing broke off, with errno.
static int32_t list_thresholds(const char *path) {
  const int opened = open_dir(path);
  const directory_handle directory(opened < 0 ? nullptr : fdopendir(opened));
  if (!directory) {
    const int error = errno;
    if (opened >= 0) {
      close(opened);
    }
    errno = error;
    return 0;
  }
  int32_t largest = 1;
  entry_table seen = {};
  for (;;) {
    errno = 0;
    const dirent *listed = readdir(directory.get());
    if (listed == nullptr && errno != 0) {
      const int error = errno;
      free(seen.places);
      errno = error;
      return -1;
    }
    if (listed == nullptr) {
      break;
    }
    if (strncmp(listed->d_name, entry_prefix, strlen(entry_prefix)) == 0) {
      const int32_t severity = read_entry(opened, path, listed->d_name, &seen);
      largest = severity > largest ? severity : largest;
    }
  }
  free(known_entries.places);
  known_entries = seen;
  return largest;
}

// The largest severity among the threshold agent's entries, at least 1; 0 when its directory cannot
// be opened. Half a list would make thresholds look cleared, and then raised anew: what fails for a
// moment is tried again, and then the last whole one stands.
static int32_t read_thresholds() {
  char path[sizeof(log_dir) + sizeof(threshold_directory)];
  snprintf(path, sizeof(path), "%s/%s", log_dir, threshold_directory);
  int32_t largest = -1;
  for (int tries = 1;; tries++) {
    largest = list_thresholds(path);
    if (largest > 0 || !may_pass(errno) || tries == most_tries) {
      break;
    }
  }
  if (largest == 0 && !threshold_failure_logged) {
    threshold_failure_logged = true;
    agentlog_fprintf(stderr, "cannot opendir(%s)\n", path);
  }
  if (largest < 0 && !thresholds_unlisted) {
    agentlog_fprintf(stderr, "cannot readdir(%s)\n", path);
  } else if (largest > 0 && thresholds_unlisted) {
    agentlog_fprintf(stderr, "Thresholds are read again\n");
  }
  thresholds_unlisted = largest < 0 || (largest == 0 && thresholds_unlisted);
  known_largest = largest < 0 ? known_largest : largest;
  return known_largest;
}

// ---- Computing ----------------------------------------------------------------------------------

// Severities 3 and 4 are a degraded condition, 5 and 6 a failed one. 7 and above raise nothing, on
// purpose.
static int32_t condition_for(int32_t severity) {
  switch (severity) {
    case 3:
    case 4:
      return condition_degraded;
    case 5:
    case 6:
      return condition_failed;
    default:
      return condition_normal;
  }
}

// ---- Sets ---------------------------------------------------------------------------------------

static constexpr int generic_test_trap = 11003;
static constexpr char generic_test_text[] = "Quorix Generic Test Trap (11003): %s";

// Stores the text, sends it as a trap and publishes, unless the group is gone.
static void send_generic_test_trap(const char *text) {
  registry_object *misc = find_object(misc_group);
  if (misc == nullptr) {
    return;
  }
  misc_data *data = data_of(misc);
  copy_field(data->generic_data, text);
  // Room for the longest text that a set accepts.
  char description[sizeof(generic_test_text) + sizeof(data->generic_data)];
  snprintf(description, sizeof(description), generic_test_text, data->generic_data);
  const int slots[] = {GENERIC_DATA};
  send_trap(misc, slots, 1, description, generic_test_trap);
  log_data(misc);
}

static int set_generic_data(uint8_t phase, const char *text) {
  if (strnlen(text, sizeof(misc_data::generic_data)) >= sizeof(misc_data::generic_data)) {
    return -1;
  }
  if (phase == SET_CHECK) {
    return 0;
  }
  if (set_wanted(1) == 0) {
    return -1;
  }
  send_generic_test_trap(text);
  return 0;
}

static int set_poll_frequency(uint8_t phase, misc_data *data, const void *value) {
  uint32_t seconds = 0;
  memcpy(&seconds, value, sizeof(seconds));
  if (seconds <= 1) {
    return -1;
  }
  if (phase == SET_CHECK) {
    return 0;
  }
  if (set_wanted(1) == 0) {
    return -1;
  }
  data->poll_frequency = static_cast<int32_t>(seconds);
  set_poll_time(clamp_int32(seconds));  // a negative period would be taken for the shortest
  alarm(seconds);                       // the new interval starts now
  return 0;
}

static int set_misc(uint8_t phase, registry_object *misc, descriptor *desc, const void *value,
                    int length) {
  switch (desc->slot) {
    case GENERIC_DATA:
      return set_generic_data(phase, static_cast<const char *>(value));
    case POLL_FREQUENCY:
      return set_poll_frequency(phase, data_of(misc), value);
    case GUID:
      return set_guid(phase, data_of(misc)->guid, value, length);
    default:
      return -1;  // tlxHoGUIDCanonical among them
  }
}

// ---- Publishing ---------------------------------------------------------------------------------

static registry_object *create() {
  registry_object *misc = create_object(misc_group);
  if (misc == nullptr) {
    return nullptr;
  }
  misc_data *data = data_of(misc);
  data->mib_rev_major = get_mib_major_revision(mib_number);
  data->mib_rev_minor = get_mib_minor_revision(mib_number);
  data->mib_condition = condition_normal;
  data->poll_frequency = poll_time;
  data->sw_ver_next_index = 0;
  copy_field(data->generic_data, "generic trap data");
  // Never modified.
  memset(data->client_last_modified, 0, sizeof(data->client_last_modified));
  memset(data->client_last_modified, 0xFF, 2);
  memset(data->mib_status_array, 0, sizeof(data->mib_status_array));
  build_status_array(data->mib_status_array);
  build_health_array(data->mib_health_status_array);
  misc->desc[MIB_STATUS_ARRAY].length = STATUS_ARRAY_LENGTH;
  data->trap_flags = 0;
  read_start_date(data->config_changed_date);
  misc->desc[CONFIG_CHANGED_DATE].length = sizeof(data->config_changed_date);
  obtain_guid(data->guid, data->guid_canonical, sizeof(data->guid_canonical));
  data->code_server = 0;
  data->web_mgmt_port = web_management_port;
  return misc;
}

static void refresh(registry_object *misc) {
  misc_data *data = data_of(misc);
  data->poll_frequency = poll_time;
  keep_guid(data->guid, data->guid_canonical, sizeof(data->guid_canonical));
  build_status_array(data->mib_status_array);
  build_health_array(data->mib_health_status_array);
  data->mib_condition = condition_for(read_thresholds());
  misc->desc[MIB_STATUS_ARRAY].length = STATUS_ARRAY_LENGTH;
  log_data(misc);
}

// ---- Entry point --------------------------------------------------------------------------------

int do_misc() {
  const bool first = first_call(&called);
  registry_object *misc = first ? create() : find_object(misc_group);
  keep_next_index_in(misc, offsetof(misc_data, sw_ver_next_index));
  if (misc == nullptr) {
    report_no_object("do_misc", first);
    return -1;
  }
  refresh(misc);
  return 0;
}
