#include "agent/orders.h"

#include "detail/agent_state.h"
#include "detail/fwkind.h"
#include "detail/load.h"
#include "detail/memdetail.h"
#include "detail/mount.h"
#include "detail/sibling.h"
#include "detail/swkind.h"
#include "firmware/fwver.h"
#include "identity/appliance.h"
#include "identity/hwinfo.h"
#include "identity/info.h"
#include "monitors/cpu.h"
#include "monitors/filesys.h"
#include "monitors/memory.h"
#include "software/swver.h"
#include "status/misc.h"

// One line a group.
// clang-format off
const group *const start_order[] = {
    &filesys_group,
    &memory_group,
    &info_group,
    &misc_group,
    &swver_group,
    &cpu_group,
    &appliance_group,
    &fwver_group,
    nullptr,
};

const group *const last_order[] = {
    &hwinfo_group,
    nullptr,
};

const group *const poll_order[] = {
    &cpu_group,
    &filesys_group,
    &memory_group,
    &info_group,
    &misc_group,
    &swver_group,
    &fwver_group,
    nullptr,
};

const group *const detail_order[] = {
    &memdetail_group,
    &mount_group,
    &sibling_group,
    &load_group,
    &swkind_group,
    &fwkind_group,
    &agent_group,
    nullptr,
};
// clang-format on
