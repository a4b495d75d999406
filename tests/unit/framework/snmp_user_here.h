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
    char path[] = "/tmp/snmp_user.XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << std::ifstream("/etc/passwd").rdbuf()
                        << "_vexhostd:x:990:990::/nonexistent:/usr/sbin/nologin\n";
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
    ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    ASSERT_EQ(mount(path, "/etc/passwd", nullptr, MS_BIND, nullptr), 0) << strerror(errno);
    unlink(path);
  }
};

}  // namespace vex

#endif
