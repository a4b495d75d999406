#include "framework/unsent.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "framework/registry_dir.h"

namespace vex {
namespace {

constexpr std::string_view kMark = "VEXTRAPS1\n";
constexpr off_t kMostBytes = 4 << 20;
constexpr size_t kMostNotifications = 256;
constexpr uint32_t kMostVariables = 4096;
constexpr int kPlain = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// Numbers as this machine has them: the file never leaves it.
void Put(std::string *to, uint32_t number) {
  to->append(reinterpret_cast<const char *>(&number), sizeof(number));
}

void Put(std::string *to, std::string_view text) {
  Put(to, static_cast<uint32_t>(text.size()));
  to->append(text);
}

std::string Pack(std::span<const Notification> notifications) {
  std::string packed(kMark);
  for (const Notification &notification : notifications) {
    Put(&packed, notification.number);
    Put(&packed, notification.description);
    Put(&packed, static_cast<uint32_t>(notification.variables.size()));
    for (const NotificationVariable &variable : notification.variables) {
      Put(&packed, variable.mib->name);
      Put(&packed, variable.instance);
      Put(&packed, std::string_view(reinterpret_cast<const char *>(variable.value.data()),
                                    variable.value.size()));
    }
  }
  return packed;
}

class Reader {
 public:
  explicit Reader(std::string_view left) : left_(left) {}
  bool AtEnd() const {
    return left_.empty();
  }
  bool Get(uint32_t *number) {
    if (left_.size() < sizeof(*number)) {
      return false;
    }
    memcpy(number, left_.data(), sizeof(*number));
    left_.remove_prefix(sizeof(*number));
    return true;
  }
  bool Get(std::string_view *text) {
    uint32_t size;
    if (!Get(&size) || size > left_.size()) {
      return false;
    }
    *text = left_.substr(0, size);
    left_.remove_prefix(size);
    return true;
  }

 private:
  std::string_view left_;
};

// A variable that this version's modules do not have, or have as something else, is left out.
bool Unpack(Reader *reader, Notification *notification) {
  std::string_view description;
  uint32_t variables;
  if (!reader->Get(&notification->number) || !reader->Get(&description) ||
      !reader->Get(&variables) || variables > kMostVariables) {
    return false;
  }
  notification->description = description;
  for (uint32_t i = 0; i < variables; i++) {
    std::string_view name;
    std::string_view value;
    uint32_t instance;
    if (!reader->Get(&name) || !reader->Get(&instance) || !reader->Get(&value)) {
      return false;
    }
    const MibVariable *mib = FindMibVariable(name);
    if (mib != nullptr) {
      notification->variables.push_back({mib, instance, {value.begin(), value.end()}});
    }
  }
  return true;
}

std::vector<Notification> Unpack(std::string_view packed) {
  std::vector<Notification> notifications;
  if (!packed.starts_with(kMark)) {
    return notifications;
  }
  Reader reader(packed.substr(kMark.size()));
  while (!reader.AtEnd() && notifications.size() < kMostNotifications) {
    Notification notification;
    if (!Unpack(&reader, &notification)) {
      break;
    }
    notifications.push_back(std::move(notification));
  }
  return notifications;
}

// Of the file, below the root; nothing for a name that is none.
std::optional<std::string> NameOf(const std::string &application) {
  if (application.empty() || application[0] == '.' || application.find('/') != application.npos) {
    return std::nullopt;
  }
  return application + ".traps";
}

int WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return -1;
    }
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

std::optional<std::string> ReadAll(int fd, size_t size) {
  std::string bytes(size, '\0');
  size_t have = 0;
  while (have < size) {
    const ssize_t got = read(fd, bytes.data() + have, size - have);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      errno = got == 0 ? EIO : errno;
      return std::nullopt;
    }
    have += static_cast<size_t>(got);
  }
  return bytes;
}

// What the file holds, tried again a few times; nothing with errno: ENOENT when there is none,
// EINVAL when it is not this user's plain file.
std::optional<std::string> ReadFile(int directory, const std::string &name) {
  constexpr int kTries = 3;
  for (int tries = 1;; tries++) {
    const Descriptor file(openat(directory, name.c_str(), O_RDONLY | kPlain));
    struct stat status = {};
    if (file && fstat(file.get(), &status) == 0) {
      // Siblings that are not root may be allowed to write here; what they put there is not sent.
      if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() ||
          (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 || status.st_nlink != 1 ||
          status.st_size > kMostBytes) {
        errno = EINVAL;
        return std::nullopt;
      }
      std::optional<std::string> bytes = ReadAll(file.get(), static_cast<size_t>(status.st_size));
      if (bytes) {
        return bytes;
      }
    }
    if (errno == ELOOP || errno == ENXIO) {
      errno = EINVAL;  // a link, or a pipe
    }
    if (errno == ENOENT || errno == EINVAL || tries == kTries) {
      return std::nullopt;
    }
  }
}

}  // namespace

int KeepUnsent(const std::string &root, const std::string &application,
               std::span<const Notification> notifications) {
  const std::optional<std::string> name = NameOf(application);
  if (notifications.empty() || !name) {
    errno = EINVAL;
    return notifications.empty() ? 0 : -1;
  }
  const Descriptor directory(OpenRegistryRoot(root, true));
  if (!directory) {
    return -1;
  }
  // What could not be taken at the start, or was not to be sent, is older and stays.
  std::vector<Notification> all;
  if (const std::optional<std::string> packed = ReadFile(directory.get(), *name)) {
    all = Unpack(*packed);
  } else if (errno != ENOENT && errno != EINVAL) {
    return -1;
  }
  all.insert(all.end(), notifications.begin(), notifications.end());
  if (all.size() > kMostNotifications) {
    all.erase(all.begin(), all.end() - static_cast<ptrdiff_t>(kMostNotifications));
  }
  // Reading is what fsync(2) wants of a directory.
  const Descriptor readable(openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::string beside = "." + *name + ".new";
  unlinkat(directory.get(), beside.c_str(), 0);  // of an agent that was killed
  Descriptor file(
      openat(directory.get(), beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | kPlain, 0600));
  if (!file) {
    return -1;
  }
  if (WriteAll(file.get(), Pack(all)) != 0 || fsync(file.get()) != 0 ||
      renameat(directory.get(), beside.c_str(), directory.get(), name->c_str()) != 0) {
    const int error = errno;
    unlinkat(directory.get(), beside.c_str(), 0);
    errno = error;
    return -1;
  }
  return readable && fsync(readable.get()) != 0 ? -1 : 0;
}

std::vector<Notification> TakeUnsent(const std::string &root, const std::string &application) {
  const std::optional<std::string> name = NameOf(application);
  const Descriptor directory(name ? OpenRegistryRoot(root, false) : -1);
  if (!directory) {
    return {};
  }
  const std::optional<std::string> packed = ReadFile(directory.get(), *name);
  if (!packed) {
    return {};
  }
  // Before the file goes: what finds no memory is taken by the next start.
  std::vector<Notification> notifications = Unpack(*packed);
  // A file that stays would be sent at every start.
  if (unlinkat(directory.get(), name->c_str(), 0) != 0) {
    return {};
  }
  return notifications;
}

}  // namespace vex
