#include "tests/faults/tools_bench.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "framework/registry/registry_file.h"
#include "tools/vexreg/captured_host.h"

using namespace made_up;
namespace fs = std::filesystem;

namespace tool_faults {

namespace {

const std::string kRoom = "/run/faulty";
const std::string kRecorded = kRoom + "/recorded";  // the recorded objects
const std::string kSmall = kRoom + "/small";        // a registry that is written to
const std::string kOut = kRoom + "/out";
const std::string kTemporary = kRoom + "/tmp";
const std::string kCaptured = kRoom + "/host.tar.zst";
const std::string kData = kRoom + "/data";
const std::string kSaid = "/run/faulty-said";  // what the command prints
constexpr double kPatience = 12;  // doctor's questions to a master that is silent take six seconds

void WriteText(const std::string &path, std::string_view text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::map<std::string, std::string> FilesOfRoom() {
  std::map<std::string, std::string> files;
  for (const auto &entry : fs::recursive_directory_iterator(kRoom)) {
    files[entry.path()] = entry.is_regular_file() ? ReadFile(entry.path()) : "";
  }
  return files;
}

// By number and name: a number alone may be another's the next time.
std::set<std::string> Processes() {
  std::set<std::string> found;
  for (const std::string &name : ListDirectory("/proc")) {
    if (name.find_first_not_of("0123456789") == std::string::npos) {
      found.insert(name + " " + ReadFile("/proc/" + name + "/comm"));
    }
  }
  return found;
}

// An object of two numbers.
void PutNumbers(vex::ObjectFileWriter *writer, int32_t a, int32_t b) {
  const int32_t values[] = {a, b};
  const uint16_t lengths[] = {sizeof(a), sizeof(b)};
  EXPECT_EQ(writer->Publish(reinterpret_cast<const uint8_t *>(values), lengths), 0);
}

vex::ObjectFileWriter NumbersWriter(const std::string &name) {
  vex::ObjectFileWriter writer(name, kSmall);
  std::vector<vex::FileVariable> variables(2);
  for (size_t i = 0; i < variables.size(); i++) {
    variables[i].name = "var" + std::to_string(i);
    variables[i].type = VAR_INTEGER;
    variables[i].access = ACCESS_READ_ONLY;
    variables[i].size = sizeof(int32_t);
    variables[i].offset = static_cast<uint32_t>(i * sizeof(int32_t));
    variables[i].length = sizeof(int32_t);
  }
  writer.SetLayout(variables, 2 * sizeof(int32_t));
  return writer;
}

const std::vector<std::string> kRecordedRoot = {"--root", kRecorded};

}  // namespace

const char *NameOf(Judgement judgement) {
  constexpr const char *kNames[] = {"not reached", "no effect", "told",
                                    "failed",      "by rule",   "wrong"};
  return kNames[static_cast<int>(judgement)];
}

const std::vector<Subject> &Subjects() {
  static const std::vector<Subject> subjects = {
      {"show", Kind::kObjects, {"--root", kRecorded, "show"}},
      {"show-columns",
       Kind::kObjects,
       {"--root", kRecorded, "show", "filesys", "--sort", "-PercentSpaceUsed", "--columns",
        "+Published"}},
      {"show-variable", Kind::kObjects, {"--root", kRecorded, "show", "--json", "tlxHoCpuUtilMin"}},
      {"dump", Kind::kObjects, {"--root", kRecorded, "dump"}},
      {"dump-capture", Kind::kObjects, {"dump", "--capture", kCaptured, "host/cpu"}},
      {"export", Kind::kObjects, {"--root", kRecorded, "export"}},
      {"export-file",
       Kind::kObjects,
       {"--root", kRecorded, "export", "--output", kOut + "/file"},
       false,
       kOut + "/file"},
      {"report-capture",
       Kind::kPage,
       {"report", "--capture", kCaptured, kOut + "/file"},
       false,
       kOut + "/file"},
      {"completion", Kind::kText, {"--root", kRecorded, "completion", "bash"}},
      {"completion-names", Kind::kNames, {"--root", kRecorded, "completion", "names"}},
      {"completion-columns", Kind::kNames, {"--root", kRecorded, "completion", "columns"}},
      {"put",
       Kind::kWrite,
       {"--root", kSmall, "put", "example/one", "int:5", "str:16:text", "--data", kData}},
      {"put-new", Kind::kWrite, {"--root", kSmall, "put", "new/one", "int:5", "hex:00ff"}},
      {"rm", Kind::kWrite, {"--root", kSmall, "rm", "example/one"}},
      {"watch", Kind::kWatch, {"--root", kSmall, "watch", "example/one"}},
      {"watch-json", Kind::kWatch, {"--root", kSmall, "watch", "--json"}},
      {"doctor", Kind::kFindings, {"doctor"}, true},
      {"doctor-json", Kind::kFindings, {"doctor", "--json"}, true, "", true},
      {"report", Kind::kPage, {"report", kOut + "/file"}, true, kOut + "/file"},
      {"capture", Kind::kCapture, {"capture", kOut + "/file"}, true, kOut + "/file"},
      {"capture-json",
       Kind::kCapture,
       {"capture", "--json", kOut + "/file"},
       true,
       kOut + "/file",
       true},
  };
  return subjects;
}

const std::vector<faults::Call> &ToolCalls() {
  static const std::vector<faults::Call> calls = [] {
    std::vector<faults::Call> all = faults::Calls();
    const auto as = [&](const char *name, int error, const char *error_name) {
      const auto call = std::find_if(all.begin(), all.end(), [&](const faults::Call &one) {
        return std::string(name) == one.name;
      });
      all.push_back({call->name, call->number, error, error_name});
    };
    as("read", EINTR, "EINTR");
    as("write", EINTR, "EINTR");
    as("write", EIO, "EIO");
    as("poll", EINTR, "EINTR");
    as("openat", ENOMEM, "ENOMEM");
    as("newfstatat", ENOMEM, "ENOMEM");
    return all;
  }();
  return calls;
}

Bench::Bench(const Subject &subject) : subject_(subject), program_(VexregPath()) {
  // A program with counters writes them behind main(), with calls of its own.
  until_end_ = ReadFile(program_).find("__llvm_covmap") == std::string::npos;
  MakeRoom();
}

void Bench::MakeRoom() {
  for (const std::string &directory : {kRecorded, kSmall, kOut, kTemporary}) {
    fs::create_directories(directory);
  }
  fs::copy_file(VEX_TESTS_CAPTURE, kCaptured);
  const auto capture = vex::ReadCapture(kCaptured);
  ASSERT_TRUE(capture);
  for (const vex::Member &member : capture->members) {
    if (member.name.starts_with(vex::kRegistryMembers)) {
      const fs::path path = fs::path(kRecorded) / member.name.substr(vex::kRegistryMembers.size());
      fs::create_directories(path.parent_path());
      WriteText(path, member.bytes);
    }
  }
  WriteText(kData, std::string(64, 'd'));
  vex::ObjectFileWriter one = NumbersWriter("example/one"), two = NumbersWriter("example/two");
  PutNumbers(&one, 1, 2);
  PutNumbers(&two, 3, 4);
  for (const char *name : {"/example/one", "/example/two"}) {
    small_[kSmall + name] = ReadFile(kSmall + name);
  }
  if (!subject_.live) {
    return;
  }
  // Commands that a capture runs, quickly and always the same.
  host_.Command("dpkg", "echo \"ii  bash  5.2  amd64  shell $*\"");
  host_.Command("journalctl", "exit 1");
  SnmpdOptions master;
  master.extra = std::string("rocommunity ") + kSecret + "\n";
  host_.snmpd.Start(master);
  host_.daemon.Start({"-p", "15", "-l", "/run/agent.log"});
  std::ofstream("/run/agent.log", std::ios::app) << "who asks with " << kSecret << "?\n";
}

void Bench::Restore() {
  // The directories stay: the writers hold their registry's.
  for (const std::string &directory : {kSmall, kOut, kTemporary}) {
    for (const std::string &name : ListDirectory(directory)) {
      fs::remove_all(fs::path(directory) / name);
    }
  }
  WriteText(kOut + "/file", kOldText);
  fs::create_directories(kSmall + "/example");
  for (const auto &[path, bytes] : small_) {
    WriteText(path, bytes);
  }
  if (subject_.live) {
    host_.daemon.Poll();  // its values are fresh
  }
}

// While it watches: changes an object until that is told, and ends it as a person does.
void Bench::Watched(pid_t pid) {
  vex::ObjectFileWriter writer = NumbersWriter("example/one");
  int32_t value = 1000;
  const auto ended = [pid] {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | WNOHANG) == 0 &&
           info.si_pid == pid;
  };
  double next = 0;
  Eventually(
      [&] {
        if (Now() > next) {
          next = Now() + 0.15;
          PutNumbers(&writer, 1, value++);
        }
        return ReadFile(kSaid + "/out").find("100") != std::string::npos || ended();
      },
      5);
  kill(pid, SIGTERM);
}

Run Bench::RunOnce(bool count_calls, const faults::Call *call) {
  Restore();
  fs::create_directories(kSaid);
  std::vector<std::string> command = {program_};
  command.insert(command.end(), subject_.words.begin(), subject_.words.end());
  command = injector_.PrepareCommand(command, until_end_, count_calls ? nullptr : call);
  const std::vector<std::string> environment = {
      "PATH=/run/made-up/bin:/usr/sbin:/usr/bin:/sbin:/bin",
      "LC_ALL=C",
      "TZ=UTC0",
      "MIBS=",
      "TMPDIR=" + kTemporary,
      "SNMP_PERSISTENT_DIR=/run/faulty-snmp"};
  std::vector<char *> argv, envp;
  for (const std::string &word : command) {
    argv.push_back(const_cast<char *>(word.c_str()));
  }
  for (const std::string &word : environment) {
    envp.push_back(const_cast<char *>(word.c_str()));
  }
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  Run run;
  const std::set<std::string> before = Processes();
  const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC;
  const int out = open((kSaid + "/out").c_str(), flags, 0600);
  const int err = open((kSaid + "/err").c_str(), flags, 0600);
  const double from = Now();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    setsid();
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  for (const int fd : {in, out, err}) {
    close(fd);
  }
  if (!injector_.Attach(pid, program_)) {
    ADD_FAILURE() << "its calls cannot be seen";
    kill(pid, SIGKILL);
  }
  if (subject_.kind == Kind::kWatch) {
    Watched(pid);
  }
  int status = 0;
  const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  pollfd end = {process, POLLIN, 0};
  run.ended = poll(&end, 1, static_cast<int>(kPatience * 1000)) > 0;
  close(process);
  run.seconds = Now() - from;
  if (!run.ended) {
    kill(pid, SIGKILL);
  }
  waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  std::set<std::string> left;
  Eventually(
      [&] {
        left.clear();
        const std::set<std::string> now = Processes();
        std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                            std::inserter(left, left.end()));
        return left.empty();
      },
      2);
  for (const std::string &one : left) {
    run.left.push_back("process " + one.substr(one.find(' ') + 1, one.find('\n')));
    kill(std::stoi(one), SIGKILL);
  }
  injector_.Disarm();
  injector_.Detach();
  run.out = ReadFile(kSaid + "/out");
  run.err = ReadFile(kSaid + "/err");
  run.files = FilesOfRoom();
  return run;
}

Run Bench::RunWithout(const std::set<std::string> &objects) {
  auto known = without_.find(objects);
  if (known == without_.end()) {
    const std::string aside = "/run/faulty-aside", capture_aside = "/run/faulty-aside.tar.zst";
    fs::rename(kRecorded, aside);
    fs::copy(aside, kRecorded, fs::copy_options::recursive);
    fs::copy_file(kCaptured, capture_aside);
    std::string error;
    auto members = vex::UnpackMembers(ReadFile(kCaptured), &error).value();
    for (const std::string &object : objects) {
      fs::remove(fs::path(kRecorded) / object);
      std::erase_if(members, [&](const vex::Member &member) {
        return member.name == std::string(vex::kRegistryMembers) + object;
      });
    }
    WriteText(kCaptured, vex::PackMembers(members, &error).value());
    injector_.Choose({}, 0);
    known = without_.emplace(objects, RunOnce(false, &faults::Allocation())).first;
    fs::remove_all(kRecorded);
    fs::rename(aside, kRecorded);
    fs::rename(capture_aside, kCaptured);
  }
  return known->second;
}

bool Bench::Learn() {
  if (testing::Test::HasFatalFailure()) {
    return false;
  }
  injector_.Choose({}, 0);
  for (int again = 0; again < 2; again++) {
    expected_ = RunOnce(true, nullptr);
    for (const auto &[number, count] : injector_.Counts()) {
      counts_[number] = std::max(counts_[number], count);
    }
  }
  const Run once_more = RunOnce(true, nullptr);
  const Verdict verdict = Judge(subject_, expected_, once_more,
                                [this](const auto &objects) { return RunWithout(objects); });
  const bool alike = verdict.judgement == Judgement::kNoEffect && expected_.ended &&
                     (expected_.status == 0 || subject_.kind == Kind::kFindings);
  EXPECT_TRUE(alike) << "undisturbed, it ends with status " << expected_.status << ": "
                     << expected_.err << testing::PrintToString(verdict.differences);
  return alike;
}

Verdict Bench::Round(const faults::Call &call, unsigned n) {
  injector_.Choose(call, n);
  injector_.Spoil(sabotage_);
  const bool spoiled = sabotage_ != faults::Sabotage::kNone;
  sabotage_ = faults::Sabotage::kNone;
  const Run seen = RunOnce(false, &call);
  const bool fired = injector_.Fired();
  const std::string place = injector_.Place();
  Verdict verdict =
      Judge(subject_, expected_, seen, [this](const auto &objects) { return RunWithout(objects); });
  if (!fired && !spoiled && verdict.judgement != Judgement::kWrong) {
    return {};
  }
  if (verdict.judgement == Judgement::kWrong &&
      std::all_of(verdict.differences.begin(), verdict.differences.end(),
                  [&](const std::string &line) { return !Rule(subject_, call, line).empty(); })) {
    verdict.judgement = Judgement::kByRule;
  }
  if (verdict.judgement == Judgement::kWrong) {
    verdict.place = faults::Named(place, 8);
  }
  return verdict;
}

}  // namespace tool_faults
