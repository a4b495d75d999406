// libtlxci: the open build of the way to the management controller.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "hardware/tlxci/paths.h"
#include "platform/channel.h"

#define EXPORT __attribute__((visibility("default")))

struct tlxci_channel {
  int socket;
};

namespace {

constexpr uint32_t kOwnTimeout = 5000;  // milliseconds

tlxci_channel the_channel = {-1};
int the_card = -1;

void Close(int &descriptor) {
  if (descriptor >= 0) {
    close(descriptor);
    descriptor = -1;
  }
}

// One failure more or less must not tell that there is no controller: callers believe that for as
// long as they live.
constexpr int kTries = 3;
constexpr timespec kPause = {0, 10'000'000};

// A socket, or -1.
int MakeSocket() {
  for (int tries = 1;; tries++) {
    const int made = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (made >= 0 || tries == kTries) {
      return made;
    }
    nanosleep(&kPause, nullptr);
  }
}

// A connected socket, or -1. A controller that does not accept is waited for as long as a send.
int Connect() {
  int connected = MakeSocket();
  if (connected < 0) {
    return -1;
  }
  const timeval limit = {kOwnTimeout / 1000, 0};
  setsockopt(connected, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  static_assert(sizeof(vex::kControllerSocket) <= sizeof(address.sun_path));
  memcpy(address.sun_path, vex::kControllerSocket, sizeof(vex::kControllerSocket));
  const auto *to = reinterpret_cast<const sockaddr *>(&address);
  for (int tries = 1; connect(connected, to, sizeof(address)) != 0; tries++) {
    // There is none, or it was waited for already.
    if (tries == kTries || errno == ENOENT || errno == EAGAIN || errno == EINTR) {
      Close(connected);
      break;
    }
    nanosleep(&kPause, nullptr);
  }
  return connected;
}

// Waits until the socket can send or receive. A signal ends the wait with EINTR: whether it is one
// to give up for is the caller's to know.
int WaitFor(int socket, short events, const uint32_t *timeout) {
  pollfd waited = {socket, events, 0};
  const uint32_t limit = timeout != nullptr ? *timeout : kOwnTimeout;
  const int ready = poll(&waited, 1, static_cast<int>(std::min<uint32_t>(limit, INT_MAX)));
  if (ready < 0) {
    return errno;
  }
  return ready > 0 ? static_cast<int>(TLXCI_OK) : static_cast<int>(TLXCI_TIMED_OUT);
}

bool PeerIsGone(int socket) {
  pollfd asked = {socket, POLLRDHUP, 0};
  return poll(&asked, 1, 0) > 0;
}

int StatusOfErrno() {
  switch (errno) {
    case EPIPE:
    case ECONNRESET:
    case ENOTCONN:
    case ECONNREFUSED:
      return TLXCI_REOPEN;
    case EAGAIN:
      return TLXCI_TIMED_OUT;
    default:
      return errno;
  }
}

int Send(tlxci_channel *channel, const void *packet, uint32_t length, const uint32_t *timeout) {
  if (channel == nullptr || channel->socket < 0) {
    return TLXCI_NO_CHANNEL;
  }
  const int waited = WaitFor(channel->socket, POLLOUT, timeout);
  if (waited != TLXCI_OK) {
    return waited;
  }
  const ssize_t sent = send(channel->socket, packet, length, MSG_NOSIGNAL | MSG_DONTWAIT);
  return sent < 0 ? StatusOfErrno() : TLXCI_OK;
}

int Receive(tlxci_channel *channel, void *buffer, uint32_t size, uint32_t *received,
            const uint32_t *timeout) {
  if (channel == nullptr || channel->socket < 0) {
    return TLXCI_NO_CHANNEL;
  }
  const int waited = WaitFor(channel->socket, POLLIN, timeout);
  if (waited != TLXCI_OK) {
    return waited;
  }
  const ssize_t got = recv(channel->socket, buffer, size, MSG_DONTWAIT);
  if (got < 0) {
    return StatusOfErrno();
  }
  // Nothing is either an empty packet or the end.
  if (got == 0 && PeerIsGone(channel->socket)) {
    return TLXCI_REOPEN;
  }
  *received = static_cast<uint32_t>(got);
  return TLXCI_OK;
}

}  // namespace

extern "C" {

EXPORT int initializeRemoteVantix(tlxci_channel **channel, int *device) {
  Close(the_channel.socket);
  Close(the_card);
  *channel = nullptr;
  *device = -1;
  the_channel.socket = Connect();
  if (the_channel.socket >= 0) {
    *channel = &the_channel;
    return TLXCI_INTEGRATED;
  }
  the_card = open(vex::kControllerCard, O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (the_card < 0) {
    return TLXCI_NONE;
  }
  *device = the_card;
  return TLXCI_REMOTE_CARD;
}

EXPORT int reinitializeRemoteVantix(tlxci_channel **channel, int *device) {
  return initializeRemoteVantix(channel, device);
}

EXPORT int TlxCiSend(tlxci_channel *channel, const void *packet, uint32_t length, int *status,
                     const uint32_t *timeout) {
  *status = Send(channel, packet, length, timeout);
  return *status;
}

EXPORT uint32_t TlxCiRecv(tlxci_channel *channel, void *buffer, uint32_t size, int *status,
                          const uint32_t *timeout) {
  uint32_t received = 0;
  *status = Receive(channel, buffer, size, &received, timeout);
  return received;
}

}  // extern "C"
