#include "software/packages.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include "common/group.h"
#include "common/sources.h"
#include "common/util.h"
#include "platform/framework.h"
#include "software/components.h"
#include "software/swver.h"

// ---- Agent version: data block and variable -----------------------------------------------------

struct [[gnu::packed]] swverag_data {
  char version[51];
};
static_assert(sizeof(swverag_data) == 51);

static constexpr variable agent_version_variables[] = {
    READ_ONLY("tlxHoSwVerAgentsVer", swverag_data, version),
};

constexpr group swverag_group = described<swverag_data>({
    .name = "swverag",
    .title = "agent version",
    .flag = 1,
    .variables = agent_version_variables,
    .refresh = nullptr,
    .each_poll = false,
    .absence = "the version of the agents' package could not be asked",
});

// ---- State --------------------------------------------------------------------------------------

static registry_object *agent_version;  // null until created
static bool publish_agent_version;
static bool agent_version_defined;
static bool agent_version_from_package;
static bool agent_version_missed;  // a scan found it before its object was there
static tool_patience rpm_patience;

// Whether to scan: the database's time at the last pass, whether the last listing had no name, and
// whether a scan is due for one of these reasons.
static int64_t last_database_time;
static bool last_listing_empty = true;
static bool scan_due;

// What later passes are to make, because there was no memory for it.
static const swver_data *missing_component;  // the first that is still to be made, or null
static bool is_appliance_software_missing;

// From this status on a signal has ended the shell: what it said is no answer.
static constexpr int ended_by_signal = 128;

// What all package tools of one pass may take together. A pass asks no further question when half
// of it is gone, so that each gets the other half at the least: a scan that needs more is continued
// by the next pass, and only a tool that hangs is cut off.
static constexpr int tools_limit = 10000;  // milliseconds
static constexpr int least_limit = tools_limit / 2;
// What rpm may take of it where dpkg is asked in the same pass.
static constexpr int rpm_share = tools_limit * 2 / 5;

static constexpr size_t listing_size = 98304;
static constexpr int most_names = 4096;

static char listing[listing_size];
static const char *listed[most_names];
static char answer_text[1024 * 1024];

// The scan under way. A tool that hung leaves it where it is.
static struct {
  bool under_way;
  bool hung;     // reported
  int names;     // in `listed`
  int next;      // the first of them that is not done
  int queried;   // with an answer, usable or not
  int unusable;  // answers that were not
  int refused;   // names that were not asked for
  int64_t took;  // milliseconds
} scan;
static tool_patience dpkg_patience;

// ---- Classes ------------------------------------------------------------------------------------

static constexpr const char *origin_1_prefixes[] = {
    "qvdiags",     "kelmo",     "qvrelm",     "ucd-snmp",       "ucdsnmp",
    "net-snmp",    "glut",      "qvvenk",     "qvwebpan",       "qv-rmc",
    "qv-OpenIPMI", "tlx_cciss", "kmod-cciss", "kmod-qvarr",     "qvmouse",
    "qvrmccfg",    "vlan_init", "qv-health",  "qv-snmp-agents", "qv-webpan-templates",
};

static constexpr const char *origin_2_prefixes[] = {"tlx_tlxarray", "tlx_tlxfc"};

static constexpr const char *driver_prefixes[] = {
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

static constexpr const char *agent_prefixes[] = {
    "vex", "tlxarrcfg", "kelmo", "qvdiags", "qvrelm", "qv-snmp-agents",
};

static constexpr const char *other_prefixes[] = {
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
    return may_pass(errno) ? LINES_UNREADABLE : NO_LINE;
  }
  char line[254];
  while (fgets(line, sizeof(line), file.get()) != nullptr) {
    for (int i = 0; i < count; i++) {
      if (strstr(line, needles[i]) != nullptr) {
        return i;
      }
    }
  }
  return ferror(file.get()) != 0 ? LINES_UNREADABLE : NO_LINE;
}

static constexpr const char *cpu_makers[] = {"AuthenticAMD", "GenuineIntel"};
static constexpr const char *amd_kernels[] = {"CONFIG_MK6=y", "CONFIG_MK7=y", "CONFIG_MK8=y"};

// A name was built without what could not be read.
static bool suffix_unread;

// The suffix of an array driver for 64-bit processors; null when neither the processor nor the
// kernel's configuration tells. Kept for the life of the process once found.
static const char *processor_suffix() {
  static const char *suffix;
  if (suffix != nullptr) {
    return suffix;
  }
  const char *found = nullptr;
  const int maker = find_line(processors_path, cpu_makers, 2);
  if (maker >= 0) {
    found = maker == 0 ? "_amd64" : "_em64t";
  }
  int kernel = NO_LINE;
  utsname names;
  if (uname(&names) == 0) {
    char path[128];
    snprintf(path, sizeof(path), "%s%.63s", kernel_configuration_prefix, names.release);
    kernel = find_line(path, amd_kernels, 3);
    if (kernel >= 0) {
      found = "_amd64";
    }
  }
  suffix_unread = maker == LINES_UNREADABLE || kernel == LINES_UNREADABLE;
  if (!suffix_unread) {
    suffix = found;
  }
  return found;
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

// The length of what a package's name can have.
static size_t plain_length(const char *name) {
  return strspn(name,
                "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                "+.-_:~");
}

int check_package_name(const char *name) {
  const size_t length = plain_length(name);
  if (length == 0 || name[length] != '\0') {
    return NAME_WITH_WRONG_CHARACTER;
  }
  return length > longest_name ? NAME_TOO_LONG : NAME_USABLE;
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

// ---- Patience -----------------------------------------------------------------------------------

static constexpr int64_t first_pause = 30000;     // milliseconds
static constexpr int64_t longest_pause = 600000;  // milliseconds

bool may_ask(const tool_patience &patience, int64_t now) {
  return now >= patience.next;
}

void lose_patience(tool_patience *patience, int64_t now) {
  const int64_t longer = patience->pause == 0 ? first_pause : 2 * patience->pause;
  patience->pause = longer < longest_pause ? longer : longest_pause;
  patience->next = now + patience->pause;
}

void regain_patience(tool_patience *patience) {
  *patience = {};
}

// ---- Agent version ------------------------------------------------------------------------------

// Asks rpm, once it is known for the last time. A failure is reported when it begins.
static void find_agent_version(const shared_limit &limit, bool dpkg_is_next) {
  static bool reported;
  if (agent_version == nullptr || agent_version_defined ||
      !may_ask(rpm_patience, monotonic_milliseconds())) {
    return;
  }
  char version[20] = "";
  size_t length = 0;
  const int status = run_command(agent_version_command, dpkg_is_next ? rpm_share : limit.left(),
                                 version, sizeof(version), &length);
  if (status == COMMAND_AGENT_ENDING) {
    return;
  }
  if (status < 0 || status >= ended_by_signal) {
    if (status == COMMAND_TIMED_OUT) {
      lose_patience(&rpm_patience, monotonic_milliseconds());
    }
    if (!reported) {
      agentlog_fprintf(stderr, "vexhostd FAILED to read for agent swversion\n");
    }
    reported = true;
    return;
  }
  // The first line; rpm's word counts until a scan has found the package.
  version[strcspn(version, "\n")] = '\0';
  auto *data = reinterpret_cast<swverag_data *>(agent_version->data);
  if (!agent_version_from_package) {
    copy_field(data->version, version);
  }
  define_variables(agent_version, swverag_group.variables);
  agent_version_defined = true;
  publish_agent_version = true;
}

static void set_agent_version(const char *version) {
  if (agent_version == nullptr) {
    agent_version_missed = true;
    return;
  }
  auto *data = reinterpret_cast<swverag_data *>(agent_version->data);
  copy_field(data->version, version);
  char *dash = strchr(data->version, '-');
  if (dash != nullptr) {
    memset(dash, 0, static_cast<size_t>(data->version + sizeof(data->version) - dash));
  }
  agent_version_from_package = true;
  publish_agent_version = true;
}

// ---- Permanent part -----------------------------------------------------------------------------

static void create_agent_version() {
  publish_agent_version = true;
  agent_version = create_undefined_object(swverag_group);
  if (agent_version != nullptr && agent_version_missed) {
    scan_due = true;
    agent_version_missed = false;
  }
}

// What could not be made is tried again by the next pass.
static void create_components() {
  for (; missing_component->index != 0; missing_component++) {
    const swver_data *record = missing_component;
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
    row->state = SWVER_PERMANENT;
    row->judged = record->type;
    row->changed = log_data(row->object) != 0;  // else the end of the pass publishes it
  }
  missing_component = nullptr;
}

static void create_appliance_software() {
  static constexpr const char *keys[] = {"VcdbName", "VcdbVersion", "ProductName"};
  const char *values[3];
  for (int i = 0; i < 3; i++) {
    values[i] = static_cast<const char *>(get_appliance_data(keys[i]));
    if (values[i] == nullptr) {
      agentlog_fprintf(stderr, "do_swver_appliance: %s not found\n", keys[i]);
      is_appliance_software_missing = false;
      return;
    }
  }
  const swver_item item = {values[0], values[1], values[2]};
  is_appliance_software_missing =
      swver_put(&item, SWVER_TYPE_OTHER, SWVER_STATUS_FOUND, SWVER_PERMANENT) != 0;
}

// ---- Package scan -------------------------------------------------------------------------------

static constexpr char agent_package[] = "kelmo";
static constexpr int64_t slow_scan = 10000;  // milliseconds

// What became of a question to a package tool.
enum tool_result { TOOL_ANSWERED, TOOL_NOT_RUN, TOOL_KILLED, TOOL_HUNG, TOOL_ENDING };

static tool_result ask(const char *command, const shared_limit &limit, char *output, size_t size,
                       size_t *length) {
  const int64_t begun = monotonic_milliseconds();
  const int status = run_command(command, limit.left(), output, size, length);
  scan.took += monotonic_milliseconds() - begun;
  switch (status) {
    case COMMAND_NOT_RUN:
      return TOOL_NOT_RUN;
    case COMMAND_TIMED_OUT:
      return TOOL_HUNG;
    case COMMAND_AGENT_ENDING:
      return TOOL_ENDING;
    default:
      return status >= ended_by_signal ? TOOL_KILLED : TOOL_ANSWERED;
  }
}

// Reads the installed packages' names into `listed`.
static tool_result list_packages(const shared_limit &limit) {
  size_t length = 0;
  const tool_result result = ask(listing_command, limit, listing, sizeof(listing), &length);
  scan.names = result == TOOL_ANSWERED ? split_listing(listing, length, listed, most_names) : 0;
  return result;
}

// *status is read_package_answer()'s once the tool has answered.
static tool_result query_package(const char *name, const shared_limit &limit,
                                 package_answer *answer, int *status) {
  char command[query_size];
  snprintf(command, sizeof(command), "%s%s%s", query_head, name, query_tail);
  size_t length = 0;
  const tool_result result = ask(command, limit, answer_text, sizeof(answer_text), &length);
  if (result != TOOL_ANSWERED) {
    return result;
  }
  const stream_handle stream(fmemopen(answer_text, length, "r"));
  if (!stream) {
    return TOOL_NOT_RUN;
  }
  *status = read_package_answer(stream.get(), answer);
  return TOOL_ANSWERED;
}

static tool_result scan_package(const char *name, int package_class, const shared_limit &limit) {
  package_answer answer;
  int status = -1;
  const tool_result result = query_package(name, limit, &answer, &status);
  if (result != TOOL_ANSWERED) {
    return result;
  }
  scan.queried++;
  if (status != 0 || answer.name == nullptr) {
    scan.unusable++;
    return TOOL_ANSWERED;
  }
  char decorated[decorated_size];
  suffix_unread = false;
  decorate_name(decorated, answer.name, answer.architecture, package_class / class_origin);
  scan_due = scan_due || suffix_unread;  // the next pass may read it
  char version[sizeof(answer.texts)];
  copy_field(version, answer.version != nullptr ? answer.version : "");
  char *kernel = strstr(version, ".linux");
  if (kernel != nullptr) {
    *kernel = '\0';
  }
  const swver_item item = {decorated, version,
                           answer.description != nullptr ? answer.description : ""};
  if (swver_put(&item, package_class % class_origin, SWVER_STATUS_FOUND, SWVER_SEEN) != 0) {
    scan_due = true;
  }
  if (strcmp(decorated, agent_package) == 0) {
    set_agent_version(version);
  }
  return TOOL_ANSWERED;
}

static int compare_names(const void *a, const void *b) {
  return strcmp(*static_cast<const char *const *>(a), *static_cast<const char *const *>(b));
}

static bool is_permanent(const char *name) {
  const swver_row *row = swver_find(name);
  return row != nullptr && row->state > SWVER_SEEN;
}

// Whether a listed name is one to ask for, were it usable.
static bool is_wanted(const char *name) {
  return classify_package(name) != 0 && !is_permanent(name);
}

// One message for each different name; they come from outside, so what cannot be printed is not,
// nor what is not ASCII, which no package's name has.
static void report_refused() {
  static const char *refused[most_names];
  int count = 0;
  for (int i = 0; i < scan.names; i++) {
    if (is_wanted(listed[i]) && check_package_name(listed[i]) != NAME_USABLE) {
      refused[count++] = listed[i];
    }
  }
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
    if (check_package_name(refused[i]) == NAME_TOO_LONG) {
      agentlog_fprintf(stderr, "do_swver: package name too long, skipped: %s\n", shown);
    } else {
      agentlog_fprintf(stderr, "do_swver: not a package name, skipped: %s (character 0x%02x)\n",
                       shown, static_cast<unsigned char>(refused[i][plain_length(refused[i])]));
    }
  }
  scan.refused = count;
}

// The whole listing has been gone through: only now do rows that it does not name become ones that
// were not seen.
static void end_scan() {
  swver_change_state(SWVER_LISTED, SWVER_NOT_SEEN);
  if (scan.unusable + scan.refused > 0) {
    agentlog_fprintf(stderr,
                     "do_swver: packages that could not be reported: %d (%d without a usable "
                     "answer, %d without a usable name)\n",
                     scan.unusable + scan.refused, scan.unusable, scan.refused);
  }
  if (scan.took > slow_scan) {
    agentlog_fprintf(stderr, "Info: scanning %d packages took %lld seconds\n", scan.queried,
                     static_cast<long long>(scan.took / 1000));
  }
  if (scan.hung) {
    agentlog_fprintf(stderr, "do_swver: the package scan came to its end\n");
  }
  scan = {};
}

// The scan stays where it is, and the rows of the one before stay.
static void suspend_scan() {
  lose_patience(&dpkg_patience, monotonic_milliseconds());
  if (!scan.hung) {
    agentlog_fprintf(stderr,
                     "do_swver: a package tool hangs; the rows of the last scan stay, and this one "
                     "is tried again less and less often\n");
  }
  scan.hung = true;
}

// True when the scan may go on. A listing that could not be started has no names.
static bool begin_scan(const shared_limit &limit) {
  switch (list_packages(limit)) {
    case TOOL_ENDING:
    case TOOL_KILLED:  // the next pass lists anew
      return false;
    case TOOL_HUNG:
      suspend_scan();
      return false;
    default:
      break;
  }
  regain_patience(&dpkg_patience);
  scan.under_way = true;
  scan_due = false;
  last_listing_empty = scan.names == 0;
  swver_change_state(SWVER_SEEN, SWVER_LISTED);
  report_refused();
  return true;
}

static void scan_packages(const shared_limit &limit) {
  if (limit.left() < least_limit || (!scan.under_way && !begin_scan(limit))) {
    return;
  }
  for (; scan.next < scan.names; scan.next++) {
    const char *name = listed[scan.next];
    if (!is_wanted(name) || check_package_name(name) != NAME_USABLE) {
      continue;
    }
    if (limit.left() < least_limit) {
      return;  // continued by the next pass
    }
    switch (scan_package(name, classify_package(name), limit)) {
      case TOOL_ENDING:
        return;
      case TOOL_HUNG:
        suspend_scan();
        return;
      case TOOL_NOT_RUN:
      case TOOL_KILLED:
        scan.unusable++;
        scan_due = true;  // and not only when the database changes
        break;
      default:
        regain_patience(&dpkg_patience);
    }
  }
  end_scan();
}

// ---- Entry point --------------------------------------------------------------------------------

// Whether this pass asks dpkg.
static bool is_scan_wanted() {
  struct stat database;
  const int64_t database_time = stat(package_database_path, &database) == 0 ? database.st_mtime : 1;
  if (last_listing_empty || last_database_time < database_time) {
    scan_due = true;
  }
  last_database_time = database_time;
  return (scan_due || scan.under_way) && may_ask(dpkg_patience, monotonic_milliseconds());
}

// Tools that both hang are asked in the same pass, so that they delay one instead of two.
static void wait_together() {
  const int64_t now = monotonic_milliseconds();
  if (may_ask(rpm_patience, now) || may_ask(dpkg_patience, now)) {
    return;
  }
  const int64_t later =
      rpm_patience.next > dpkg_patience.next ? rpm_patience.next : dpkg_patience.next;
  rpm_patience.next = later;
  dpkg_patience.next = later;
}

int do_swver() {
  const shared_limit limit(tools_limit);
  if (agent_version == nullptr) {
    create_agent_version();
  }
  const bool scan_wanted = is_scan_wanted();
  find_agent_version(limit, scan_wanted);
  if (swver_is_empty()) {
    missing_component = component_records();
    is_appliance_software_missing = is_appliance();
  }
  if (missing_component != nullptr) {
    create_components();
  }
  if (is_appliance_software_missing) {
    create_appliance_software();
  }
  update_component_versions();
  if (scan_wanted) {
    scan_packages(limit);
  }
  wait_together();

  swver_finish_pass();
  if (agent_version != nullptr && publish_agent_version) {
    publish_agent_version = log_data(agent_version) != 0;
  }
  return 0;
}
