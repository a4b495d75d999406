// The firmware table on made-up hosts: the drivers' files, SMBIOS, controllers and cards.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <optional>

#include "tests/support/made_up_host.h"
#include "tests/support/simulated_controller.h"
#include "tests/support/smbios_tables.h"

using namespace made_up;
using vex::ControllerMood;
using vex::SimulatedController;

namespace {

using Strings = std::vector<std::string>;

constexpr int kVersionCommand = 2;
constexpr int kLogicCommand = 0x0101;
constexpr char kGone[] = "No Such Instance currently exists at this OID";

std::string ScsiDevice(int id, const std::string &type = "Direct-Access",
                       const std::string &revision = "1.05") {
  char text[256];
  snprintf(text, sizeof(text),
           "Host: scsi0 Channel: 00 Id: %02d Lun: 00\n"
           "  Vendor: MAKER    Model: DISK             Rev: %-4s\n"
           "  Type:   %-17s                ANSI  SCSI revision: 05\n",
           id, revision.c_str(), type.c_str());
  return text;
}

// A machine whose /proc has no driver files but the ones of the test.
class FirmwareHost : public testing::Test {
 protected:
  FirmwareHost() {
    host_.ComposeProc();
  }

  void PutSmbios(const std::string &description) {
    host_.Directory("/sys/firmware/dmi/tables");
    vex::WriteSmbios(vex::AssembleSmbios(description), "/sys/firmware/dmi/tables");
  }

  std::string Get(const std::string &column, int row) {
    return host_.Get("tlxHoFwVer" + column + "." + std::to_string(row));
  }

  // "category/type/method name|version|location|key", as published.
  std::string Row(int number) {
    const std::string object = "host/fwver." + std::to_string(number);
    const auto value = [&](const char *column) {
      return host_.Published(object, "tlxHoFwVer" + std::string(column));
    };
    if (!host_.Object(object)) {
      return "absent";
    }
    return value("Category") + "/" + value("DeviceType") + "/" + value("UpdateMethod") + " " +
           value("DisplayName") + "|" + value("Version") + "|" + value("Location") + "|" +
           value("KeyString");
  }

  // All rows, by number, with gaps left out.
  Strings Rows() {
    Strings rows;
    for (int i = 0; i < 40; i++) {
      const std::string row = Row(i);
      if (row != "absent") {
        rows.push_back(std::to_string(i) + ": " + row);
      }
    }
    return rows;
  }

  void Poll(double seconds = 30) {
    ASSERT_TRUE(host_.daemon.Poll(seconds));
  }

  MadeUpHost host_;
};

const std::string kEmptyPowerPic = "1/25/3 PowerPIC Firmware||System Board|";

}  // namespace

TEST_F(FirmwareHost, HasNothingToShow) {
  host_.Start();
  EXPECT_EQ(Rows(), Strings{});
  EXPECT_EQ(host_.Walk("tlxHoFwVerIndex"), Strings{});
  Poll();
  EXPECT_EQ(Rows(), Strings{"0: " + kEmptyPowerPic});
  EXPECT_EQ(host_.daemon.Count("PEER"), 0U);
  EXPECT_EQ(host_.daemon.Count("UpdatePictFw"), 0U);
  EXPECT_EQ(host_.daemon.Sleeps(), 1U);  // the start-up's
}

TEST_F(FirmwareHost, ReadsTheDriversFiles) {
  host_.File("/proc/driver/tlxarray/ida0",
             "ida0: QV Array one\nBoard ID: 0x99301A2B\nFirmware Revision: 4.50\nmore\n");
  host_.File("/proc/driver/cciss/cciss0",
             "cciss0: QV Array two\nBoard ID: 0x99111a2b\nFirmware Version: 2.84\nIRQ: 51\n");
  host_.File("/proc/scsi/qla2300/10",
             "QLogic Adapter for TCARD14:\n        Firmware version: 3.03.01, Driver version 7\n"
             "Entry address = e0834060\nHBA: QLA2312\n");
  host_.File("/proc/scsi/scsi", "Attached devices:\n" + ScsiDevice(0) + ScsiDevice(1, "CD-ROM") +
                                    ScsiDevice(2, "Processor", "9"));
  std::string identify = "8580";
  for (int word = 1; word < 256; word++) {
    identify += word % 8 == 0 ? "\n" : " ";
    identify += word == 23 ? "312e" : word == 24 ? "3020" : word == 27 ? "4344" : "2020";
  }
  host_.File("/proc/ide/ide0/hda/identify", identify + "\n");
  host_.File("/proc/net/nicinfo/eth0.info",
             "Description\tQV NX0001\nDriver_Name\tbcm5700\nDriver_Version\t7\n"
             "Bootcode_Version\t2.21\n");
  host_.Start();
  EXPECT_EQ(Rows(), (Strings{"0: 2/2/3 QV Array one|4.50|ida0|0x99301A2B",
                             "1: 2/2/3 QV Array two|2.84|cciss0|0x99111a2b",
                             "2: 2/3/3 QLogic Adapter for TCARD14|3.03.01|qla2300/10|e0834060",
                             "3: 2/10/3 MAKER    DISK            |1.05|scsi0(00:00:00)|",
                             "4: 2/23/3 MAKER    DISK            |1.05|scsi0(00:01:00)|",
                             "5: 2/1/3 MAKER    DISK            |9   |scsi0(00:02:00)|",
                             "6: 2/7/3 CD|1.0|ide0/hda|", "7: 3/24/0 QV NX0001|2.21|eth0|eth0"}));
  EXPECT_EQ(host_.Get("tlxHoSwVerNextIndex"), "INTEGER: 8");
  EXPECT_EQ(Get("DisplayName", 1), "STRING: \"QV Array two\"");
  EXPECT_EQ(Get("XmlString", 1), "\"\"");
  EXPECT_EQ(Get("Index", 7), "INTEGER: 7");
  Poll();
  EXPECT_EQ(Get("Index", 7), "INTEGER: 0");
  EXPECT_EQ(Get("Category", 8), "INTEGER: 1");

  // A gap, and who fills it.
  host_.Remove("/proc/driver/cciss/cciss0");
  host_.File("/proc/scsi/scsi", "Attached devices:\n" + ScsiDevice(0, "Direct-Access", "1.06"));
  Poll();
  EXPECT_EQ(Get("Version", 1), kGone);
  EXPECT_EQ(Get("Version", 3), "STRING: \"1.06\"");
  EXPECT_EQ(Get("Version", 4), kGone);
  EXPECT_EQ(Get("Version", 5), kGone);
  EXPECT_EQ(host_.Get("tlxHoSwVerNextIndex"), "INTEGER: 9");
  host_.File("/proc/net/nicinfo/eth1.info",
             "Description\tQV NX0002\na\nb\nBootcode_Version\t2.22\n");
  Poll();
  EXPECT_EQ(Row(1), "3/24/0 QV NX0002|2.22|eth1|eth1");
  EXPECT_EQ(host_.Get("tlxHoSwVerNextIndex"), "INTEGER: 4");
}

TEST_F(FirmwareHost, OutlivesBrokenDriverFiles) {
  const std::string noise(100000, '\xff');
  for (const char *path :
       {"/proc/driver/tlxarray/ida0", "/proc/driver/cciss/cciss0", "/proc/scsi/qla2300/10",
        "/proc/scsi/scsi", "/proc/ide/ide0/hda/identify", "/proc/net/nicinfo/eth0.info"}) {
    host_.File(path, noise);
  }
  host_.Directory("/proc/driver/cciss/cciss1");
  host_.Link("/proc/driver/cciss/cciss2", "/nowhere");
  host_.Start();
  Poll();
  EXPECT_EQ(Rows(), (Strings{"0: 2/8/3 ||ide0/hda|", "1: " + kEmptyPowerPic}));
}

TEST_F(FirmwareHost, ReadsTheSystemRomAndThePowerMicrocontroller) {
  PutSmbios(
      "entry 2.8\n"
      "0: 01 02 w=0 03 to=24 \"Maker\" \"P99\" \"01/15/2010\"\n"
      "1: 01 02 to=27 \"Maker\" \"Servala KX330 R5\"\n"
      "216: w=1 01 02 \"other\" \"9.9\"\n"
      "216: w=4 01 02 \"PowerPIC-Key\" \"3.4\"\n");
  SimulatedController controller;
  host_.Start();
  EXPECT_EQ(Rows(), (Strings{"0: 5/23/3 QV Servala System ROM|2010.01.15|System Board|P99",
                             "1: 4/25/3 Integrated Farwatch Firmware|2.05|System Board|ZQ10",
                             "2: 1/25/3 PowerPIC Firmware|3.4|System Board|PowerPIC-Key"}));
  EXPECT_EQ(host_.daemon.Count("Entering into UpdatePictFw "), 1U);
  // The version is kept from then on.
  Poll();
  Poll();
  EXPECT_EQ(Get("Version", 2), "STRING: \"3.4\"");
}

TEST_F(FirmwareHost, TriesThePowerMicrocontrollerTenTimes) {
  // A record of nine bytes has no version.
  PutSmbios("entry 2.8\n1: 01 02 to=27 \"Maker\" \"Servala KX310 R5\"\n193: 01 to=9\n");
  SimulatedController controller;
  host_.Start();
  for (int pass = 2; pass <= 10; pass++) {
    Poll();
  }
  EXPECT_EQ(Rows(), Strings{"0: 4/25/3 Integrated Farwatch Firmware|2.05|System Board|ZQ10"});
  Poll();
  EXPECT_EQ(Rows().back(), "1: 1/25/3 PowerPIC Firmware||System Board|PowerPIC-Tamsa-KX310R5");
}

TEST_F(FirmwareHost, ReadsThePowerMicrocontrollerFromTheOlderRecord) {
  PutSmbios("entry 2.8\n1: 01 02 to=27 \"Maker\" \"Servala KX310 R5\"\n193: 01 to=9 01 \"5.6\"\n");
  SimulatedController controller;
  host_.Start();
  EXPECT_EQ(Rows().back(), "1: 1/25/3 PowerPIC Firmware|5.6|System Board|PowerPIC-Tamsa-KX310R5");
}

TEST_F(FirmwareHost, FollowsTheIntegratedController) {
  ControllerMood mood;
  mood.major = 1;
  mood.minor = 5;
  SimulatedController controller(mood);
  host_.Start();
  EXPECT_EQ(Row(0), "4/25/3 Integrated Farwatch Firmware|1.05|System Board|ZQ10");
  const size_t open = SettledFiles(host_.daemon.pid()).size();
  const std::pair<int, std::string> generations[] = {
      {5, "ZQ9"}, {4, "ZQ7"}, {3, "ZQ5"}, {0xFF, "ZQ5"}};
  for (const auto &[generation, key] : generations) {
    mood.generation = generation;
    mood.major = 0xFF;
    controller.SetMood(mood);
    Poll();
    EXPECT_EQ(Row(0), "4/25/3 Integrated Farwatch Firmware|-1.05|System Board|" + key);
  }
  // A short reply is zero beyond its end.
  mood.reply_length = 17;
  controller.SetMood(mood);
  Poll();
  EXPECT_EQ(Row(0), "4/25/3 Integrated Farwatch Firmware|0.05|System Board|ZQ5");
  // Silence costs the row, and five seconds.
  mood.silent = true;
  controller.SetMood(mood);
  const double before = Now();
  Poll();
  EXPECT_GE(Now() - before, 5);
  EXPECT_EQ(Row(0), "absent");
  EXPECT_EQ(host_.daemon.Count("The management controller does not answer: each poll waits 5"), 1U);
  mood = ControllerMood();
  controller.SetMood(mood);
  Poll();
  EXPECT_EQ(Row(0), "4/25/3 Integrated Farwatch Firmware|2.05|System Board|ZQ10");
  EXPECT_EQ(host_.daemon.Count("Polls no longer wait for the management controller"), 1U);
  EXPECT_EQ(controller.Count(kVersionCommand), 8);
  EXPECT_EQ(controller.Count(kLogicCommand), 1);
  EXPECT_EQ(SettledFiles(host_.daemon.pid()).size(), open);
  EXPECT_TRUE(Eventually([&] { return controller.Open() == 1; }));
}

TEST_F(FirmwareHost, AControllerComesAndGoes) {
  host_.Start();
  EXPECT_EQ(Rows(), Strings{});
  {
    SimulatedController controller;
    Poll();
    EXPECT_EQ(Row(0), "4/25/3 Integrated Farwatch Firmware|2.05|System Board|ZQ10");
  }
  Poll();
  EXPECT_EQ(Row(0), "absent");
  EXPECT_EQ(Row(1), kEmptyPowerPic);
}

TEST_F(FirmwareHost, PausesForABrokenChannelWhileReadsAreAnswered) {
  SimulatedController controller;
  host_.Start();
  ASSERT_EQ(Get("Version", 0), "STRING: \"2.05\"");
  const unsigned sleeps = host_.daemon.Sleeps();
  ControllerMood mood;
  mood.minor = 6;
  mood.resets = 1;
  mood.resume = true;
  controller.SetMood(mood);
  const double before = Now();
  host_.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([&] { return host_.daemon.Sleeps() == sleeps + 1; }));
  // What is answered within five seconds of the poll's beginning is answered during the pause.
  int answers = 0;
  while (Now() - before < 3) {
    const auto answer = QuickGet(host_.Oid("tlxHoFwVerCategory.0").substr(1), 2);
    ASSERT_TRUE(answer) << answers;
    EXPECT_EQ(answer->number, 4);
    answers += Now() - before < 5 ? 1 : 0;
    Pause(0.05);
  }
  EXPECT_GT(answers, 0);
  ASSERT_TRUE(Eventually([&] { return Get("Version", 0) == "STRING: \"2.06\""; }));
  EXPECT_GE(Now() - before, 5);
  EXPECT_EQ(host_.daemon.Sleeps(), sleeps + 1);

  // Broken again after the pause: no row, and one pause.
  mood.resets = 1000;
  mood.resume = false;
  controller.SetMood(mood);
  host_.daemon.SetSleepPercent(0);
  Poll();
  EXPECT_EQ(Row(0), "absent");
  EXPECT_EQ(host_.daemon.Sleeps(), sleeps + 2);
}

TEST_F(FirmwareHost, ReadsProgrammableLogicOncePerPass) {
  ControllerMood mood;
  mood.logic_code = 0xA1;
  mood.logic = std::string(
      "\x01\x12\xAB\x04"
      "\x01\x02\x03\x00"
      "\xF1\xF2\xF3\x00"
      "\x00\x00\x00\x01"
      "\x0F\x0E\x0D\xFF"
      "\x05\x06\x07",
      23);
  SimulatedController controller(mood);
  host_.Start();
  const Strings rows = Rows();
  ASSERT_EQ(rows.size(), 12U);
  const std::string all = "5/26/3 Servala KX770 R7 ";
  const std::string at = "|System Board|";
  EXPECT_EQ(Strings(rows.begin() + 1, rows.end()),
            (Strings{"1: " + all + "SPI Board PAL|0x01" + at + "CPLD-Q47-SPI",
                     "2: " + all + "Main I/O PAL|0x12" + at + "CPLD-Q47-MAINIO",
                     "3: " + all + "Upper CPU PAL|0xAB" + at + "CPLD-Q47-UPPERCPU",
                     "4: " + all + "Lower CPU PAL|0x04" + at + "CPLD-Q47-LOWERCPU",
                     "5: " + all + "Upper ZRB|03.02.01" + at + "FMP-Q47-UPPERZRB",
                     "6: " + all + "Lower ZRB|03.02.01" + at + "FMP-Q47-LOWERZRB",
                     "7: " + all + "ZRB Upper FPGA|00.00.00" + at + "CPLD-Q47-UPPERZRBFPGA",
                     "8: " + all + "ZRB Lower FPGA|0D.0E.0F" + at + "CPLD-Q47-LOWERZRBFPGA",
                     "9: " + all + "SFF PCIe Board PAL|0x05" + at + "CPLD-Q47-SFF",
                     "10: " + all + "Standard PCIe Board PAL|0x06" + at + "CPLD-Q47-PCIEIO",
                     "11: " + all + "Combo PCIe & PCI-X Board PAL|0x07" + at + "pciex_io_cpld"}));
  EXPECT_EQ(host_.Published("host/fwver.4", "tlxHoFwVerXmlString"),
            "<location category=\"1\" type=\"26\"><version>0x04</version>"
            "<key>CPLD-Q47-LOWERCPU</key></location>");
  EXPECT_EQ(controller.Requests().back(), std::string("\x09\x00\x00\x00\x01\x01\x00\x00", 8));
  Poll();
  EXPECT_EQ(controller.Count(kLogicCommand), 2);
  mood.logic[1] = 0;
  controller.SetMood(mood);
  Poll();
  EXPECT_EQ(Row(2), "absent");
  EXPECT_EQ(Rows().size(), 11U);
  EXPECT_EQ(controller.Count(kLogicCommand), 3);
  // Another code ends it for the life of the process.
  mood.logic_code = 0xA2;
  controller.SetMood(mood);
  Poll();
  EXPECT_EQ(Rows(), Strings{"0: 4/25/3 Integrated Farwatch Firmware|2.05|System Board|ZQ10"});
  mood.logic_code = 0xA1;
  controller.SetMood(mood);
  Poll();
  Poll();
  EXPECT_EQ(controller.Count(kLogicCommand), 4);
  EXPECT_EQ(Rows().size(), 1U);
}

TEST_F(FirmwareHost, ReadsTheRemoteCard) {
  host_.File("/dev/tlxrmc0", "");
  host_.Start();
  EXPECT_EQ(Row(0), "absent");  // its ioctl() fails
  std::string reply(80, '\0');
  reply[16] = 31;
  reply[17] = 2;
  reply[68] = 6;
  host_.daemon.SetCardReply(reply);
  Poll();
  EXPECT_EQ(Row(0), "4/25/3 Remote Farwatch Firmware|2.31|ZENTA Board|ZENTA Board");
  const size_t open = SettledFiles(host_.daemon.pid()).size();
  for (int i = 0; i < 5; i++) {
    Poll();
  }
  EXPECT_EQ(SettledFiles(host_.daemon.pid()).size(), open);
  // An integrated controller hides the card.
  SimulatedController controller;
  Poll();
  EXPECT_EQ(Rows().size(), 2U);
  EXPECT_EQ(Row(0), "absent");
  EXPECT_EQ(Row(2), "4/25/3 Integrated Farwatch Firmware|2.05|System Board|ZQ10");
}

TEST_F(FirmwareHost, LooksUpTheKeyOfARaidDevice) {
  const std::string device = "Attached devices:\n" + ScsiDevice(0, "RAID");
  host_.File("/proc/scsi/scsi", device);
  host_.Directory("/opt/qv");
  host_.Start();
  const std::string row = "2/1/3 MAKER    DISK            |1.05|scsi0(00:00:00)|";
  EXPECT_EQ(Row(0), row + "0x");

  const int segment = shmget(ftok("/opt/qv", 10745), 222, IPC_CREAT | IPC_EXCL | 0600);
  ASSERT_GE(segment, 0);
  auto *bytes = static_cast<char *>(shmat(segment, nullptr, 0));
  ASSERT_NE(bytes, reinterpret_cast<char *>(-1));
  memset(bytes, 0xEE, 222);
  Poll();
  EXPECT_EQ(Row(0), row + "0x");  // not valid
  strcpy(bytes + 190, "99111a2b");
  bytes[189] = 1;
  Poll();
  EXPECT_EQ(Row(0), row + "0x99111a2b");
  memset(bytes + 190, 'k', 32);
  Poll();
  EXPECT_EQ(Row(0), row + "0x" + std::string(32, 'k'));
  host_.daemon.RefuseSegments(true);
  Poll();
  EXPECT_EQ(Row(0), row);
  host_.daemon.RefuseSegments(false);
  shmid_ds state{};
  ASSERT_EQ(shmctl(segment, IPC_STAT, &state), 0);
  EXPECT_EQ(state.shm_nattch, 1U);  // ours
  shmdt(bytes);
  ASSERT_EQ(shmctl(segment, IPC_RMID, nullptr), 0);
  Poll();
  EXPECT_EQ(Row(0), row + "0x");
}
