#include "firmware/powerpic.h"

#include <string.h>

#include "common/util.h"
#include "firmware/smbios_string.h"
#include "platform/channel.h"

// ---- State --------------------------------------------------------------------------------------

static struct {
  char version[64];
  char key[160];
} cached;

// Reading is tried at most this often; from then on the cache stands as it is, filled or not.
static constexpr int most_attempts = 10;
static int attempts;

// ---- Reading ------------------------------------------------------------------------------------

// SMBIOS type 216, firmware versions: kind of firmware (a little-endian word), numbers of the key
// and version strings.
static constexpr int firmware_versions = 216;
static constexpr int firmware_kind = 4;
static constexpr int firmware_key = 6;
static constexpr int firmware_version = 7;
static constexpr int power_microcontroller = 4;

// SMBIOS type 193, the older form: whether it counts, number of the version string.
static constexpr int older_record = 193;
static constexpr int older_counts = 4;
static constexpr int older_version = 9;

// SMBIOS type 1, system information: number of the product name string.
static constexpr int system_information = 1;
static constexpr int product_name = 5;

static bool is_power_microcontroller(const unsigned char *record) {
  return record[1] > firmware_version &&
         (record[firmware_kind] | record[firmware_kind + 1] << 8) == power_microcontroller;
}

// From the first of the records that is the microcontroller's.
static bool read_newer() {
  const unsigned char *record = nullptr;
  for (int instance = 0; instance <= UINT16_MAX; instance++) {
    if (SmbGetRecordByType(firmware_versions, instance, &record) == 0) {
      return false;
    }
    if (is_power_microcontroller(record)) {
      copy_field(cached.version, smbios_string(record, firmware_version));
      copy_field(cached.key, smbios_string(record, firmware_key));
      return true;
    }
  }
  return false;
}

// The older form names no key: it goes by the server's model.
static const char *key_of_product(const char *name) {
  char product[129];
  copy_field(product, name);
  if (strstr(product, "KX330 R5") != nullptr) {
    return "PowerPIC-Tamsa-KX330R5";
  }
  if (strstr(product, "KX310 R5") != nullptr) {
    return "PowerPIC-Tamsa-KX310R5";
  }
  if (strstr(product, "KB") != nullptr && strstr(product, "R5") != nullptr) {
    return "PowerPIC-Tamsa-Blades";
  }
  return "PowerPIC-Velmar";
}

static bool read_older() {
  const unsigned char *record = nullptr;
  if (SmbGetRecordByType(older_record, 0, &record) == 0 || record[1] <= older_counts ||
      record[older_counts] == 0) {
    return false;
  }
  const bool has_version = record[1] > older_version;
  if (has_version) {
    copy_field(cached.version, smbios_string(record, older_version));
  }
  const unsigned char *system = nullptr;
  const bool has_system = SmbGetRecordByType(system_information, 0, &system) != 0;
  copy_field(cached.key, key_of_product(has_system ? smbios_string(system, product_name) : ""));
  return has_version;
}

// Does not load the tables itself: the system ROM's collector has done so where there are any.
static bool read_facts() {
  const unsigned char *record = nullptr;
  if (IsSMBIOSAvailable() == 0) {
    return false;
  }
  return SmbGetRecordByType(firmware_versions, 0, &record) != 0 ? read_newer() : read_older();
}

static bool has_integrated_controller() {
  tlxci_channel *channel = nullptr;
  int device = -1;
  return initializeRemoteVantix(&channel, &device) == TLXCI_INTEGRATED;
}

int collect_powerpic(FILE *, const char *, firmware_record *record, int *more) {
  *more = 0;
  if (attempts != most_attempts) {
    if (!has_integrated_controller()) {
      attempts = most_attempts;
      return -1;
    }
    fputs("Entering into UpdatePictFw ", stdout);
    fflush(stdout);
    if (!read_facts()) {
      attempts++;
      return -1;
    }
    attempts = most_attempts;
  }
  record->category = 1;
  record->device_type = 25;
  record->update_method = usual_update_method;
  copy_field(record->version, cached.version);
  copy_field(record->key, cached.key);
  copy_field(record->xml, "");
  copy_field(record->location, system_board);
  copy_field(record->display_name, "PowerPIC Firmware");
  return 0;
}
