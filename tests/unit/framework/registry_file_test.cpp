#include "framework/registry/registry_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <random>

#include "framework/registry/directory_lock.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_format.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

// An integer, a string and octets; the data block holds 8 bytes of private state behind them.
std::vector<FileVariable> ThreeVariables() {
  return {{"exampleCount", 1, 2, 4, 0, 4},
          {"exampleName", 2, 0, 33, 4, 33},
          {"exampleDate", 3, 2, 7, 37, 7}};
}
constexpr uint32_t kDataSize = 52;

// A state that is told from every other by each of its bytes.
std::vector<uint8_t> State(uint8_t n) {
  return std::vector<uint8_t>(kDataSize, n);
}

class RegistryFile : public testing::Test {
 protected:
  ObjectFileWriter Writer(const std::string &name) {
    ObjectFileWriter writer(name, registry_.root());
    writer.SetLayout(ThreeVariables(), kDataSize);
    return writer;
  }
  int Publish(ObjectFileWriter &writer, uint8_t n) {
    const uint16_t lengths[3] = {4, 33, static_cast<uint16_t>(n % 8)};
    return writer.Publish(State(n).data(), lengths);
  }
  std::optional<FileObject> Read(const std::string &name) {
    return ReadObjectFile(name, registry_.root());
  }
  // The state that stands in the file, -1 when it reads as absent.
  int Value(const std::string &name) {
    const std::optional<FileObject> object = Read(name);
    if (!object) {
      return -1;
    }
    EXPECT_EQ(object->data, State(object->data[0]));
    return object->data[0];
  }

  TempRegistry registry_;
};

TEST(ResolveObjectName, GoesByTheTextAlone) {
  struct {
    const char *name;
    const char *relative;  // null: outside
  } const table[] = {
      {"host/cpu.0", "host/cpu.0"},
      {"misc", "misc"},
      {"/var/spool/quorix/kelmo/registry/host/cpu.0", "host/cpu.0"},
      {"../../kelmo/registry/stdeq/misc", "stdeq/misc"},
      {"../registry/a", "a"},
      {"host/../stdeq/./misc", "stdeq/misc"},
      {"//host///cpu.0/", nullptr},
      {"host///cpu.0/", "host/cpu.0"},
      {"/var/spool/../spool/quorix/kelmo/registry/x", "x"},
      {"../../../../../../../../var/spool/quorix/kelmo/registry/x", "x"},
      {"host/../../registry/host/x", "host/x"},
      {"", nullptr},
      {".", nullptr},
      {"/", nullptr},
      {"..", nullptr},
      {"host/..", nullptr},
      {"/var/spool/quorix/kelmo/registry", nullptr},
      {"/var/spool/quorix/kelmo/registry/", nullptr},
      {"/var/spool/quorix/kelmo/registry/../registry2/x", nullptr},
      {"/var/spool/quorix/kelmo/registry2/x", nullptr},
      {"../../../etc/passwd", nullptr},
      {"/etc/passwd", nullptr},
      {"../../kelmo/other/misc", nullptr},
      {"host/.cpu.0.77", nullptr},  // a writer's temporary file
      {".hidden/x", nullptr},
      {"...", nullptr},
  };
  for (const auto &row : table) {
    const std::optional<std::string> relative = ResolveObjectName(row.name);
    if (row.relative == nullptr) {
      EXPECT_FALSE(relative) << row.name << " -> " << *relative;
    } else {
      ASSERT_TRUE(relative) << row.name;
      EXPECT_EQ(*relative, row.relative) << row.name;
    }
  }
  EXPECT_FALSE(ResolveObjectName(std::string_view("host/a\0b", 8)));
  EXPECT_FALSE(ResolveObjectName("host/" + std::string(201, 'a')));
  EXPECT_TRUE(ResolveObjectName("host/" + std::string(200, 'a')));
  std::string deep = "x";
  while (deep.size() <= 1024) {
    deep += "/yyyyyyyyyyyyyyy";
  }
  EXPECT_FALSE(ResolveObjectName(deep));
  EXPECT_EQ(ResolveObjectName("/tmp/r/a/b", "/tmp/r"), "a/b");
  EXPECT_EQ(ResolveObjectName("a", "/tmp/r/"), "a");
  EXPECT_FALSE(ResolveObjectName("../../kelmo/registry/a", "/tmp/r"));
}

TEST_F(RegistryFile, NoWayOfOpeningLeavesTheRootOrFollowsALink) {
  fs::create_directories(registry_.Path("host/sub"));
  WriteBytes(registry_.Path("host/sub/file"), {'x'});
  WriteBytes(registry_.base() + "/outside", {'x'});
  fs::create_symlink("file", registry_.Path("host/sub/link"));
  fs::create_directory_symlink("host", registry_.Path("alias"));
  struct {
    const char *path;
    int flags;
    bool opens;
  } const table[] = {
      {"", O_RDONLY | O_DIRECTORY, true},         {"", O_PATH | O_DIRECTORY, true},
      {"host", O_PATH | O_DIRECTORY, true},       {"host/sub/file", O_RDONLY, true},
      {"host/sub/new", O_WRONLY | O_CREAT, true}, {"host/sub/file", O_RDONLY | O_DIRECTORY, false},
      {"host/sub/link", O_RDONLY, false},         {"alias/sub/file", O_RDONLY, false},
      {"alias", O_RDONLY | O_DIRECTORY, false},   {"host/missing", O_RDONLY, false},
      {"missing/file", O_RDONLY, false},          {"host/sub/file/x", O_RDONLY, false},
      {"../../outside", O_RDONLY, false},         {"host/../../../outside", O_RDONLY, false},
  };
  const Descriptor root(OpenRegistryRoot(registry_.root(), false));
  ASSERT_TRUE(root);
  for (const auto &row : table) {
    for (const auto open : {OpenBeneath, OpenBeneathByWalk}) {
      const Descriptor fd(open(root.get(), row.path, row.flags, 0600));
      EXPECT_EQ(static_cast<bool>(fd), row.opens) << row.path;
      if (fd) {
        EXPECT_NE(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0) << row.path;
      }
    }
  }
}

TEST_F(RegistryFile, ReadsBackWhatWasPublished) {
  ObjectFileWriter writer = Writer("host/cpu.0");
  EXPECT_FALSE(Read("host/cpu.0"));
  timespec before;
  clock_gettime(CLOCK_REALTIME, &before);
  for (uint8_t n = 1; n <= 20; n++) {
    ASSERT_EQ(Publish(writer, n), 0) << strerror(errno);
    const std::optional<FileObject> object = Read("host/cpu.0");
    ASSERT_TRUE(object);
    EXPECT_EQ(object->data, State(n));
    EXPECT_EQ(object->sequence, n);
    EXPECT_GE(object->published_ns / 1'000'000'000, before.tv_sec);
    ASSERT_EQ(object->variables.size(), 3u);
    EXPECT_EQ(object->variables[0].name, "exampleCount");
    EXPECT_EQ(object->variables[0].type, 1);
    EXPECT_EQ(object->variables[0].access, 2);
    EXPECT_EQ(object->variables[0].length, 4);
    EXPECT_EQ(object->variables[1].length, 33);
    EXPECT_EQ(object->variables[1].name, "exampleName");
    EXPECT_EQ(object->variables[1].access, 0);
    EXPECT_EQ(object->variables[1].size, 33u);
    EXPECT_EQ(object->variables[1].offset, 4u);
    EXPECT_EQ(object->variables[2].offset, 37u);
    EXPECT_EQ(object->variables[2].length, n % 8);
  }
}

TEST_F(RegistryFile, AnObjectMayHaveNoVariablesOrNoData) {
  ObjectFileWriter block("stdeq/block", registry_.root());
  block.SetLayout({}, 5);
  ASSERT_EQ(block.Publish(reinterpret_cast<const uint8_t *>("12345"), nullptr), 0);
  std::optional<FileObject> object = Read("stdeq/block");
  ASSERT_TRUE(object);
  EXPECT_EQ(object->data, (std::vector<uint8_t>{'1', '2', '3', '4', '5'}));
  EXPECT_TRUE(object->variables.empty());

  ObjectFileWriter nothing("stdeq/nothing", registry_.root());
  nothing.SetLayout({}, 0);
  ASSERT_EQ(nothing.Publish(nullptr, nullptr), 0);
  object = Read("stdeq/nothing");
  ASSERT_TRUE(object);
  EXPECT_TRUE(object->data.empty());

  // As one that has not got a layout yet.
  ObjectFileWriter unlaid("stdeq/unlaid", registry_.root());
  ASSERT_EQ(unlaid.Publish(nullptr, nullptr), 0);
  object = Read("stdeq/unlaid");
  ASSERT_TRUE(object);
  EXPECT_TRUE(object->data.empty());
  EXPECT_TRUE(object->variables.empty());
}

TEST_F(RegistryFile, AnObjectMayHaveManyVariablesAndNoData) {
  ObjectFileWriter writer("stdeq/names", registry_.root());
  writer.SetLayout(std::vector<FileVariable>(kMaxVariables, {"n", 3, 2, 0, 0, 0}), 0);
  const std::vector<uint16_t> lengths(kMaxVariables);
  for (uint64_t n = 1; n <= 3; n++) {
    ASSERT_EQ(writer.Publish(nullptr, lengths.data()), 0);
    const std::optional<FileObject> object = Read("stdeq/names");
    ASSERT_TRUE(object);
    EXPECT_EQ(object->variables.size(), kMaxVariables);
    EXPECT_EQ(object->sequence, n);
  }
}

// ---- The format, octet by octet: other builds of agent and tools read and write it, too.

TEST_F(RegistryFile, WhatFillsUpToAMultipleOfEightIsZero) {
  ObjectFileWriter writer = Writer("stdeq/misc");
  ASSERT_EQ(Publish(writer, 1), 0);
  ASSERT_EQ(Publish(writer, 2), 0);
  const std::vector<uint8_t> bytes = ReadBytes(registry_.Path("stdeq/misc"));
  const auto header = Load<FileHeader>(bytes.data());
  const auto zeros = [&](size_t begin, size_t end) {
    return std::count(bytes.begin() + static_cast<long>(begin),
                      bytes.begin() + static_cast<long>(end), 0);
  };
  const size_t names = sizeof(FileHeader) + 3 * sizeof(FileDescriptor);
  ASSERT_EQ(header.names_size, 34U);
  EXPECT_EQ(zeros(names + 34, header.slots_offset), 6);
  for (const size_t slot : {size_t{0}, size_t{1}}) {
    const size_t lengths = header.slots_offset + slot * header.slot_size + sizeof(SlotHeader);
    EXPECT_EQ(zeros(lengths + 6, lengths + 8), 2) << slot;
    EXPECT_EQ(zeros(lengths + 8 + kDataSize, lengths + 8 + kDataSize + 4), 4) << slot;
  }
}

TEST(RegistryChecksum, IsThatOfTheFormat) {
  uint8_t words[16];
  memcpy(words, "0123456789abcdef", sizeof(words));
  EXPECT_EQ(RegistryChecksum(words, 0, 0), 0xcbf29ce484222325);
  EXPECT_EQ(RegistryChecksum(words, 16, 0), 0xd8f73e486fc461ec);
  EXPECT_EQ(RegistryChecksum(words, 16, 7), 0xbb285b7a618829);
}

// Makes the checksum of one slot right.
void Seal(std::vector<uint8_t> &file, size_t slot, uint64_t sequence) {
  const auto header = Load<FileHeader>(file.data());
  uint8_t *at = &file[header.slots_offset + slot * header.slot_size];
  SlotHeader stamp = {sequence, 1, 0};
  Store(at, stamp);
  const uint64_t begun = RegistryChecksum(at, sizeof(SlotHeader), header.checksum);
  stamp.checksum =
      RegistryChecksum(at + sizeof(SlotHeader), header.slot_size - sizeof(SlotHeader), begun);
  Store(at, stamp);
}

// A file in which all numbers fit each other, with nothing but zeros in its names and values.
std::vector<uint8_t> WholeFile(size_t var_count, size_t data_size, size_t names_size) {
  FileHeader header = {};
  memcpy(header.magic, kMagic, sizeof(kMagic));
  header.version = kVersion;
  header.var_count = static_cast<uint32_t>(var_count);
  header.data_size = static_cast<uint32_t>(data_size);
  header.names_size = static_cast<uint32_t>(names_size);
  const size_t slots = Padded(sizeof(FileHeader) + var_count * sizeof(FileDescriptor) + names_size);
  header.slots_offset = static_cast<uint32_t>(slots);
  header.slot_size = static_cast<uint32_t>(SlotSize(var_count, data_size));
  std::vector<uint8_t> file(slots + 2 * size_t{header.slot_size});
  Store(file.data(), header);
  header.checksum = RegistryChecksum(file.data(), slots, 0);
  Store(file.data(), header);
  Seal(file, 0, 1);
  return file;
}

TEST(RegistryFormat, EachSizeHasItsLimitAlone) {
  struct {
    size_t var_count;
    size_t data_size;
    size_t names_size;
    bool is_object;
  } const table[] = {
      {0, 0, 0, true},
      {kMaxVariables, 0, 0, true},
      {kMaxVariables + 1, 0, 0, false},
      {0, kMaxData, 0, true},
      {0, kMaxData + 1, 0, false},
      {0, 0, kMaxFile, true},
      {0, 0, kMaxFile + 1, false},
  };
  for (const auto &row : table) {
    bool torn = true;
    const auto object =
        ParseObjectFile(WholeFile(row.var_count, row.data_size, row.names_size), &torn);
    EXPECT_EQ(object.has_value(), row.is_object) << &row - table;
    EXPECT_FALSE(torn) << &row - table;
    EXPECT_EQ(object ? object->variables.size() : 0, row.is_object ? row.var_count : 0);
    EXPECT_EQ(object ? object->data.size() : 0, row.is_object ? row.data_size : 0);
  }
}

TEST(RegistryFormat, TheHigherSequenceCountsAndOfEqualOnesTheFirst) {
  std::vector<uint8_t> file = WholeFile(0, 8, 0);
  const auto header = Load<FileHeader>(file.data());
  for (const size_t slot : {size_t{0}, size_t{1}}) {
    file[header.slots_offset + slot * header.slot_size + sizeof(SlotHeader)] =
        static_cast<uint8_t>(slot);
  }
  struct {
    uint64_t sequences[2];
    uint8_t expected;
  } const table[] = {{{1, 2}, 1}, {{2, 1}, 0}, {{2, 2}, 0}, {{UINT64_MAX, 1}, 0}};
  for (const auto &row : table) {
    Seal(file, 0, row.sequences[0]);
    Seal(file, 1, row.sequences[1]);
    bool torn = true;
    const auto object = ParseObjectFile(file, &torn);
    ASSERT_TRUE(object) << &row - table;
    EXPECT_FALSE(torn) << &row - table;
    EXPECT_EQ(object->data[0], row.expected) << &row - table;
  }
}

TEST_F(RegistryFile, TakesAbsoluteAndClimbingNames) {
  ObjectFileWriter writer = Writer("stdeq/misc");
  ASSERT_EQ(Publish(writer, 9), 0);
  EXPECT_EQ(Value(registry_.Path("stdeq/misc")), 9);
  EXPECT_EQ(Value("../../spool/registry/stdeq/misc"), 9);
  EXPECT_EQ(Value("../stdeq/misc"), -1);
}

TEST_F(RegistryFile, IsReadableByEverybodyWhateverTheUmask) {
  fs::remove_all(registry_.root());
  const mode_t mask = umask(077);
  ObjectFileWriter writer = Writer("a/b/c");
  EXPECT_EQ(Publish(writer, 1), 0);
  umask(mask);
  struct stat st;
  ASSERT_EQ(stat(registry_.Path("a/b/c").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  for (const char *directory : {"", "a", "a/b"}) {
    ASSERT_EQ(stat(registry_.Path(directory).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u) << directory;
  }
}

TEST_F(RegistryFile, CutAtEveryLengthReadsAsAbsentOrAnOlderState) {
  for (int states = 1; states <= 3; states++) {
    ObjectFileWriter writer = Writer("stdeq/misc");
    for (int n = 1; n <= states; n++) {
      ASSERT_EQ(Publish(writer, static_cast<uint8_t>(n)), 0);
    }
    const std::vector<uint8_t> whole = ReadBytes(registry_.Path("stdeq/misc"));
    int older = 0;
    for (size_t length = 0; length < whole.size(); length++) {
      WriteBytes(registry_.Path("stdeq/misc"), {whole.begin(), whole.begin() + length});
      const int value = Value("stdeq/misc");
      // Slot 0 holds the odd states.
      EXPECT_TRUE(value == -1 || value == (states == 2 ? 1 : states)) << length << ": " << value;
      older += value != -1;
    }
    EXPECT_GT(older, 0);
    WriteBytes(registry_.Path("stdeq/misc"), whole);
    EXPECT_EQ(Value("stdeq/misc"), states);
    std::vector<uint8_t> longer = whole;
    longer.push_back(0);
    WriteBytes(registry_.Path("stdeq/misc"), longer);
    EXPECT_EQ(Value("stdeq/misc"), -1);
    printf("%zu malformed\n", whole.size() + 1);
    fs::remove(registry_.Path("stdeq/misc"));
  }
}

TEST_F(RegistryFile, AnyChangedBitReadsAsAbsentOrTheOlderState) {
  ObjectFileWriter writer = Writer("stdeq/misc");
  ASSERT_EQ(Publish(writer, 1), 0);
  ASSERT_EQ(Publish(writer, 2), 0);
  const std::vector<uint8_t> whole = ReadBytes(registry_.Path("stdeq/misc"));
  for (size_t bit = 0; bit < 8 * whole.size(); bit++) {
    std::vector<uint8_t> bytes = whole;
    bytes[bit / 8] ^= static_cast<uint8_t>(1 << (bit % 8));
    WriteBytes(registry_.Path("stdeq/misc"), bytes);
    const int value = Value("stdeq/misc");
    EXPECT_TRUE(value == -1 || value == 1 || value == 2) << "bit " << bit << ": " << value;
  }
  printf("%zu malformed\n", 8 * whole.size());
}

TEST_F(RegistryFile, RandomBytesBehindTheMagicReadAsAbsent) {
  ObjectFileWriter writer = Writer("stdeq/misc");
  ASSERT_EQ(Publish(writer, 1), 0);
  const std::vector<uint8_t> whole = ReadBytes(registry_.Path("stdeq/misc"));
  std::mt19937 random(7);
  constexpr int kTries = 2000;
  for (int i = 0; i < kTries; i++) {
    std::vector<uint8_t> bytes(12 + random() % 400);
    for (uint8_t &b : bytes) {
      b = static_cast<uint8_t>(random());
    }
    std::copy_n(whole.begin(), i % 2 == 0 ? 12 : 8, bytes.begin());
    WriteBytes(registry_.Path("stdeq/misc"), bytes);
    EXPECT_EQ(Value("stdeq/misc"), -1);
  }
  printf("%d malformed\n", kTries);
}

// Somebody who can write the file can make its checksums right as well: each offset and size is
// looked at all the same. Slot 0 stays the whole state that it is.
class LyingFile : public RegistryFile {
 protected:
  void SetUp() override {
    ObjectFileWriter writer = Writer("stdeq/misc");
    ASSERT_EQ(Publish(writer, 1), 0);
    whole_ = ReadBytes(registry_.Path("stdeq/misc"));
    header_ = Load<FileHeader>(whole_.data());
    for (size_t i = 0; i < 3; i++) {
      table_[i] = Load<FileDescriptor>(&whole_[Entry(i)]);
    }
  }
  static size_t Entry(size_t i) {
    return sizeof(FileHeader) + i * sizeof(FileDescriptor);
  }

  // The file with this header, these descriptors and this length of the second variable, and
  // checksums that fit.
  int Value(FileHeader header, const FileDescriptor (&table)[3], char name_begins = 'e',
            uint16_t length = 33) {
    std::vector<uint8_t> bytes = whole_;
    for (size_t i = 0; i < 3; i++) {
      Store(&bytes[Entry(i)], table[i]);
    }
    bytes[Entry(3)] = static_cast<uint8_t>(name_begins);
    header.checksum = 0;
    Store(bytes.data(), header);
    header.checksum = RegistryChecksum(bytes.data(), header_.slots_offset, 0);
    Store(bytes.data(), header);
    uint8_t *slot = &bytes[header_.slots_offset];
    uint8_t *lengths = slot + sizeof(SlotHeader);
    Store(lengths + 2, length);
    auto stamp = Load<SlotHeader>(slot);
    stamp.checksum = 0;
    Store(slot, stamp);
    const uint64_t stamped = RegistryChecksum(slot, sizeof(SlotHeader), header.checksum);
    stamp.checksum = RegistryChecksum(lengths, header_.slot_size - sizeof(SlotHeader), stamped);
    Store(slot, stamp);
    WriteBytes(registry_.Path("stdeq/misc"), bytes);
    return RegistryFile::Value("stdeq/misc");
  }

  std::vector<uint8_t> whole_;
  FileHeader header_ = {};
  FileDescriptor table_[3] = {};
};

TEST_F(LyingFile, IsReadWhereItDoesNotLie) {
  EXPECT_EQ(Value(header_, table_), 1);
  EXPECT_EQ(Value(header_, table_, 'E'), 1);
  EXPECT_EQ(Value(header_, table_, '\0'), -1) << "a name that ends before its length";
  EXPECT_EQ(Value(header_, table_, 'e', 34), -1) << "a value that is longer than its variable";
}

TEST_F(LyingFile, NoSizeOfTheHeaderIsBelieved) {
  const std::function<void(FileHeader &)> kLies[] = {
      [](FileHeader &h) { h.magic[7] = '\r'; },
      [](FileHeader &h) { h.version = 2; },
      [](FileHeader &h) { h.var_count = kMaxVariables + 1; },
      [](FileHeader &h) { h.var_count = UINT32_MAX; },
      [](FileHeader &h) { h.data_size = kMaxData + 1; },
      [](FileHeader &h) { h.data_size = UINT32_MAX; },
      [](FileHeader &h) { h.names_size = kMaxFile + 1; },
      [](FileHeader &h) { h.names_size = UINT32_MAX; },
      [](FileHeader &h) { h.names_size += 8; },
      [](FileHeader &h) { h.slots_offset += 8; },
      // Which fit each other, and end behind the file.
      [](FileHeader &h) { h.names_size += kMaxFile / 2, h.slots_offset += kMaxFile / 2; },
      [](FileHeader &h) { h.slots_offset = UINT32_MAX; },
      [](FileHeader &h) { h.slot_size -= 8; },
      [](FileHeader &h) { h.slot_size += 8; },
      [](FileHeader &h) { h.slot_size = UINT32_MAX; },
  };
  for (const auto &lie : kLies) {
    FileHeader header = header_;
    lie(header);
    EXPECT_EQ(Value(header, table_), -1) << "lie " << &lie - kLies;
  }
  printf("%zu malformed\n", std::size(kLies));
}

TEST_F(LyingFile, NoDescriptorIsBelieved) {
  const std::function<void(FileDescriptor &)> kLies[] = {
      [](FileDescriptor &d) { d.offset = kDataSize + 1; },
      [](FileDescriptor &d) { d.offset = kDataSize - d.size + 1; },
      [](FileDescriptor &d) { d.offset = UINT32_MAX; },
      [](FileDescriptor &d) { d.size = kDataSize + 1; },
      [](FileDescriptor &d) { d.size = UINT32_MAX; },
      [](FileDescriptor &d) { d.name_length = kMaxVariableName + 1; },
      [](FileDescriptor &d) { d.name_length = UINT16_MAX; },
      [this](FileDescriptor &d) { d.name_offset = header_.names_size + 1; },
      [this](FileDescriptor &d) { d.name_offset = header_.names_size - d.name_length + 1; },
      [](FileDescriptor &d) { d.name_offset = UINT32_MAX; },
      [](FileDescriptor &d) { d.type = 4; },
      [](FileDescriptor &d) { d.type = UINT8_MAX; },
      // No longer an integer's size, and none for a slot without a variable.
      [](FileDescriptor &d) { d.type = 1, d.size = 5; },
      [](FileDescriptor &d) { d.type = 0; },
  };
  for (size_t i = 0; i < 3; i++) {
    for (const auto &lie : kLies) {
      FileDescriptor table[3];
      std::copy_n(table_, 3, table);
      lie(table[i]);
      EXPECT_EQ(Value(header_, table), -1) << "variable " << i << ", lie " << &lie - kLies;
    }
  }
  printf("%zu malformed\n", 3 * std::size(kLies));
}

TEST_F(RegistryFile, OnlyRegularFilesBelowTheRootAreRead) {
  ObjectFileWriter writer = Writer("host/real");
  ASSERT_EQ(Publish(writer, 1), 0);
  fs::create_symlink("real", registry_.Path("host/link"));
  EXPECT_FALSE(Read("host/link"));
  fs::create_directory_symlink("host", registry_.Path("alias"));
  EXPECT_FALSE(Read("alias/real"));
  ASSERT_EQ(mkfifo(registry_.Path("host/fifo").c_str(), 0600), 0);
  EXPECT_FALSE(Read("host/fifo"));  // and does not wait for a writer
  EXPECT_FALSE(Read("host"));
  EXPECT_FALSE(Read("host/real/x"));
  EXPECT_FALSE(Read("nowhere/x"));
  // Too large to be an object, whatever it begins with.
  fs::copy_file(registry_.Path("host/real"), registry_.Path("host/large"));
  ASSERT_EQ(truncate(registry_.Path("host/large").c_str(), (4 << 20) + 1), 0);
  EXPECT_FALSE(Read("host/large"));
  EXPECT_EQ(Value("host/real"), 1);
}

TEST_F(RegistryFile, TheRootItselfMayBeReachedThroughALink) {
  fs::create_directory_symlink(registry_.root(), registry_.base() + "/alias");
  ObjectFileWriter writer("host/a", registry_.base() + "/alias");
  writer.SetLayout(ThreeVariables(), kDataSize);
  ASSERT_EQ(Publish(writer, 3), 0);
  EXPECT_EQ(Value("host/a"), 3);
}

TEST_F(RegistryFile, AnotherUsersLinkOnTheWayToTheRootIsNotFollowed) {
  Writer("host/a");
  const std::string alias = registry_.base() + "/alias";
  fs::create_directory_symlink(registry_.root(), alias);
  ASSERT_EQ(lchown(alias.c_str(), 1000, 1000), 0);
  for (const bool create : {false, true}) {
    for (const std::string &root : {alias, alias + "/host", alias + "/new/root"}) {
      EXPECT_FALSE(Descriptor(OpenRegistryRoot(root, create))) << root;
      EXPECT_EQ(errno, ELOOP);
    }
  }
  EXPECT_FALSE(fs::exists(registry_.root() + "/new"));
  EXPECT_FALSE(ReadObjectFile("host/a", alias));
}

TEST_F(RegistryFile, WritersDoNotFollowLinksEither) {
  ObjectFileWriter victim = Writer("host/victim");
  ASSERT_EQ(Publish(victim, 1), 0);
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 2), 0);
  fs::remove(registry_.Path("host/a"));
  fs::create_symlink("victim", registry_.Path("host/a"));
  ASSERT_EQ(Publish(writer, 3), 0);
  EXPECT_EQ(Value("host/victim"), 1);
  EXPECT_EQ(Value("host/a"), 3);
  EXPECT_FALSE(fs::is_symlink(registry_.Path("host/a")));

  fs::create_directory(registry_.base() + "/outside");
  fs::create_directory_symlink(registry_.base() + "/outside", registry_.Path("sub"));
  ObjectFileWriter through = Writer("sub/a");
  EXPECT_EQ(Publish(through, 4), -1);
  EXPECT_TRUE(fs::is_empty(registry_.base() + "/outside"));
}

TEST_F(RegistryFile, AppearsAgainWhateverHappenedToTheFile) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  fs::remove(registry_.Path("host/a"));
  ASSERT_EQ(Publish(writer, 2), 0);
  EXPECT_EQ(Value("host/a"), 2);
  fs::remove_all(registry_.Path("host"));
  ASSERT_EQ(Publish(writer, 3), 0);
  EXPECT_EQ(Value("host/a"), 3);
  // The root is the directory that was opened, until somebody finds that its path leads elsewhere.
  fs::remove_all(registry_.root());
  EXPECT_EQ(Publish(writer, 4), -1);
  RootOf(registry_.root()).Hold(Descriptor(OpenRegistryRoot(registry_.root(), true)));
  ASSERT_EQ(Publish(writer, 4), 0);
  EXPECT_EQ(Value("host/a"), 4);
  ASSERT_EQ(truncate(registry_.Path("host/a").c_str(), 10), 0);
  ASSERT_EQ(Publish(writer, 5), 0);
  EXPECT_EQ(Value("host/a"), 5);
  // Another agent puts its own there, of another layout, also under the inode number of ours.
  for (const bool unlink_first : {false, true}) {
    if (unlink_first) {
      fs::remove(registry_.Path("host/a"));
    }
    ObjectFileWriter other("host/a", registry_.root());
    other.SetLayout({{"x", 1, 2, 4, 0, 4}}, 4);
    const uint16_t length = 4;
    ASSERT_EQ(other.Publish(reinterpret_cast<const uint8_t *>("abcd"), &length), 0);
    ASSERT_EQ(Publish(writer, 6), 0);
    EXPECT_EQ(Value("host/a"), 6);
  }
  // Its sequence goes on over all this.
  EXPECT_EQ(Read("host/a")->sequence, 8u);
  fs::remove(registry_.Path("host/a"));
  fs::create_directory(registry_.Path("host/a"));
  EXPECT_EQ(Publish(writer, 8), -1);
  fs::remove(registry_.Path("host/a"));
  EXPECT_EQ(Publish(writer, 9), 0);
  EXPECT_EQ(Value("host/a"), 9);
  EXPECT_EQ(std::distance(fs::directory_iterator(registry_.Path("host")), {}), 1);
}

// What Check() says of a file of the directory host.
class CheckedFile : public RegistryFile {
 protected:
  CheckedFile() : writer_(Writer("host/a")) {
    EXPECT_EQ(Publish(writer_, 1), 0);
  }
  FileState Check(bool read_back) {
    const Descriptor root(OpenRegistryRoot(registry_.root(), false));
    EXPECT_EQ(writer_.Directory(), "host");
    const Descriptor directory(OpenBeneath(root.get(), "host", O_PATH | O_DIRECTORY));
    return writer_.Check(directory.get(), read_back);
  }
  std::string Path() {
    return registry_.Path("host/a");
  }
  // The clock by which files are stamped has ticked: a later change shows.
  void WaitForATick() {
    const std::string probe = registry_.base() + "/tick";
    struct stat file;
    struct stat now;
    ASSERT_EQ(stat(Path().c_str(), &file), 0);
    do {
      WriteBytes(probe, {'x'});
      ASSERT_EQ(stat(probe.c_str(), &now), 0);
    } while (now.st_ctim.tv_sec == file.st_ctim.tv_sec &&
             now.st_ctim.tv_nsec == file.st_ctim.tv_nsec);
  }

  ObjectFileWriter writer_;
};

TEST_F(CheckedFile, IsIntactAsLongAsNobodyTouchesIt) {
  for (const bool read_back : {false, true}) {
    EXPECT_EQ(Check(read_back), FileState::kIntact);
    ASSERT_EQ(Publish(writer_, 2), 0);
    ASSERT_EQ(Publish(writer_, 3), 0);
    EXPECT_EQ(Check(read_back), FileState::kIntact);
  }
  // Touched, and with the same content.
  WaitForATick();
  WriteBytes(Path(), ReadBytes(Path()));
  EXPECT_EQ(Check(false), FileState::kIntact);
  EXPECT_EQ(Check(true), FileState::kIntact);
}

TEST_F(CheckedFile, IsLostWhateverBecameOfIt) {
  const std::vector<uint8_t> whole = ReadBytes(Path());
  ObjectFileWriter other = Writer("host/b");
  const std::function<void()> harm[] = {
      [&] { fs::remove(Path()); },
      [&] { ASSERT_EQ(truncate(Path().c_str(), 0), 0); },
      [&] { ASSERT_EQ(truncate(Path().c_str(), static_cast<off_t>(whole.size() - 1)), 0); },
      [&] { WriteBytes(Path(), std::vector<uint8_t>(whole.size(), 'x')); },
      [&] {
        std::vector<uint8_t> one_bit = ReadBytes(Path());
        one_bit[whole.size() / 2] ^= 1;
        WriteBytes(Path(), one_bit);
      },
      [&] {
        std::vector<uint8_t> header = ReadBytes(Path());
        header[9] ^= 1;
        WriteBytes(Path(), header);
      },
      [&] {
        fs::copy_file(Path(), registry_.Path("host/copy"));
        fs::rename(registry_.Path("host/copy"), Path());
      },
      [&] { fs::permissions(Path(), fs::perms::owner_read); },
      [&] {
        fs::remove(Path());
        fs::create_directory(Path());
      },
      [&] {
        fs::create_symlink("b", registry_.Path("host/link"));
        fs::rename(registry_.Path("host/link"), Path());
      },
      [&] { WriteBytes(Path(), whole); },  // an older state of it
  };
  uint8_t n = 1;
  for (size_t i = 0; i < std::size(harm); i++) {
    ASSERT_EQ(Publish(writer_, ++n), 0) << i;
    ASSERT_EQ(Check(false), FileState::kIntact) << i;
    WaitForATick();
    harm[i]();
    EXPECT_EQ(Check(false), FileState::kLost) << i;
    if (fs::is_directory(fs::symlink_status(Path()))) {
      EXPECT_EQ(Publish(writer_, n), -1);
      fs::remove(Path());
    }
    // The next publication makes it good, and then it is as any other.
    ASSERT_EQ(Publish(writer_, ++n), 0) << i;
    EXPECT_EQ(Value("host/a"), n) << i;
    EXPECT_EQ(Check(true), FileState::kIntact) << i;
    EXPECT_EQ(fs::status(Path()).permissions(), fs::perms(0644)) << i;
  }
}

TEST_F(CheckedFile, AnotherObjectsWholeStateInItIsLost) {
  ObjectFileWriter other = Writer("host/b");
  ASSERT_EQ(Publish(other, 1), 0);
  WaitForATick();
  WriteBytes(Path(), ReadBytes(registry_.Path("host/b")));
  EXPECT_EQ(Check(false), FileState::kLost);
}

TEST_F(CheckedFile, AChangeWithinTheSameTickShowsWhenItIsRead) {
  std::vector<uint8_t> bytes = ReadBytes(Path());
  bytes[bytes.size() / 2 - 20] ^= 1;
  ASSERT_EQ(Publish(writer_, 2), 0);
  WriteBytes(Path(), bytes);
  EXPECT_EQ(Check(true), FileState::kLost);
}

TEST_F(CheckedFile, AnotherOneInItsPlaceIsNotRemoved) {
  const std::vector<uint8_t> bytes = ReadBytes(Path());
  WaitForATick();  // the other one is born later, if with the same inode number
  fs::remove(Path());
  WriteBytes(Path(), bytes);
  EXPECT_EQ(writer_.Remove(), 0);
  EXPECT_EQ(ReadBytes(Path()), bytes);
  EXPECT_EQ(RemoveObjectFile("host/a", registry_.root()), 0) << "whoever made it";
  EXPECT_FALSE(fs::exists(Path()));
  EXPECT_EQ(RemoveObjectFile("host/a", registry_.root()), 0);
}

// A process may have died between making a directory and giving it its mode.
TEST_F(RegistryFile, ADirectoryWithoutItsModeGetsIt) {
  fs::remove_all(registry_.base() + "/spool");
  const mode_t old = umask(077);
  fs::create_directories(registry_.Path("host"));
  ObjectFileWriter writer = Writer("host/a");
  EXPECT_EQ(Publish(writer, 1), 0);
  umask(old);
  const auto mode = [](const std::string &path) { return fs::status(path).permissions(); };
  EXPECT_EQ(mode(registry_.root()), fs::perms(0755));
  EXPECT_EQ(mode(registry_.base() + "/spool"), fs::perms(0700)) << "it has something in it";
  fs::permissions(registry_.Path("host"), fs::perms(0700));
  ObjectFileWriter other = Writer("host/sub/b");
  EXPECT_EQ(Publish(other, 1), 0);
  EXPECT_EQ(mode(registry_.Path("host")), fs::perms(0755));
  fs::permissions(registry_.Path("host"), fs::perms(01777));
  ObjectFileWriter third = Writer("host/third/c");
  EXPECT_EQ(Publish(third, 1), 0);
  EXPECT_EQ(mode(registry_.Path("host")), fs::perms(01777)) << "more is the administrator's choice";
  // Above the root, one that is still empty.
  fs::remove_all(registry_.base() + "/spool");
  fs::create_directory(registry_.base() + "/spool");
  fs::permissions(registry_.base() + "/spool", fs::perms(0700));
  const Descriptor root(OpenRegistryRoot(registry_.root(), true));
  EXPECT_TRUE(root);
  EXPECT_EQ(mode(registry_.base() + "/spool"), fs::perms(0755));
}

TEST(DirectoryLock, ReadsTheTableOfLocks) {
  constexpr char kLocks[] =
      "1: POSIX  ADVISORY  WRITE 11 08:01:4711 0 EOF\n"
      "2: FLOCK  ADVISORY  READ 12 08:01:4713 0 EOF\n"
      "3: FLOCK  ADVISORY  WRITE 13 08:02:4711 0 EOF\n"
      "4: FLOCK  ADVISORY  WRITE 14 fd:1a:4711 0 EOF\n"
      "4: -> FLOCK  ADVISORY  WRITE 15 08:01:4711 0 EOF\n"
      "5: FLOCK  ADVISORY  WRITE 0 08:01:4711 0 EOF\n"
      "6: FLOCK  ADVISORY  WRITE -1 08:01:4711 0 EOF\n"
      "7: FLOCK  ADVISORY  WRITE 812 08:01:4711 0 EOF\n"
      "8: FLOCK  ADVISORY  WRITE";
  EXPECT_EQ(LockHolderIn(kLocks, makedev(8, 1), 4711), 812);
  EXPECT_EQ(LockHolderIn(kLocks, makedev(0xfd, 0x1a), 4711), 14);
  EXPECT_EQ(LockHolderIn(kLocks, makedev(8, 1), 4713), 12) << "a shared one keeps us away, too";
  EXPECT_EQ(LockHolderIn(kLocks, makedev(8, 1), 4712), std::nullopt);
  EXPECT_EQ(LockHolderIn("", makedev(8, 1), 4711), std::nullopt);
}

// Another kernel may write it otherwise; then nobody is known to hold the lock.
TEST(DirectoryLock, AChangedTableOfLocksHasAHolderOrNone) {
  const std::string whole =
      "1: POSIX  ADVISORY  WRITE 11 08:01:4711 0 EOF\n"
      "2: FLOCK  ADVISORY  WRITE 812 08:01:4711 0 EOF\n"
      "2: -> FLOCK  ADVISORY  WRITE 15 08:01:4711 0 EOF\n";
  std::mt19937 random(3);
  constexpr int kTries = 20000;
  int found = 0;
  for (int i = 0; i < kTries; i++) {
    std::string text = whole.substr(0, i % 4 == 0 ? random() % whole.size() : whole.npos);
    for (int change = 0; change < 4 && !text.empty(); change++) {
      text[random() % text.size()] = static_cast<char>(random());
    }
    const auto holder = LockHolderIn(text, makedev(8, 1), 4711);
    EXPECT_TRUE(!holder || *holder > 0) << *holder;
    found += holder.has_value();
  }
  EXPECT_GT(found, 0);
  EXPECT_LT(found, kTries);
  printf("%d malformed\n", kTries);
}

TEST_F(RegistryFile, TheHolderOfALockIsTold) {
  const Descriptor fd(open(registry_.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(LockHolder(fd.get()), std::nullopt);
  ASSERT_EQ(flock(fd.get(), LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(LockHolder(fd.get()), getpid());
}

TEST_F(RegistryFile, AChangedLayoutReplacesTheFile) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  struct stat first;
  struct stat second;
  ASSERT_EQ(stat(registry_.Path("host/a").c_str(), &first), 0);
  writer.SetLayout(ThreeVariables(), kDataSize);  // the same again
  ASSERT_EQ(Publish(writer, 2), 0);
  ASSERT_EQ(stat(registry_.Path("host/a").c_str(), &second), 0);
  EXPECT_EQ(first.st_ino, second.st_ino);
  writer.SetLayout({{"other", 1, 2, 4, 0, 4}}, kDataSize);
  const uint16_t length = 4;
  ASSERT_EQ(writer.Publish(State(3).data(), &length), 0);
  const std::optional<FileObject> object = Read("host/a");
  ASSERT_TRUE(object);
  ASSERT_EQ(object->variables.size(), 1u);
  EXPECT_EQ(object->variables[0].name, "other");
  EXPECT_EQ(object->data, State(3));
}

TEST_F(RegistryFile, RemoveIsQuietWhenThereIsNothing) {
  ObjectFileWriter writer = Writer("host/a");
  EXPECT_EQ(writer.Remove(), 0);
  ASSERT_EQ(Publish(writer, 1), 0);
  EXPECT_EQ(writer.Remove(), 0);
  EXPECT_FALSE(fs::exists(registry_.Path("host/a")));
  EXPECT_EQ(writer.Remove(), 0);
  ASSERT_EQ(Publish(writer, 2), 0);
  EXPECT_EQ(Value("host/a"), 2);
  fs::remove_all(registry_.root());
  EXPECT_EQ(writer.Remove(), 0);
}

TEST_F(RegistryFile, AFullDiskLeavesTheStateBefore) {
  ObjectFileWriter writer = Writer("host/a");
  ASSERT_EQ(Publish(writer, 1), 0);
  ASSERT_EQ(Publish(writer, 2), 0);
  ASSERT_EQ(Publish(writer, 3), 0);
  // The next goes to slot 1, which then no longer fits wholly.
  rlimit old;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  auto *const handler = signal(SIGXFSZ, SIG_IGN);
  rlimit less = old;
  less.rlim_cur = static_cast<rlim_t>(fs::file_size(registry_.Path("host/a")) - 20);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &less), 0);
  const int result = Publish(writer, 4);
  const int second = Publish(writer, 5);
  less.rlim_cur = 0;
  setrlimit(RLIMIT_FSIZE, &less);
  ObjectFileWriter fresh = Writer("host/fresh");
  const int third = Publish(fresh, 1);
  setrlimit(RLIMIT_FSIZE, &old);
  signal(SIGXFSZ, handler);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(second, -1);
  EXPECT_EQ(third, -1);
  EXPECT_EQ(Value("host/a"), 3);
  EXPECT_FALSE(fs::exists(registry_.Path("host/fresh")));
  EXPECT_EQ(std::distance(fs::directory_iterator(registry_.Path("host")), {}), 1);
  ASSERT_EQ(Publish(writer, 6), 0);
  EXPECT_EQ(Value("host/a"), 6);
}

TEST_F(RegistryFile, TooLargeIsRefused) {
  ObjectFileWriter writer("host/a", registry_.root());
  writer.SetLayout({}, (1 << 20) + 1);
  const std::vector<uint8_t> data((1 << 20) + 1);
  EXPECT_EQ(writer.Publish(data.data(), nullptr), -1);
  EXPECT_EQ(errno, EFBIG);
  writer.SetLayout({}, 1 << 20);
  EXPECT_EQ(writer.Publish(data.data(), nullptr), 0);
  EXPECT_TRUE(Read("host/a"));
}

TEST_F(RegistryFile, ManyWritersShareOneDescriptor) {
  auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  std::vector<ObjectFileWriter> writers;
  for (int i = 0; i < 300; i++) {
    writers.push_back(Writer("host/row." + std::to_string(i)));
  }
  ASSERT_EQ(Publish(writers[0], 1), 0);
  const auto before = descriptors();
  for (ObjectFileWriter &writer : writers) {
    ASSERT_EQ(Publish(writer, 1), 0);
    ASSERT_EQ(Publish(writer, 2), 0);
  }
  EXPECT_EQ(descriptors(), before);
}

TEST_F(RegistryFile, ListsObjectsInOrderAndNothingElse) {
  for (const char *name :
       {"host/cpu.10", "host/cpu.2", "host/cpu.1", "host/memory", "a", "stdeq/misc"}) {
    ObjectFileWriter writer = Writer(name);
    ASSERT_EQ(Publish(writer, 1), 0);
  }
  WriteBytes(registry_.Path("role.dat"), {'w', 'e', 'b', ' ', 's', 'e', 'r', 'v', 'e', 'r'});
  WriteBytes(registry_.Path("short.dat"), {'x'});
  fs::copy_file(registry_.Path("a"), registry_.Path("host/.a.123"));
  fs::create_symlink("cpu.1", registry_.Path("host/link"));
  ASSERT_EQ(mkfifo(registry_.Path("host/fifo").c_str(), 0600), 0);
  fs::create_directory_symlink("host", registry_.Path("alias"));
  EXPECT_EQ(ListObjects(registry_.root()),
            (std::vector<std::string>{"a", "host/cpu.1", "host/cpu.2", "host/cpu.10", "host/memory",
                                      "stdeq/misc"}));
  EXPECT_TRUE(ListObjects(registry_.base() + "/nowhere").empty());
}

TEST_F(RegistryFile, ReadsTheObjectsOfADirectoryAtOnce) {
  for (const char *name : {"host/cpu.10", "host/cpu.2", "host/deeper/cpu.1", "stdeq/misc"}) {
    ObjectFileWriter writer = Writer(name);
    ASSERT_EQ(Publish(writer, 1), 0);
  }
  // More than fits into the first read.
  constexpr size_t kManyWords = 4096;
  ObjectFileWriter large("host/large", registry_.root());
  large.SetLayout({{"count", 3, 2, 8, 0, 8}}, 8 * kManyWords);
  const std::vector<uint8_t> data(8 * kManyWords, 'x');
  const uint16_t length = 8;
  ASSERT_EQ(large.Publish(data.data(), &length), 0);
  // Damaged; no objects; what is no file.
  fs::copy_file(registry_.Path("host/cpu.2"), registry_.Path("host/damaged"));
  fs::resize_file(registry_.Path("host/damaged"), 60);
  WriteBytes(registry_.Path("host/empty"), {});
  WriteBytes(registry_.Path("host/note"), {'r', 'o', 'l', 'e'});
  fs::copy_file(registry_.Path("host/cpu.2"), registry_.Path("host/.cpu.2.17"));
  fs::create_symlink("cpu.2", registry_.Path("host/link"));
  ASSERT_EQ(mkfifo(registry_.Path("host/fifo").c_str(), 0600), 0);

  std::vector<std::string> seen;
  for (const NamedFile &file : ReadObjectsOf("host", registry_.root())) {
    seen.push_back(file.name + (file.object ? "" : " damaged"));
    if (file.object) {
      const auto same = ReadObjectFile(file.name, registry_.root());
      ASSERT_TRUE(same);
      EXPECT_EQ(file.object->data, same->data) << file.name;
      EXPECT_EQ(file.object->sequence, same->sequence);
      EXPECT_EQ(file.object->variables.size(), same->variables.size());
    }
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"host/cpu.2", "host/cpu.10", "host/damaged damaged",
                                            "host/large"}));
  EXPECT_TRUE(ReadObjectsOf("nowhere", registry_.root()).empty());
  EXPECT_TRUE(ReadObjectsOf("host", registry_.base() + "/nowhere").empty());
}

// ---- Readers beside a writer in another process -------------------------------------------------

// Data large enough for an update to be caught half way: a counter, repeated.
constexpr size_t kWords = 4096;

std::vector<uint8_t> Counter(uint64_t n) {
  std::vector<uint8_t> data(8 * kWords);
  for (size_t i = 0; i < kWords; i++) {
    memcpy(&data[8 * i], &n, 8);
  }
  return data;
}

// Publishes one state after the other, from the one after that in the file, until it is killed.
[[noreturn]] void PublishForever(const std::string &root) {
  uint64_t n = 0;
  if (const std::optional<FileObject> last = ReadObjectFile("host/count", root)) {
    memcpy(&n, last->data.data(), 8);
  }
  ObjectFileWriter writer("host/count", root);
  writer.SetLayout({{"count", 3, 2, 8, 0, 8}}, 8 * kWords);
  const uint16_t length = 8;
  for (;;) {
    n++;
    if (writer.Publish(Counter(n).data(), &length) != 0) {
      _exit(1);
    }
  }
}

// Reads the counter; checks that it is whole and not before `last`.
uint64_t Watch(const std::string &root, uint64_t last) {
  const std::optional<FileObject> object = ReadObjectFile("host/count", root);
  if (!object) {
    EXPECT_EQ(last, 0u) << "it was there";
    return last;
  }
  uint64_t n = 0;
  memcpy(&n, object->data.data(), 8);
  EXPECT_EQ(object->data, Counter(n)) << "a mixture";
  EXPECT_GE(n, last) << "backwards";
  return n;
}

TEST(RegistryFileProcess, AReaderNeverSeesAMixtureOrGoesBackwards) {
  TempRegistry registry;
  const pid_t writer = fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    PublishForever(registry.root());
  }
  uint64_t last = 0;
  timespec begin;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &begin);
  do {
    last = Watch(registry.root(), last);
    clock_gettime(CLOCK_MONOTONIC, &now);
    // On a busy machine the writer may take longer than two seconds for its thousand.
  } while (now.tv_sec - begin.tv_sec < (last > 1000 ? 2 : 60) && !testing::Test::HasFailure());
  kill(writer, SIGKILL);
  int status;
  ASSERT_EQ(waitpid(writer, &status, 0), writer);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_GT(last, 1000u);
}

// VEX_PUBLICATIONS: about so many in all (scripts/proof).
TEST(RegistryFileProcess, AWriterKilledAThousandTimesLeavesAWholeState) {
  const char *text = getenv("VEX_PUBLICATIONS");
  const uint64_t each = text != nullptr ? strtoull(text, nullptr, 10) / 1000 : 0;
  TempRegistry registry;
  std::mt19937 random(42);
  uint64_t last = 0;
  // A thousand times, and on until there was enough to see: a busy machine kills some at once.
  int kills = 0;
  for (int round = 0; (round < 1000 || (last <= 1000 && round < 20'000)) && !HasFailure();
       round++) {
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      PublishForever(registry.root());
    }
    // Killed at any moment, from before its first publication on, while we read.
    const long until_ns = static_cast<long>(random() % 2'000'000);
    const uint64_t until = last + random() % (2 * each + 1);
    timespec begin;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &begin);
    do {
      last = Watch(registry.root(), last);
      clock_gettime(CLOCK_MONOTONIC, &now);
    } while ((now.tv_sec - begin.tv_sec) * 1'000'000'000 + now.tv_nsec - begin.tv_nsec < until_ns ||
             last < until);
    kill(writer, SIGKILL);
    kills++;
    int status;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFSIGNALED(status));
    last = Watch(registry.root(), last);
  }
  printf("%d kills in %llu publications\n", kills, static_cast<unsigned long long>(last));
  EXPECT_GT(last, 1000u);
}

}  // namespace
}  // namespace vex
