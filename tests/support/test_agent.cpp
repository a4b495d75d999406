// An agent for tests of the framework: its own hooks over libvexcommon, with variables of the MIB
// modules. At each poll it does what /run/made-up/orders says, a line an order, and logs what came
// of it:
//   name TEXT           publishes the object host/test with tlxHoName TEXT
//   pair COUNT          publishes host/test COUNT times; tlxHoName and tlxHoDesc count on together
//   rows FIRST COUNT    creates that many rows host/row.N (tlxHoSwVerIndex, ...Name)
//   delete N            deletes the row host/row.N
//   trap COUNT          sends that many notifications 11003, described as "trap I"
//   wait SECONDS        does not come back for so long
//   command TEXT        process_linux_cmd(), popen TEXT: the same by popen()
//   query OID           get_one_snmp_integer_from_api() on loopback
//   period SECONDS      set_poll_time()
// Its set handlers log each call. What they do with a value is written at set_number().
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "platform/framework.h"

const char *agent;
int32_t poll_time;
char log_dir[80];
queue obj_Q;
unsigned char ignore_peer_stop;
int32_t NicCondition;
int32_t PrevNicCondition;

namespace {

constexpr char kOrders[] = "/run/made-up/orders";
constexpr char kRegistry[] = "/var/spool/quorix/kelmo/registry/host";

struct Block {
  char name[256];
  char description[256];
  int32_t number;
  char role[65];
  char detail[513];
  uint8_t guid[16];
  char text[255];
};

struct Row {
  int32_t index;
  char name[128];
};

registry_object *test_object;
int traps_sent;

void Pause(double seconds) {
  timespec left{
      static_cast<time_t>(seconds),
      static_cast<long>((seconds - static_cast<double>(static_cast<time_t>(seconds))) * 1e9)};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

// 13 is refused by the check, 14 by the apply; 21 stalls the check for two seconds, 22 the apply;
// everything else is stored.
int set_number(uint8_t phase, registry_object *, descriptor *desc, const void *value, int length) {
  int32_t number = 0;
  memcpy(&number, value, sizeof(number));
  agentlog_fprintf(stderr, "number %s %d length %d slot %d\n",
                   phase == SET_CHECK ? "check" : "apply", number, length, desc->slot);
  if (phase == SET_CHECK) {
    if (number == 21) {
      Pause(2);
    }
    return number == 13 ? -1 : 0;
  }
  if (number == 22) {
    Pause(2);
  }
  if (number == 14) {
    return -1;
  }
  memcpy(desc->value, &number, sizeof(number));
  return 0;
}

// Stores the text in capitals; refuses an empty one.
int set_role(uint8_t phase, registry_object *, descriptor *desc, const void *value, int length) {
  const char *text = static_cast<const char *>(value);
  agentlog_fprintf(stderr, "role %s '%s' length %d\n", phase == SET_CHECK ? "check" : "apply", text,
                   length);
  if (length == 0) {
    return -1;
  }
  if (phase != SET_CHECK) {
    char *to = static_cast<char *>(desc->value);
    for (int i = 0; i <= length; i++) {
      to[i] = static_cast<char>(text[i] >= 'a' && text[i] <= 'z' ? text[i] - 32 : text[i]);
    }
  }
  return 0;
}

void CreateRow(int number) {
  char path[128];
  snprintf(path, sizeof(path), "%s/row.%d", kRegistry, number);
  registry_object *row = create_obj(&obj_Q, get_id(), path, 1, sizeof(Row), 2);
  if (row == nullptr) {
    agentlog_fprintf(stderr, "no row %d\n", number);
    return;
  }
  auto *data = reinterpret_cast<Row *>(row->data);
  data->index = row->instance;
  snprintf(data->name, sizeof(data->name), "row %d", number);
  init_info(0, &row->desc[0], "tlxHoSwVerIndex", 4, VAR_INTEGER, ACCESS_READ_ONLY, 1, &data->index,
            nullptr);
  init_info(1, &row->desc[1], "tlxHoSwVerName", sizeof(data->name), VAR_DISPLAY_STRING,
            ACCESS_WRITABLE, 1, data->name, nullptr);
  log_data(row);
}

void LogOutput(FILE *output) {
  char line[4096];
  while (output != nullptr && fgets(line, sizeof(line), output) != nullptr) {
    agentlog_fprintf(stderr, "output: %s", line);
  }
}

void Obey(char *order) {
  auto *data = reinterpret_cast<Block *>(test_object->data);
  char *words = strchr(order, ' ');
  if (words == nullptr) {
    return;
  }
  *words++ = 0;
  if (strcmp(order, "name") == 0) {
    snprintf(data->name, sizeof(data->name), "%s", words);
    log_data(test_object);
  } else if (strcmp(order, "pair") == 0) {
    for (int i = 0; i < atoi(words); i++) {
      snprintf(data->name, sizeof(data->name), "publication %d", i);
      snprintf(data->description, sizeof(data->description), "publication %d", i);
      log_data(test_object);
    }
  } else if (strcmp(order, "rows") == 0) {
    int first = 0, count = 0;
    sscanf(words, "%d %d", &first, &count);
    for (int i = 0; i < count; i++) {
      CreateRow(first + i);
    }
  } else if (strcmp(order, "delete") == 0) {
    char name[64];
    snprintf(name, sizeof(name), "host/row.%s", words);
    registry_object *row = find_obj(&obj_Q, 0, name);
    int result = row == nullptr ? -2 : delete_obj(&obj_Q, row, 0);
    agentlog_fprintf(stderr, "deleted: %d\n", result);
  } else if (strcmp(order, "trap") == 0) {
    const int slots[] = {0, 2};
    int refused = 0;
    for (int i = 0; i < atoi(words); i++) {
      char text[64];
      snprintf(text, sizeof(text), "trap %d", ++traps_sent);
      refused += send_trap(test_object, slots, 2, text, 11003) != 0;
    }
    agentlog_fprintf(stderr, "traps refused: %d\n", refused);
  } else if (strcmp(order, "wait") == 0) {
    Pause(atof(words));
  } else if (strcmp(order, "command") == 0) {
    char output[4096];
    int length = sizeof(output);
    int status = process_linux_cmd(words, output, &length);
    agentlog_fprintf(stderr, "command: %d, %d bytes: %s\n", status, length, output);
  } else if (strcmp(order, "popen") == 0) {
    FILE *output = popen(words, "r");
    LogOutput(output);
    if (output != nullptr) {
      agentlog_fprintf(stderr, "popen: %d\n", pclose(output));
    }
  } else if (strcmp(order, "query") == 0) {
    int32_t value = -77;
    int status = -77;
    int opened = init_snmp_connection("127.0.0.1");
    int result = get_one_snmp_integer_from_api(words, &value, &status);
    agentlog_fprintf(stderr, "query: %d %d %d %d\n", opened, result, value, status);
    cleanup_snmp_connection();
  } else if (strcmp(order, "period") == 0) {
    set_poll_time(atoi(words));
  }
  agentlog_fprintf(stderr, "done: %s\n", order);
}

void ObeyAll() {
  FILE *orders = fopen(kOrders, "re");
  if (orders == nullptr) {
    return;
  }
  char line[4096];
  while (fgets(line, sizeof(line), orders) != nullptr) {
    line[strcspn(line, "\n")] = 0;
    Obey(line);
  }
  fclose(orders);
}

}  // namespace

// With the word "fail" as its argument start-up fails after the object was published.
int init_agent(int argc, char **argv) {
  snprintf(log_dir, sizeof(log_dir), "%s", kRegistry);
  create_dir(log_dir, 1);
  char path[128];
  snprintf(path, sizeof(path), "%s/*", log_dir);
  remove_all_dir(path);
  init_snmp_appname("vexhostd");
  snprintf(path, sizeof(path), "%s/test", log_dir);
  test_object = create_obj(&obj_Q, get_id(), path, 1, sizeof(Block), 7);
  if (test_object == nullptr) {
    return -1;
  }
  auto *data = reinterpret_cast<Block *>(test_object->data);
  data->number = 5;
  snprintf(data->name, sizeof(data->name), "first");
  snprintf(data->text, sizeof(data->text), "text");
  descriptor *desc = test_object->desc;
  init_info(0, &desc[0], "tlxHoName", sizeof(data->name), VAR_DISPLAY_STRING, ACCESS_READ_ONLY, 1,
            data->name, nullptr);
  init_info(1, &desc[1], "tlxHoDesc", sizeof(data->description), VAR_DISPLAY_STRING,
            ACCESS_READ_ONLY, 1, data->description, nullptr);
  init_info(2, &desc[2], "tlxHoOsCommonPollFreq", 4, VAR_INTEGER, ACCESS_WRITABLE, 1, &data->number,
            set_number);
  init_info(3, &desc[3], "tlxHoSystemRole", sizeof(data->role), VAR_DISPLAY_STRING, ACCESS_WRITABLE,
            1, data->role, set_role);
  init_info(4, &desc[4], "tlxHoSystemRoleDetail", sizeof(data->detail), VAR_DISPLAY_STRING,
            ACCESS_WRITABLE, 1, data->detail, nullptr);
  init_info(5, &desc[5], "tlxHoGUID", sizeof(data->guid), VAR_OCTET_STRING, ACCESS_WRITABLE, 1,
            data->guid, nullptr);
  init_info(6, &desc[6], "tlxHoGenericData", sizeof(data->text), VAR_DISPLAY_STRING,
            ACCESS_WRITABLE, 1, data->text, nullptr);
  log_data(test_object);
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "fail") == 0) {
      return -1;
    }
    if (strcmp(argv[i], "no-sets") == 0) {
      cfg_set_state(-1);
    }
    if (strcmp(argv[i], "no-traps") == 0) {
      cfg_trap_state(-1);
    }
    agentlog_fprintf(stderr, "argument: %s\n", argv[i]);
  }
  return 0;
}

int get_data(void) {
  alarm(0);
  ObeyAll();
  alarm(static_cast<unsigned>(poll_time));
  return 0;
}

int cleanup_agent(void) {
  alarm(0);
  agentlog_fprintf(stderr, "cleaning up\n");
  delete_obj(&obj_Q, nullptr, 0);
  if (is_empty_dir(log_dir)) {
    remove_empty_dir(log_dir);
  }
  return 0;
}

int main(int argc, char **argv) {
  return agent_main(argc, argv);
}
