#include "tools/vexreg/follower.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "framework/process/clock.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_format.h"

namespace vex {
namespace {

constexpr int kMaxDepth = 16;  // of directories
// Two writes within a tick of the file system's clock leave the same stamp.
constexpr int64_t kTickNs = 100 * kNsPerMs;

int64_t Nanoseconds(const timespec &time) {
  return int64_t{time.tv_sec} * kNsPerSecond + time.tv_nsec;
}

// Whether the file says that it is an object's.
bool HasMagic(const std::string &root, const std::string &name) {
  const Descriptor directory(OpenRegistryRoot(root, false));
  const Descriptor file(
      directory ? OpenBeneath(directory.get(), name, O_RDONLY | O_NONBLOCK | O_NOCTTY) : -1);
  char magic[sizeof(kMagic)];
  return file && pread(file.get(), magic, sizeof(magic), 0) == sizeof(magic) &&
         memcmp(magic, kMagic, sizeof(magic)) == 0;
}

bool HasVariable(const FileObject &object, const std::string &name) {
  return std::any_of(
      object.variables.begin(), object.variables.end(),
      [&](const FileVariable &variable) { return variable.type != 0 && variable.name == name; });
}

}  // namespace

Follower::Follower(Selection selection, std::vector<std::string> also)
    : selection_(std::move(selection)), also_(std::move(also)) {}

size_t Follower::reads() const {
  return reads_;
}

void Follower::List(int parent, const char *name, const std::string &prefix, int depth,
                    Stamps *stamps) {
  Descriptor opened(openat(parent, name, kReadDirectory));
  DIR *directory = opened ? fdopendir(opened.get()) : nullptr;
  if (directory == nullptr) {
    return;
  }
  const int fd = opened.Release();
  while (const dirent *entry = readdir(directory)) {
    struct stat st;
    // Names with a dot in front are temporary files of writers.
    if (entry->d_name[0] == '.' || fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    const std::string path = prefix + entry->d_name;
    if (S_ISDIR(st.st_mode) && depth < kMaxDepth) {
      List(fd, entry->d_name, path + "/", depth + 1, stamps);
    } else if (S_ISREG(st.st_mode)) {
      stamps->emplace_back(path, Stamp{st.st_dev, st.st_ino, st.st_size, Nanoseconds(st.st_mtim),
                                       Nanoseconds(st.st_ctim)});
    }
  }
  closedir(directory);
}

// What the names stand for among the files that there are now, which are others than before.
void Follower::Choose(const Stamps &stamps, Look *look) {
  const bool narrowed = !variables_.empty();
  names_.clear();
  for (const auto &[name, stamp] : stamps) {
    names_.push_back(name);
  }
  chosen_ = true;
  whole_.clear();
  variables_.clear();
  missing_.clear();
  if (selection_.names.empty()) {
    whole_.insert(names_.begin(), names_.end());
  } else {
    whole_.insert(also_.begin(), also_.end());
  }
  for (const std::string &given : selection_.names) {
    const std::vector<std::string> found = NamesFor(given, selection_.root, names_);
    whole_.insert(found.begin(), found.end());
    if (found.empty() && given.find('/') == std::string::npos && !given.empty()) {
      variables_.push_back(WellKnownName(given));
    } else if (found.empty()) {
      missing_.push_back(given);
    }
  }
  const auto is_wanted = [&](const std::string &name) {
    return !variables_.empty() || whole_.contains(name);
  };
  for (auto file = files_.begin(); file != files_.end();) {
    const bool stays =
        is_wanted(file->first) && std::binary_search(names_.begin(), names_.end(), file->first);
    if (!stays && file->second.object) {
      look->steps.push_back({file->first, nullptr});
    }
    file = stays ? std::next(file) : files_.erase(file);
  }
  places_.clear();
  for (const std::string &name : names_) {
    places_.push_back(is_wanted(name) ? &files_[name] : nullptr);
  }
  if (narrowed || !variables_.empty()) {
    // Other variables of the same objects may be wanted.
    for (auto &[name, file] : files_) {
      file.given = false;
    }
  }
}

void Follower::Read(const std::string &name, const Stamp &stamp, File *known) {
  File &file = *known;
  // What is damaged or could not be read is tried again each time.
  if (file.is_object && file.settled && file.stamp == stamp) {
    return;
  }
  const int64_t now = ClockNs(CLOCK_REALTIME);
  auto object = ReadObjectFile(name, selection_.root);
  reads_++;
  file.settled = now - std::max(stamp.modified_ns, stamp.changed_ns) > kTickNs;
  file.stamp = stamp;
  file.damaged = !object && HasMagic(selection_.root, name);
  if (object && file.is_object && object->sequence == file.object->sequence &&
      object->published_ns == file.object->published_ns && object->data == file.object->data) {
    return;  // as it was
  }
  file.given = !object && !file.object;
  file.is_object = object.has_value();
  file.object = object ? std::make_shared<const FileObject>(std::move(*object)) : nullptr;
}

// The object with the wanted variables; null when it has none of them.
std::shared_ptr<const FileObject> Follower::Narrowed(const std::string &name,
                                                     const File &file) const {
  if (!file.object || whole_.contains(name)) {
    return file.object;
  }
  auto narrowed = std::make_shared<FileObject>(*file.object);
  std::erase_if(narrowed->variables, [&](const FileVariable &variable) {
    return variable.type == 0 ||
           std::find(variables_.begin(), variables_.end(), variable.name) == variables_.end();
  });
  return narrowed->variables.empty() ? nullptr : narrowed;
}

Look Follower::LookAgain() {
  Look look;
  Stamps stamps;
  reads_ = 0;
  const Descriptor root(OpenRegistryRoot(selection_.root, false));
  if (root) {
    List(root.get(), ".", "", 0, &stamps);
  } else {
    look.error = errno;
  }
  std::sort(stamps.begin(), stamps.end(),
            [](const auto &a, const auto &b) { return a.first < b.first; });
  if (!chosen_ ||
      !std::equal(stamps.begin(), stamps.end(), names_.begin(), names_.end(),
                  [](const auto &stamp, const std::string &name) { return stamp.first == name; })) {
    Choose(stamps, &look);
  }
  look.missing = missing_;
  for (size_t i = 0; i < stamps.size(); i++) {
    File *file = places_[i];
    if (file == nullptr) {
      continue;
    }
    const auto &[name, stamp] = stamps[i];
    Read(name, stamp, file);
    if (!file->given) {
      file->given = true;
      look.steps.push_back({name, Narrowed(name, *file)});
    }
    if (file->damaged) {
      look.damaged.push_back(name);
    }
  }
  for (const std::string &variable : variables_) {
    if (std::none_of(files_.begin(), files_.end(), [&](const auto &file) {
          return file.second.object && HasVariable(*file.second.object, variable);
        })) {
      look.missing.push_back(variable);
    }
  }
  return look;
}

}  // namespace vex
