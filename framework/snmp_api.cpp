// What an agent asks of SNMP: configuration, traps, queries, MIB revisions. The SNMP thread does
// the work (framework/snmp_side.h).
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include <string>

#include "framework/guard.h"
#include "framework/log.h"
#include "framework/main_loop.h"
#include "framework/objects.h"
#include "framework/snmp_side.h"
#include "framework/unsent.h"
#include "platform/framework.h"

namespace vex {

namespace {

constexpr int kOk = 0;
constexpr int kNotOk = -1;

SnmpSettings &Settings() {
  static auto *settings = new SnmpSettings;
  return *settings;
}

bool traps_enabled = true;

// By which its configuration is found, and what it left unsent.
std::string &Application() {
  static auto *application = new std::string;
  return *application;
}

// The address of the query that is open; "" for none.
std::string &QueryAddress() {
  static auto *address = new std::string;
  return *address;
}

const MibGroup *FindGroup(int number) {
  for (const MibGroup &group : MibGroups()) {
    if (group.number == number) {
      return &group;
    }
  }
  return nullptr;
}

int SendTrap(const registry_object *object, const int *slots, int slot_count,
             const char *description, int number) {
  if (!traps_enabled || number < 0 || slot_count < 0) {
    return -1;
  }
  Notification notification;
  notification.number = static_cast<uint32_t>(number);
  notification.description = description != nullptr ? description : "";
  if (object != nullptr) {
    if (!IsLive(object) || (slot_count > 0 && slots == nullptr)) {
      return -1;
    }
    for (int i = 0; i < slot_count; i++) {
      if (slots[i] < 0 || slots[i] >= object->var_count) {
        return -1;
      }
      const descriptor &d = object->desc[slots[i]];
      const MibVariable *mib = d.type != 0 ? FindMibVariable(d.name) : nullptr;
      if (mib == nullptr || mib->type != d.type) {
        return -1;
      }
      const auto *bytes = static_cast<const uint8_t *>(d.value);
      notification.variables.push_back({mib,
                                        mib->column ? static_cast<uint32_t>(object->instance) : 0,
                                        {bytes, bytes + CurrentLength(d)}});
    }
  }
  SnmpNotify(std::move(notification));
  return 0;
}

}  // namespace

}  // namespace vex

using namespace vex;  // NOLINT(google-build-using-namespace): what follows is the C interface

void vex::EndSnmp() {
  SnmpStop();
  const std::vector<Notification> unsent = SnmpUnsent();
  if (KeepUnsent(RegistryRootPath(), Application(), unsent) != 0) {
    agentlog_fprintf(stderr, "%s: Can't keep %zu traps for the next start: %s\n", AgentName(),
                     unsent.size(), strerror(errno));
  }
}

int init_snmp_appname(const char *name) {
  return Guarded(-1, [&] {
    if (name == nullptr || name[0] == '\0' || SnmpRunning()) {
      return -1;
    }
    SnmpSettings settings;
    if (SnmpStart(name, &settings) != 0) {
      return -1;
    }
    ConfigurePollTime(settings.poll_interval);
    Settings() = std::move(settings);
    Application() = name;
    if (traps_enabled) {
      for (Notification &notification : TakeUnsent(RegistryRootPath(), Application())) {
        SnmpNotify(std::move(notification));
      }
    }
    return 0;
  });
}

char *find_community_string(char **community) {
  const std::string &name = Settings().community;
  char *copy = name.empty() ? nullptr : strdup(name.c_str());
  if (community != nullptr) {
    *community = copy;
  }
  return copy;
}

int cfg_set_state(int value) {
  if (value != kOk && value != kNotOk) {
    return -1;
  }
  SnmpEnableSets(value == kOk);
  return 0;
}

int cfg_trap_state(int value) {
  if (value != kOk && value != kNotOk) {
    return -1;
  }
  traps_enabled = value == kOk;
  return 0;
}

int send_trap(registry_object *object, const int *slots, int slot_count, const char *description,
              int number) {
  return Guarded(-1, [&] { return SendTrap(object, slots, slot_count, description, number); });
}

int get_mib_major_revision(int group) {
  const MibGroup *found = FindGroup(group);
  return found != nullptr ? found->major_revision : 0;
}

int get_mib_minor_revision(int group) {
  const MibGroup *found = FindGroup(group);
  return found != nullptr ? found->minor_revision : 0;
}

int init_snmp_connection(const char *address) {
  return Guarded(-1, [&] {
    in_addr parsed;
    if (address == nullptr || inet_pton(AF_INET, address, &parsed) != 1 ||
        !QueryAddress().empty() || !SnmpRunning()) {
      return -1;
    }
    QueryAddress() = address;
    return 0;
  });
}

int get_one_snmp_integer_from_api(const char *oid, int32_t *value, int *status) {
  return Guarded(-1, [&] {
    if (oid == nullptr || value == nullptr || QueryAddress().empty() || !SnmpRunning()) {
      return -1;
    }
    return SnmpQueryInteger(QueryAddress(), Settings().community, oid, value, status);
  });
}

int cleanup_snmp_connection(void) {
  if (QueryAddress().empty()) {
    return -1;
  }
  QueryAddress().clear();
  return 0;
}
