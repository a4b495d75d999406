#include "identity/hwinfo.h"

#include <stdint.h>
#include <stdio.h>

#include "common/group.h"
#include "common/sources.h"
#include "platform/ev.h"
#include "platform/framework.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] hwinfo_block {
  int32_t platform;
};
static_assert(sizeof(hwinfo_block) == 4);

// ---- Variables ----------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoHWInfoPlatform", hwinfo_block, platform),
};

constexpr group hwinfo_group = described<hwinfo_block>({
    .name = "hwinfo",
    .title = "hardware-info",
    .flag = 1,
    .variables = variables,
    .refresh = do_hwinfo,
    .each_poll = false,
    .absence = "no EV told it at the agent's start",
});

// ---- Reading ------------------------------------------------------------------------------------

enum platform_class : int32_t { PLATFORM_PLAIN = 1, PLATFORM_MARKED = 5 };

// The class by the EV's last byte; 0 when the EV cannot be read or is too short to tell.
static int32_t read_platform() {
  uint8_t value[platform_ev_size] = {};
  uint32_t length = sizeof(value);
  if (get_ev(platform_ev, value, &length) != 0) {
    return 0;
  }
  if (length < sizeof(value)) {
    agentlog_fprintf(stderr, "EV %s: %u bytes of the %u that are needed, taken as absent\n",
                     platform_ev, static_cast<unsigned>(length), platform_ev_size);
    return 0;
  }
  return value[platform_ev_size - 1] != 0 ? PLATFORM_MARKED : PLATFORM_PLAIN;
}

// ---- Entry point --------------------------------------------------------------------------------

int do_hwinfo() {
  registry_object *object = create_object(hwinfo_group);
  if (object == nullptr) {
    return -1;
  }
  const int32_t platform = read_platform();
  if (platform != 0) {
    reinterpret_cast<hwinfo_block *>(object->data)->platform = platform;
    publish_once(object);
  }
  return 0;
}
