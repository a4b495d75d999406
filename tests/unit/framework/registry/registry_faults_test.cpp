// What becomes of the registry's files when calls fail, and when others are at work there.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>

#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_file.h"
#include "framework/registry/registry_format.h"
#include "tests/support/failing_call.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

constexpr uint32_t kBlock = 8;

// Objects of one variable and eight bytes.
class RegistryFaults : public testing::Test {
 protected:
  ~RegistryFaults() override {
    RootOf(registry_.root()).Hold(Descriptor());
  }
  ObjectFileWriter Writer(const std::string &name, const char *variable = "count") {
    ObjectFileWriter writer(name, registry_.root());
    writer.SetLayout({{variable, 3, 2, 8, 0, 8}}, kBlock);
    return writer;
  }
  static int Publish(ObjectFileWriter &writer, uint8_t n) {
    const std::vector<uint8_t> data(kBlock, n);
    const uint16_t length = 8;
    return writer.Publish(data.data(), &length);
  }
  // 0, or the error.
  static int Error(int result) {
    return result == 0 ? 0 : errno;
  }
  // What stands in the file, -1 when it reads as absent.
  int Value(const std::string &name) {
    const auto object = ReadObjectFile(name, registry_.root());
    return object ? object->data[0] : -1;
  }
  FileState Check(ObjectFileWriter &writer, bool read_back = true) {
    const Descriptor directory(open(registry_.Path("host").c_str(), O_PATH | O_DIRECTORY));
    return writer.Check(directory.get(), read_back);
  }
  // The objects of host, with a "?" behind each that could not be read.
  std::string Listed() {
    std::string names;
    for (const NamedFile &file : ReadObjectsOf("host", registry_.root())) {
      names += file.name.substr(5) + (file.object ? " " : "? ");
    }
    return names;
  }
  std::string Path(const std::string &name) {
    return registry_.Path("host/" + name);
  }
  // Whether this holds in a child for which another file system covers host.
  bool Covered(const std::function<bool()> &holds) {
    const pid_t child = fork();
    if (child == 0) {
      RootOf(registry_.root()).Hold(Descriptor());  // as it was seen before
      const bool over = unshare(CLONE_NEWNS) == 0 &&
                        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                        mount("tmpfs", registry_.Path("host").c_str(), "tmpfs", 0, "size=1m") == 0;
      _exit(over && holds() ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    return status == 0;
  }

  TempRegistry registry_;
};

// ---- Reading

TEST_F(RegistryFaults, AFileThatCannotBeReadIsAbsent) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  for (const char *call : {"syscall", "read", "openat"}) {
    const FailingCall fail(call, EIO);
    EXPECT_EQ(Value("host/a"), -1) << call;
    EXPECT_EQ(fail.Failed(), 1) << call;
  }
  // The last one is that of the file itself; those before are on the way to the root.
  FailingCall count(
      "fstat", [] {}, 1, FailingCall::kAll);
  EXPECT_EQ(Value("host/a"), 1);
  const FailingCall fail("fstat", EIO, count.Failed());
  EXPECT_EQ(Value("host/a"), -1);
  EXPECT_EQ(fail.Failed(), 1);
}

TEST_F(RegistryFaults, ASignalDuringAReadDoesNotCount) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  const FailingCall fail("read", EINTR);
  EXPECT_EQ(Value("host/a"), 1);
  EXPECT_EQ(fail.Failed(), 1);
}

// The file is torn at each look, each time otherwise, as behind a writer that never rests.
TEST_F(RegistryFaults, AFileThatNeverSettlesIsReadAsItIsAfterAWhile) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  ASSERT_EQ(Publish(writer, 2), 0);
  std::vector<uint8_t> bytes = ReadBytes(Path("a"));
  FailingCall tear(
      "read",
      [&] {
        bytes.back()++;
        WriteBytes(Path("a"), bytes);
      },
      1, FailingCall::kAll);
  EXPECT_EQ(Value("host/a"), 1) << "the older state, which is whole";
  EXPECT_EQ(tear.Failed(), 20);
}

TEST_F(RegistryFaults, AnObjectThatCannotBeReadIsListedAllTheSame) {
  for (const char *name : {"host/a", "host/b", "host/c"}) {
    ObjectFileWriter writer = Writer(name);
    ASSERT_EQ(Publish(writer, 1), 0);
  }
  ASSERT_EQ(Listed(), "a b c ");
  for (const int error : {EACCES, EMFILE, EIO}) {
    FailingCall fail("openat", error);
    fail.On("b");
    EXPECT_EQ(Listed(), "a b? c ") << error;
  }
  const FailingCall fail("read", EIO, 2);
  EXPECT_EQ(Listed(), "a b? c ");
  EXPECT_EQ(fail.Failed(), 1);
}

TEST_F(RegistryFaults, WhatIsNoObjectAnyMoreIsNotListed) {
  const std::function<void()> kBecomes[] = {
      [&] { fs::remove(Path("b")); },
      [&] {
        fs::remove(Path("b"));
        fs::create_symlink("a", Path("b"));
      },
      [&] {
        fs::remove(Path("b"));
        fs::create_directory(Path("b"));
      },
      [&] {
        WriteBytes(Path("b"), {'n', 'o', ' ', 'o', 'b', 'j', 'e', 'c', 't', '\n'});
      },
  };
  for (const auto &becomes : kBecomes) {
    fs::remove_all(registry_.Path("host"));
    for (const char *name : {"host/a", "host/b", "host/c"}) {
      ObjectFileWriter writer = Writer(name);
      ASSERT_EQ(Publish(writer, 1), 0);
    }
    FailingCall race("openat", becomes);
    race.On("b");
    EXPECT_EQ(Listed(), "a c ") << &becomes - kBecomes;
    EXPECT_EQ(race.Failed(), 1);
  }
}

TEST_F(RegistryFaults, AnObjectWithOneTornStateIsListedWithTheOther) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  ASSERT_EQ(Publish(writer, 2), 0);
  std::vector<uint8_t> bytes = ReadBytes(Path("a"));
  bytes.back()++;
  WriteBytes(Path("a"), bytes);
  const auto found = ReadObjectsOf("host", registry_.root());
  ASSERT_EQ(found.size(), 1U);
  ASSERT_TRUE(found[0].object);
  EXPECT_EQ(found[0].object->sequence, 1U);
}

TEST_F(RegistryFaults, AnEmptySlotIsEmptyInEveryByteOfItsHeader) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  const std::vector<uint8_t> whole = ReadBytes(Path("a"));
  const auto header = Load<FileHeader>(whole.data());
  const size_t second = header.slots_offset + header.slot_size;
  bool torn = true;
  EXPECT_TRUE(ParseObjectFile(whole, &torn));
  EXPECT_FALSE(torn);
  for (size_t byte = 0; byte < sizeof(SlotHeader); byte++) {
    std::vector<uint8_t> changed = whole;
    changed[second + byte] = 1;
    const auto object = ParseObjectFile(changed, &torn);
    ASSERT_TRUE(object) << byte;
    EXPECT_EQ(object->sequence, 1U) << byte;
    EXPECT_TRUE(torn) << byte;
  }
}

TEST_F(RegistryFaults, NamesAreListedByTheirNumbers) {
  const std::vector<std::string> sorted = {"a",   "a.0",  "a.00", "a.01", "a.1",  "a.1.2", "a.1b",
                                           "a.2", "a.10", "a.x",  "ab",   "b2c1", "b2c3"};
  for (const size_t turn : {size_t{0}, sorted.size() / 2}) {
    for (size_t i = 0; i < sorted.size(); i++) {
      ObjectFileWriter writer = Writer("host/" + sorted[(i + turn) % sorted.size()]);
      ASSERT_EQ(Publish(writer, 1), 0);
    }
    std::vector<std::string> listed;
    for (const std::string &name : ListObjects(registry_.root())) {
      listed.push_back(name.substr(5));
    }
    EXPECT_EQ(listed, sorted);
    fs::remove_all(registry_.Path("host"));
  }
}

// Each beside each, in whatever order the directory has them.
TEST_F(RegistryFaults, NamesOfOneNumberHaveAnOrderToo) {
  const std::vector<std::string> sorted = {"a.0",   "a.00",  "a.000",  "a.001", "a.01", "a.1",
                                           "a.1.2", "a.1.3", "a.01.4", "a.1b",  "a.2"};
  ObjectFileWriter writer = Writer("made");
  ASSERT_EQ(Publish(writer, 1), 0);
  fs::create_directory(registry_.Path("host"));
  const auto put = [&](const std::string &name) {
    fs::create_hard_link(registry_.Path("made"), Path(name));
  };
  for (size_t i = 0; i < sorted.size(); i++) {
    for (size_t j = i + 1; j < sorted.size(); j++) {
      for (const bool turned : {false, true}) {
        put(sorted[turned ? j : i]);
        put(sorted[turned ? i : j]);
        EXPECT_EQ(Listed(), sorted[i] + " " + sorted[j] + " ");
        fs::remove(Path(sorted[i]));
        fs::remove(Path(sorted[j]));
      }
    }
  }
}

TEST_F(RegistryFaults, DirectoriesAreListedToACertainDepth) {
  std::string deep = "d";
  for (int level = 1; level < 16; level++) {
    deep += "/d";
  }
  ObjectFileWriter seen = Writer(deep + "/seen");
  ObjectFileWriter unseen = Writer(deep + "/d/unseen");
  ASSERT_EQ(Publish(seen, 1), 0);
  ASSERT_EQ(Publish(unseen, 1), 0);
  EXPECT_EQ(ListObjects(registry_.root()), std::vector<std::string>{deep + "/seen"});
}

TEST_F(RegistryFaults, WhatCannotBeLookedAtIsLeftOutOfTheList) {
  ObjectFileWriter first = Writer("host/a");
  ObjectFileWriter second = Writer("stdeq/b");
  ASSERT_EQ(Publish(first, 1), 0);
  ASSERT_EQ(Publish(second, 1), 0);
  struct {
    const char *call;
    const char *path;
  } const table[] = {{"openat", "host"}, {"openat", "a"}, {"fstatat", "host"}, {"fstatat", "a"}};
  for (const auto &row : table) {
    FailingCall fail(row.call, EACCES);
    fail.On(row.path);
    EXPECT_EQ(ListObjects(registry_.root()), std::vector<std::string>{"stdeq/b"})
        << row.call << " " << row.path;
  }
  const FailingCall fail("fdopendir", ENOMEM);
  EXPECT_TRUE(ListObjects(registry_.root()).empty());
}

TEST_F(RegistryFaults, WhatCannotBeLookedAtIsNoted) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = descriptors();
  struct {
    const char *call;
    int nth;
    const char *listed;  // what the list of all notes, and that of one directory
    const char *read;
  } const table[] = {
      {"fdopendir", 1, "/ ", "/host "},
      {"fdopendir", 2, "/host ", ""},
      // The entries are ".", ".." and the directory, or the object; then comes the end.
      {"readdir", 4, "/host ", "/host "},
      {"readdir", 8, "/ ", ""},
      {"fstatat", 2, "/host/a ", ""},
      {"pread", 1, "/host/a ", ""},
  };
  for (const auto &row : table) {
    for (const bool all : {true, false}) {
      std::vector<Unread> unread;
      const FailingCall fail(row.call, EIO, row.nth);
      if (all) {
        ListObjects(registry_.root(), &unread);
      } else {
        ReadObjectsOf("host", registry_.root(), &unread);
      }
      std::string noted;
      for (const Unread &each : unread) {
        noted += "/" + each.name + " ";
        EXPECT_EQ(each.error, EIO);
      }
      EXPECT_EQ(noted, all ? row.listed : row.read) << row.call << row.nth << all;
    }
  }
  EXPECT_EQ(descriptors(), before);
}

TEST(ResolveDirectoryName, LongNamesAreNone) {
  std::string name = "a";
  while (name.size() < 4095) {
    name += "/.";
  }
  EXPECT_EQ(ResolveDirectoryName(name, "/tmp/r"), "a");
  EXPECT_EQ(ResolveDirectoryName(name + "/.", "/tmp/r"), std::nullopt);
}

// ---- Writing

TEST_F(RegistryFaults, AWriteGoesOnAfterASignalAndEndsWhenNothingIsWritten) {
  ObjectFileWriter writer = Writer("host/a");
  for (uint8_t n = 1; n <= 3; n++) {
    const FailingCall interrupted("pwrite", EINTR, 1, 2);
    EXPECT_EQ(Publish(writer, n), 0);
    EXPECT_EQ(interrupted.Failed(), 2);
    EXPECT_EQ(Value("host/a"), n);
  }
  const FailingCall nothing("pwrite", 0);
  EXPECT_EQ(Error(Publish(writer, 4)), ENOSPC);
  EXPECT_EQ(Value("host/a"), 3);
  EXPECT_EQ(Publish(writer, 5), 0);
  EXPECT_EQ(Value("host/a"), 5);
}

// An error that says nothing of the file must not make it anew.
TEST_F(RegistryFaults, AFileThatCannotBeOpenedNowIsWrittenInPlaceLater) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  struct stat before = {};
  ASSERT_EQ(stat(Path("a").c_str(), &before), 0);
  uint8_t n = 1;
  for (const int error : {EMFILE, ENFILE, EROFS, EACCES, EPERM, EIO}) {
    {
      FailingCall fail("syscall", error);
      fail.On("host/a");
      FailingCall walk("openat", error);  // which comes after EPERM
      walk.On("a");
      EXPECT_EQ(Error(Publish(writer, ++n)), error);
    }
    EXPECT_EQ(Value("host/a"), n - 1);
    EXPECT_EQ(Publish(writer, ++n), 0);
    EXPECT_EQ(Value("host/a"), n);
  }
  struct stat after = {};
  ASSERT_EQ(stat(Path("a").c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(RegistryFaults, AFileThatCannotBeToldIsMadeAnew) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  const FailingCall fail("statx", EIO);
  EXPECT_EQ(Publish(writer, 2), 0);
  EXPECT_EQ(fail.Failed(), 1);
  EXPECT_EQ(Value("host/a"), 2);
  EXPECT_EQ(Check(writer), FileState::kIntact);
}

TEST_F(RegistryFaults, ATemporaryFileOfADeadProcessOfThisNumberIsReplaced) {
  const std::string temporary = Path(".a." + std::to_string(getpid()));
  fs::create_directories(registry_.Path("host"));
  WriteBytes(temporary, {'x'});
  ObjectFileWriter writer = Writer("host/a");
  EXPECT_EQ(Publish(writer, 1), 0);
  EXPECT_EQ(Value("host/a"), 1);
  EXPECT_FALSE(fs::exists(temporary));
  // What cannot be removed is no file of ours.
  fs::create_directory(temporary);
  ObjectFileWriter other = Writer("host/a");
  EXPECT_EQ(Error(Publish(other, 2)), EISDIR);
  EXPECT_EQ(Value("host/a"), 1);
  fs::remove(temporary);
  {
    // Nor can it be made again.
    WriteBytes(temporary, {'x'});
    FailingCall fail("openat", ENOSPC, 2);
    fail.On(temporary.c_str() + Path("").size());
    EXPECT_EQ(Error(Publish(other, 2)), ENOSPC);
  }
  EXPECT_EQ(Publish(other, 2), 0);
  EXPECT_EQ(Value("host/a"), 2);
}

TEST_F(RegistryFaults, AFileThatCannotBeMadeWholeIsNotMade) {
  ObjectFileWriter first = Writer("host/first");
  ASSERT_EQ(Publish(first, 1), 0);
  ObjectFileWriter writer = Writer("host/a");
  for (const char *call : {"openat", "fchmod", "pwrite", "statx", "renameat"}) {
    const FailingCall fail(call, EIO);
    EXPECT_EQ(Error(Publish(writer, 1)), EIO) << call;
    EXPECT_EQ(fail.Failed(), 1) << call;
    EXPECT_EQ(std::distance(fs::directory_iterator(registry_.Path("host")), {}), 1) << call;
  }
  EXPECT_EQ(Publish(writer, 1), 0);
}

TEST_F(RegistryFaults, TooManyVariablesAreRefused) {
  std::vector<FileVariable> variables(kMaxVariables + 1);
  const std::vector<uint16_t> lengths(variables.size());
  const std::vector<uint8_t> data(kMaxData);
  ObjectFileWriter writer("host/a", registry_.root());
  writer.SetLayout(variables, 0);
  EXPECT_EQ(Error(writer.Publish(data.data(), lengths.data())), EFBIG);
  EXPECT_FALSE(fs::exists(Path("a")));
  // As many as may be, with the longest names and values, can be read as well.
  variables.pop_back();
  for (FileVariable &variable : variables) {
    variable = {std::string(kMaxVariableName, 'n'), 3, 0, 1, 0, 0};
  }
  writer.SetLayout(variables, kMaxData);
  EXPECT_EQ(writer.Publish(data.data(), lengths.data()), 0);
  const auto object = ReadObjectFile("host/a", registry_.root());
  ASSERT_TRUE(object);
  EXPECT_EQ(object->variables.size(), kMaxVariables);
  EXPECT_EQ(object->variables.back().name.size(), kMaxVariableName);
  EXPECT_EQ(object->data.size(), kMaxData);
}

// ---- Looking after what was written

TEST_F(RegistryFaults, AFileThatWasNotWrittenYetIsLost) {
  ObjectFileWriter writer = Writer("host/a");
  fs::create_directories(registry_.Path("host"));
  EXPECT_EQ(Check(writer), FileState::kLost);
  ASSERT_EQ(Publish(writer, 1), 0);
  EXPECT_EQ(Check(writer), FileState::kIntact);
  writer.SetLayout({{"other", 3, 2, 8, 0, 8}}, kBlock);
  EXPECT_EQ(Check(writer), FileState::kLost) << "it has the layout of before";
  ASSERT_EQ(Publish(writer, 2), 0);
  EXPECT_EQ(Check(writer), FileState::kIntact);
}

TEST_F(RegistryFaults, AFileThatCannotBeLookedAtIsNotLost) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  for (const char *call : {"statx", "syscall", "fstat", "read"}) {
    const FailingCall fail(call, EIO);
    EXPECT_EQ(Check(writer), FileState::kUnknown) << call;
    EXPECT_EQ(errno, EIO) << call;
    EXPECT_EQ(fail.Failed(), 1) << call;
  }
  EXPECT_EQ(Check(writer), FileState::kIntact);
}

TEST_F(RegistryFaults, AFileThatBecomesAnotherDuringTheLookIsLost) {
  const std::function<void()> kBecomes[] = {
      [&] { fs::remove(Path("a")); },
      [&] {
        fs::remove(Path("a"));
        fs::create_symlink("b", Path("a"));
      },
      [&] {
        fs::remove(Path("a"));
        ASSERT_EQ(mkfifo(Path("a").c_str(), 0644), 0);
      },
      [&] { fs::resize_file(Path("a"), 20); },
      [&] { fs::resize_file(Path("a"), 2000); },
  };
  for (const auto &becomes : kBecomes) {
    fs::remove(Path("a"));
    ObjectFileWriter writer = Writer("host/a");
    ASSERT_EQ(Publish(writer, 1), 0);
    FailingCall race("syscall", becomes);
    race.On("a");
    EXPECT_EQ(Check(writer), FileState::kLost) << &becomes - kBecomes;
    EXPECT_EQ(race.Failed(), 1);
  }
}

// Whoever can write the file can make its checksums right as well.
TEST_F(RegistryFaults, AHeaderThatSomebodyElseMadeIsLost) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  std::vector<uint8_t> bytes = ReadBytes(Path("a"));
  auto header = Load<FileHeader>(bytes.data());
  const size_t name = sizeof(FileHeader) + sizeof(FileDescriptor);
  ASSERT_EQ(bytes[name], 'c');
  bytes[name] = 'm';
  header.checksum = 0;
  Store(bytes.data(), header);
  header.checksum = RegistryChecksum(bytes.data(), header.slots_offset, 0);
  Store(bytes.data(), header);
  uint8_t *slot = &bytes[header.slots_offset];
  auto stamp = Load<SlotHeader>(slot);
  stamp.checksum = 0;
  Store(slot, stamp);
  const uint64_t begun = RegistryChecksum(slot, sizeof(SlotHeader), header.checksum);
  stamp.checksum =
      RegistryChecksum(slot + sizeof(SlotHeader), header.slot_size - sizeof(SlotHeader), begun);
  Store(slot, stamp);
  WriteBytes(Path("a"), bytes);
  const auto object = ReadObjectFile("host/a", registry_.root());
  ASSERT_TRUE(object);
  EXPECT_EQ(object->variables[0].name, "mount");
  EXPECT_EQ(Check(writer), FileState::kLost);
  EXPECT_EQ(Publish(writer, 2), 0);
  EXPECT_EQ(ReadObjectFile("host/a", registry_.root())->variables[0].name, "count");
}

// ---- Removing

TEST_F(RegistryFaults, AFileThatCannotBeRemovedNowIsRemovedLater) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  for (const char *call : {"syscall", "statx", "unlinkat"}) {
    const FailingCall fail(call, EIO);
    EXPECT_EQ(Error(writer.Remove()), EIO) << call;
    EXPECT_TRUE(fs::exists(Path("a"))) << call;
  }
  RootOf(registry_.root()).Hold(Descriptor());
  {
    const FailingCall fail("openat", EMFILE);
    EXPECT_EQ(Error(writer.Remove()), EMFILE);
  }
  EXPECT_EQ(writer.Remove(), 0);
  EXPECT_FALSE(fs::exists(Path("a")));
}

TEST_F(RegistryFaults, WhatStandsInTheFilesPlaceIsNotRemoved) {
  const std::function<void()> kBecomes[] = {
      [&] { fs::create_directory(Path("a")); },
      [&] { fs::create_symlink("b", Path("a")); },
      // It was made while ours still stood: it is another file for sure.
      [&] { fs::rename(Path("theirs"), Path("a")); },
      [&] {
        fs::remove_all(registry_.Path("host"));
        WriteBytes(registry_.Path("host"), {'x'});
      },
      [&] {
        fs::rename(registry_.Path("host"), registry_.Path("moved"));
        WriteBytes(registry_.Path("moved/a"), {'x'});
        fs::create_directory_symlink("moved", registry_.Path("host"));
      },
  };
  for (const auto &becomes : kBecomes) {
    fs::remove_all(registry_.Path("host"));
    ObjectFileWriter writer = Writer("host/a");
    ASSERT_EQ(Publish(writer, 1), 0);
    WriteBytes(Path("theirs"), {'x'});
    fs::remove(Path("a"));
    becomes();
    EXPECT_EQ(writer.Remove(), 0) << &becomes - kBecomes;
    EXPECT_TRUE(fs::exists(fs::symlink_status(registry_.Path("host")))) << &becomes - kBecomes;
    if (fs::is_directory(registry_.Path("host"))) {
      EXPECT_TRUE(fs::exists(fs::symlink_status(Path("a")))) << &becomes - kBecomes;
    }
    EXPECT_EQ(writer.Remove(), 0) << "it is no longer ours";
  }
  // The same one directory deeper.
  fs::remove_all(registry_.Path("host"));
  fs::remove_all(registry_.Path("moved"));
  ObjectFileWriter writer = Writer("host/sub/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  fs::rename(registry_.Path("host"), registry_.Path("moved"));
  fs::create_directory_symlink("moved", registry_.Path("host"));
  EXPECT_EQ(writer.Remove(), 0);
  EXPECT_TRUE(fs::exists(registry_.Path("moved/sub/a")));
}

TEST_F(RegistryFaults, AFileOfAnotherFileSystemIsNotRemoved) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  EXPECT_TRUE(Covered([&] {
    WriteBytes(Path("a"), {'x'});
    return writer.Remove() == 0 && fs::exists(Path("a"));
  }));
  EXPECT_TRUE(fs::exists(Path("a")));
  EXPECT_EQ(writer.Remove(), 0);
  EXPECT_FALSE(fs::exists(Path("a")));
}

TEST_F(RegistryFaults, AnObjectsFileIsRemovedWhoeverMadeIt) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  const auto remove = [&](const std::string &name) {
    return Error(RemoveObjectFile(name, registry_.root()));
  };
  EXPECT_EQ(remove("host"), EISDIR);
  EXPECT_EQ(remove("host/a/below"), ENOTDIR);
  EXPECT_EQ(remove("nowhere/a"), 0);
  {
    const FailingCall fail("unlinkat", EROFS);
    EXPECT_EQ(remove("host/a"), EROFS);
    EXPECT_TRUE(fs::exists(Path("a")));
  }
  EXPECT_EQ(remove("host/a"), 0);
  EXPECT_FALSE(fs::exists(Path("a")));
  fs::remove_all(registry_.root());
  EXPECT_EQ(remove("host/a"), 0);
  WriteBytes(registry_.root(), {'x'});
  EXPECT_EQ(remove("host/a"), ENOTDIR);
}

}  // namespace
}  // namespace vex
