#include "tools/vexreg/commands.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <new>
#include <nlohmann/json.hpp>

#include "common/sources.h"
#include "framework/process/descriptor.h"
#include "framework/process/read_fully.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_format.h"
#include "tools/vexreg/absence.h"
#include "tools/vexreg/findings.h"
#include "tools/vexreg/live_data.h"
#include "tools/vexreg/put.h"
#include "tools/vexreg/values.h"
#include "tools/vexreg/words.h"

namespace vex {
namespace {

constexpr int kUsualWidth = 80;  // of a terminal that does not say how wide it is

bool FileExists(const std::string &root, const std::string &relative) {
  const Descriptor root_fd(OpenRegistryRoot(root, false));
  return root_fd && Descriptor(OpenBeneath(root_fd.get(), relative, O_PATH));
}

// The bytes of a file ("-": standard input), at most one more than an object can have; nothing,
// with errno, when it cannot be read.
std::optional<std::vector<uint8_t>> ReadData(const std::string &path) {
  Descriptor opened;
  const int fd = OpenInput(path, &opened);
  if (fd < 0) {
    return std::nullopt;
  }
  std::vector<uint8_t> bytes(kMaxData + 1);
  const ssize_t size = ReadFully(fd, bytes.data(), bytes.size());
  if (size < 0) {
    return std::nullopt;
  }
  bytes.resize(static_cast<size_t>(size));
  return bytes;
}

// JSON on lines of its own, indented by two more blanks.
std::string Indented(const nlohmann::ordered_json &json) {
  std::string text;
  for (const char c : json.dump(2)) {
    text += c;
    if (c == '\n') {
      text += "  ";
    }
  }
  return text;
}

void PrintJson(const std::vector<NamedObject> &objects,
               nlohmann::ordered_json (*value)(const FileObject &, const FileVariable &)) {
  // Object by object: one JSON value of ten thousand members would look each name up in a list.
  std::cout << '{';
  for (size_t i = 0; i < objects.size(); i++) {
    std::cout << (i == 0 ? "\n  " : ",\n  ")
              << SafeJson(nlohmann::ordered_json(Utf8(objects[i].name)).dump() + ": " +
                          Indented(ObjectJson(objects[i].object, value)));
  }
  std::cout << (objects.empty() ? "}\n" : "\n}\n");
}

// What it is that the agent's values are old; empty while they are not.
std::string WhyOld(const std::string &root) {
  std::vector<NamedObject> heads;
  for (const std::string &name : HeadGroups()) {
    errno = 0;
    if (auto object = ReadObjectFile(name, root)) {
      heads.push_back({name, std::move(*object)});
    } else if (errno != 0 && errno != ENOENT && errno != EACCES) {
      return name + ": cannot be read, so nobody knows how old the values are: " + strerror(errno);
    }
  }
  const int64_t now = time(nullptr);
  const LiveData data = DataOf(heads, true, now, 0);
  const int64_t age = data.AgeOfValues(now, 0);
  return age >= 0 && data.IsStale(now, 0)
             ? "values are " + AgeText(age) + " old: " + SightText(SeeAgent(root), true)
             : "";
}

// Nothing here needs memory. What runs below this process ends with it.
[[noreturn]] void EndWithoutMemory() {
  constexpr char kMessage[] = "vexreg: out of memory\n";
  (void)!write(STDERR_FILENO, kMessage, sizeof(kMessage) - 1);
  _exit(kFailed);
}

// Whether an error of reading a data file is one of naming it.
bool IsWrongName(int error) {
  return error == ENOENT || error == ENOTDIR || error == EISDIR || error == EACCES ||
         error == ELOOP || error == ENAMETOOLONG;
}

// A name in a message, in which an empty one shows, too.
std::string Said(const std::string &name) {
  return name.empty() ? "''" : name;
}

}  // namespace

int Caught(const std::function<int()> &work) {
  std::set_new_handler(EndWithoutMemory);
  try {
    return work();
  } catch (const std::bad_alloc &) {
    EndWithoutMemory();  // of a live view, which has given the terminal back
  } catch (const std::exception &error) {
    std::set_new_handler(EndWithoutMemory);  // which a live view has taken away
    Complain(error.what());
  }
  return kFailed;
}

void TellUnread(const std::vector<Unread> &unread, const std::string &root, int *status) {
  for (const Unread &one : unread) {
    *status = kFailed;
    Complain((one.name.empty() ? root : one.name) +
             ": cannot be looked at: " + strerror(one.error));
  }
}

void TellLeftOut(const Found &found, const std::string &root, int *status) {
  for (const std::string &name : found.damaged) {
    Complain(name + ": damaged, left out");
  }
  TellUnread(found.unread, root, status);
}

void Complain(const std::string &message) {
  std::cerr << "vexreg: " << SafeText(message) << '\n';
}

int OpenInput(const std::string &path, Descriptor *opened) {
  if (path == "-") {
    return STDIN_FILENO;
  }
  opened->Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return opened->get();
}

int TerminalWidth() {
  if (!isatty(STDOUT_FILENO)) {
    return 0;
  }
  winsize size = {};
  ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
  return size.ws_col > 0 ? size.ws_col : kUsualWidth;
}

int FinishOutput(int status) {
  if (!std::cout.flush()) {
    Complain("cannot write to standard output");
    return kFailed;
  }
  return status;
}

std::vector<NamedObject> ReadObjects(const Selection &selection, int *status) {
  Found found = FindObjects(selection);
  TellLeftOut(found, selection.root, status);
  for (const std::string &name : found.unreadable) {
    *status = kFailed;
    Complain(name + ": cannot be read as an object");
  }
  if (!found.missing.empty()) {
    *status = kFailed;
    const std::vector<std::string> names = ListObjects(selection.root);
    for (const std::string &name : found.missing) {
      const std::string nearest = NearestName(name, names);
      Complain(Said(name) + ": no such object" +
               (nearest.empty() ? "" : "; did you mean " + nearest + "?"));
    }
    if (names.empty()) {
      Complain(WhyNothing(selection.root));
    }
  }
  return std::move(found.objects);
}

int Dump(const Selection &selection) {
  int status = kDone;
  PrintJson(ReadObjects(selection, &status), ValueJson);
  return FinishOutput(status);
}

int Show(const Selection &selection, const View &view, const Arrangement &arrangement) {
  int status = kDone;
  std::vector<NamedObject> objects = ReadObjects(selection, &status);
  if (objects.empty() && selection.names.empty()) {
    status = kFailed;
    if (ListObjects(selection.root).empty()) {  // else all are damaged, which has been said
      Complain(WhyNothing(selection.root));
    }
  }
  std::string error;
  if (!Arrange(arrangement, &objects, &error)) {
    Complain(error);
    return kWrongUsage;
  }
  const bool of_agent = std::any_of(objects.begin(), objects.end(), [](const NamedObject &object) {
    return object.name.starts_with(host_objects);
  });
  const std::string old = of_agent && !view.captured ? WhyOld(selection.root) : "";
  if (!old.empty()) {
    Complain(old);
  }
  if (view.json) {
    PrintJson(objects, view.raw ? ValueJson : WordJson);
    return FinishOutput(status);
  }
  Style style = ChooseStyle(view.raw, view.colour);
  style.keep_order = !arrangement.columns.empty();
  const std::string text = RenderTables(objects, view.width.value_or(TerminalWidth()), style);
  // A file or another program gets UTF-8 whatever the locale.
  std::cout << (style.utf8 || isatty(STDOUT_FILENO) == 0 ? text : AsciiText(text));
  return FinishOutput(status);
}

int Put(const std::string &root, const std::string &name, const std::vector<std::string> &variables,
        const std::optional<std::string> &data_file) {
  const auto relative = ResolveObjectName(name, root);
  if (!relative) {
    Complain(Said(name) + ": not a name below " + root);
    return kWrongUsage;
  }
  std::optional<std::vector<uint8_t>> data;
  if (data_file) {
    data = ReadData(*data_file);
    if (!data) {
      const int error = errno;
      Complain(*data_file + ": " + strerror(error));
      return IsWrongName(error) ? kWrongUsage : kFailed;
    }
  }
  std::string error;
  const auto object = MakeObject(variables, data, &error);
  if (!object) {
    Complain(error);
    return kWrongUsage;
  }
  std::vector<uint16_t> lengths;
  for (const FileVariable &variable : object->variables) {
    lengths.push_back(variable.length);
  }
  ObjectFileWriter writer(*relative, root);
  writer.SetLayout(object->variables, static_cast<uint32_t>(object->data.size()));
  if (writer.Publish(object->data.data(), lengths.data()) != 0) {
    Complain(*relative + ": cannot be written: " + strerror(errno));
    return kFailed;
  }
  return kDone;
}

int Remove(const std::string &root, const std::string &name) {
  const auto relative = ResolveObjectName(name, root);
  if (!relative || !FileExists(root, *relative)) {
    Complain(Said(name) + ": no such object");
    return kFailed;
  }
  // Agents keep other files of theirs in the registry; those are not for this command. A damaged
  // object is listed and may go.
  std::vector<Unread> unread;
  const auto objects = ListObjects(root, &unread);
  if (std::find(objects.begin(), objects.end(), *relative) == objects.end()) {
    int status = kFailed;
    TellUnread(unread, root, &status);
    Complain(name + (unread.empty() ? ": not an object" : ": not seen to be an object"));
    return kFailed;
  }
  if (RemoveObjectFile(*relative, root) != 0) {
    Complain(name + ": cannot be removed: " + strerror(errno));
    return kFailed;
  }
  return kDone;
}

}  // namespace vex
