#include "framework/snmp/frames.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

namespace vex {
namespace {

// The whole frame or nothing. 1, 0 when there is no room now, or -1 with errno.
// Without descriptors by the one call that the SNMP process is allowed.
int SendOne(int fd, std::string_view bytes, std::span<const int> descriptors) {
  const auto result = [](ssize_t sent) {
    const bool room = errno != EAGAIN && errno != ENOBUFS && errno != ENOMEM;
    return sent >= 0 ? 1 : room ? -1 : 0;
  };
  ssize_t sent;
  if (descriptors.empty()) {
    do {
      sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return result(sent);
  }
  iovec part = {const_cast<char *>(bytes.data()), bytes.size()};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * FrameSocket::kMostDescriptors)] = {};
  message.msg_control = control;
  message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
  cmsghdr *header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(descriptors.size_bytes());
  memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size_bytes());
  do {
    sent = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  return result(sent);
}

}  // namespace

bool FrameSocket::Pair(Descriptor *one, Descriptor *other) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
    return false;
  }
  one->Reset(ends[0]);
  other->Reset(ends[1]);
  return true;
}

bool FrameSocket::Send(const FrameWriter &frame, std::span<const int> descriptors) {
  const std::string &bytes = frame.Bytes();
  if (bytes.size() > kLongest || descriptors.size() > kMostDescriptors) {
    errno = EMSGSIZE;
    return false;
  }
  if (unsent_.empty()) {
    const int sent = SendOne(socket_.get(), bytes, descriptors);
    if (sent != 0) {
      return sent > 0;
    }
  }
  const auto holding = std::count_if(unsent_.begin(), unsent_.end(), [](const Unsent &one) {
    return static_cast<bool>(one.descriptors[0]);
  });
  if (unsent_.size() >= kMostUnsent || (!descriptors.empty() && holding >= kMostHolding)) {
    errno = ENOBUFS;
    return false;
  }
  Unsent waiting;
  waiting.bytes = bytes;
  for (size_t i = 0; i < descriptors.size(); i++) {
    waiting.descriptors[i].Reset(fcntl(descriptors[i], F_DUPFD_CLOEXEC, 0));
    if (!waiting.descriptors[i]) {
      return false;
    }
  }
  unsent_.push_back(std::move(waiting));
  return true;
}

bool FrameSocket::Flush() {
  while (!unsent_.empty()) {
    const Unsent &first = unsent_.front();
    int descriptors[kMostDescriptors];
    size_t count = 0;
    while (count < kMostDescriptors && first.descriptors[count]) {
      descriptors[count] = first.descriptors[count].get();
      count++;
    }
    const int sent = SendOne(socket_.get(), first.bytes, {descriptors, count});
    if (sent <= 0) {
      return sent == 0;
    }
    unsent_.pop_front();
  }
  return true;
}

FrameSocket::Got FrameSocket::Receive(std::string_view *frame, Descriptors *descriptors) {
  received_.resize(kLongest);
  iovec part = {received_.data(), received_.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMostDescriptors)] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (descriptors != nullptr) {
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
  }
  ssize_t got;
  do {
    // An end that has closed without having read everything is told of once, before what it has
    // sent.
    got = recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (got < 0 && (errno == EINTR || errno == ECONNRESET));
  // Without memory for the call itself, the frame is there still.
  if (got < 0 && (errno == EAGAIN || errno == ENOMEM || errno == ENOBUFS)) {
    return Got::kNone;
  }
  // The descriptors are had whatever is wrong with the rest, so that none stays open.
  size_t count = 0;
  for (cmsghdr *header = got > 0 ? CMSG_FIRSTHDR(&message) : nullptr; header != nullptr;
       header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) {
      continue;
    }
    const size_t here = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < here; i++) {
      int fd;
      memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(fd));
      Descriptor taken(fd);
      if (count < kMostDescriptors) {
        (*descriptors)[count++] = std::move(taken);
      }
    }
  }
  for (; descriptors != nullptr && count < kMostDescriptors; count++) {
    (*descriptors)[count].Reset();
  }
  // An empty frame is the end of the connection: nobody sends one.
  if (got <= 0 || (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
    return Got::kEnd;
  }
  *frame = std::string_view(received_).substr(0, static_cast<size_t>(got));
  return Got::kFrame;
}

}  // namespace vex
