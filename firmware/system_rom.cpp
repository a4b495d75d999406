#include "firmware/system_rom.h"

#include "common/util.h"
#include "firmware/smbios_string.h"

// SMBIOS type 0, BIOS information: numbers of the version and release date strings.
static constexpr int bios_information = 0;
static constexpr int bios_version = 5;
static constexpr int bios_release_date = 8;

// The release date, mm/dd/yyyy, as yyyy.mm.dd. The pieces are cut at fixed places, also in a date
// of another form; update tools compare the outcome.
static void format_date(char (&version)[sizeof(firmware_record::version)], const char *date) {
  char pieces[13] = {};
  copy_field(pieces, date);
  pieces[2] = '\0';
  pieces[5] = '\0';
  snprintf(version, sizeof(version), "%4s.%2s.%2s", pieces + 6, pieces, pieces + 3);
}

int collect_system_rom(FILE *, const char *, firmware_record *record, int *more) {
  *more = 0;
  if (IsSMBIOSAvailable() == 0) {
    InitSMBIOS();
  }
  const unsigned char *bios = nullptr;
  if (IsSMBIOSAvailable() == 0 || SmbGetRecordByType(bios_information, 0, &bios) == 0) {
    return -1;
  }
  format_date(record->version, smbios_string(bios, bios_release_date));
  copy_field(record->location, system_board);
  copy_field(record->key, smbios_string(bios, bios_version));
  copy_field(record->display_name, "QV Servala System ROM");
  record->category = 5;
  record->device_type = 23;
  record->update_method = usual_update_method;
  return 0;
}
