#include "status/guid.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include "common/kept_file.h"
#include "common/sources.h"
#include "common/util.h"
#include "platform/framework.h"
#include "platform/smbios.h"
#include "status/ranmar.h"

static constexpr char guid_file_name[] = "tlxhoguid.dat";

// SMBIOS records that hold a GUID, and where.
static constexpr int maker_record = 226;
static constexpr int maker_guid_offset = 4;
static constexpr int system_record = 1;
static constexpr int system_guid_offset = 8;

// ---- State --------------------------------------------------------------------------------------

static bool settable = true;
static bool settled = true;  // false while there are SMBIOS tables that cannot be read
kept_file guid_file = {guid_file_name, false};

// ---- Reading ------------------------------------------------------------------------------------

// Copies the GUID at an offset of a record. False when the record is too short to have one.
static bool copy_from_record(const unsigned char *record, int offset, unsigned char *guid) {
  if (record[1] < offset + GUID_SIZE) {
    return false;
  }
  memcpy(guid, record + offset, GUID_SIZE);
  return true;
}

// Sixteen octets 00 or sixteen octets FF are no UUID (DSP0134, 7.2.1).
static bool unusable(const unsigned char *guid) {
  for (int i = 1; i < GUID_SIZE; i++) {
    if (guid[i] != guid[0]) {
      return false;
    }
  }
  return guid[0] == 0x00 || guid[0] == 0xFF;
}

// From the loaded tables. False when they give none.
static bool read_records(unsigned char *guid) {
  const unsigned char *record = nullptr;
  if (SmbGetRecordByType(maker_record, 0, &record) != 0 &&
      copy_from_record(record, maker_guid_offset, guid)) {
    DeinitSMBIOS();
    agentlog_fprintf(stderr, "Info: tlxHoGUID is obtained from SMBIOS record type 226\n");
    return true;
  }
  if (SmbGetRecordByType(system_record, 0, &record) != 0) {
    agentlog_fprintf(stderr, "Info: SM BIOS record %d (SYSTEM_INFORMATION) present.\n",
                     system_record);
    if (copy_from_record(record, system_guid_offset, guid)) {
      if (!unusable(guid)) {
        DeinitSMBIOS();
        // The raw octets up to the first zero, on purpose: this line has always looked like that.
        agentlog_fprintf(stderr, "Info: tlxHoGUID is obtained from SMBIOS %.*s\n", GUID_SIZE,
                         reinterpret_cast<const char *>(guid));
        return true;
      }
      agentlog_fprintf(
          stderr, "Info: SM BIOS contains unusable UUID which contains all 0x%02X characters.\n",
          guid[0]);
    }
  } else {
    agentlog_fprintf(stderr, "Info: SM BIOS record %d (SYSTEM_INFORMATION) does NOT present.\n",
                     system_record);
  }
  DeinitSMBIOS();
  return false;
}

static bool read_smbios(unsigned char *guid) {
  if (InitSMBIOS() == 0) {
    settled = !may_pass(errno);
    agentlog_fprintf(stderr, "Info: SM BIOS Structures not present.\n");
    return false;
  }
  agentlog_fprintf(stderr, "Info: SM BIOS Structures present.\n");
  return read_records(guid);
}

// What the file of an earlier run had, when that was not a GUID: for the log, "" when there is no
// file or it was refused.
struct unread_file {
  char what[96];
  bool worth_keeping;  // it may hold more than was read
};

// The GUID of an earlier run. False when there is none.
static bool read_file(unsigned char *guid, unread_file *unread) {
  *unread = {};
  const ssize_t length = read_kept_file(&guid_file, guid, GUID_SIZE, true);
  if (length == GUID_SIZE) {
    return true;
  }
  if (length >= 0) {
    snprintf(unread->what, sizeof(unread->what), "has %zd of the %d octets of a GUID", length,
             GUID_SIZE);
    unread->worth_keeping = length > 0;
  } else if (errno != ENOENT && errno != EBADF) {
    snprintf(unread->what, sizeof(unread->what), "cannot be read: %s", strerror(errno));
    unread->worth_keeping = true;
  }
  return false;
}

// Saves a generated GUID, and says what became of a file that could not be used.
static void save_generated(const unsigned char *guid, const unread_file &unread) {
  char aside[ASIDE_NAME_SIZE] = "";
  const kept_result result =
      replace_kept_file(&guid_file, guid, GUID_SIZE, unread.worth_keeping ? &aside : nullptr);
  if (unread.what[0] == '\0') {
    return;
  }
  const char *done = "was not replaced: the generated GUID lasts for this run";
  if (result == KEPT_REPLACED) {
    done = aside[0] != '\0' ? "was replaced by a generated one; the old one is kept as "
                            : "was replaced by a generated one";
  }
  agentlog_fprintf(stderr, "%s: GUID file %s/%s %s; it %s%s\n", agent, REGISTRY_ROOT,
                   guid_file_name, unread.what, done, aside);
}

// ---- Computing ----------------------------------------------------------------------------------

void format_guid(const unsigned char guid[GUID_SIZE], char *text, size_t text_size) {
  snprintf(text, text_size, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
           guid[3], guid[2], guid[1], guid[0], guid[5], guid[4], guid[7], guid[6], guid[8], guid[9],
           guid[10], guid[11], guid[12], guid[13], guid[14], guid[15]);
}

static void generate(unsigned char *guid, const unread_file &unread) {
  memset(guid, 0, GUID_SIZE);
  seed_generator();
  generate_octets(guid, GUID_SIZE);
  save_generated(guid, unread);
  agentlog_fprintf(stderr, "Info: tlxHoGUID is generated by \"uuid_generated\" function.\n");
}

// ---- Entry points -------------------------------------------------------------------------------

void obtain_guid(unsigned char guid[GUID_SIZE], char *text, size_t text_size) {
  unread_file unread;
  if (read_smbios(guid)) {
    settable = false;
  } else if (read_file(guid, &unread)) {
    agentlog_fprintf(stderr, "Info: tlxHoGUID is the same as previously set/generated.\n");
  } else if (unread.worth_keeping && agent_ending() != 0) {
    // There was no time to try again: the next start reads it.
    memset(guid, 0, GUID_SIZE);
  } else {
    generate(guid, unread);
  }
  if (settable && memcmp(guid, guid_without_eth0, GUID_SIZE) == 0) {
    agentlog_fprintf(stderr,
                     "%s: The GUID is the one that every host without an eth0 generates; give this "
                     "host its own by setting tlxHoGUID\n",
                     agent);
  }
  if (!settled) {
    agentlog_fprintf(stderr,
                     "%s: The SMBIOS tables cannot be read: until they can be, the GUID is not "
                     "settled and cannot be set\n",
                     agent);
  }
  format_guid(guid, text, text_size);
}

// Asks the tables again that could not be read. A machine without a GUID in them keeps what it has.
static void settle(unsigned char guid[GUID_SIZE], char *text, size_t text_size) {
  if (InitSMBIOS() == 0 && may_pass(errno)) {
    return;
  }
  settled = true;
  unsigned char own[GUID_SIZE];
  if (IsSMBIOSAvailable() != 0 && read_smbios(own)) {
    settable = false;
    memcpy(guid, own, GUID_SIZE);
    format_guid(guid, text, text_size);
  } else {
    agentlog_fprintf(stderr, "%s: The GUID stays: the SMBIOS tables have none\n", agent);
  }
}

int set_guid(uint8_t phase, unsigned char guid[GUID_SIZE], const void *value, int length) {
  if (!settable || length != GUID_SIZE) {
    return -1;
  }
  if (phase == SET_CHECK) {
    return 0;
  }
  // Not settled: refused as what passes is, not as a value that is wrong for good.
  if (!settled || replace_kept_file(&guid_file, value, GUID_SIZE) != KEPT_REPLACED) {
    return -1;
  }
  memcpy(guid, value, GUID_SIZE);
  return 0;
}

void keep_guid(unsigned char guid[GUID_SIZE], char *text, size_t text_size) {
  if (!settled) {
    settle(guid, text, text_size);
  }
  if (settable) {
    restore_kept_file(&guid_file, guid, GUID_SIZE);
  }
}
