#include "detail/memdetail.h"

#include <ctype.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/sources.h"
#include "common/util.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] memdetail_block {
  int32_t available;  // megabytes; -1 while not known
  int32_t cached;
};
static_assert(sizeof(memdetail_block) == 8);

// ---- Variables ----------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoMemoryAvailable", memdetail_block, available),
    READ_ONLY("tlxHoMemoryCached", memdetail_block, cached),
};

constexpr group memdetail_group = described<memdetail_block>({
    .name = "memdetail",
    .title = "memory detail",
    .flag = 0,
    .variables = variables,
    .refresh = do_memdetail,
    .each_poll = true,
    .absence = nullptr,
});

// ---- State --------------------------------------------------------------------------------------

static constexpr int line_size = 256;

// ---- Reading ------------------------------------------------------------------------------------

int32_t megabytes_of_line(const char *line, const char *key) {
  const size_t length = strlen(key);
  if (strncmp(line, key, length) != 0 || line[length] != ':') {
    return -1;
  }
  const char *number = line + length + 1;
  number += strspn(number, " \t");
  if (isdigit(static_cast<unsigned char>(*number)) == 0) {
    return -1;
  }
  return clamp_int32(strtoull(number, nullptr, 10) / 1024);
}

// What is known of both; -1 for what the file does not say. False when it cannot be read.
static bool read_memory(memdetail_block *block) {
  const stream_handle meminfo(fopen(memory_sizes_path, "re"));
  if (!meminfo) {
    return false;
  }
  *block = {-1, -1};
  char line[line_size];
  while (fgets(line, sizeof(line), meminfo.get()) != nullptr) {
    const int32_t available = megabytes_of_line(line, "MemAvailable");
    const int32_t cached = megabytes_of_line(line, "Cached");
    block->available = available >= 0 ? available : block->available;
    block->cached = cached >= 0 ? cached : block->cached;
  }
  return ferror(meminfo.get()) == 0;
}

// ---- Entry point --------------------------------------------------------------------------------

int do_memdetail() {
  registry_object *object = find_or_create_object(memdetail_group);
  if (object == nullptr) {
    return -1;
  }
  memdetail_block block;
  if (!read_memory(&block)) {
    block = {-1, -1};  // figures of another time would look like this one's
  }
  memcpy(object->data, &block, sizeof(block));
  log_data(object);
  return 0;
}
