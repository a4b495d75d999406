#include "tests/example/load.h"

#include <ctype.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/util.h"
#include "common/variables.h"
#include "platform/framework.h"

// ---- Data block -----------------------------------------------------------------------------

struct [[gnu::packed]] load_block {
  int32_t average[LOAD_AVERAGES];  // hundredths; -1 until known
  int32_t limit;                   // for the first average; 0: none
  int32_t state;
};
static_assert(sizeof(load_block) == 20);
static_assert(offsetof(load_block, limit) == 12);

// ---- Variables ------------------------------------------------------------------------------

static int set_limit(uint8_t phase, registry_object *object, descriptor *desc, const void *value,
                     int length);

static constexpr variable variables[] = {
    {"tlxHoLoadOneMin", 4, VAR_INTEGER, ACCESS_READ_ONLY, 4 * ONE_MINUTE, nullptr},
    {"tlxHoLoadFiveMin", 4, VAR_INTEGER, ACCESS_READ_ONLY, 4 * FIVE_MINUTES, nullptr},
    {"tlxHoLoadFifteenMin", 4, VAR_INTEGER, ACCESS_READ_ONLY, 4 * FIFTEEN_MINUTES, nullptr},
    {"tlxHoLoadLimit", 4, VAR_INTEGER, ACCESS_WRITABLE, offsetof(load_block, limit), set_limit},
    {"tlxHoLoadState", 4, VAR_INTEGER, ACCESS_READ_ONLY, offsetof(load_block, state), nullptr},
};
static constexpr int variable_count = sizeof(variables) / sizeof(variables[0]);

// ---- State ----------------------------------------------------------------------------------

static constexpr char loadavg_path[] = "/proc/loadavg";
static constexpr int line_size = 128;

enum load_state : int32_t { LOAD_UNKNOWN = 1, LOAD_BELOW = 2, LOAD_ABOVE = 3 };

static bool first_time = true;

static load_block *block_of(registry_object *object) {
  return reinterpret_cast<load_block *>(object->data);
}

// ---- Reading --------------------------------------------------------------------------------

// One "12.34" as hundredths; *text moves behind it. False when there is none.
static bool parse_hundredths(const char **text, int32_t *hundredths) {
  if (isdigit(static_cast<unsigned char>(**text)) == 0) {
    return false;
  }
  char *end = nullptr;
  const uint64_t whole = strtoul(*text, &end, 10);
  if (end[0] != '.' || isdigit(static_cast<unsigned char>(end[1])) == 0 ||
      isdigit(static_cast<unsigned char>(end[2])) == 0) {
    return false;
  }
  const int fraction = (end[1] - '0') * 10 + (end[2] - '0');
  // Held before it is multiplied: what does not fit 32 bits is the largest value.
  *hundredths = clamp_int32(uint64_t{100} * static_cast<uint32_t>(clamp_int32(whole)) + fraction);
  *text = end + 3;
  return true;
}

int parse_loadavg(const char *text, int32_t averages[LOAD_AVERAGES]) {
  int32_t parsed[LOAD_AVERAGES];
  for (int i = 0; i < LOAD_AVERAGES; i++) {
    if (!parse_hundredths(&text, &parsed[i]) || *text++ != ' ') {
      return -1;
    }
  }
  memcpy(averages, parsed, sizeof(parsed));
  return 0;
}

static void read_averages(load_block *block) {
  const stream_handle file(fopen(loadavg_path, "re"));
  char line[line_size];
  int32_t averages[LOAD_AVERAGES];
  if (file && fgets(line, sizeof(line), file.get()) != nullptr &&
      parse_loadavg(line, averages) == 0) {
    memcpy(block->average, averages, sizeof(averages));
  }
}

// ---- Computing ------------------------------------------------------------------------------

static int32_t state_of(const load_block *block) {
  if (block->limit == 0 || block->average[ONE_MINUTE] < 0) {
    return LOAD_UNKNOWN;
  }
  return block->average[ONE_MINUTE] > block->limit ? LOAD_ABOVE : LOAD_BELOW;
}

// ---- Setting --------------------------------------------------------------------------------

static int set_limit(uint8_t phase, registry_object *object, descriptor *, const void *value, int) {
  int32_t limit = 0;
  memcpy(&limit, value, sizeof(limit));
  if (limit < 0) {
    return -1;
  }
  if (phase == SET_CHECK) {
    return 0;
  }
  load_block *block = block_of(object);
  block->limit = limit;
  block->state = state_of(block);
  return log_data(object);
}

// ---- Publishing -----------------------------------------------------------------------------

static registry_object *create_load() {
  char name[sizeof(log_dir) + sizeof("/load")];
  snprintf(name, sizeof(name), "%s/%s", log_dir, "load");
  registry_object *object =
      create_obj(&obj_Q, get_id(), name, 0, sizeof(load_block), variable_count);
  if (object == nullptr) {
    return nullptr;
  }
  define_variables(object, variables);
  for (int32_t i = 0; i < LOAD_AVERAGES; i++) {
    block_of(object)->average[i] = -1;
  }
  return object;
}

// ---- Entry point ----------------------------------------------------------------------------

int do_load() {
  registry_object *object;
  if (first_time) {
    first_time = false;
    object = create_load();
  } else {
    object = find_obj(&obj_Q, 0, "host/load");
  }
  if (object == nullptr) {
    return -1;
  }
  load_block *block = block_of(object);
  read_averages(block);
  block->state = state_of(block);
  log_data(object);
  return 0;
}
