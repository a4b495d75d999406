// registry_rows ROOT ROWS SECONDS: publishes so many rows of file systems in a registry, and
// changes every one of them each so many seconds (0: never), until it is told to end.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "framework/registry/registry_file.h"
#include "platform/framework.h"

namespace {

// As the host agent's rows are.
struct [[gnu::packed]] Row {
  int32_t index;
  char description[256];
  int32_t total;
  int32_t used;
  int32_t percent;
  int32_t units;
  int32_t units_used;
};

std::vector<vex::FileVariable> Layout() {
  const auto variable = [](const char *name, uint8_t type, size_t size, size_t offset) {
    vex::FileVariable made;
    made.name = name;
    made.type = type;
    made.access = ACCESS_READ_ONLY;
    made.size = static_cast<uint32_t>(size);
    made.offset = static_cast<uint32_t>(offset);
    return made;
  };
  return {variable("tlxHoFileSysIndex", VAR_INTEGER, 4, offsetof(Row, index)),
          variable("tlxHoFileSysDesc", VAR_DISPLAY_STRING, 256, offsetof(Row, description)),
          variable("tlxHoFileSysSpaceTotal", VAR_INTEGER, 4, offsetof(Row, total)),
          variable("tlxHoFileSysSpaceUsed", VAR_INTEGER, 4, offsetof(Row, used)),
          variable("tlxHoFileSysPercentSpaceUsed", VAR_INTEGER, 4, offsetof(Row, percent)),
          variable("tlxHoFileSysAllocUnitsTotal", VAR_INTEGER, 4, offsetof(Row, units)),
          variable("tlxHoFileSysAllocUnitsUsed", VAR_INTEGER, 4, offsetof(Row, units_used))};
}

int PublishAll(std::vector<vex::ObjectFileWriter> *writers, int round) {
  for (size_t i = 0; i < writers->size(); i++) {
    Row row = {};
    row.index = static_cast<int32_t>(i);
    std::snprintf(row.description, sizeof(row.description), "/dev/mapper/volume%zu on /srv/%zu", i,
                  i);
    row.total = 1000 + static_cast<int32_t>(i);
    row.percent = static_cast<int32_t>((i * 7 + static_cast<size_t>(round)) % 101);
    row.used = row.total / 100 * row.percent;
    row.units = 100000;
    row.units_used = round;
    const std::vector<uint16_t> lengths = {4, 256, 4, 4, 4, 4, 4};
    if ((*writers)[i].Publish(reinterpret_cast<const uint8_t *>(&row), lengths.data()) != 0) {
      perror("registry_rows");
      return -1;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 4) {
    std::fputs("usage: registry_rows ROOT ROWS SECONDS\n", stderr);
    return 2;
  }
  const std::string root = argv[1];
  const size_t rows = strtoul(argv[2], nullptr, 10);
  const auto seconds = static_cast<unsigned>(strtoul(argv[3], nullptr, 10));
  std::vector<vex::ObjectFileWriter> writers;
  for (size_t i = 0; i < rows; i++) {
    writers.emplace_back("host/filesys." + std::to_string(i), root);
    writers.back().SetLayout(Layout(), sizeof(Row));
  }
  for (int round = 0;; round++) {
    if (PublishAll(&writers, round) != 0) {
      return 1;
    }
    if (round == 0) {
      std::puts("published");
      std::fflush(stdout);
    }
    if (seconds == 0) {
      pause();
    }
    sleep(seconds);
  }
}
