#include "firmware/programmable_logic.h"

#include "common/util.h"
#include "firmware/controller.h"
#include "platform/channel.h"

// ---- Devices ------------------------------------------------------------------------------------

// Where the reply has a device's version, which is a byte or a little-endian 32-bit word.
struct device {
  int position;
  bool is_word;
  const char *key;
};

static constexpr device devices[] = {
    {14, false, "CPLD-Q47-SPI"},         {15, false, "CPLD-Q47-MAINIO"},
    {16, false, "CPLD-Q47-UPPERCPU"},    {17, false, "CPLD-Q47-LOWERCPU"},
    {18, true, "FMP-Q47-UPPERZRB"},      {22, true, "FMP-Q47-LOWERZRB"},
    {26, true, "CPLD-Q47-UPPERZRBFPGA"}, {30, true, "CPLD-Q47-LOWERZRBFPGA"},
    {34, false, "CPLD-Q47-SFF"},         {35, false, "CPLD-Q47-PCIEIO"},
    {36, false, "pciex_io_cpld"},
};
static constexpr int device_count = sizeof(devices) / sizeof(*devices);
static_assert(device_count == 11);

// The length word says 9 while 8 bytes go out: the controller expects both.
static constexpr uint8_t request[] = {0x09, 0x00, 0x00, 0x00, 0x01, 0x01, 0x00, 0x00};
static constexpr int reply_code = 12;
static constexpr int good_reply_code = 0xA1;

// ---- State --------------------------------------------------------------------------------------

static bool refresh = true;  // the next call asks the controller
static int current;          // the device that the next call serves
static uint8_t reply[78];    // the last one

// ---- Reading ------------------------------------------------------------------------------------

// What goes wrong shows as a reply without the right code.
static void ask_controller() {
  controller_link link = {nullptr, -1};
  initializeRemoteVantix(&link.channel, &link.device);
  controller_send(&link, request, sizeof(request));
  controller_receive(&link, reply, sizeof(reply));
}

// ---- Computing ----------------------------------------------------------------------------------

// Of a word's bytes only the low halves are the version.
static int format_version(char (&version)[sizeof(firmware_record::version)], const device &d) {
  const uint8_t *field = reply + d.position;
  if (!d.is_word) {
    if (field[0] == 0) {
      return -1;
    }
    snprintf(version, sizeof(version), "0x%02X", field[0]);
    return 0;
  }
  if ((field[0] | field[1] | field[2] | field[3]) == 0) {
    return -1;
  }
  snprintf(version, sizeof(version), "%02X.%02X.%02X", field[2] & 0xF, field[1] & 0xF,
           field[0] & 0xF);
  return 0;
}

// The description's category is not the record's; update tools rely on both.
static void format_xml(firmware_record *record) {
  snprintf(record->xml, sizeof(record->xml),
           "<location category=\"%d\" type=\"%d\"><version>%s</version><key>%s</key></location>", 1,
           26, record->version, record->key);
}

int collect_programmable_logic(FILE *, const char *name, firmware_record *record, int *more) {
  *more = 0;
  if (refresh) {
    ask_controller();
  }
  if ((reply[reply_code] | reply[reply_code + 1] << 8) != good_reply_code) {
    // Another server, or a controller that does not know: it is not asked again.
    refresh = false;
    return -1;
  }
  record->category = 5;
  record->device_type = 26;
  record->update_method = usual_update_method;
  copy_field(record->location, system_board);
  copy_field(record->display_name, name);
  const device &d = devices[current];
  const int result = format_version(record->version, d);
  if (result == 0) {
    copy_field(record->key, d.key);
    format_xml(record);
  }
  current = (current + 1) % device_count;
  refresh = current == 0;
  return result;
}
