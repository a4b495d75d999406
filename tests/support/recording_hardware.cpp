// The management controller (libtlxci and the remote card's ioctl) and the RAID key segment in
// memory: what the test says, call by call.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <optional>

#include "platform/channel.h"
#include "tests/support/recording_framework.h"
#include "tests/support/recording_internal.h"

struct tlxci_channel {
  int unused;
};

namespace {

constexpr int kCardDescriptor = 7777;
constexpr int kSegment = 7;
constexpr key_t kSegmentKey = 0x39000001;

struct Hardware {
  int kind = TLXCI_NONE;
  tlxci_channel channel = {};
  std::deque<int> sends;
  std::deque<rec::ControllerReply> replies;
  std::optional<rec::ControllerReply> card;
  std::optional<std::string> segment;
  size_t segment_size = 0;
  std::string attached;
};

Hardware &TheHardware() {
  static auto *hardware = new Hardware;
  return *hardware;
}

int Open(const char *operation, tlxci_channel **channel, int *device) {
  Hardware &hardware = TheHardware();
  rec::Record(operation, "");
  *channel = hardware.kind == TLXCI_INTEGRATED ? &hardware.channel : nullptr;
  const bool is_card = hardware.kind != TLXCI_INTEGRATED && hardware.kind != TLXCI_NONE;
  *device = is_card ? kCardDescriptor : -1;
  return hardware.kind;
}

}  // namespace

namespace rec {

void SetController(int kind) {
  TheHardware().kind = kind;
}

void PutSends(const std::vector<int> &statuses) {
  TheHardware().sends.assign(statuses.begin(), statuses.end());
}

void PutReplies(const std::vector<ControllerReply> &replies) {
  TheHardware().replies.assign(replies.begin(), replies.end());
}

void PutCardReply(const ControllerReply &reply) {
  TheHardware().card = reply;
}

void PutSegment(const std::string &bytes) {
  TheHardware().segment = bytes;
}

int TransactWithCard(int descriptor, void *argument) {
  const auto *transaction = static_cast<tlxrmc_transaction *>(argument);
  const auto &reply = TheHardware().card;
  Record("ioctl", std::to_string(descriptor),
         std::string(static_cast<const char *>(transaction->request), transaction->request_length));
  if (descriptor != kCardDescriptor || !reply || reply->status != 0) {
    errno = ENOTTY;
    return -1;
  }
  memcpy(transaction->reply, reply->bytes.data(),
         std::min<size_t>(reply->bytes.size(), transaction->reply_length));
  return 0;
}

}  // namespace rec

extern "C" {

// Another build of the library may look at what it is to replace: it finds nothing there.
int initializeRemoteVantix(tlxci_channel **channel, int *device) {
  EXPECT_EQ(*channel, nullptr);
  EXPECT_EQ(*device, -1);
  return Open("initializeRemoteVantix", channel, device);
}

int reinitializeRemoteVantix(tlxci_channel **channel, int *device) {
  return Open("reinitializeRemoteVantix", channel, device);
}

int TlxCiSend(tlxci_channel *channel, const void *packet, uint32_t length, int *status,
              const uint32_t *timeout) {
  Hardware &hardware = TheHardware();
  rec::Record("TlxCiSend", timeout != nullptr ? std::to_string(*timeout) : "none",
              std::string(static_cast<const char *>(packet), length));
  *status = channel == nullptr ? TLXCI_NO_CHANNEL : TLXCI_OK;
  if (channel != nullptr && !hardware.sends.empty()) {
    *status = hardware.sends.front();
    hardware.sends.pop_front();
  }
  return *status;
}

uint32_t TlxCiRecv(tlxci_channel *channel, void *buffer, uint32_t size, int *status,
                   const uint32_t *timeout) {
  Hardware &hardware = TheHardware();
  rec::Record("TlxCiRecv", timeout != nullptr ? std::to_string(*timeout) : "none");
  *status = TLXCI_NO_CHANNEL;
  if (channel == nullptr) {
    return 0;
  }
  *status = TLXCI_TIMED_OUT;
  if (hardware.replies.empty()) {
    return 0;
  }
  const rec::ControllerReply reply = hardware.replies.front();
  hardware.replies.pop_front();
  rec::PassTime(reply.seconds);
  *status = reply.status;
  const size_t length = std::min<size_t>(reply.bytes.size(), size);
  memcpy(buffer, reply.bytes.data(), length);
  return static_cast<uint32_t>(length);
}

// The segment exists when the test put one, under the key of any path and project.
key_t __wrap_ftok(const char *path, int project) {
  rec::Record("ftok", path, std::to_string(project));
  return TheHardware().segment ? kSegmentKey : -1;
}

int __wrap_shmget(key_t key, size_t size, int flags) {
  rec::Record("shmget", std::to_string(size), std::to_string(flags));
  const auto &segment = TheHardware().segment;
  if (!segment || key != kSegmentKey || segment->size() < size) {
    errno = ENOENT;
    return -1;
  }
  return kSegment;
}

void *__wrap_shmat(int segment, const void *, int flags) {
  rec::Record("shmat", std::to_string(segment), std::to_string(flags));
  if (rec::Fails("shmat", "")) {
    return reinterpret_cast<void *>(-1);
  }
  TheHardware().attached = *TheHardware().segment;
  return TheHardware().attached.data();
}

int __wrap_shmdt(const void *) {
  rec::Record("shmdt", "");
  TheHardware().attached.clear();
  return 0;
}

}  // extern "C"
