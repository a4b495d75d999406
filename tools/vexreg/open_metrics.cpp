#include "tools/vexreg/open_metrics.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>
#include <optional>

#include "tools/vexreg/mib_words.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

// What a number is multiplied with and divided by: 93 / 100 is 0.93, 93 * 0.01 is not quite.
struct Scale {
  double factor = 1;
  double divisor = 1;
};
constexpr Scale kMegabytes = {1048576, 1};
constexpr Scale kHundredths = {1, 100};
constexpr Scale kMilliseconds = {1, 1000};
constexpr Scale kOnes = {};
constexpr double kNanosecondsAMs = 1e6;
constexpr int32_t kTrue = 1;  // TruthValue (RFC 2579)

// Backslash, quotation mark and line end, as the format asks. Other control characters are text
// already: the output may go to a terminal.
std::string Escaped(std::string_view bytes) {
  std::string text;
  while (true) {
    const size_t end = std::min(bytes.find('\n'), bytes.size());
    for (const char c : SafeText(bytes.substr(0, end))) {
      if (c == '\\' || c == '"') {
        text += '\\';
      }
      text += c;
    }
    if (end == bytes.size()) {
      return text;
    }
    text += "\\n";
    bytes.remove_prefix(end + 1);
  }
}

// The shortest digits that give the number again, which are 24 at most.
std::string Number(double value) {
  char text[32];
  return {text, std::to_chars(std::begin(text), std::end(text), value).ptr};
}

const FileVariable *Find(const FileObject &object, std::string_view name) {
  for (const FileVariable &variable : object.variables) {
    if (variable.type != 0 && variable.name == name) {
      return &variable;
    }
  }
  return nullptr;
}

// A variable's number; nothing when there is none or it is not known. No variable that is exported
// can be negative.
std::optional<int32_t> KnownInteger(const FileObject &object, std::string_view name) {
  const FileVariable *variable = Find(object, name);
  const auto value = variable != nullptr ? IntegerOf(object, *variable) : std::nullopt;
  return value && *value >= 0 ? value : std::nullopt;
}

std::string TextOf(const FileObject &object, std::string_view name) {
  const FileVariable *variable = Find(object, name);
  const auto bytes = variable != nullptr ? BytesOf(object, *variable) : std::nullopt;
  return bytes ? std::string(*bytes) : "";
}

// The word of an enumeration; the number where it has none.
std::string LabelText(const FileObject &object, std::string_view name) {
  const auto value = KnownInteger(object, name);
  const MibWords *words = FindMibWords(name);
  if (!value) {
    return "";
  }
  if (words != nullptr) {
    for (const MibLabel &label : words->labels) {
      if (label.value == *value) {
        return label.text;
      }
    }
  }
  return std::to_string(*value);
}

void AddScaled(MetricFamily *family, const FileObject &object, std::string_view name, Scale scale,
               const std::string &labels) {
  if (const auto value = KnownInteger(object, name)) {
    family->AddLabelled(labels, *value * scale.factor / scale.divisor);
  }
}

void AddScaled(MetricFamily *family, const FileObject &object, std::string_view name, Scale scale,
               const MetricLabels &labels = {}) {
  AddScaled(family, object, name, scale, LabelsText(labels));
}

struct Window {
  const char *variable;
  const char *name;
};

class Exposition {
 public:
  explicit Exposition(const std::vector<NamedObject> &objects) {
    for (const NamedObject &object : objects) {
      const auto row = ParseRowName(object.name);
      if (row) {
        rows_[std::string(row->group)].push_back({std::string(row->number), &object.object});
      } else {
        single_[object.name] = &object.object;
      }
    }
  }

  std::string Text() {
    text_.clear();
    AddIdentity();
    AddProcessors();
    AddMemory();
    AddFileSystems();
    AddLoad();
    AddSoftware();
    AddFirmware();
    AddConditions();
    AddPolls();
    return text_ + "# EOF\n";
  }

 private:
  struct Row {
    std::string number;
    const FileObject *object;
  };

  // The object of that name; an empty one when it is not published.
  const FileObject &Single(const std::string &name) const {
    static const FileObject kNone;
    const auto found = single_.find(name);
    return found != single_.end() ? *found->second : kNone;
  }
  const std::vector<Row> &Rows(const std::string &group) const {
    static const std::vector<Row> kNone;
    const auto found = rows_.find(group);
    return found != rows_.end() ? found->second : kNone;
  }
  void Take(const MetricFamily &family) {
    text_ += family.Text();
  }

  void AddIdentity() {
    const FileObject &info = Single("host/info");
    const FileObject &misc = Single("host/misc");
    if (info.variables.empty() && misc.variables.empty()) {
      return;
    }
    MetricFamily family("vexhost_info", "", "The host and its operating system.");
    family.Add({{"hostname", TextOf(info, "tlxHoSystemName")},
                {"os", TextOf(info, "tlxHoName")},
                {"os_version", TextOf(info, "tlxHoVersion")},
                {"os_description", TextOf(info, "tlxHoDesc")},
                {"role", TextOf(info, "tlxHoSystemRole")},
                {"guid", TextOf(misc, "tlxHoGUIDCanonical")},
                {"agent_version", TextOf(Single("host/agent"), "tlxHoAgentVersion")}},
               1);
    Take(family);
  }

  void AddProcessors() {
    constexpr Window kWindows[] = {{"tlxHoCpuUtilMin", "1m"},
                                   {"tlxHoCpuUtilFiveMin", "5m"},
                                   {"tlxHoCpuUtilThirtyMin", "30m"},
                                   {"tlxHoCpuUtilHour", "1h"}};
    MetricFamily family("vexhost_cpu_utilisation_ratio", "ratio",
                        "The share of time in which a processor worked, averaged.");
    for (const Row &row : Rows("host/cpu")) {
      for (const Window &window : kWindows) {
        AddScaled(&family, *row.object, window.variable, kHundredths,
                  {{"cpu", row.number}, {"window", window.name}});
      }
    }
    Take(family);
  }

  void AddMemory() {
    const FileObject &memory = Single("host/memory");
    const FileObject &detail = Single("host/memdetail");
    // Where the kernel says nothing, the details have nothing, and the older object what it had.
    const bool known = detail.variables.empty() || KnownInteger(detail, "tlxHoMemoryAvailable") ||
                       KnownInteger(detail, "tlxHoMemoryCached");
    if (!known) {
      return;
    }
    const auto add = [&](const char *name, const char *help, const FileObject &object,
                         const char *variable) {
      MetricFamily family(name, "bytes", help);
      AddScaled(&family, object, variable, kMegabytes);
      Take(family);
    };
    add("vexhost_memory_size_bytes", "The memory that the kernel manages.", memory,
        "tlxHoPhysicalMemorySize");
    add("vexhost_memory_free_bytes", "Memory that nothing uses.", memory,
        "tlxHoPhysicalMemoryFree");
    add("vexhost_memory_available_bytes", "Memory that programs can have without swapping.", detail,
        "tlxHoMemoryAvailable");
    add("vexhost_memory_cached_bytes", "Memory that holds caches.", detail, "tlxHoMemoryCached");
    add("vexhost_swap_size_bytes", "The swap space.", memory, "tlxHoPagingMemorySize");
    add("vexhost_swap_free_bytes", "The swap space that is free.", memory, "tlxHoPagingMemoryFree");
  }

  void AddFileSystems() {
    std::map<std::string, const FileObject *> mounts;
    for (const Row &row : Rows("host/mount")) {
      mounts[row.number] = row.object;
    }
    MetricFamily size("vexhost_filesystem_size_bytes", "bytes", "The size of a file system.");
    MetricFamily used("vexhost_filesystem_used_bytes", "bytes",
                      "What is not free of a file system.");
    MetricFamily inodes("vexhost_filesystem_inodes", "", "The inodes that a file system has.");
    MetricFamily inodes_used("vexhost_filesystem_inodes_used", "",
                             "The inodes of a file system that are in use.");
    MetricFamily readonly("vexhost_filesystem_readonly", "",
                          "1 when a file system is mounted read-only, else 0.");
    for (const Row &row : Rows("host/filesys")) {
      const FileObject &object = *row.object;
      const std::string description = TextOf(object, "tlxHoFileSysDesc");
      auto [device, directory] = SplitDescription(description);
      std::string type;
      const auto mount = mounts.find(row.number);
      if (mount != mounts.end()) {
        device = TextOf(*mount->second, "tlxHoMountDevice");
        directory = TextOf(*mount->second, "tlxHoMountDirectory");
        type = TextOf(*mount->second, "tlxHoMountType");
      }
      const std::string labels =
          LabelsText({{"device", device}, {"mountpoint", directory}, {"fstype", type}});
      if (!description.empty()) {
        // Without one it has never answered: its figures are those of a new row.
        AddScaled(&size, object, "tlxHoFileSysSpaceTotal", kMegabytes, labels);
        AddScaled(&used, object, "tlxHoFileSysSpaceUsed", kMegabytes, labels);
        AddScaled(&inodes, object, "tlxHoFileSysAllocUnitsTotal", kOnes, labels);
        AddScaled(&inodes_used, object, "tlxHoFileSysAllocUnitsUsed", kOnes, labels);
      }
      const auto is_readonly =
          mount != mounts.end() ? KnownInteger(*mount->second, "tlxHoMountReadOnly") : std::nullopt;
      if (is_readonly) {
        readonly.AddLabelled(labels, *is_readonly == kTrue ? 1 : 0);
      }
    }
    for (const MetricFamily *family : {&size, &used, &inodes, &inodes_used, &readonly}) {
      Take(*family);
    }
  }

  void AddLoad() {
    constexpr Window kWindows[] = {
        {"tlxHoLoadOne", "1m"}, {"tlxHoLoadFive", "5m"}, {"tlxHoLoadFifteen", "15m"}};
    MetricFamily family("vexhost_load", "", "How many tasks run or wait to run, averaged.");
    for (const Window &window : kWindows) {
      AddScaled(&family, Single("host/load"), window.variable, kHundredths,
                {{"window", window.name}});
    }
    Take(family);
  }

  void AddSoftware() {
    MetricFamily family("vexhost_software_info", "",
                        "Installed software that matters to the management of the host.");
    for (const Row &row : Rows("host/swver")) {
      family.Add({{"name", TextOf(*row.object, "tlxHoSwVerName")},
                  {"version", TextOf(*row.object, "tlxHoSwVerVersion")},
                  {"type", LabelText(*row.object, "tlxHoSwVerType")},
                  {"description", TextOf(*row.object, "tlxHoSwVerDescription")}},
                 1);
    }
    Take(family);
  }

  void AddFirmware() {
    std::map<std::string, const FileObject *> kinds;
    for (const Row &row : Rows("host/fwkind")) {
      kinds[row.number] = row.object;
    }
    MetricFamily family("vexhost_firmware_info", "", "The firmware found in the machine.");
    for (const Row &row : Rows("host/fwver")) {
      const auto kind = kinds.find(row.number);
      family.Add({{"name", TextOf(*row.object, "tlxHoFwVerDisplayName")},
                  {"version", TextOf(*row.object, "tlxHoFwVerVersion")},
                  {"location", TextOf(*row.object, "tlxHoFwVerLocation")},
                  {"device", kind != kinds.end() ? LabelText(*kind->second, "tlxHoFwKindDevice")
                                                 : std::string()},
                  {"key", TextOf(*row.object, "tlxHoFwVerKeyString")}},
                 1);
    }
    Take(family);
  }

  // A sample for each condition there is: 1 for the one that holds. None when nobody judges.
  static void AddCondition(MetricFamily *family, const MetricLabels &labels, int32_t condition) {
    const MibWords *words = FindMibWords("tlxHoMibCondition");
    if (words == nullptr || condition == 0) {
      return;
    }
    for (const MibLabel &label : words->labels) {
      MetricLabels all = labels;
      all.emplace_back("condition", label.text);
      family->Add(all, label.value == condition ? 1 : 0);
    }
  }

  void AddConditions() {
    const FileObject &misc = Single("host/misc");
    MetricFamily own("vexhost_condition", "", "1 for the condition that the host is in, else 0.");
    AddCondition(&own, {}, KnownInteger(misc, "tlxHoMibCondition").value_or(0));
    Take(own);
    MetricFamily siblings("vexhost_sibling_condition", "",
                          "1 for the condition that a sibling agent reports, else 0.");
    const std::vector<Row> &rows = Rows("host/sibling");
    for (const Row &row : rows) {
      if (KnownInteger(*row.object, "tlxHoSiblingPresent") == kTrue) {
        AddCondition(&siblings, {{"sibling", TextOf(*row.object, "tlxHoSiblingName")}},
                     KnownInteger(*row.object, "tlxHoSiblingCondition").value_or(0));
      }
    }
    const MibWords *groups = FindMibWords("tlxHoMibStatusArray");
    if (rows.empty() && groups != nullptr) {
      // Four octets a group: whether it runs, and its condition.
      const std::string array = TextOf(misc, "tlxHoMibStatusArray");
      for (const MibPart &group : groups->parts) {
        const size_t at = 4 * static_cast<size_t>(group.number);
        if (at + 1 < array.size() && array[at] != 0) {
          AddCondition(&siblings, {{"sibling", group.name}},
                       static_cast<unsigned char>(array[at + 1]));
        }
      }
    }
    Take(siblings);
  }

  void AddPolls() {
    const FileObject &agent = Single("host/agent");
    const FileObject &misc = Single("host/misc");
    MetricFamily last("vexhost_last_poll_timestamp_seconds", "seconds",
                      "When the agent's last poll ended, in seconds since 1970.");
    if (const auto seconds = KnownInteger(agent, "tlxHoAgentLastPoll")) {
      last.Add({}, *seconds);
    } else if (misc.published_ns > 0) {
      // Published at each poll.
      const double milliseconds =
          std::floor(static_cast<double>(misc.published_ns) / kNanosecondsAMs);
      last.Add({}, milliseconds / kMilliseconds.divisor);
    }
    Take(last);
    MetricFamily duration("vexhost_poll_duration_seconds", "seconds",
                          "How long the agent's last poll took.");
    AddScaled(&duration, agent, "tlxHoAgentPollDuration", kMilliseconds);
    Take(duration);
  }

  std::map<std::string, std::vector<Row>> rows_;
  std::map<std::string, const FileObject *> single_;
  std::string text_;
};

}  // namespace

MetricFamily::MetricFamily(std::string name, std::string_view unit, std::string_view help)
    : name_(std::move(name)) {
  head_ = "# TYPE " + name_ + " gauge\n";
  if (!unit.empty()) {
    head_ += "# UNIT " + name_ + " " + std::string(unit) + "\n";
  }
  head_ += "# HELP " + name_ + " " + Escaped(help) + "\n";
}

std::string LabelsText(const MetricLabels &labels) {
  std::string text;
  for (size_t i = 0; i < labels.size(); i++) {
    text += i == 0 ? "{" : ",";
    text += labels[i].first;
    text += "=\"" + Escaped(labels[i].second) + "\"";
  }
  text += labels.empty() ? "" : "}";
  return text;
}

void MetricFamily::AddLabelled(const std::string &labels, double value) {
  if (seen_.insert(labels).second) {
    samples_ += name_;
    samples_ += labels;
    samples_ += ' ';
    samples_ += Number(value);
    samples_ += '\n';
  }
}

std::string MetricFamily::Text() const {
  return samples_.empty() ? "" : head_ + samples_;
}

std::pair<std::string, std::string> SplitDescription(std::string_view description) {
  constexpr std::string_view kBetween = " on ";
  // A directory begins with a slash; a device may have blanks.
  size_t at = description.find(" on /");
  if (at == std::string_view::npos) {
    at = description.find(kBetween);
  }
  if (at == std::string_view::npos) {
    return {"", std::string(description)};
  }
  return {std::string(description.substr(0, at)),
          std::string(description.substr(at + kBetween.size()))};
}

std::string OpenMetrics(const std::vector<NamedObject> &objects) {
  return Exposition(objects).Text();
}

}  // namespace vex
