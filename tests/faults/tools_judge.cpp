// Whether what a disturbed run of vexreg left and said may be.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <regex>

#include "framework/registry/registry_file.h"
#include "tests/faults/tools_bench.h"
#include "tools/vexreg/captured_host.h"

using made_up::Lines;

namespace tool_faults {

namespace {

using Texts = std::vector<std::string>;

constexpr char kName[] = "vexreg: ";
constexpr double kSlow = 4;  // seconds more than an undisturbed run

// Lines of b that a has not, each as often as it comes.
Texts Added(const Texts &a, Texts b) {
  for (const std::string &line : a) {
    const auto found = std::find(b.begin(), b.end(), line);
    if (found != b.end()) {
      b.erase(found);
    }
  }
  return b;
}

std::string FileOf(const Run &run, const std::string &path) {
  const auto found = run.files.find(path);
  return found != run.files.end() ? found->second : "";
}

// The lines of standard error that an undisturbed run has not.
Texts Told(const Run &expected, const Run &seen) {
  return Added(Lines(WithoutFigures(expected.err)), Lines(WithoutFigures(seen.err)));
}

// The names that lines of standard error begin with: objects, mostly.
std::set<std::string> NamesTold(const Run &expected, const Run &seen) {
  std::set<std::string> names;
  for (const std::string &line : Added(Lines(expected.err), Lines(seen.err))) {
    std::smatch match;
    if (std::regex_match(line, match, std::regex("vexreg: ([^: ]+): .*"))) {
      names.insert(match[1]);
    }
  }
  return names;
}

// "vexreg: WHAT: WHY", or what there is only one of.
bool SaysWhy(const std::string &line) {
  static const std::regex form("vexreg: (.+: .+|cannot write to standard output|out of memory)",
                               std::regex::extended);
  return std::regex_match(line, form);
}

class Judgment {
 public:
  Judgment(const Subject &subject, const Run &expected, const Run &seen, const Without &without)
      : subject_(subject), expected_(expected), seen_(seen), without_(without) {}

  Verdict Do() {
    const Texts told = Told(expected_, seen_);
    if (!seen_.ended) {
      Wrong("it does not end");
    } else if (seen_.status >= 128) {
      Wrong("it ends by signal " + std::to_string(seen_.status - 128));
    } else if (seen_.seconds > expected_.seconds + kSlow) {
      Wrong("it takes " + std::to_string(seen_.seconds) + " s");
    }
    for (const std::string &one : seen_.left) {
      Wrong("left: " + one);
    }
    LookAtFiles();
    LookForSecrets();
    const bool succeeded = seen_.status == expected_.status;
    if (succeeded || (subject_.kind == Kind::kFindings && seen_.status == 1)) {
      LookAtResult();
    }
    if (!succeeded && seen_.status < 128) {
      LookAtFailure(told);
    }
    if (!succeeded) {
      LookAtOutputOfFailure();
    }
    for (const std::string &line : told) {
      if (!line.starts_with(kName)) {
        Wrong("standard error: " + line);
      }
    }
    if (!verdict_.differences.empty()) {
      verdict_.judgement = Judgement::kWrong;
    } else if (!succeeded) {
      verdict_.judgement = Judgement::kFailed;
    } else {
      verdict_.judgement = differs_ || !told.empty() ? Judgement::kTold : Judgement::kNoEffect;
    }
    return verdict_;
  }

 private:
  void Wrong(const std::string &what) {
    verdict_.differences.push_back(what);
  }

  void Differ(const Texts &before, const Texts &now) {
    for (const std::string &line : Added(now, before)) {
      Wrong("- " + line);
    }
    for (const std::string &line : Added(before, now)) {
      Wrong("+ " + line);
    }
  }

  // Status 1 is a failure, and a line says of what; it promises nothing else.
  void LookAtFailure(const Texts &told) {
    if (seen_.status != 1 && !(subject_.kind == Kind::kFindings && seen_.status == 0)) {
      Wrong("status " + std::to_string(seen_.status));
    }
    const bool found =
        subject_.kind == Kind::kFindings &&
        seen_.out.find(subject_.name == std::string("doctor-json") ? "\"state\":\"fail\""
                                                                   : "FAIL  ") != std::string::npos;
    if (!found && seen_.status != 0 && std::none_of(told.begin(), told.end(), SaysWhy)) {
      Wrong("status " + std::to_string(seen_.status) +
            " without a reason: " + (seen_.err.empty() ? "nothing" : seen_.err));
    }
  }

  // The file that it writes is the old one or a whole one; everything else is as it was.
  void LookAtFiles() {
    for (const auto &[path, content] : seen_.files) {
      const bool strange = !expected_.files.contains(path) && subject_.kind != Kind::kWrite;
      if (strange || path.find("/.") != std::string::npos) {
        Wrong("left: " + path);
      }
    }
    for (const auto &[path, content] : expected_.files) {
      const bool written =
          path == subject_.output || subject_.kind == Kind::kWrite || subject_.kind == Kind::kWatch;
      if (!seen_.files.contains(path) && subject_.kind != Kind::kWrite) {
        Wrong("lost: " + path);
      } else if (!written && seen_.files.at(path) != content) {
        Wrong("changed: " + path);
      }
    }
  }

  // Of what it writes by itself, each time of a moment, there is no other whole one to compare
  // with.
  void LookAtOutputOfFailure() {
    if (subject_.output.empty()) {
      return;
    }
    const std::string now = FileOf(seen_, subject_.output);
    std::string error;
    const bool whole = subject_.kind == Kind::kCapture ? vex::UnpackMembers(now, &error).has_value()
                       : subject_.kind == Kind::kPage  ? now.ends_with("</html>\n")
                                                       : now == FileOf(expected_, subject_.output);
    if (now != kOldText && !whole) {
      Wrong("the file is neither the old one nor a whole new one");
    }
  }

  void LookForSecrets() {
    Texts shown = {seen_.out, seen_.err};
    for (const auto &[path, content] : seen_.files) {
      shown.push_back(content);
    }
    if (subject_.kind == Kind::kCapture) {
      std::string error;
      const auto members = vex::UnpackMembers(FileOf(seen_, subject_.output), &error);
      for (const vex::Member &member : members ? *members : std::vector<vex::Member>()) {
        if (member.bytes.find(kSecret) != std::string::npos) {
          Wrong("a secret stands in " + member.name);
        }
      }
    }
    for (const std::string &text : shown) {
      if (text.find(kSecret) != std::string::npos) {
        Wrong("a secret is shown");
      }
    }
  }

  void LookAtResult() {
    switch (subject_.kind) {
      case Kind::kObjects:
        return LookAtObjects();
      case Kind::kText:
        return Differ(Output(expected_), Output(seen_));
      case Kind::kNames:
        differs_ = expected_.out != seen_.out;
        return Told(expected_, seen_).empty() ? Differ(Lines(expected_.out), Lines(seen_.out))
                                              : (void)0;
      case Kind::kFindings:
        return LookAtFindings(seen_.out, expected_.out);
      case Kind::kPage:
        return LookAtPage();
      case Kind::kCapture:
        return LookAtCapture();
      case Kind::kWrite:
        return LookAtObjectFiles();
      case Kind::kWatch:
        return LookAtChanges();
    }
  }

  // What it printed and wrote.
  Texts Output(const Run &run) const {
    Texts lines = Lines(run.out);
    for (const std::string &line : Lines(FileOf(run, subject_.output))) {
      lines.push_back(line);
    }
    return lines;
  }

  // All of it, or all but the objects that are named.
  void LookAtObjects() {
    for (const std::string &line :
         Added(Lines(WithoutFigures(seen_.err)), Lines(WithoutFigures(expected_.err)))) {
      if (Told(expected_, seen_).empty()) {  // else that it cannot be said
        Wrong("not said: " + line);
      }
    }
    if (Output(expected_) == Output(seen_)) {
      return;
    }
    differs_ = true;
    const std::set<std::string> names = NamesTold(expected_, seen_);
    Differ(Output(names.empty() ? expected_ : without_(names)), Output(seen_));
  }

  // Each check is there; another outcome than the undisturbed one is no "ok".
  void LookAtFindings(const std::string &seen_text, const std::string &expected_text) {
    const auto parse = [&](const std::string &text) {
      std::map<std::string, Texts> checks;  // by check: state and message
      if (text.starts_with("[")) {
        const auto list = nlohmann::json::parse(text, nullptr, false);
        if (!list.is_array()) {
          Wrong("the findings are no JSON");
          return checks;
        }
        for (const auto &one : list) {
          checks[one.value("check", "")].push_back(one.value("state", "") + " " +
                                                   WithoutFigures(one.value("message", "")));
        }
        return checks;
      }
      for (const std::string &line : Lines(text)) {
        const std::string message = line.substr(std::min<size_t>(6, line.size()));
        const size_t end = message.find(':');
        checks[message.substr(0, end)].push_back(WithoutFigures(line));
      }
      return checks;
    };
    if (!Told(expected_, seen_).empty() && seen_.status == 1 &&
        seen_text.find("\"all checks were made") == std::string::npos) {
      return;  // it gave up, and says so
    }
    const auto expected = parse(expected_text), seen = parse(seen_text);
    for (const auto &[check, lines] : expected) {
      const auto found = seen.find(check);
      if (found == seen.end()) {
        Wrong("no word of: " + lines.front());
        continue;
      }
      for (const std::string &line : Added(lines, found->second)) {
        differs_ = true;
        if (line.starts_with("ok")) {
          Wrong("+ " + line);
        }
      }
    }
    for (const auto &[check, lines] : seen) {
      if (!expected.contains(check) && lines.front().starts_with("ok")) {
        Wrong("+ " + lines.front());
      }
    }
  }

  // The page is whole. What differs stands in it: a finding, or that there is none.
  void LookAtPage() {
    const std::string page = FileOf(seen_, subject_.output);
    if (!page.starts_with("<!DOCTYPE html>") || !page.ends_with("</html>\n")) {
      Wrong("the page is not whole: " + std::to_string(page.size()) + " bytes");
      return;
    }
    const auto split = [](const std::string &text) {
      // Findings and log; the rest.
      std::pair<Texts, Texts> parts;
      bool own = false;
      for (const std::string &line : Lines(WithoutFigures(text))) {
        if (line.find("<section") != std::string::npos) {
          own = line.find("findings") != std::string::npos || line.find("log") != std::string::npos;
        }
        (own ? parts.first : parts.second).push_back(line);
      }
      return parts;
    };
    const auto now = split(page), before = split(FileOf(expected_, subject_.output));
    differs_ = now != before;
    if (!Told(expected_, seen_).empty()) {
      return;
    }
    Differ(before.second, now.second);
  }

  void LookAtCapture() {
    const auto members = [&](const Run &run) {
      std::string error;
      auto found = vex::UnpackMembers(FileOf(run, subject_.output), &error);
      if (!found) {
        Wrong("no capture: " + error);
      }
      std::map<std::string, std::string> by_name;
      for (const vex::Member &member : found ? *found : std::vector<vex::Member>()) {
        by_name[member.name] = member.bytes;
      }
      return by_name;
    };
    const auto expected = members(expected_), seen = members(seen_);
    // Standard error, or the summary, and the description in the capture name what is left out.
    const std::string told = subject_.name == std::string("capture-json") ? seen_.out : seen_.err;
    const auto description = seen.find(vex::kDescriptionMember);
    for (const auto &[name, bytes] : expected) {
      const auto found = seen.find(name);
      if (found == seen.end()) {
        differs_ = true;
        if (description == seen.end() || !Names(told, name) || !Names(description->second, name)) {
          Wrong("not in the capture, and nothing says so: " + name);
        }
        continue;
      }
      const bool moves = name == vex::kDescriptionMember || name == vex::kFindingsMember;
      // Figures of mounts that could not be asked are marked so, in the file.
      const bool alike = name.starts_with(vex::kRegistryMembers)
                             ? ObjectShape(found->second) == ObjectShape(bytes)
                             : WithoutFigures(found->second) == WithoutFigures(bytes);
      if (!moves && !alike) {
        differs_ = true;
        if (name != vex::kFiguresMember || (told.find("/etc/mtab") == std::string::npos &&
                                            told.find("has not answered") == std::string::npos)) {
          Wrong("another content: " + name);
        }
      }
    }
    for (const auto &[name, bytes] : seen) {
      if (!expected.contains(name)) {
        Wrong("+ " + name);
      }
    }
    // What the description says, but for the moment.
    const auto description_of = [](const std::map<std::string, std::string> &all) {
      const auto found = all.find(vex::kDescriptionMember);
      auto json = nlohmann::json::parse(found != all.end() ? found->second : "", nullptr, false);
      if (json.is_object()) {
        json.erase("made");
        json.erase("omissions");
      }
      return json;
    };
    const auto before = description_of(expected), now = description_of(seen);
    if (now != before) {
      differs_ = true;
      if (Told(expected_, seen_).empty() && Added(Lines(expected_.out), Lines(seen_.out)).empty()) {
        Wrong("the description differs, and nothing says so: " +
              nlohmann::json::diff(before, now).dump().substr(0, 300));
      }
    }
  }

  // Whether a text names what a member is of: a registry's file, or a directory that it is in.
  static bool Names(const std::string &text, const std::string &member) {
    if (!member.starts_with(vex::kRegistryMembers)) {
      return text.find(SourceOf(member)) != std::string::npos;
    }
    for (std::string path = "/" + member; path.size() > 1;
         path = path.substr(0, path.rfind('/', path.size() - 2) + 1)) {
      if (text.find(path + ": ") != std::string::npos ||
          text.find(path + "\"") != std::string::npos) {
        return true;
      }
    }
    return false;
  }

  // What an omission of a member names.
  static std::string SourceOf(const std::string &member) {
    const std::string path = member.substr(member.find('/') + 1);
    return member == vex::kFindingsMember    ? "doctor"
           : member.starts_with("log/")      ? "log"
           : member.starts_with("commands/") ? "dpkg"
                                             : path.substr(0, path.rfind('/'));
  }

  // Objects that are read from files: times of their publication differ.
  void LookAtObjectFiles() {
    std::set<std::string> paths;
    for (const Run *run : {&expected_, &seen_}) {
      for (const auto &[path, content] : run->files) {
        paths.insert(path);
      }
    }
    for (const std::string &path : paths) {
      const bool before = expected_.files.contains(path), now = seen_.files.contains(path);
      if (before != now) {
        Wrong((before ? "lost: " : "left: ") + path);
      } else if (ObjectText(expected_.files.at(path)) != ObjectText(seen_.files.at(path))) {
        Wrong("not written: " + path);
      }
    }
  }

  // Of an object's file, all but its slots' headers, which have the time.
  static std::string ObjectText(const std::string &bytes) {
    const auto object = ParseObject(bytes);
    return object ? *object : bytes;
  }

  // And without its values, which move on a host that lives.
  static std::string ObjectShape(const std::string &bytes) {
    const auto object = ParseObject(bytes, false);
    return object ? *object : bytes;
  }

  static std::optional<std::string> ParseObject(const std::string &bytes, bool values = true);

  // The change was told, and nothing that was none.
  void LookAtChanges() {
    if (seen_.out.find("100") == std::string::npos && Told(expected_, seen_).empty()) {
      Wrong("the change was not told");
    }
    if (seen_.out.find("removed") != std::string::npos) {
      Wrong("told as removed, which it was not");
    }
  }

  const Subject &subject_;
  const Run &expected_;
  const Run &seen_;
  const Without &without_;
  bool differs_ = false;
  Verdict verdict_;
};

std::optional<std::string> Judgment::ParseObject(const std::string &bytes, bool values) {
  if (bytes.empty()) {
    return std::nullopt;
  }
  const std::string root = "/run/faulty-judged";
  std::filesystem::create_directories(root);
  FILE *file = fopen((root + "/object").c_str(), "we");
  fwrite(bytes.data(), 1, bytes.size(), file);
  fclose(file);
  const auto object = vex::ReadObjectFile("object", root);
  if (!object) {
    return std::nullopt;
  }
  std::string text = values ? std::string(object->data.begin(), object->data.end()) : "";
  for (const vex::FileVariable &variable : object->variables) {
    text += variable.name + " " + std::to_string(variable.type) + " " +
            std::to_string(variable.length) + "\n";
  }
  return text;
}

}  // namespace

// Numbers are times, ages and sizes where they are not an object's.
std::string WithoutFigures(const std::string &text) {
  std::string plain;
  for (const char c : text) {
    if (c < '0' || c > '9') {
      plain += c;
    } else if (plain.empty() || plain.back() != '#') {
      plain += '#';
    }
  }
  return plain;
}

Verdict Judge(const Subject &subject, const Run &expected, const Run &seen,
              const Without &without) {
  return Judgment(subject, expected, seen, without).Do();
}

}  // namespace tool_faults
