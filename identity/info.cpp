#include "identity/info.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <nss.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "common/group.h"
#include "common/kept_file.h"
#include "common/util.h"
#include "platform/framework.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] info_block {
  char name[256];
  char version[256];
  char description[256];
  int32_t os_type;
  int32_t telnet;
  char role[65];
  char role_detail[513];
  char system_name[256];
  char system_description[512];
  char padding[2];
};
static_assert(sizeof(info_block) == 2124);
static_assert(offsetof(info_block, os_type) == 768);
static_assert(offsetof(info_block, role) == 776);
static_assert(offsetof(info_block, role_detail) == 841);
static_assert(offsetof(info_block, system_name) == 1354);
static_assert(offsetof(info_block, system_description) == 1610);

// ---- Variables ----------------------------------------------------------------------------------

enum info_slot { SYSTEM_ROLE = 5, SYSTEM_ROLE_DETAIL = 6 };

static int set_role(uint8_t phase, registry_object *object, descriptor *desc, const void *value,
                    int length);

static constexpr variable variables[] = {
    READ_ONLY("tlxHoName", info_block, name),
    READ_ONLY("tlxHoVersion", info_block, version),
    READ_ONLY("tlxHoDesc", info_block, description),
    READ_ONLY("tlxHoOsType", info_block, os_type),
    READ_ONLY("tlxHoTelnet", info_block, telnet),
    SETTABLE("tlxHoSystemRole", info_block, role, set_role),
    SETTABLE("tlxHoSystemRoleDetail", info_block, role_detail, set_role),
    READ_ONLY("tlxHoSystemName", info_block, system_name),
    READ_ONLY("tlxHosysDescr", info_block, system_description),
};

// The texts that a manager has set, as they stand and without an end.
static kept_file role_file = {"tlxhosystemrole.dat", false};
static kept_file role_detail_file = {"tlxhosystemroledetail.dat", false};

static constexpr const kept_file *kept_files[] = {&role_file, &role_detail_file, nullptr};

struct kept_text {
  kept_file *file;
  bool unread;  // it may be there, and could not be read
};
static kept_text role_text = {&role_file, false};
static kept_text role_detail_text = {&role_detail_file, false};

constexpr group info_group = described<info_block>({
    .name = "info",
    .title = "system",
    .flag = 1,
    .variables = variables,
    .refresh = do_info,
    .each_poll = true,
    .kept = kept_files,
    .absence = nullptr,
});

// ---- State --------------------------------------------------------------------------------------

enum os_type : int32_t { OS_APPLIANCE = 1, OS_LINUX = 14 };
enum telnet_state : int32_t { TELNET_HELD = 2, TELNET_FREE = 3 };

static bool called;

static info_block *block_of(registry_object *object) {
  return reinterpret_cast<info_block *>(object->data);
}

// ---- Reading ------------------------------------------------------------------------------------

static void read_appliance(info_block *block) {
  if (const auto *name = static_cast<const char *>(get_appliance_data("OsName"))) {
    copy_field(block->name, name);
  }
  block->os_type = OS_APPLIANCE;
  if (const auto *version = static_cast<const char *>(get_appliance_data("OsVersion"))) {
    copy_field(block->version, version);
  }
}

static void read_distribution(info_block *block) {
  block->os_type = OS_LINUX;
  if (distroid_init() != 0) {
    return;
  }
  const char *flavor = distroid_flavor();
  const char *name = distroid_name();
  snprintf(block->name, sizeof(block->name), "%s %s", name, flavor);
  snprintf(block->version, sizeof(block->version), "%s", distroid_version());
}

static void read_description(info_block *block) {
  if (distroid_init() == 0) {
    snprintf(block->description, sizeof(block->description), "%s", distroid_description());
  }
}

// Fills the field, of which the last byte stays 0, with the beginning of the file. One that cannot
// be read at the start is read by a later poll. The log has one line for either.
static void read_role(kept_text *text, char *field, size_t field_size, bool settle_mode) {
  memset(field, 0, field_size);
  const ssize_t length = read_kept_file(text->file, field, field_size - 1, settle_mode);
  const int error = errno;
  const bool unread = length < 0 && error != ENOENT && error != EBADF;
  if (unread && !text->unread) {
    agentlog_fprintf(stderr, "%s: Can't read %s/%s: %s\n", agent, REGISTRY_ROOT, text->file->name,
                     strerror(error));
  } else if (text->unread && length >= 0) {
    agentlog_fprintf(stderr, "%s: %s/%s was read at last\n", agent, REGISTRY_ROOT,
                     text->file->name);
  }
  text->unread = unread;
}

static void read_roles(info_block *block) {
  read_role(&role_text, block->role, sizeof(block->role), false);
  read_role(&role_detail_text, block->role_detail, sizeof(block->role_detail), true);
}

// Catches up with what the start could not read, and restores what was lost with its directory.
static void keep_roles(info_block *block) {
  if (role_text.unread) {
    read_role(&role_text, block->role, sizeof(block->role), false);
  }
  if (role_detail_text.unread) {
    read_role(&role_detail_text, block->role_detail, sizeof(block->role_detail), true);
  }
  restore_kept_file(role_text.file, block->role, strlen(block->role));
  restore_kept_file(role_detail_text.file, block->role_detail, strlen(block->role_detail));
}

static void read_system(info_block *block) {
  utsname system = {};
  uname(&system);
  copy_field(block->system_name, system.nodename);
  // Nothing between the five: managers know the text in this form.
  snprintf(block->system_description, sizeof(block->system_description), "%s%s%s%s%s",
           system.sysname, system.nodename, system.release, system.version, system.machine);
}

// Services are looked up in this host's files, whatever nsswitch.conf says: a directory service
// that hangs would hold up every poll. Once a process, since the C library keeps all that it is
// told.
static void look_up_services_locally() {
  __nss_configure_lookup("services", "db files");
}

// Whether the telnet port cannot be bound: somebody holds it (or binding low ports is not allowed,
// which looks the same). Nothing is ever listened on.
static telnet_state probe_telnet() {
  const servent *service = getservbyname("telnet", "tcp");
  if (service == nullptr) {
    return TELNET_FREE;
  }
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = static_cast<in_port_t>(service->s_port);  // in network order as it is
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) {
    return TELNET_FREE;
  }
  const bool held = bind(probe, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0;
  close(probe);
  return held ? TELNET_HELD : TELNET_FREE;
}

// ---- Setting ------------------------------------------------------------------------------------

static int apply_role(uint8_t phase, kept_text *kept, char *field, size_t field_size,
                      const char *text) {
  if (strlen(text) > field_size - 1) {
    return -1;
  }
  if (phase == SET_CHECK) {
    return 0;
  }
  switch (replace_kept_file(kept->file, text, strlen(text))) {
    case KEPT_REPLACED:
      kept->unread = false;
      copy_field(field, field_size, text);
      return 0;
    case KEPT_NOT_OPENED:
      // On purpose a success that changes nothing: where the registry cannot be written, managers
      // rely on the set being accepted.
      return 0;
    default:
      return -1;
  }
}

static int set_role(uint8_t phase, registry_object *object, descriptor *desc, const void *value,
                    int) {
  info_block *block = block_of(object);
  const auto *text = static_cast<const char *>(value);
  switch (desc->slot) {
    case SYSTEM_ROLE:
      return apply_role(phase, &role_text, block->role, sizeof(block->role), text);
    case SYSTEM_ROLE_DETAIL:
      return apply_role(phase, &role_detail_text, block->role_detail, sizeof(block->role_detail),
                        text);
    default:
      return -1;
  }
}

// ---- Publishing ---------------------------------------------------------------------------------

static registry_object *create() {
  registry_object *object = create_object(info_group);
  if (object == nullptr) {
    return nullptr;
  }
  info_block *block = block_of(object);
  if (is_appliance() != 0) {
    read_appliance(block);
  } else {
    read_distribution(block);
    read_description(block);
  }
  distroid_exit();
  look_up_services_locally();
  read_roles(block);
  read_system(block);
  return object;
}

// ---- Entry point --------------------------------------------------------------------------------

int do_info() {
  const bool first = first_call(&called);
  registry_object *object = first ? create() : find_object(info_group);
  if (object == nullptr) {
    return -1;
  }
  if (!first) {
    keep_roles(block_of(object));
  }
  block_of(object)->telnet = probe_telnet();
  return log_data(object);
}
