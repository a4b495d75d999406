// Asking mounts, with a made-up statvfs() that hangs on demand.
#include "framework/mount_stats.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;

// The mounts: "/hang..." do not answer until they are let go, those with "fail" are stale,
// "/slow..." take a tenth of a second, others answer with the length of their path.
class Mounts {
 public:
  static int Stat(const char *path, struct statvfs *result) {
    Mounts &m = Get();
    std::unique_lock hold(m.lock_);
    m.asked_[path]++;
    if (strncmp(path, "/hang", 5) == 0) {
      m.changed_.wait(hold, [&] { return m.free_[path] || m.all_free_; });
    }
    if (strncmp(path, "/slow", 5) == 0) {
      m.changed_.wait_for(hold, 100ms, [&] { return m.all_free_; });
    }
    if (strstr(path, "fail") != nullptr) {
      errno = ESTALE;
      return -1;
    }
    *result = {};
    result->f_frsize = 4096;
    result->f_blocks = strlen(path);
    result->f_bfree = 3;
    result->f_files = 2;
    result->f_ffree = 1;
    return 0;
  }
  static Mounts &Get() {
    static auto *mounts = new Mounts;
    return *mounts;
  }

  void Free(const std::string &path) {
    const std::lock_guard hold(lock_);
    free_[path] = true;
    changed_.notify_all();
  }
  void Reset() {
    const std::lock_guard hold(lock_);
    free_.clear();
    asked_.clear();
    all_free_ = false;
  }
  void FreeAll() {
    const std::lock_guard hold(lock_);
    all_free_ = true;
    changed_.notify_all();
  }
  int Asked(const std::string &path) {
    const std::lock_guard hold(lock_);
    return asked_[path];
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::map<std::string, bool> free_;
  std::map<std::string, int> asked_;
  bool all_free_ = false;
};

class MountAsker : public testing::Test {
 protected:
  void SetUp() override {
    Mounts::Get().Reset();
  }
  void TearDown() override {
    Mounts::Get().FreeAll();
    WaitForReturn(0);
  }

  std::vector<mount_stats> Ask(const std::vector<std::string> &paths) {
    std::vector<const char *> list;
    for (const std::string &path : paths) {
      list.push_back(path.c_str());
    }
    std::vector<mount_stats> results(paths.size());
    const auto begin = std::chrono::steady_clock::now();
    asker_.Ask(list.data(), list.size(), results.data());
    took_ = std::chrono::steady_clock::now() - begin;
    return results;
  }
  std::vector<int> States(const std::vector<std::string> &paths) {
    std::vector<int> states;
    for (const mount_stats &result : Ask(paths)) {
      states.push_back(result.state);
    }
    return states;
  }
  void WaitForReturn(size_t outstanding) {
    for (int i = 0; i < 1000 && asker_.Outstanding() > outstanding; i++) {
      usleep(5000);
    }
    ASSERT_LE(asker_.Outstanding(), outstanding);
  }

  static vex::MountAsker::Settings Settings() {
    return {.stat = Mounts::Stat, .limit = 300ms, .patience = 10ms, .most_outstanding = 6};
  }
  vex::MountAsker asker_{Settings()};
  std::chrono::nanoseconds took_{};
};

TEST_F(MountAsker, StoresWhatTheMountsSay) {
  const auto results = Ask({"/", "/fail", "/home"});
  EXPECT_EQ(results[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[0].frsize, 4096u);
  EXPECT_EQ(results[0].blocks, 1u);
  EXPECT_EQ(results[0].bfree, 3u);
  EXPECT_EQ(results[0].files, 2u);
  EXPECT_EQ(results[0].ffree, 1u);
  EXPECT_EQ(results[1].state, MOUNT_FAILED);
  EXPECT_EQ(results[1].error, ESTALE);
  EXPECT_EQ(results[2].blocks, 5u);
}

TEST_F(MountAsker, NothingToAsk) {
  EXPECT_TRUE(Ask({}).empty());
}

TEST_F(MountAsker, ALongPathFails) {
  const auto results =
      Ask({"/" + std::string(PATH_MAX - 1, 'a'), "/" + std::string(PATH_MAX - 2, 'a')});
  EXPECT_EQ(results[0].state, MOUNT_FAILED);
  EXPECT_EQ(results[0].error, ENAMETOOLONG);
  EXPECT_EQ(results[1].blocks, static_cast<uint64_t>(PATH_MAX - 1));
}

TEST_F(MountAsker, OneSilentMountHoldsUpNobodyElse) {
  const auto results = Ask({"/a", "/hang", "/b", "/c"});
  EXPECT_EQ(results[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[1].state, MOUNT_SILENT);
  EXPECT_EQ(results[1].error, ETIMEDOUT);
  EXPECT_EQ(results[2].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[3].state, MOUNT_ANSWERED);
  EXPECT_GE(took_, 300ms);
  EXPECT_LT(took_, 1s);
}

TEST_F(MountAsker, ASilentMountIsNotAskedAgainUntilItsCallHasComeBack) {
  Ask({"/hang", "/b"});
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(States({"/hang", "/b"}), (std::vector<int>{MOUNT_STILL_SILENT, MOUNT_ANSWERED}));
    EXPECT_LT(took_, 200ms);
  }
  EXPECT_EQ(Mounts::Get().Asked("/hang"), 1);
  EXPECT_EQ(asker_.Outstanding(), 1u);
  Mounts::Get().Free("/hang");
  WaitForReturn(0);
  EXPECT_EQ(States({"/hang", "/b"}), (std::vector<int>{MOUNT_ANSWERED, MOUNT_ANSWERED}));
  EXPECT_EQ(Mounts::Get().Asked("/hang"), 2);
}

TEST_F(MountAsker, SilenceThatGoesOnIsNotNews) {
  Ask({"/hang"});
  Mounts::Get().Free("/hang");
  WaitForReturn(0);
  Mounts::Get().Reset();
  EXPECT_EQ(States({"/hang"}), std::vector<int>{MOUNT_STILL_SILENT});
  EXPECT_EQ(Mounts::Get().Asked("/hang"), 1);
  Mounts::Get().Free("/hang");
  WaitForReturn(0);
  EXPECT_EQ(States({"/hang"}), std::vector<int>{MOUNT_ANSWERED});
  Mounts::Get().Reset();
  EXPECT_EQ(States({"/hang"}), std::vector<int>{MOUNT_SILENT});
}

TEST_F(MountAsker, SeveralSilentMountsShareTheWait) {
  EXPECT_EQ(States({"/hang1", "/a", "/hang2", "/b", "/hang3", "/hang4", "/c"}),
            (std::vector<int>{MOUNT_SILENT, MOUNT_ANSWERED, MOUNT_SILENT, MOUNT_ANSWERED,
                              MOUNT_SILENT, MOUNT_SILENT, MOUNT_ANSWERED}));
  EXPECT_LT(took_, 1s);
  EXPECT_EQ(asker_.Outstanding(), 4u);
}

TEST_F(MountAsker, AMountThatIsNoLongerListedIsForgotten) {
  Ask({"/hang", "/b"});
  Ask({"/b"});
  EXPECT_EQ(States({"/hang", "/b"}), (std::vector<int>{MOUNT_SILENT, MOUNT_ANSWERED}));
  EXPECT_EQ(Mounts::Get().Asked("/hang"), 2);
  EXPECT_EQ(asker_.Outstanding(), 2u);
}

TEST_F(MountAsker, OneOfTwoRecovers) {
  Ask({"/hang1", "/hang2"});
  Mounts::Get().Free("/hang2");
  WaitForReturn(1);
  EXPECT_EQ(States({"/hang1", "/hang2"}), (std::vector<int>{MOUNT_STILL_SILENT, MOUNT_ANSWERED}));
}

TEST_F(MountAsker, AFailureEndsTheSilence) {
  EXPECT_EQ(States({"/hang-fail"}), std::vector<int>{MOUNT_SILENT});
  Mounts::Get().Free("/hang-fail");
  WaitForReturn(0);
  EXPECT_EQ(States({"/hang-fail"}), std::vector<int>{MOUNT_FAILED});
  Mounts::Get().Reset();
  EXPECT_EQ(States({"/hang-fail"}), std::vector<int>{MOUNT_SILENT});
}

TEST_F(MountAsker, TheSamePathTwiceIsNewsOnce) {
  EXPECT_EQ(States({"/hang", "/hang"}), (std::vector<int>{MOUNT_SILENT, MOUNT_STILL_SILENT}));
}

TEST_F(MountAsker, SlowMountsAnswer) {
  const std::vector<std::string> paths = {"/slow1", "/slow2", "/slow3", "/slow4", "/slow5"};
  EXPECT_EQ(States(paths), std::vector<int>(5, MOUNT_ANSWERED));
  EXPECT_LT(took_, 450ms);  // not one after the other
}

TEST_F(MountAsker, TooManySilentMountsLeaveTheRestSilent) {
  std::vector<std::string> paths;
  for (int i = 0; i < 9; i++) {
    paths.push_back("/hang" + std::to_string(i));
  }
  paths.emplace_back("/healthy");
  EXPECT_EQ(States(paths), std::vector<int>(10, MOUNT_SILENT));
  EXPECT_EQ(asker_.Outstanding(), 6u);
  // Those that could not be asked are asked again, but nothing is news.
  EXPECT_EQ(States(paths), std::vector<int>(10, MOUNT_STILL_SILENT));
  EXPECT_LE(asker_.Outstanding(), 7u);
  Mounts::Get().FreeAll();
  WaitForReturn(0);
  EXPECT_EQ(States(paths), std::vector<int>(10, MOUNT_ANSWERED));
}

TEST_F(MountAsker, AHealthyBatchIsAskedDespiteManySilentMounts) {
  std::vector<std::string> paths;
  for (int i = 0; i < 6; i++) {
    paths.push_back("/hang" + std::to_string(i));
  }
  Ask(paths);
  EXPECT_EQ(asker_.Outstanding(), 6u);
  paths.emplace_back("/healthy");
  EXPECT_EQ(States(paths).back(), MOUNT_ANSWERED);
}

TEST_F(MountAsker, ManyHealthyMountsAreAskedOnceEach) {
  std::vector<std::string> paths;
  for (int i = 0; i < 2000; i++) {
    paths.push_back("/m" + std::to_string(i));
  }
  const auto results = Ask(paths);
  for (size_t i = 0; i < paths.size(); i++) {
    ASSERT_EQ(results[i].state, MOUNT_ANSWERED);
    ASSERT_EQ(results[i].blocks, paths[i].size());
    ASSERT_EQ(Mounts::Get().Asked(paths[i]), 1);
  }
}

TEST(StatMounts, AsksTheRealOnes) {
  const char *paths[] = {"/proc", "/nonexistent-directory"};
  mount_stats results[2];
  struct statvfs expected;
  ASSERT_EQ(statvfs("/proc", &expected), 0);
  ASSERT_EQ(stat_mounts(paths, 2, results), 0);
  EXPECT_EQ(results[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[0].frsize, expected.f_frsize);
  EXPECT_EQ(results[1].state, MOUNT_FAILED);
  EXPECT_EQ(results[1].error, ENOENT);
}

// The process ends at once although a call is outstanding.
TEST(MountAskerEnd, ExitDoesNotWait) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(
      {
        Mounts::Get().Reset();
        auto *asker = new vex::MountAsker({.stat = Mounts::Stat, .limit = 100ms, .patience = 10ms});
        const char *path = "/hang";
        mount_stats result;
        asker->Ask(&path, 1, &result);
        exit(result.state == MOUNT_SILENT ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
