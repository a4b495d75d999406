// The firmware table, its pass and its collectors over the recording framework.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "firmware/controller.h"
#include "firmware/fwver.h"
#include "firmware/powerpic.h"
#include "firmware/proc_drivers.h"
#include "firmware/programmable_logic.h"
#include "firmware/system_rom.h"
#include "platform/channel.h"
#include "status/misc.h"
#include "tests/support/recording_framework.h"

namespace {

using Strings = std::vector<std::string>;
using namespace std::string_literals;

const std::string kScsi = "/proc/scsi/scsi";

std::string Row(int number) {
  return "host/fwver." + std::to_string(number);
}

std::string Location(int row) {
  return rec::Text(Row(row), "tlxHoFwVerLocation");
}

std::string Version(int row) {
  return rec::Text(Row(row), "tlxHoFwVerVersion");
}

std::string DisplayName(int row) {
  return rec::Text(Row(row), "tlxHoFwVerDisplayName");
}

std::string Key(int row) {
  return rec::Text(Row(row), "tlxHoFwVerKeyString");
}

// One device of the kernel's list.
std::string ScsiDevice(int id, const std::string &type = "Direct-Access",
                       const std::string &revision = "1.05") {
  char text[256];
  snprintf(text, sizeof(text),
           "Host: scsi0 Channel: 00 Id: %02d Lun: 00\n"
           "  Vendor: MAKER    Model: DISK            Rev: %s\n"
           "  Type:   %-18s               ANSI  SCSI revision: 05\n",
           id, revision.c_str(), type.c_str());
  return text;
}

void PutScsi(const Strings &devices) {
  std::string text = "Attached devices:\n";
  for (const std::string &device : devices) {
    text += device;
  }
  rec::PutFile(kScsi, text);
}

// A controller's version reply.
std::string VersionReply(int major, int minor, int generation) {
  std::string reply(80, '\0');
  reply[16] = static_cast<char>(minor);
  reply[17] = static_cast<char>(major);
  reply[68] = static_cast<char>(generation);
  return reply;
}

// A programmable-logic reply; `fields` from byte 14 on.
std::string LogicReply(const std::string &fields, int code = 0xA1) {
  std::string reply(78, '\0');
  reply[12] = static_cast<char>(code);
  reply[13] = static_cast<char>(code >> 8);
  fields.copy(&reply[14], fields.size());
  return reply;
}

const std::string kLogicFields =
    "\x01\x12\xAB\x04"s
    "\x01\x02\x03\x00"s
    "\xF1\xF2\xF3\x00"s
    "\x00\x00\x00\x01"s
    "\x0F\x0E\x0D\xFF"s
    "\x05\x06\x07"s;

struct Outcome {
  int result;
  int more;
  firmware_record record;
};

std::unique_ptr<Outcome> Collect(firmware_collector collector, const std::string &text,
                                 const char *name = "row") {
  auto outcome = std::make_unique<Outcome>();
  outcome->more = 0x40;
  FILE *stream = tmpfile();
  EXPECT_NE(stream, nullptr);
  fwrite(text.data(), 1, text.size(), stream);
  rewind(stream);
  outcome->result = collector(stream, name, &outcome->record, &outcome->more);
  fclose(stream);
  return outcome;
}

std::unique_ptr<Outcome> CollectFixed(firmware_collector collector, const char *name = "row") {
  auto outcome = std::make_unique<Outcome>();
  outcome->more = 0x40;
  outcome->result = collector(nullptr, name, &outcome->record, &outcome->more);
  return outcome;
}

// A machine on which no collector finds anything.
class Firmware : public testing::Test {
 protected:
  void SetUp() override {
    for (const char *path : {"/proc/driver", "/proc/scsi", "/proc/ide", "/proc/net/nicinfo"}) {
      rec::PutNothing(path);
    }
  }
};

}  // namespace

// ---- Table --------------------------------------------------------------------------------------

TEST_F(Firmware, StaysEmptyWithoutFirmware) {
  for (int pass = 0; pass < 3; pass++) {
    ASSERT_EQ(do_fwver(), 0);
    // The power microcontroller's row, empty, is there from the second pass on.
    EXPECT_EQ(rec::LiveNames(), pass == 0 ? Strings{} : Strings{Row(0)});
  }
  EXPECT_EQ(rec::Messages(), Strings{});
  EXPECT_EQ(rec::Count("sleep"), 0);
}

TEST_F(Firmware, DefinesTheVariablesOfARow) {
  PutScsi({ScsiDevice(0)});
  ASSERT_EQ(do_fwver(), 0);
  const registry_object *object = rec::Live(Row(0));
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->flag, 1);
  EXPECT_EQ(object->data_size, 824);
  EXPECT_EQ(rec::Slots(Row(0)),
            (std::vector<rec::Slot>{{"tlxHoFwVerIndex", 4, 1, ACCESS_READ_ONLY, 0},
                                    {"tlxHoFwVerCategory", 4, 1, ACCESS_READ_ONLY, 4},
                                    {"tlxHoFwVerDeviceType", 4, 1, ACCESS_READ_ONLY, 8},
                                    {"tlxHoFwVerDisplayName", 129, 2, ACCESS_READ_ONLY, 12},
                                    {"tlxHoFwVerVersion", 33, 2, ACCESS_READ_ONLY, 141},
                                    {"tlxHoFwVerLocation", 257, 2, ACCESS_READ_ONLY, 174},
                                    {"tlxHoFwVerXmlString", 257, 2, ACCESS_READ_ONLY, 431},
                                    {"tlxHoFwVerKeyString", 129, 2, ACCESS_READ_ONLY, 688},
                                    {"tlxHoFwVerUpdateMethod", 4, 1, ACCESS_READ_ONLY, 820}}));
  EXPECT_EQ(rec::Handled(Row(0)), Strings{});
}

TEST_F(Firmware, AFileWithMoreRecordsHasMoreRows) {
  PutScsi({ScsiDevice(0), ScsiDevice(1), ScsiDevice(2)});
  ASSERT_EQ(do_misc(), 0);
  ASSERT_EQ(do_fwver(), 0);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(Location(i), "scsi0(00:0" + std::to_string(i) + ":00)");
    EXPECT_EQ(rec::Int(Row(i), "tlxHoFwVerIndex"), i);
    EXPECT_EQ(rec::Publications(Row(i)), 1);
  }
  EXPECT_EQ(rec::Int("host/misc", "tlxHoSwVerNextIndex"), 3);

  // The count shrinks: the highest-numbered rows go.
  PutScsi({ScsiDevice(0)});
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_NE(rec::Live(Row(0)), nullptr);
  EXPECT_EQ(rec::Live(Row(2)), nullptr);
  EXPECT_EQ(rec::Live(Row(1)), nullptr);
  // The power microcontroller's, made before the others went.
  EXPECT_EQ(rec::Int(Row(3), "tlxHoFwVerCategory"), 1);
}

TEST_F(Firmware, ARowThatGoesLeavesNoMemoryBehind) {
  PutScsi({ScsiDevice(0)});
  ASSERT_EQ(do_fwver(), 0);
  ASSERT_EQ(do_fwver(), 0);
  const size_t blocks = rec::Blocks();
  PutScsi({ScsiDevice(0), ScsiDevice(1), ScsiDevice(2)});
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Blocks(), blocks + 4);  // the rows and their names
  PutScsi({ScsiDevice(0)});
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Blocks(), blocks);
}

TEST_F(Firmware, TheIndexColumnReadsZeroAfterTheFirstUpdate) {
  PutScsi({ScsiDevice(0), ScsiDevice(1)});
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Int(Row(1), "tlxHoFwVerIndex"), 1);
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Int(Row(1), "tlxHoFwVerIndex"), 0);
  EXPECT_EQ(rec::Publications(Row(0)), 1);
  EXPECT_EQ(rec::Publications(Row(1)), 2);
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Publications(Row(0)), 1);
  EXPECT_EQ(rec::Publications(Row(1)), 2);
}

TEST_F(Firmware, PublishesAChangedRowOnce) {
  PutScsi({ScsiDevice(0)});
  ASSERT_EQ(do_fwver(), 0);
  PutScsi({ScsiDevice(0, "Direct-Access", "1.06")});
  rec::ForgetEvents();
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(Version(0), "1.06");
  EXPECT_EQ(rec::Count("log_data", Row(0)), 1);
}

TEST_F(Firmware, AGapIsFilledByTheNextRow) {
  ASSERT_EQ(do_misc(), 0);
  for (int i = 0; i < 3; i++) {
    rec::PutFile("/proc/driver/cciss/cciss" + std::to_string(i),
                 "cciss" + std::to_string(i) + ": Array\nBoard ID: 0x1\nFirmware Version: 1.0\n");
  }
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Int("host/misc", "tlxHoSwVerNextIndex"), 3);
  rec::PutNothing("/proc/driver/cciss/cciss1");
  ASSERT_EQ(do_fwver(), 0);  // adds the power microcontroller's before the gap is made
  EXPECT_EQ(rec::Live(Row(1)), nullptr);
  EXPECT_EQ(rec::Int(Row(3), "tlxHoFwVerCategory"), 1);
  EXPECT_EQ(rec::Int("host/misc", "tlxHoSwVerNextIndex"), 4);
  rec::PutFile("/proc/driver/cciss/cciss7",
               "cciss7: Array\nBoard ID: 0x1\nFirmware Version: 1.0\n");
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(Location(1), "cciss7");
  EXPECT_EQ(rec::Int("host/misc", "tlxHoSwVerNextIndex"), 4);
}

namespace {

void PutFilesOfAllPatterns() {
  rec::PutFile("/proc/driver/tlxarray/ida0",
               "ida0: Array\nBoard ID: 0x2\nFirmware Revision: 2.0\n");
  rec::PutFile("/proc/driver/cciss/cciss0",
               "cciss0: Array\nBoard ID: 0x1\nFirmware Version: 1.0\n");
  rec::PutFile("/proc/scsi/qla2300/0",
               "Adapter:\nFirmware version: 3.01, Driver version 8\nEntry address = 0x3\n");
  rec::PutFile("/proc/scsi/qla2300/10",
               "Adapter:\nFirmware version: 3.02, Driver version 8\nEntry address = 0x3\n");
  rec::PutFile("/proc/ide/ide0/hda/identify", "0040\n");
  rec::PutFile("/proc/net/nicinfo/eth0.info",
               "Description NIC\nDriver d\nBus b\nBootcode_Version 4.0\n");
  rec::PutFile("/proc/net/nicinfo/eth1.info",
               "Description NIC\nDriver d\nBus b\nBootcode_Version 4.1\n");
}

}  // namespace

TEST_F(Firmware, RowsOfAllPatterns) {
  PutFilesOfAllPatterns();
  ASSERT_EQ(do_fwver(), 0);
  std::map<std::string, std::string> versions;
  for (int i = 0; i < 6; i++) {
    versions[Location(i)] = Version(i);
  }
  EXPECT_EQ(versions, (std::map<std::string, std::string>{{"ida0", "2.0"},
                                                          {"cciss0", "1.0"},
                                                          {"qla2300/10", "3.02"},
                                                          {"ide0/hda", ""},
                                                          {"eth0", "4.0"},
                                                          {"eth1", "4.1"}}));
  // A one-digit adapter is not one of the pattern's.
  EXPECT_EQ(rec::Live(Row(6)), nullptr);
}

TEST_F(Firmware, ARowIsNamedByWhatAPatternsFilesDifferIn) {
  PutFilesOfAllPatterns();
  rec::Fail("create_obj");
  ASSERT_EQ(do_fwver(), 0);
  Strings messages;
  for (const char *name : {"ida0", "cciss0", "qla2300/10", "ide0/hda", "eth0", "eth1"}) {
    messages.push_back("vexhostd: Can't create object: " + std::string(name) + "  (PEER3023)\n");
  }
  EXPECT_EQ(rec::Messages(), messages);
}

TEST_F(Firmware, AFileThatCannotBeOpenedIsSkipped) {
  rec::PutFile("/proc/net/nicinfo/eth0.info", "Description N\na\nb\nBootcode_Version 1\n");
  rec::PutFile("/proc/net/nicinfo/eth1.info", "Description N\na\nb\nBootcode_Version 2\n");
  ASSERT_EQ(do_fwver(), 0);
  rec::Fail("fopen", "/proc/net/nicinfo/eth0.info");
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Live(Row(0)), nullptr);
  EXPECT_EQ(Version(1), "2");
  rec::Fail("glob");
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Live(Row(1)), nullptr);
}

TEST_F(Firmware, ReportsARowThatCannotBeMade) {
  PutScsi({ScsiDevice(0), ScsiDevice(1)});
  rec::Fail("create_obj", Row(0), 1);
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Messages(),
            Strings{"vexhostd: Can't create object: /proc/scsi/scsi  (PEER3023)\n"});
  EXPECT_EQ(Location(0), "scsi0(00:01:00)");
  ASSERT_EQ(do_fwver(), 0);  // tried again
  EXPECT_EQ(Location(1), "scsi0(00:00:00)");
}

TEST_F(Firmware, ReportsARowThatCannotBeInserted) {
  PutScsi({ScsiDevice(0)});
  rec::Fail("ordinsert_Q");
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Messages(),
            Strings{"vexhostd: Can't create object: /proc/scsi/scsi  (PEER3023)\n"});
  EXPECT_NE(rec::Live(Row(0)), nullptr);
  EXPECT_EQ(rec::Publications(Row(0)), 0);
  // The object that is left is the next pass's row.
  rec::StopFailing();
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(Location(0), "scsi0(00:00:00)");
  EXPECT_EQ(rec::Publications(Row(0)), 1);
}

TEST_F(Firmware, ARowWithoutMemoryIsMadeByTheNextPass) {
  Strings devices;
  for (const char *call : {"realloc", "calloc", "strdup"}) {
    SCOPED_TRACE(call);
    const auto device = std::to_string(devices.size());
    // The second pass makes the PowerPIC's row.
    const int row = devices.empty() ? 0 : static_cast<int>(devices.size()) + 1;
    devices.push_back(ScsiDevice(static_cast<int>(devices.size())));
    PutScsi(devices);
    rec::Fail(call, "*", 0, ENOMEM);
    const size_t blocks = rec::Blocks();
    ASSERT_EQ(do_fwver(), 0);
    EXPECT_EQ(rec::Blocks(), blocks);
    EXPECT_EQ(rec::Messages(), Strings{"vexhostd: Can't create object: /proc/scsi/scsi" +
                                       (device == "0" ? "" : device) + "  (PEER3023)\n"});
    rec::StopFailing();
    rec::ForgetEvents();
    ASSERT_EQ(do_fwver(), 0);
    EXPECT_EQ(Location(row), "scsi0(00:0" + device + ":00)");
  }
}

TEST_F(Firmware, ARowWhoseDeletionFailsIsDropped) {
  PutScsi({ScsiDevice(0), ScsiDevice(1)});
  ASSERT_EQ(do_fwver(), 0);
  rec::Fail("delete_obj", Row(1));
  PutScsi({ScsiDevice(0)});
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_NE(rec::Live(Row(1)), nullptr);
  rec::ForgetEvents();
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Count("delete_obj"), 0);
}

TEST_F(Firmware, ARowThatGoesBeforeItCouldBePublishedNeverIs) {
  PutScsi({ScsiDevice(0), ScsiDevice(1)});
  rec::Fail("log_data", Row(1), 1);
  ASSERT_EQ(do_fwver(), 0);
  ASSERT_NE(rec::Live(Row(1)), nullptr);
  ASSERT_EQ(rec::Publications(Row(1)), 0);
  rec::ForgetEvents();
  PutScsi({ScsiDevice(0)});
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Count("log_data", Row(1)), 0);
  EXPECT_EQ(rec::Live(Row(1)), nullptr);
}

TEST_F(Firmware, ARowThatCannotBeTakenOutIsKeptForTheNextPass) {
  PutScsi({ScsiDevice(0), ScsiDevice(1)});
  ASSERT_EQ(do_fwver(), 0);
  PutScsi({ScsiDevice(0)});
  rec::Fail("keyremove_Q", "", 1);
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Count("delete_obj"), 0);
  EXPECT_NE(rec::Live(Row(1)), nullptr);
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Live(Row(1)), nullptr);
}

TEST(FirmwareTurns, ComeFirstAndThenEveryDivisorthPass) {
  const auto turns = [](int divisor) {
    std::string all;
    int counter = 0;
    for (int pass = 0; pass < 7; pass++) {
      all += is_due(&counter, divisor) ? 'x' : '-';
    }
    return all;
  };
  EXPECT_EQ(turns(1), "xxxxxxx");
  EXPECT_EQ(turns(2), "x-x-x-x");
  EXPECT_EQ(turns(3), "x--x--x");
}

TEST_F(Firmware, WorksWithoutTheMiscGroup) {
  PutScsi({ScsiDevice(0)});
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Publications(Row(0)), 1);
}

TEST(FirmwareNames, CutPrefixAndSuffix) {
  char name[longest_row_name + 1];
  const auto cut = [&](const std::string &path, size_t prefix, size_t suffix) {
    memset(name, 'x', sizeof(name));
    const size_t length = row_name_of(name, path.c_str(), prefix, suffix);
    EXPECT_EQ(length, strlen(name));
    return std::string(name);
  };
  EXPECT_EQ(cut("/proc/net/nicinfo/eth0.info", 18, 5), "eth0");
  EXPECT_EQ(cut("/proc/ide/ide0/hda/identify", 10, 9), "ide0/hda");
  EXPECT_EQ(cut("/proc/scsi/scsi", 0, 0), "/proc/scsi/scsi");
  EXPECT_EQ(cut("abcdef", 3, 3), "");
  EXPECT_EQ(cut("abcdef", 4, 3), "ef");
  EXPECT_EQ(cut("abc", 4, 3), "");
  EXPECT_EQ(cut("", 4, 3), "");
  EXPECT_EQ(cut(std::string(300, 'y'), 0, 0), std::string(256, 'y'));
  EXPECT_EQ(cut(std::string(300, 'y'), 10, 40), std::string(250, 'y'));
}

// ---- System ROM ---------------------------------------------------------------------------------

TEST_F(Firmware, ReadsTheSystemRom) {
  rec::PutSmbios("entry 2.8\n0: 01 02 w=0 03 to=24 \"Maker\" \"P99\" \"01/15/2010\"\n");
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(Version(0), "2010.01.15");
  EXPECT_EQ(Key(0), "P99");
  EXPECT_EQ(Location(0), "System Board");
  EXPECT_EQ(DisplayName(0), "QV Servala System ROM");
  EXPECT_EQ(rec::Text(Row(0), "tlxHoFwVerXmlString"), "");
  EXPECT_EQ(rec::Int(Row(0), "tlxHoFwVerCategory"), 5);
  EXPECT_EQ(rec::Int(Row(0), "tlxHoFwVerDeviceType"), 23);
  EXPECT_EQ(rec::Int(Row(0), "tlxHoFwVerUpdateMethod"), 3);
  EXPECT_EQ(rec::Count("InitSMBIOS"), 1);
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(rec::Count("InitSMBIOS"), 1);
  EXPECT_EQ(rec::Publications(Row(0)), 1);
}

TEST_F(Firmware, CutsTheReleaseDateAtFixedPlaces) {
  const struct {
    const char *date;
    const char *version;
  } cases[] = {
      {"01/15/2010", "2010.01.15"}, {"1/5/2010", "  10.1/./2"}, {"", "    .  .  "},
      {"1", "    . 1.  "},          {"01/15/10", "  10.01.15"}, {"01/15/20101234", "201012.01.15"},
      {"ab", "    .ab.  "},         {"abcde", "    .ab.de"},
  };
  for (const auto &c : cases) {
    rec::PutSmbios("entry 2.8\n0: 01 02 w=0 03 to=24 \"Maker\" \"P99\"" +
                   (*c.date == '\0' ? "" : " \"" + std::string(c.date) + "\"") + "\n");
    const auto rom = CollectFixed(collect_system_rom);
    EXPECT_EQ(rom->result, 0);
    EXPECT_EQ(rom->more, 0);
    EXPECT_STREQ(rom->record.version, c.version) << c.date;
  }
}

TEST_F(Firmware, ASystemRomWithoutItsFields) {
  rec::PutSmbios("entry 2.8\n0: 01 \"Maker\" \"P99\"\n");
  const auto rom = CollectFixed(collect_system_rom);
  EXPECT_EQ(rom->result, 0);
  EXPECT_STREQ(rom->record.key, "");
  EXPECT_STREQ(rom->record.version, "    .  .  ");
}

TEST_F(Firmware, CutsALongRomVersion) {
  rec::PutSmbios("entry 2.8\n0: 00 01 w=0 00 to=24 \"" + std::string(200, 'P') + "\"\n");
  EXPECT_EQ(CollectFixed(collect_system_rom)->record.key, std::string(128, 'P'));
}

TEST_F(Firmware, NoSystemRomWithoutItsRecord) {
  EXPECT_EQ(CollectFixed(collect_system_rom)->result, -1);
  rec::PutSmbios("entry 2.8\n1: 01 \"Maker\"\n");
  EXPECT_EQ(CollectFixed(collect_system_rom)->result, -1);
}

// ---- Power microcontroller ----------------------------------------------------------------------

namespace {

// Calls the collector until it gives a row; the number of calls.
int CallsUntilARow(std::unique_ptr<Outcome> *row) {
  for (int call = 1; call <= 20; call++) {
    *row = CollectFixed(collect_powerpic);
    EXPECT_EQ((*row)->more, 0);
    if ((*row)->result == 0) {
      return call;
    }
  }
  return -1;
}

void PutLoadedSmbios(const std::string &description) {
  rec::PutSmbios(description);
  rec::SetController(TLXCI_INTEGRATED);
  collect_system_rom(nullptr, "", std::make_unique<firmware_record>().get(),
                     std::make_unique<int>().get());
}

const std::string kEntry = "entry 2.8\n";

}  // namespace

TEST_F(Firmware, PowerPicFromFirmwareVersions) {
  PutLoadedSmbios(kEntry +
                  "216: w=1 01 02 \"key1\" \"ver1\"\n"
                  "216: w=4 length=7\n"
                  "216: w=0x0104 01 02 \"key2\" \"ver2\"\n"
                  "216: w=4 01 02 \"PowerPIC-Key\" \"3.4\"\n"
                  "216: w=4 01 02 \"key5\" \"ver5\"\n");
  testing::internal::CaptureStdout();
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 1);
  CollectFixed(collect_powerpic);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Entering into UpdatePictFw ");
  EXPECT_STREQ(row->record.version, "3.4");
  EXPECT_STREQ(row->record.key, "PowerPIC-Key");
  EXPECT_STREQ(row->record.xml, "");
  EXPECT_STREQ(row->record.location, "System Board");
  EXPECT_STREQ(row->record.display_name, "PowerPIC Firmware");
  EXPECT_EQ(row->record.category, 1);
  EXPECT_EQ(row->record.device_type, 25);
  EXPECT_EQ(row->record.update_method, 3);
  // Settled: the tables and the controller are not looked at again.
  rec::PutSmbios(kEntry);
  rec::SetController(TLXCI_NONE);
  EXPECT_STREQ(CollectFixed(collect_powerpic)->record.version, "3.4");
}

// Records are numbered with 16 bits.
TEST_F(Firmware, PowerPicOfTheLastRecordThatHasANumber) {
  for (const int before : {0xFFFF, 0x10000}) {
    SCOPED_TRACE(before);
    // Records of another kind, without strings.
    std::string tables = "entry 3.2\nraw ";
    for (int i = 0; i < before; i++) {
      tables += "d8080000010000000000";
    }
    tables += "\n216: w=4 01 02 \"PowerPIC-Key\" \"3.4\"\n";
    // The tables are loaded once a process.
    const pid_t life = fork();
    ASSERT_GE(life, 0);
    if (life == 0) {
      PutLoadedSmbios(tables);
      const bool found = CollectFixed(collect_powerpic)->result == 0;
      _exit(found == (before == 0xFFFF) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(life, &status, 0), life);
    EXPECT_EQ(status, 0);
  }
}

TEST_F(Firmware, PowerPicWithLongTexts) {
  PutLoadedSmbios(kEntry + "216: w=4 01 02 \"" + std::string(200, 'k') + "\" \"" +
                  std::string(100, 'v') + "\"\n");
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 1);
  EXPECT_EQ(row->record.version, std::string(32, 'v'));
  EXPECT_EQ(row->record.key, std::string(128, 'k'));
}

TEST_F(Firmware, PowerPicIsTriedTenTimes) {
  PutLoadedSmbios(kEntry + "216: w=1 01 02 \"key1\" \"ver1\"\n193: 01 to=9 01 \"9.9\"\n");
  testing::internal::CaptureStdout();
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 11);
  std::string ten;
  for (int i = 0; i < 10; i++) {
    ten += "Entering into UpdatePictFw ";
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), ten);
  EXPECT_STREQ(row->record.version, "");
  EXPECT_STREQ(row->record.key, "");
}

TEST_F(Firmware, PowerPicWithoutAController) {
  rec::PutSmbios(kEntry + "216: w=4 01 02 \"key\" \"1.0\"\n");
  testing::internal::CaptureStdout();
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_STREQ(row->record.version, "");
  EXPECT_STREQ(row->record.key, "");
}

TEST_F(Firmware, PowerPicWithARemoteCardHasNoFacts) {
  rec::PutSmbios(kEntry + "216: w=4 01 02 \"key\" \"1.0\"\n");
  rec::SetController(TLXCI_REMOTE_CARD);
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 2);
  EXPECT_STREQ(row->record.version, "");
}

TEST_F(Firmware, PowerPicDoesNotLoadTheTables) {
  rec::PutSmbios(kEntry + "216: w=4 01 02 \"key\" \"1.0\"\n");
  rec::SetController(TLXCI_INTEGRATED);
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 11);
  EXPECT_EQ(rec::Count("InitSMBIOS"), 0);
}

TEST_F(Firmware, PowerPicFromTheOlderRecord) {
  PutLoadedSmbios(kEntry + "193: 01 to=9 01 \"5.6\"\n");
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 1);
  EXPECT_STREQ(row->record.version, "5.6");
  EXPECT_STREQ(row->record.key, "PowerPIC-Velmar");
}

TEST_F(Firmware, PowerPicOfAShortOlderRecordHasAKeyAlone) {
  PutLoadedSmbios(kEntry + "1: 00 01 \"Servala KX330 R5\"\n193: 01 to=9 \"5.6\"\n");
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 11);
  EXPECT_STREQ(row->record.version, "");
  EXPECT_STREQ(row->record.key, "PowerPIC-Tamsa-KX330R5");
}

TEST_F(Firmware, PowerPicOfAnOlderRecordThatDoesNotCount) {
  PutLoadedSmbios(kEntry + "1: 00 01 \"Servala KX330 R5\"\n193: 00 to=9 01 \"5.6\"\n");
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 11);
  EXPECT_STREQ(row->record.key, "");
}

TEST_F(Firmware, PowerPicOfAnOlderRecordThatDoesNotSayWhetherItCounts) {
  // What follows its header is its string.
  PutLoadedSmbios(kEntry + "1: 00 01 \"Servala KX330 R5\"\n193: \"5.6\"\n");
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 11);
  EXPECT_STREQ(row->record.key, "");
}

namespace {

std::string KeyOfProduct(const std::string &system) {
  PutLoadedSmbios(kEntry + system + "193: 01 to=9 01 \"5.6\"\n");
  std::unique_ptr<Outcome> row;
  EXPECT_EQ(CallsUntilARow(&row), 1);
  return row->record.key;
}

}  // namespace

TEST_F(Firmware, PowerPicOfTheKX330) {
  EXPECT_EQ(KeyOfProduct("1: 00 01 \"Servala KX330 R5\"\n"), "PowerPIC-Tamsa-KX330R5");
}

TEST_F(Firmware, PowerPicOfTheKX310) {
  EXPECT_EQ(KeyOfProduct("1: 00 01 \"Servala KX310 R5\"\n"), "PowerPIC-Tamsa-KX310R5");
}

TEST_F(Firmware, PowerPicOfABlade) {
  EXPECT_EQ(KeyOfProduct("1: 00 01 \"Servala KB25p R5\"\n"), "PowerPIC-Tamsa-Blades");
}

TEST_F(Firmware, PowerPicOfAnotherGeneration) {
  EXPECT_EQ(KeyOfProduct("1: 00 01 \"Servala KB25p R6\"\n"), "PowerPIC-Velmar");
}

TEST_F(Firmware, PowerPicLooksAt128CharactersOfTheProduct) {
  EXPECT_EQ(KeyOfProduct("1: 00 01 \"" + std::string(121, 'x') + "KX330 R5\"\n"),
            "PowerPIC-Velmar");
}

TEST_F(Firmware, PowerPicOfASystemWithoutAProduct) {
  EXPECT_EQ(KeyOfProduct("1: 01 \"KX330 R5\"\n"), "PowerPIC-Velmar");
}

// ---- Management controller ----------------------------------------------------------------------

TEST_F(Firmware, ReadsTheIntegratedController) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutReplies({{TLXCI_OK, VersionReply(1, 5, 6)}});
  const auto row = CollectFixed(collect_integrated_controller);
  EXPECT_EQ(row->result, 0);
  EXPECT_EQ(row->more, 0);
  EXPECT_STREQ(row->record.version, "1.05");
  EXPECT_STREQ(row->record.key, "ZQ10");
  EXPECT_STREQ(row->record.location, "System Board");
  EXPECT_STREQ(row->record.display_name, "Integrated Farwatch Firmware");
  EXPECT_EQ(row->record.category, 4);
  EXPECT_EQ(row->record.device_type, 25);
  EXPECT_EQ(row->record.update_method, 3);
  EXPECT_EQ(rec::Names("TlxCiSend"), Strings{"none"});
  EXPECT_EQ(rec::Names("TlxCiRecv"), Strings{"5000"});
  for (const rec::Event &event : rec::Events()) {
    if (event.operation == "TlxCiSend") {
      EXPECT_EQ(event.data, "\x08\x00\x00\x00\x02\x00\x00\x00"s);
    }
  }
}

TEST_F(Firmware, TheControllersGenerationGivesItsKey) {
  rec::SetController(TLXCI_INTEGRATED);
  const std::map<int, std::string> keys = {{6, "ZQ10"}, {5, "ZQ9"}, {4, "ZQ7"},  {3, "ZQ5"},
                                           {0, "ZQ5"},  {7, "ZQ5"}, {255, "ZQ5"}};
  for (const auto &[generation, key] : keys) {
    rec::PutReplies({{TLXCI_OK, VersionReply(1, 2, generation)}});
    EXPECT_EQ(CollectFixed(collect_integrated_controller)->record.key, key) << generation;
  }
}

TEST_F(Firmware, TheControllersVersionIsSigned) {
  rec::SetController(TLXCI_INTEGRATED);
  const struct {
    int major;
    int minor;
    const char *version;
  } cases[] = {{255, 5, "-1.05"}, {1, 255, "1.-1"}, {127, 127, "127.127"}, {0, 0, "0.00"}};
  for (const auto &c : cases) {
    rec::PutReplies({{TLXCI_OK, VersionReply(c.major, c.minor, 0)}});
    EXPECT_STREQ(CollectFixed(collect_integrated_controller)->record.version, c.version);
  }
}

TEST_F(Firmware, AShortControllerReplyIsZeroBeyondItsEnd) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutReplies({{TLXCI_OK, VersionReply(1, 5, 6)}});
  CollectFixed(collect_integrated_controller);
  rec::PutReplies({{TLXCI_OK, VersionReply(1, 5, 6).substr(0, 17)}});
  const auto row = CollectFixed(collect_integrated_controller);
  EXPECT_EQ(row->result, 0);
  EXPECT_STREQ(row->record.version, "0.05");
  EXPECT_STREQ(row->record.key, "ZQ5");
  rec::PutReplies({{TLXCI_OK, ""}});
  EXPECT_STREQ(CollectFixed(collect_integrated_controller)->record.version, "0.00");
}

TEST_F(Firmware, NoIntegratedControllerRow) {
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  rec::SetController(TLXCI_REMOTE_CARD);
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  EXPECT_EQ(rec::Count("TlxCiSend"), 0);
  rec::SetController(TLXCI_INTEGRATED);  // silent
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  rec::PutSends({5});
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  EXPECT_EQ(rec::Count("sleep"), 0);
}

TEST_F(Firmware, ASilentControllerIsSaidWhenThatBeginsAndWhenItEnds) {
  const std::string begins =
      "vexhostd: The management controller does not answer: each poll waits 5 seconds for it\n";
  const std::string ends = "vexhostd: Polls no longer wait for the management controller\n";
  rec::SetController(TLXCI_INTEGRATED);
  for (int pass = 0; pass < 3; pass++) {
    rec::PutReplies({{TLXCI_TIMED_OUT, ""}});
    EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  }
  EXPECT_EQ(rec::Messages(), Strings{begins});
  for (int pass = 0; pass < 3; pass++) {
    rec::PutReplies({{TLXCI_OK, VersionReply(1, 5, 6)}});
    EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, 0);
  }
  EXPECT_EQ(rec::Messages(), (Strings{begins, ends}));
  // A channel that breaks at each poll costs as much; without a controller nothing is waited for.
  rec::PutSends({TLXCI_REOPEN, TLXCI_REOPEN});
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  EXPECT_EQ(rec::Messages(), (Strings{begins, ends, begins}));
  rec::SetController(TLXCI_NONE);
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  EXPECT_EQ(rec::Messages(), (Strings{begins, ends, begins, ends}));
}

TEST_F(Firmware, ABrokenChannelIsOpenedAgainOnceForSending) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutSends({TLXCI_REOPEN});
  rec::PutReplies({{TLXCI_OK, VersionReply(1, 5, 6)}});
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, 0);
  EXPECT_EQ(rec::Names("sleep"), Strings{"5"});
  EXPECT_EQ(rec::Count("reinitializeRemoteVantix"), 1);
  EXPECT_EQ(rec::Count("TlxCiSend"), 2);

  rec::ForgetEvents();
  rec::PutSends({TLXCI_REOPEN, TLXCI_REOPEN});
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  EXPECT_EQ(rec::Names("sleep"), Strings{"5"});
  EXPECT_EQ(rec::Count("TlxCiSend"), 2);
  EXPECT_EQ(rec::Count("TlxCiRecv"), 0);
}

TEST_F(Firmware, ABrokenChannelIsOpenedAgainOnceForReceiving) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutReplies({{TLXCI_REOPEN, ""}, {TLXCI_OK, VersionReply(1, 5, 6)}});
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, 0);
  EXPECT_EQ(rec::Names("sleep"), Strings{"5"});
  EXPECT_EQ(rec::Count("TlxCiSend"), 1);

  rec::ForgetEvents();
  rec::PutReplies({{TLXCI_REOPEN, ""}, {TLXCI_REOPEN, ""}});
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  EXPECT_EQ(rec::Names("sleep"), Strings{"5"});
}

TEST_F(Firmware, ABrokenChannelIsNotOpenedAgainByAnAgentThatEnds) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutSends({TLXCI_REOPEN, TLXCI_REOPEN});
  rec::Fail("agent_ending", "", -2);  // it is told to while it pauses
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  EXPECT_EQ(rec::Names("sleep"), Strings{"5"});
  EXPECT_EQ(rec::Count("reinitializeRemoteVantix"), 0);
  EXPECT_EQ(rec::Messages(), Strings{});
}

TEST_F(Firmware, ASignalDoesNotKeepTheControllerFromBeingAsked) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutSends({EINTR, EINTR});
  rec::PutReplies({{TLXCI_OK, VersionReply(1, 5, 6)}});
  const auto row = CollectFixed(collect_integrated_controller);
  EXPECT_EQ(row->result, 0);
  EXPECT_STREQ(row->record.version, "1.05");
  EXPECT_EQ(rec::Count("TlxCiSend"), 3);
}

TEST_F(Firmware, SignalsDoNotMakeTheControllersReplyBeWaitedForLonger) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutReplies({{EINTR, "", 2}, {EINTR, "", 1}, {TLXCI_OK, VersionReply(1, 5, 6)}});
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, 0);
  Strings limits = rec::Names("TlxCiRecv");
  ASSERT_EQ(limits.size(), 3U);
  EXPECT_EQ(limits[0], "5000");
  EXPECT_LE(std::stoi(limits[1]), 3000);
  EXPECT_LE(std::stoi(limits[2]), 2000);

  rec::ForgetEvents();
  rec::PutReplies({{EINTR, "", 6}});
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  EXPECT_EQ(rec::Names("TlxCiRecv"), (Strings{"5000", "0"}));
}

TEST_F(Firmware, ASignalThatEndsTheAgentEndsItsQuestion) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::Fail("agent_ending");
  rec::PutSends({EINTR});
  rec::PutReplies({{EINTR, ""}, {TLXCI_OK, VersionReply(1, 5, 6)}});
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  EXPECT_EQ(rec::Count("TlxCiSend"), 1);
  EXPECT_EQ(rec::Count("TlxCiRecv"), 0);
  EXPECT_EQ(CollectFixed(collect_integrated_controller)->result, -1);
  EXPECT_EQ(rec::Count("TlxCiSend"), 2);
  EXPECT_EQ(rec::Count("TlxCiRecv"), 1);
  EXPECT_EQ(rec::Messages(), Strings{});
}

TEST_F(Firmware, ReadsTheRemoteCard) {
  rec::SetController(TLXCI_REMOTE_CARD);
  rec::PutCardReply({0, VersionReply(2, 31, 6)});
  const auto row = CollectFixed(collect_remote_card);
  EXPECT_EQ(row->result, 0);
  EXPECT_EQ(row->more, 0);
  EXPECT_STREQ(row->record.version, "2.31");
  EXPECT_STREQ(row->record.key, "ZENTA Board");
  EXPECT_STREQ(row->record.location, "ZENTA Board");
  EXPECT_STREQ(row->record.display_name, "Remote Farwatch Firmware");
  EXPECT_EQ(row->record.category, 4);
  EXPECT_EQ(row->record.device_type, 25);
  EXPECT_EQ(row->record.update_method, 3);
  EXPECT_EQ(rec::Events().back().data, "\x08\x00\x00\x00\x02\x00\x00\x00"s);
  rec::SetController(77);  // any other kind is a card too
  EXPECT_EQ(CollectFixed(collect_remote_card)->result, 0);
}

TEST_F(Firmware, NoRemoteCardRow) {
  EXPECT_EQ(CollectFixed(collect_remote_card)->result, -1);
  rec::SetController(TLXCI_INTEGRATED);
  EXPECT_EQ(CollectFixed(collect_remote_card)->result, -1);
  EXPECT_EQ(rec::Count("ioctl"), 0);
  rec::SetController(TLXCI_REMOTE_CARD);
  EXPECT_EQ(CollectFixed(collect_remote_card)->result, -1);
  EXPECT_EQ(rec::Count("ioctl"), 1);
}

TEST_F(Firmware, Transactions) {
  tlxci_channel *channel = nullptr;
  int device = -1;
  uint8_t request[10] = {10, 0, 0xEE, 0xEE, 0x34, 0x12, 0xEE, 0xEE, 1, 2};
  uint8_t reply[64];
  EXPECT_EQ(controller_transact(nullptr, request, reply, sizeof(reply)), 2);
  rec::SetController(TLXCI_INTEGRATED);
  initializeRemoteVantix(&channel, &device);
  EXPECT_EQ(controller_transact(channel, nullptr, reply, sizeof(reply)), 39);
  uint8_t small[8] = {7, 0};
  EXPECT_EQ(controller_transact(channel, small, reply, sizeof(reply)), 39);
  EXPECT_EQ(rec::Count("TlxCiSend"), 0);

  rec::PutReplies({{0, std::string(10, 'r')}, {0, std::string(9, 'r')}, {38, ""}});
  EXPECT_EQ(controller_transact(channel, request, reply, sizeof(reply)), 0);
  EXPECT_EQ(rec::Events()[rec::Events().size() - 2].data,
            "\x0a\x00\x00\x00\x34\x12\x00\x00\x01\x02"s);
  EXPECT_EQ(controller_transact(channel, request, reply, sizeof(reply)), 22);
  EXPECT_EQ(rec::Events()[rec::Events().size() - 2].data,
            "\x0a\x00\x01\x00\x34\x12\x00\x00\x01\x02"s);
  EXPECT_EQ(controller_transact(channel, request, reply, sizeof(reply)), 38);
  rec::PutSends({17});
  EXPECT_EQ(controller_transact(channel, request, reply, sizeof(reply)), 17);
  // The sequence number is a 16-bit word.
  for (int i = 4; i <= 65536; i++) {
    rec::PutSends({17});
    controller_transact(channel, request, reply, sizeof(reply));
  }
  EXPECT_EQ(request[2], 0);
  EXPECT_EQ(request[3], 0);
}

// ---- Programmable logic -------------------------------------------------------------------------

namespace {

const std::string kNoRow = "no row";

// One pass over the eleven devices: the versions, and kNoRow where there is none.
Strings LogicVersions() {
  Strings versions;
  for (int i = 0; i < 11; i++) {
    const auto row = CollectFixed(collect_programmable_logic, "device");
    EXPECT_EQ(row->more, 0);
    versions.push_back(row->result == 0 ? row->record.version : kNoRow);
  }
  return versions;
}

}  // namespace

TEST_F(Firmware, ReadsProgrammableLogic) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutReplies({{0, VersionReply(1, 1, 1)}, {0, LogicReply(kLogicFields)}});
  ASSERT_EQ(do_fwver(), 0);
  const struct {
    const char *name;
    const char *version;
    const char *key;
  } expected[] = {
      {"Servala KX770 R7 SPI Board PAL", "0x01", "CPLD-Q47-SPI"},
      {"Servala KX770 R7 Main I/O PAL", "0x12", "CPLD-Q47-MAINIO"},
      {"Servala KX770 R7 Upper CPU PAL", "0xAB", "CPLD-Q47-UPPERCPU"},
      {"Servala KX770 R7 Lower CPU PAL", "0x04", "CPLD-Q47-LOWERCPU"},
      {"Servala KX770 R7 Upper ZRB", "03.02.01", "FMP-Q47-UPPERZRB"},
      {"Servala KX770 R7 Lower ZRB", "03.02.01", "FMP-Q47-LOWERZRB"},
      {"Servala KX770 R7 ZRB Upper FPGA", "00.00.00", "CPLD-Q47-UPPERZRBFPGA"},
      {"Servala KX770 R7 ZRB Lower FPGA", "0D.0E.0F", "CPLD-Q47-LOWERZRBFPGA"},
      {"Servala KX770 R7 SFF PCIe Board PAL", "0x05", "CPLD-Q47-SFF"},
      {"Servala KX770 R7 Standard PCIe Board PAL", "0x06", "CPLD-Q47-PCIEIO"},
      {"Servala KX770 R7 Combo PCIe & PCI-X Board PAL", "0x07", "pciex_io_cpld"},
  };
  int row = 1;  // after the controller's
  for (const auto &e : expected) {
    EXPECT_EQ(DisplayName(row), e.name);
    EXPECT_EQ(Version(row), e.version);
    EXPECT_EQ(Key(row), e.key);
    EXPECT_EQ(Location(row), "System Board");
    EXPECT_EQ(rec::Int(Row(row), "tlxHoFwVerCategory"), 5);
    EXPECT_EQ(rec::Int(Row(row), "tlxHoFwVerDeviceType"), 26);
    EXPECT_EQ(rec::Int(Row(row), "tlxHoFwVerUpdateMethod"), 3);
    EXPECT_EQ(rec::Text(Row(row), "tlxHoFwVerXmlString"),
              "<location category=\"1\" type=\"26\"><version>" + std::string(e.version) +
                  "</version><key>" + e.key + "</key></location>");
    row++;
  }
  EXPECT_EQ(rec::Live(Row(row)), nullptr);
}

TEST_F(Firmware, AsksForProgrammableLogicOncePerPass) {
  rec::SetController(TLXCI_INTEGRATED);
  std::string fewer = kLogicFields;
  fewer[0] = 0;
  fewer.replace(4, 4, "\0\0\0\0"s);
  fewer[22] = 0;
  rec::PutReplies({{0, LogicReply(kLogicFields)}, {0, LogicReply(fewer)}});
  EXPECT_EQ(LogicVersions(), (Strings{"0x01", "0x12", "0xAB", "0x04", "03.02.01", "03.02.01",
                                      "00.00.00", "0D.0E.0F", "0x05", "0x06", "0x07"}));
  EXPECT_EQ(rec::Count("TlxCiSend"), 1);
  for (const rec::Event &event : rec::Events()) {
    if (event.operation == "TlxCiSend") {
      EXPECT_EQ(event.data, "\x09\x00\x00\x00\x01\x01\x00\x00"s);
    }
  }
  EXPECT_EQ(rec::Names("TlxCiRecv"), Strings{"5000"});
  // A zero field fails its own row alone.
  EXPECT_EQ(LogicVersions(), (Strings{kNoRow, "0x12", "0xAB", "0x04", kNoRow, "03.02.01",
                                      "00.00.00", "0D.0E.0F", "0x05", "0x06", kNoRow}));
  EXPECT_EQ(rec::Count("TlxCiSend"), 2);
  // A controller that stops answering ends it for good.
  EXPECT_EQ(LogicVersions(), Strings(11, kNoRow));
  EXPECT_EQ(rec::Count("TlxCiSend"), 3);
  rec::PutReplies({{0, LogicReply(kLogicFields)}});
  EXPECT_EQ(LogicVersions(), Strings(11, kNoRow));
  EXPECT_EQ(rec::Count("TlxCiSend"), 3);
}

TEST_F(Firmware, AWrongReplyCodeEndsProgrammableLogic) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutReplies({{0, LogicReply(kLogicFields, 0x1A1)}, {0, LogicReply(kLogicFields)}});
  EXPECT_EQ(LogicVersions(), Strings(11, kNoRow));
  EXPECT_EQ(LogicVersions(), Strings(11, kNoRow));
  EXPECT_EQ(rec::Count("TlxCiSend"), 1);
}

TEST_F(Firmware, AShortLogicReplyIsZeroBeyondItsEnd) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutReplies({{0, LogicReply(kLogicFields).substr(0, 16)}});
  Strings expected(11, kNoRow);
  expected[0] = "0x01";
  expected[1] = "0x12";
  EXPECT_EQ(LogicVersions(), expected);
}

TEST_F(Firmware, WithoutAControllerLogicIsAskedForOnceWithoutAPause) {
  EXPECT_EQ(LogicVersions(), Strings(11, kNoRow));
  EXPECT_EQ(LogicVersions(), Strings(11, kNoRow));
  EXPECT_EQ(rec::Count("initializeRemoteVantix"), 1);
  EXPECT_EQ(rec::Count("sleep"), 0);
}

TEST_F(Firmware, LogicIsAskedForAgainOverABrokenChannel) {
  rec::SetController(TLXCI_INTEGRATED);
  rec::PutSends({TLXCI_REOPEN});
  rec::PutReplies({{TLXCI_REOPEN, ""}, {0, LogicReply(kLogicFields)}});
  EXPECT_EQ(LogicVersions()[0], "0x01");
  EXPECT_EQ(rec::Names("sleep"), (Strings{"5", "5"}));
  EXPECT_EQ(rec::Count("TlxCiSend"), 2);
  EXPECT_EQ(rec::Count("TlxCiRecv"), 2);
  EXPECT_EQ(rec::Count("reinitializeRemoteVantix"), 2);
}

// ---- Array controllers --------------------------------------------------------------------------

TEST_F(Firmware, ReadsArrayControllers) {
  auto row = Collect(collect_cciss,
                     "cciss0: QV Plain Array 6x Controller\nBoard ID: 0x99111a2b\n"
                     "Firmware Version: 2.84\nIRQ: 51\n");
  EXPECT_EQ(row->result, 0);
  EXPECT_EQ(row->more, 0);
  EXPECT_STREQ(row->record.location, "cciss0");
  EXPECT_STREQ(row->record.display_name, "QV Plain Array 6x Controller");
  EXPECT_STREQ(row->record.key, "0x99111a2b");
  EXPECT_STREQ(row->record.version, "2.84");
  EXPECT_EQ(row->record.category, 2);
  EXPECT_EQ(row->record.device_type, 2);
  EXPECT_EQ(row->record.update_method, 3);
  row = Collect(collect_ida, "ida0: QV Array\nBoard ID: 0x99301A2B\nFirmware Revision: 4.50\n");
  EXPECT_EQ(row->result, 0);
  EXPECT_STREQ(row->record.version, "4.50");
}

TEST_F(Firmware, PartsOfAnArrayController) {
  const struct {
    const char *text;
    int left;
  } cases[] = {
      {"", 4},
      {":", 4},
      {"cciss0", 3},  // all of it is the location; then the stream ends
      {"cciss0: Array\n", 2},
      {"cciss0: Array\nBoard: 1\n", 2},
      {"cciss0: Array\nBoard ID: 1\n", 1},
      {"cciss0: Array\nBoard ID: 1\nFirmware Revision: 1\n", 1},
      {"cciss0: Array\nBoard ID: 1\nFirmware Version: 1", 0},
      {"cciss0: Array\nOther: 2\nBoard ID: 1\nFirmware Version: 1\n", 2},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Collect(collect_cciss, c.text)->result, c.left) << c.text;
  }
}

TEST_F(Firmware, LongTextsStayInTheirFields) {
  const auto row = Collect(collect_cciss, std::string(300, 'l') + ": x\n");
  EXPECT_EQ(row->record.location, std::string(256, 'l'));
  const auto other = Collect(
      collect_cciss, "c: " + std::string(128, 'd') + "\nBoard ID: " + std::string(128, 'k') +
                         "\nFirmware Version: " + std::string(40, 'v') + "\n");
  EXPECT_EQ(other->result, 0);
  EXPECT_EQ(other->record.display_name, std::string(128, 'd'));
  EXPECT_EQ(other->record.key, std::string(128, 'k'));
  EXPECT_EQ(other->record.version, std::string(32, 'v'));
}

// ---- Fibre-channel adapters ---------------------------------------------------------------------

TEST_F(Firmware, ReadsAFibreChannelAdapter) {
  const auto row = Collect(collect_fibre_channel,
                           "QLogic PCI to Fibre Channel Host Adapter for TCARD14:\n"
                           "        Firmware version: 3.03.01, Driver version 7.05.00\n"
                           "Entry address = e0834060\nHBA: QLA2312\n",
                           "qla2300/10");
  EXPECT_EQ(row->result, 0);
  EXPECT_EQ(row->more, 0);
  EXPECT_STREQ(row->record.display_name, "QLogic PCI to Fibre Channel Host Adapter for TCARD14");
  EXPECT_STREQ(row->record.version, "3.03.01");
  EXPECT_STREQ(row->record.key, "e0834060");
  EXPECT_STREQ(row->record.location, "qla2300/10");
  EXPECT_EQ(row->record.category, 2);
  EXPECT_EQ(row->record.device_type, 3);
  EXPECT_EQ(row->record.update_method, 3);
  EXPECT_EQ(Collect(collect_fibre_channel, "Adapter:\nFirmware version: 3\n", "q")->result, 2);
}

// ---- Network adapters ---------------------------------------------------------------------------

TEST_F(Firmware, ReadsANetworkAdapter) {
  const auto row = Collect(collect_network_adapter,
                           "Description\t\tQV NX0001 Network Adapter\nDriver_Name\tbcm5700\n"
                           "Driver_Version\t7.3.5\nBootcode_Version\t\t5703-v2.21\nPCI_Bus\t2\n",
                           "eth0");
  EXPECT_EQ(row->result, 0);
  EXPECT_EQ(row->more, 0);
  EXPECT_STREQ(row->record.display_name, "QV NX0001 Network Adapter");
  EXPECT_STREQ(row->record.version, "5703-v2.21");
  EXPECT_STREQ(row->record.location, "eth0");
  EXPECT_STREQ(row->record.key, "eth0");
  EXPECT_EQ(row->record.category, 3);
  EXPECT_EQ(row->record.device_type, 24);
  EXPECT_EQ(row->record.update_method, 0);
}

TEST_F(Firmware, PartsOfANetworkAdapter) {
  EXPECT_EQ(Collect(collect_network_adapter, "", "eth0")->result, 4);
  EXPECT_EQ(Collect(collect_network_adapter, "Description N", "eth0")->result, 3);
  EXPECT_EQ(Collect(collect_network_adapter, "Description N\na\nb\n", "eth0")->result, 1);
  EXPECT_EQ(Collect(collect_network_adapter, "Description N\na\nb\nc\n", "eth0")->result, 1);
  // A description longer than its field uses up one of the lines that are skipped.
  EXPECT_EQ(Collect(collect_network_adapter,
                    "Description " + std::string(200, 'N') + "\na\nBootcode_Version 1\n", "eth0")
                ->result,
            0);
}

TEST_F(Firmware, ALongAdapterNameStaysInItsFields) {
  const std::string name(256, 'e');
  const auto row =
      Collect(collect_network_adapter, "Description N\na\nb\nBootcode_Version 1\n", name.c_str());
  EXPECT_EQ(row->record.location, name);
  EXPECT_EQ(row->record.key, name.substr(0, 128));
  EXPECT_EQ(row->record.update_method, 0);
}

// ---- SCSI devices -------------------------------------------------------------------------------

TEST_F(Firmware, ReadsAScsiDevice) {
  const auto row =
      Collect(collect_scsi_device, "Attached devices:\n" + ScsiDevice(3) + ScsiDevice(4));
  EXPECT_EQ(row->result, 0);
  EXPECT_EQ(row->more, 1);
  EXPECT_STREQ(row->record.location, "scsi0(00:03:00)");
  EXPECT_STREQ(row->record.display_name, "MAKER    DISK            ");
  EXPECT_STREQ(row->record.version, "1.05");
  EXPECT_STREQ(row->record.key, "");
  EXPECT_EQ(row->record.category, 2);
  EXPECT_EQ(row->record.device_type, 10);
  EXPECT_EQ(row->record.update_method, 3);
}

TEST_F(Firmware, ScsiTypes) {
  const std::map<std::string, int> types = {{"Direct-Access", 10},
                                            {"Sequential-Access", 11},
                                            {"CD-ROM", 23},
                                            {"Communications", 24},
                                            {"Processor", 1},
                                            {"Direct-Access-RBC", 1},
                                            // The scanner stops at the blank.
                                            {"Medium Changer", 1}};
  for (const auto &[type, expected] : types) {
    const auto row = Collect(collect_scsi_device, "Attached devices:\n" + ScsiDevice(0, type));
    EXPECT_EQ(row->result, 0) << type;
    EXPECT_EQ(row->record.device_type, expected) << type;
  }
}

TEST_F(Firmware, NoScsiDevices) {
  for (const char *text : {"", "Attached devices:\n", "Attached devices: none\n",
                           "Attached devices:\nHost", "Attached devices:\n\n\n"}) {
    const auto row = Collect(collect_scsi_device, text);
    EXPECT_EQ(row->result, 9) << text;
    EXPECT_EQ(row->more, 0) << text;
  }
}

TEST_F(Firmware, APartialScsiDeviceEndsTheFile) {
  PutScsi({ScsiDevice(0), "Host: scsi0 Channel: 00 Id: 01 Lun: 00\n  Vendor: M\n", ScsiDevice(2)});
  ASSERT_EQ(do_fwver(), 0);
  EXPECT_EQ(Location(0), "scsi0(00:00:00)");
  EXPECT_EQ(rec::Live(Row(1)), nullptr);
}

TEST_F(Firmware, AScsiDeviceCutAtItsType) {
  const auto row = Collect(collect_scsi_device,
                           "Attached devices:\nHost: scsi0 Channel: 00 Id: 00 Lun: 00\n"
                           "  Vendor: MAKER    Model: DISK             Rev: 1\n  Type:   CD-ROM");
  EXPECT_EQ(row->result, 1);
  EXPECT_EQ(row->more, 0);
}

TEST_F(Firmware, LongScsiTextsStayInTheirFields) {
  const auto row =
      Collect(collect_scsi_device, "Attached devices:\nHost: " + std::string(400, 'h') +
                                       " Channel: 00 Id: 00 Lun: 00\n");
  EXPECT_EQ(row->record.location, std::string(32, 'h') + "(::)");
  EXPECT_EQ(row->result, 8);
}

TEST_F(Firmware, ARaidDeviceWithoutASegment) {
  const auto row = Collect(collect_scsi_device, "Attached devices:\n" + ScsiDevice(0, "RAID"));
  EXPECT_EQ(row->result, 0);
  EXPECT_STREQ(row->record.key, "0x");
  EXPECT_EQ(row->record.device_type, 1);
  EXPECT_EQ(rec::Names("ftok"), Strings{"/opt/qv"});
}

TEST_F(Firmware, ARaidDeviceWithASegment) {
  std::string segment(222, '\0');
  segment[189] = 1;
  segment.replace(190, 8, "99111a2b");
  rec::PutSegment(segment);
  const std::string list = "Attached devices:\n" + ScsiDevice(0, "RAID");
  EXPECT_STREQ(Collect(collect_scsi_device, list)->record.key, "0x99111a2b");
  EXPECT_EQ(rec::Count("shmdt"), 1);
  for (const rec::Event &event : rec::Events()) {
    if (event.operation == "ftok") {
      EXPECT_EQ(event.data, "10745");
    }
  }

  segment.replace(190, 32, std::string(32, 'k'));  // no end within the segment
  rec::PutSegment(segment);
  EXPECT_EQ(Collect(collect_scsi_device, list)->record.key, "0x" + std::string(32, 'k'));

  segment[189] = 2;
  rec::PutSegment(segment);
  EXPECT_STREQ(Collect(collect_scsi_device, list)->record.key, "0x");

  rec::PutSegment(segment.substr(0, 221));  // too small to be the one
  EXPECT_STREQ(Collect(collect_scsi_device, list)->record.key, "0x");

  segment[189] = 1;
  rec::PutSegment(segment);
  rec::Fail("shmat");
  EXPECT_STREQ(Collect(collect_scsi_device, list)->record.key, "");
}

// ---- IDE drives ---------------------------------------------------------------------------------

namespace {

// Identify words as the kernel prints them: eight to a line.
std::string Identify(int word0, const std::string &revision, const std::string &model) {
  std::string bytes(512, '\0');
  bytes[0] = static_cast<char>(word0 >> 8);
  bytes[1] = static_cast<char>(word0);
  revision.copy(&bytes[46], 8);
  model.copy(&bytes[54], 40);
  std::string text;
  char word[8];
  for (size_t i = 0; i < bytes.size(); i += 2) {
    snprintf(word, sizeof(word), "%02x%02x%c", static_cast<uint8_t>(bytes[i]),
             static_cast<uint8_t>(bytes[i + 1]), i % 16 == 14 ? '\n' : ' ');
    text += word;
  }
  return text;
}

}  // namespace

TEST_F(Firmware, ReadsAnIdeDrive) {
  auto row =
      Collect(collect_ide_drive,
              Identify(0x0c5a, "4.01    ", "WDC WD400BB                             "), "ide0/hda");
  EXPECT_EQ(row->result, 0);
  EXPECT_EQ(row->more, 0);
  EXPECT_STREQ(row->record.version, "4.01");
  EXPECT_STREQ(row->record.display_name, "WDC WD400BB");
  EXPECT_STREQ(row->record.location, "ide0/hda");
  EXPECT_STREQ(row->record.key, "");
  EXPECT_EQ(row->record.category, 2);
  EXPECT_EQ(row->record.device_type, 8);
  EXPECT_EQ(row->record.update_method, 3);
  EXPECT_EQ(Collect(collect_ide_drive, Identify(0x8580, "", ""))->record.device_type, 7);
  EXPECT_EQ(Collect(collect_ide_drive, Identify(0x8500, "", ""))->record.device_type, 8);
}

TEST_F(Firmware, AnUnpaddedIdeModelIsKeptWhole) {
  const std::string model = "A model of exactly forty characters, ok!";
  ASSERT_EQ(model.size(), 40U);
  auto row = Collect(collect_ide_drive, Identify(0, "12345678", model));
  EXPECT_EQ(row->record.display_name, model);
  EXPECT_STREQ(row->record.version, "12345678");
  // Padded with zeros, blanks before them stay.
  row = Collect(collect_ide_drive, Identify(0, "1 ", "short "));
  EXPECT_STREQ(row->record.display_name, "short ");
  EXPECT_STREQ(row->record.version, "1 ");
  row = Collect(collect_ide_drive, Identify(0, std::string(8, ' '), std::string(40, ' ')));
  EXPECT_STREQ(row->record.display_name, "");
  EXPECT_STREQ(row->record.version, "");
}

TEST_F(Firmware, AnIdeDriveThatSaysNothingHasARow) {
  for (const char *text : {"", "zz", "\n", "0"}) {
    const auto row = Collect(collect_ide_drive, text);
    EXPECT_EQ(row->result, 0);
    EXPECT_STREQ(row->record.version, "");
    EXPECT_EQ(row->record.device_type, 8);
  }
}

// ---- Line scanner -------------------------------------------------------------------------------

TEST(LineScanner, CountsWhatItProcessed) {
  char a[9] = "";
  char b[9] = "";
  const scan_step steps[] = {{"%8[^\n]\n", a}, {"%*[^\n]\n", nullptr}, {"b %8[^\n]\n", b}};
  const auto scan = [&](const std::string &text) {
    a[0] = b[0] = '\0';
    FILE *stream = tmpfile();
    fwrite(text.data(), 1, text.size(), stream);
    rewind(stream);
    const int processed = scan_lines(stream, steps, 3);
    fclose(stream);
    return processed;
  };
  EXPECT_EQ(scan("one\ntwo\nb three\nfour\n"), 3);
  EXPECT_STREQ(a, "one");
  EXPECT_STREQ(b, "three");
  EXPECT_EQ(scan("one\ntwo\nc three\n"), 2);
  EXPECT_EQ(scan("one\n"), 1);  // the stream ends after the first
  EXPECT_EQ(scan("\n"), 0);
  EXPECT_EQ(scan(""), 0);
  EXPECT_EQ(scan("onetwothree\nb four\n"), 3);  // the rest of the line is what is skipped
  EXPECT_STREQ(a, "onetwoth");
  EXPECT_EQ(scan_lines(nullptr, steps, 0), 0);
}
