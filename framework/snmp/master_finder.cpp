#include "framework/snmp/master_finder.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "framework/snmp/socket_transport.h"
#include "platform/framework.h"

namespace vex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// A master that has just bound its socket listens a moment later, hence the short first one.
constexpr milliseconds kFirstRetry{5};
constexpr milliseconds kLastRetry{200};
// A session that the master does not allow is one for as long as it is configured so.
constexpr milliseconds kFirstRefusalRetry{100};
constexpr seconds kLastRefusalRetry{10};

}  // namespace

MasterFinder::MasterFinder(MasterAddress address)
    : address_(std::move(address)), retry_(kFirstRetry), next_attempt_(Clock::now()) {
  const std::string &path = address_.unix_path;
  if (!path.empty()) {
    const size_t slash = path.rfind('/');
    watched_directory_ = slash == path.npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
    watched_name_ = path.substr(slash + 1);
  }
}

MasterFinder::~MasterFinder() {
  if (watch_fd_ >= 0) {
    close(watch_fd_);
  }
}

// The directory of the master's socket; there may be none yet, then time alone tells.
void MasterFinder::Watch() {
  if (address_.unix_path.empty()) {
    return;
  }
  if (watch_fd_ < 0) {
    watch_fd_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  }
  if (watch_fd_ >= 0) {
    inotify_add_watch(watch_fd_, watched_directory_.c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB);
  }
}

bool MasterFinder::WatchReady() {
  alignas(inotify_event) char events[4096];
  bool ours = false;
  ssize_t length;
  while ((length = read(watch_fd_, events, sizeof(events))) > 0) {
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= length;) {
      const auto *event = reinterpret_cast<const inotify_event *>(events + at);
      ours = ours || event->len == 0 || watched_name_ == event->name;
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  if (ours) {
    retry_ = kFirstRetry;
    next_attempt_ = Clock::now();
  }
  return ours;
}

int MasterFinder::Connect() const {
  return address_.unix_path.empty() ? ConnectTcp(address_.tcp->ipv4, address_.tcp->port)
                                    : ConnectUnix(address_.unix_path);
}

void MasterFinder::Failed(int error) {
  if (error != 0) {
    if (!said_) {
      said_ = true;
      agentlog_fprintf(stderr, "Info: no master agent at %s yet\n", address_.target.c_str());
    }
    // Somebody may listen there all the same.
    const bool nobody = error == ENOENT || error == ECONNREFUSED;
    if (!nobody && error != said_error_) {
      agentlog_fprintf(stderr, "Can't connect to the master agent at %s: %s (trying again)\n",
                       address_.target.c_str(), strerror(error));
    }
    said_error_ = nobody ? 0 : error;
  }
  RetryLater(kLastRetry);
}

void MasterFinder::Lost(bool refused) {
  RetryLater(refused ? Clock::duration(kLastRefusalRetry) : kLastRetry);
  Watch();
}

void MasterFinder::Refused() {
  retry_ = std::max<Clock::duration>(retry_, kFirstRefusalRetry);
}

void MasterFinder::Welcome() {
  retry_ = kFirstRetry;
}

void MasterFinder::Found() {
  said_ = true;
  if (watch_fd_ >= 0) {
    close(watch_fd_);
    watch_fd_ = -1;
  }
}

void MasterFinder::RetryLater(Clock::duration longest) {
  retry_ = std::min(retry_, longest);
  next_attempt_ = Clock::now() + retry_;
  retry_ = std::min(retry_ * 2, longest);
}

}  // namespace vex
