// What the agent makes of an SNMP process that somebody has taken over, or that can be had no more.
// As root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "framework/snmp/image_ring.h"
#include "framework/snmp/notifications.h"
#include "framework/snmp/set_channel.h"
#include "framework/snmp/snmp_relay.h"
#include "framework/snmp/snmp_thread.h"
#include "framework/snmp/snmp_wire.h"
#include "platform/framework.h"
#include "tests/support/failing_call.h"
#include "tests/unit/framework/made_image.h"
#include "tests/unit/framework/process/with_snmp_process.h"
#include "tests/unit/framework/stopped.h"

namespace vex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

size_t CountOf(const std::string &text, const std::string &part) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size()) {
    count++;
  }
  return count;
}

FrameWriter Event(SessionEvent event) {
  return std::move(FrameWriter(FrameType::kSession).Put(event).Put(uint64_t{1}));
}

// One part of a set, of one variable.
FrameWriter SetPart(uint64_t id, uint32_t part, uint64_t object = 77, int count = 1) {
  FrameWriter frame(FrameType::kSetPart);
  frame.Put(id).Put(part).Put(int64_t{Clock::now().time_since_epoch().count()} + 600'000'000);
  Put(&frame, std::vector<SetItem>(static_cast<size_t>(count), {object, 0, {1, 0, 0, 0}, 4}));
  return frame;
}

class WickedProcess : public WithSnmpProcess {
 protected:
  void TearDown() override {
    SnmpWithdraw(5);
    SnmpWithdraw(6);
    SnmpEnableSets(true);
    WithSnmpProcess::TearDown();
  }
  // The first process is a good one, or none that stays; the next ones do this, and whoever comes
  // after so many is good again.
  void Be(int times, const std::function<void(Wicked *, int)> &what) {
    at_birth[kSnmpProcess] = [times, what] {
      const int birth = births->count;
      if (birth > 1 && birth <= 1 + times) {
        Wicked wicked;
        what(&wicked, birth - 2);
        Wicked::Stay();
      }
    };
    ASSERT_EQ(SnmpStart("vexhostd", nullptr), 0);
    relay_ = RelayThread();
    ASSERT_GT(relay_, 0);
    testing::internal::CaptureStderr();
    ASSERT_GT(births->last_process, 0);
    ASSERT_EQ(kill(births->last_process, SIGKILL), 0);
  }
  // Of all that is between; for what is told in between by the agent's log there is Captured.
  std::string LogOnceGoodAgain(int times) {
    EXPECT_TRUE(WaitUntil([&] { return births->count >= 2 + times; }));
    master_ = std::make_unique<FakeMaster>(socket_);
    EXPECT_TRUE(master_->AcceptAndRegister(10000));
    return testing::internal::GetCapturedStderr();
  }

  pid_t relay_ = 0;
};

constexpr char kNonsense[] =
    "agent: The SNMP process has ended (it says what makes no sense); starting another\n";

TEST_F(WickedProcess, ThatSaysNonsenseIsReplaced) {
  using Say = void (*)(Wicked *);
  static constexpr Say kSay[] = {
      [](Wicked *w) { w->Say(Event(SessionEvent::kOpen)); },  // before it is ready
      [](Wicked *w) { w->Say(FrameWriter(FrameType::kPong)); },
      [](Wicked *w) { w->Say(FrameWriter(FrameType::kReady).Put(uint8_t{1})); },
      [](Wicked *w) {
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(FrameWriter(FrameType::kReady));
      },
      [](Wicked *w) {
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(FrameWriter(FrameType::kUnable).PutText("late").Put(int32_t{1}));
      },
      [](Wicked *w) {
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(Event(static_cast<SessionEvent>(99)));
      },
      [](Wicked *w) {
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(FrameWriter(static_cast<FrameType>(0xee)));
      },
      [](Wicked *w) {
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(FrameWriter(FrameType::kAnswer).Put(uint64_t{1}));
      },
      [](Wicked *w) {  // a part before the second one
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(SetPart(1, 0));
        w->Say(SetPart(1, 2));
      },
      [](Wicked *w) {  // a part of what is being applied
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(SetPart(1, 0));
        w->Say(FrameWriter(FrameType::kSetApply).Put(uint64_t{1}));
        w->Say(SetPart(1, 1));
      },
      [](Wicked *w) {  // less than a whole frame
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(FrameWriter(FrameType::kSession).Put(SessionEvent::kOpen));
      },
      [](Wicked *w) {
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(FrameWriter(FrameType::kNotified).Put(uint32_t{1}));
      },
      [](Wicked *w) {  // and more
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(FrameWriter(FrameType::kSetRelease).Put(uint64_t{1}).Put(uint8_t{1}));
      },
      [](Wicked *w) {  // a set of nothing
        w->Say(FrameWriter(FrameType::kReady));
        w->Say(SetPart(1, 0, 77, 0));
      },
      [](Wicked *w) {  // too many parts
        w->Say(FrameWriter(FrameType::kReady));
        for (uint32_t part = 0; part <= kMostParts; part++) {
          w->Say(SetPart(1, part));
        }
      },
      [](Wicked *w) {  // too many sets
        w->Say(FrameWriter(FrameType::kReady));
        for (uint64_t id = 0; id <= 4 * kMostSets; id++) {
          w->Say(SetPart(id, 0));
        }
      },
      [](Wicked *w) {  // more has been read than was written
        void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, ControlHere(), 0);
        static_cast<RingTail *>(page)->tail = uint64_t{1} << 40;
        w->Say(FrameWriter(FrameType::kReady));
      }};
  constexpr int kCount = std::size(kSay);
  Be(kCount, [](Wicked *wicked, int which) { kSay[which](wicked); });
  const std::string log = LogOnceGoodAgain(kCount);
  // Each of them has been ended, or there would be no next one. The reasons of ends that follow
  // each other at once are told as far as they are known by then.
  EXPECT_EQ(CountOf(log, "The SNMP process has ended"), kCount + 1U) << log;
  EXPECT_GE(CountOf(log, kNonsense), 1U) << log;
}

// What can come late, or for what is over, is nobody's; and what it logs has a limit.
TEST_F(WickedProcess, MayTellWhatNobodyWantsAnyMore) {
  Be(1, [](Wicked *wicked, int) {
    const uint64_t nobody = 4711;
    wicked->Say(FrameWriter(FrameType::kReady))
        .Say(FrameWriter(FrameType::kNotified).Put(nobody))
        .Say(FrameWriter(FrameType::kSetApply).Put(nobody))
        .Say(FrameWriter(FrameType::kSetRelease).Put(nobody))
        .Say(FrameWriter(FrameType::kPong))
        .Say(Event(SessionEvent::kWelcome))
        .Say(Event(SessionEvent::kUp))
        .Say(Event(SessionEvent::kRefused))
        .Say(Event(SessionEvent::kEnded));
    FrameWriter answer(FrameType::kAnswer);
    answer.Put(nobody).Put(uint8_t{1}).Put(uint8_t{0}).Put(uint8_t{1}).Put(int32_t{0});
    wicked->Say(answer.Put(uint8_t{1}).Put(int32_t{5}));
    for (int i = 0; i < 1000; i++) {
      wicked->Say(FrameWriter(FrameType::kLog).PutText("a flood"));
    }
    // It has room again with the time: for ten a second.
    wicked->AllIsRead();
    births->told[0] = 1;
    while (births->told[2] == 0) {
      usleep(1000);
    }
    for (int i = 0; i < 1000; i++) {
      wicked->Say(FrameWriter(FrameType::kLog).PutText("afterwards"));
    }
    wicked->Say(FrameWriter(FrameType::kRoom));
    births->told[1] = wicked->Hear(FrameType::kImages) ? 1 : 2;
    _exit(7);
  });
  EXPECT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
  ahead_ms = 9000;
  births->told[2] = 1;
  const std::string log = LogOnceGoodAgain(1);
  EXPECT_EQ(births->told[1], 1);
  EXPECT_GE(CountOf(log, "a flood\n"), 200U);
  EXPECT_LT(CountOf(log, "a flood\n"), 1000U);
  EXPECT_NE(log.find(" messages of the SNMP process are left out\n"), log.npos);
  EXPECT_GE(CountOf(log, "afterwards\n"), 90U);
  EXPECT_LT(CountOf(log, "afterwards\n"), 1000U);
  EXPECT_NE(log.find("agent: The SNMP process has ended (status 7); starting another\n"), log.npos)
      << log;
}

std::atomic<bool> hold_relay{false};
void HoldRelay() {
  while (hold_relay) {
    std::this_thread::sleep_for(milliseconds(1));
  }
}

// The reason is logged though it came behind what ended it, and a flood of it ends.
TEST_F(WickedProcess, HasLastWords) {
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady));
    births->told[0] = 1;
    while (births->told[1] == 0) {
      usleep(1000);
    }
    wicked->Say(FrameWriter(static_cast<FrameType>(0xee)))
        .Say(FrameWriter(FrameType::kLog).PutText("this is why"));
    births->told[2] = 1;
    for (int i = 0; i < 300; i++) {
      wicked->Say(FrameWriter(FrameType::kPong));
    }
  });
  ASSERT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
  hold_relay = true;
  SnmpSetTick(HoldRelay, 1);
  WaitUntil([] { return false; }, 50);
  births->told[1] = 1;
  ASSERT_TRUE(WaitUntil([] { return births->told[2] != 0; }));
  WaitUntil([] { return false; }, 50);
  hold_relay = false;
  const std::string log = LogOnceGoodAgain(1);
  EXPECT_EQ(CountOf(log, kNonsense), 1U) << log;
  EXPECT_EQ(CountOf(log, "this is why\n"), 1U) << log;
}

// Handlers that hear of what no manager may set.
std::atomic<int> asked_for_more;
int TakeOfTheWritable(uint8_t, SetItem &item) {
  asked_for_more += item.object_id != 5 ? 1 : 0;
  return 0;
}

// What it asks to be set is what the agent would let a manager set, or nothing.
TEST_F(WickedProcess, SetsNothingThatIsNotPublishedAndWritable) {
  SnmpPublish(MakeImage(5, 0, {"tlxHoOsCommonPollFreq"}));
  SnmpPublish(MakeImage(6, 0, {"tlxHoSwVerNextIndex"}));
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady));
    // Unknown, not writable, the first of two unknown; and then what may be set.
    FrameWriter two(FrameType::kSetPart);
    two.Put(uint64_t{3})
        .Put(uint32_t{0})
        .Put(int64_t{Clock::now().time_since_epoch().count()} + 600'000'000);
    Put(&two, std::vector<SetItem>{{77, 0, {1, 0, 0, 0}, 4}, {5, 0, {1, 0, 0, 0}, 4}});
    wicked->Say(SetPart(1, 0, 77)).Say(SetPart(2, 0, 6)).Say(two);
    for (int i = 0; i < 3; i++) {
      const auto result = wicked->Hear(FrameType::kSetResult);
      if (result) {
        FrameReader reader(*result);
        const auto id = reader.Take<uint64_t>();
        reader.Take<uint32_t>();
        births->told[id] = static_cast<int>(reader.Take<SetPort::Check>()) + 1;
      }
    }
    // Its time is short: again where nobody was given a processor.
    for (uint64_t id = 4; id < 14 && births->told[4] == 0; id++) {
      wicked->Say(SetPart(id, 0, 5));
      const auto result = wicked->Hear(FrameType::kSetResult);
      FrameReader reader(result ? std::string_view(*result) : std::string_view());
      reader.Take<uint64_t>();
      reader.Take<uint32_t>();
      births->told[4] = reader.Take<SetPort::Check>() == SetPort::Check::kAccepted ? 1 : 0;
    }
    births->told[0] = 1;
  });
  asked_for_more = 0;
  ASSERT_TRUE(WaitUntil([] {
    ServeSets(TakeOfTheWritable);
    return births->told[0] != 0;
  }));
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(asked_for_more, 0);
  EXPECT_EQ(births->told[4], 1);
  for (int id = 1; id <= 3; id++) {
    EXPECT_EQ(births->told[id], static_cast<int>(SetPort::Check::kUndecided) + 1) << id;
  }
}

// Whether the next result is of this part, and that it is undecided.
bool HearsOfUndecided(Wicked *wicked, uint64_t id, uint32_t part) {
  const auto result = wicked->Hear(FrameType::kSetResult);
  FrameReader reader(result ? std::string_view(*result) : std::string_view());
  return reader.Take<uint64_t>() == id && reader.Take<uint32_t>() == part &&
         reader.Take<SetPort::Check>() == SetPort::Check::kUndecided;
}

// What handlers were asked for, by value: each is of one variable of one set.
std::map<int32_t, int> checked_values;
std::map<int32_t, int> applied_values;
std::atomic<int> applied_wrongly;
int TakeEachOnce(uint8_t phase, SetItem &item) {
  int32_t value = 0;
  memcpy(&value, item.value.data(), sizeof(value));
  if (phase == SET_CHECK) {
    checked_values[value]++;
    return value % 13 == 0 ? -1 : 0;
  }
  const bool wrong = item.object_id != 5 || checked_values[value] != 1 || value % 13 == 0 ||
                     ++applied_values[value] > 1;
  applied_wrongly += wrong ? 1 : 0;
  return value % 17 == 0 ? -1 : 0;
}

// Frames that make sense one by one, in an order that chance makes; now and then one of nonsense.
class Babble {
 public:
  Babble(Wicked *wicked, unsigned seed) : wicked_(wicked), seed_(seed), random_(seed) {}

  void Say() {
    const int what = Random(0, 999);
    if (what < 500) {
      SayOfSet(what % 5);
    } else if (what < 600) {
      wicked_->Say(FrameWriter(FrameType::kSession)
                       .Put(static_cast<SessionEvent>(Random(0, 5)))
                       .Put(uint64_t{static_cast<uint64_t>(Random(0, 3))}));
    } else if (what < 700) {
      wicked_->Say(
          FrameWriter(FrameType::kNotified).Put(uint64_t{static_cast<uint64_t>(Random(0, 40))}));
    } else if (what < 750) {
      wicked_->Say(FrameWriter(FrameType::kAnswer)
                       .Put(uint64_t{static_cast<uint64_t>(Random(0, 3))})
                       .Put(uint8_t{1})
                       .Put(uint8_t{0})
                       .Put(uint8_t{1})
                       .Put(int32_t{0})
                       .Put(uint8_t{1})
                       .Put(int32_t{Random(0, 9)}));
    } else if (what < 800) {
      wicked_->Say(FrameWriter(FrameType::kLog).PutText("babble\n\x1b" + std::to_string(what)));
    } else if (what < 998) {
      wicked_->Say(FrameWriter(what % 2 == 0 ? FrameType::kRoom : FrameType::kPong));
    } else {
      wicked_->Say(FrameWriter(static_cast<FrameType>(Random(0, 255))).Put(uint64_t{1}));
    }
  }

 private:
  int Random(int least, int most) {
    return std::uniform_int_distribution<int>(least, most)(random_);
  }

  void SayOfSet(int what) {
    const uint64_t id = static_cast<uint64_t>(Random(0, 7));
    if (what == 0) {
      SayPart(id);
    } else if (what == 1 || what == 2) {
      // Often as a sound one would: after the check.
      if (what == 1) {
        SayPart(id);
        usleep(static_cast<useconds_t>(Random(0, 3000)));
      }
      wicked_->Say(FrameWriter(FrameType::kSetApply).Put(id));
      applying_[id] = parts_[id] > 0;
    } else {
      wicked_->Say(FrameWriter(FrameType::kSetRelease).Put(id));
      parts_[id] = 0;
      applying_[id] = false;
    }
  }

  // After the apply, one in a hundred is said all the same.
  void SayPart(uint64_t id) {
    if (parts_[id] < kMostParts && (!applying_[id] || Random(0, 99) == 0)) {
      FrameWriter frame(FrameType::kSetPart);
      const auto until = Clock::now() + milliseconds(Random(0, 20));
      frame.Put(id).Put(parts_[id]++).Put(int64_t{until.time_since_epoch().count()});
      std::vector<SetItem> items;
      for (int i = Random(1, 3); i > 0; i--) {
        const auto value = static_cast<int32_t>(seed_ * 1'000'000 + ++values_);
        std::vector<uint8_t> bytes(sizeof(value));
        memcpy(bytes.data(), &value, sizeof(value));
        items.push_back({Random(0, 30) == 0 ? 6U : 5U, 0, bytes, 4});
      }
      Put(&frame, items);
      wicked_->Say(frame);
    }
  }

  Wicked *wicked_;
  unsigned seed_;
  std::mt19937 random_;
  uint32_t parts_[8] = {};
  bool applying_[8] = {};
  unsigned values_ = 0;
};

// Whatever it says in whatever order: nothing is set unchecked or twice, and the agent goes on.
TEST_F(WickedProcess, MaySayAnythingInAnyOrder) {
  constexpr int kLives = 20;
  SnmpPublish(MakeImage(5, 0, {"tlxHoOsCommonPollFreq"}));
  SnmpPublish(MakeImage(6, 0, {"tlxHoSwVerNextIndex"}));
  checked_values.clear();
  applied_values.clear();
  applied_wrongly = 0;
  Be(kLives, [](Wicked *wicked, int life) {
    wicked->Say(FrameWriter(FrameType::kReady));
    Babble babble(wicked, static_cast<unsigned>(life) + 1);
    for (int i = 0; i < 2000; i++) {
      babble.Say();
      if (i % 50 == 0) {
        wicked->AllIsRead();
      }
    }
    _exit(0);
  });
  EXPECT_TRUE(WaitUntil(
      [] {
        ServeSets(TakeEachOnce);
        return births->count >= 2 + kLives;
      },
      60000));
  const std::string log = LogOnceGoodAgain(kLives);
  EXPECT_EQ(applied_wrongly, 0);
  EXPECT_GT(applied_values.size(), 20U);
  EXPECT_GT(checked_values.size(), applied_values.size());
  EXPECT_EQ(log.find('\x1b'), log.npos);
}

// The master goes on with a set of which there was no memory for the first part.
TEST_F(WickedProcess, PartsOfASetThatIsNotKeptAreUndecided) {
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady)).Say(SetPart(1, 1));
    births->told[0] = HearsOfUndecided(wicked, 1, 1) ? 1 : 2;
  });
  ASSERT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
  EXPECT_EQ(CountOf(testing::internal::GetCapturedStderr(), kNonsense), 0U);
  EXPECT_EQ(births->told[0], 1);
}

// What waits for the agent thread has a limit in all, beyond which a set is none.
TEST_F(WickedProcess, SetsOfVeryMuchAreUndecided) {
  SnmpPublish(MakeImage(5, 0, {"tlxHoOsCommonPollFreq"}));
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady)).Say(SetPart(1, 0, 5, 3000));
    wicked->Say(SetPart(2, 0, 5, 3000));
    // Nobody serves the first one, which waits until its deadline.
    births->told[0] = HearsOfUndecided(wicked, 2, 0) ? 1 : 2;
  });
  ASSERT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
  EXPECT_EQ(CountOf(testing::internal::GetCapturedStderr(), kNonsense), 0U);
  EXPECT_EQ(births->told[0], 1);
}

// A set that it never releases is forgotten, and its number is free again.
TEST_F(WickedProcess, KeepsNoSetForEver) {
  SnmpPublish(MakeImage(5, 0, {"tlxHoOsCommonPollFreq"}));
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady)).Say(SetPart(1, 0, 5));
    births->told[0] = wicked->Hear(FrameType::kSetResult) ? 1 : 2;
    wicked->Hear(FrameType::kPing);
    wicked->Say(SetPart(1, 0, 5));
    births->told[1] = wicked->Hear(FrameType::kSetResult) ? 1 : 2;
  });
  ASSERT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
  ahead_ms = 12000;
  SnmpSetTick([] {}, 1000);
  ASSERT_TRUE(WaitUntil([] { return births->told[1] != 0; }));
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(CountOf(log, "The SNMP process has ended"), 1U) << log;
  EXPECT_EQ(births->told[0], 1);
  EXPECT_EQ(births->told[1], 1);
}

// A set whose further part there is no memory for is no set any more.
TEST_F(WickedProcess, WantOfMemoryEndsASet) {
  SnmpPublish(MakeImage(5, 0, {"tlxHoOsCommonPollFreq"}));
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady)).Say(SetPart(1, 0, 5));
    wicked->Hear(FrameType::kSetResult);
    births->told[0] = 1;
    while (births->told[1] == 0) {
      usleep(1000);
    }
    wicked->Say(SetPart(1, 1, 5));
    while (births->told[1] == 1) {
      usleep(1000);
    }
    wicked->Say(SetPart(1, 0, 5));
    births->told[2] = wicked->Hear(FrameType::kSetResult) ? 1 : 2;
  });
  ASSERT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
  starved = relay_;
  refused = 0;
  births->told[1] = 1;
  EXPECT_TRUE(WaitUntil([] { return refused != 0; }));
  WaitUntil([] { return false; }, 20);
  starved = 0;
  births->told[1] = 2;
  ASSERT_TRUE(WaitUntil([] { return births->told[2] != 0; }));
  EXPECT_EQ(CountOf(testing::internal::GetCapturedStderr(), kNonsense), 0U);
  EXPECT_EQ(births->told[2], 1);
}

// What nobody asks for it is told where it is much, and once.
TEST_F(WickedProcess, IsToldOnceOfMuchThatWaits) {
  for (const size_t kilobytes : {200, 300}) {
    births->count = births->told[0] = 0;
    auto image = MakeImage(5, 0, {"tlxHoOsCommonPollFreq"});
    image->data.resize(kilobytes << 10);
    SnmpPublish(std::move(image));
    Be(1, [](Wicked *wicked, int) {
      int told = 0;
      wicked->Say(FrameWriter(FrameType::kReady));
      for (uint64_t id = 1; id <= 3; id++) {
        wicked->Say(SetPart(id, 0));
        told += wicked->HearBefore(FrameType::kImages, FrameType::kSetResult);
      }
      births->told[0] = 1 + told;
    });
    EXPECT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(births->told[0], kilobytes == 200 ? 1 : 2);
    EXPECT_TRUE(Stopped());
  }
}

// No more than a master may have without an answer.
TEST_F(WickedProcess, HasAFewNotificationsAtATime) {
  constexpr size_t kMany = NotificationSender::kMostUnanswered + 4;
  for (size_t i = 0; i < kMany; i++) {
    SnmpNotify({});
  }
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady)).Say(Event(SessionEvent::kOpen)).Say(SetPart(1, 0));
    births->told[1] = wicked->HearBefore(FrameType::kNotify, FrameType::kSetResult);
    births->told[0] = 1;
  });
  EXPECT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(births->told[1], static_cast<int>(NotificationSender::kMostUnanswered));
  EXPECT_TRUE(Stopped());
  EXPECT_EQ(SnmpUnsent()->size(), kMany);
}

// After a master that takes registrations the next try is soon, whatever one before it has refused.
TEST_F(WickedProcess, ThatWasWelcomeIsConnectedAgainSoon) {
  master_ = std::make_unique<FakeMaster>(socket_);
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady));
    wicked->Hear(FrameType::kConnected);
    wicked->Say(Event(SessionEvent::kRefused)).Say(Event(SessionEvent::kEndedRefused));
    wicked->Hear(FrameType::kConnected);
    // The quickest of some: others may have waited for a processor.
    auto quickest = Clock::duration::max();
    for (int i = 0; i < 5; i++) {
      const Clock::time_point begin = Clock::now();
      wicked->Say(Event(SessionEvent::kOpen))
          .Say(Event(SessionEvent::kWelcome))
          .Say(Event(SessionEvent::kEnded));
      wicked->Hear(FrameType::kConnected);
      quickest = std::min<Clock::duration>(quickest, Clock::now() - begin);
    }
    births->told[0] = quickest < milliseconds(150) ? 1 : 2;
  });
  EXPECT_TRUE(WaitUntil([this] {
    if (master_->Accept(1)) {
      master_->Disconnect();
    }
    return births->told[0] != 0;
  }));
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(births->told[0], 1);
}

// It has a moment for its end, in which it is listened to.
TEST_F(WickedProcess, IsHeardToTheEnd) {
  births->told[1] = 0;
  // Not for long: again where it was not given a processor.
  for (int tries = 0; tries < 5 && births->told[1] != 1; tries++) {
    births->count = births->told[0] = births->told[1] = 0;
    Be(1, [](Wicked *wicked, int) {
      wicked->Say(FrameWriter(FrameType::kReady));
      births->told[0] = 1;
      wicked->Hear(FrameType::kStop);
      wicked->Say(FrameWriter(FrameType::kRoom));
      births->told[1] = wicked->Hear(FrameType::kImages) ? 1 : 2;
      _exit(0);
    });
    EXPECT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
    EXPECT_TRUE(Stopped());
    EXPECT_TRUE(WaitUntil([] { return births->told[1] != 0; }));
    testing::internal::GetCapturedStderr();
  }
  EXPECT_EQ(births->told[1], 1);
}

// Also where the next one, whose start ends it as well, cannot be had.
TEST_F(WickedProcess, ThatClosesItsChannelIsEndedAtOnce) {
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady));
    births->told[0] = getpid();
    while (births->told[1] == 0) {
      usleep(1000);
    }
    close_range(3, ~0U, 0);
  });
  ASSERT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
  {
    const FailingCall failing("memfd_create", EMFILE, 1, FailingCall::kAll);
    births->told[1] = 1;
    EXPECT_TRUE(WaitUntil([] { return kill(births->told[0], 0) != 0; }));
  }
  const std::string log = LogOnceGoodAgain(1);
  EXPECT_EQ(CountOf(log, "agent: The SNMP process has ended (signal 9); starting another\n"), 2U)
      << log;
}

class UnheardProcess : public WickedProcess {
 protected:
  // The log, where what the agent answers fails so.
  std::string LogWhereSendFails(int error) {
    SnmpPublish(MakeImage(5, 0, {"tlxHoOsCommonPollFreq"}));
    Be(1, [](Wicked *wicked, int) {
      wicked->Say(FrameWriter(FrameType::kReady));
      births->told[0] = 1;
      while (births->told[1] == 0) {
        usleep(1000);
      }
      wicked->Say(SetPart(1, 0, 5));
    });
    EXPECT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
    const FailingCall failing("send", error);
    births->told[1] = 1;
    std::string log = LogOnceGoodAgain(1);
    EXPECT_EQ(failing.Failed(), 1);
    return log;
  }
};

TEST_F(UnheardProcess, ThatTakesNoMessagesIsReplaced) {
  const std::string log = LogWhereSendFails(EMSGSIZE);
  EXPECT_EQ(CountOf(log,
                    "agent: The SNMP process has ended (it takes no messages); starting "
                    "another\n"),
            1U)
      << log;
}

// A message that finds nobody is no reason: the process has one of its own to end. This one lives,
// and is killed.
TEST_F(UnheardProcess, ThatNoLongerListensIsToldByItsEnd) {
  const std::string log = LogWhereSendFails(EPIPE);
  EXPECT_EQ(CountOf(log, "agent: The SNMP process has ended (signal 9); starting another\n"), 2U)
      << log;
}

// A query ends as it is answered, whatever the answer makes of it.
TEST_F(WickedProcess, AnswersQueriesAsItLikes) {
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady));
    births->told[0] = 1;
    const auto answer = [wicked](int32_t status) {
      const auto asked = wicked->Hear(FrameType::kQuery);
      FrameReader reader(asked ? std::string_view(*asked) : std::string_view());
      FrameWriter frame(FrameType::kAnswer);
      frame.Put(reader.Take<uint64_t>()).Put(uint8_t{1}).Put(uint8_t{0}).Put(uint8_t{1});
      wicked->Say(frame.Put(status).Put(uint8_t{1}).Put(int32_t{42}));
    };
    answer(0);
    answer(5);
    wicked->Hear(FrameType::kQuery);
    _exit(0);
  });
  ASSERT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
  WaitUntil([] { return false; }, 50);
  const auto ask = [] { return SnmpQueryInteger("127.0.0.1", "public", "1.3.6.1", seconds(10)); };
  SnmpAnswer answer = ask();
  EXPECT_EQ(answer.end, QueryEnd::kAnswered);
  EXPECT_EQ(answer.value, 42);
  answer = ask();
  EXPECT_EQ(answer.end, QueryEnd::kAnswered);
  EXPECT_EQ(answer.status, 5);
  EXPECT_FALSE(answer.value);
  answer = ask();
  EXPECT_EQ(answer.end, QueryEnd::kNotAsked) << "it has ended with it";
  LogOnceGoodAgain(1);
}

// Nor is a query remembered for ever that it never answers.
TEST_F(WickedProcess, ForgetsNoQueryButTheAgentDoes) {
  Be(1, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady));
    births->told[0] = 1;
    wicked->Hear(FrameType::kQuery);
    births->told[1] = 1;
  });
  ASSERT_TRUE(WaitUntil([] { return births->told[0] != 0; }));
  WaitUntil([] { return false; }, 50);
  std::atomic<bool> ended{false};
  std::thread asking([&ended] {
    SnmpQueryInteger("127.0.0.1", "public", "1.3.6.1", seconds(60));
    ended = true;
  });
  EXPECT_TRUE(WaitUntil([] { return births->told[1] != 0; }));
  EXPECT_FALSE(ended);
  ahead_ms = 12000;
  SnmpSetTick([] {}, 1000);
  EXPECT_TRUE(WaitUntil([&ended] { return ended.load(); }, 5000));
  ending = 1;
  asking.join();
  ending = 0;
  testing::internal::GetCapturedStderr();
}

// While there is none, or no memory, nothing is asked; what is published and notified meanwhile is
// the next one's.
TEST_F(WickedProcess, ThatCannotBeHadIsSaidOnceAndTriedAgain) {
  // The starter tells of its end later than it is seen.
  at_birth[kStarter] = [] {
    new FailingCall(
        "waitpid", [] { usleep(100'000); }, 1, FailingCall::kAll);
  };
  const FailingCall failing("memfd_create", EMFILE, 3, FailingCall::kAll);
  ASSERT_EQ(SnmpStart("vexhostd", nullptr), 0);
  ASSERT_GT(births->last_process, 0);
  {
    testing::internal::CaptureStderr();
    ASSERT_EQ(kill(births->last_process, SIGKILL), 0);
    EXPECT_TRUE(WaitUntil([] { return kill(births->last_process, 0) != 0; }));
    ASSERT_TRUE(WaitUntil([&] { return failing.Failed() >= 2; }));
    SnmpPublish(MakeImage(5, 0, {"tlxHoOsCommonPollFreq"}));
    SnmpNotify({});
    EXPECT_EQ(SnmpQueryInteger("127.0.0.1", "public", "1.3.6.1", seconds(10)).end,
              QueryEnd::kNotAsked);
    const int before = failing.Failed();
    ASSERT_TRUE(WaitUntil([&] { return failing.Failed() > before; }));
  }
  EXPECT_TRUE(Stopped());
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(
      CountOf(log, "agent: Can't start an SNMP process: Too many open files (trying again)\n"), 1U)
      << log;
  EXPECT_EQ(CountOf(log, "Can't"), 1U) << log;
  EXPECT_EQ(CountOf(log, "agent: The SNMP process has ended (signal 9); starting another\n"), 1U)
      << log;
  EXPECT_EQ(SnmpUnsent()->size(), 1U);
}

TEST_F(WickedProcess, ThatCannotBeStartedIsSaidToo) {
  at_birth[kStarter] = [] { new FailingCall("fork", EAGAIN, 2, 3); };
  at_birth[kSnmpProcess] = [] {
    if (births->count == 2) {
      new FailingCall("setgroups", EIO);
    }
  };
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  testing::internal::CaptureStderr();
  ASSERT_EQ(kill(births->last_process, SIGKILL), 0);
  ASSERT_TRUE(master_->HungUp(10000));
  master_->Disconnect();
  EXPECT_TRUE(master_->AcceptAndRegister(10000));
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(CountOf(log,
                    "agent: Can't start an SNMP process: Resource temporarily unavailable "
                    "(trying again)\n"),
            1U)
      << log;
  EXPECT_EQ(CountOf(log, "Can't start"), 1U) << log;
}

// Processes that could not be made are no ends of processes: the next one is tried soon, however
// many there were.
TEST_F(WickedProcess, ThatIsNotMadeForLongIsTriedAllTheSame) {
  at_birth[kStarter] = [] { new FailingCall("fork", EAGAIN, 2, 60); };
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  testing::internal::CaptureStderr();
  ASSERT_EQ(kill(births->last_process, SIGKILL), 0);
  ASSERT_TRUE(master_->HungUp(10000));
  master_->Disconnect();
  // Time flies.
  const bool born = WaitUntil([] {
    ahead_ms += 100;
    SnmpSetTick([] {}, 100);
    return births->count > 1;
  });
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(born);
  EXPECT_TRUE(master_->AcceptAndRegister(10000));
  EXPECT_EQ(CountOf(log, "again and again"), 0U) << log;
  EXPECT_EQ(CountOf(log, "Can't start"), 1U) << log;
}

// Processes that end at once are started again at once for a while, and then every five seconds.
TEST_F(WickedProcess, ThatEndsAgainAndAgainIsStartedLessOften) {
  static constexpr int kMany = 51;
  Be(kMany, [](Wicked *wicked, int) {
    wicked->Say(FrameWriter(FrameType::kReady));
    _exit(1);
  });
  ASSERT_TRUE(WaitUntil([] { return births->count == 51; }, 60000));
  WaitUntil([] { return births->count > 51; }, 100);
  EXPECT_EQ(births->count, 51) << "it is waited";
  ahead_ms = 6000;
  SnmpSetTick([] {}, 100);
  // Ends that are rare now are said no more.
  ASSERT_TRUE(WaitUntil([] { return births->count == 52; }));
  WaitUntil([] { return false; }, 50);
  ahead_ms = 12000;
  SnmpSetTick([] {}, 100);
  ASSERT_TRUE(WaitUntil([] { return births->count == 53; }));
  master_ = std::make_unique<FakeMaster>(socket_);
  EXPECT_TRUE(master_->AcceptAndRegister(10000));
  ahead_ms = 80000;
  static std::atomic<int> ticks;
  SnmpSetTick([] { ticks++; }, 100);
  // It is asked whether it lives, and says so.
  EXPECT_TRUE(master_->Ask(master_->Get({{1, 3, 6, 1, 4, 1, 4891}})));
  EXPECT_TRUE(WaitUntil([] { return ticks >= 2; }));
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(CountOf(log,
                    "agent: The SNMP process ends again and again; starting it every 5 "
                    "seconds\n"),
            1U)
      << log;
  EXPECT_EQ(CountOf(log, "agent: The SNMP process stays\n"), 1U) << log;
  // The starter tells of each end, too, and may be heard later or earlier than the connection's
  // end, which counts.
  EXPECT_GE(CountOf(log, "; starting another\n"), 49U) << log;
  EXPECT_LE(CountOf(log, "; starting another\n"), 51U) << log;
}

// A session that no process takes up again is one that has ended: no more is kept than for a master
// that is away.
TEST_F(WickedProcess, WithoutASessionForLongIsLikeNoMaster) {
  at_birth[kSnmpProcess] = [] {
    if (births->count > 1) {
      Wicked::Stay();
    }
  };
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  testing::internal::CaptureStderr();
  ASSERT_EQ(kill(births->last_process, SIGKILL), 0);
  ASSERT_TRUE(WaitUntil([] { return births->count == 2; }));
  for (int i = 0; i < 300; i++) {
    SnmpNotify({});
  }
  EXPECT_EQ(SnmpQueryInteger("127.0.0.1", "public", "1.3.6.1", seconds(10)).end,
            QueryEnd::kNotAsked)
      << "it is not ready";
  ahead_ms = 11000;
  static std::atomic<int> ticks;
  SnmpSetTick([] { ticks++; }, 100);
  EXPECT_TRUE(WaitUntil([] { return ticks >= 2; }));
  // Not only at the agent's end, by which it is so anyway.
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(Stopped());
  EXPECT_EQ(SnmpUnsent()->size(), 256U);
  EXPECT_NE(log.find("More than 256 notifications wait for the master agent; the oldest are "
                     "lost\n"),
            log.npos)
      << log;
}

TEST_F(WickedProcess, WantOfMemoryDelaysNotificationsAndEndsQueries) {
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  starved = RelayThread();
  refused = 0;
  SnmpNotify({});
  EXPECT_TRUE(WaitUntil([] { return refused != 0; }));
  EXPECT_EQ(SnmpQueryInteger("127.0.0.1", "public", "1.3.6.1", seconds(10)).end,
            QueryEnd::kNotAsked);
  EXPECT_FALSE(master_->Receive(20));
  starved = 0;
  std::optional<AgentxPacket> packet = master_->Receive(10000);
  ASSERT_TRUE(packet);
  master_->Answer(*packet);
  EXPECT_FALSE(master_->Receive(20));
}

// What no frame and no packet takes is nobody's, and holds up nothing.
TEST_F(WickedProcess, WhatIsTooLargeIsLeftOut) {
  auto large = MakeImage(5, 0, {"tlxHoGenericData"});
  large->data.resize(kRingSize / 2 + 4096);
  SnmpPublish(std::move(large));
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  auto image = MakeImage(6, 0, {"tlxHoOsCommonPollFreq"});
  image->data[0] = 42;
  SnmpPublish(std::move(image));
  Notification notification;
  notification.description = std::string(FrameSocket::kLongest, 'x');
  SnmpNotify(notification);
  notification.number = 2;
  notification.description = "short";
  SnmpNotify(notification);
  std::optional<AgentxPacket> packet = master_->Receive(10000);
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->Bindings().at(0).object_id.back(), 2U);
  master_->Answer(*packet);
  EXPECT_TRUE(WaitUntil([] { return SnmpNothingWaiting(); }));
  const auto value = [this](const char *name) {
    const std::span<const uint32_t> oid = FindMibVariable(name)->Oid();
    OidNumbers numbers(oid.begin(), oid.end());
    numbers.push_back(0);
    std::optional<AgentxPacket> answer = master_->Ask(master_->Get({numbers}));
    return answer && !answer->Bindings().empty() ? answer->Bindings()[0] : AgentxBinding();
  };
  EXPECT_EQ(value("tlxHoOsCommonPollFreq").integer, 42);
  EXPECT_EQ(value("tlxHoGenericData").type, AgentxBinding::kNoSuchInstance);
}

// ---- The start

class Start : public WithSnmpProcess {
 protected:
  SnmpRelay::Begun Begin(Clock::duration patience = seconds(60)) {
    SnmpSettings settings;
    SnmpRelay relay;
    why_.clear();
    return relay.Begin("vexhostd", kUser, Clock::now() + patience, &settings, &why_);
  }
  std::string why_;
};

// What lacks now is no reason to go on with more rights for as long as the agent runs.
TEST_F(Start, FailsForWhatMayPassAndElseDoesWithout) {
  for (const int error : {EAGAIN, EDQUOT, EINTR, EIO, EMFILE, ENFILE, ENOBUFS, ENOMEM, ENOSPC,
                          ETOOMANYREFS, ENOSYS, EPERM, EACCES}) {
    const FailingCall failing("socketpair", error);
    EXPECT_EQ(Begin(), error == ENOSYS || error == EPERM || error == EACCES
                           ? SnmpRelay::Begun::kUnable
                           : SnmpRelay::Begun::kFailed)
        << error;
    EXPECT_EQ(why_, strerror(error));
  }
  for (const int error : {EMFILE, ENOSYS}) {
    const FailingCall failing("memfd_create", error);
    EXPECT_EQ(Begin(), error == EMFILE ? SnmpRelay::Begun::kFailed : SnmpRelay::Begun::kUnable);
    EXPECT_EQ(why_, strerror(error));
  }
  for (const int error : {EAGAIN, ENOSYS}) {
    at_birth[kStarter] = [error] { new FailingCall("fork", error); };
    EXPECT_EQ(Begin(), error == EAGAIN ? SnmpRelay::Begun::kFailed : SnmpRelay::Begun::kUnable);
    EXPECT_EQ(why_, strerror(error));
  }
}

// What reads the configuration has nothing of the agent's open.
TEST_F(Start, LeavesItsStarterNoDescriptors) {
  constexpr int kFirst = STDERR_FILENO + 1;
  const Descriptor before(fcntl(kFirst, F_DUPFD_CLOEXEC, 10));
  const Descriptor file(open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(dup2(file.get(), kFirst), kFirst);
  static ino_t agents;
  struct stat status = {};
  ASSERT_EQ(fstat(kFirst, &status), 0);
  agents = status.st_ino;
  at_birth[kStarter] = [] {
    new FailingCall("stat", [] {  // of a file that it is about to read
      struct stat now = {};
      births->told[0] = fstat(kFirst, &now) == 0 && now.st_ino == agents ? 2 : 1;
    });
  };
  EXPECT_EQ(Begin(), SnmpRelay::Begun::kRuns);
  EXPECT_EQ(births->told[0], 1);
  if (before) {
    EXPECT_EQ(dup2(before.get(), kFirst), kFirst);
  } else if (file.get() != kFirst) {
    close(kFirst);
  }
}

// Also one that hangs is not waited for once the agent is to end.
TEST_F(Start, EndsWithTheAgent) {
  // It looks for the end of its starter a thousand times a second.
  const FailingCall looks(
      "waitpid", [] {}, 1, FailingCall::kAll);
  for (const Generation hangs : {kStarter, kSnmpProcess}) {
    at_birth[kStarter] = at_birth[kSnmpProcess] = nullptr;
    at_birth[hangs] = [] { Wicked::Stay(); };
    ending = 1;
    EXPECT_EQ(Begin(), SnmpRelay::Begun::kEnding);
    EXPECT_EQ(why_, "");
    ending = 0;
  }
  at_birth[kStarter] = [] { Wicked::Stay(); };
  EXPECT_EQ(Begin(milliseconds(0)), SnmpRelay::Begun::kEnding);
  EXPECT_EQ(why_, "reading its configuration takes more than a minute");
  EXPECT_LE(looks.Failed(), 400);  // of three
}

// It is killed only where it does not end by itself.
TEST_F(Start, LetsItsStarterGo) {
  // Not for long: again where it was not given a processor.
  int kills = 1;
  for (int tries = 0; tries < 5 && kills != 0; tries++) {
    const FailingCall killed(
        "kill", [] {}, 1, FailingCall::kAll);
    EXPECT_EQ(Begin(), SnmpRelay::Begun::kRuns);
    kills = killed.Failed();
  }
  EXPECT_EQ(kills, 0);
}

TEST_F(Start, TakesNoNonsenseOfItsStarter) {
  for (const bool configured : {false, true}) {
    at_birth[kStarter] = [configured] {
      FrameSocket channel{Descriptor(StartersChannel())};
      channel.Send(FrameWriter(configured ? FrameType::kConfigured : FrameType::kPong));
      Wicked::Stay();
    };
    EXPECT_EQ(Begin(), SnmpRelay::Begun::kFailed);
    EXPECT_EQ(why_, "its starter makes no sense");
  }
}

// Names are looked up by who may ask the network.
TEST_F(Start, DoesWithoutForAnAddressThatIsToBeLookedUp) {
  std::ofstream(directory_ + "/vexhostd.conf") << "agentXSocket tcp:no-such-host:705\n";
  EXPECT_EQ(Begin(), SnmpRelay::Begun::kUnable);
  EXPECT_EQ(why_, "the address of the master agent is to be looked up: tcp:no-such-host:705");
}

}  // namespace
}  // namespace vex
