// The SMBIOS parser on any bytes. The input is the length of the entry point in one byte, the entry
// point, and the table. Every byte of every record and string that it hands out is read.
#include <cstring>

#include "fuzz/require.h"
#include "hardware/kelmointrfc/smbios_tables.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const size_t entry_size = data[0] < size - 1 ? data[0] : size - 1;
  // Copies of exact size, so that a step outside is seen.
  const std::vector<uint8_t> entry(data + 1, data + 1 + entry_size);
  const std::vector<uint8_t> table(data + 1 + entry_size, data + size);
  const char *problem = nullptr;
  const auto tables = vex::SmbiosTables::Parse(entry, table, &problem);
  Require(tables.has_value() == (problem == nullptr));
  if (!tables) {
    return 0;
  }
  size_t records = 0;
  size_t sum = 0;
  for (int type = 0; type < 256; type++) {
    const uint8_t *record = nullptr;
    for (int i = 0; (record = tables->Record(type, i)) != nullptr; i++) {
      Require(record[0] == type && record[1] >= 4);
      records++;
      for (int at = 0; at < record[1]; at++) {
        sum += record[at];
      }
      for (int number = 0; number < 8; number++) {
        sum += strlen(tables->String(record, number));
      }
      sum += strlen(tables->String(record, 255));
    }
  }
  Require(records > 0 && records * 6 <= table.size());
  // Nothing of it is left out as unused.
  asm volatile("" : : "r"(sum));
  return 0;
}
