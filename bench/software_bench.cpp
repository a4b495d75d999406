// The software pass: with nothing to do, with a rescan of 50 packages of the suite by the real dpkg
// over a database of its own, and the update and publication of rows.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/framework.h"
#include "software/packages.h"
#include "software/swver.h"

namespace {

constexpr int kPackages = 50;
constexpr char kDatabase[] = "/var/lib/dpkg";
constexpr char kAvailable[] = "/var/lib/dpkg/available";

bool PrepareRegistry() {
  strcpy(log_dir, REGISTRY_ROOT "/host");
  return create_dir(log_dir, 1) == 0;
}

// dpkg's database, with packages of the suite alone; this process's mounts are its own.
class Database {
 public:
  Database() {
    char name[] = "/var/tmp/vexhostd-dpkg.XXXXXX";
    if (mkdtemp(name) == nullptr) {
      return;
    }
    directory_ = name;
    for (const char *part : {"/info", "/updates", "/triggers"}) {
      std::filesystem::create_directories(directory_ + part);
    }
    std::ofstream status(directory_ + "/status");
    for (int i = 0; i < kPackages; i++) {
      status << "Package: qv-driver" << i + 100
             << "\nStatus: install ok installed\nMaintainer: Nobody <nobody@localhost>\n"
                "Architecture: all\nVersion: 1.0-"
             << i << "\nDescription: A driver of the suite\n\n";
    }
    status.close();
    std::ofstream(directory_ + "/available").close();
    mounted_ = status.good() && mount(name, kDatabase, nullptr, MS_BIND, nullptr) == 0;
  }
  ~Database() {
    if (mounted_) {
      umount2(kDatabase, MNT_DETACH);
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  Database(const Database &) = delete;
  Database &operator=(const Database &) = delete;

  bool Good() const {
    return mounted_;
  }
  // Makes the next pass scan.
  static void Change() {
    static time_t time = 2000000000;
    time++;
    const timespec times[2] = {{time, 0}, {time, 0}};
    utimensat(AT_FDCWD, kAvailable, times, 0);
  }

 private:
  std::string directory_;
  bool mounted_ = false;
};

void SoftwarePassWithNothingToDo(benchmark::State &state) {
  Database database;
  if (!PrepareRegistry() || !database.Good() || do_swver() != 0) {
    state.SkipWithError("the database cannot be made");
  }
  for (auto _ : state) {
    do_swver();
  }
}
BENCHMARK(SoftwarePassWithNothingToDo)->Unit(benchmark::kMicrosecond);

void SoftwareRescan(benchmark::State &state) {
  Database database;
  if (!PrepareRegistry() || !database.Good()) {
    state.SkipWithError("the database cannot be made");
  }
  for (auto _ : state) {
    Database::Change();
    do_swver();
  }
  const swver_row *row = swver_find("qv-driver100");
  if (row == nullptr || row->state != SWVER_SEEN) {
    state.SkipWithError("the scan did not find the packages");
  }
  state.counters["packages"] = kPackages;
}
BENCHMARK(SoftwareRescan)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void PutRows(int64_t count, const std::string &version) {
  for (int64_t i = 0; i < count; i++) {
    const std::string name = "bench-" + std::to_string(i);
    const swver_item item = {name.c_str(), version.c_str(), "A package"};
    swver_put(&item, SWVER_TYPE_OTHER, SWVER_STATUS_FOUND, SWVER_SEEN);
  }
  swver_finish_pass();
}

// Every row gets another version in each round.
void SoftwareUpdateAndPublish(benchmark::State &state) {
  if (!PrepareRegistry()) {
    state.SkipWithError("the registry cannot be made");
  }
  int round = 0;
  PutRows(state.range(0), std::to_string(round));
  for (auto _ : state) {
    PutRows(state.range(0), std::to_string(++round));
  }
  using benchmark::Counter;
  state.counters["per_row"] = Counter(static_cast<double>(state.range(0)),
                                      Counter::kIsIterationInvariantRate | Counter::kInvert);
  swver_change_state(SWVER_SEEN, SWVER_NOT_SEEN);
  swver_finish_pass();
}
BENCHMARK(SoftwareUpdateAndPublish)
    ->Arg(1000)
    ->Arg(3000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond);

}  // namespace
