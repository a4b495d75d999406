#include "framework/snmp/unsent.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "framework/process/descriptor.h"
#include "framework/process/guard.h"
#include "framework/process/log.h"
#include "framework/registry/registry_dir.h"
#include "framework/snmp/notifications.h"
#include "platform/framework.h"

namespace vex {
namespace {

constexpr std::string_view kMark = "VEXTRAPS1\n";
constexpr off_t kMostBytes = 4 << 20;
constexpr size_t kMostNotifications = NotificationQueue::kKeptWhileDown;
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
      !reader->Get(&variables) || variables > kMostTrapVariables) {
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

// Adds what is whole; false when that is not all of it.
bool Unpack(std::string_view packed, std::vector<Notification> *notifications) {
  if (!packed.starts_with(kMark)) {
    return false;
  }
  Reader reader(packed.substr(kMark.size()));
  while (!reader.AtEnd()) {
    Notification notification;
    if (notifications->size() == kMostNotifications || !Unpack(&reader, &notification)) {
      return false;
    }
    notifications->push_back(std::move(notification));
  }
  return true;
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

// Whether nobody but root and this user can make or rename files in a directory. An access list's
// entries show in the group's bits.
bool IsPrivate(const struct stat &directory) {
  return (directory.st_uid == 0 || directory.st_uid == geteuid()) &&
         (directory.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Why such a file is not used; null when it is. Siblings that are not root may be allowed to write
// in the directory, and what they put there is not sent.
const char *WhyRefused(const struct stat &directory, const struct stat &status) {
  if (!S_ISREG(status.st_mode)) {
    return "it is no plain file";
  }
  if (status.st_uid != geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "others may write to it";
  }
  if (status.st_nlink > 1 && !IsPrivate(directory)) {
    return "it is a second name of another file, and others may write in its directory";
  }
  if (status.st_size > kMostBytes) {
    return "it is too large";
  }
  return nullptr;
}

}  // namespace

UnsentFile::UnsentFile(std::string root, const std::string &application) : root_(std::move(root)) {
  if (!application.empty() && application[0] != '.' && application.find('/') == application.npos) {
    name_ = application + ".traps";
    path_ = root_ + "/" + name_;
  } else {
    state_ = State::kGone;
  }
}

// What the file holds, tried again a few times. Nothing with errno: ENOENT when there is none,
// EINVAL when it is not used.
std::optional<std::string> UnsentFile::Contents(int directory) {
  constexpr int kTries = 3;
  for (int tries = 1;; tries++) {
    const char *refused = nullptr;
    const Descriptor file(openat(directory, name_.c_str(), O_RDONLY | kPlain));
    struct stat status = {};
    struct stat around = {};
    if (!file && (errno == ELOOP || errno == ENXIO)) {
      refused = "it is no plain file";  // a link, or a socket
    } else if (file && fstat(file.get(), &status) == 0 && fstat(directory, &around) == 0) {
      refused = WhyRefused(around, status);
      if (refused == nullptr) {
        std::optional<std::string> bytes = ReadAll(file.get(), static_cast<size_t>(status.st_size));
        if (bytes) {
          return bytes;
        }
      }
    }
    if (refused != nullptr) {
      agentlog_fprintf(stderr, "%s: File %s not used: %s\n", AgentName(), path_.c_str(), refused);
      state_ = State::kRefused;
      errno = EINVAL;
      return std::nullopt;
    }
    if (errno == ENOENT || tries == kTries) {
      return std::nullopt;
    }
  }
}

std::optional<std::vector<Notification>> UnsentFile::Read() {
  std::vector<Notification> notifications;
  if (state_ != State::kUnread) {
    return notifications;
  }
  std::optional<std::string> packed;
  const Descriptor directory(OpenRegistryRoot(root_, false));
  if (directory) {
    unlinkat(directory.get(), ("." + name_ + ".new").c_str(), 0);
    packed = Contents(directory.get());
  }
  if (!packed) {
    if (errno == ENOENT) {
      state_ = State::kGone;
    }
    return state_ == State::kUnread ? std::nullopt : std::optional(std::move(notifications));
  }
  if (!Unpack(*packed, &notifications)) {
    agentlog_fprintf(stderr, "%s: File %s is damaged: %zu traps of it are sent\n", AgentName(),
                     path_.c_str(), notifications.size());
  }
  return notifications;
}

void UnsentFile::SayUnread(int error) {
  if (!said_unread_) {
    said_unread_ = true;
    agentlog_fprintf(stderr, "%s: Can't read the traps kept at %s: %s (trying again)\n",
                     AgentName(), path_.c_str(), strerror(error));
  }
}

void UnsentFile::Taken() {
  if (state_ == State::kUnread) {
    state_ = State::kTaken;
  }
  if (said_unread_) {
    said_unread_ = false;
    agentlog_fprintf(stderr, "%s: The traps kept at %s are read\n", AgentName(), path_.c_str());
  }
}

void UnsentFile::AllSent() {
  if (state_ != State::kTaken) {
    return;
  }
  const Descriptor directory(Guarded(-1, [&] { return OpenRegistryRoot(root_, false); }));
  if ((directory && unlinkat(directory.get(), name_.c_str(), 0) == 0) || errno == ENOENT) {
    state_ = State::kGone;
  } else if (!said_stays_) {
    said_stays_ = true;
    agentlog_fprintf(stderr, "%s: Can't remove %s, whose traps are sent: %s (trying again)\n",
                     AgentName(), path_.c_str(), strerror(errno));
  }
}

int UnsentFile::Write(int directory, std::span<const Notification> notifications) const {
  if (notifications.size() > kMostNotifications) {
    notifications = notifications.last(kMostNotifications);
  }
  std::string packed = Pack(notifications);
  while (packed.size() > static_cast<size_t>(kMostBytes)) {
    notifications = notifications.subspan(1);
    packed = Pack(notifications);
  }
  // Reading is what fsync(2) wants of a directory.
  const Descriptor readable(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::string beside = "." + name_ + ".new";
  unlinkat(directory, beside.c_str(), 0);  // of an agent that was killed
  const Descriptor file(
      openat(directory, beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | kPlain, 0600));
  if (!file) {
    return -1;
  }
  if (WriteAll(file.get(), packed) != 0 || fsync(file.get()) != 0 ||
      renameat(directory, beside.c_str(), directory, name_.c_str()) != 0) {
    const int error = errno;
    unlinkat(directory, beside.c_str(), 0);
    errno = error;
    return -1;
  }
  return readable && fsync(readable.get()) != 0 ? -1 : 0;
}

int UnsentFile::Replace(std::span<const Notification> notifications) {
  const Descriptor directory(name_.empty() ? -1 : OpenRegistryRoot(root_, true));
  if (!directory) {
    errno = name_.empty() ? EINVAL : errno;
    return -1;
  }
  // What could not be taken, or was not to be sent, is older and stays.
  std::vector<Notification> all;
  if (state_ == State::kUnread) {
    if (const std::optional<std::string> packed = Contents(directory.get())) {
      if (!Unpack(*packed, &all)) {
        agentlog_fprintf(stderr, "%s: File %s is damaged: %zu traps of it are kept\n", AgentName(),
                         path_.c_str(), all.size());
      }
    } else if (errno != ENOENT && errno != EINVAL) {
      return -1;
    }
  }
  all.insert(all.end(), notifications.begin(), notifications.end());
  return Write(directory.get(), all);
}

int UnsentFile::KeepMeanwhile(std::span<const Notification> notifications) noexcept {
  errno = ENOMEM;
  if (Guarded(-1, [&] { return Replace(notifications); }) == 0) {
    state_ = State::kTaken;
    if (said_unkept_) {
      said_unkept_ = false;
      agentlog_fprintf(stderr, "%s: The traps that wait are kept at %s\n", AgentName(),
                       path_.c_str());
    }
    return 0;
  }
  if (!said_unkept_) {
    said_unkept_ = true;
    agentlog_fprintf(stderr, "%s: Can't keep the traps that wait at %s: %s (trying again)\n",
                     AgentName(), path_.c_str(), strerror(errno));
  }
  return -1;
}

int UnsentFile::Keep(std::span<const Notification> notifications) noexcept {
  if (notifications.empty()) {
    AllSent();
    return state_ == State::kTaken ? -1 : 0;
  }
  // Want of memory may pass.
  constexpr int kTries = 3;
  int kept = -1;
  errno = ENOMEM;
  for (int tries = 1; kept != 0 && errno == ENOMEM && tries <= kTries; tries++) {
    kept = Guarded(-1, [&] { return Replace(notifications); });
  }
  if (kept != 0) {
    const int error = errno;
    agentlog_fprintf(stderr,
                     "%s: Can't keep traps for the next start: %s; %zu traps that are not sent are "
                     "lost\n",
                     AgentName(), strerror(error), notifications.size());
    errno = error;
  }
  return kept;
}

}  // namespace vex
