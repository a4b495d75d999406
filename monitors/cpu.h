// CPU utilisation table: one row per processor with averages over a minute to an hour, from proc(5)
// stat.
#ifndef VEX_MONITORS_CPU_H
#define VEX_MONITORS_CPU_H

#include <stdint.h>

#include "common/group.h"

extern const group cpu_group;

// The first call counts the processors, creates their rows and takes the first sample; later ones
// take a sample. Returns 0, or -1 when memory runs out or a row cannot be created or found; an
// unreadable /proc/stat leaves the values as they were.
int do_cpu();

// Counters of one processor in clock ticks since boot.
struct cpu_sample {
  uint64_t idle;
  uint64_t user;
  uint64_t system;
  uint64_t nice;  // always 0: time in niced processes counts neither as busy nor in the total
};

// Whether a line of /proc/stat belongs to one processor, and not to all of them together.
bool is_processor_line(const char *line);

// Takes the counters from a line that begins with "cpu"; those that it lacks keep their values.
void parse_cpu_line(const char *line, cpu_sample *sample);

// Busy share between two samples in per cent, halves rounded up; 0 when no time has passed.
// Counters that run backwards can make it more than 100; it is held at the largest 32-bit integer.
int32_t cpu_utilisation(const cpu_sample &now, const cpu_sample &before);

// Where it reads.
inline constexpr char processor_times_path[] = "/proc/stat";

#endif
