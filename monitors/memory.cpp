#include "monitors/memory.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "common/util.h"
#include "common/variables.h"
#include "platform/framework.h"

// ---- Data block -----------------------------------------------------------------------------

struct [[gnu::packed]] memory_block {
  int32_t value[MEMINFO_KEYS];  // megabytes; -1 until known
};
static_assert(sizeof(memory_block) == 16);

// ---- Variables ------------------------------------------------------------------------------

static constexpr variable variables[] = {
    {"tlxHoPhysicalMemorySize", 4, VAR_INTEGER, ACCESS_READ_ONLY, 4 * MEM_TOTAL, nullptr},
    {"tlxHoPhysicalMemoryFree", 4, VAR_INTEGER, ACCESS_READ_ONLY, 4 * MEM_FREE, nullptr},
    {"tlxHoPagingMemorySize", 4, VAR_INTEGER, ACCESS_READ_ONLY, 4 * SWAP_TOTAL, nullptr},
    {"tlxHoPagingMemoryFree", 4, VAR_INTEGER, ACCESS_READ_ONLY, 4 * SWAP_FREE, nullptr},
};

// ---- State ----------------------------------------------------------------------------------

static constexpr int line_size = 256;

static constexpr const char *key_names[MEMINFO_KEYS] = {"MemTotal", "MemFree", "SwapTotal",
                                                        "SwapFree"};

static bool first_time = true;
// How often each key's number may still be reported as too large.
static int budgets[MEMINFO_KEYS] = {6, 6, 6, 6};

// ---- Reading --------------------------------------------------------------------------------

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

// ---- Computing ------------------------------------------------------------------------------

static void take_value(memory_block *block, int key, unsigned long kilobytes) {
  // What strtoul() returns on overflow is too large whether long has 32 bits or 64.
  if (kilobytes < UINT32_MAX) {
    block->value[key] = static_cast<int32_t>(kilobytes / 1024);
  } else if (budgets[key] > 0) {
    budgets[key]--;
    agentlog_fprintf(stderr, "do_memory: %s too large for unsigned long\n", key_names[key]);
  }
}

// ---- Publishing -----------------------------------------------------------------------------

static registry_object *create_memory() {
  char name[sizeof(log_dir) + sizeof("/memory")];
  snprintf(name, sizeof(name), "%s/%s", log_dir, "memory");
  registry_object *object =
      create_obj(&obj_Q, get_id(), name, 0, sizeof(memory_block), MEMINFO_KEYS);
  if (object == nullptr) {
    return nullptr;
  }
  define_variables(object, variables);
  auto *block = reinterpret_cast<memory_block *>(object->data);
  for (int key = 0; key < MEMINFO_KEYS; key++) {
    block->value[key] = -1;
  }
  return object;
}

// ---- Entry point ----------------------------------------------------------------------------

int do_memory() {
  registry_object *object;
  if (first_time) {
    first_time = false;
    object = create_memory();
  } else {
    object = find_obj(&obj_Q, 0, "host/memory");
  }
  if (object == nullptr) {
    return -1;
  }
  const stream_handle meminfo(fopen(memory_sizes_path, "r"));
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
