#include "monitors/memory.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "common/group.h"
#include "common/sources.h"
#include "common/util.h"
#include "platform/framework.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] memory_block {
  int32_t value[MEMINFO_KEYS];  // megabytes; -1 until known
};
static_assert(sizeof(memory_block) == 16);

// ---- Variables ----------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoPhysicalMemorySize", memory_block, value[MEM_TOTAL]),
    READ_ONLY("tlxHoPhysicalMemoryFree", memory_block, value[MEM_FREE]),
    READ_ONLY("tlxHoPagingMemorySize", memory_block, value[SWAP_TOTAL]),
    READ_ONLY("tlxHoPagingMemoryFree", memory_block, value[SWAP_FREE]),
};

constexpr group memory_group = described<memory_block>({
    .name = "memory",
    .title = "memory",
    .flag = 0,
    .variables = variables,
    .refresh = do_memory,
    .each_poll = true,
    .absence = nullptr,
});

// ---- State --------------------------------------------------------------------------------------

static constexpr int line_size = 256;

static constexpr const char *key_names[MEMINFO_KEYS] = {"MemTotal", "MemFree", "SwapTotal",
                                                        "SwapFree"};

static bool called;
// How often each key's number may still be reported as too large.
static int budgets[MEMINFO_KEYS] = {6, 6, 6, 6};

// ---- Reading ------------------------------------------------------------------------------------

int parse_meminfo_line(const char *line, unsigned long *kilobytes) {
  for (int key = 0; key < MEMINFO_KEYS; key++) {
    const size_t length = strlen(key_names[key]);
    if (strncasecmp(line, key_names[key], length) == 0) {
      const char *colon = line + length;
      *kilobytes = strtoul(*colon == '\0' ? colon : colon + 1, nullptr, 10);
      return key;
    }
  }
  return -1;
}

// ---- Computing ----------------------------------------------------------------------------------

static void take_value(memory_block *block, int key, unsigned long kilobytes) {
  // What strtoul() returns on overflow is too large whether long has 32 bits or 64.
  if (kilobytes < UINT32_MAX) {
    block->value[key] = static_cast<int32_t>(kilobytes / 1024);
  } else if (budgets[key] > 0) {
    budgets[key]--;
    agentlog_fprintf(stderr, "do_memory: %s too large for unsigned long\n", key_names[key]);
  }
}

// ---- Publishing ---------------------------------------------------------------------------------

static registry_object *create() {
  registry_object *object = create_object(memory_group);
  if (object != nullptr) {
    auto *block = reinterpret_cast<memory_block *>(object->data);
    for (int key = 0; key < MEMINFO_KEYS; key++) {
      block->value[key] = -1;
    }
  }
  return object;
}

// ---- Entry point --------------------------------------------------------------------------------

int do_memory() {
  registry_object *object = first_call(&called) ? create() : find_object(memory_group);
  if (object == nullptr) {
    return -1;
  }
  const stream_handle meminfo(fopen(memory_sizes_path, "re"));
  if (!meminfo) {
    return 0;
  }
  auto *block = reinterpret_cast<memory_block *>(object->data);
  const memory_block before = *block;
  char line[line_size];
  while (fgets(line, sizeof(line), meminfo.get()) != nullptr) {
    unsigned long kilobytes;
    const int key = parse_meminfo_line(line, &kilobytes);
    if (key >= 0) {
      take_value(block, key, kilobytes);
    }
  }
  if (ferror(meminfo.get()) != 0) {
    // Half a reading: figures of two moments would not go together.
    *block = before;
    return 0;
  }
  log_data(object);
  return 0;
}
