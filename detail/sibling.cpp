#include "detail/sibling.h"

#include <stddef.h>
#include <string.h>

#include "common/util.h"
#include "detail/truth.h"
#include "status/mib_status.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] sibling_block {
  char name[64];
  int32_t present;    // true(1) or false(2)
  int32_t condition;  // 1 to 4; -1 while not known
  int32_t major;      // -1 while not known
  int32_t minor;
  int32_t health;  // as condition
};
static_assert(offsetof(sibling_block, present) == 64);
static_assert(sizeof(sibling_block) == 84);

// ---- Variables ----------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoSiblingName", sibling_block, name),
    READ_ONLY("tlxHoSiblingPresent", sibling_block, present),
    READ_ONLY("tlxHoSiblingCondition", sibling_block, condition),
    READ_ONLY("tlxHoSiblingMajor", sibling_block, major),
    READ_ONLY("tlxHoSiblingMinor", sibling_block, minor),
    READ_ONLY("tlxHoSiblingHealth", sibling_block, health),
};

constexpr group sibling_group = described<sibling_block>({
    .name = "sibling",
    .title = "sibling agent",
    .flag = 1,
    .variables = variables,
    .refresh = do_sibling,
    .each_poll = false,
    .absence = nullptr,
});

// ---- State --------------------------------------------------------------------------------------

static constexpr int32_t worst_condition = 4;
static constexpr int32_t not_known = -1;

struct named_group {
  int32_t index;
  const char *name;
};
static constexpr named_group names[] = {
    {1, "standard equipment"},
    {2, "system information"},
    {3, "array controllers"},
    {5, "SCSI"},
    {6, "health"},
    {8, "storage systems"},
    {9, "remote management board"},
    {10, "thresholds"},
    {11, "host"},
    {14, "IDE"},
    {16, "fibre channel"},
    {18, "network adapters"},
    {21, "appliance"},
    {22, "rack"},
    {23, "performance"},
    {26, "flash storage"},
};

static bool published_before[sizeof(names) / sizeof(names[0])];

const char *sibling_name(int32_t index) {
  for (const named_group &named : names) {
    if (named.index == index) {
      return named.name;
    }
  }
  return "";
}

// ---- Computing ----------------------------------------------------------------------------------

static int32_t condition_value(int32_t condition) {
  return condition >= 1 && condition <= worst_condition ? condition : not_known;
}

static sibling_block block_of(const peer_view &peer) {
  sibling_block block = {};
  copy_field(block.name, sibling_name(peer.index));
  block.present = truth_value(peer.present);
  block.condition = peer.present ? condition_value(peer.condition) : not_known;
  block.major = peer.present ? peer.major : not_known;
  block.minor = peer.present ? peer.minor : not_known;
  block.health = condition_value(peer.health);
  return block;
}

// ---- Entry point --------------------------------------------------------------------------------

static int refresh(const peer_view &peer, bool *published) {
  registry_object *object = find_row(sibling_group, peer.index);
  if (object == nullptr) {
    object = create_row(sibling_group, peer.index);
    *published = false;
  }
  if (object == nullptr) {
    return -1;
  }
  const sibling_block block = block_of(peer);
  if (*published && memcmp(object->data, &block, sizeof(block)) == 0) {
    return 0;
  }
  memcpy(object->data, &block, sizeof(block));
  *published = log_data(object) == 0;
  return 0;
}

int do_sibling() {
  int result = 0;
  peer_view peer;
  for (int place = 0; get_peer(place, &peer); place++) {
    if (refresh(peer, &published_before[place]) != 0) {
      result = -1;
    }
  }
  return result;
}
