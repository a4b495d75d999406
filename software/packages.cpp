#include "software/packages.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>

#include "core/util.h"
#include "core/variables.h"
#include "platform/framework.h"
#include "software/components.h"
#include "software/swver.h"

// ---- Agent version: data block and variable ----------------------------------------------------

struct __attribute__((packed)) swverag_data {
  char version[51];
};
static_assert(sizeof(swverag_data) == 51);

static const variable agent_variables[] = {
    {"tlxHoSwVerAgentsVer", 51, VAR_DISPLAY_STRING, ACCESS_READ_ONLY,
     offsetof(swverag_data, version), nullptr},
};

// ---- State --------------------------------------------------------------------------------------

static registry_object *agent_version;  // null until created
static bool publish_agent_version;

// Whether to scan: the database's time at the last pass, and whether the last listing had no name.
static int64_t last_database_time;
static bool last_listing_empty = true;

static constexpr size_t listing_size = 98304;
static constexpr int most_names = 4096;

static char listing[listing_size];
static const char *listed[most_names];
static const char *refused[most_names];

// ---- Classes ------------------------------------------------------------------------------------

static const char *const origin_1_prefixes[] = {
    "qvdiags",     "kelmo",     "qvrelm",     "ucd-snmp",       "ucdsnmp",
    "net-snmp",    "glut",      "qvvenk",     "qvwebpan",       "qv-rmc",
    "qv-OpenIPMI", "tlx_cciss", "kmod-cciss", "kmod-qvarr",     "qvmouse",
    "qvrmccfg",    "vlan_init", "qv-health",  "qv-snmp-agents", "qv-webpan-templates",
};

static const char *const origin_2_prefixes[] = {"tlx_tlxarray", "tlx_tlxfc"};

static const char *const driver_prefixes[] = {
    "aic",
    "bcm5700",
    "bonding",
    "tlx_cciss",
    "kmod-cciss",
    "kmod-qvarr",
    "tlx_tlxarray",
    "tlx_tlxfc",
    "kmod-qv-netxtreme2",
    "qv-netxtreme2-kmp",
    "kmod-qv-nx_nic",
    "qv-nx_nic-kmp",
    "qv-igb",
    "qv-tg3",
    "qv-be2iscsi",
    "qv-be2net",
    "qv-mlnx",
    "e100",
    "lsi",
    "mpt",
    "vlan",
    "emu",
    "ql",
    "qv-rmc",
    "qv-OpenIPMI",
};

static const char *const agent_prefixes[] = {
    "vex", "tlxarrcfg", "kelmo", "qvdiags", "qvrelm", "qv-snmp-agents",
};

static const char *const other_prefixes[] = {
    "tlx", "glut", "qv", "ucd-snmp", "net-snmp", "ucdsnmp", "fibreutils",
};

static_assert(sizeof(origin_1_prefixes) / sizeof(*origin_1_prefixes) == 20);
static_assert(sizeof(driver_prefixes) / sizeof(*driver_prefixes) == 25);
static_assert(sizeof(agent_prefixes) / sizeof(*agent_prefixes) == 6);
static_assert(sizeof(other_prefixes) / sizeof(*other_prefixes) == 7);

static constexpr int class_origin = 256;

enum package_origin { ORIGIN_NONE = 0, ORIGIN_SUITE = 1, ORIGIN_ARRAY_DRIVER = 2 };

template <size_t N>
static bool begins_with_one_of(const char *name, const char *const (&prefixes)[N]) {
  for (const char *prefix : prefixes) {
    if (strncmp(name, prefix, strlen(prefix)) == 0) {
      return true;
    }
  }
  return false;
}

int classify_package(const char *name) {
  int type = 0;
  if (begins_with_one_of(name, driver_prefixes)) {
    type = SWVER_TYPE_DRIVER;
  } else if (begins_with_one_of(name, agent_prefixes)) {
    type = SWVER_TYPE_AGENT;
  } else if (begins_with_one_of(name, other_prefixes)) {
    type = SWVER_TYPE_OTHER;
  } else {
    return 0;
  }
  int origin = ORIGIN_NONE;
  if (begins_with_one_of(name, origin_2_prefixes)) {
    origin = ORIGIN_ARRAY_DRIVER;
  } else if (begins_with_one_of(name, origin_1_prefixes)) {
    origin = ORIGIN_SUITE;
  }
  return origin * class_origin + type;
}

// ---- Names --------------------------------------------------------------------------------------

int find_line(const char *path, const char *const *needles, int count) {
  const stream_handle file(fopen(path, "re"));
  if (!file) {
    return -1;
  }
  char line[254];
  while (fgets(line, sizeof(line), file.get()) != nullptr) {
    for (int i = 0; i < count; i++) {
      if (strstr(line, needles[i]) != nullptr) {
        return i;
      }
    }
  }
  return -1;
}

static constexpr char cpuinfo_path[] = "/proc/cpuinfo";
static const char *const cpu_makers[] = {"AuthenticAMD", "GenuineIntel"};
static const char *const amd_kernels[] = {"CONFIG_MK6=y", "CONFIG_MK7=y", "CONFIG_MK8=y"};

// The suffix of an array driver for 64-bit processors; null when neither the processor nor the
// kernel's configuration tells. Kept for the life of the process once found.
static const char *processor_suffix() {
  static const char *suffix;
  if (suffix != nullptr) {
    return suffix;
  }
  switch (find_line(cpuinfo_path, cpu_makers, 2)) {
    case 0:
      suffix = "_amd64";
      break;
    case 1:
      suffix = "_em64t";
      break;
    default:
      break;
  }
  utsname names;
  if (uname(&names) == 0) {
    char path[128];
    snprintf(path, sizeof(path), "/boot/config-%.63s", names.release);
    if (find_line(path, amd_kernels, 3) >= 0) {
      suffix = "_amd64";
    }
  }
  return suffix;
}

// Appends as much of the text as fits.
static void append(char (&buffer)[decorated_size], const char *text) {
  const size_t used = strlen(buffer);
  copy_field(buffer + used, decorated_size - used, text);
}

void decorate_name(char (&buffer)[decorated_size], const char *name, const char *architecture,
                   int origin) {
  copy_field(buffer, name);
  utsname names;
  if (architecture == nullptr) {
    architecture = uname(&names) == 0 ? names.machine : "";
  }
  if (origin == ORIGIN_NONE) {
    return;
  }
  if (origin == ORIGIN_ARRAY_DRIVER && strcmp(architecture, "x86_64") == 0) {
    const char *suffix = processor_suffix();
    append(buffer, suffix != nullptr ? suffix : "");
  } else if (origin == ORIGIN_ARRAY_DRIVER && strcmp(architecture, "athlon") == 0) {
    append(buffer, "amd32");
  } else if (strcmp(architecture, "i386") != 0 && strcmp(architecture, "i586") != 0 &&
             strcmp(architecture, "i686") != 0) {
    append(buffer, "_");
    append(buffer, architecture);
  }
}

// ---- Queries ------------------------------------------------------------------------------------

static constexpr char agent_version_command[] = "rpm -qa | grep -w qv-snmp | cut -d - -f4";
static constexpr char listing_command[] = "dpkg -la | grep ii | cut -d ' ' -f3";

// Two commands: the package's line of the list, key by key, and the architecture on a line of its
// own. The first leaves its last line open, hence the newline in the second.
static constexpr char query_head[] = "dpkg -l | grep ";
static constexpr char query_tail[] =
    " | awk '{print \"Name \" $2} {print \"Version \" $3} {ORS=\" \"; print \"Desc \"; "
    "for (j = 4; j <= NF; j++) print $j}'"
    "\n"
    "echo \"\nArch `dpkg --print-architecture`\"";
static constexpr size_t query_size = 256;
static constexpr size_t longest_name = 89;
static_assert(sizeof(query_head) - 1 + longest_name + sizeof(query_tail) == query_size);

int is_package_name(const char *name) {
  const size_t length = strspn(name,
                               "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                               "+.-_:~");
  return length > 0 && length <= longest_name && name[length] == '\0';
}

int read_package_answer(FILE *stream, package_answer *answer) {
  *answer = {};
  const struct {
    const char *key;
    const char **slot;
  } known[] = {
      {"Name", &answer->name},
      {"Version", &answer->version},
      {"Desc", &answer->description},
      {"Arch", &answer->architecture},
  };
  size_t used = 0;
  for (int read = 0; read < 4;) {
    const size_t left = used < sizeof(answer->texts) ? sizeof(answer->texts) - 1 - used : 0;
    char key[32];
    char value[256];
    if (left == 0 || fscanf(stream, "%31s %255[^\n]\n", key, value) != 2) {
      return -1;
    }
    for (const auto &k : known) {
      if (strcmp(key, k.key) == 0) {
        char *text = answer->texts + used;
        copy_field(text, left + 1, value);
        used += strlen(text) + 1;
        *k.slot = text;
        read++;
        break;
      }
    }
  }
  return 0;
}

int split_listing(char *text, size_t length, const char **names, int most) {
  int count = 0;
  char *start = text;
  char *const end = text + length;
  while (count < most) {
    char *newline = static_cast<char *>(memchr(start, '\n', static_cast<size_t>(end - start)));
    if (newline == nullptr) {
      break;
    }
    *newline = '\0';
    names[count++] = start;
    start = newline + 1;
  }
  return count;
}

// ---- Permanent part -----------------------------------------------------------------------------

// The first line that the command prints; what does not fit is read and dropped.
static int read_agent_version(char (&version)[20]) {
  const pipe_handle pipe(popen(agent_version_command, "re"));
  if (!pipe) {
    return -1;
  }
  size_t used = 0;
  for (int c = 0; (c = fgetc(pipe.get())) != EOF;) {
    if (used < sizeof(version) - 1) {
      version[used++] = c == '\n' ? '\0' : static_cast<char>(c);
    }
  }
  return 0;
}

static void create_agent_version() {
  publish_agent_version = true;
  if (agent_version != nullptr) {
    return;
  }
  char path[sizeof(log_dir) + 16];
  snprintf(path, sizeof(path), "%s/%s", log_dir, "swverag");
  agent_version = create_obj(&obj_Q, get_id(), path, 1, sizeof(swverag_data), 1);
  if (agent_version == nullptr) {
    return;
  }
  char version[20] = "";
  if (read_agent_version(version) != 0) {
    agentlog_fprintf(stderr, "vexhostd FAILED to read for agent swversion\n");
    return;
  }
  auto *data = reinterpret_cast<swverag_data *>(agent_version->data);
  copy_field(data->version, version);
  define_variables(agent_version, agent_variables);
}

static void create_components() {
  for (const swver_data *record = component_records(); record->index != 0; record++) {
    swver_row *row = swver_create(record->name);
    if (row == nullptr) {
      agentlog_fprintf(stderr, "%s: Can't %s object: %s  (PEER3023)\n", agent, "do_init",
                       record->name);
      return;
    }
    swver_data *data = swver_values(row);
    const int32_t index = data->index;
    *data = *record;
    data->index = index;
    row->changed = 0;
    row->state = SWVER_PERMANENT;
    log_data(row->object);
  }
}

static void create_appliance_software() {
  static const char *const keys[] = {"VcdbName", "VcdbVersion", "ProductName"};
  const char *values[3];
  for (int i = 0; i < 3; i++) {
    values[i] = static_cast<const char *>(get_appliance_data(keys[i]));
    if (values[i] == nullptr) {
      agentlog_fprintf(stderr, "do_swver_appliance: %s not found\n", keys[i]);
      return;
    }
  }
  const swver_item item = {values[0], values[1], values[2]};
  swver_put(&item, SWVER_TYPE_OTHER, SWVER_STATUS_FOUND, SWVER_PERMANENT);
}

// ---- Package scan -------------------------------------------------------------------------------

static constexpr char agent_package[] = "kelmo";
static constexpr int slow_scan = 10000;  // milliseconds

// Reads the installed packages' names into `listed`; their number, 0 when there is no listing.
static int list_packages() {
  const pipe_handle pipe(popen(listing_command, "re"));
  if (!pipe) {
    return 0;
  }
  const size_t length = fread(listing, 1, sizeof(listing) - 1, pipe.get());
  listing[length] = '\0';
  return split_listing(listing, length, listed, most_names);
}

static int query_package(const char *name, package_answer *answer) {
  char command[query_size];
  snprintf(command, sizeof(command), "%s%s%s", query_head, name, query_tail);
  const pipe_handle pipe(popen(command, "re"));
  if (!pipe) {
    return -1;
  }
  return read_package_answer(pipe.get(), answer);
}

static void set_agent_version(const char *version) {
  if (agent_version == nullptr) {
    return;
  }
  auto *data = reinterpret_cast<swverag_data *>(agent_version->data);
  copy_field(data->version, version);
  char *dash = strchr(data->version, '-');
  if (dash != nullptr) {
    memset(dash, 0, static_cast<size_t>(data->version + sizeof(data->version) - dash));
  }
  publish_agent_version = true;
}

static void scan_package(const char *name, int package_class) {
  package_answer answer;
  if (query_package(name, &answer) != 0 || answer.name == nullptr) {
    return;
  }
  char decorated[decorated_size];
  decorate_name(decorated, answer.name, answer.architecture, package_class / class_origin);
  char version[sizeof(answer.texts)];
  copy_field(version, answer.version != nullptr ? answer.version : "");
  char *kernel = strstr(version, ".linux");
  if (kernel != nullptr) {
    *kernel = '\0';
  }
  const swver_item item = {decorated, version,
                           answer.description != nullptr ? answer.description : ""};
  swver_put(&item, package_class % class_origin, SWVER_STATUS_FOUND, SWVER_SEEN);
  if (strcmp(decorated, agent_package) == 0) {
    set_agent_version(version);
  }
}

static int compare_names(const void *a, const void *b) {
  return strcmp(*static_cast<const char *const *>(a), *static_cast<const char *const *>(b));
}

// One message for each different name; they come from outside, so what cannot be printed is not.
static void report_refused(int count) {
  qsort(refused, static_cast<size_t>(count), sizeof(*refused), compare_names);
  for (int i = 0; i < count; i++) {
    if (i > 0 && strcmp(refused[i - 1], refused[i]) == 0) {
      continue;
    }
    char shown[128];
    copy_field(shown, refused[i]);
    for (char *c = shown; *c != '\0'; c++) {
      if (*c < ' ' || *c > '~') {
        *c = '?';
      }
    }
    agentlog_fprintf(stderr, "do_swver: not a package name, skipped: %s\n", shown);
  }
}

static int64_t monotonic_milliseconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

static void scan_packages() {
  const int64_t started = monotonic_milliseconds();
  swver_change_state(SWVER_SEEN, SWVER_NOT_SEEN);
  const int count = list_packages();
  int queried = 0;
  int refusals = 0;
  for (int i = 0; i < count; i++) {
    const int package_class = classify_package(listed[i]);
    if (package_class == 0) {
      continue;
    }
    const swver_row *row = swver_find(listed[i]);
    if (row != nullptr && row->state > SWVER_SEEN) {
      continue;
    }
    if (!is_package_name(listed[i])) {
      refused[refusals++] = listed[i];
      continue;
    }
    scan_package(listed[i], package_class);
    queried++;
  }
  report_refused(refusals);
  last_listing_empty = count == 0;
  const int64_t took = monotonic_milliseconds() - started;
  if (took > slow_scan) {
    agentlog_fprintf(stderr, "Info: scanning %d packages took %lld seconds\n", queried,
                     static_cast<long long>(took / 1000));
  }
}

// ---- Entry point --------------------------------------------------------------------------------

int do_swver() {
  if (swver_is_empty()) {
    create_agent_version();
    create_components();
    if (is_appliance()) {
      create_appliance_software();
    }
  }
  update_component_versions();

  struct stat database;
  const int64_t database_time = stat(package_database_path, &database) == 0 ? database.st_mtime : 1;
  if (last_listing_empty || last_database_time < database_time) {
    scan_packages();
  }
  last_database_time = database_time;

  swver_finish_pass();
  if (agent_version != nullptr && publish_agent_version) {
    publish_agent_version = false;
    log_data(agent_version);
  }
  return 0;
}
