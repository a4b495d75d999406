#include "firmware/proc_drivers.h"

#include <ctype.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include "common/sources.h"
#include "common/util.h"

// ---- Line scanner -------------------------------------------------------------------------------

int scan_lines(FILE *stream, const scan_step *steps, int count) {
  int processed = 0;
  while (processed < count && feof(stream) == 0) {
    const scan_step &step = steps[processed];
    // The formats are constants of this file, each as wide as its destination.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    if (step.destination == nullptr) {
      (void)!fscanf(stream, step.format);
    } else if (fscanf(stream, step.format, step.destination) <= 0) {
      break;
    }
#pragma GCC diagnostic pop
    processed++;
  }
  return processed;
}

template <int N>
static int steps_left(FILE *stream, const scan_step (&steps)[N]) {
  return N - scan_lines(stream, steps, N);
}

static constexpr char skip_line[] = "%*[^\n]\n";

// The widths in the formats below are those of these fields.
static_assert(sizeof(firmware_record::display_name) == 128 + 1);
static_assert(sizeof(firmware_record::key) == 128 + 1);
static_assert(sizeof(firmware_record::version) == 32 + 1);
static_assert(sizeof(firmware_record::location) == 256 + 1);

static void fill(firmware_record *record, int32_t category, int32_t device_type) {
  record->category = category;
  record->device_type = device_type;
  record->update_method = usual_update_method;
}

// ---- Array controllers --------------------------------------------------------------------------

static int collect_array(FILE *stream, const char *version_format, firmware_record *record,
                         int *more) {
  *more = 0;
  fill(record, 2, 2);
  const scan_step steps[] = {
      {"%256[^:]: ", record->location},
      {"%128[^\n]\n", record->display_name},
      {"Board ID: %128[^\n]\n", record->key},
      {version_format, record->version},
  };
  return steps_left(stream, steps);
}

int collect_cciss(FILE *stream, const char *, firmware_record *record, int *more) {
  return collect_array(stream, "Firmware Version: %32[^\n]\n", record, more);
}

int collect_ida(FILE *stream, const char *, firmware_record *record, int *more) {
  return collect_array(stream, "Firmware Revision: %32[^\n]\n", record, more);
}

// ---- Fibre-channel adapters ---------------------------------------------------------------------

int collect_fibre_channel(FILE *stream, const char *name, firmware_record *record, int *more) {
  *more = 0;
  fill(record, 2, 3);
  copy_field(record->location, name);
  const scan_step steps[] = {
      {"%128[^:]:\n", record->display_name},
      {"Firmware version: %32[^,],", record->version},
      {skip_line, nullptr},
      {"Entry address = %128[^\n]\n", record->key},
  };
  return steps_left(stream, steps);
}

// ---- Network adapters ---------------------------------------------------------------------------

int collect_network_adapter(FILE *stream, const char *name, firmware_record *record, int *more) {
  *more = 0;
  fill(record, 3, 24);
  // Adapters have no update method: managers read 0.
  record->update_method = 0;
  copy_field(record->location, name);
  copy_field(record->key, name);
  const scan_step steps[] = {
      {"Description %128[^\n]\n", record->display_name},
      {skip_line, nullptr},
      {skip_line, nullptr},
      {"Bootcode_Version %32[^\n]\n", record->version},
  };
  return steps_left(stream, steps);
}

// ---- SCSI devices -------------------------------------------------------------------------------

static constexpr struct {
  const char *text;
  int32_t device_type;
} scsi_types[] = {
    {"Direct-Access", 10},  {"Sequential-Access", 11}, {"CD-ROM", 23},
    {"Medium Changer", 12}, {"Communications", 24},
};
static constexpr int32_t other_scsi_type = 1;

static int32_t device_type_of(const char *type) {
  for (const auto &known : scsi_types) {
    if (strcmp(type, known.text) == 0) {
      return known.device_type;
    }
  }
  return other_scsi_type;
}

// The segment of the program that manages RAID devices: whether its text is valid, and the text.
static constexpr size_t raid_valid = 189;
static constexpr size_t raid_text = 190;
static constexpr size_t raid_text_size = raid_segment_size - raid_text;

// Copies the text, if there is a valid one. Returns 0, also when there is no segment; -1 when it
// cannot be attached.
static int look_up_raid_key(char (&text)[raid_text_size + 1]) {
  const key_t key = ftok(raid_key_path, raid_key_project);
  const int segment = key != -1 ? shmget(key, raid_segment_size, 0) : -1;
  if (segment == -1) {
    return 0;
  }
  void *const attached = shmat(segment, nullptr, SHM_RDONLY);
  if (attached == reinterpret_cast<void *>(-1)) {
    return -1;
  }
  const auto *bytes = static_cast<const char *>(attached);
  if (bytes[raid_valid] == 1) {
    memcpy(text, bytes + raid_text, raid_text_size);
    text[raid_text_size] = '\0';
  }
  shmdt(attached);
  return 0;
}

static void skip_heading(FILE *stream) {
  int c = 0;
  do {
    c = fgetc(stream);
  } while (c != '\n' && c != EOF);
}

// What the list says of a device besides its version.
struct scsi_texts {
  char host[33];
  char channel[5];
  char id[5];
  char lun[5];
  char vendor[9];
  char model[17];
  char type[33];
};

int collect_scsi_device(FILE *stream, const char *, firmware_record *record, int *more) {
  fill(record, 2, other_scsi_type);
  if (ftell(stream) == 0) {
    skip_heading(stream);
  }
  scsi_texts texts = {};
  const scan_step steps[] = {
      {"Host: %32[^ ]", texts.host},
      {" Channel: %4[^ ]", texts.channel},
      {" Id: %4[^ ]", texts.id},
      {" Lun: %4[^\n]\n", texts.lun},
      {" Vendor: %8[^\n]", texts.vendor},
      {" Model: %16[^\n]", texts.model},
      {" Rev: %32[^\n]\n", record->version},
      {" Type: %32s", texts.type},
      {skip_line, nullptr},
  };
  const int left = steps_left(stream, steps);
  record->device_type = device_type_of(texts.type);
  snprintf(record->location, sizeof(record->location), "%s(%s:%s:%s)", texts.host, texts.channel,
           texts.id, texts.lun);
  snprintf(record->display_name, sizeof(record->display_name), "%s %s", texts.vendor, texts.model);
  *more = left == 0;
  if (strcmp(texts.type, "RAID") == 0) {
    char key[raid_text_size + 1] = "";
    if (look_up_raid_key(key) == 0) {
      snprintf(record->key, sizeof(record->key), "0x%s", key);
    }
  }
  return left;
}

// ---- IDE drives ---------------------------------------------------------------------------------

// The identify data (ATA, IDENTIFY DEVICE) as bytes in the order of the text: high byte first.
static constexpr size_t identify_size = 128;
static constexpr size_t removable_byte = 1;  // word 0, bit 7
static constexpr uint8_t removable_bit = 0x80;
static constexpr size_t revision_byte = 46;  // words 23 to 26
static constexpr size_t revision_size = 8;
static constexpr size_t model_byte = 54;  // words 27 to 46
static constexpr size_t model_size = 40;

// Replaces blanks at the end of a field of `size` bytes; a NUL before them keeps them.
static void cut_blanks(char *field, size_t size) {
  while (size > 0 && isspace(static_cast<unsigned char>(field[size - 1])) != 0) {
    field[--size] = '\0';
  }
}

int collect_ide_drive(FILE *stream, const char *name, firmware_record *record, int *more) {
  *more = 0;
  fill(record, 2, 8);
  copy_field(record->location, name);
  uint8_t identify[identify_size] = {};
  unsigned short value = 0;
  for (size_t i = 0; i < identify_size && fscanf(stream, "%2hx", &value) == 1; i++) {
    identify[i] = static_cast<uint8_t>(value);
  }
  if ((identify[removable_byte] & removable_bit) != 0) {
    record->device_type = 7;
  }
  memcpy(record->version, identify + revision_byte, revision_size);
  cut_blanks(record->version, revision_size);
  memcpy(record->display_name, identify + model_byte, model_size);
  cut_blanks(record->display_name, model_size);
  return 0;
}
