#include "monitors/cpu.h"

#include <ctype.h>
#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>

#include "common/group.h"
#include "common/sources.h"
#include "common/util.h"
#include "platform/framework.h"

// ---- Data block ---------------------------------------------------------------------------------

enum ring_of { MINUTE, FIVE_MINUTES, THIRTY_MINUTES, HOUR, RINGS };

// The longest that each ring can be, and where its samples begin.
static constexpr uint32_t ring_room[RINGS] = {60, 5, 30, 60};
static constexpr uint32_t ring_start[RINGS] = {0, 60, 65, 95};
static constexpr uint32_t all_samples = 155;

struct [[gnu::packed]] averaging_ring {
  uint32_t position;  // of the next sample
  uint32_t length;
  uint32_t count;  // samples ever written
  uint64_t start;  // of the ring's samples in the block's
};

struct [[gnu::packed]] cpu_block {
  int32_t index;
  int32_t average[RINGS];  // per cent; -1 until known
  char location[256];
  // Private from here on.
  averaging_ring ring[RINGS];
  uint32_t samples[all_samples];
};
static_assert(offsetof(cpu_block, average) == 4);
static_assert(offsetof(cpu_block, location) == 20);
static_assert(offsetof(cpu_block, ring) == 276);
static_assert(offsetof(cpu_block, samples) == 356);
static_assert(sizeof(cpu_block) == 976);

// ---- Variables ----------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoCpuUtilUnitIndex", cpu_block, index),
    READ_ONLY("tlxHoCpuUtilMin", cpu_block, average[MINUTE]),
    READ_ONLY("tlxHoCpuUtilFiveMin", cpu_block, average[FIVE_MINUTES]),
    READ_ONLY("tlxHoCpuUtilThirtyMin", cpu_block, average[THIRTY_MINUTES]),
    READ_ONLY("tlxHoCpuUtilHour", cpu_block, average[HOUR]),
    READ_ONLY("tlxHoCpuUtilHwLocation", cpu_block, location),
};

constexpr group cpu_group = described<cpu_block>({
    .name = "cpu",
    .title = "processors",
    .flag = 1,
    .variables = variables,
    .refresh = do_cpu,
    .each_poll = true,
    .absence = nullptr,
});

// ---- State --------------------------------------------------------------------------------------

static constexpr int line_size = 256;
// How often a count that a read error broke off is begun again at once.
static constexpr int count_attempts = 3;
// A long average is -1 until its time has passed, in seconds since the rows were created.
static constexpr time_t known_after[RINGS] = {0, 300, 1800, 3600};

static bool called;
static bool uncounted = true;
static bool rows_wanted;     // since start-up, whose count was broken off
static int processors;       // counted once: those that come or go later are not noticed
static cpu_sample *current;  // one sample a processor
static cpu_sample *previous;
static size_t samples_size;  // bytes of each of the two
static time_t created;       // by age_clock()

// ---- Reading ------------------------------------------------------------------------------------

static bool is_cpu_line(const char *line) {
  return strncasecmp(line, "cpu", 3) == 0;
}

bool is_processor_line(const char *line) {
  return is_cpu_line(line) && isspace(static_cast<unsigned char>(line[3])) == 0;
}

void parse_cpu_line(const char *line, cpu_sample *sample) {
  const char *numbers = line;
  while (*numbers != '\0' && isspace(static_cast<unsigned char>(*numbers)) == 0) {
    numbers++;
  }
  unsigned long long user = sample->user;
  unsigned long long nice;
  unsigned long long system = sample->system;
  unsigned long long idle = sample->idle;
  sscanf(numbers, "%llu %llu %llu %llu", &user, &nice, &system, &idle);
  *sample = {.idle = idle, .user = user, .system = system, .nice = 0};
}

// Seconds on a clock that nobody sets, for ages. It goes on while the machine sleeps.
static time_t age_clock() {
  timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec;
}

enum count_result { COUNTED, NO_FILE, BROKEN_OFF };

// Counts the processors' lines of /proc/stat, which says nothing unless it was read to its end. A
// file that is there and cannot be opened at this moment is one that cannot be read.
static count_result count_lines(int *count) {
  const stream_handle stat(fopen(processor_times_path, "re"));
  if (!stat) {
    return errno == ENOENT || errno == ENOTDIR || errno == EACCES ? NO_FILE : BROKEN_OFF;
  }
  *count = 0;
  char line[line_size];
  while (fgets(line, sizeof(line), stat.get()) != nullptr) {
    *count += is_processor_line(line);
  }
  return ferror(stat.get()) != 0 ? BROKEN_OFF : COUNTED;
}

// Counts the processors and makes room for their samples. 0, also when there was no whole count
// (the next call tries again), or -1 without memory.
static int count_processors(bool start_up) {
  int count = 0;
  count_result result = BROKEN_OFF;
  for (int attempt = 0; attempt < count_attempts && result == BROKEN_OFF; attempt++) {
    result = count_lines(&count);
  }
  if (result != COUNTED) {
    // Rows are born at start-up alone; a file that could not be opened then leaves none.
    rows_wanted = rows_wanted || (start_up && result == BROKEN_OFF);
    return 0;
  }
  const int number = count == 0 ? 1 : count;
  const auto n = static_cast<size_t>(number);
  freeing now(static_cast<cpu_sample *>(calloc(n, sizeof(cpu_sample))));
  freeing before(static_cast<cpu_sample *>(calloc(n, sizeof(cpu_sample))));
  if (!now || !before) {
    return -1;
  }
  current = now.release();
  previous = before.release();
  processors = number;
  samples_size = n * sizeof(cpu_sample);
  uncounted = false;
  return 0;
}

// With one processor its own line is not looked for: the first line, which sums up all of them,
// says the same.
// Returns false, with the samples as they were, when /proc/stat cannot be opened or read.
static bool take_samples() {
  const stream_handle stat(fopen(processor_times_path, "re"));
  if (!stat) {
    return false;
  }
  int n = 0;
  char line[line_size];
  while (n < processors && fgets(line, sizeof(line), stat.get()) != nullptr) {
    if (processors == 1 ? is_cpu_line(line) : is_processor_line(line)) {
      parse_cpu_line(line, &current[n++]);
    }
  }
  if (ferror(stat.get()) != 0) {
    memcpy(current, previous, samples_size);
    return false;
  }
  return true;
}

// 1 with a new sample, 0 without (/proc/stat cannot be opened or read), -1 without memory.
static int sample_processors(bool start_up) {
  if (uncounted && count_processors(start_up) != 0) {
    return -1;
  }
  return !uncounted && take_samples() ? 1 : 0;
}

// ---- Computing ----------------------------------------------------------------------------------

static uint64_t ticks(const cpu_sample &s) {
  return s.idle + s.user + s.system + s.nice;
}

int32_t cpu_utilisation(const cpu_sample &now, const cpu_sample &before) {
  const uint64_t total = ticks(now) - ticks(before);
  if (total == 0) {
    return 0;
  }
  const uint64_t busy = total - (now.idle - before.idle) - (now.nice - before.nice);
  const long double share =
      static_cast<long double>(busy) * 100 / static_cast<long double>(total) + 0.5L;
  return share >= INT32_MAX ? INT32_MAX : static_cast<int32_t>(share);
}

// Adds a sample to a ring. Returns the average of those that the ring then holds.
static int32_t add_sample(cpu_block *block, int which, int32_t value) {
  averaging_ring &ring = block->ring[which];
  block->samples[ring.start + ring.position] = static_cast<uint32_t>(value);
  ring.count++;
  const uint32_t held = ring.count < ring.length ? ring.count : ring.length;
  uint64_t sum = 0;
  for (uint32_t i = 0; i < held; i++) {
    sum += block->samples[ring.start + i];
  }
  ring.position = ring.position + 1 >= ring.length ? 0 : ring.position + 1;
  return static_cast<int32_t>(sum / held);
}

static void take_utilisation(cpu_block *block, int32_t utilisation) {
  block->average[MINUTE] = add_sample(block, MINUTE, utilisation);
  // Once a turn of the minute ring, which is about once a minute. A ring of one place never gets
  // there: with a poll period above 30 seconds the long averages stay unknown, which is wanted.
  if (block->ring[MINUTE].position != 1) {
    return;
  }
  const time_t age = age_clock() - created;
  for (int which = FIVE_MINUTES; which < RINGS; which++) {
    const int32_t average = add_sample(block, which, block->average[MINUTE]);
    block->average[which] = age < known_after[which] ? -1 : average;
  }
}

// ---- Publishing ---------------------------------------------------------------------------------

static uint32_t minute_length() {
  const uint32_t period = poll_time < 1 ? 1 : static_cast<uint32_t>(poll_time);
  return period > ring_room[MINUTE] ? 1 : ring_room[MINUTE] / period;
}

static int create_processor(int n) {
  if (find_row(cpu_group, n) != nullptr) {
    return 0;  // by an earlier attempt that did not get to the end
  }
  registry_object *object = create_row(cpu_group, n);
  if (object == nullptr) {
    return -1;
  }
  auto *block = reinterpret_cast<cpu_block *>(object->data);
  block->index = n;
  for (int which = 0; which < RINGS; which++) {
    block->average[which] = -1;
    block->ring[which].length = which == MINUTE ? minute_length() : ring_room[which];
    block->ring[which].start = ring_start[which];
  }
  log_data(object);
  return 0;
}

static int update_processor(int n) {
  registry_object *object = find_row(cpu_group, n);
  if (object == nullptr) {
    return -1;
  }
  take_utilisation(reinterpret_cast<cpu_block *>(object->data),
                   cpu_utilisation(current[n], previous[n]));
  log_data(object);
  return 0;
}

static int create_rows() {
  created = age_clock();
  for (int n = 0; n < processors; n++) {
    if (create_processor(n) != 0) {
      return -1;
    }
  }
  return 0;
}

// ---- Entry point --------------------------------------------------------------------------------

int do_cpu() {
  const bool start_up = first_call(&called);
  const int sampled = sample_processors(start_up);
  if (sampled < 0) {
    return -1;
  }
  if (start_up || (rows_wanted && !uncounted)) {
    if (create_rows() != 0) {
      return -1;
    }
    rows_wanted = uncounted && rows_wanted;
  }
  if (sampled == 0) {
    return 0;
  }
  for (int n = 0; n < processors; n++) {
    if (update_processor(n) != 0) {
      return -1;
    }
  }
  memcpy(previous, current, samples_size);
  return 0;
}
