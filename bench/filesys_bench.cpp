// One pass of the file-system table over so many real mounts, with nothing changed and with
// everything changed. The cost of a mount ("per_mount") must not grow with their number. Beside it,
// what the same pass costs when it only reads the mount table and calls statvfs() on each mount.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <mntent.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "monitors/filesys.h"
#include "platform/framework.h"

namespace {

// One tmpfs, mounted so many times over: a change of its size changes all of them.
class Mounts {
 public:
  explicit Mounts(int64_t count) {
    char name[] = "/tmp/vexhostd-mounts.XXXXXX";
    if (mkdtemp(name) == nullptr || mount("bench", name, "tmpfs", 0, "size=64m") != 0) {
      return;
    }
    base_ = name;
    file_ = open((base_ + "/file").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    mkdir((base_ + "/source").c_str(), 0700);
    good_ = file_ >= 0;
    for (int64_t n = 0; n < count && good_; n++) {
      const std::string directory = base_ + "/m" + std::to_string(n);
      good_ = mkdir(directory.c_str(), 0700) == 0 &&
              mount((base_ + "/source").c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) == 0;
    }
  }
  ~Mounts() {
    close(file_);
    umount2(base_.c_str(), MNT_DETACH);
    rmdir(base_.c_str());
  }
  Mounts(const Mounts &) = delete;
  Mounts &operator=(const Mounts &) = delete;

  bool Good() const {
    return good_;
  }
  // Uses some megabytes more or less than before.
  bool Change() {
    large_ = !large_;
    return ftruncate(file_, 0) == 0 && (!large_ || posix_fallocate(file_, 0, off_t{8} << 20) == 0);
  }

 private:
  std::string base_;
  int file_ = -1;
  bool good_ = false;
  bool large_ = false;
};

bool PrepareRegistry() {
  strcpy(log_dir, REGISTRY_ROOT "/host");
  return create_dir(log_dir, 1) == 0;
}

void CountMounts(benchmark::State &state) {
  using benchmark::Counter;
  state.counters["per_mount"] = Counter(static_cast<double>(state.range(0)),
                                        Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void FileSystemPass(benchmark::State &state) {
  const bool changed = state.range(1) != 0;
  Mounts mounts(state.range(0));
  if (!PrepareRegistry() || !mounts.Good() || do_filesys() != 0) {
    state.SkipWithError("the mounts cannot be made");
  }
  for (auto _ : state) {
    if (changed) {
      state.PauseTiming();
      const bool done = mounts.Change();
      state.ResumeTiming();
      if (!done) {
        state.SkipWithError("the mounts cannot be changed");
        break;
      }
    }
    if (do_filesys() != 0) {
      state.SkipWithError("the pass failed");
      break;
    }
  }
  CountMounts(state);
  remove_filesys_rows(nullptr);
}
BENCHMARK(FileSystemPass)
    ->ArgNames({"mounts", "changed"})
    ->ArgsProduct({{10, 1000, 10000}, {0, 1}})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

void PlainStatvfs(benchmark::State &state) {
  Mounts mounts(state.range(0));
  if (!mounts.Good()) {
    state.SkipWithError("the mounts cannot be made");
  }
  for (auto _ : state) {
    FILE *table = setmntent("/etc/mtab", "r");
    while (const mntent *entry = getmntent(table)) {
      struct statvfs figures;
      benchmark::DoNotOptimize(statvfs(entry->mnt_dir, &figures));
    }
    endmntent(table);
  }
  CountMounts(state);
}
BENCHMARK(PlainStatvfs)
    ->ArgName("mounts")
    ->Arg(10)
    ->Arg(1000)
    ->Arg(10000)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
