#include "tools/vexreg/replay_room.h"

#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "common/sources.h"
#include "framework/machine/distribution.h"
#include "framework/process/descriptor.h"
#include "framework/registry/registry_path.h"
#include "framework/snmp/snmp_files.h"
#include "hardware/tlxci/paths.h"
#include "tools/replay/replay_facts.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/forked.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

constexpr char kBase[] = "/sys";  // the old one is not needed any more
constexpr char kRoot[] = "/sys/room";
constexpr char kRealProc[] = "/run/vexreg-replay/proc";
// Of /proc, besides the processes: what is the reader's own.
constexpr const char *kProcessesOwn[] = {"self", "thread-self", "mounts"};
constexpr int kMostProcesses = 4096;  // that have their place in /proc

// What programs of this machine need beside /usr.
constexpr const char *kPrograms[] = {"/usr",   "/bin",   "/sbin",  "/lib",
                                     "/lib32", "/lib64", "/libx32"};
constexpr const char *kSettings[] = {"/etc/ld.so.cache", "/etc/ld.so.conf", "/etc/passwd",
                                     "/etc/group", "/etc/nsswitch.conf"};
constexpr const char *kSettingsFolders[] = {"/etc/alternatives", "/etc/ld.so.conf.d"};

// What keeps the room from being made.
class RoomError {
 public:
  explicit RoomError(const std::string &what) : text_(what + ": " + strerror(errno)) {}
  const std::string &text() const {
    return text_;
  }

 private:
  std::string text_;
};

void Check(bool succeeded, const std::string &what) {
  if (!succeeded) {
    throw RoomError(what);
  }
}

std::string Inside(const std::string &path) {
  return kRoot + path;
}

void MakeFolders(const std::string &path) {
  std::error_code error;
  fs::create_directories(path, error);
  errno = error.value();
  Check(!error, path);
}

void Mount(const char *from, const std::string &to, const char *type, unsigned long flags,
           const char *data = nullptr) {
  Check(mount(from, to.c_str(), type, flags, data) == 0, to);
}

// Shows a directory of the machine, not to be written to.
void Show(const std::string &path) {
  MakeFolders(Inside(path));
  Mount(path.c_str(), Inside(path), nullptr, MS_BIND);
  Mount(nullptr, Inside(path), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY);
}

void Put(const std::string &path, std::string_view bytes, mode_t mode, int64_t modified = 0) {
  const Descriptor root(open(kRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::string relative = path.substr(1);
  Check(IsMemberName(relative) && root, path);
  Check(WriteBelow(root.get(), relative, bytes, mode, 0755, modified), path);
}

void Link(const std::string &target, const std::string &path) {
  Check(symlink(target.c_str(), Inside(path).c_str()) == 0, path);
}

void CopySetting(const std::string &path) {
  std::error_code error;
  if (fs::exists(path, error)) {
    MakeFolders(Inside(fs::path(path).parent_path()));
    fs::copy_file(path, Inside(path), error);
  }
}

void ShowPrograms(const RoomSettings &settings) {
  for (const std::string path : kPrograms) {
    std::error_code error;
    if (fs::is_symlink(path, error)) {
      fs::copy_symlink(path, Inside(path), error);
    } else if (fs::is_directory(path, error)) {
      Show(path);
    }
  }
  for (const char *const path : kSettings) {
    CopySetting(path);
  }
  for (const std::string path : kSettingsFolders) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
      Show(path);
    }
  }
  // Where they stand elsewhere, as in a build tree.
  for (const std::string &program : {settings.agent, settings.library}) {
    const fs::path prefix = fs::path(program).parent_path().parent_path();
    struct stat status = {};
    if (!program.starts_with("/usr/") && lstat(Inside(prefix).c_str(), &status) != 0) {
      Show(prefix);
    }
  }
}

void MakeDevices() {
  MakeFolders(Inside("/dev/shm"));
  struct {
    const char *name;
    unsigned number;
  } constexpr kDevices[] = {{"null", 3}, {"zero", 5}, {"full", 7}, {"random", 8}, {"urandom", 9}};
  for (const auto &[name, number] : kDevices) {
    const std::string path = Inside(std::string("/dev/") + name);
    Check(mknod(path.c_str(), S_IFCHR | 0666, makedev(1, number)) == 0, path);
    chmod(path.c_str(), 0666);
  }
}

// /proc of the room's processes, where the host's files come beside them. What the machine's says
// of itself is not there: neither of what was captured nor of what the agent has come to read
// since.
void MakeProc() {
  MakeFolders(Inside(kRealProc));
  Mount("proc", Inside(kRealProc), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
  MakeFolders(Inside("/proc"));
  Mount("proc", Inside("/proc"), "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=755");
  const auto link = [](const std::string &name) {
    Link(std::string(kRealProc) + "/" + name, "/proc/" + name);
  };
  for (const char *const name : kProcessesOwn) {
    link(name);
  }
  // Processes to come have their place already; the first one is this command, none of the host's.
  for (int number = 2; number < kMostProcesses; number++) {
    link(std::to_string(number));
  }
  // Of the network what commands ask for.
  MakeFolders(Inside("/proc/net"));
  for (const char *const name :
       {"tcp", "tcp6", "udp", "udp6", "unix", "dev", "route", "if_inet6"}) {
    Link(std::string(kRealProc) + "/self/net/" + name, std::string("/proc/net/") + name);
  }
}

// The files of the host. What is in no source's place is not put anywhere.
void PutFiles(const Capture &capture) {
  const std::string second = kOsReleaseFiles[1];
  for (const Member &member : capture.members) {
    if (!member.name.starts_with(kHostMembers)) {
      continue;
    }
    std::string path = "/" + member.name.substr(kHostMembers.size());
    const Source *const source = SourceOf(path);
    if (source == nullptr || source->treatment == Treatment::kSnmp) {
      continue;
    }
    if (path == second) {
      // /usr is the machine's; the agent reads this one where there is no other.
      if (capture.Find(std::string(kHostMembers) + (kOsReleaseFiles[0] + 1)) != nullptr) {
        continue;
      }
      path = kOsReleaseFiles[0];
    }
    Put(path, member.bytes, 0644, member.modified);
  }
  // The machine's own must not be read in its place.
  std::error_code error;
  if (fs::exists(Inside(second), error) && !fs::exists(Inside(kOsReleaseFiles[0]), error)) {
    Mount(Inside("/dev/null").c_str(), Inside(second), nullptr, MS_BIND);
  }
}

// Siblings' objects, and what the agent keeps. Its own objects are what is to be compared.
void PutRegistry(const Capture &capture) {
  for (const Member &member : capture.members) {
    const std::string own = std::string(kRegistryMembers) + host_objects;
    if (member.name.starts_with(kRegistryMembers) && !member.name.starts_with(own)) {
      Put(std::string(kRegistryRoot) + "/" + member.name.substr(kRegistryMembers.size()),
          member.bytes, 0644, member.modified);
    }
  }
  MakeFolders(Inside(kRegistryRoot));
}

std::string Quoted(const std::string &text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}

// A script that prints what the command of that name printed on the host.
std::string ScriptOf(const Capture &capture, const std::string &program) {
  std::string cases;
  for (const CommandRun &run : capture.commands) {
    if (run.words.empty() || run.words.front() != program || run.member.empty() ||
        capture.Find(run.member) == nullptr) {
      continue;
    }
    std::string arguments;
    for (size_t i = 1; i < run.words.size(); i++) {
      arguments += (i > 1 ? " " : "") + run.words[i];
    }
    cases += Quoted(arguments) + ") cat " + Quoted(std::string(kRoomDirectory) + "/" + run.member) +
             "; exit " + std::to_string(run.status) + " ;;\n";
  }
  if (cases.empty()) {
    return "#!/bin/sh\necho 'not found on the captured host' >&2\nexit 127\n";
  }
  return "#!/bin/sh\ncase \"$*\" in\n" + cases + "esac\necho \"not captured: $0 $*\" >&2\nexit 1\n";
}

void PutCommands(const Capture &capture, const fs::path &agent) {
  for (const Member &member : capture.members) {
    if (member.name.starts_with(kCommandMembers)) {
      Put(std::string(kRoomDirectory) + "/" + member.name, member.bytes, 0644);
    }
  }
  for (const char *const program : kStoodIn) {
    Put(std::string(kRoomCommands) + "/" + program, ScriptOf(capture, program), 0755);
  }
  const bool volumes =
      std::any_of(capture.commands.begin(), capture.commands.end(), [](const CommandRun &run) {
        return !run.words.empty() && run.words.front() == vmfs_volume_tool;
      });
  if (volumes) {
    // Into a directory that cannot be written to: all that is in it stands elsewhere as well.
    const std::string folder = fs::path(vmfs_volume_tool).parent_path();
    const std::string machines = std::string(kRoomDirectory) + "/programs";
    MakeFolders(Inside(machines));
    Mount(folder.c_str(), Inside(machines), nullptr, MS_BIND);
    Mount("programs", Inside(folder), "tmpfs", 0, "mode=755");
    for (const auto &entry : fs::directory_iterator(Inside(machines))) {
      const fs::path name = entry.path().filename();
      const fs::path shown = fs::path(folder) / name;
      if (shown == agent) {
        // Not by a link: an installed agent looks for its libraries from where it really stands.
        Put(shown, "", 0755);
        Mount(entry.path().c_str(), Inside(shown), nullptr, MS_BIND);
      } else if (shown != vmfs_volume_tool) {
        Link(fs::path(machines) / name, shown);
      }
    }
    Put(vmfs_volume_tool, ScriptOf(capture, vmfs_volume_tool), 0755);
  }
}

void PutFacts(const Capture &capture, const std::string &card) {
  const auto line = [](std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '|' || c == '\n'; }, ' ');
    return text;
  };
  std::string facts = kKernelLine + line(capture.release) + "|" + line(capture.version) + "|" +
                      line(capture.machine) + "\n";
  const Member *const figures = capture.Find(kFiguresMember);
  if (!card.empty()) {
    facts += kCardLine + Hex(card) + "\n";
    Put(kControllerCard, "", 0600);
  }
  facts += figures != nullptr ? figures->bytes : "";
  Put(kRoomFacts, facts, 0644);
}

// The segment lives in the room's own IPC namespace.
void MakeRaidKey(const Capture &capture) {
  const Member *const member = capture.Find(kRaidKeyMember);
  if (member == nullptr) {
    return;
  }
  MakeFolders(raid_key_path);
  const int segment =
      shmget(ftok(raid_key_path, raid_key_project), raid_segment_size, IPC_CREAT | 0600);
  void *const attached = segment != -1 ? shmat(segment, nullptr, 0) : nullptr;
  Check(attached != nullptr && attached != reinterpret_cast<void *>(-1), "shared memory");
  memcpy(attached, member->bytes.data(), std::min<size_t>(member->bytes.size(), raid_segment_size));
  shmdt(attached);
}

void RaiseLoopback() {
  const Descriptor fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request = {};
  strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  Check(fd && ioctl(fd.get(), SIOCSIFFLAGS, &request) == 0, "the loopback interface");
}

void EnterRoot() {
  Check(chdir(kRoot) == 0 && syscall(SYS_pivot_root, ".", ".") == 0 &&
            umount2(".", MNT_DETACH) == 0 && chdir("/") == 0,
        "the room's root");
}

void MakeRoom(const Capture &capture, const RoomSettings &settings) {
  Mount("none", "/", nullptr, MS_REC | MS_PRIVATE);
  Mount("room", kBase, "tmpfs", MS_NOSUID, "mode=755");
  MakeFolders(kRoot);
  Mount("room", kRoot, "tmpfs", MS_NOSUID, "mode=755");
  MakeFolders(Inside(fs::path(kDefaultAgentxSocket).parent_path()));
  MakeFolders(Inside("/tmp"));
  MakeFolders(Inside("/etc/snmp"));
  MakeFolders(Inside(kRoomSnmp));
  ShowPrograms(settings);
  MakeDevices();
  MakeProc();
  PutFiles(capture);
  PutRegistry(capture);
  PutCommands(capture, settings.agent);
  PutFacts(capture, settings.card);
  EnterRoot();
  RaiseLoopback();
  MakeRaidKey(capture);
  const size_t length = std::min<size_t>(capture.host.size(), 64);
  Check(sethostname(capture.host.data(), length) == 0, "the host's name");
}

// The room's first process.
int BeFirst(const Capture &capture, const RoomSettings &settings,
            const std::function<int()> &work) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  int status = kFailed;
  try {
    MakeRoom(capture, settings);
    status = work();
  } catch (const RoomError &error) {
    Complain("no room for the captured host: " + error.text());
  } catch (const fs::filesystem_error &error) {
    Complain(std::string("no room for the captured host: ") + error.what());
  }
  std::cout << std::flush;
  return status;
}

// Its parent, which stays outside, as only children come into a new PID namespace.
int BeOuter(const Capture &capture, const RoomSettings &settings,
            const std::function<int()> &work) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC) != 0) {
    Complain(std::string("no namespaces: ") + strerror(errno));
    return kFailed;
  }
  umask(022);
  const pid_t first = Forked([&] { return BeFirst(capture, settings, work); });
  if (first < 0) {
    Complain(std::string("no process: ") + strerror(errno));
    return kFailed;
  }
  return StatusOf(first);
}

}  // namespace

int DoInRoom(const Capture &capture, const RoomSettings &settings,
             const std::function<int()> &work) {
  std::cout << std::flush;
  const pid_t outer = Forked([&] { return BeOuter(capture, settings, work); });
  if (outer < 0) {
    Complain(std::string("no process: ") + strerror(errno));
    return kFailed;
  }
  return StatusOf(outer);
}

}  // namespace vex
