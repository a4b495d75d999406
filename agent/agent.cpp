// The agent's globals, hooks and options.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "agent/orders.h"
#include "agent/snmpd_watchdog.h"
#include "common/group.h"
#include "common/sources.h"
#include "common/util.h"
#include "detail/agent_state.h"
#include "monitors/filesys.h"
#include "platform/framework.h"

// Exported for the framework, which finds them by these names.
const char *agent;
int32_t poll_time;
char log_dir[80];
queue obj_Q;
unsigned char ignore_peer_stop;
// Expected by the framework; the Host Agent itself never uses them.
int32_t NicCondition;
int32_t PrevNicCondition;

// ---- Start-up and poll --------------------------------------------------------------------------

// The group that failed and ended it; null when all ran, or when the agent's end came in between:
// the groups after that are left out.
static const group *run_all(const group *const *order) {
  for (; *order != nullptr; order++) {
    if (agent_ending() != 0) {
      return nullptr;
    }
    if ((*order)->refresh() != 0 && agent_ending() == 0) {
      return *order;
    }
  }
  return nullptr;
}

// The result of a start that this group ends.
static int start_failed(const group *failed) {
  agentlog_fprintf(stderr, "%s: Start-up failed: the %s group could not be built\n", agent,
                   failed->title);
  return -1;
}

// The details for stations, each whatever became of the others. One line when the first that fails
// is another one than before, and one when all are refreshed again.
static void run_details() {
  static const group *reported;
  const group *failed = nullptr;
  for (const group *const *order = detail_order; *order != nullptr && agent_ending() == 0;
       order++) {
    if ((*order)->refresh() != 0 && failed == nullptr) {
      failed = *order;
    }
  }
  if (failed == reported || agent_ending() != 0) {
    return;
  }
  if (failed != nullptr) {
    agentlog_fprintf(stderr, "%s: The %s group failed, and is not refreshed\n", agent,
                     failed->title);
  } else {
    agentlog_fprintf(stderr, "%s: All groups of details are refreshed again\n", agent);
  }
  reported = failed;
}

// One line when polls begin to end early, or end at another group, and one when they are whole.
static void report_poll(const group *failed) {
  static const group *reported;
  if (failed == reported) {
    return;
  }
  if (failed != nullptr) {
    agentlog_fprintf(stderr,
                     "%s: The poll ended early: the %s group failed, and what follows it is not "
                     "refreshed\n",
                     agent, failed->title);
  } else {
    agentlog_fprintf(stderr, "%s: Polls are whole again\n", agent);
  }
  reported = failed;
}

// ---- Options ------------------------------------------------------------------------------------

static constexpr char options[] = "hp:s:t:iz";
static constexpr long longest_poll_time = 60;  // seconds

// -l is the framework's option and -z is not for everybody: the text has the one, not the other.
static void print_usage() {
  agentlog_fprintf(stderr, "USAGE %s: \n", agent);
  agentlog_fprintf(stderr, "  -l arg : Enable logging. Logfile is specified as argument\n");
  agentlog_fprintf(stderr, "  -p arg : Poll frequency (in seconds)\n");
  agentlog_fprintf(stderr, "  -i     : Ignore Peer stop message\n");
  agentlog_fprintf(stderr, "  -s arg : Configure MIB item 'sets':\n");
  agentlog_fprintf(stderr, "             OK     - enable sets\n");
  agentlog_fprintf(stderr, "             NOT_OK - disable sets\n");
  agentlog_fprintf(stderr, "  -t arg : Configure traps:\n");
  agentlog_fprintf(stderr, "             OK     - enable traps\n");
  agentlog_fprintf(stderr, "             NOT_OK - disable traps\n");
}

static int set_poll_option(const char *text) {
  const long seconds = strtol(text, nullptr, 10);
  if (seconds < 0) {
    agentlog_fprintf(stderr, "%s: Invalid polling rate  (PEER3002)\n", agent);
    return -1;
  }
  set_poll_time(static_cast<int>(seconds > longest_poll_time ? longest_poll_time : seconds));
  return 0;
}

// The value of -s and -t for the framework, which refuses 9999.
static int state_value(const char *text) {
  if (strcmp(text, "OK") == 0) {
    return 0;
  }
  return strcmp(text, "NOT_OK") == 0 ? -1 : 9999;
}

static int set_state_option(int (*configure)(int), const char *what, const char *text) {
  if (configure(state_value(text)) != 0) {
    agentlog_fprintf(stderr, "%s: Bad %s argument: %s  (PEER3005)\n", agent, what, text);
    return -1;
  }
  return 0;
}

static int read_options(int argc, char **argv) {
  opterr = 0;  // every message goes through the framework, getopt's own would not
  for (int option; (option = getopt(argc, argv, options)) != -1;) {
    int result = 0;
    switch (option) {
      case 'h':
        print_usage();
        return -1;
      case 'p':
        result = set_poll_option(optarg);
        break;
      case 's':
        result = set_state_option(cfg_set_state, "set", optarg);
        break;
      case 't':
        result = set_state_option(cfg_trap_state, "trap", optarg);
        break;
      case 'i':
        ignore_peer_stop = 1;
        break;
      case 'z':
        enable_snmpd_watchdog();
        break;
      default:
        agentlog_fprintf(stderr, "%s: Unknown command line option: %c  (PEER3022)\n", agent,
                         option);
        print_usage();
        return -1;
    }
    if (result != 0) {
      return -1;
    }
  }
  return 0;
}

// ---- Hooks --------------------------------------------------------------------------------------

// Seconds to wait at start-up for the machine to settle; once a process.
static unsigned start_delay = 5;

// Creates the agent's registry directory without what an earlier run left in it. Fails when another
// process has it: then nothing of it is touched, nor is it while it is not ours.
static int prepare_registry_directory() {
  snprintf(log_dir, sizeof(log_dir), "%s/%s", REGISTRY_ROOT, host_directory);
  const int claimed = claim_dir(log_dir);
  if (claimed < 0) {
    return -1;
  }
  create_dir(log_dir, 1);  // a failure shows, and is logged, when the objects are written
  if (claimed != 0) {
    return 0;
  }
  char contents[sizeof(log_dir) + 2];
  snprintf(contents, sizeof(contents), "%s/*", log_dir);
  if (remove_all_dir(contents) != 0) {
    agentlog_fprintf(stderr, "%s: Can't clear registry directory %s: %s\n", agent, log_dir,
                     strerror(errno));
  }
  return 0;
}

static void warn_without_community() {
  char *community = nullptr;
  if (find_community_string(&community) != nullptr) {
    free(community);
    return;
  }
  agentlog_fprintf(stderr, "Failed to find a community_string, trying to continue...\n");
}

int init_agent(int argc, char **argv) {
  if (argc <= 1) {
    agentlog_fprintf(stderr, "%s: Insufficient parameters  (PEER3001)\n", agent);
    return -1;
  }
  if (start_delay != 0) {
    sleep_whole(start_delay);
    start_delay = 0;
    if (agent_ending() != 0) {
      return 0;  // nothing has been made yet
    }
  }
  ignore_peer_stop = 1;
  if (read_options(argc, argv) != 0) {
    return -1;
  }
  // Not before the options: -h answers also while an agent runs.
  if (prepare_registry_directory() != 0) {
    return -1;
  }
  init_snmp_appname("vexhostd");
  warn_without_community();
  const group *failed = run_all(start_order);
  if (failed != nullptr) {
    return start_failed(failed);
  }
  if (agent_ending() != 0) {
    return 0;
  }
  check_snmpd_memory();
  failed = run_all(last_order);
  if (failed != nullptr) {
    return start_failed(failed);
  }
  run_details();
  return 0;
}

int get_data() {
  // No alarm may come due during the refresh: polls never overlap.
  alarm(0);
  const int64_t began = monotonic_milliseconds();
  const group *failed = run_all(poll_order);
  if (agent_ending() == 0) {
    report_poll(failed);
    note_poll(monotonic_milliseconds() - began, failed != nullptr);
    run_details();
    repair_objects();
    check_snmpd_memory();
  }
  alarm(static_cast<unsigned>(poll_time));
  return failed == nullptr ? 0 : -1;
}

int cleanup_agent() {
  alarm(0);
  remove_filesys_rows(nullptr);
  delete_obj(&obj_Q, nullptr, 0);
  // Other agents may still have their directories under the root.
  if (is_empty_dir(log_dir)) {
    remove_empty_dir(log_dir);
  }
  if (is_empty_dir(REGISTRY_ROOT)) {
    remove_empty_dir(REGISTRY_ROOT);
  }
  return 0;
}
