#include "tests/support/fuse_mount.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

namespace made_up {

namespace {

constexpr uint64_t kFileNode = 2;

fuse_attr Attributes(uint64_t node) {
  fuse_attr attributes = {};
  attributes.ino = node;
  attributes.mode = node == kFileNode ? S_IFREG | 0644 : S_IFDIR | 0755;
  attributes.nlink = node == kFileNode ? 1 : 2;
  attributes.size = node == kFileNode ? 4096 : 0;
  return attributes;
}

}  // namespace

struct FuseMount::State {
  std::string directory;
  int device = -1;
  int stop = -1;
  bool mounted = false;
  std::thread server;
  mutable std::mutex lock;
  fuse_kstatfs figures = {};
  std::chrono::milliseconds delay{0};
  bool hanging = false;
  bool all_hangs = false;
  std::vector<uint64_t> waiting;
  bool reads_end = false;      // with EIO
  std::vector<uint64_t> held;  // that are no statvfs()
  std::deque<std::pair<std::chrono::steady_clock::time_point, uint64_t>> delayed;
  size_t asked = 0;

  void Reply(uint64_t unique, int error, const void *body, size_t size) const {
    fuse_out_header header = {};
    header.len = static_cast<uint32_t>(sizeof(header) + size);
    header.error = -error;
    header.unique = unique;
    iovec parts[] = {{&header, sizeof(header)}, {const_cast<void *>(body), size}};
    // ENOENT: who asked has gone.
    (void)!writev(device, parts, 2);
  }

  void ReplyFigures(uint64_t unique) const {
    fuse_statfs_out answer = {};
    answer.st = figures;
    Reply(unique, 0, &answer, sizeof(answer));
  }

  void Handle(const char *request);
  int ReplyToDelayed();
  void Serve();
};

void FuseMount::State::Handle(const char *request) {
  fuse_in_header header;
  memcpy(&header, request, sizeof(header));
  const std::lock_guard hold(lock);
  // Not the greeting, since who waits for it can be killed, nor what expects no answer.
  if (all_hangs && header.opcode != FUSE_INIT && header.opcode != FUSE_FORGET &&
      header.opcode != FUSE_BATCH_FORGET && header.opcode != FUSE_INTERRUPT &&
      header.opcode != FUSE_STATFS) {
    held.push_back(header.unique);
    return;
  }
  switch (header.opcode) {
    case FUSE_INIT: {
      fuse_init_out answer = {};
      answer.major = FUSE_KERNEL_VERSION;
      answer.minor = 31;
      answer.max_write = 4096;
      Reply(header.unique, 0, &answer, sizeof(answer));
      break;
    }
    case FUSE_STATFS:
      asked++;
      if (hanging) {
        waiting.push_back(header.unique);
      } else if (delay.count() > 0) {
        delayed.emplace_back(std::chrono::steady_clock::now() + delay, header.unique);
      } else {
        ReplyFigures(header.unique);
      }
      break;
    case FUSE_GETATTR: {
      fuse_attr_out answer = {};
      answer.attr = Attributes(header.nodeid);
      Reply(header.unique, 0, &answer, sizeof(answer));
      break;
    }
    case FUSE_LOOKUP: {
      fuse_entry_out answer = {};
      answer.nodeid = kFileNode;
      answer.attr = Attributes(kFileNode);
      const bool found = strcmp(request + sizeof(header), kFile) == 0;
      Reply(header.unique, found ? 0 : ENOENT, &answer, found ? sizeof(answer) : 0);
      break;
    }
    case FUSE_OPEN: {
      fuse_open_in open;
      memcpy(&open, request + sizeof(header), sizeof(open));
      fuse_open_out answer = {};
      // Else opening it waits for the reads already.
      answer.open_flags = FOPEN_KEEP_CACHE;
      if ((open.flags & O_ACCMODE) == O_RDWR) {
        answer.open_flags |= FOPEN_DIRECT_IO;
      }
      Reply(header.unique, 0, &answer, sizeof(answer));
      break;
    }
    case FUSE_READ:
      if (reads_end) {
        Reply(header.unique, EIO, nullptr, 0);
      } else {
        held.push_back(header.unique);
      }
      break;
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
    case FUSE_INTERRUPT:
      break;  // no answer is expected
    default:
      Reply(header.unique, header.opcode == FUSE_DESTROY ? 0 : ENOSYS, nullptr, 0);
  }
}

// Milliseconds until the next of them is due; -1 for never.
int FuseMount::State::ReplyToDelayed() {
  const std::lock_guard hold(lock);
  const auto now = std::chrono::steady_clock::now();
  while (!delayed.empty() && delayed.front().first <= now) {
    ReplyFigures(delayed.front().second);
    delayed.pop_front();
  }
  if (delayed.empty()) {
    return -1;
  }
  return static_cast<int>(
      std::chrono::ceil<std::chrono::milliseconds>(delayed.front().first - now).count());
}

void FuseMount::State::Serve() {
  std::vector<char> request(64 * 1024);
  for (;;) {
    pollfd ready[] = {{device, POLLIN, 0}, {stop, POLLIN, 0}};
    if (poll(ready, 2, ReplyToDelayed()) < 0 && errno != EINTR) {
      return;
    }
    if (ready[1].revents != 0) {
      return;
    }
    if (ready[0].revents == 0) {
      continue;
    }
    const ssize_t got = read(device, request.data(), request.size());
    if (got >= static_cast<ssize_t>(sizeof(fuse_in_header))) {
      Handle(request.data());
    } else if (got < 0 && errno == ENODEV) {
      return;  // unmounted
    }
  }
}

FuseMount::FuseMount(const std::string &directory, uint64_t blocks, uint64_t free_blocks,
                     uint64_t files, uint64_t free_files)
    : state_(std::make_unique<State>()) {
  State &s = *state_;
  s.directory = directory;
  s.figures = {.blocks = blocks,
               .bfree = free_blocks,
               .bavail = free_blocks,
               .files = files,
               .ffree = free_files,
               .bsize = 4096,
               .namelen = 255,
               .frsize = 4096,
               .padding = 0,
               .spare = {}};
  std::filesystem::create_directories(directory);
  if (access("/dev/fuse", F_OK) != 0) {
    mknod("/dev/fuse", S_IFCHR | 0600, makedev(10, 229));
  }
  s.device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  s.stop = eventfd(0, EFD_CLOEXEC);
  const std::string options =
      "fd=" + std::to_string(s.device) + ",rootmode=40000,user_id=0,group_id=0,allow_other";
  s.mounted =
      s.device >= 0 && mount("made-up-fuse", directory.c_str(), "fuse", 0, options.c_str()) == 0;
  if (!s.mounted) {
    ADD_FAILURE() << "FUSE mount on " << directory << ": " << strerror(errno);
    return;
  }
  s.server = std::thread([&s] { s.Serve(); });
}

FuseMount::~FuseMount() {
  Unmount();
  const uint64_t one = 1;
  (void)!write(state_->stop, &one, sizeof(one));
  if (state_->server.joinable()) {
    state_->server.join();
  }
  close(state_->device);
  close(state_->stop);
}

void FuseMount::Hang() {
  const std::lock_guard hold(state_->lock);
  state_->hanging = true;
}

void FuseMount::Delay(std::chrono::milliseconds delay) {
  const std::lock_guard hold(state_->lock);
  state_->delay = delay;
}

void FuseMount::HangAll() {
  const std::lock_guard hold(state_->lock);
  state_->hanging = true;
  state_->all_hangs = true;
}

void FuseMount::Recover() {
  const std::lock_guard hold(state_->lock);
  state_->hanging = false;
  state_->all_hangs = false;
  state_->reads_end = true;
  for (const uint64_t unique : state_->held) {
    state_->Reply(unique, EIO, nullptr, 0);
  }
  state_->held.clear();
  for (const uint64_t unique : state_->waiting) {
    state_->ReplyFigures(unique);
  }
  state_->waiting.clear();
}

size_t FuseMount::Waiting() const {
  const std::lock_guard hold(state_->lock);
  return state_->waiting.size() + state_->held.size() + state_->delayed.size();
}

size_t FuseMount::Asked() const {
  const std::lock_guard hold(state_->lock);
  return state_->asked;
}

void FuseMount::SetFree(uint64_t free_blocks) {
  const std::lock_guard hold(state_->lock);
  state_->figures.bfree = free_blocks;
}

void FuseMount::Unmount() {
  if (state_->mounted) {
    umount2(state_->directory.c_str(), MNT_DETACH);
    state_->mounted = false;
  }
}

}  // namespace made_up
