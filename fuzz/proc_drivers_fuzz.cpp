// The collectors of the drivers' text files, all but the identify data's, on any text. The first
// byte says which one; the rest is its file, read record by record as the firmware pass does.
#include <cstdio>
#include <cstring>

#include "firmware/proc_drivers.h"
#include "fuzz/require.h"

namespace {

template <size_t Size>
bool Ends(const char (&field)[Size]) {
  return memchr(field, '\0', Size) != nullptr;
}

constexpr firmware_collector kCollectors[] = {collect_ida, collect_cciss, collect_fibre_channel,
                                              collect_scsi_device, collect_network_adapter};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) {
    return 0;
  }
  const firmware_collector collect = kCollectors[data[0] % 5];
  FILE *stream = fmemopen(const_cast<uint8_t *>(data + 1), size - 1, "r");
  Require(stream != nullptr);
  int more = 0;
  size_t records = 0;
  do {
    firmware_record record = {};
    const int result = collect(stream, "qla2300/0", &record, &more);
    Require(result >= 0 && result <= 9);
    Require(Ends(record.display_name) && Ends(record.version) && Ends(record.location) &&
            Ends(record.xml) && Ends(record.key));
    Require(record.index == 0 && record.pad[0] == 0 && record.pad[1] == 0 && record.pad[2] == 0);
    Require(record.category == 2 || record.category == 3);
    records++;
  } while (feof(stream) == 0 && (more & 1) != 0);
  // Every record that is followed by another one took some of the text.
  Require(records <= size);
  fclose(stream);
  return 0;
}
