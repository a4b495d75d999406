// Runs every selected test in a process of its own, because the Host Agent's module state lives as
// long as the process.
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

namespace {

// GoogleTest's filter: patterns separated by colons, those after a dash exclude.
bool AnyMatches(const std::string &patterns, const std::string &name) {
  std::istringstream list(patterns);
  for (std::string pattern; std::getline(list, pattern, ':');) {
    if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0) {
      return true;
    }
  }
  return false;
}

bool Selected(const std::string &filter, const std::string &name) {
  const size_t dash = filter.find('-');
  const std::string wanted = filter.substr(0, dash);
  return AnyMatches(wanted.empty() ? "*" : wanted, name) &&
         (dash == std::string::npos || !AnyMatches(filter.substr(dash + 1), name));
}

int RunAlone(const char *self, const std::string &filter) {
  fflush(stdout);
  const pid_t child = fork();
  // An emulator takes seconds to start the program.
  if (child == 0 && getenv("VEX_TESTS_FORKED") != nullptr) {
    testing::GTEST_FLAG(filter) = filter;
    exit(RUN_ALL_TESTS());
  }
  if (child == 0) {
    const std::string argument = "--gtest_filter=" + filter;
    setenv("VEX_TEST_ALONE", "1", 1);
    // Who wants to know the first that fails wants to know the one that hangs, too.
    execl(self, self, argument.c_str(),
          testing::GTEST_FLAG(fail_fast) ? "--gtest_brief=0" : "--gtest_brief=1", nullptr);
    _exit(127);
  }
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child ? status : -1;
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  if (testing::GTEST_FLAG(list_tests) || getenv("VEX_TEST_ALONE") != nullptr) {
    return RUN_ALL_TESTS();
  }
  // With a filter that names one test (as CTest gives) there is nothing to separate.
  const std::string filter = testing::GTEST_FLAG(filter);
  if (filter.find_first_of("*?:-") == std::string::npos) {
    return RUN_ALL_TESTS();
  }
  int failed = 0;
  int run = 0;
  const testing::UnitTest &unit = *testing::UnitTest::GetInstance();
  for (int s = 0; s < unit.total_test_suite_count(); s++) {
    const testing::TestSuite &suite = *unit.GetTestSuite(s);
    for (int t = 0; t < suite.total_test_count(); t++) {
      const testing::TestInfo &test = *suite.GetTestInfo(t);
      if (!Selected(filter, std::string(suite.name()) + "." + test.name())) {
        continue;
      }
      const std::string name = std::string(suite.name()) + "." + test.name();
      run++;
      if (RunAlone("/proc/self/exe", name) != 0) {
        printf("FAILED %s\n", name.c_str());
        failed++;
        if (testing::GTEST_FLAG(fail_fast)) {
          return 1;
        }
      }
    }
  }
  printf("%d of %d tests failed\n", failed, run);
  return failed != 0 || run == 0;
}
