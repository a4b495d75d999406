// What passes between the agent and its SNMP process, and what is made of it when it is none of
// that.
#include "framework/snmp/snmp_wire.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <thread>

#include "framework/snmp/image_ring.h"
#include "framework/snmp/snmp_starter.h"
#include "platform/framework.h"
#include "tests/support/failing_call.h"
#include "tests/unit/framework/made_image.h"

namespace vex::snmp_wire_test {
namespace {

constexpr char kNumber[] = "tlxHoOsCommonPollFreq";
constexpr char kText[] = "tlxHoSystemRole";
constexpr char kReadOnly[] = "tlxHoSwVerNextIndex";
constexpr char kColumn[] = "tlxHoSwVerName";

// What takes one kind of frame.
template <typename Value>
bool TakeFrom(std::string_view bytes, Value *value) {
  FrameReader reader(bytes);
  reader.Take<FrameType>();
  return Take(&reader, value);
}

// The frame comes through; cut anywhere, or with more behind it, it does not.
template <typename Value>
void ExpectWholeOrNothing(const FrameWriter &frame) {
  Value value;
  EXPECT_TRUE(TakeFrom(frame.Bytes(), &value));
  for (size_t length = 0; length < frame.Bytes().size(); length++) {
    Value cut;
    EXPECT_FALSE(TakeFrom(std::string_view(frame.Bytes()).substr(0, length), &cut)) << length;
  }
  Value more;
  EXPECT_FALSE(TakeFrom(frame.Bytes() + "x", &more));
}

Notification SomeNotification() {
  Notification notification;
  notification.number = 11003;
  notification.description = "described";
  notification.variables = {{FindMibVariable(kColumn), 7, {'a', 'b'}},
                            {FindMibVariable(kNumber), 0, {1, 2, 3, 4}}};
  return notification;
}

std::vector<SetItem> SomeItems() {
  return {{5, 0, {1, 0, 0, 0}, 4}, {5, 1, {'x', 0}, 1}};
}

}  // namespace

// One call that fails for a moment must not be taken for a reason to stay one process.
TEST(SnmpStarter, TellsWhatItCannotTellFromThreads) {
  bool possible = false;
  ASSERT_TRUE(SnmpStarter::Possible(&possible));
  EXPECT_TRUE(possible);
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none = {0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const bool told = SnmpStarter::Possible(&possible);
  const int error = errno;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_FALSE(told);
  EXPECT_EQ(error, EMFILE);
}

TEST(SnmpStarter, WaitsForAThreadThatEndsAndForNoOther) {
  bool possible = true;
  std::atomic<bool> end{false};
  std::thread other([&end] {
    while (!end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  EXPECT_TRUE(SnmpStarter::Possible(&possible));
  EXPECT_FALSE(possible);
  end = true;
  other.join();
  // Without a /proc, or one that shows nothing, nobody can tell; a list that breaks off is none.
  const struct {
    const char *function;
    int error;
    bool told;
  } cases[] = {{"opendir", ENOENT, true}, {"readdir", 0, true}, {"readdir", EIO, false}};
  for (const auto &[function, error, told] : cases) {
    possible = true;
    const FailingCall failing(function, error, 1, FailingCall::kAll);
    EXPECT_EQ(SnmpStarter::Possible(&possible), told) << function << error;
    EXPECT_FALSE(possible) << function << error;
  }
  // As a thread that has ended a moment ago: it is not there at the second look.
  const FailingCall failing("opendir", ENOENT, 1, 2);
  EXPECT_TRUE(SnmpStarter::Possible(&possible));
  EXPECT_TRUE(possible);
}

TEST(SnmpWire, NotificationsComeThroughWhole) {
  FrameWriter frame(FrameType::kNotify);
  Put(&frame, SomeNotification());
  ExpectWholeOrNothing<Notification>(frame);
  Notification taken;
  ASSERT_TRUE(TakeFrom(frame.Bytes(), &taken));
  EXPECT_EQ(taken.number, 11003U);
  EXPECT_EQ(taken.description, "described");
  ASSERT_EQ(taken.variables.size(), 2U);
  EXPECT_EQ(taken.variables[0].mib, FindMibVariable(kColumn));
  EXPECT_EQ(taken.variables[0].instance, 7U);
  EXPECT_EQ(taken.variables[0].value, (std::vector<uint8_t>{'a', 'b'}));
}

TEST(SnmpWire, SetsComeThroughWhole) {
  FrameWriter frame(FrameType::kSetPart);
  Put(&frame, SomeItems());
  ExpectWholeOrNothing<std::vector<SetItem>>(frame);
}

TEST(SnmpWire, TheConfigurationComesThroughWhole) {
  Configured configured;
  configured.settings.poll_interval = 20;
  configured.settings.community = "secret";
  configured.master.target = "tcp:127.0.0.1:705";
  configured.master.tcp = MasterAddress::Tcp{"127.0.0.1", 705};
  FrameWriter frame(FrameType::kConfigured);
  Put(&frame, configured);
  ExpectWholeOrNothing<Configured>(frame);
  Configured taken;
  ASSERT_TRUE(TakeFrom(frame.Bytes(), &taken));
  EXPECT_EQ(taken.settings.poll_interval, 20);
  ASSERT_TRUE(taken.master.tcp);
  EXPECT_EQ(taken.master.tcp->port, 705);
}

// An intruder in the SNMP process writes whatever it likes.
TEST(SnmpWire, ChangedBytesAreTakenOrRefusedAndNothingElse) {
  FrameWriter sets(FrameType::kSetPart);
  Put(&sets, SomeItems());
  FrameWriter notification(FrameType::kNotify);
  Put(&notification, SomeNotification());
  std::mt19937 random(1);
  int taken = 0;
  constexpr int kTries = 20000;
  for (int i = 0; i < kTries; i++) {
    for (const FrameWriter *frame : {&sets, &notification}) {
      std::string bytes = frame->Bytes();
      for (int change = 0; change < 3; change++) {
        bytes[1 + random() % (bytes.size() - 1)] = static_cast<char>(random());
      }
      std::vector<SetItem> items;
      Notification other;
      taken += frame == &sets ? TakeFrom(bytes, &items) : TakeFrom(bytes, &other);
      for (const SetItem &item : items) {
        EXPECT_LE(item.value.size(), bytes.size());
      }
    }
  }
  EXPECT_GT(taken, 0);
  EXPECT_LT(taken, 2 * kTries);
  printf("%d malformed\n", 2 * kTries);
}

// The table decides again, in the agent, what a set may be.
TEST(SnmpWire, OnlySetsOfWhatIsPublishedAndWritableAreTaken) {
  const auto image = MakeImage(5, 0, {kNumber, kText, kReadOnly});
  const auto octets = [](std::string text) {
    text.push_back(0);
    return std::vector<uint8_t>(text.begin(), text.end());
  };
  EXPECT_TRUE(MaySet(*image, {5, 0, {1, 0, 0, 0}, 4}));
  EXPECT_TRUE(MaySet(*image, {5, 1, octets("role"), 4}));
  EXPECT_TRUE(MaySet(*image, {5, 1, octets(""), 0}));
  EXPECT_FALSE(MaySet(*image, {6, 0, {1, 0, 0, 0}, 4})) << "another object";
  EXPECT_FALSE(MaySet(*image, {5, 2, {1, 0, 0, 0}, 4})) << "read-only";
  EXPECT_FALSE(MaySet(*image, {5, 3, {1, 0, 0, 0}, 4})) << "no such slot";
  EXPECT_FALSE(MaySet(*image, {5, -1, {1, 0, 0, 0}, 4}));
  EXPECT_FALSE(MaySet(*image, {5, 0, {1, 0, 0, 0}, 3})) << "short";
  EXPECT_FALSE(MaySet(*image, {5, 0, {1, 0}, 4})) << "shorter than it says";
  EXPECT_FALSE(MaySet(*image, {5, 1, octets("role"), 400000000}));
  EXPECT_FALSE(MaySet(*image, {5, 1, octets("role"), -1}));
  EXPECT_FALSE(MaySet(*image, {5, 1, {'r', 'o', 'l', 'e', 'x'}, 4})) << "without its end";
  EXPECT_FALSE(MaySet(*image, {5, 1, octets(std::string("a\0b", 3)), 3})) << "a zero inside";
  const auto octet_string = MakeImage(5, 0, {"tlxHoGUID"});
  EXPECT_TRUE(MaySet(*octet_string, {5, 0, octets(std::string("a\0b", 3)), 3}));
  const std::string longest(FindMibVariable(kText)->max_length, 'a');
  EXPECT_TRUE(MaySet(*image, {5, 1, octets(longest), static_cast<int>(longest.size())}));
  EXPECT_FALSE(MaySet(*image, {5, 1, octets(longest + "a"), static_cast<int>(longest.size()) + 1}));
}

// ---- Images

class Ring : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(writer_.Open());
    ASSERT_TRUE(reader_.Open(writer_.ImagesFd(), writer_.ControlFd()));
  }
  std::string TextOf(uint64_t id) {
    const Image *image = index_.ImageOf(id);
    return image == nullptr ? "(none)" : reinterpret_cast<const char *>(image->data.data());
  }
  static std::shared_ptr<Image> Row(uint64_t id, const std::string &text) {
    auto image = MakeImage(id, static_cast<uint32_t>(id), {kColumn});
    memcpy(image->data.data(), text.c_str(), text.size() + 1);
    return image;
  }

  ImageRingWriter writer_;
  ImageRingReader reader_;
  MibIndex index_{MibVariables()};
};

TEST_F(Ring, HasTheLastImageAndNoneThatIsWithdrawn) {
  auto image = Row(1, "one");
  EXPECT_FALSE(reader_.Anything());
  ASSERT_EQ(writer_.PutImage(*image, true), ImageRingWriter::Put::kDone);
  memcpy(image->data.data(), "two", 4);
  image->octet_lengths = {3};
  ASSERT_EQ(writer_.PutImage(*image, false), ImageRingWriter::Put::kDone);
  ASSERT_EQ(writer_.PutImage(*Row(2, "other"), true), ImageRingWriter::Put::kDone);
  EXPECT_TRUE(reader_.Anything());
  ASSERT_TRUE(reader_.Take(&index_));
  EXPECT_EQ(TextOf(1), "two");
  EXPECT_EQ(TextOf(2), "other");
  EXPECT_EQ(index_.ImageOf(1)->octet_lengths, std::vector<uint16_t>{3});
  EXPECT_EQ(index_.ImageOf(2)->octet_lengths, std::vector<uint16_t>{0});
  // Alike layouts are one.
  EXPECT_EQ(index_.ImageOf(1)->layout, index_.ImageOf(2)->layout);
  ASSERT_EQ(writer_.PutWithdrawal(1), ImageRingWriter::Put::kDone);
  ASSERT_TRUE(reader_.Take(&index_));
  EXPECT_EQ(TextOf(1), "(none)");
  EXPECT_EQ(writer_.Unread(), 0U);
}

// Round and round, read and not read, with records of many sizes.
TEST_F(Ring, LosesNothingWhateverIsReadWhen) {
  std::mt19937 random(1);
  std::vector<std::string> texts(20, "(none)");
  int full = 0;
  for (int i = 0; i < 300000; i++) {
    const uint64_t id = random() % texts.size();
    auto image = Row(id, std::to_string(i));
    image->data.resize(image->data.size() + random() % (i % 1000 == 0 ? 4'000'000 : 500));
    if (writer_.PutImage(*image, true) == ImageRingWriter::Put::kDone) {
      texts[id] = std::to_string(i);
    } else {
      full++;
      ASSERT_TRUE(reader_.Take(&index_));
      // What has been read is room again.
      ASSERT_EQ(writer_.PutImage(*image, true), ImageRingWriter::Put::kDone) << i;
      texts[id] = std::to_string(i);
    }
    if (random() % 5000 == 0) {
      ASSERT_TRUE(reader_.Take(&index_));
      for (uint64_t each = 0; each < texts.size(); each++) {
        ASSERT_EQ(TextOf(each), texts[each]) << i;
      }
    }
  }
  EXPECT_GT(full, 0);
}

TEST_F(Ring, TakesRecordsThatEndJustAtItsEnd) {
  auto one = Row(1, "one");
  auto other = Row(2, "other");
  ImageRingWriter another;
  ASSERT_TRUE(another.Open());
  ASSERT_EQ(another.PutImage(*one, true), ImageRingWriter::Put::kDone);
  const size_t half = one->data.size() + kRingSize / 2 - another.Unread();
  one->data.resize(half);
  other->data.resize(half);
  for (const char *text : {"a", "b"}) {
    one->data[0] = other->data[0] = static_cast<uint8_t>(*text);
    one->data[1] = other->data[1] = 0;
    ASSERT_EQ(writer_.PutImage(*one, true), ImageRingWriter::Put::kDone) << text;
    ASSERT_EQ(writer_.PutImage(*other, true), ImageRingWriter::Put::kDone) << text;
    EXPECT_EQ(writer_.Unread(), kRingSize);
    EXPECT_EQ(writer_.PutWithdrawal(1), ImageRingWriter::Put::kFull) << text;
    ASSERT_TRUE(reader_.Take(&index_)) << text;
    EXPECT_EQ(TextOf(1), text);
    EXPECT_EQ(TextOf(2), text);
  }
}

TEST_F(Ring, RefusesWhatItCanNeverTake) {
  auto image = Row(1, "one");
  image->data.resize(kRingSize);
  EXPECT_EQ(writer_.PutImage(*image, true), ImageRingWriter::Put::kNever);
  image->data.resize(kRingSize / 2 - 4096);
  EXPECT_EQ(writer_.PutImage(*image, true), ImageRingWriter::Put::kDone);
}

// The end that an intruder may have says anything of how far it has read.
TEST_F(Ring, DoesNotBelieveTheOtherEnd) {
  void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, writer_.ControlFd(), 0);
  ASSERT_NE(page, MAP_FAILED);
  auto *tail = static_cast<RingTail *>(page);
  const auto image = Row(1, "one");
  for (const uint64_t lie : {uint64_t{1}, uint64_t{1} << 40, uint64_t{1} << 63}) {
    tail->tail = lie;
    EXPECT_EQ(writer_.PutImage(*image, true), ImageRingWriter::Put::kBroken) << lie;
    EXPECT_EQ(writer_.PutWithdrawal(1), ImageRingWriter::Put::kBroken) << lie;
  }
  tail->tail = 0;
  EXPECT_EQ(writer_.PutImage(*image, true), ImageRingWriter::Put::kDone);
  munmap(page, 4096);
}

TEST_F(Ring, CannotBeMappedForWritingOrResized) {
  EXPECT_EQ(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, writer_.ImagesFd(), 0),
            MAP_FAILED);
  void *page = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, writer_.ImagesFd(), 0);
  ASSERT_NE(page, MAP_FAILED);
  EXPECT_NE(mprotect(page, 4096, PROT_READ | PROT_WRITE), 0);
  munmap(page, 4096);
  for (const int fd : {writer_.ImagesFd(), writer_.ControlFd()}) {
    EXPECT_NE(ftruncate(fd, 0), 0);
    EXPECT_NE(ftruncate(fd, 1 << 30), 0);
  }
}

// A child that the agent forks, and that lives on, must not keep the memory of a ring that is gone.
TEST_F(Ring, IsNotHandedToChildren) {
  const auto mapped = [] {
    std::stringstream maps;
    maps << std::ifstream("/proc/self/maps").rdbuf();
    return maps.str().find("/memfd:vexhostd ") != std::string::npos;
  };
  EXPECT_TRUE(mapped());
  const pid_t child = fork();
  if (child == 0) {
    _exit(mapped() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(Ring, SaysThatMoreWaits) {
  writer_.SetBacklog(true);
  EXPECT_TRUE(reader_.Anything());
  EXPECT_TRUE(reader_.Backlog());
  writer_.SetBacklog(false);
  EXPECT_FALSE(reader_.Anything());
  writer_.RefuseSets(true);
  EXPECT_TRUE(reader_.SetsRefused());
}

// An object has the layout that it was published with, however little it differs from the last one.
TEST_F(Ring, KeepsLayoutsApart) {
  void (*const changes[])(ServedVariable *) = {
      [](ServedVariable *v) { v->mib = FindMibVariable(kReadOnly); },
      [](ServedVariable *v) { v->slot++; },
      [](ServedVariable *v) { v->size--; },
      [](ServedVariable *v) { v->offset++; },
      [](ServedVariable *v) { v->type = VAR_OCTET_STRING; },
      [](ServedVariable *v) { v->writable = !v->writable; }};
  uint64_t id = 0;
  for (const auto change : changes) {
    const auto one = Row(++id, "one");
    const auto other = Row(++id, "other");
    auto layout = std::make_shared<Layout>(*other->layout);
    change(&layout->variables[0]);
    other->layout = layout;
    ASSERT_EQ(writer_.PutImage(*one, true), ImageRingWriter::Put::kDone);
    ASSERT_EQ(writer_.PutImage(*other, true), ImageRingWriter::Put::kDone);
    ASSERT_TRUE(reader_.Take(&index_));
    const ServedVariable &taken = index_.ImageOf(id)->layout->variables.at(0);
    const ServedVariable &put = layout->variables[0];
    EXPECT_TRUE(taken.mib == put.mib && taken.slot == put.slot && taken.size == put.size &&
                taken.offset == put.offset && taken.type == put.type &&
                taken.writable == put.writable)
        << id;
    EXPECT_NE(index_.ImageOf(id - 1)->layout, index_.ImageOf(id)->layout) << id;
  }
}

TEST_F(Ring, TakesAnObjectWithoutVariables) {
  Image nothing;
  nothing.layout = std::make_shared<Layout>();
  nothing.object_id = 3;
  ASSERT_EQ(writer_.PutImage(nothing, true), ImageRingWriter::Put::kDone);
  ASSERT_EQ(writer_.PutImage(*Row(4, "four"), true), ImageRingWriter::Put::kDone);
  ASSERT_TRUE(reader_.Take(&index_));
  ASSERT_NE(index_.ImageOf(3), nullptr);
  EXPECT_TRUE(index_.ImageOf(3)->data.empty());
  EXPECT_EQ(TextOf(4), "four");
}

size_t OpenDescriptorsNow() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                           std::filesystem::directory_iterator()));
}

// Each call that it takes fails once: the ring is not there, and nothing of it stays open.
TEST(RingMemory, LacksWhollyWhenACallFails) {
  const struct {
    const char *function;
    int calls;
  } taken[] = {{"memfd_create", 2}, {"ftruncate", 2}, {"fcntl", 3}, {"mmap", 2}, {"madvise", 2}};
  const size_t before = OpenDescriptorsNow();
  for (const auto &[function, calls] : taken) {
    for (int n = 1; n <= calls + 1; n++) {
      ImageRingWriter writer;
      const FailingCall failing(function, ENOMEM, n);
      errno = 0;
      EXPECT_EQ(writer.Open(), n > calls) << function << n;
      EXPECT_EQ(failing.Failed(), n > calls ? 0 : 1) << function << n;
      EXPECT_EQ(errno == ENOMEM, n <= calls) << function << n;
    }
  }
  EXPECT_EQ(OpenDescriptorsNow(), before);
  ImageRingWriter writer;
  ASSERT_TRUE(writer.Open());
  for (const char *function : {"mmap", "madvise"}) {
    for (int n = 1; n <= 3; n++) {
      ImageRingReader reader;
      const FailingCall failing(function, ENOMEM, n);
      EXPECT_EQ(reader.Open(writer.ImagesFd(), writer.ControlFd()), n > 2) << function << n;
    }
  }
}

// The ring as bytes, for a writer that makes no sense.
class MadeUpRing : public testing::Test {
 protected:
  void SetUp() override {
    images_.Reset(memfd_create("images", MFD_CLOEXEC));
    control_.Reset(memfd_create("control", MFD_CLOEXEC));
    ASSERT_EQ(ftruncate(images_.get(), kRingHeadSize + kRingSize), 0);
    ASSERT_EQ(ftruncate(control_.get(), 4096), 0);
    ASSERT_TRUE(reader_.Open(images_.get(), control_.get()));
  }
  // What becomes of these numbers, the next record, when so many bytes are said to be there.
  bool Takes(const std::vector<uint32_t> &numbers, uint64_t head, size_t taken = 0) {
    const size_t size = numbers.size() * sizeof(uint32_t);
    const auto place = static_cast<off_t>(kRingHeadSize + taken);
    EXPECT_EQ(pwrite(images_.get(), numbers.data(), size, place), static_cast<ssize_t>(size));
    EXPECT_EQ(pwrite(images_.get(), &head, sizeof(head), 0), static_cast<ssize_t>(sizeof(head)));
    return reader_.Take(&index_);
  }

  Descriptor images_;
  Descriptor control_;
  ImageRingReader reader_;
  MibIndex index_{MibVariables()};
};

TEST_F(MadeUpRing, IsRefusedWhereItMakesNoSense) {
  constexpr uint32_t kImage = 1;
  constexpr uint32_t kImageWithLayout = 2;
  constexpr uint32_t kWithdrawal = 3;
  constexpr uint32_t kNoKind = 5;
  const auto all = static_cast<uint32_t>(kRingSize);
  const auto no_variable = static_cast<uint32_t>(MibVariables().size());
  const struct {
    const char *what;
    std::vector<uint32_t> numbers;
    uint64_t head;
  } cases[] = {{"no size", {0, kWithdrawal}, 64},
               {"smaller than its head", {7, kWithdrawal}, 64},
               {"more than there is", {72, kWithdrawal, 1, 0}, 64},
               {"beyond the end", {all + 8, kWithdrawal, 1, 0}, all + 64},
               {"of no kind", {64, kNoKind, 1, 0}, 64},
               {"a withdrawal of nobody", {8, kWithdrawal}, 64},
               {"an image without its head", {16, kImage, 1, 0}, 64},
               {"an image that nobody knows", {40, kImage, 1, 0, 0, 0, 0, 0, 0, 0}, 64},
               {"lengths that are not there", {40, kImage, 1, 0, 0, 0, 1, 0, 0, 0}, 64},
               {"octets that are not there", {40, kImage, 1, 0, 0, 0, 0, 9, 0, 0}, 64},
               {"a layout that is not there", {40, kImageWithLayout, 1, 0, 0, 1, 0, 0, 0, 0}, 64},
               {"an unknown variable",
                {64, kImageWithLayout, 1, 0, 0, 1, 0, 0, no_variable, 0, 4, 0, 1, 0, 0, 0},
                64}};
  for (const auto &[what, numbers, head] : cases) {
    EXPECT_FALSE(Takes(numbers, head)) << what;
    EXPECT_EQ(index_.ImageOf(1), nullptr) << what;
  }
  // The same with a variable that there is.
  EXPECT_TRUE(Takes({64, kImageWithLayout, 1, 0, 0, 1, 0, 0, 0, 0, 4, 0, 1, 0, 0, 0}, 64));
  EXPECT_NE(index_.ImageOf(1), nullptr);
  // What has been taken is not there any more.
  EXPECT_FALSE(Takes({72, kWithdrawal, 1, 0}, 128, 64));
  EXPECT_NE(index_.ImageOf(1), nullptr);
}

// ---- Frames

TEST(Frames, KeepTheirLimitsAndTheirDescriptors) {
  Descriptor one;
  Descriptor other;
  ASSERT_TRUE(FrameSocket::Pair(&one, &other));
  FrameSocket from(std::move(one));
  FrameSocket to(std::move(other));
  std::string_view bytes;
  FrameSocket::Descriptors descriptors;
  EXPECT_EQ(to.Receive(&bytes, &descriptors), FrameSocket::Got::kNone);

  FrameWriter longest(FrameType::kLog);
  longest.PutText(std::string(FrameSocket::kLongest - 5, 'x'));
  EXPECT_TRUE(from.Send(longest));
  EXPECT_FALSE(from.Send(FrameWriter(FrameType::kLog).PutText(longest.Bytes())));
  EXPECT_EQ(errno, EMSGSIZE);
  ASSERT_EQ(to.Receive(&bytes, &descriptors), FrameSocket::Got::kFrame);
  EXPECT_EQ(bytes, longest.Bytes());

  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  EXPECT_TRUE(from.Send(FrameWriter(FrameType::kSpawn), pipe_ends));
  ASSERT_EQ(to.Receive(&bytes, &descriptors), FrameSocket::Got::kFrame);
  EXPECT_TRUE(descriptors[0] && descriptors[1] && !descriptors[2]);
  EXPECT_EQ(write(descriptors[1].get(), "x", 1), 1);

  // What does not go out at once waits, descriptors and all, and comes in its order.
  int sent = 0;
  while (!from.HasUnsent()) {
    ASSERT_TRUE(
        from.Send(FrameWriter(FrameType::kPing).Put(sent++).PutText(std::string(999, 'x'))));
  }
  ASSERT_TRUE(from.Send(FrameWriter(FrameType::kSpawn), pipe_ends));
  for (int i = 0; i < sent; i++) {
    ASSERT_EQ(to.Receive(&bytes, &descriptors), FrameSocket::Got::kFrame);
    FrameReader reader(bytes);
    EXPECT_EQ(reader.Take<FrameType>(), FrameType::kPing);
    EXPECT_EQ(reader.Take<int>(), i);
    ASSERT_TRUE(from.Flush());
  }
  ASSERT_EQ(to.Receive(&bytes, &descriptors), FrameSocket::Got::kFrame);
  EXPECT_TRUE(descriptors[0] && descriptors[1]);

  // Descriptors that nobody wants end the connection.
  ASSERT_TRUE(from.Send(FrameWriter(FrameType::kPong), pipe_ends));
  EXPECT_EQ(to.Receive(&bytes, nullptr), FrameSocket::Got::kEnd);
  from.Close();
  EXPECT_EQ(to.Receive(&bytes, &descriptors), FrameSocket::Got::kEnd);
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

// Each is open until it is sent: who takes none must not use up the descriptors of the other end.
TEST(Frames, WithDescriptorsThatWaitAreFew) {
  Descriptor one;
  Descriptor other;
  ASSERT_TRUE(FrameSocket::Pair(&one, &other));
  FrameSocket from(std::move(one));
  while (!from.HasUnsent()) {
    ASSERT_TRUE(from.Send(FrameWriter(FrameType::kPing).PutText(std::string(999, 'x'))));
  }
  const int standard[] = {STDERR_FILENO};
  int waiting = 0;
  while (waiting < 100 && from.Send(FrameWriter(FrameType::kConnected), standard)) {
    waiting++;
  }
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(waiting, 16);
  EXPECT_TRUE(from.Send(FrameWriter(FrameType::kPing)));
}

struct Ends {
  Ends() {
    Descriptor one;
    Descriptor other;
    EXPECT_TRUE(FrameSocket::Pair(&one, &other));
    from = FrameSocket(std::move(one));
    to = FrameSocket(std::move(other));
  }
  FrameSocket::Got Receive() {
    return to.Receive(&bytes, &descriptors);
  }
  FrameSocket from;
  FrameSocket to;
  std::string_view bytes;
  FrameSocket::Descriptors descriptors;
};

// What a socket does not take now goes out later, and only what it never takes is an end; with
// descriptors as without.
TEST(Frames, ThatACallDoesNotTakeAreNotLost) {
  const struct {
    int error;
    bool sent;
    bool waits;
  } cases[] = {{EINTR, true, false}, {EAGAIN, true, true},  {ENOBUFS, true, true},
               {ENOMEM, true, true}, {EPIPE, false, false}, {ETOOMANYREFS, false, false}};
  const int plain[] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
  for (const auto &[error, sent, waits] : cases) {
    for (const size_t count : {size_t{0}, FrameSocket::kMostDescriptors}) {
      Ends ends;
      {
        const FailingCall failing(count == 0 ? "send" : "sendmsg", error);
        EXPECT_EQ(ends.from.Send(FrameWriter(FrameType::kPing), {plain, count}), sent) << error;
        EXPECT_EQ(failing.Failed(), 1);
      }
      EXPECT_EQ(ends.from.HasUnsent(), waits) << error;
      EXPECT_EQ(ends.Receive(), sent && !waits ? FrameSocket::Got::kFrame : FrameSocket::Got::kNone)
          << error;
      EXPECT_TRUE(ends.from.Flush());
      EXPECT_EQ(ends.Receive(), waits ? FrameSocket::Got::kFrame : FrameSocket::Got::kNone)
          << error;
      EXPECT_EQ(static_cast<bool>(ends.descriptors[2]), sent && count != 0) << error;
      EXPECT_FALSE(ends.from.HasUnsent());
    }
  }
}

TEST(Frames, OfAnEndThatFailsAreItsEnd) {
  Ends ends;
  ASSERT_TRUE(ends.from.Send(FrameWriter(FrameType::kPing)));
  {
    const FailingCall failing("recvmsg", EINTR, 1, 3);
    EXPECT_EQ(ends.Receive(), FrameSocket::Got::kFrame);
  }
  const FailingCall failing("recvmsg", EIO);
  EXPECT_EQ(ends.Receive(), FrameSocket::Got::kEnd);
}

// An end that never reads must not take the memory.
TEST(Frames, WaitUpToALimit) {
  Ends ends;
  const FailingCall failing("send", EAGAIN, 1, FailingCall::kAll);
  int waiting = 0;
  while (waiting < 10000 && ends.from.Send(FrameWriter(FrameType::kPing))) {
    waiting++;
  }
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(waiting, 4096);
}

TEST(Frames, WithDescriptorsThatCannotWaitAreNotSent) {
  Ends ends;
  const int plain[] = {STDIN_FILENO, STDOUT_FILENO};
  const size_t before = OpenDescriptorsNow();
  {
    const FailingCall full("sendmsg", EAGAIN);
    const FailingCall failing("fcntl", EMFILE, 2);
    EXPECT_FALSE(ends.from.Send(FrameWriter(FrameType::kSpawn), plain));
    EXPECT_EQ(errno, EMFILE);
  }
  EXPECT_FALSE(ends.from.HasUnsent());
  EXPECT_EQ(OpenDescriptorsNow(), before);
  const int many[] = {0, 0, 0, 0};
  EXPECT_FALSE(ends.from.Send(FrameWriter(FrameType::kSpawn), many));
  EXPECT_EQ(errno, EMSGSIZE);
}

// What else comes with a frame is nobody's, and a descriptor too many is closed.
TEST(Frames, MayComeWithMoreThanTheyShould) {
  Ends ends;
  constexpr int kMany = 4;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMany)] = {};
  char byte = 1;
  iovec part = {&byte, 1};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  cmsghdr *header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int) * kMany);
  for (size_t i = 0; i < kMany; i++) {
    const int fd = STDIN_FILENO;
    memcpy(CMSG_DATA(header) + i * sizeof(fd), &fd, sizeof(fd));
  }
  const size_t before = OpenDescriptorsNow();
  ASSERT_EQ(sendmsg(ends.from.Fd(), &message, 0), 1);
  ends.Receive();
  EXPECT_TRUE(ends.descriptors[2]);
  EXPECT_EQ(OpenDescriptorsNow(), before + FrameSocket::kMostDescriptors);

  const int on = 1;
  ASSERT_EQ(setsockopt(ends.to.Fd(), SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)), 0);
  ASSERT_TRUE(ends.from.Send(FrameWriter(FrameType::kPong)));
  EXPECT_EQ(ends.Receive(), FrameSocket::Got::kFrame);
  EXPECT_EQ(ends.bytes.size(), 1U);
  EXPECT_FALSE(ends.descriptors[0]);
  EXPECT_EQ(OpenDescriptorsNow(), before);
}

// An end that has not read everything resets the connection when it closes: what it has sent before
// that counts all the same.
TEST(Frames, OfAnEndThatClosesUnreadAreReceived) {
  Descriptor one;
  Descriptor other;
  ASSERT_TRUE(FrameSocket::Pair(&one, &other));
  FrameSocket from(std::move(one));
  FrameSocket to(std::move(other));
  ASSERT_TRUE(to.Send(FrameWriter(FrameType::kPing)));
  ASSERT_TRUE(from.Send(FrameWriter(FrameType::kNotified).Put(uint64_t{1})));
  ASSERT_TRUE(from.Send(FrameWriter(FrameType::kNotified).Put(uint64_t{2})));
  from.Close();
  std::string_view bytes;
  for (const uint64_t number : {1, 2}) {
    ASSERT_EQ(to.Receive(&bytes, nullptr), FrameSocket::Got::kFrame) << number;
    FrameReader reader(bytes);
    EXPECT_EQ(reader.Take<FrameType>(), FrameType::kNotified);
    EXPECT_EQ(reader.Take<uint64_t>(), number);
  }
  EXPECT_EQ(to.Receive(&bytes, nullptr), FrameSocket::Got::kEnd);
}

}  // namespace vex::snmp_wire_test
