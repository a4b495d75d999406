// The reader of an IDE drive's identify data on any text.
#include <cctype>
#include <cstdio>
#include <cstring>

#include "firmware/proc_drivers.h"
#include "fuzz/require.h"

namespace {

bool EndsInBlank(const char *text) {
  const size_t length = strlen(text);
  return length > 0 && isspace(static_cast<unsigned char>(text[length - 1])) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) {
    return 0;
  }
  FILE *stream = fmemopen(const_cast<uint8_t *>(data), size, "r");
  Require(stream != nullptr);
  firmware_record record = {};
  int more = 1;
  Require(collect_ide_drive(stream, "ide0/hda", &record, &more) == 0);
  Require(more == 0);
  Require(record.device_type == 8 || record.device_type == 7);
  Require(strnlen(record.version, sizeof(record.version)) <= 8);
  Require(strnlen(record.display_name, sizeof(record.display_name)) <= 40);
  // Blanks stay only before a zero.
  Require(strlen(record.version) < 8 || !EndsInBlank(record.version));
  Require(strlen(record.display_name) < 40 || !EndsInBlank(record.display_name));
  Require(record.key[0] == '\0' && strcmp(record.location, "ide0/hda") == 0);
  fclose(stream);
  return 0;
}
