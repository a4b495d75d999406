// vexreg capture: everything that the agent reads on this host, in one file.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "common/sources.h"
#include "framework/process/descriptor.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_format.h"
#include "framework/snmp/mib_table.h"
#include "framework/snmp/snmp_ask.h"
#include "framework/snmp/snmp_files.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/child_output.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/figures.h"
#include "tools/vexreg/host_facts.h"
#include "tools/vexreg/host_files.h"
#include "tools/vexreg/own_words.h"
#include "tools/vexreg/replace_file.h"
#include "tools/vexreg/secrets.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr char kServicePath[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr mode_t kMode = 0600;  // a registry and a log are not for everybody

// Limits: of one source besides a file, and of what waits.
constexpr size_t kMostOutput = size_t{16} << 20;
constexpr size_t kMostLog = size_t{256} << 10;
constexpr int kCommandSeconds = 20;
constexpr int kMostSilentMounts = 10;

constexpr char kRaidKey[] = "the RAID key segment";
constexpr char kNoFigures[] = "its file system has not answered";
constexpr char kSecretsUnknown[] = "what is secret on this host could not be read";

// What the agent asks snmpd for, below enterprises.4891: other agents' revisions and conditions.
constexpr uint32_t kAskedBelow[] = {1, 3, 6, 1, 4, 1, 4891};
constexpr std::initializer_list<uint32_t> kAsked[] = {
    {18, 1, 1, 0},  {18, 1, 2, 0},  {18, 1, 3, 0},   {172, 1, 1, 0},
    {172, 1, 2, 0}, {172, 1, 3, 0}, {6, 2, 5, 17, 0}};

// Parts of the program paths of agents that the agent looks for.
constexpr const char *kSiblings[] = {"vex", "fio-snmp-agentx"};

std::string Now() {
  const time_t now = time(nullptr);
  tm parts = {};
  gmtime_r(&now, &parts);
  char text[32];
  strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

class Collector {
 public:
  Collector(std::string root, const CaptureLimits &limits)
      : root_(std::move(root)), limits_(limits) {}

  // The whole capture. Each part that fails is left out, with the reason.
  Capture Collect(const std::string &program) {
    capture_.made = Now();
    capture_.program = program;
    FindAgent();
    TakeSystem();
    TakeFiles();
    TakeMounts();
    TakeCommands();
    TakeRaidKey();
    TakeSiblings();
    TakeAnswers();
    TakeRegistry();
    TakeVariables();
    TakeFindings();
    TakeLog();
    // Whatever else there is: without it this is no capture.
    capture_.members.push_back({kDescriptionMember, time(nullptr), DescriptionJson(capture_)});
    std::sort(capture_.members.begin(), capture_.members.end(),
              [](const Member &a, const Member &b) { return a.name < b.name; });
    return std::move(capture_);
  }

 private:
  void Omit(const std::string &source, const std::string &reason) {
    capture_.omissions.push_back({source, reason});
  }

  // Unless there is none, or none any more.
  void Miss(const std::string &source, int error) {
    if (!IsAbsence(error)) {
      Omit(source, strerror(error));
    }
  }

  bool Put(const std::string &name, std::string bytes, int64_t modified) {
    if (!IsMemberName(name)) {
      Omit(name, "no name for a capture");
      return false;
    }
    if (total_ + bytes.size() > limits_.bytes || capture_.members.size() >= limits_.members) {
      Omit(name, "the capture is full");
      return false;
    }
    total_ += bytes.size();
    capture_.members.push_back({name, modified, std::move(bytes)});
    return true;
  }

  void FindAgent() {
    const auto processes = FindProcesses(kAgentName);
    agent_ = processes.empty() ? 0 : processes.front().pid;
    if (agent_ == 0) {
      Omit(kAgentName, "does not run");
    }
    const auto path = agent_ != 0 ? VariableOf(agent_, "PATH") : std::nullopt;
    if (agent_ != 0 && !path) {
      Omit("the agent's environment", "cannot be read; its commands are looked for as usual");
    }
    search_ = path && *path ? **path : kServicePath;
  }

  void TakeSystem() {
    utsname names = {};
    if (uname(&names) != 0) {
      Omit("uname", strerror(errno));
      return;
    }
    capture_.host = names.nodename;
    capture_.release = names.release;
    capture_.version = names.version;
    capture_.machine = names.machine;
  }

  // What could not be read of what keeps secrets: they are not known then, and what may have them
  // in it stays here.
  Unseen MissSecrets() {
    return [this](const std::string &path, int error) {
      Omit(path, strerror(error));
      all_secrets_ = false;
    };
  }

  // A file's bytes as they may leave the host.
  std::string Cleaned(std::string bytes, Treatment treatment) {
    return treatment == Treatment::kSnmp          ? WithoutSnmpSecrets(bytes, &secrets_)
           : treatment == Treatment::kAssignments ? WithoutAssignedSecrets(bytes, &secrets_)
           : treatment == Treatment::kMountTable  ? WithoutMountSecrets(bytes, &secrets_)
                                                  : std::move(bytes);
  }

  void TakeFile(const std::string &path, Treatment treatment) {
    struct stat status = {};
    if (treatment == Treatment::kPresence) {
      if (stat(path.c_str(), &status) == 0) {
        // A capture has files alone; one in it stands for a directory.
        const std::string directory = S_ISDIR(status.st_mode) ? "/.directory" : "";
        Put(std::string(kHostMembers) + path.substr(1) + directory, "", status.st_mtime);
      } else {
        Miss(path, errno);
      }
      return;
    }
    auto bytes = ReadPlain(AT_FDCWD, path, kMostFile, 0, &status);
    if (!bytes) {
      if (!IsAbsence(errno)) {
        Omit(path, strerror(errno));
        all_secrets_ = all_secrets_ && treatment == Treatment::kWhole;
      }
      return;
    }
    if (path == mount_table_path) {
      mount_table_ = *bytes;
    }
    Put(std::string(kHostMembers) + path.substr(1), Cleaned(std::move(*bytes), treatment),
        status.st_mtime);
  }

  void TakeFiles() {
    for (const Source &source : Sources()) {
      for (const std::string &file : FilesOf(source.pattern, MissSecrets())) {
        TakeFile(file, source.treatment);
      }
    }
    TakeFile(kernel_configuration_prefix + capture_.release, Treatment::kWhole);
    for (const std::string &file : OtherSnmpFiles(agent_, MissSecrets())) {
      if (capture_.Find(std::string(kHostMembers) + file.substr(1)) == nullptr) {
        TakeFile(file, Treatment::kSnmp);
      }
    }
  }

  void TakeMounts() {
    const auto figures = AskMounts(AskedDirectories(mount_table_), kMostSilentMounts);
    for (const auto &[directory, answer] : figures) {
      if (answer.state == MountFigures::kSilent) {
        Omit(directory, kNoFigures);
      }
    }
    Put(kFiguresMember, FiguresText(figures), time(nullptr));
  }

  void TakeCommand(const std::vector<std::string> &words) {
    const ChildOutput output = RunProgram(words, search_, kCommandSeconds, kMostOutput);
    CommandRun run = {words, "", output.status};
    if (output.end == ChildOutput::kExited) {
      const std::string member =
          std::string(kCommandMembers) + std::to_string(capture_.commands.size());
      if (Put(member, output.out, time(nullptr))) {
        run.member = member;
      }
    } else if (output.end != ChildOutput::kNotRun) {
      Omit(words.front(), output.end == ChildOutput::kTimedOut  ? "no end in time"
                          : output.end == ChildOutput::kTooMuch ? "too much"
                                                                : "could not be run");
    }
    capture_.commands.push_back(std::move(run));
  }

  void TakeCommands() {
    TakeCommand({"dpkg", "-la"});
    TakeCommand({"dpkg", "-l"});
    TakeCommand({"dpkg", "--print-architecture"});
    TakeCommand({"rpm", "-qa"});
    const std::string volumes = std::string(kHostMembers) + (vmfs_directory + 1) + "/";
    std::vector<std::string> names;
    for (const Member &member : capture_.members) {
      if (member.name.starts_with(volumes) && !member.name.ends_with("/.directory")) {
        names.push_back("/" + member.name.substr(kHostMembers.size()));
      }
    }
    if (!names.empty()) {
      TakeCommand({"vdf"});
      for (const std::string &name : names) {
        TakeCommand({vmfs_volume_tool, "-l", name});
      }
    }
  }

  void TakeRaidKey() {
    const key_t key = ftok(raid_key_path, raid_key_project);
    const int segment = key != -1 ? shmget(key, raid_segment_size, 0) : -1;
    if (segment == -1) {
      Miss(kRaidKey, errno);
      return;
    }
    void *const attached = shmat(segment, nullptr, SHM_RDONLY);
    if (attached == reinterpret_cast<void *>(-1)) {
      Omit(kRaidKey, strerror(errno));
      return;
    }
    Put(kRaidKeyMember, std::string(static_cast<const char *>(attached), raid_segment_size),
        time(nullptr));
    shmdt(attached);
  }

  void TakeSiblings() {
    const Unseen unseen = [this](const std::string &path, int error) { Miss(path, error); };
    for (const std::string &process : FilesOf("/proc/[0-9]*", unseen)) {
      struct stat status = {};
      if (process == "/proc/" + std::to_string(agent_)) {
        continue;
      }
      const auto words = ReadPlain(AT_FDCWD, process + "/cmdline", kMostFile, 0, &status);
      if (!words) {
        unseen(process + "/cmdline", errno);
      }
      const std::string program = words ? words->c_str() : "";
      const std::string last = program.substr(program.rfind('/') + 1);
      const bool sibling = std::any_of(std::begin(kSiblings), std::end(kSiblings),
                                       [&](const char *part) { return last.starts_with(part); });
      if (sibling && !last.starts_with("vexreg") && !last.starts_with(kAgentName)) {
        capture_.siblings.push_back(program);
      }
    }
    std::sort(capture_.siblings.begin(), capture_.siblings.end());
  }

  // What snmpd says of agents that keep nothing in the registry.
  void TakeAnswers() {
    if (capture_.siblings.empty()) {
      return;
    }
    for (const char *name : {"SNMPCONFPATH", "HOME"}) {
      const auto known = agent_ != 0 ? VariableOf(agent_, name) : std::nullopt;
      if (known && *known) {
        setenv(name, (*known)->c_str(), 1);
      }
    }
    PrepareSnmpLibrary();
    const SnmpFiles files = ReadSnmpFiles(kAgentName);
    if (files.source == CommunitySource::kNone) {
      Omit("snmpd", "no community to ask it with");
      return;
    }
    secrets_.insert(files.community);
    for (const auto &below : kAsked) {
      std::vector<uint32_t> oid(std::begin(kAskedBelow), std::end(kAskedBelow));
      oid.insert(oid.end(), below.begin(), below.end());
      const SnmpReply reply = AskSnmp(kLoopbackAddress, files.community, oid, false);
      if (!reply.answered) {
        Omit("snmpd", "does not answer");
        return;
      }
      if (reply.value) {
        std::string name;
        for (const uint32_t part : oid) {
          name += "." + std::to_string(part);
        }
        capture_.asked.emplace_back(name, *reply.value);
      }
    }
  }

  void TakeRegistryDirectory(Descriptor directory, const std::string &below, int depth) {
    const std::unique_ptr<DIR, int (*)(DIR *)> entries(
        directory ? fdopendir(directory.get()) : nullptr, closedir);
    if (!entries) {
      Omit(root_ + "/" + below, strerror(errno));
      return;
    }
    const int at = directory.Release();
    constexpr int kMostDepth = 16;
    for (;;) {
      errno = 0;
      const dirent *entry = readdir(entries.get());
      if (entry == nullptr) {
        break;
      }
      const std::string name = entry->d_name;
      if (name.starts_with('.')) {
        continue;  // also what writers have not finished
      }
      std::string path = below;
      path += name;
      struct stat status = {};
      if (fstatat(at, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        Miss(root_ + "/" + path, errno);
        continue;
      }
      if (S_ISDIR(status.st_mode) && depth < kMostDepth) {
        TakeRegistryDirectory(Descriptor(openat(at, name.c_str(), kReadDirectory)), path + "/",
                              depth + 1);
      } else if (S_ISREG(status.st_mode)) {
        auto bytes = ReadPlain(at, name, kMostFile, O_NOFOLLOW, &status);
        if (!bytes) {
          Miss(root_ + "/" + path, errno);
        } else {
          Put(std::string(kRegistryMembers) + path,
              ObjectFileWithoutPasswords(std::move(*bytes), &secrets_), status.st_mtime);
        }
      }
    }
    if (errno != 0) {
      Omit(root_ + "/" + below, strerror(errno));
    }
  }

  // An object that was taken.
  std::optional<FileObject> TakenObject(const char *name) const {
    const Member *member = capture_.Find(std::string(kRegistryMembers) + name);
    bool torn = false;
    return member != nullptr ? ParseObjectFile({member->bytes.begin(), member->bytes.end()}, &torn)
                             : std::nullopt;
  }

  void TakeRegistry() {
    const Descriptor root(OpenRegistryRoot(root_, false));
    TakeRegistryDirectory(Descriptor(root ? openat(root.get(), ".", kReadDirectory) : -1), "", 0);
    const auto state = TakenObject("host/agent");
    for (const FileVariable &variable : state ? state->variables : std::vector<FileVariable>()) {
      if (variable.name == "tlxHoAgentVersion") {
        capture_.agent = std::string(BytesOf(*state, variable).value_or(""));
      }
    }
  }

  // All of the modules, where they are the agent's as well.
  void TakeVariables() {
    const auto misc = TakenObject("host/misc");
    std::map<std::string, int32_t> numbers;
    for (const FileVariable &variable : misc ? misc->variables : std::vector<FileVariable>()) {
      numbers[variable.name] = IntegerOf(*misc, variable).value_or(-1);
    }
    const MibGroup &own = MibGroups().front();
    if (numbers["tlxHoMibRevMajor"] == own.major_revision &&
        numbers["tlxHoMibRevMinor"] == own.minor_revision) {
      for (const MibVariable &variable : MibVariables()) {
        if (variable.access != MibAccess::kNotify) {
          capture_.variables.insert(variable.name);
        }
      }
    }
  }

  void TakeFindings() {
    if (!all_secrets_) {
      Omit("doctor", kSecretsUnknown);
      return;
    }
    const TakenText findings = TakeDoctorsFindings(root_, search_);
    if (findings.text) {
      Put(kFindingsMember, WithoutSecrets(*findings.text, secrets_), time(nullptr));
    } else {
      Omit("doctor", findings.reason);
    }
  }

  void TakeLog() {
    if (!all_secrets_) {
      Omit("log", kSecretsUnknown);
      return;
    }
    const std::string file = LogFileOf(agent_);
    if (!file.empty()) {
      const TakenText log = TakeLogFile(file, search_, kMostLog);
      if (log.text) {
        Put(kLogFileMember, WithoutSecrets(*log.text, secrets_), time(nullptr));
      } else {
        Omit(file, log.reason);
      }
    }
    const TakenText journal = TakeJournal(search_, kMostLog);
    if (journal.text) {
      Put(kJournalMember, WithoutSecrets(*journal.text, secrets_), time(nullptr));
    } else if (file.empty()) {
      Omit("log", journal.reason);
    }
  }

  std::string root_;
  CaptureLimits limits_;
  Capture capture_;
  Secrets secrets_;
  bool all_secrets_ = true;  // what keeps them could be read
  std::string mount_table_;
  std::string search_;
  pid_t agent_ = 0;
  size_t total_ = 0;
};

std::string Summary(const Capture &capture, const std::string &file, size_t bytes) {
  auto members = nlohmann::ordered_json::array();
  for (const Member &member : capture.members) {
    members.push_back({{"name", Utf8(member.name)}, {"bytes", member.bytes.size()}});
  }
  auto omissions = nlohmann::ordered_json::array();
  for (const Omission &omission : capture.omissions) {
    omissions.push_back({{"source", Utf8(omission.source)}, {"reason", Utf8(omission.reason)}});
  }
  const nlohmann::ordered_json summary = {
      {"file", Utf8(file)}, {"bytes", bytes}, {"members", members}, {"omissions", omissions}};
  return SafeJson(summary.dump(2)) + "\n";
}

}  // namespace

int CaptureHost(const std::string &root, const std::string &file, const std::string &program,
                bool json, const CaptureLimits &limits) {
  if (geteuid() != 0) {
    Complain("capture reads what only root may: run it as root");
    return kFailed;
  }
  if (file == kStandardOutput && isatty(STDOUT_FILENO) != 0) {
    Complain("a capture is no text: name a file, or send standard output to one");
    return kWrongUsage;
  }
  if (json && file == kStandardOutput) {
    Complain("--json and the capture itself cannot both go to standard output: name a file");
    return kWrongUsage;
  }
  const Capture capture = Collector(root, limits).Collect(program);
  std::string error;
  const auto archive = PackMembers(capture.members, &error);
  if (!archive) {
    Complain(file + ": " + error);
    return kFailed;
  }
  if (!WriteOutput(file, *archive, kMode)) {
    return kFailed;
  }
  if (json) {
    std::cout << Summary(capture, file, archive->size());
    return FinishOutput(kDone);
  }
  // Not among the bytes of the capture.
  for (const Omission &omission : capture.omissions) {
    Complain("left out: " + omission.source + ": " + omission.reason);
  }
  std::cerr << "vexreg: " << capture.members.size() << " files, " << archive->size() / 1024
            << " KiB\n";
  return kDone;
}

}  // namespace vex
