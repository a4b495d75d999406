// The C library calls of the code under test that read the machine, taken over at link time
// (--wrap): made-up files, commands and clocks.
#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <mntent.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

#include "platform/channel.h"
#include "tests/support/recording_framework.h"
#include "tests/support/recording_internal.h"

namespace {

struct Root {
  std::filesystem::path path;
  pid_t owner = getpid();
  Root() {
    // mkdtemp() wants six of these letters at the end.
    std::string name = "/tmp/recording-" + std::string(6, 'X');
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("no temporary directory");
    }
    path = name;
  }
  ~Root() {
    if (getpid() == owner) {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
    }
  }
};

std::filesystem::path &TheRoot() {
  static Root root;
  return root.path;
}

std::vector<std::string> &Claims() {
  static auto *claims = new std::vector<std::string>;
  return *claims;
}

bool Claimed(const std::string &path) {
  return std::any_of(Claims().begin(), Claims().end(), [&](const std::string &claim) {
    return path == claim || path.starts_with(claim + "/");
  });
}

void Claim(const std::string &path) {
  if (!Claimed(path)) {
    Claims().push_back(path);
  }
}

// No test ever touches the machine's own registry.
const bool registry_claimed = (Claim(REGISTRY_ROOT), true);

std::string Place(const std::string &path) {
  return TheRoot().string() + path;
}

std::optional<time_t> now;
std::optional<time_t> since_boot;
struct BrokenReads {
  int times;
  size_t after;
};
std::map<std::string, BrokenReads> broken_reads;

// What is left of a file before a read of it fails.
// The path of what an open descriptor and a name below it lead to, as the code under test knows it.
std::string PathBelow(int directory, const char *name) {
  std::error_code ignored;
  const std::string at =
      std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(directory), ignored).string();
  const std::string known =
      at.starts_with(TheRoot().string() + "/") ? at.substr(TheRoot().string().size()) : at;
  return name != nullptr ? known + "/" + name : known;
}

ssize_t ReadAndFail(void *cookie, char *buffer, size_t size) {
  std::string &rest = *static_cast<std::string *>(cookie);
  if (rest.empty()) {
    errno = EIO;
    return -1;
  }
  const size_t n = std::min(size, rest.size());
  memcpy(buffer, rest.data(), n);
  rest.erase(0, n);
  return static_cast<ssize_t>(n);
}

// Null for a path of which no read fails now.
FILE *BrokenStream(const std::string &path) {
  const auto found = broken_reads.find(path);
  if (found == broken_reads.end() || found->second.times == 0) {
    return nullptr;
  }
  found->second.times--;
  const cookie_io_functions_t functions = {ReadAndFail, nullptr, nullptr, [](void *cookie) {
                                             delete static_cast<std::string *>(cookie);
                                             return 0;
                                           }};
  return fopencookie(new std::string(rec::ReadFile(path).substr(0, found->second.after)), "r",
                     functions);
}

std::set<std::string> held_up;
std::map<std::string, void (*)(struct stat *)> status_changes;
std::map<pid_t, pid_t> process_groups;
std::map<std::string, std::string> hardware_addresses;
std::map<std::string, int> services;
std::optional<utsname> made_up_system;
std::map<std::string, uid_t> owners;
std::optional<uid_t> user;
std::map<std::string, timespec> births;
int64_t passed_ns;  // by PassTime()
void (*on_pause)();

// Reached until the process ends: memory is freed to the last.
std::set<const void *> &TheBlocks() {
  static auto *blocks = new std::set<const void *>;
  return *blocks;
}

template <typename T>
T *Allocated(T *memory) {
  if (memory != nullptr) {
    TheBlocks().insert(memory);
  }
  return memory;
}

}  // namespace

namespace rec {

void PutFile(const std::string &path, std::string_view contents) {
  Claim(path);
  std::filesystem::create_directories(std::filesystem::path(Place(path)).parent_path());
  std::ofstream out(Place(path), std::ios::binary | std::ios::trunc);
  out << contents;
  if (!out.flush()) {
    throw std::runtime_error("cannot write " + Place(path));
  }
}

void PutDirectory(const std::string &path) {
  Claim(path);
  std::filesystem::create_directories(Place(path));
}

void PutNothing(const std::string &path) {
  Claim(path);
  std::filesystem::remove_all(Place(path));
}

std::string RealPath(const std::string &path) {
  return Claimed(path) ? Place(path) : path;
}

std::vector<std::string> EntriesOf(const std::string &directory) {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(RealPath(directory))) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string ReadFile(const std::string &path) {
  std::ifstream in(RealPath(path), std::ios::binary);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

void PutProcessGroup(pid_t process, pid_t group) {
  process_groups[process] = group;
}

void PutHardwareAddress(const std::string &interface, const std::string &address) {
  hardware_addresses[interface] = address;
}

void PutOwner(const std::string &path, uid_t owner) {
  owners[path] = owner;
}

void PutUser(uid_t made_up) {
  user = made_up;
}

void PutBirth(const std::string &path, const timespec &birth) {
  births[path] = birth;
}

void PutService(const std::string &name, int port) {
  services[name] = port;
}

void PutSystem(const utsname &made_up) {
  made_up_system = made_up;
}

void BreakReads(const std::string &path, int times, size_t after) {
  broken_reads[path] = {times, after};
}

void ChangeStatus(const std::string &path, void (*change)(struct stat *status)) {
  status_changes[path] = change;
}

void HoldUp(const std::string &path) {
  held_up.insert(path);
}

void LetGo(const std::string &path) {
  held_up.erase(path);
}

void SetTime(time_t when) {
  now = when;
}

void PassTime(double seconds) {
  passed_ns += static_cast<int64_t>(seconds * 1e9);
}

void OnPause(void (*callback)()) {
  on_pause = callback;
}

void SetBootTime(time_t when) {
  since_boot = when;
}

size_t Blocks() {
  return TheBlocks().size();
}

}  // namespace rec

extern "C" {

FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode) {
  if (rec::Fails("fopen", path)) {
    return nullptr;
  }
  FILE *broken = BrokenStream(path);
  return broken != nullptr ? broken : __real_fopen(rec::RealPath(path).c_str(), mode);
}

FILE *__real_setmntent(const char *path, const char *mode);
FILE *__wrap_setmntent(const char *path, const char *mode) {
  if (rec::Fails("setmntent", path)) {
    return nullptr;
  }
  FILE *broken = BrokenStream(path);
  return broken != nullptr ? broken : __real_setmntent(rec::RealPath(path).c_str(), mode);
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return rec::Fails("open", path) ? -1 : __real_open(rec::RealPath(path).c_str(), flags, mode);
}

DIR *__real_opendir(const char *path);
DIR *__wrap_opendir(const char *path) {
  return rec::Fails("opendir", path) ? nullptr : __real_opendir(rec::RealPath(path).c_str());
}

int __real_access(const char *path, int mode);
int __wrap_access(const char *path, int mode) {
  return rec::Fails("access", path) ? -1 : __real_access(rec::RealPath(path).c_str(), mode);
}

int __real_stat(const char *path, struct stat *result);
int __wrap_stat(const char *path, struct stat *result) {
  return rec::Fails("stat", path) ? -1 : __real_stat(rec::RealPath(path).c_str(), result);
}

int __real_lstat(const char *path, struct stat *result);
int __wrap_lstat(const char *path, struct stat *result) {
  return rec::Fails("lstat", path) ? -1 : __real_lstat(rec::RealPath(path).c_str(), result);
}

int __real_chmod(const char *path, mode_t mode);
int __wrap_chmod(const char *path, mode_t mode) {
  return rec::Fails("chmod", path) ? -1 : __real_chmod(rec::RealPath(path).c_str(), mode);
}

int __real_unlink(const char *path);
int __wrap_unlink(const char *path) {
  return rec::Fails("unlink", path) ? -1 : __real_unlink(rec::RealPath(path).c_str());
}

int __wrap_rmdir(const char *path) {
  rec::Record("rmdir", path);
  return rec::Fails("rmdir", path) ? -1 : 0;
}

int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to) {
  return rec::Fails("rename", from)
             ? -1
             : __real_rename(rec::RealPath(from).c_str(), rec::RealPath(to).c_str());
}

int __real_glob(const char *pattern, int flags, int (*error)(const char *, int), glob_t *result);
int __wrap_glob(const char *pattern, int flags, int (*error)(const char *, int), glob_t *result) {
  if (rec::Fails("glob", pattern)) {
    return GLOB_ABORTED;
  }
  // A pattern below a directory that was taken over; the results lose its real place again.
  const std::string place = Place(pattern);
  const std::string fixed =
      std::string(pattern).substr(0, std::string(pattern).find_first_of("*?["));
  const bool ours = std::any_of(Claims().begin(), Claims().end(), [&](const std::string &claim) {
    return claim.starts_with(fixed) || fixed.starts_with(claim + "/");
  });
  if (!ours) {
    return __real_glob(pattern, flags, error, result);
  }
  const int status = __real_glob(place.c_str(), flags, error, result);
  for (size_t i = 0; status == 0 && i < result->gl_pathc; i++) {
    char *&path = result->gl_pathv[result->gl_offs + i];
    const std::string kept = std::string(path).substr(TheRoot().string().size());
    path[0] = '\0';
    kept.copy(path, kept.size());
    path[kept.size()] = '\0';
  }
  return status;
}

time_t __real_time(time_t *result);
time_t __wrap_time(time_t *result) {
  const time_t value = now ? *now : __real_time(nullptr);
  if (result != nullptr) {
    *result = value;
  }
  return value;
}

int __real_clock_gettime(clockid_t clock, timespec *result);
int __wrap_clock_gettime(clockid_t clock, timespec *result) {
  if (now && clock == CLOCK_REALTIME) {
    *result = {*now, 0};
    return 0;
  }
  if (since_boot && clock == CLOCK_BOOTTIME) {
    *result = {*since_boot, 0};
    return 0;
  }
  const int status = __real_clock_gettime(clock, result);
  if (status == 0 && clock == CLOCK_MONOTONIC) {
    const int64_t ns = result->tv_nsec + passed_ns;
    result->tv_sec += ns / 1'000'000'000;
    result->tv_nsec = ns % 1'000'000'000;
  }
  return status;
}

int __real_openat(int directory, const char *name, int flags, ...);
int __wrap_openat(int directory, const char *name, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return rec::Fails("openat", PathBelow(directory, name))
             ? -1
             : __real_openat(directory, name, flags, mode);
}

ssize_t __real_read(int descriptor, void *buffer, size_t size);
ssize_t __wrap_read(int descriptor, void *buffer, size_t size) {
  if (!held_up.empty() && held_up.contains(PathBelow(descriptor, nullptr))) {
    close(descriptor);
    throw rec::HeldUp();
  }
  return rec::Fails("read", PathBelow(descriptor, nullptr)) ? -1
                                                            : __real_read(descriptor, buffer, size);
}

ssize_t __real_write(int descriptor, const void *buffer, size_t size);
ssize_t __wrap_write(int descriptor, const void *buffer, size_t size) {
  return rec::Fails("write", PathBelow(descriptor, nullptr))
             ? -1
             : __real_write(descriptor, buffer, size);
}

int __real_fstat(int descriptor, struct stat *result);
int __wrap_fstat(int descriptor, struct stat *result) {
  const std::string path = PathBelow(descriptor, nullptr);
  if (rec::Fails("fstat", path) || __real_fstat(descriptor, result) != 0) {
    return -1;
  }
  const auto owner = owners.find(path);
  if (owner != owners.end()) {
    result->st_uid = owner->second;
  }
  return 0;
}

uid_t __real_geteuid();
uid_t __wrap_geteuid() {
  return user ? *user : __real_geteuid();
}

int __real_fchmod(int descriptor, mode_t mode);
int __wrap_fchmod(int descriptor, mode_t mode) {
  return rec::Fails("fchmod", PathBelow(descriptor, nullptr)) ? -1
                                                              : __real_fchmod(descriptor, mode);
}

int __real_fsync(int descriptor);
int __wrap_fsync(int descriptor) {
  const std::string path = PathBelow(descriptor, nullptr);
  rec::Record("fsync", path);
  return rec::Fails("fsync", path) ? -1 : __real_fsync(descriptor);
}

int __real_renameat(int from_directory, const char *from, int to_directory, const char *to);
int __wrap_renameat(int from_directory, const char *from, int to_directory, const char *to) {
  const std::string path = PathBelow(to_directory, to);
  rec::Record("renameat", path);
  return rec::Fails("renameat", path) ? -1
                                      : __real_renameat(from_directory, from, to_directory, to);
}

int __real_renameat2(int from_directory, const char *from, int to_directory, const char *to,
                     unsigned flags);
int __wrap_renameat2(int from_directory, const char *from, int to_directory, const char *to,
                     unsigned flags) {
  const std::string path = PathBelow(to_directory, to);
  rec::Record("renameat2", path);
  return rec::Fails("renameat2", path)
             ? -1
             : __real_renameat2(from_directory, from, to_directory, to, flags);
}

int __real_linkat(int from_directory, const char *from, int to_directory, const char *to,
                  int flags);
int __wrap_linkat(int from_directory, const char *from, int to_directory, const char *to,
                  int flags) {
  return rec::Fails("linkat", PathBelow(to_directory, to))
             ? -1
             : __real_linkat(from_directory, from, to_directory, to, flags);
}

int __real_unlinkat(int directory, const char *name, int flags);
int __wrap_unlinkat(int directory, const char *name, int flags) {
  return rec::Fails("unlinkat", PathBelow(directory, name))
             ? -1
             : __real_unlinkat(directory, name, flags);
}

int __wrap_nanosleep(const timespec *pause, timespec *) {
  rec::Record("nanosleep", std::to_string(pause->tv_sec * 1000 + pause->tv_nsec / 1000000));
  if (on_pause != nullptr) {
    on_pause();
  }
  return 0;
}

unsigned __wrap_sleep(unsigned seconds) {
  rec::Record("sleep", std::to_string(seconds));
  return 0;
}

int __wrap_usleep(useconds_t microseconds) {
  rec::Record("usleep", std::to_string(microseconds));
  return 0;
}

unsigned __wrap_alarm(unsigned seconds) {
  rec::Record("alarm", std::to_string(seconds));
  return 0;
}

pid_t __real_getpgid(pid_t process);
pid_t __wrap_getpgid(pid_t process) {
  if (rec::Fails("getpgid", std::to_string(process))) {
    return -1;
  }
  const auto known = process_groups.find(process);
  return known != process_groups.end() ? known->second : __real_getpgid(process);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
  return rec::Fails("socket", "") ? -1 : __real_socket(domain, type, protocol);
}

int __real_ioctl(int descriptor, unsigned long request, void *argument);
int __wrap_ioctl(int descriptor, unsigned long request, void *argument) {
  if (request == TLXRMC_TRANSACT) {
    return rec::TransactWithCard(descriptor, argument);
  }
  if (request == SIOCGIFHWADDR) {
    auto *interface = static_cast<ifreq *>(argument);
    const auto known = hardware_addresses.find(interface->ifr_name);
    if (known != hardware_addresses.end()) {
      if (known->second.empty()) {
        errno = ENODEV;
        return -1;
      }
      known->second.copy(interface->ifr_hwaddr.sa_data, 6);
      return 0;
    }
  }
  return __real_ioctl(descriptor, request, argument);
}

servent *__real_getservbyname(const char *name, const char *protocol);
servent *__wrap_getservbyname(const char *name, const char *protocol) {
  const auto known = services.find(name);
  if (known == services.end()) {
    return __real_getservbyname(name, protocol);
  }
  static servent made_up;
  made_up = {};
  made_up.s_name = const_cast<char *>(known->first.c_str());
  made_up.s_port = htons(static_cast<uint16_t>(known->second));
  return known->second != 0 ? &made_up : nullptr;
}

int __real_uname(utsname *result);
int __wrap_uname(utsname *result) {
  if (rec::Fails("uname", "")) {
    return -1;
  }
  if (!made_up_system) {
    return __real_uname(result);
  }
  *result = *made_up_system;
  return 0;
}

// Allocations of the code under test that fail when told to; it asks malloc() for nothing itself.
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size) {
  return rec::Fails("calloc", "") ? nullptr : Allocated(__real_calloc(count, size));
}

void *__real_realloc(void *memory, size_t size);
void *__wrap_realloc(void *memory, size_t size) {
  if (rec::Fails("realloc", "")) {
    return nullptr;
  }
  TheBlocks().erase(memory);
  return Allocated(__real_realloc(memory, size));
}

char *__real_strdup(const char *text);
char *__wrap_strdup(const char *text) {
  return rec::Fails("strdup", text) ? nullptr : Allocated(__real_strdup(text));
}

void __real_free(void *memory);
void __wrap_free(void *memory) {
  TheBlocks().erase(memory);
  __real_free(memory);
}

FILE *__real_fmemopen(void *memory, size_t size, const char *mode);
FILE *__wrap_fmemopen(void *memory, size_t size, const char *mode) {
  return rec::Fails("fmemopen", "") ? nullptr : __real_fmemopen(memory, size, mode);
}

int __real_statx(int directory, const char *name, int flags, unsigned mask, struct statx *result);
int __wrap_statx(int directory, const char *name, int flags, unsigned mask, struct statx *result) {
  const std::string path = PathBelow(directory, nullptr);
  if (rec::Fails("statx", path) || __real_statx(directory, name, flags, mask, result) != 0) {
    return -1;
  }
  const auto birth = births.find(path);
  if (birth != births.end()) {
    result->stx_mask |= STATX_BTIME;
    if (birth->second.tv_nsec < 0) {
      result->stx_mask &= ~static_cast<uint32_t>(STATX_BTIME);
    }
    result->stx_btime.tv_sec = birth->second.tv_sec;
    result->stx_btime.tv_nsec = static_cast<uint32_t>(birth->second.tv_nsec);
  }
  return 0;
}

int __real_fstatat(int directory, const char *name, struct stat *result, int flags);
int __wrap_fstatat(int directory, const char *name, struct stat *result, int flags) {
  const std::string path = PathBelow(directory, name);
  if (rec::Fails("fstatat", path) || __real_fstatat(directory, name, result, flags) != 0) {
    return -1;
  }
  const auto change = status_changes.find(path);
  if (change != status_changes.end()) {
    change->second(result);
  }
  return 0;
}

DIR *__real_fdopendir(int descriptor);
DIR *__wrap_fdopendir(int descriptor) {
  return rec::Fails("fdopendir", PathBelow(descriptor, nullptr)) ? nullptr
                                                                 : __real_fdopendir(descriptor);
}

dirent *__real_readdir(DIR *directory);
dirent *__wrap_readdir(DIR *directory) {
  return rec::Fails("readdir", PathBelow(dirfd(directory), nullptr)) ? nullptr
                                                                     : __real_readdir(directory);
}

}  // extern "C"
