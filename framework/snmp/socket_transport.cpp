#include "framework/snmp/socket_transport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vex {
namespace {

// Far above what the answers to one batch of requests need; more means that nobody reads.
constexpr size_t kMostUnsent = size_t{4} << 20;

// Behind transport->data, which net-snmp releases with free().
struct Unsent {
  char *bytes;
  size_t length;
  size_t capacity;
};

Unsent *UnsentOf(const netsnmp_transport *transport) {
  return static_cast<Unsent *>(transport->data);
}

int Keep(Unsent *unsent, const void *bytes, size_t length) {
  if (unsent->length + length > kMostUnsent) {
    return -1;
  }
  if (unsent->length + length > unsent->capacity) {
    size_t capacity = std::max(unsent->length + length, size_t{4096});
    char *larger = static_cast<char *>(realloc(unsent->bytes, capacity));
    if (larger == nullptr) {
      return -1;
    }
    unsent->bytes = larger;
    unsent->capacity = capacity;
  }
  memcpy(unsent->bytes + unsent->length, bytes, length);
  unsent->length += length;
  return 0;
}

int SendSome(int fd, const void *bytes, size_t length) {
  ssize_t sent;
  do {
    sent = send(fd, bytes, length, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0 && errno == EAGAIN) {
    return 0;
  }
  return static_cast<int>(sent);
}

int StreamSend(netsnmp_transport *transport, const void *bytes, int size, void **, int *) {
  Unsent *unsent = UnsentOf(transport);
  int sent = 0;
  if (unsent->length == 0) {
    sent = SendSome(transport->sock, bytes, static_cast<size_t>(size));
  }
  if (sent < 0 || (sent < size && Keep(unsent, static_cast<const char *>(bytes) + sent,
                                       static_cast<size_t>(size - sent)) != 0)) {
    return -1;
  }
  return size;
}

int DatagramSend(netsnmp_transport *transport, const void *bytes, int size, void **, int *) {
  int sent = SendSome(transport->sock, bytes, static_cast<size_t>(size));
  return sent < 0 ? -1 : size;  // a datagram that finds no room is lost, as on the way
}

int Receive(netsnmp_transport *transport, void *bytes, int size, void **opaque, int *length) {
  *opaque = nullptr;
  *length = 0;
  ssize_t got;
  do {
    got = recv(transport->sock, bytes, static_cast<size_t>(size), MSG_DONTWAIT);
  } while (got < 0 && errno == EINTR);
  if (got < 0 && errno == EAGAIN) {
    transport->flags |= NETSNMP_TRANSPORT_FLAG_EMPTY_PKT;
    return 0;
  }
  return static_cast<int>(got);
}

int Close(netsnmp_transport *transport) {
  if (transport->sock >= 0) {
    close(transport->sock);
    transport->sock = -1;
  }
  Unsent *unsent = UnsentOf(transport);
  free(unsent->bytes);
  *unsent = {};
  return 0;
}

char *Format(netsnmp_transport *, const void *, int) {
  return strdup("local");
}

netsnmp_transport *NewTransport(int fd, bool stream) {
  if (fd < 0) {
    return nullptr;
  }
  auto *transport = static_cast<netsnmp_transport *>(calloc(1, sizeof(netsnmp_transport)));
  auto *unsent = static_cast<Unsent *>(calloc(1, sizeof(Unsent)));
  if (transport == nullptr || unsent == nullptr) {
    free(transport);
    free(unsent);
    close(fd);
    errno = ENOMEM;
    return nullptr;
  }
  transport->domain = netsnmpUDPDomain;
  transport->domain_length = static_cast<int>(netsnmpUDPDomain_len);
  transport->sock = fd;
  transport->flags = stream ? NETSNMP_TRANSPORT_FLAG_STREAM : 0;
  transport->data = unsent;
  transport->data_length = sizeof(Unsent);
  transport->msgMaxSize = 65535;
  transport->f_recv = Receive;
  transport->f_send = stream ? StreamSend : DatagramSend;
  transport->f_close = Close;
  transport->f_fmtaddr = Format;
  return transport;
}

int Connect(int family, int type, const void *address, socklen_t length) {
  int fd = socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    return -1;
  }
  if (connect(fd, static_cast<const sockaddr *>(address), length) != 0 && errno != EINPROGRESS) {
    int error = errno;
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

int ConnectIpv4(const std::string &ipv4_address, uint16_t port, int type) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, ipv4_address.c_str(), &address.sin_addr) != 1) {
    errno = EINVAL;
    return -1;
  }
  return Connect(AF_INET, type, &address, sizeof(address));
}

}  // namespace

int ConnectUnix(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return Connect(AF_UNIX, SOCK_STREAM, &address, sizeof(address));
}

int ConnectTcp(const std::string &ipv4_address, uint16_t port) {
  return ConnectIpv4(ipv4_address, port, SOCK_STREAM);
}

int ConnectUdp(const std::string &ipv4_address, uint16_t port) {
  return ConnectIpv4(ipv4_address, port, SOCK_DGRAM);
}

netsnmp_transport *StreamTransport(int fd) {
  return NewTransport(fd, true);
}

netsnmp_transport *DatagramTransport(int fd) {
  return NewTransport(fd, false);
}

bool HasUnsent(const netsnmp_transport *transport) {
  return transport->f_send == StreamSend && UnsentOf(transport)->length > 0;
}

int Flush(netsnmp_transport *transport) {
  if (!HasUnsent(transport)) {
    return 0;
  }
  Unsent *unsent = UnsentOf(transport);
  int sent = SendSome(transport->sock, unsent->bytes, unsent->length);
  if (sent < 0) {
    return -1;
  }
  unsent->length -= static_cast<size_t>(sent);
  memmove(unsent->bytes, unsent->bytes + sent, unsent->length);
  return 0;
}

}  // namespace vex
