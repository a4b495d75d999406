#include "tools/vexreg/captured_host.h"

#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "common/sources.h"
#include "framework/machine/appliance.h"
#include "framework/machine/distribution.h"
#include "framework/process/descriptor.h"
#include "framework/process/read_fully.h"
#include "hardware/kelmointrfc/paths.h"
#include "hardware/qvev/paths.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/forked.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMostFileBytes = size_t{256} << 20;  // of a capture, compressed
constexpr char kTemporary[] = "vexreg.XXXXXX";

void RemoveTree(const std::string &root) {
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
}

// What an object has under a name, when it is of that type.
std::string TextAt(const Json &object, const char *name) {
  const auto found = object.is_object() ? object.find(name) : object.end();
  return object.is_object() && found != object.end() && found->is_string()
             ? found->get<std::string>()
             : "";
}

int64_t NumberAt(const Json &object, const char *name) {
  const auto found = object.is_object() ? object.find(name) : object.end();
  return object.is_object() && found != object.end() && found->is_number_integer()
             ? found->get<int64_t>()
             : 0;
}

Json ListAt(const Json &object, const char *name) {
  const auto found = object.is_object() ? object.find(name) : object.end();
  return object.is_object() && found != object.end() && found->is_array() ? *found : Json::array();
}

std::vector<std::string> Texts(const Json &list) {
  std::vector<std::string> texts;
  for (const Json &one : list) {
    if (one.is_string()) {
      texts.push_back(one.get<std::string>());
    }
  }
  return texts;
}

std::optional<std::string> ReadWhole(const std::string &path) {
  Descriptor opened;
  const int fd = OpenInput(path, &opened);
  if (fd < 0) {
    return std::nullopt;
  }
  std::string bytes;
  std::string piece(size_t{1} << 20, '\0');
  ssize_t got = 0;
  while ((got = ReadFully(fd, piece.data(), piece.size())) > 0) {
    bytes.append(piece, 0, static_cast<size_t>(got));
    if (bytes.size() > kMostFileBytes) {
      errno = EFBIG;
      return std::nullopt;
    }
  }
  return got < 0 ? std::nullopt : std::optional(bytes);
}

}  // namespace

const std::vector<Source> &Sources() {
  static const std::string raw_evs = std::string(kRawEvDirectory) + "/ZTH*";
  static const std::string uefi_evs = std::string(kUefiVariableDirectory) + "/ZTH*";
  static const std::vector<Source> sources = {
      {processor_times_path, Treatment::kWhole},
      {memory_sizes_path, Treatment::kWhole},
      {processors_path, Treatment::kWhole},
      {load_averages_path, Treatment::kWhole},
      {uptime_path, Treatment::kWhole},
      {mount_table_path, Treatment::kMountTable},
      {kOsReleaseFiles[0], Treatment::kWhole},
      {kOsReleaseFiles[1], Treatment::kWhole},
      {kApplianceFile, Treatment::kAssignments},
      {"/etc/services", Treatment::kWhole},
      {"/etc/localtime", Treatment::kWhole},
      {kSmbiosEntryPoint, Treatment::kWhole},
      {kSmbiosTable, Treatment::kWhole},
      {raw_evs.c_str(), Treatment::kWhole},
      {uefi_evs.c_str(), Treatment::kWhole},
      {array_files, Treatment::kWhole},
      {raid_files, Treatment::kWhole},
      {fibre_channel_files, Treatment::kWhole},
      {scsi_device_list, Treatment::kWhole},
      {ide_files, Treatment::kWhole},
      {network_adapter_files, Treatment::kWhole},
      {package_database_path, Treatment::kPresence},
      {"/vmfs/*", Treatment::kPresence},
      {"/vmfs/*/.directory", Treatment::kPresence},
      {"/etc/snmp/snmp*.conf", Treatment::kSnmp},
      {"/etc/snmp/vexhostd*.conf", Treatment::kSnmp},
      {"/etc/snmp/*.d/*.conf", Treatment::kSnmp},
      {"/usr/share/snmp/snmp*.conf", Treatment::kSnmp},
  };
  return sources;
}

const Source *SourceOf(const std::string &path) {
  static const Source kernel = {kernel_configuration_prefix, Treatment::kWhole};
  if (path.starts_with(kernel_configuration_prefix) &&
      path.find('/', sizeof(kernel_configuration_prefix) - 1) == std::string::npos) {
    return &kernel;
  }
  for (const Source &source : Sources()) {
    if (fnmatch(source.pattern, path.c_str(), FNM_PATHNAME | FNM_PERIOD) == 0) {
      return &source;
    }
  }
  return nullptr;
}

const Member *Capture::Find(std::string_view name) const {
  const auto found = std::find_if(members.begin(), members.end(),
                                  [&](const Member &member) { return member.name == name; });
  return found != members.end() ? &*found : nullptr;
}

std::optional<int64_t> Capture::Moment() const {
  tm parts = {};
  const char *const end = strptime(made.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return end != nullptr && *end == '\0' ? std::optional<int64_t>(timegm(&parts)) : std::nullopt;
}

void UseTimeZoneOf(const Capture &capture) {
  // libc takes a zone's file by its path alone, and reads it once. The descriptor stays open, for a
  // library that reads it again.
  static Descriptor file;
  const Member *const zone = capture.Find(std::string(kHostMembers) + "etc/localtime");
  file.Reset(zone != nullptr ? memfd_create("localtime", MFD_CLOEXEC) : -1);
  const bool written = file && zone->bytes.starts_with("TZif") &&
                       write(file.get(), zone->bytes.data(), zone->bytes.size()) ==
                           static_cast<ssize_t>(zone->bytes.size());
  if (zone != nullptr && zone->bytes.starts_with("TZif") && !written) {
    Complain(std::string("the captured time zone: ") + strerror(errno) + "; times are of UTC");
  }
  const std::string path = ":/proc/self/fd/" + std::to_string(file.get());
  setenv("TZ", written ? path.c_str() : "UTC0", 1);
  tzset();
}

std::string DescriptionJson(const Capture &capture) {
  Json commands = Json::array();
  for (const CommandRun &run : capture.commands) {
    Json words = Json::array();
    for (const std::string &word : run.words) {
      words.push_back(Utf8(word));
    }
    commands.push_back({{"words", words}, {"member", run.member}, {"status", run.status}});
  }
  Json asked = Json::array();
  for (const auto &[oid, value] : capture.asked) {
    asked.push_back({{"oid", oid}, {"value", value}});
  }
  Json omissions = Json::array();
  for (const Omission &omission : capture.omissions) {
    omissions.push_back({{"source", Utf8(omission.source)}, {"reason", Utf8(omission.reason)}});
  }
  Json siblings = Json::array();
  for (const std::string &sibling : capture.siblings) {
    siblings.push_back(Utf8(sibling));
  }
  const Json description = {{"format", kCaptureFormat},
                            {"host", Utf8(capture.host)},
                            {"made", capture.made},
                            {"vexreg", capture.program},
                            {"agent", Utf8(capture.agent)},
                            {"kernel",
                             {{"release", Utf8(capture.release)},
                              {"version", Utf8(capture.version)},
                              {"machine", Utf8(capture.machine)}}},
                            {"commands", commands},
                            {"siblings", siblings},
                            {"asked", asked},
                            {"omissions", omissions},
                            {"variables", capture.variables}};
  return description.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::optional<Capture> CaptureOf(std::vector<Member> members, std::string *error) {
  Capture capture;
  capture.members = std::move(members);
  const Member *member = capture.Find(kDescriptionMember);
  const Json description =
      member != nullptr ? Json::parse(member->bytes, nullptr, false) : Json(nullptr);
  const int64_t format = NumberAt(description, "format");
  if (format != kCaptureFormat) {
    *error = format > kCaptureFormat ? "made by a later version of vexreg" : "not a capture";
    return std::nullopt;
  }
  capture.host = TextAt(description, "host");
  capture.made = TextAt(description, "made");
  capture.program = TextAt(description, "vexreg");
  capture.agent = TextAt(description, "agent");
  const auto kernel = description.find("kernel");
  if (kernel != description.end()) {
    capture.release = TextAt(*kernel, "release");
    capture.version = TextAt(*kernel, "version");
    capture.machine = TextAt(*kernel, "machine");
  }
  for (const Json &one : ListAt(description, "commands")) {
    CommandRun run;
    run.words = Texts(ListAt(one, "words"));
    run.member = TextAt(one, "member");
    run.status = static_cast<int>(NumberAt(one, "status") & 0xFF);
    capture.commands.push_back(std::move(run));
  }
  for (const Json &one : ListAt(description, "asked")) {
    capture.asked.emplace_back(TextAt(one, "oid"), static_cast<int32_t>(NumberAt(one, "value")));
  }
  for (const Json &one : ListAt(description, "omissions")) {
    capture.omissions.push_back({TextAt(one, "source"), TextAt(one, "reason")});
  }
  capture.siblings = Texts(ListAt(description, "siblings"));
  for (std::string &name : Texts(ListAt(description, "variables"))) {
    capture.variables.insert(std::move(name));
  }
  return capture;
}

std::optional<Capture> ReadCapture(const std::string &path) {
  const auto bytes = ReadWhole(path);
  if (!bytes) {
    Complain(path + ": " + strerror(errno));
    return std::nullopt;
  }
  std::string error;
  auto members = UnpackMembers(*bytes, &error);
  auto capture = members ? CaptureOf(std::move(*members), &error) : std::nullopt;
  if (!capture) {
    Complain(path + ": " + error);
  }
  return capture;
}

bool WriteBelow(int directory, const std::string &name, std::string_view bytes, mode_t mode,
                mode_t directory_mode, int64_t modified) {
  Descriptor at(fcntl(directory, F_DUPFD_CLOEXEC, 0));
  size_t from = 0;
  for (size_t slash = 0; at && (slash = name.find('/', from)) != std::string::npos;
       from = slash + 1) {
    const std::string part = name.substr(from, slash - from);
    if (mkdirat(at.get(), part.c_str(), directory_mode) != 0 && errno != EEXIST) {
      return false;
    }
    at.Reset(openat(at.get(), part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  if (!at) {
    return false;
  }
  const Descriptor file(openat(at.get(), name.substr(from).c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!file || fchmod(file.get(), mode) != 0) {
    return false;
  }
  while (!bytes.empty()) {
    const ssize_t written = write(file.get(), bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
  }
  const timespec times[2] = {{modified, 0}, {modified, 0}};
  return modified == 0 || futimens(file.get(), times) == 0;
}

CapturedRegistry::~CapturedRegistry() {
  if (sweeper_ > 0) {
    alive_.Reset();
    waitpid(sweeper_, nullptr, 0);
  }
  if (!root_.empty()) {
    RemoveTree(root_);
  }
}

// The sweeper makes the directory itself, so that there is no moment at which nobody would remove
// it.
bool CapturedRegistry::MakeDirectory() {
  std::error_code unusable;
  const std::filesystem::path place = std::filesystem::temp_directory_path(unusable);
  std::string directory = (unusable ? std::filesystem::path("/tmp") : place) / kTemporary;
  int ends[2];
  int names[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return false;
  }
  const Descriptor seen(ends[0]);
  alive_.Reset(ends[1]);
  if (pipe2(names, O_CLOEXEC) != 0) {
    return false;
  }
  Descriptor named(names[0]);
  Descriptor name(names[1]);
  sweeper_ = Forked([&] {
    // Ctrl-C is for all of a terminal's processes, and this one has its work to do then.
    setsid();
    alive_.Reset();
    named.Reset();
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      close(standard);
    }
    signal(SIGPIPE, SIG_IGN);
    const int failure = mkdtemp(directory.data()) != nullptr ? 0 : errno;
    const std::string told =
        std::string(reinterpret_cast<const char *>(&failure), sizeof(failure)) + directory;
    const bool whole = write(name.get(), told.data(), told.size()) > 0;
    name.Reset();
    char end;
    while (whole && read(seen.get(), &end, 1) < 0) {  // an error is not the end
    }
    if (failure == 0) {
      RemoveTree(directory);
    }
    return kDone;
  });
  int failure = errno;
  name.Reset();
  ssize_t length = -1;
  if (sweeper_ > 0) {
    errno = EPIPE;  // the end of the pipe is no error by itself
    if (ReadFully(named.get(), &failure, sizeof(failure)) != sizeof(failure)) {
      failure = errno;
    } else if (failure == 0) {
      length = ReadFully(named.get(), directory.data(), directory.size());
      failure = errno;
    }
  }
  root_ = length == static_cast<ssize_t>(directory.size()) ? directory : "";
  errno = failure;
  return !root_.empty();
}

bool CapturedRegistry::Open(const std::string &path) {
  auto capture = ReadCapture(path);
  if (!capture) {
    return false;
  }
  capture_ = std::move(*capture);
  if (!MakeDirectory()) {
    Complain(std::string("no directory for the captured objects: ") + strerror(errno));
    return false;
  }
  const Descriptor root(open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  for (const Member &member : capture_.members) {
    if (member.name.starts_with(kRegistryMembers) &&
        (!root || !WriteBelow(root.get(), member.name.substr(kRegistryMembers.size()), member.bytes,
                              0600, 0700))) {
      Complain(root_ + ": " + strerror(errno));
      return false;
    }
  }
  return true;
}

}  // namespace vex
