// One server with everything that the agent can tell of, made up to the last digit: what
// host/golden_test.cpp records, and faults/ disturbs.
#ifndef VEX_TESTS_SUPPORT_GOLDEN_HOST_H
#define VEX_TESTS_SUPPORT_GOLDEN_HOST_H

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/fuse_mount.h"
#include "tests/support/made_up_host.h"
#include "tests/support/simulated_controller.h"

namespace made_up {

// A processor's line of /proc/stat.
struct Ticks {
  unsigned user, nice, system, idle;
};

// The texts of /proc/stat and /proc/meminfo.
std::string GoldenStat(const std::vector<Ticks> &processors);
std::string GoldenMemory(unsigned total, unsigned free, unsigned swap_total, unsigned swap_free);

// Only the figures of a counter differ from one poll to the next. What would hide something else is
// not there: a remote card (hidden by the integrated controller), record 226 (it hides the system's
// UUID) and somebody at the telnet port (looks like a missing right to bind).
class GoldenHost {
 public:
  // With a UUID in its SMBIOS tables, or with a GUID that is kept in a file.
  explicit GoldenHost(bool own_uuid = true);
  ~GoldenHost();
  GoldenHost(const GoldenHost &) = delete;
  GoldenHost &operator=(const GoldenHost &) = delete;

  // snmpd, with the objects of agents of other makers.
  void StartMaster();
  // The clock, the kernel and the period of the recordings: two polls a minute.
  DaemonOptions Options() const;
  // Publishes a sibling's object.
  void Put(const std::string &object, const std::vector<int> &values);
  // What dpkg lists: always the same packages, but for the version of one. The time is that of the
  // last change, which makes the agent look.
  void PutPackages(const std::string &vexfoo_version, time_t changed);
  // The file systems with figures, in the order of /etc/mtab.
  FuseMount &Mount(size_t number) {
    return *mounts_.at(number);
  }

  mutable MadeUpHost host;

 private:
  void PutSystem(bool own_uuid);
  void PutMounts();
  void PutSoftware();
  void PutDevices();
  void PutSiblings();
  void PutThreshold(int number, const std::string &oid, int severity);

  vex::SimulatedController controller_;
  std::vector<std::unique_ptr<FuseMount>> mounts_;
  int segment_ = -1;
};

}  // namespace made_up

#endif
