// The collectors of SMBIOS facts on any records and strings. The input is a list of records: the
// type's choice, the length of the formatted part, its bytes, and strings ended by zeros; one more
// byte ends the record's strings.
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "firmware/system_rom.h"
// With its state in reach: what it found once stands for the process's life.
#include "firmware/powerpic.cpp"
#include "fuzz/require.h"

struct tlxci_channel {
  int unused;
};

namespace {

struct Structure {
  std::vector<unsigned char> bytes;
  std::vector<std::string> strings;
};

std::vector<Structure> structures;
tlxci_channel the_channel;

template <size_t Size>
bool Ends(const char (&field)[Size]) {
  return memchr(field, '\0', Size) != nullptr;
}

void Parse(const uint8_t *data, size_t size) {
  constexpr unsigned char kTypes[] = {0, 1, 193, 216};
  structures.clear();
  size_t at = 0;
  while (at + 2 < size && structures.size() < 64) {
    Structure one;
    one.bytes = {kTypes[data[at] % 4], static_cast<unsigned char>(4 + data[at + 1] % 28), 0, 0};
    at += 2;
    while (one.bytes.size() < one.bytes[1]) {
      one.bytes.push_back(at < size ? data[at++] : 0);
    }
    while (at < size && data[at] != 0) {
      const size_t length = strnlen(reinterpret_cast<const char *>(data + at), size - at);
      one.strings.emplace_back(reinterpret_cast<const char *>(data + at), length);
      at += length + 1;
    }
    at++;
    structures.push_back(one);
  }
}

}  // namespace

extern "C" {

int InitSMBIOS(void) {
  return 1;
}

int IsSMBIOSAvailable(void) {
  return structures.empty() ? 0 : 1;
}

int SmbGetRecordByType(int type, int instance, const unsigned char **record) {
  for (const Structure &one : structures) {
    if (one.bytes[0] == type && instance-- == 0) {
      *record = one.bytes.data();
      return 1;
    }
  }
  return 0;
}

const char *SmbGetStringByNumber(const unsigned char *record, int number) {
  for (const Structure &one : structures) {
    if (one.bytes.data() == record) {
      const auto index = static_cast<size_t>(number) - 1;
      return index < one.strings.size() ? one.strings[index].c_str() : "";
    }
  }
  abort();
}

int initializeRemoteVantix(tlxci_channel **channel, int *device) {
  *channel = &the_channel;
  *device = -1;
  return TLXCI_INTEGRATED;
}

// The collector's line on standard output is not wanted a million times.
int LLVMFuzzerInitialize(int *, char ***) {
  Require(freopen("/dev/null", "w", stdout) != nullptr);
  return 0;
}

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Parse(data, size);
  int more = 1;
  firmware_record record = {};
  if (collect_system_rom(nullptr, "System Rom", &record, &more) == 0) {
    Require(Ends(record.version) && Ends(record.key) && strlen(record.version) >= 10);
  }
  Require(more == 0);

  memset(&cached, 0, sizeof(cached));
  attempts = 0;
  int result = -1;
  int calls = 0;
  while (result != 0) {
    record = {};
    result = collect_powerpic(nullptr, "PowerPIC", &record, &more);
    calls++;
  }
  Require(calls == 1 || calls == most_attempts + 1);
  Require(Ends(record.version) && Ends(record.key) && record.xml[0] == '\0');
  return 0;
}
