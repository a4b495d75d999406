// Preloaded into the agent by `vexreg replay`: what no file can be put into the place of.
// statvfs(3) tells the captured figures, uname(2) the captured kernel, and the remote card's
// ioctl(2) answers.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <string>

#include "platform/channel.h"
#include "tools/replay/replay_facts.h"

namespace {

const vex::ReplayFacts &TheFacts() {
  static const auto *facts =
      new vex::ReplayFacts(vex::ReadReplayFacts(getenv(vex::kReplayVariable)));
  return *facts;
}

// Before the agent forks: its children find the facts read.
__attribute__((constructor)) void ReadFacts() {
  TheFacts();
}

template <size_t N>
void Put(char (&field)[N], const std::string &text) {
  const size_t length = std::min(text.size(), N - 1);
  memcpy(field, text.data(), length);
  field[length] = '\0';
}

}  // namespace

#define INTERPOSE extern "C" __attribute__((visibility("default")))

INTERPOSE int statvfs(const char *path, struct statvfs *result) noexcept {
  const auto found = TheFacts().mounts.find(path);
  if (found == TheFacts().mounts.end()) {
    errno = ENOENT;
    return -1;
  }
  const vex::MountFigures &figures = found->second;
  while (figures.state == vex::MountFigures::kSilent) {
    pause();  // as on a mount whose server is gone
  }
  if (figures.state == vex::MountFigures::kErrno) {
    errno = figures.error;
    return -1;
  }
  *result = {};
  result->f_bsize = figures.frsize;
  result->f_frsize = figures.frsize;
  result->f_blocks = figures.blocks;
  result->f_bfree = figures.bfree;
  result->f_bavail = figures.bfree;
  result->f_files = figures.files;
  result->f_ffree = figures.ffree;
  result->f_favail = figures.ffree;
  result->f_namemax = 255;
  return 0;
}

INTERPOSE int uname(utsname *result) noexcept {
  const int outcome = static_cast<int>(syscall(SYS_uname, result));
  const vex::ReplayFacts &facts = TheFacts();
  if (outcome == 0 && !facts.release.empty()) {
    Put(result->release, facts.release);
    Put(result->version, facts.version);
    Put(result->machine, facts.machine);
  }
  return outcome;
}

INTERPOSE int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *const argument = va_arg(arguments, void *);
  va_end(arguments);
  const std::string &card = TheFacts().card;
  if (request == TLXRMC_TRANSACT && !card.empty()) {
    const auto *transaction = static_cast<const tlxrmc_transaction *>(argument);
    memcpy(transaction->reply, card.data(),
           std::min<size_t>(card.size(), transaction->reply_length));
    return 0;
  }
  return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
}
