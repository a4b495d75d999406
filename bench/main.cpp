// The benchmarks publish real objects: in a mount namespace of their own, with a directory of
// /var/tmp (a disk, not tmpfs) in the registry's place.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

// Puts a /proc/stat of that many processors in the place of the machine's.
bool MakeUpProcessors(int count, const std::string &path) {
  std::ofstream stat(path);
  stat << "cpu  1000 0 1000 8000 0 0 0 0 0 0\n";
  for (int i = 0; i < count; i++) {
    stat << "cpu" << i << " 1000 0 1000 8000 0 0 0 0 0 0\n";
  }
  stat.close();
  return mount(path.c_str(), "/proc/stat", nullptr, MS_BIND, nullptr) == 0;
}

}  // namespace

int main(int argc, char **argv) {
  char directory[] = "/var/tmp/vexhostd-bench.XXXXXX";
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mkdtemp(directory) == nullptr ||
      (mkdir("/var/spool/quorix", 0755) != 0 && access("/var/spool/quorix", F_OK) != 0) ||
      mount(directory, "/var/spool/quorix", nullptr, MS_BIND, nullptr) != 0) {
    perror("benchmarks: cannot set up the registry (root is needed)");
    return 1;
  }
  const char *cpus = getenv("VEX_BENCH_CPUS");
  if (cpus != nullptr && !MakeUpProcessors(atoi(cpus), std::string(directory) + "/stat")) {
    perror("benchmarks: cannot make up /proc/stat");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  benchmark::RunSpecifiedBenchmarks();
  umount2("/var/spool/quorix", MNT_DETACH);
  std::filesystem::remove_all(directory);
  return 0;
}
