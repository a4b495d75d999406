// Questions to an SNMP agent, whose answers the test writes octet by octet.
#include "framework/snmp/snmp_query.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>

#include "framework/snmp/snmp_ask.h"
#include "tests/support/failing_new.h"
#include "tests/unit/framework/session/failing_library.h"

namespace vex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// ---- Messages, RFC 3416 in the encoding of RFC 3417 8 ----

enum { kResponseTag = 0xa2, kReportTag = 0xa8 };
enum { kIntegerTag = 2, kOctetsTag = 4, kOidTag = 6, kSequenceTag = 0x30 };
enum { kCounterTag = 0x41, kGaugeTag = 0x42, kTicksTag = 0x43, kEndOfViewTag = 0x82 };

std::string Ber(int tag, const std::string &contents) {
  std::string out(1, static_cast<char>(tag));
  if (contents.size() > 127) {
    out += '\x82';
    out += static_cast<char>(contents.size() >> 8);
  }
  return out + static_cast<char>(contents.size() & 0xff) + contents;
}

std::string BerNumber(int tag, int64_t number) {
  std::string octets;
  for (int shift = 32; shift >= 0; shift -= 8) {
    octets += static_cast<char>(number >> shift & 0xff);
  }
  return Ber(tag, octets);
}

// One octet a number: all below 128.
std::string BerOid(const std::vector<uint32_t> &oid) {
  std::string octets(1, static_cast<char>(oid.at(0) * 40 + oid.at(1)));
  for (size_t i = 2; i < oid.size(); i++) {
    octets += static_cast<char>(oid[i]);
  }
  return Ber(kOidTag, octets);
}

std::string BerBinding(const std::vector<uint32_t> &name, const std::string &value) {
  return Ber(kSequenceTag, BerOid(name) + value);
}

size_t LengthAt(const std::string &bytes, size_t *at) {
  const auto first = static_cast<uint8_t>(bytes.at((*at)++));
  if (first < 128) {
    return first;
  }
  size_t length = 0;
  for (int i = 0; i < (first & 0x7f); i++) {
    length = length << 8 | static_cast<uint8_t>(bytes.at((*at)++));
  }
  return length;
}

// The request-id of a community-based request, as it stands there.
std::string RequestIdOf(const std::string &request) {
  size_t at = 1;
  LengthAt(request, &at);
  for (int passed = 0; passed < 2; passed++) {  // version, community
    at++;
    const size_t length = LengthAt(request, &at);
    at += length;
  }
  at++;  // into the PDU
  LengthAt(request, &at);
  const size_t begin = at++;
  const size_t length = LengthAt(request, &at);
  return request.substr(begin, at + length - begin);
}

std::string AnswerTo(const std::string &request, int tag, int error, const std::string &bindings) {
  const std::string pdu = Ber(tag, RequestIdOf(request) + BerNumber(kIntegerTag, error) +
                                       BerNumber(kIntegerTag, 0) + Ber(kSequenceTag, bindings));
  return Ber(kSequenceTag, Ber(kIntegerTag, "\1") + Ber(kOctetsTag, "public") + pdu);
}

const std::vector<uint32_t> kAsked = {1, 3, 6, 1, 2, 1, 1, 7, 0};

// ---- The SNMP side's half, over a socket pair ----

class SnmpQueriesTest : public testing::Test {
 protected:
  void TearDown() override {
    for (int fd : peers_) {
      close(fd);
    }
    RestoreLibrary();
  }
  // A query that is sent to peers_.back().
  std::shared_ptr<SnmpQuery> Start() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    peers_.push_back(ends[1]);
    auto query = std::make_shared<SnmpQuery>();
    query->community = "public";
    query->oid = kAsked;
    query->socket = Descriptor(ends[0]);
    queries_.Start(query);
    return query;
  }
  std::string Asked(size_t number = 0) {
    char buffer[2000];
    const ssize_t got = recv(peers_.at(number), buffer, sizeof(buffer), MSG_DONTWAIT);
    return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : "";
  }
  void Answer(const std::string &bytes, size_t number = 0) {
    EXPECT_EQ(send(peers_.at(number), bytes.data(), bytes.size(), 0),
              static_cast<ssize_t>(bytes.size()));
    std::vector<int> sockets;
    queries_.Collect(&sockets);
    for (int fd : sockets) {
      pollfd entry = {fd, POLLIN, 0};
      if (poll(&entry, 1, 0) > 0) {
        queries_.Ready(fd);
      }
    }
  }

  SnmpQueries queries_;
  std::vector<int> peers_;
};

TEST_F(SnmpQueriesTest, TakesIntegersOfEveryKind) {
  const struct {
    int tag;
    int64_t sent;
    int32_t value;
  } cases[] = {{kIntegerTag, 72, 72},
               {kIntegerTag, -5, -5},
               {kCounterTag, 0xffffffff, INT32_MAX},
               {kGaugeTag, 0x80000000, INT32_MAX},
               {kTicksTag, 100, 100}};
  for (const auto &c : cases) {
    const std::shared_ptr<SnmpQuery> query = Start();
    const size_t number = peers_.size() - 1;
    Answer(AnswerTo(Asked(number), kResponseTag, 0, BerBinding(kAsked, BerNumber(c.tag, c.sent))),
           number);
    EXPECT_TRUE(query->Ended());
    EXPECT_TRUE(query->has_status);
    EXPECT_TRUE(query->has_value) << c.tag;
    EXPECT_EQ(query->value, c.value) << c.tag;
    EXPECT_EQ(query->name, kAsked);
    EXPECT_TRUE(query->AnsweredLate());
  }
}

TEST_F(SnmpQueriesTest, AnAnswerWithoutAnIntegerHasNoValue) {
  std::vector<uint32_t> longer = kAsked;
  longer.push_back(1);
  std::vector<uint32_t> other = kAsked;
  other.back() = 1;
  const struct {
    int error;
    std::string bindings;
    bool named;
  } cases[] = {{5, BerBinding(kAsked, BerNumber(kIntegerTag, 72)), false},
               {0, "", false},
               {0, BerBinding(kAsked, Ber(kOctetsTag, "72")), true},
               {0, BerBinding(longer, BerNumber(kIntegerTag, 72)), true},
               {0, BerBinding(other, BerNumber(kIntegerTag, 72)), true}};
  for (const auto &c : cases) {
    const std::shared_ptr<SnmpQuery> query = Start();
    const size_t number = peers_.size() - 1;
    Answer(AnswerTo(Asked(number), kResponseTag, c.error, c.bindings), number);
    EXPECT_TRUE(query->Ended());
    EXPECT_TRUE(query->has_status);
    EXPECT_EQ(query->status, c.error);
    EXPECT_FALSE(query->has_value);
    EXPECT_EQ(!query->name.empty(), c.named);
  }
}

// A report says that the question was not understood, and not what there is.
TEST_F(SnmpQueriesTest, AReportIsNoAnswer) {
  const std::shared_ptr<SnmpQuery> query = Start();
  Answer(AnswerTo(Asked(), kReportTag, 0, BerBinding(kAsked, BerNumber(kIntegerTag, 72))));
  EXPECT_TRUE(query->Ended());
  EXPECT_FALSE(query->has_status);
  EXPECT_FALSE(query->has_value);
  EXPECT_FALSE(query->AnsweredLate());
}

TEST_F(SnmpQueriesTest, ANameThatThereIsNoMemoryForIsLeftOut) {
  const std::shared_ptr<SnmpQuery> query = Start();
  const std::string answer =
      AnswerTo(Asked(), kResponseTag, 0, BerBinding(kAsked, BerNumber(kIntegerTag, 72)));
  EXPECT_EQ(send(peers_[0], answer.data(), answer.size(), 0), static_cast<ssize_t>(answer.size()));
  std::vector<int> sockets;
  queries_.Collect(&sockets);
  EXPECT_TRUE(FailAllocation(1, [&] { queries_.Ready(sockets.at(0)); }));
  EXPECT_TRUE(query->has_value);
  EXPECT_EQ(query->value, 72);
  EXPECT_TRUE(query->name.empty());
}

TEST_F(SnmpQueriesTest, WhatCannotBeReadIsPassedOver) {
  const std::shared_ptr<SnmpQuery> query = Start();
  const std::string asked = Asked();
  Answer("nonsense");
  EXPECT_FALSE(query->Ended());
  EXPECT_FALSE(query->refused);
  Answer(AnswerTo(asked, kResponseTag, 0, BerBinding(kAsked, BerNumber(kIntegerTag, 72))));
  EXPECT_TRUE(query->Ended());
  EXPECT_EQ(query->value, 72);
}

TEST_F(SnmpQueriesTest, EachAnswerIsItsOwnQuerys) {
  const std::shared_ptr<SnmpQuery> first = Start();
  const std::shared_ptr<SnmpQuery> second = Start();
  Answer(AnswerTo(Asked(1), kResponseTag, 0, BerBinding(kAsked, BerNumber(kIntegerTag, 2))), 1);
  EXPECT_FALSE(first->Ended());
  EXPECT_TRUE(second->Ended());
  EXPECT_EQ(second->value, 2);
  queries_.Ready(peers_[0]);  // nobody's socket
  EXPECT_FALSE(first->Ended());
}

TEST_F(SnmpQueriesTest, WhatIsLeftHasEndedWithTheQueries) {
  std::shared_ptr<SnmpQuery> query;
  {
    SnmpQueries queries;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    peers_.push_back(ends[1]);
    query = std::make_shared<SnmpQuery>();
    query->oid = kAsked;
    query->socket = Descriptor(ends[0]);
    queries.Start(query);
    EXPECT_FALSE(query->Ended());
  }
  EXPECT_TRUE(query->Ended());
  EXPECT_FALSE(query->has_status);
}

TEST_F(SnmpQueriesTest, AQueryThatCannotBeSentHasEnded) {
  for (const char *function : {"snmp_pdu_create", "snmp_add_null_var", "snmp_sess_async_send"}) {
    const FailingLibrary fails(function);
    const std::shared_ptr<SnmpQuery> query = Start();
    EXPECT_EQ(fails.Failed(), 1) << function;
    EXPECT_TRUE(query->Ended()) << function;
    EXPECT_FALSE(query->sent) << function;
    EXPECT_TRUE(queries_.Empty());
  }
}

// ---- A tool's questions, to an agent on the loopback ----

class SnmpAskTest : public testing::Test {
 protected:
  void SetUp() override {
    socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    socklen_t length = sizeof(address);
    getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &length);
    TheLibrary().snmp_port = ntohs(address.sin_port);
  }
  void TearDown() override {
    if (agent_.joinable()) {
      agent_.join();
    }
    close(socket_);
    RestoreLibrary();
  }
  // Answers so many requests.
  void Serve(int count, std::function<std::string(const std::string &, int)> answer) {
    agent_ = std::thread([this, count, answer = std::move(answer)] {
      for (int number = 0; number < count; number++) {
        pollfd entry = {socket_, POLLIN, 0};
        if (poll(&entry, 1, 10000) <= 0) {
          return;
        }
        char buffer[2000];
        sockaddr_in from = {};
        socklen_t length = sizeof(from);
        const ssize_t got = recvfrom(socket_, buffer, sizeof(buffer), 0,
                                     reinterpret_cast<sockaddr *>(&from), &length);
        if (got > 0) {
          const std::string bytes = answer(std::string(buffer, static_cast<size_t>(got)), number);
          (void)!sendto(socket_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&from),
                        length);
        }
      }
    });
  }
  static std::string Row(uint32_t row, const std::string &value) {
    return BerBinding({1, 3, 6, 1, 4, row}, value);
  }

  int socket_ = -1;
  std::thread agent_;
};

const std::vector<uint32_t> kWalked = {1, 3, 6, 1, 4};

TEST_F(SnmpAskTest, AnAnswerHasAValue) {
  Serve(1, [](const std::string &request, int) {
    return AnswerTo(request, kResponseTag, 0, BerBinding(kAsked, BerNumber(kIntegerTag, 72)));
  });
  const SnmpReply reply = AskSnmp(kLoopbackAddress, "public", kAsked, false);
  EXPECT_TRUE(reply.answered);
  EXPECT_FALSE(reply.refused);
  EXPECT_EQ(reply.error, 0);
  EXPECT_EQ(reply.value, 72);
  EXPECT_EQ(reply.name, kAsked);
}

TEST_F(SnmpAskTest, SilenceEndsWithThePatience) {
  TheLibrary().clock_step_ns = std::chrono::nanoseconds(milliseconds(300)).count();
  const SnmpReply reply = AskSnmp(kLoopbackAddress, "public", kAsked, false);
  EXPECT_FALSE(reply.answered);
  EXPECT_FALSE(reply.refused);
  EXPECT_FALSE(reply.value);
}

TEST_F(SnmpAskTest, AWalkGoesOnToTheSubtreesEnd) {
  Serve(2, [](const std::string &request, int number) {
    return AnswerTo(request, kResponseTag, 0,
                    number == 0 ? Row(1, BerNumber(kIntegerTag, 5)) + Row(2, Ber(kOctetsTag, "two"))
                                : Row(3, BerNumber(kTicksTag, 9)) + Row(4, Ber(kOctetsTag, "")) +
                                      BerBinding({1, 3, 6, 1, 5, 1}, BerNumber(kIntegerTag, 1)));
  });
  std::vector<SnmpValue> values;
  EXPECT_TRUE(WalkSnmp(kLoopbackAddress, "public", kWalked, &values));
  ASSERT_EQ(values.size(), 4U);
  EXPECT_EQ(values[0].integer, 5);
  EXPECT_EQ(values[1].octets, "two");
  EXPECT_EQ(values[1].name.back(), 2U);
  EXPECT_FALSE(values[2].integer || values[2].octets);  // neither
  EXPECT_EQ(values[3].octets, "");
}

// What ends a walk: the end of all, a name that is not below or not behind the last one, nothing.
TEST_F(SnmpAskTest, AWalkEndsWhereTheAgentDoesNotGoOn) {
  const std::string endings[] = {
      Row(2, Ber(kEndOfViewTag, "")), BerBinding({1, 3, 6, 1, 4}, BerNumber(kIntegerTag, 1)),
      Row(1, BerNumber(kIntegerTag, 5)), Row(0, BerNumber(kIntegerTag, 5)), ""};
  for (const std::string &ending : endings) {
    Serve(2, [&ending](const std::string &request, int number) {
      return AnswerTo(request, kResponseTag, 0,
                      number == 0 ? Row(1, BerNumber(kIntegerTag, 5)) : ending);
    });
    std::vector<SnmpValue> values;
    EXPECT_TRUE(WalkSnmp(kLoopbackAddress, "public", kWalked, &values));
    EXPECT_EQ(values.size(), 1U);
    agent_.join();
  }
}

// Where a sanitizer has the memory, there are no figures, and it tells of a leak itself.
TEST_F(SnmpAskTest, AWalksAnswersAreFreed) {
  constexpr int kWalks = 50;
  constexpr size_t kRows = 40;
  std::string rows;
  for (uint32_t row = 1; row <= kRows; row++) {
    rows += Row(row, Ber(kOctetsTag, "text"));
  }
  Serve(kWalks, [&rows](const std::string &request, int) {
    return AnswerTo(request, kResponseTag, 0, rows + Row(kRows, Ber(kEndOfViewTag, "")));
  });
  size_t before = 0;
  for (int walk = 0; walk < kWalks; walk++) {
    std::vector<SnmpValue> values;
    ASSERT_TRUE(WalkSnmp(kLoopbackAddress, "public", kWalked, &values));
    ASSERT_EQ(values.size(), kRows);
    before = walk == 0 ? mallinfo2().uordblks : before;
  }
  EXPECT_LT(mallinfo2().uordblks, before + 200'000);
}

TEST_F(SnmpAskTest, AWalkThatAnErrorEndsKeepsWhatCameBefore) {
  Serve(2, [](const std::string &request, int number) {
    return AnswerTo(request, kResponseTag, number == 0 ? 0 : 5,
                    number == 0 ? Row(1, BerNumber(kIntegerTag, 5)) : "");
  });
  std::vector<SnmpValue> values;
  EXPECT_FALSE(WalkSnmp(kLoopbackAddress, "public", kWalked, &values));
  EXPECT_EQ(values.size(), 1U);
}

TEST_F(SnmpAskTest, AWalkThatCannotBeAskedIsNone) {
  std::vector<SnmpValue> values;
  for (const char *function : {"snmp_sess_open", "snmp_pdu_create"}) {
    const FailingLibrary fails(function);
    EXPECT_FALSE(WalkSnmp(kLoopbackAddress, "public", kWalked, &values)) << function;
    EXPECT_EQ(fails.Failed(), 1) << function;
  }
  for (const int error : {ETIMEDOUT, 0}) {
    const FailingLibrary silence("snmp_sess_synch_response", error);
    EXPECT_FALSE(WalkSnmp(kLoopbackAddress, "public", kWalked, &values));
    EXPECT_EQ(FailingLibrary::Failed(), 1);
  }
  EXPECT_TRUE(values.empty());
}

TEST_F(SnmpAskTest, AnEngineThatCannotBeAskedDoesNotAnswer) {
  for (const char *function : {"snmp_sess_open", "snmp_pdu_create"}) {
    const FailingLibrary fails(function);
    EXPECT_FALSE(SnmpEngineAnswers(kLoopbackAddress)) << function;
    EXPECT_EQ(fails.Failed(), 1) << function;
  }
}

}  // namespace
}  // namespace vex
