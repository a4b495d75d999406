// libkelmointrfc in memory: the tables that the test describes.
#include <cerrno>
#include <optional>

#include "hardware/kelmointrfc/smbios_tables.h"
#include "platform/smbios.h"
#include "tests/support/recording_framework.h"
#include "tests/support/recording_internal.h"
#include "tests/support/smbios_tables.h"

namespace {

struct Tables {
  std::optional<vex::SmbiosTables> present;
  bool loaded = false;
};

Tables &Smbios() {
  static auto *tables = new Tables;
  return *tables;
}

}  // namespace

namespace rec {

void PutSmbios(const std::string &description) {
  const vex::SmbiosImage image = vex::AssembleSmbios(description);
  const std::vector<uint8_t> entry(image.entry_point.begin(), image.entry_point.end());
  const std::vector<uint8_t> table(image.table.begin(), image.table.end());
  const char *problem = "";
  Smbios().present = vex::SmbiosTables::Parse(entry, table, &problem);
  Smbios().loaded = false;
}

}  // namespace rec

extern "C" {

int InitSMBIOS(void) {
  rec::Record("InitSMBIOS", "");
  const bool fails = rec::Fails("InitSMBIOS", "");
  Smbios().loaded = !fails && Smbios().present;
  if (!fails) {
    errno = ENOENT;
  }
  return Smbios().loaded;
}

int IsSMBIOSAvailable(void) {
  return Smbios().loaded;
}

int SmbGetRecordByType(int type, int instance, const unsigned char **record) {
  const uint8_t *found = Smbios().loaded ? Smbios().present->Record(type, instance) : nullptr;
  if (found == nullptr) {
    return 0;
  }
  *record = found;
  return 1;
}

const char *SmbGetStringByNumber(const unsigned char *record, int number) {
  return Smbios().loaded ? Smbios().present->String(record, number) : "";
}

void DeinitSMBIOS(void) {
  rec::Record("DeinitSMBIOS", "");
  Smbios().loaded = false;
}

}  // extern "C"
