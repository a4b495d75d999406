#include "status/mib_status.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "common/util.h"
#include "platform/framework.h"

// ---- Getters ------------------------------------------------------------------------------------

// Read a peer's MIB revision or condition from a source (a registry path or an OID). They return 0
// on success; what could not be read is left as it was.
using revision_getter = int (*)(const char *source, int32_t *major, int32_t *minor);
using condition_getter = int (*)(const char *source, int32_t *condition);

// The 32-bit value of a variable; 0 when the object has no such variable or it is shorter.
static int32_t variable_value(const registry_object *object, int slot) {
  int32_t value = 0;
  if (slot < object->var_count && object->desc[slot].value != nullptr &&
      object->desc[slot].size >= static_cast<int>(sizeof(value))) {
    memcpy(&value, object->desc[slot].value, sizeof(value));
  }
  return value;
}

// A peer's published object when it holds data and at least `variables` variables. The caller frees
// it; null otherwise.
static registry_object *get_peer_object(const char *path, int variables) {
  registry_object *object = get_obj(path);
  if (object != nullptr && (object->data == nullptr || object->var_count < variables)) {
    free(object);
    object = nullptr;
  }
  return object;
}

template <int Major, int Minor>
static int get_registry_revision(const char *path, int32_t *major, int32_t *minor) {
  const freeing<registry_object> object(get_peer_object(path, Minor + 1));
  if (!object) {
    return -1;
  }
  *major = variable_value(object.get(), Major);
  *minor = variable_value(object.get(), Minor);
  return 0;
}

template <int Slot, int Variables>
static int get_registry_condition(const char *path, int32_t *condition) {
  const freeing<registry_object> object(get_peer_object(path, Variables));
  if (!object) {
    return -1;
  }
  *condition = variable_value(object.get(), Slot);
  return 0;
}

static constexpr auto get_reg_rev = get_registry_revision<0, 1>;
static constexpr auto get_reg_rev_sinfo = get_registry_revision<21, 22>;
static constexpr auto get_reg_cond_slot0 = get_registry_condition<0, 1>;
// One variable is enough for slots 1 and 3 too: a peer that publishes fewer reads as 0, not as
// gone.
static constexpr auto get_reg_cond_slot1 = get_registry_condition<1, 1>;
static constexpr auto get_reg_cond_slot2 = get_registry_condition<2, 3>;
static constexpr auto get_reg_cond_slot3 = get_registry_condition<3, 1>;
static constexpr auto get_reg_cond_slot23 = get_registry_condition<23, 24>;

static constexpr char local_agent[] = "127.0.0.1";
// 30 characters: the revision OIDs of the longest source are cut there, so that its revision is
// never read and the row always counts as changed. Its array shows neither; its condition still
// fits.
static constexpr size_t oid_text_size = 31;

// Reads the integer at `source` followed by `suffix` over an open connection.
static int read_snmp_integer(const char *source, const char *suffix, int32_t *value) {
  char oid[oid_text_size];
  snprintf(oid, sizeof(oid), "%s%s", source, suffix);
  int status = 0;
  return get_one_snmp_integer_from_api(oid, value, &status);
}

static int get_snmp_rev(const char *source, int32_t *major, int32_t *minor) {
  if (init_snmp_connection(local_agent) != 0) {
    return -1;
  }
  int result = 0;
  result -= read_snmp_integer(source, ".1.1.0", major) != 0;
  result -= read_snmp_integer(source, ".1.2.0", minor) != 0;
  cleanup_snmp_connection();
  return result;
}

static int get_snmp_condition(const char *source, const char *suffix, int32_t *condition) {
  if (init_snmp_connection(local_agent) != 0) {
    return -1;
  }
  const int result = read_snmp_integer(source, suffix, condition);
  cleanup_snmp_connection();
  return result != 0 ? -1 : 0;
}

static int get_snmp_cond(const char *source, int32_t *condition) {
  return get_snmp_condition(source, ".1.3.0", condition);
}

static int get_snmp_scalar(const char *source, int32_t *condition) {
  return get_snmp_condition(source, ".0", condition);
}

// ---- The peers ----------------------------------------------------------------------------------

// One peer. What stands behind the sources is known from the last scan and the last reads.
struct peer {
  int32_t index;        // place in the array
  const char *process;  // text within the program path of the peer's process
  revision_getter get_revision;
  const char *revision_source;
  condition_getter get_condition;
  const char *condition_source;
  int32_t process_group = 0;  // 0: not running, or its data could not be read
  int32_t changed = 0;        // 1: started, restarted or stopped since the scan before; else 0
  int32_t major = 0;
  int32_t minor = 0;
  int32_t condition = 0;
};

static constexpr int32_t being_scanned = -1;  // in `changed`

#define KELMO "../../kelmo/registry/"

// Index 8 belongs to the process that publishes it, vexida; the appliance group (21) to this agent.
static peer status_peers[] = {
    {1, "vexstdeq", get_reg_rev, KELMO "stdeq/misc", get_reg_cond_slot2, KELMO "stdeq/misc"},
    {2, "vexstdeq", get_reg_rev_sinfo, KELMO "stdeq/sinfo", get_reg_cond_slot23,
     KELMO "stdeq/sinfo"},
    {3, "vexida", get_reg_rev, KELMO "ida/misc", get_reg_cond_slot2, KELMO "ida/misc"},
    {5, "vexscsi", get_reg_rev, KELMO "scsi/mib", get_reg_cond_slot2, KELMO "scsi/mib"},
    {6, "vexhealth", get_reg_rev, KELMO "health/health_rev", get_reg_cond_slot0,
     KELMO "health/health"},
    {8, "vexida", get_reg_rev, KELMO "stsys/mib", get_reg_cond_slot2, KELMO "stsys/mib"},
    {9, "vexsm2", get_reg_rev, KELMO "crib/misc", get_reg_cond_slot2, KELMO "crib/misc"},
    {10, "vexthresh", get_reg_rev, KELMO "threshold/misc", get_reg_cond_slot2,
     KELMO "threshold/misc"},
    {11, "vexhost", get_reg_rev, KELMO "host/misc", get_reg_cond_slot2, KELMO "host/misc"},
    {14, "vexide", get_reg_rev, KELMO "ide/mib", get_reg_cond_slot2, KELMO "ide/mib"},
    {16, "vexfc", get_reg_rev, KELMO "fca/misc", get_reg_cond_slot2, KELMO "fca/misc"},
    {18, "vexnic", get_snmp_rev, "enterprises.4891.18", get_snmp_cond, "enterprises.4891.18"},
    {21, "vexhost", get_reg_rev, KELMO "host/appliance", get_reg_cond_slot2,
     KELMO "host/appliance"},
    {22, "vexrack", get_reg_rev, KELMO "rack/rev", get_reg_cond_slot0, KELMO "rack/stat"},
    {23, "vexperf", get_reg_rev, KELMO "perf/misc", get_reg_cond_slot2, KELMO "perf/misc"},
    {26, "fio-snmp-agentx", get_snmp_rev, "enterprises.4891.172", get_snmp_cond,
     "enterprises.4891.172"},
};

// Indexes 2 and 3 name each other's processes: kept, because managers know the rows that way.
static peer health_peers[] = {
    {2, "vexhealth", get_reg_rev, KELMO "stdeq/cpucondition", get_reg_cond_slot0,
     KELMO "stdeq/cpucondition"},
    {3, "vexstdeq", get_reg_rev, KELMO "health/res_mem", get_reg_cond_slot3,
     KELMO "health/res_mem"},
    {4, "vexhealth", get_reg_rev, KELMO "health/thermal", get_reg_cond_slot3,
     KELMO "health/thermal"},
    {5, "vexhealth", get_reg_rev, KELMO "health/thermal", get_reg_cond_slot2,
     KELMO "health/thermal"},
    {6, "vexhealth", get_reg_rev, KELMO "health/ftps", get_reg_cond_slot0, KELMO "health/ftps"},
    {7, "vexhealth", get_reg_rev, KELMO "health/event_log_status", get_reg_cond_slot1,
     KELMO "health/event_log_status"},
    {8, "vexhealth", get_snmp_rev, "1.3.6.1.4.1.4891.6.2.5.17", get_snmp_scalar,
     "1.3.6.1.4.1.4891.6.2.5.17"},
    {9, "vexida", get_reg_rev, KELMO "ida/misc", get_reg_cond_slot2, KELMO "ida/misc"},
    {10, "vexscsi", get_reg_rev, KELMO "scsi/mib", get_reg_cond_slot2, KELMO "scsi/mib"},
    {11, "vexida", get_reg_rev, KELMO "stsys/mib", get_reg_cond_slot2, KELMO "stsys/mib"},
    {12, "vexide", get_reg_rev, KELMO "ide/mib", get_reg_cond_slot2, KELMO "ide/mib"},
    {13, "vexfc", get_reg_rev, KELMO "fca/misc", get_reg_cond_slot2, KELMO "fca/misc"},
    {14, "vexnic", get_snmp_rev, "1.3.6.1.4.1.4891.18", get_snmp_cond, "1.3.6.1.4.1.4891.18"},
    {15, "vexsm2", get_reg_rev, KELMO "crib/misc", get_reg_cond_slot2, KELMO "crib/misc"},
};

#undef KELMO

// Its object exists on appliances alone: that must not make this agent look absent.
static constexpr int32_t appliance_index = 21;

// Third summary octet of the status array.
static constexpr unsigned char summary_mark = 8;

static constexpr int health_trap = 11020;

// ---- Scanning processes -------------------------------------------------------------------------

static constexpr char proc_directory[] = "/proc";
static constexpr int most_listings = 3;
static constexpr size_t command_size = 256;

// A process whose program path names a peer: the rows that it matches, a bit each.
struct named_process {
  pid_t pid;
  uint32_t status_rows;
  uint32_t health_rows;
};

// The last reading of /proc. It costs 4 microseconds a process, so the health array, built right
// after the status array, takes the reading made for that one, unless peers that were asked in
// between took their time.
static constexpr int64_t reading_lasts = 200'000'000;  // nanoseconds
static named_process *named;
static size_t named_count;
static size_t named_capacity;
static int64_t read_at;
static bool left_for_health;

// Reads the first line, at most, of a process's command line (proc(5): arguments end in NUL, so as
// text it is the program path). False when it cannot be opened. Plain calls below the directory
// already open: with ten thousand processes a scan must stay in the tens of milliseconds.
static bool read_command(int proc, const char *pid, char command[command_size]) {
  char path[NAME_MAX + sizeof("/cmdline")];
  snprintf(path, sizeof(path), "%s/cmdline", pid);
  const int descriptor = openat(proc, path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return false;
  }
  const ssize_t n = read(descriptor, command, command_size - 1);
  close(descriptor);
  command[n > 0 ? n : 0] = '\0';
  command[strcspn(command, "\n")] = '\0';
  return true;
}

template <size_t N>
static uint32_t matching_rows(const peer (&peers)[N], const char *command) {
  static_assert(N <= 32);
  uint32_t rows = 0;
  for (size_t i = 0; i < N; i++) {
    if (strstr(command, peers[i].process) != nullptr) {
      rows |= uint32_t{1} << i;
    }
  }
  return rows;
}

// Keeps a process that names a peer; without memory it is passed over.
static void keep_process(pid_t pid, const char *command) {
  const named_process process = {pid, matching_rows(status_peers, command),
                                 matching_rows(health_peers, command)};
  if ((process.status_rows | process.health_rows) == 0) {
    return;
  }
  if (named_count == named_capacity) {
    const size_t capacity = named_capacity > 0 ? 2 * named_capacity : 64;
    void *grown = realloc(named, capacity * sizeof(*named));
    if (grown == nullptr) {
      return;
    }
    named = static_cast<named_process *>(grown);
    named_capacity = capacity;
  }
  named[named_count++] = process;
}

enum listing { LISTED, NOT_OPENED, BROKEN_OFF };

static listing list_processes() {
  named_count = 0;
  const directory_handle proc(opendir(proc_directory));
  if (!proc) {
    return NOT_OPENED;
  }
  const int descriptor = dirfd(proc.get());
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(proc.get());
    if (entry == nullptr) {
      return errno == 0 ? LISTED : BROKEN_OFF;
    }
    const long pid = strtol(entry->d_name, nullptr, 10);
    char command[command_size];
    if (pid != 0 && read_command(descriptor, entry->d_name, command)) {
      keep_process(static_cast<pid_t>(pid), command);
    }
  }
}

// Returns 0, or -1 when the processes cannot be listed. Half a list would make peers look stopped,
// and then started anew, so what fails for a moment is tried again.
static int read_processes() {
  listing result = BROKEN_OFF;
  for (int tries = 0; tries < most_listings && result != LISTED; tries++) {
    result = list_processes();
  }
  if (result == NOT_OPENED) {
    agentlog_fprintf(stderr, "cannot opendir(%s)", proc_directory);  // without a newline
  } else if (result == BROKEN_OFF) {
    agentlog_fprintf(stderr, "cannot readdir(%s)\n", proc_directory);
  }
  read_at = monotonic_nanoseconds();
  return result == LISTED ? 0 : -1;
}

// Notes for the peers that a process matches whether it runs in another group than before.
static void note_process(peer *peers, uint32_t rows, pid_t pid) {
  const pid_t group = rows != 0 ? getpgid(pid) : -1;
  if (group < 0) {
    return;  // it has ended meanwhile
  }
  for (peer *p = peers; rows != 0; p++, rows >>= 1) {
    if ((rows & 1) == 0) {
      continue;
    }
    if (p->changed != 1) {
      p->changed = group != p->process_group;
    }
    p->process_group = group;
  }
}

// Brings process_group and changed of a table up to date after a reading that succeeded or not
// (then every peer counts as changed).
template <size_t N>
static void scan(peer (&peers)[N], uint32_t named_process::*rows, bool reading_succeeded) {
  for (peer &p : peers) {
    p.changed = being_scanned;
  }
  if (!reading_succeeded) {
    return;
  }
  for (size_t i = 0; i < named_count; i++) {
    note_process(peers, named[i].*rows, named[i].pid);
  }
  for (peer &p : peers) {
    if (p.changed == being_scanned) {
      p.changed = p.process_group != 0;
      p.process_group = 0;
      p.major = 0;
      p.minor = 0;
      p.condition = 0;
    }
  }
}

static void scan_status_peers() {
  left_for_health = read_processes() == 0;
  scan(status_peers, &named_process::status_rows, left_for_health);
}

static void scan_health_peers() {
  const bool fresh = left_for_health && monotonic_nanoseconds() - read_at <= reading_lasts;
  left_for_health = false;
  scan(health_peers, &named_process::health_rows, fresh || read_processes() == 0);
}

// ---- Asking the peers ---------------------------------------------------------------------------

// A peer whose data cannot be read counts as not running, so that the next scan finds it changed
// and it is asked again.
static void check(peer *p, int result) {
  if (result != 0 && p->index != appliance_index) {
    p->process_group = 0;
  }
}

static void read_revision(peer *p) {
  check(p, p->get_revision(p->revision_source, &p->major, &p->minor));
}

static void read_condition(peer *p) {
  check(p, p->get_condition(p->condition_source, &p->condition));
}

static unsigned char low_octet(int32_t value) {
  return static_cast<unsigned char>(value & 0xFF);
}

// ---- Entry points -------------------------------------------------------------------------------

void build_status_array(unsigned char array[STATUS_ARRAY_SIZE]) {
  scan_status_peers();
  int32_t worst = 0;
  for (peer &p : status_peers) {
    if (p.changed != 0) {
      read_revision(&p);
      read_condition(&p);
    }
    unsigned char *octets = array + 4 * p.index;
    octets[0] = p.process_group != 0;
    octets[1] = low_octet(p.condition);
    octets[2] = low_octet(p.major);
    octets[3] = low_octet(p.minor);
    if (p.condition > worst) {
      worst = p.condition;
    }
  }
  array[0] = 1;
  array[1] = low_octet(worst);
  array[2] = summary_mark;
}

// Which group judges a part of the health array.
struct judged_part {
  int32_t part;
  int32_t group;
};
static constexpr judged_part judged_parts[] = {
    {2, 1}, {3, 6},  {4, 6},  {5, 6},   {6, 6},   {7, 6},   {8, 6},
    {9, 3}, {10, 5}, {11, 8}, {12, 14}, {13, 16}, {14, 18}, {15, 9},
};

static int32_t condition_of_part(int32_t part) {
  for (const peer &p : health_peers) {
    if (p.index == part) {
      return p.condition;
    }
  }
  return 0;
}

bool get_peer(int place, peer_view *view) {
  if (place < 0 || place >= static_cast<int>(sizeof(status_peers) / sizeof(status_peers[0]))) {
    return false;
  }
  const peer &p = status_peers[place];
  *view = {p.index, p.process_group != 0, p.condition, p.major, p.minor, 0};
  for (const judged_part &judged : judged_parts) {
    const int32_t condition = judged.group == p.index ? condition_of_part(judged.part) : 0;
    if (condition > view->health) {
      view->health = condition;
    }
  }
  return true;
}

// Whether a component's condition counts towards octet 0 of the health array.
static bool counts_first(int32_t index) {
  return (index >= 2 && index <= 6) || index == 8 || index == 15;
}

void format_health_trap(const unsigned char array[STATUS_ARRAY_SIZE],
                        char text[HEALTH_TRAP_TEXT_SIZE]) {
  constexpr int octets_a_line = 16;
  int used =
      snprintf(text, HEALTH_TRAP_TEXT_SIZE, "tlxHoMibHealthStatusArray has changed to the value :");
  for (int i = 0; i < octets_a_line; i++) {
    used += snprintf(text + used, HEALTH_TRAP_TEXT_SIZE - used, "%s0%d", i > 0 ? " " : "",
                     static_cast<signed char>(array[i]));
  }
  // The rest of the array is always shown as zeros, whatever it holds.
  for (int line = 1; line < STATUS_ARRAY_SIZE / octets_a_line; line++) {
    used += snprintf(text + used, HEALTH_TRAP_TEXT_SIZE - used,
                     "\n00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
  }
}

void build_health_array(unsigned char array[STATUS_ARRAY_SIZE]) {
  scan_health_peers();
  const auto previous = static_cast<signed char>(array[1]);
  int32_t worst_first = 0;
  int32_t worst = 0;
  for (peer &p : health_peers) {
    if (p.changed != 0) {
      read_revision(&p);
    }
    read_condition(&p);
    array[p.index] = low_octet(p.condition);
    if (counts_first(p.index) && p.condition > worst_first) {
      worst_first = p.condition;
    }
    if (p.condition > worst) {
      worst = p.condition;
    }
  }
  array[0] = low_octet(worst_first);
  array[1] = low_octet(worst);
  if (static_cast<signed char>(array[1]) != previous && previous != 0) {
    char text[HEALTH_TRAP_TEXT_SIZE];
    format_health_trap(array, text);
    send_trap(nullptr, nullptr, 0, text, health_trap);
  }
}
