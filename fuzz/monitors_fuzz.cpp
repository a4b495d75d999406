// What the monitors and the watchdog read: lines of /proc, output of commands, directory entries,
// and the arithmetic on whatever numbers they find. The first byte chooses.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "agent/snmpd_watchdog.h"
#include "detail/load.h"
#include "detail/memdetail.h"
#include "fuzz/require.h"
#include "monitors/cpu.h"
#include "monitors/filesys.h"
#include "monitors/memory.h"

namespace {

void Figures(const std::string &bytes) {
  uint64_t n[8] = {};
  memcpy(n, bytes.data(), bytes.size() < sizeof(n) ? bytes.size() : sizeof(n));
  mount_stats stats = {};
  stats.frsize = n[0];
  stats.blocks = n[1];
  stats.bfree = n[2];
  stats.files = n[3];
  stats.ffree = n[4];
  const filesys_figures mount = figures_of_mount(stats);
  Require(mount.space_total >= 0 && mount.percent_used >= 0 && mount.percent_used <= 100);
  Require(figures_of_volume(n[5], n[6]).percent_used <= 100);
  Require(cpu_utilisation({n[0], n[1], n[2], 0}, {n[4], n[5], n[6], 0}) >= 0);
}

void Vmkfstools(std::string text) {
  FILE *file = text.empty() ? nullptr : fmemopen(text.data(), text.size(), "r");
  if (file != nullptr) {
    uint64_t capacity;
    uint64_t available;
    parse_vmkfstools(file, &capacity, &available);
    (void)figures_of_volume(capacity, available);
    fclose(file);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  unsigned long kilobytes = 0;
  cpu_sample sample = {};
  // More than there are, so that one more leaves the seeds with those that they were made for.
  switch (data[0] % 64) {
    case 0:
      Require(parse_meminfo_line(text.c_str(), &kilobytes) < MEMINFO_KEYS);
      break;
    case 1:
      if (is_processor_line(text.c_str())) {
        parse_cpu_line(text.c_str(), &sample);
        Require(sample.nice == 0);
      }
      break;
    case 2:
      Vmkfstools(text);
      break;
    case 3:
      (void)parse_snmpd_size(text.c_str());
      break;
    case 4:
      if (is_plain_name(text.c_str())) {
        Require(strpbrk(text.c_str(), " \t\n\"'`\\$&;|<>()[]{}*?~#!^") == nullptr);
      }
      break;
    case 5:
      Figures(text);
      break;
    case 6: {
      int32_t averages[3] = {};
      Require(parse_loadavg(text.c_str(), averages) == (averages[0] >= 0));
      Require(averages[1] >= -1 && averages[2] >= -1 && parse_uptime(text.c_str()) >= -1);
      break;
    }
    case 7:
      Require(megabytes_of_line(text.c_str(), "Cached") >= -1);
      break;
    default:
      return -1;  // not for the corpus
  }
  return 0;
}
