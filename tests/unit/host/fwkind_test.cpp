// The kinds of firmware beside the firmware table.
#include "detail/fwkind.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "firmware/fwver.h"
#include "tests/support/recording_framework.h"

namespace {

using Strings = std::vector<std::string>;

const std::string kScsi = "/proc/scsi/scsi";

std::string ScsiDevice(int id, const std::string &type) {
  char text[256];
  snprintf(text, sizeof(text),
           "Host: scsi0 Channel: 00 Id: %02d Lun: 00\n"
           "  Vendor: MAKER    Model: DISK            Rev: 1.05\n"
           "  Type:   %-18s               ANSI  SCSI revision: 05\n",
           id, type.c_str());
  return text;
}

void PutScsi(const Strings &types) {
  std::string text = "Attached devices:\n";
  for (size_t i = 0; i < types.size(); i++) {
    text += ScsiDevice(static_cast<int>(i), types[i]);
  }
  rec::PutFile(kScsi, text);
}

TEST(FirmwareKind, EachDeviceHasANumberOfItsOwn) {
  constexpr int32_t kPairs[][2] = {{1, 25}, {2, 1},  {2, 2},  {2, 3},  {2, 7},
                                   {2, 8},  {2, 10}, {2, 11}, {2, 12}, {2, 23},
                                   {2, 24}, {3, 24}, {4, 25}, {5, 23}, {5, 26}};
  std::set<int32_t> devices = {1};
  for (const auto &[category, type] : kPairs) {
    EXPECT_TRUE(devices.insert(firmware_device(category, type)).second) << category << " " << type;
  }
  EXPECT_EQ(*devices.rbegin(), 16);
  EXPECT_EQ(firmware_device(0, 0), 1);
  EXPECT_EQ(firmware_device(5, 25), 1);
}

TEST(FirmwareKind, TellsApartWhatTheTypesDoNot) {
  PutScsi({"CD-ROM", "Direct-Access"});
  ASSERT_EQ(do_fwver(), 0);
  ASSERT_EQ(do_fwkind(), 0);
  EXPECT_EQ(rec::Int("host/fwver.0", "tlxHoFwVerDeviceType"), 23);  // as the system ROM
  EXPECT_EQ(rec::Int("host/fwkind.0", "tlxHoFwKindOwner"), 2);
  EXPECT_EQ(rec::Int("host/fwkind.0", "tlxHoFwKindDevice"), 12);
  EXPECT_EQ(rec::Int("host/fwkind.1", "tlxHoFwKindDevice"), 9);
  EXPECT_EQ(rec::Text("host/fwkind.1", "tlxHoFwKindName"), "MAKER    DISK            ");
  EXPECT_EQ(rec::Text("host/fwkind.1", "tlxHoFwKindLocation"), "scsi0(00:01:00)");
}

TEST(FirmwareKind, FollowsTheRows) {
  PutScsi({"CD-ROM", "Direct-Access"});
  ASSERT_EQ(do_fwver(), 0);
  ASSERT_EQ(do_fwkind(), 0);
  // The next pass of the firmware table finds the same: its own index changes, the kinds do not.
  rec::ForgetEvents();
  ASSERT_EQ(do_fwver(), 0);
  ASSERT_EQ(do_fwkind(), 0);
  EXPECT_EQ(rec::Count("log_data", "host/fwkind.0"), 0);
  PutScsi({"CD-ROM"});
  ASSERT_EQ(do_fwver(), 0);
  ASSERT_EQ(do_fwkind(), 0);
  EXPECT_NE(rec::Live("host/fwkind.0"), nullptr);
  EXPECT_EQ(rec::Live("host/fwkind.1"), nullptr);
}

TEST(FirmwareKind, ARowThatCannotBeMadeIsMadeByTheNextPass) {
  PutScsi({"CD-ROM", "Direct-Access"});
  ASSERT_EQ(do_fwver(), 0);
  rec::Fail("create_obj", "host/fwkind.0");
  EXPECT_EQ(do_fwkind(), -1);
  EXPECT_EQ(rec::Publications("host/fwkind.1"), 1);
  rec::StopFailing();
  EXPECT_EQ(do_fwkind(), 0);
  EXPECT_EQ(rec::Publications("host/fwkind.0"), 1);
}

}  // namespace
