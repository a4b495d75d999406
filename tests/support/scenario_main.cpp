// main() of the scenarios: every test runs in a process of its own, in its own mount, network, PID,
// UTS and IPC namespaces, over a private copy-on-write root. Whatever it starts ends with it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

[[noreturn]] void Fail(const std::string &what) {
  fprintf(stderr, "made-up host: %s: %s\n", what.c_str(), strerror(errno));
  _exit(3);
}

void Mount(const std::string &from, const std::string &to, const char *type, unsigned long flags,
           const std::string &data = "") {
  if (mount(from.c_str(), to.c_str(), type, flags, data.c_str()) != 0) {
    Fail("mount " + (type != nullptr ? std::string(type) : from) + " on " + to);
  }
}

bool IsBelow(const std::string &path, const std::string &directory) {
  return path == directory || path.starts_with(directory + "/");
}

// Mount points directly below the root, except those that a scenario gets its own of.
std::vector<std::string> OtherMounts() {
  std::vector<std::string> found;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string id, parent, device, root, path;
    fields >> id >> parent >> device >> root >> path;
    bool own = path == "/" || path.find('\\') != std::string::npos;
    for (const char *directory : {"/proc", "/sys", "/dev", "/run", "/tmp", "/etc", "/var"}) {
      own = own || IsBelow(path, directory);
    }
    for (const std::string &other : found) {
      own = own || IsBelow(path, other);
    }
    if (!own) {
      found.push_back(path);
    }
  }
  return found;
}

// Shows a directory of the machine as it is: what is written there stays.
void Keep(const std::string &root, const std::string &directory) {
  std::error_code error;
  std::filesystem::create_directories(root + directory, error);
  Mount(directory, root + directory, nullptr, MS_BIND | MS_REC);
}

void EnterRoot() {
  const std::string build = VEX_TESTS_BINARY_DIR;
  const std::string source = VEX_TESTS_SOURCE_DIR;
  std::vector<std::string> others = OtherMounts();
  // The new root needs a place: the old /sys, which is needed no more.
  const std::string base = "/sys", root = base + "/root";
  Mount("made-up", base, "tmpfs", 0, "mode=755");
  for (const char *directory : {"/upper", "/work", "/root"}) {
    if (mkdir((base + directory).c_str(), 0755) != 0) {
      Fail(directory);
    }
  }
  Mount("made-up", root, "overlay", 0,
        "lowerdir=/,upperdir=" + base + "/upper,workdir=" + base + "/work");
  for (const std::string &path : others) {
    Keep(root, path);
  }
  for (const char *directory : {"/run", "/tmp"}) {
    Mount("made-up", root + directory, "tmpfs", 0, "mode=1777");
  }
  // Also when they lie below /tmp; the build's for the coverage data that a run may write.
  Keep(root, source);
  Keep(root, build);

  Mount("sysfs", root + "/sys", "sysfs", 0);
  Mount("firmware", root + "/sys/firmware", "tmpfs", 0, "mode=755");
  Mount("proc", root + "/proc", "proc", 0);
  Mount("dev", root + "/dev", "tmpfs", 0, "mode=755");
  for (const char *name : {"null", "zero", "full", "random", "urandom", "tty", "fuse"}) {
    std::string path = std::string("/dev/") + name;
    struct stat device = {};
    if (stat(path.c_str(), &device) != 0) {
      continue;
    }
    // A node of its own: what is done to the mode of the machine's would stay.
    if (mknod((root + path).c_str(), S_IFCHR | 0666, device.st_rdev) != 0 ||
        chmod((root + path).c_str(), 0666) != 0) {
      Fail(path);
    }
  }
  for (const char *name : {"/dev/pts", "/dev/shm"}) {
    mkdir((root + name).c_str(), 0755);
  }
  Mount("devpts", root + "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666");
  Mount("shm", root + "/dev/shm", "tmpfs", 0, "mode=1777");
  const char *links[][2] = {{"/proc/self/fd", "/dev/fd"},
                            {"/proc/self/fd/0", "/dev/stdin"},
                            {"/proc/self/fd/1", "/dev/stdout"},
                            {"/proc/self/fd/2", "/dev/stderr"},
                            {"pts/ptmx", "/dev/ptmx"}};
  for (const auto &[target, name] : links) {
    if (symlink(target, (root + name).c_str()) != 0) {
      Fail(name);
    }
  }
  // The old root goes on top of the new one, and away.
  if (chdir(root.c_str()) != 0 || syscall(SYS_pivot_root, ".", ".") != 0 ||
      umount2(".", MNT_DETACH) != 0 || chdir("/") != 0) {
    Fail("pivot_root");
  }
}

void RaiseLoopback() {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  if (fd < 0 || ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
    Fail("the loopback interface");
  }
  close(fd);
}

int StatusOf(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The namespace's first process: reaps what is left to it, ends with the test, and all with it.
[[noreturn]] void RunFirstProcess() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    Fail("private mounts");
  }
  EnterRoot();
  RaiseLoopback();
  if (sethostname("made-up", 7) != 0) {
    Fail("the host's name");
  }
  pid_t test = fork();
  if (test < 0) {
    Fail("fork");
  }
  if (test == 0) {
    exit(RUN_ALL_TESTS());
  }
  for (;;) {
    int status;
    pid_t ended = wait(&status);
    if (ended == test) {
      _exit(StatusOf(status));
    }
  }
}

int RunOne() {
  if (geteuid() != 0) {
    fprintf(stderr, "made-up host: scenarios make namespaces and mounts: run them as root\n");
    return 3;
  }
  umask(022);
  if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC) != 0) {
    Fail("unshare");
  }
  pid_t first = fork();
  if (first < 0) {
    Fail("fork");
  }
  if (first == 0) {
    RunFirstProcess();
  }
  int status;
  while (waitpid(first, &status, 0) < 0 && errno == EINTR) {
  }
  return StatusOf(status);
}

// The full names of the tests that the filter lets through.
std::vector<std::string> Selected(const std::string &self) {
  std::vector<std::string> names;
  std::string command =
      "'" + self + "' --gtest_list_tests --gtest_filter='" + GTEST_FLAG_GET(filter) + "'";
  FILE *list = popen(command.c_str(), "re");
  char line[1024];
  std::string suite;
  while (list != nullptr && fgets(line, sizeof(line), list) != nullptr) {
    std::string text(line, strcspn(line, " #\n") == 0 ? strlen(line) : strcspn(line, "#\n"));
    text = text.substr(0, text.find_last_not_of(" \n") + 1);
    if (text.starts_with("  ")) {
      text = text.substr(2);
      names.push_back(suite + text.substr(0, text.find(' ')));
    } else if (text.ends_with(".")) {
      suite = text;
    }
  }
  if (list != nullptr) {
    pclose(list);
  }
  return names;
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  if (GTEST_FLAG_GET(list_tests)) {
    return RUN_ALL_TESTS();
  }
  char self[4096];
  ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length < 0) {
    Fail("/proc/self/exe");
  }
  self[length] = 0;
  std::vector<std::string> names = Selected(self);
  if (names.size() == 1) {
    // The agent looks for its siblings by the paths of running programs: the place of this checkout
    // must not make the test itself look like one.
    strncpy(argv[0], "scenario", strlen(argv[0]));
    return RunOne();
  }
  // By hand, with a wider filter: one process each, one after the other.
  int failed = 0;
  for (const std::string &name : names) {
    std::string command =
        std::string("'") + self + "' --gtest_brief=1 --gtest_filter='" + name + "'";
    printf("%s\n", name.c_str());
    fflush(stdout);
    failed += system(command.c_str()) != 0;
  }
  printf("%zu scenarios, %d failed\n", names.size(), failed);
  return names.empty() || failed > 0;
}
