// The user of the SNMP process, in a mount namespace of the tests' own.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_SNMP_USER_HERE_H
#define VEX_TESTS_UNIT_FRAMEWORK_SNMP_USER_HERE_H

#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace vex {

// Takes root.
class SnmpUserHere : public testing::Environment {
 public:
  void SetUp() override {
    const int fd = mkstemp(path_);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path_) << std::ifstream("/etc/passwd").rdbuf()
                         << "_vexhostd:x:990:990::/nonexistent:/usr/sbin/nologin\n";
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
    ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    ASSERT_EQ(mount(path_, "/etc/passwd", nullptr, MS_BIND, nullptr), 0) << strerror(errno);
  }
  // Not before: nothing is mounted over a file that has no name.
  void TearDown() override {
    unlink(path_);
  }

 private:
  char path_[24] = "/tmp/snmp_user.XXXXXX";
};

}  // namespace vex

#endif
