// vexreg watch: a view of the whole screen on a terminal, one line for each change elsewhere.
#include <poll.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "framework/process/clock.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_path.h"
#include "tools/vexreg/absence.h"
#include "tools/vexreg/changes.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/live.h"
#include "tools/vexreg/live_screen.h"
#include "tools/vexreg/signals.h"
#include "tools/vexreg/values.h"
#include "tools/vexreg/words.h"

namespace vex {
namespace {

constexpr double kPeriod = 1;       // seconds between looks when nothing tells of a change
constexpr double kShortest = 0.05;  // and between looks at most this often
// A look at many objects is repeated only after this many times what it took.
constexpr double kRest = 10;

double Now() {
  return static_cast<double>(ClockNs()) / kNsPerSecond;
}

// Tells when something in the directories of the objects was written. Without it (a limit reached)
// the regular looks remain.
class DirectoryWatch {
 public:
  DirectoryWatch() : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}
  int fd() const {
    return fd_.get();
  }
  // Watches the root and the directories of the objects; those already watched stay so.
  void Follow(const std::string &root, const std::set<std::string> &directories) {
    Add(root);
    for (const std::string &directory : directories) {
      std::string path = root;
      path += '/';
      path += directory;
      Add(path);
    }
  }
  void Drain() {
    alignas(inotify_event) char events[4096];
    while (read(fd_.get(), events, sizeof(events)) > 0) {
    }
  }

 private:
  void Add(const std::string &path) {
    inotify_add_watch(fd_.get(), path.c_str(),
                      IN_MODIFY | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CREATE | IN_ONLYDIR);
  }
  Descriptor fd_;
};

// Calls add(name, before, after) for each object that there was or is; either state may be null.
void Compare(
    const std::vector<NamedObject> &before, const std::vector<NamedObject> &after,
    const std::function<void(const std::string &, const FileObject *, const FileObject *)> &add) {
  std::map<std::string_view, const FileObject *> old;
  for (const NamedObject &object : before) {
    old[object.name] = &object.object;
  }
  for (const NamedObject &object : after) {
    const auto found = old.find(object.name);
    add(object.name, found != old.end() ? found->second : nullptr, &object.object);
    if (found != old.end()) {
      old.erase(found);
    }
  }
  for (const NamedObject &object : before) {
    if (old.contains(object.name)) {
      add(object.name, &object.object, nullptr);
    }
  }
}

void PrintChanges(const std::vector<NamedObject> &before, const std::vector<NamedObject> &after,
                  const View &view) {
  const std::string now = view.json ? IsoTime(time(nullptr)) : TimeText(time(nullptr));
  Compare(
      before, after, [&](const std::string &name, const FileObject *from, const FileObject *to) {
        if (!view.json) {
          for (const std::string &line : ChangeLines(name, from, to)) {
            std::cout << now << ' ' << line << '\n';
          }
          return;
        }
        for (const auto &change : ChangeObjects(name, from, to, view.raw ? ValueJson : WordJson)) {
          nlohmann::ordered_json line = {{"time", now}};
          line.update(change);
          std::cout << OneLine(line) << '\n';
        }
      });
  std::cout.flush();
}

std::set<std::string> Directories(const Selection &selection,
                                  const std::vector<NamedObject> &objects) {
  std::set<std::string> directories;
  for (const std::string &given : selection.names) {
    directories.insert(SplitPath(ResolveObjectName(given, selection.root).value_or("")).first);
  }
  for (const NamedObject &object : objects) {
    directories.insert(SplitPath(object.name).first);
  }
  return directories;
}

// Waits until there may be something new: a change in a directory, a signal, or the time is over.
void WaitForChange(DirectoryWatch &watch, const ViewSignals &signals, double began) {
  const auto wait = [&](pollfd *polled, nfds_t count, double seconds) {
    const timespec time = {
        static_cast<time_t>(seconds),
        static_cast<long>((seconds - static_cast<double>(static_cast<time_t>(seconds))) * 1e9)};
    return ppoll(polled, count, &time, &signals.Before());
  };
  const double took = Now() - began;
  if (wait(nullptr, 0, std::max(kShortest, kRest * took)) < 0) {
    return;  // a signal
  }
  pollfd polled = {watch.fd(), POLLIN, 0};
  if (wait(&polled, 1, std::max(0.0, kPeriod - (Now() - began))) > 0) {
    watch.Drain();
  }
}

// What a look that was not whole has not found, and the look before had, is not gone: it is
// believed when the next look finds the same.
class Doubt {
 public:
  std::vector<NamedObject> Keep(Found found, const std::vector<NamedObject> &before) {
    const bool whole = found.damaged.empty() && found.unreadable.empty() && found.unread.empty();
    std::set<std::string> names;
    for (const NamedObject &object : found.objects) {
      names.insert(object.name);
    }
    std::set<std::string> doubted;
    for (const NamedObject &object : before) {
      if (!whole && !names.contains(object.name) && !doubted_.contains(object.name)) {
        doubted.insert(object.name);
        found.objects.push_back(object);
      }
    }
    doubted_ = std::move(doubted);
    return std::move(found.objects);
  }

 private:
  std::set<std::string> doubted_;
};

}  // namespace

int Watch(const Selection &selection, const View &view) {
  int status = kDone;
  std::vector<NamedObject> objects = ReadObjects(selection, &status);
  if (status != kDone) {
    return status;
  }
  const ViewSignals signals;
  if (isatty(STDOUT_FILENO) && !view.json) {
    std::string why;
    if (CanDraw(&why)) {
      ShowLive(selection, view, objects, signals);
      return kDone;
    }
    Complain(why + ": changes are printed as lines instead");
  }
  if (objects.empty()) {
    Complain(WhyNothing(selection.root) + " (waiting)");
  }
  DirectoryWatch watch;
  std::vector<NamedObject> shown;
  Doubt doubt;
  while (!ViewSignals::Ended() && std::cout) {
    const double began = Now();
    watch.Follow(selection.root, Directories(selection, objects));
    // Objects that are missing are no error here: they come and go.
    objects = doubt.Keep(FindObjects(selection), shown);
    PrintChanges(shown, objects, view);
    shown = objects;
    WaitForChange(watch, signals, began);
    if (ViewSignals::TakeSuspend()) {
      signals.Stop();
    }
  }
  return FinishOutput(kDone);
}

}  // namespace vex
