// The library's interface while nothing is loaded, and where calls fail. What it says of sound
// tables is tested in the scenarios.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/smbios.h"
#include "tests/support/failing_call.h"
#include "tests/support/failing_new.h"
#include "tests/support/smbios_tables.h"

namespace {

TEST(Kelmointrfc, WithoutTables) {
  EXPECT_EQ(IsSMBIOSAvailable(), 0);
  const unsigned char own[] = {1, 4, 0, 0, 'x', 0, 0};
  const unsigned char *record = own;
  EXPECT_EQ(SmbGetRecordByType(1, 0, &record), 0);
  EXPECT_EQ(record, own);
  EXPECT_STREQ(SmbGetStringByNumber(own, 1), "");
  EXPECT_STREQ(SmbGetStringByNumber(nullptr, 1), "");
  DeinitSMBIOS();
  DeinitSMBIOS();
  EXPECT_EQ(IsSMBIOSAvailable(), 0);
}

// A /sys of the test's own, in a process of its own.
template <typename Function>
void WithTables(const vex::SmbiosImage &image, Function function) {
  const pid_t child = fork();
  if (child == 0) {
    const std::string user = "0 " + std::to_string(getuid()) + " 1";
    const bool alone = unshare(CLONE_NEWNS) == 0;
    if (!alone) {
      EXPECT_EQ(unshare(CLONE_NEWUSER | CLONE_NEWNS), 0) << strerror(errno);
      std::ofstream("/proc/self/uid_map") << user;
    }
    const std::string directory = "/sys/firmware/dmi/tables";
    EXPECT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    EXPECT_EQ(mount("sys", "/sys", "tmpfs", 0, nullptr), 0) << strerror(errno);
    if (!testing::Test::HasFailure()) {
      std::filesystem::create_directories(directory);
      vex::WriteSmbios(image, directory);
      function();
    }
    fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

const char kOneRecord[] = "entry 3.0\n1: 01 \"Maker\"\n127:\n";

// What is asked once a process, such as the machine's GUID, must not be missed for it.
TEST(Kelmointrfc, ACallThatFailsForAMomentCostsNoTables) {
  WithTables(vex::AssembleSmbios(kOneRecord), [] {
    const vex::FailingCall no_pause("nanosleep", 0, 1, vex::FailingCall::kAll);
    bool failed = true;
    int n = 1;
    for (; failed; n++) {
      failed = vex::FailAllocation(n, [] { EXPECT_EQ(InitSMBIOS(), 1); });
      const unsigned char *record = nullptr;
      EXPECT_EQ(SmbGetRecordByType(1, 0, &record), 1);
      EXPECT_STREQ(SmbGetStringByNumber(record, 1), "Maker");
      DeinitSMBIOS();
    }
    EXPECT_GT(n, 3);
    for (const char *call : {"open", "fstat", "read"}) {
      const vex::FailingCall failing(call, EIO, 1, 2);
      EXPECT_EQ(InitSMBIOS(), 1) << call;
      EXPECT_EQ(failing.Failed(), 2);
      DeinitSMBIOS();
    }
  });
}

TEST(Kelmointrfc, WhatLastsIsAbsenceWithTheError) {
  WithTables(vex::AssembleSmbios(kOneRecord), [] {
    const vex::FailingCall no_pause("nanosleep", 0, 1, vex::FailingCall::kAll);
    vex::FailAllocations([] {
      EXPECT_EQ(InitSMBIOS(), 0);
      EXPECT_EQ(errno, ENOMEM);
    });
    {
      const vex::FailingCall failing("read", EIO, 1, vex::FailingCall::kAll);
      EXPECT_EQ(InitSMBIOS(), 0);
      EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(IsSMBIOSAvailable(), 0);
    EXPECT_EQ(InitSMBIOS(), 1);
  });
  vex::SmbiosImage broken = vex::AssembleSmbios(kOneRecord);
  broken.entry_point[0] = 'x';
  WithTables(broken, [] {
    const vex::FailingCall no_pause("nanosleep", 0, 1, vex::FailingCall::kAll);
    EXPECT_EQ(InitSMBIOS(), 0);
    EXPECT_EQ(errno, EBADMSG);
  });
}

}  // namespace
