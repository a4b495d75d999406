#include "hardware/qvev/ev_source.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/ev.h"
#include "tests/support/failing_call.h"
#include "tests/support/failing_new.h"

namespace {

constexpr char kGuid[] = "-8be4df61-93ca-11d2-aa0d-00e098032b8c";

class EvSource : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "/ev-" + std::string(6, 'X');
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    raw_ = root_ + "/raw";
    uefi_ = root_ + "/uefi";
    std::filesystem::create_directory(raw_);
    std::filesystem::create_directory(uefi_);
  }
  void TearDown() override {
    std::filesystem::remove_all(root_);
  }
  void Put(const std::string &path, const std::string &contents) {
    std::ofstream(path, std::ios::binary) << contents;
    ASSERT_EQ(std::filesystem::file_size(path), contents.size());
  }
  // The value, or "absent" with the problem behind it.
  std::string Read(const std::string &name, size_t length = 136) {
    std::string buffer(length + 8, '\x55');
    std::string problem;
    const int64_t got =
        vex::ReadEv({raw_.c_str(), uefi_.c_str()}, name.c_str(), buffer.data(), length, &problem);
    if (got < 0) {
      return problem.empty() ? "absent" : "absent: " + problem;
    }
    notice_ = problem;
    EXPECT_LE(static_cast<size_t>(got), length);
    EXPECT_EQ(buffer.substr(static_cast<size_t>(got)),
              std::string(buffer.size() - static_cast<size_t>(got), '\x55'));
    return buffer.substr(0, static_cast<size_t>(got));
  }
  std::string root_;
  std::string raw_;
  std::string uefi_;
  std::string notice_;  // beside a value
};

TEST_F(EvSource, RawBytes) {
  const std::string value("\0\1\2\xff\n", 5);
  Put(raw_ + "/ZTHRN4", value);
  EXPECT_EQ(Read("ZTHRN4"), value);
  EXPECT_EQ(notice_, "");
  EXPECT_EQ(Read("ZTHRN4", 5), value);
  EXPECT_EQ(notice_, "");
  EXPECT_EQ(Read("ZTHRN4", 3), value.substr(0, 3));
  EXPECT_EQ(notice_, raw_ + "/ZTHRN4 is longer than 3 bytes, the rest is not used");
}

TEST_F(EvSource, UefiVariableWithoutItsAttributes) {
  Put(uefi_ + "/ZTHRN4" + kGuid, std::string("\7\0\0\0value", 9));
  EXPECT_EQ(Read("ZTHRN4"), "value");
  EXPECT_EQ(notice_, "");
  EXPECT_EQ(Read("ZTHRN4", 2), "va");
  EXPECT_EQ(notice_, uefi_ + "/ZTHRN4" + kGuid + " is longer than 2 bytes, the rest is not used");
}

TEST_F(EvSource, AGoodVariableBehindAnUnusableFile) {
  std::filesystem::create_directory(raw_ + "/A");
  Put(uefi_ + "/A" + kGuid, std::string("\7\0\0\0value", 9));
  EXPECT_EQ(Read("A"), "value");
  EXPECT_EQ(notice_, raw_ + "/A is not a regular file, the UEFI variable is used");
  Put(uefi_ + "/A" + kGuid, "");
  EXPECT_EQ(Read("A"), "absent: " + raw_ + "/A is not a regular file; " + uefi_ + "/A" + kGuid +
                           " has no value");
}

TEST_F(EvSource, AFileThatIsTooShortHidesNoVariableThatIsWhole) {
  Put(raw_ + "/A", "abc");
  Put(uefi_ + "/A" + kGuid, std::string("\7\0\0\0value", 9));
  EXPECT_EQ(Read("A", 5), "value");
  EXPECT_EQ(notice_, raw_ + "/A has 3 bytes of the 5 that are needed, the UEFI variable is used");
  EXPECT_EQ(Read("A", 3), "abc");
  EXPECT_EQ(notice_, "");
  // Neither is whole: the file counts.
  EXPECT_EQ(Read("A", 6), "abc");
  EXPECT_EQ(notice_, "");
  Put(uefi_ + "/A" + kGuid, std::string("\7\0\0\0longer", 10));
  EXPECT_EQ(Read("A", 5), "longe");
  EXPECT_EQ(notice_, raw_ + "/A has 3 bytes of the 5 that are needed, the UEFI variable is used; " +
                         uefi_ + "/A" + kGuid + " is longer than 5 bytes, the rest is not used");
}

TEST_F(EvSource, ADirectoryOfVariablesThatCannotBeRead) {
  std::filesystem::remove_all(uefi_);
  std::filesystem::create_symlink("uefi", uefi_);
  EXPECT_EQ(Read("A"), "absent: " + uefi_ + ": Too many levels of symbolic links");
}

TEST_F(EvSource, RawBytesWin) {
  Put(raw_ + "/A", "raw");
  Put(uefi_ + "/A" + kGuid, std::string("\7\0\0\0uefi", 8));
  EXPECT_EQ(Read("A"), "raw");
}

TEST_F(EvSource, Absent) {
  EXPECT_EQ(Read("A"), "absent");
  Put(uefi_ + "/AB" + kGuid, std::string("\7\0\0\0x", 5));
  Put(uefi_ + "/A-not-a-guid", std::string("\7\0\0\0x", 5));
  Put(uefi_ + "/A" + std::string(kGuid) + "0", std::string("\7\0\0\0x", 5));
  EXPECT_EQ(Read("A"), "absent");
  std::filesystem::remove_all(raw_);
  std::filesystem::remove_all(uefi_);
  EXPECT_EQ(Read("A"), "absent");
}

TEST_F(EvSource, TheFirstOfSeveralVendors) {
  Put(uefi_ + "/A-8be4df61-93ca-11d2-aa0d-00e098032b8c", std::string("\7\0\0\0second", 10));
  Put(uefi_ + "/A-11111111-93ca-11d2-aa0d-00e098032b8c", std::string("\7\0\0\0first", 9));
  EXPECT_EQ(Read("A"), "first");
}

TEST_F(EvSource, NamesThatLeadElsewhere) {
  Put(root_ + "/secret", "x");
  for (const char *name : {"../secret", "", ".", "..", "a/b", "a b", "a*", "\xc3\xbc"}) {
    EXPECT_EQ(Read(name), "absent: not a name") << name;
  }
  EXPECT_EQ(Read(std::string(201, 'a')), "absent: not a name");
}

TEST_F(EvSource, WhatIsNotARegularFile) {
  std::filesystem::create_directory(raw_ + "/D");
  EXPECT_EQ(Read("D"), "absent: " + raw_ + "/D is not a regular file");
  ASSERT_EQ(mkfifo((raw_ + "/F").c_str(), 0600), 0);
  EXPECT_EQ(Read("F"), "absent: " + raw_ + "/F is not a regular file");
  ASSERT_EQ(mkfifo((uefi_ + "/G" + kGuid).c_str(), 0600), 0);
  EXPECT_EQ(Read("G"), "absent: " + uefi_ + "/G" + kGuid + " is not a regular file");
}

TEST_F(EvSource, NoValue) {
  Put(raw_ + "/E", "");
  EXPECT_EQ(Read("E"), "absent: " + raw_ + "/E has no value");
  for (const char *attributes : {"", "\7", "\7\1\1\1"}) {
    Put(uefi_ + "/U" + kGuid, attributes);
    EXPECT_EQ(Read("U"), "absent: " + uefi_ + "/U" + kGuid + " has no value");
  }
}

TEST_F(EvSource, ALargeFileIsReadInPart) {
  Put(raw_ + "/L", std::string(1 << 20, 'l'));
  EXPECT_EQ(Read("L", 136), std::string(136, 'l'));
  EXPECT_EQ(Read("L", 100000).size(), 4100u);
}

TEST_F(EvSource, VariablesWhoseVendorIsNone) {
  Put(uefi_ + "/A-8be4df61-93ca-11d2-aa0d-00e098032b8x", std::string("\7\0\0\0x", 5));
  Put(uefi_ + "/A-8be4df61093ca-11d2-aa0d-00e098032b8c", std::string("\7\0\0\0x", 5));
  Put(uefi_ + "/A_8be4df61-93ca-11d2-aa0d-00e098032b8c", std::string("\7\0\0\0x", 5));
  EXPECT_EQ(Read("A"), "absent");
}

// In whatever order a directory lists them.
TEST_F(EvSource, TheFirstOfManyVendors) {
  for (int i = 0; i < 10; i++) {
    const std::string guid = "0000000" + std::to_string(i) + "-93ca-11d2-aa0d-00e098032b8c";
    Put(uefi_ + "/UP-" + guid, std::string("\7\0\0\0", 4) + std::to_string(i));
    const std::string down = "0000000" + std::to_string(9 - i) + "-93ca-11d2-aa0d-00e098032b8c";
    Put(uefi_ + "/DOWN-" + down, std::string("\7\0\0\0", 4) + std::to_string(9 - i));
  }
  EXPECT_EQ(Read("UP"), "0");
  EXPECT_EQ(Read("DOWN"), "0");
}

TEST_F(EvSource, AFileInPlaceOfADirectoryIsAbsence) {
  std::filesystem::remove_all(raw_);
  std::filesystem::remove_all(uefi_);
  Put(raw_, "x");
  Put(uefi_, "x");
  EXPECT_EQ(Read("A"), "absent");
}

// What an EV says is asked once in the life of a process.
TEST_F(EvSource, ACallThatFailsForAMomentCostsNoValue) {
  Put(raw_ + "/R", "raw");
  Put(uefi_ + "/U" + kGuid, std::string("\7\0\0\0value", 9));
  const struct {
    const char *call;
    int error;
  } table[] = {{"open", EMFILE}, {"fstat", EIO}, {"read", EIO}, {"read", EINTR}};
  for (const auto &row : table) {
    for (const int failures : {1, 2}) {
      const vex::FailingCall failing(row.call, row.error, 1, failures);
      EXPECT_EQ(Read("R", 3), "raw") << row.call;
      EXPECT_EQ(failing.Failed(), failures);
    }
  }
  for (const char *call : {"opendir", "readdir"}) {
    const vex::FailingCall failing(call, EIO, 1, 2);
    EXPECT_EQ(Read("U"), "value") << call;
    EXPECT_EQ(notice_, "");
    EXPECT_EQ(failing.Failed(), 2);
  }
  for (const auto &row : table) {
    if (row.error == EINTR) {
      continue;
    }
    const vex::FailingCall failing(row.call, row.error, 1, 3);
    EXPECT_EQ(Read("R", 3), "absent: " + raw_ + "/R: " + strerror(row.error)) << row.call;
  }
  for (const char *call : {"opendir", "readdir"}) {
    const vex::FailingCall failing(call, EIO, 1, 3);
    EXPECT_EQ(Read("U"), "absent: " + uefi_ + ": Input/output error") << call;
  }
}

// This program has no framework, and so nowhere to say it.
TEST(Ev, WithoutALogOrMemoryItIsAbsent) {
  char buffer[8] = "before";
  uint32_t length = sizeof(buffer);
  EXPECT_EQ(get_ev("../name", buffer, &length), -1);
  vex::FailAllocations([&] { EXPECT_EQ(get_ev("A_NAME_OF_SOME_LENGTH", buffer, &length), -1); });
  EXPECT_EQ(length, sizeof(buffer));
  EXPECT_STREQ(buffer, "before");
}

}  // namespace
