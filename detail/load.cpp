#include "detail/load.h"

#include <ctype.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/sources.h"
#include "common/util.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] load_block {
  int32_t one;  // hundredths; -1 while not known
  int32_t five;
  int32_t fifteen;
  int32_t uptime;  // seconds
};
static_assert(sizeof(load_block) == 16);

// ---- Variables ----------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoLoadOne", load_block, one),
    READ_ONLY("tlxHoLoadFive", load_block, five),
    READ_ONLY("tlxHoLoadFifteen", load_block, fifteen),
    READ_ONLY("tlxHoUptime", load_block, uptime),
};

constexpr group load_group = described<load_block>({
    .name = "load",
    .title = "load",
    .flag = 0,
    .variables = variables,
    .refresh = do_load,
    .each_poll = true,
    .absence = nullptr,
});

// ---- State --------------------------------------------------------------------------------------

static constexpr int line_size = 128;

// ---- Reading ------------------------------------------------------------------------------------

// Reads a number with up to two decimals in hundredths, and moves on behind it. Whatever else
// follows the decimals is skipped to the next blank. False when there is none.
static bool parse_hundredths(const char **text, uint64_t *hundredths) {
  const char *at = *text;
  while (*at == ' ') {
    at++;
  }
  if (isdigit(static_cast<unsigned char>(*at)) == 0) {
    return false;
  }
  char *end;
  const uint64_t whole = strtoull(at, &end, 10);
  uint64_t value = whole > INT32_MAX ? uint64_t{INT32_MAX} * 100 : whole * 100;
  if (*end == '.') {
    unsigned place = 10;
    for (end++; isdigit(static_cast<unsigned char>(*end)) != 0; end++) {
      value += place * static_cast<unsigned>(*end - '0');
      place /= 10;
    }
  }
  if (*end != ' ' && *end != '\n' && *end != '\0') {
    return false;
  }
  *text = end;
  *hundredths = value;
  return true;
}

bool parse_loadavg(const char *text, int32_t hundredths[3]) {
  uint64_t values[3];
  for (uint64_t &value : values) {
    if (!parse_hundredths(&text, &value)) {
      hundredths[0] = hundredths[1] = hundredths[2] = -1;
      return false;
    }
  }
  for (int i = 0; i < 3; i++) {
    hundredths[i] = clamp_int32(values[i]);
  }
  return true;
}

int32_t parse_uptime(const char *text) {
  uint64_t hundredths;
  return parse_hundredths(&text, &hundredths) ? clamp_int32(hundredths / 100) : -1;
}

// The first line of a file; empty when it cannot be read.
static void read_line(const char *path, char line[line_size]) {
  const stream_handle file(fopen(path, "re"));
  if (!file || fgets(line, line_size, file.get()) == nullptr) {
    line[0] = '\0';
  }
}

// ---- Entry point --------------------------------------------------------------------------------

int do_load() {
  registry_object *object = find_or_create_object(load_group);
  if (object == nullptr) {
    return -1;
  }
  char line[line_size];
  int32_t averages[3];
  read_line(load_averages_path, line);
  parse_loadavg(line, averages);
  read_line(uptime_path, line);
  const load_block block = {averages[0], averages[1], averages[2], parse_uptime(line)};
  memcpy(object->data, &block, sizeof(block));
  log_data(object);
  return 0;
}
