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
  if (slot < object->var_count && object->desc[slot].size >= static_cast<int>(sizeof(value))) {
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

// A process and the rows whose peers its program path names, a bit each.
struct named_process {
  pid_t pid;
  uint32_t status_rows;
  uint32_t health_rows;
};

// A process whose command line could not be read in time. Whoever reads one waits for the lock of
// that process's memory, and its owner can keep that taken for as long as he likes.
struct held_process {
  named_process last;  // what it was before
  uint64_t start;      // tells it from a later process of that number; 0: unknown
  int64_t pause;       // milliseconds until it is asked again
  int64_t asked_at;
};

// Records that grow; those below are sorted by pid.
template <typename T>
struct records {
  T *items;
  size_t count;
  size_t capacity;

  // Makes room for so many in all. False without memory.
  bool reserve(size_t all) {
    size_t larger = capacity > 0 ? capacity : 64;
    while (larger < all) {
      larger *= 2;
    }
    if (larger != capacity && !grow(&items, larger)) {
      return false;
    }
    capacity = larger;
    return true;
  }
  // False without memory.
  bool add(const T &record) {
    if (!reserve(count + 1)) {
      return false;
    }
    items[count++] = record;
    return true;
  }
};

// The last reading of /proc. It costs 4 microseconds a process, so the health array, built right
// after the status array, takes the reading made for that one, unless peers that were asked in
// between took their time.
static constexpr int64_t reading_lasts = 200'000'000;  // nanoseconds
static records<named_process> named;                   // those that name a peer
static records<named_process> named_before;
static records<named_process> all_processes;  // all that /proc shows, without rows
static records<named_process> asked;          // in the order in which they are
static records<held_process> held;
static int64_t read_at;
static bool left_for_health;

static pid_t pid_of(const named_process &process) {
  return process.pid;
}

static pid_t pid_of(const held_process &process) {
  return process.last.pid;
}

// Of a pid and a record.
template <typename T>
static int compare_pid(const void *a, const void *b) {
  const pid_t first = *static_cast<const pid_t *>(a);
  const pid_t second = pid_of(*static_cast<const T *>(b));
  return (first > second) - (first < second);
}

template <typename T>
static int compare_pids(const void *a, const void *b) {
  const pid_t first = pid_of(*static_cast<const T *>(a));
  return compare_pid<T>(&first, b);
}

template <typename T>
static void sort(records<T> *them) {
  if (them->count > 1) {
    qsort(them->items, them->count, sizeof(T), compare_pids<T>);
  }
}

// Null when there is none.
template <typename T>
static T *find(const records<T> &them, pid_t pid) {
  return them.count > 0
             ? static_cast<T *>(bsearch(&pid, them.items, them.count, sizeof(T), compare_pid<T>))
             : nullptr;
}

// At most size - 1 bytes of a file of a process, as text. False and errno when it cannot be read.
static bool read_of_process(pid_t pid, const char *name, char *text, size_t size) {
  char path[64];
  snprintf(path, sizeof(path), "%s/%d/%s", proc_directory, static_cast<int>(pid), name);
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return false;
  }
  const ssize_t n = read(descriptor, text, size - 1);
  const int error = errno;
  close(descriptor);
  errno = error;
  text[n > 0 ? n : 0] = '\0';
  return n >= 0;
}

// When a process began, in ticks after the host; 0 when it cannot be read. Takes no lock of the
// process's memory.
static uint64_t start_of(pid_t pid) {
  constexpr int fields_after_name = 20;
  char stat[1024];
  if (!read_of_process(pid, "stat", stat, sizeof(stat))) {
    return 0;
  }
  // The name, in parentheses, may have blanks and parentheses.
  const char *field = strrchr(stat, ')');
  for (int i = 0; field != nullptr && i < fields_after_name; i++) {
    field = strchr(field + 1, ' ');
  }
  return field != nullptr ? strtoull(field, nullptr, 10) : 0;
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

static named_process match(pid_t pid, const char *command) {
  return {pid, matching_rows(status_peers, command), matching_rows(health_peers, command)};
}

// Keeps a process that names a peer.
static void keep_process(const named_process &process) {
  if ((process.status_rows | process.health_rows) != 0) {
    named.add(process);
  }
}

enum listing { LISTED, NOT_OPENED, BROKEN_OFF };

static listing list_processes() {
  all_processes.count = 0;
  const directory_handle proc(opendir(proc_directory));
  if (!proc) {
    return NOT_OPENED;
  }
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(proc.get());
    if (entry == nullptr) {
      const bool whole = errno == 0;
      // Each is asked once, and kept once, at most: nothing is missed for want of memory below.
      return whole && asked.reserve(all_processes.count) &&
                     named_before.reserve(all_processes.count)
                 ? LISTED
                 : BROKEN_OFF;
    }
    const long pid = strtol(entry->d_name, nullptr, 10);
    if (pid != 0 && !all_processes.add({static_cast<pid_t>(pid), 0, 0})) {
      return BROKEN_OFF;
    }
  }
}

// ---- Reading command lines ----------------------------------------------------------------------

static constexpr int most_waiting = 1000;  // milliseconds for one command line,
static constexpr int least_waiting = 50;
static constexpr int all_waiting = 2000;  // and for those of a listing
static constexpr int64_t shortest_pause = 30000;
static constexpr int64_t longest_pause = 600000;

// From which one of those that are asked.
static size_t asked_from;
// Where the next listing begins, since the last one had no time for it.
static pid_t next_asked;
// Each until all can be read again.
static bool held_told;
static bool failure_told;

// Forgets held processes that have ended.
static void forget_ended() {
  size_t left = 0;
  for (size_t i = 0; i < held.count; i++) {
    const held_process &process = held.items[i];
    const bool is_listed = find(all_processes, process.last.pid) != nullptr;
    const uint64_t start = is_listed && process.start != 0 ? start_of(process.last.pid) : 0;
    if (is_listed && (start == 0 || start == process.start)) {
      held.items[left++] = process;
    }
  }
  held.count = left;
}

// Its command line was read.
static void let_go(pid_t pid) {
  held_process *process = find(held, pid);
  if (process != nullptr) {
    held.count--;
    memmove(process, process + 1,
            static_cast<size_t>(held.items + held.count - process) * sizeof(*process));
  }
}

// What a process was at the last reading: without rows when it was none that names a peer.
static named_process as_before(pid_t pid) {
  const held_process *process = find(held, pid);
  if (process != nullptr) {
    return process->last;
  }
  const named_process *before = find(named_before, pid);
  return before != nullptr ? *before : named_process{pid, 0, 0};
}

// A step of run_apart(). The program path is the first line, at most, of a command line (proc(5):
// arguments end in NUL). With ten thousand processes a reading must stay in the tens of
// milliseconds. One that cannot be read for a moment counts as it did before.
static void read_command(size_t at, void *result) {
  char command[command_size];
  const pid_t pid = asked.items[asked_from + at].pid;
  if (read_of_process(pid, "cmdline", command, sizeof(command))) {
    command[strcspn(command, "\n")] = '\0';
    const named_process process = match(pid, command);
    memcpy(result, &process, sizeof(process));
  } else if (may_pass(errno)) {
    const named_process process = as_before(pid);
    memcpy(result, &process, sizeof(process));
  }
}

// Its command line was not read in time.
static void hold(pid_t pid) {
  const int64_t now = monotonic_milliseconds();
  held_process *process = find(held, pid);
  if (process != nullptr) {
    process->asked_at = now;
    process->pause = process->pause < longest_pause / 2 ? 2 * process->pause : longest_pause;
    return;
  }
  // Without memory it is asked again by the next listing.
  held.add({as_before(pid), start_of(pid), shortest_pause, now});
  sort(&held);
  if (!held_told) {
    agentlog_fprintf(stderr,
                     "Info: process %d keeps its command line from being read; such a process "
                     "counts as it was before, and is asked less and less often\n",
                     static_cast<int>(pid));
    held_told = true;
  }
}

// Puts the processes in order: first those that nothing is known against, from where the last
// listing had no more time, then the held ones that have been left alone for long enough. The other
// held ones count as they were.
static void choose_asked() {
  asked.count = 0;
  size_t first = 0;
  while (first < all_processes.count && all_processes.items[first].pid < next_asked) {
    first++;
  }
  for (size_t i = 0; i < all_processes.count; i++) {
    const named_process &process = all_processes.items[(first + i) % all_processes.count];
    if (held.count == 0 || find(held, process.pid) == nullptr) {
      asked.add(process);
    }
  }
  const int64_t now = monotonic_milliseconds();
  for (size_t i = 0; i < held.count; i++) {
    const held_process &process = held.items[i];
    if (now - process.asked_at < process.pause) {
      keep_process(process.last);
    } else {
      asked.add(process.last);
    }
  }
}

// How long one process is waited for: the more are held, the likelier it is that the next one is,
// too.
static int patience() {
  const int waiting = most_waiting / static_cast<int>(1 + held.count);
  return waiting > least_waiting ? waiting : least_waiting;
}

// Has the command lines read by children, which can be killed when one holds them up. Returns 0, or
// the error for which no child could do so.
static int ask_processes(named_process *results) {
  const int64_t until = monotonic_milliseconds() + all_waiting;
  asked_from = 0;
  while (asked_from < asked.count) {
    const int64_t left = until - monotonic_milliseconds();
    if (left <= 0) {
      return 0;
    }
    const size_t done = run_apart(read_command, asked.count - asked_from, results, sizeof(*results),
                                  patience(), static_cast<int>(left));
    const int error = errno;
    for (size_t i = 0; i < done; i++) {
      keep_process(results[i]);
      if (held.count > 0) {
        let_go(asked.items[asked_from + i].pid);
      }
    }
    asked_from += done;
    if (asked_from == asked.count) {
      return 0;
    }
    if (error == ETIMEDOUT) {
      const pid_t pid = asked.items[asked_from++].pid;
      hold(pid);
      keep_process(as_before(pid));
    } else if (error == EINTR) {
      return 0;
    } else if (error != EAGAIN && error != ETIME) {
      return error;
    }
  }
  return 0;
}

// Finds the processes that name a peer. One that nobody could ask counts as it was before:
// a peer must not look stopped, and then started anew, by that.
static void read_commands() {
  const records<named_process> before = named_before;
  named_before = named;
  named = before;
  named.count = 0;
  sort(&all_processes);
  forget_ended();
  choose_asked();
  asked_from = 0;
  const freeing<named_process> results(
      static_cast<named_process *>(calloc(asked.count + 1, sizeof(named_process))));
  const int error = results ? ask_processes(results.get()) : ENOMEM;
  next_asked = asked_from < asked.count ? asked.items[asked_from].pid : 0;
  for (; asked_from < asked.count; asked_from++) {
    keep_process(as_before(asked.items[asked_from].pid));
  }
  sort(&named);
  if (error != 0 && !failure_told) {
    agentlog_fprintf(stderr, "Cannot read the command lines of processes: %s\n", strerror(error));
    failure_told = true;
  } else if (error == 0 && next_asked == 0 && held.count == 0 && (held_told || failure_told)) {
    agentlog_fprintf(stderr, "Info: the command lines of all processes can be read again\n");
    held_told = false;
    failure_told = false;
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
  } else {
    read_commands();
  }
  read_at = monotonic_nanoseconds();
  return result == LISTED ? 0 : -1;
}

// ---- Who runs -----------------------------------------------------------------------------------

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
  for (size_t i = 0; i < named.count; i++) {
    note_process(peers, named.items[i].*rows, named.items[i].pid);
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

// Which group judges a part of the health array, by the part's index; the parts begin at 2.
static constexpr int32_t judging_groups[] = {0, 0, 1, 6, 6, 6, 6, 6, 6, 3, 5, 8, 14, 16, 18, 9};

bool get_peer(int place, peer_view *view) {
  if (place < 0 || place >= static_cast<int>(sizeof(status_peers) / sizeof(status_peers[0]))) {
    return false;
  }
  const peer &p = status_peers[place];
  *view = {p.index, p.process_group != 0, p.condition, p.major, p.minor, 0};
  for (const peer &part : health_peers) {
    if (judging_groups[part.index] == p.index && part.condition > view->health) {
      view->health = part.condition;
    }
  }
  return true;
}

// Whether the condition of a part counts towards octet 0 of the health array.
static bool counts_first(int32_t index) {
  return index <= 6 || index == 8 || index == 15;
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
