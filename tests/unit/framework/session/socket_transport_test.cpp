// Sockets that are interrupted, full, or at their end.
#include "framework/snmp/socket_transport.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "framework/snmp/master_finder.h"
#include "tests/unit/framework/session/failing_library.h"

namespace vex {
namespace {

struct FreeTransport {
  void operator()(netsnmp_transport *transport) const {
    transport->f_close(transport);
    netsnmp_transport_free(transport);
  }
};
using Transport = std::unique_ptr<netsnmp_transport, FreeTransport>;

class SocketTransportTest : public testing::Test {
 protected:
  void TearDown() override {
    if (peer_ >= 0) {
      close(peer_);
    }
    RestoreLibrary();
  }
  Transport Make(int type) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
    peer_ = ends[1];
    return Transport(type == SOCK_STREAM ? StreamTransport(ends[0]) : DatagramTransport(ends[0]));
  }
  static int Send(const Transport &transport, const std::string &bytes) {
    return transport->f_send(transport.get(), bytes.data(), static_cast<int>(bytes.size()), nullptr,
                             nullptr);
  }
  static int Receive(const Transport &transport, std::string *bytes) {
    char buffer[100];
    void *opaque = nullptr;
    int length = 0;
    const int got = transport->f_recv(transport.get(), buffer, sizeof(buffer), &opaque, &length);
    bytes->assign(buffer, got > 0 ? static_cast<size_t>(got) : 0);
    return got;
  }
  std::string AtPeer() {
    char buffer[100];
    const ssize_t got = recv(peer_, buffer, sizeof(buffer), MSG_DONTWAIT);
    return {buffer, got > 0 ? static_cast<size_t>(got) : 0};
  }

  int peer_ = -1;
};

TEST_F(SocketTransportTest, AnInterruptedCallIsMadeAgain) {
  for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
    const Transport transport = Make(type);
    {
      const FailingLibrary fails("send", EINTR, 1, 3);
      EXPECT_EQ(Send(transport, "hello"), 5);
      EXPECT_EQ(fails.Failed(), 3);
    }
    EXPECT_EQ(AtPeer(), "hello");
    ASSERT_EQ(send(peer_, "there", 5, 0), 5);
    const FailingLibrary fails("recv", EINTR, 1, 3);
    std::string got;
    EXPECT_EQ(Receive(transport, &got), 5);
    EXPECT_EQ(got, "there");
    close(peer_);
    peer_ = -1;
  }
}

// That there is nothing to read is not the end.
TEST_F(SocketTransportTest, NothingToReadIsAnEmptyPacket) {
  const Transport transport = Make(SOCK_STREAM);
  std::string got;
  EXPECT_EQ(Receive(transport, &got), 0);
  EXPECT_NE(transport->flags & NETSNMP_TRANSPORT_FLAG_EMPTY_PKT, 0);
  transport->flags &= ~static_cast<u_int>(NETSNMP_TRANSPORT_FLAG_EMPTY_PKT);
  close(peer_);
  peer_ = -1;
  // Once: whatever some call before has left in errno.
  const FailingLibrary second("recv", EIO, 2);
  errno = EINTR;
  EXPECT_EQ(Receive(transport, &got), 0);
  EXPECT_EQ(transport->flags & NETSNMP_TRANSPORT_FLAG_EMPTY_PKT, 0);
}

TEST_F(SocketTransportTest, WhatFindsNoRoomWaitsInItsOrder) {
  const Transport transport = Make(SOCK_STREAM);
  EXPECT_FALSE(HasUnsent(transport.get()));
  EXPECT_EQ(Flush(transport.get()), 0);
  {
    const FailingLibrary full("send", EAGAIN, 1, FailingLibrary::kAll);
    EXPECT_EQ(Send(transport, "o"), 1);
    EXPECT_TRUE(HasUnsent(transport.get()));
    EXPECT_EQ(Send(transport, "ne "), 3);  // into the room that is there
    EXPECT_EQ(Send(transport, "two "), 4);
    EXPECT_TRUE(HasUnsent(transport.get()));
    EXPECT_EQ(Flush(transport.get()), 0);
    EXPECT_TRUE(HasUnsent(transport.get()));
  }
  EXPECT_EQ(Send(transport, "three"), 5);
  EXPECT_EQ(AtPeer(), "");  // behind what waits
  EXPECT_EQ(Flush(transport.get()), 0);
  EXPECT_FALSE(HasUnsent(transport.get()));
  EXPECT_EQ(AtPeer(), "one two three");
}

TEST_F(SocketTransportTest, WhatCanNeitherBeSentNorKeptBreaksTheConnection) {
  const Transport transport = Make(SOCK_STREAM);
  {
    const FailingLibrary gone("send", EPIPE);
    EXPECT_EQ(Send(transport, "one"), -1);
  }
  {
    const FailingLibrary full("send", EAGAIN, 1, FailingLibrary::kAll);
    EXPECT_EQ(Send(transport, "one"), 3);
    EXPECT_EQ(Send(transport, std::string(size_t{4} << 20, 'x')), -1);
  }
  {
    const FailingLibrary no_memory("realloc");
    EXPECT_EQ(Send(transport, std::string(8000, 'x')), -1);
    EXPECT_EQ(no_memory.Failed(), 1);
  }
  {
    const FailingLibrary gone("send", EPIPE);
    EXPECT_EQ(Flush(transport.get()), -1);
  }
  EXPECT_EQ(Flush(transport.get()), 0);
  EXPECT_EQ(AtPeer(), "one");  // what was kept before is whole
}

// As on the way: the question is asked again.
TEST_F(SocketTransportTest, ADatagramThatFindsNoRoomIsLost) {
  const Transport transport = Make(SOCK_DGRAM);
  {
    const FailingLibrary full("send", EAGAIN);
    EXPECT_EQ(Send(transport, "one"), 3);
  }
  EXPECT_FALSE(HasUnsent(transport.get()));
  EXPECT_EQ(Flush(transport.get()), 0);
  EXPECT_EQ(AtPeer(), "");
  const FailingLibrary refused("send", ECONNREFUSED);
  EXPECT_EQ(Send(transport, "two"), -1);
}

// The library asks for it when it is to show packets.
TEST_F(SocketTransportTest, HasANameForPeople) {
  const Transport transport = Make(SOCK_STREAM);
  char *name = transport->f_fmtaddr(transport.get(), nullptr, 0);
  EXPECT_STREQ(name, "local");
  free(name);
}

TEST(SocketTransport, PathsThatAreNone) {
  for (const std::string &path : {std::string(), std::string(200, 'x')}) {
    errno = 0;
    EXPECT_EQ(ConnectUnix(path), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
  }
  EXPECT_EQ(StreamTransport(-1), nullptr);
}

}  // namespace
}  // namespace vex
