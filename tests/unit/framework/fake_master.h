// A master agent in a test's hands: it listens where told, and sends and receives AgentX packets
// (RFC 2741) one by one.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_FAKE_MASTER_H
#define VEX_TESTS_UNIT_FRAMEWORK_FAKE_MASTER_H

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace vex {

using OidNumbers = std::vector<uint32_t>;

// A variable binding; type as in RFC 2741 5.4.
struct AgentxBinding {
  enum Type {
    kInteger = 2,
    kOctets = 4,
    kNull = 5,
    kObjectId = 6,
    kNoSuchObject = 128,
    kNoSuchInstance = 129,
    kEndOfMibView = 130
  };
  int type = kNull;
  OidNumbers name;
  int32_t integer = 0;
  std::string octets;
  OidNumbers object_id;
};

struct AgentxPacket {
  uint8_t type = 0;
  uint8_t flags = 0;
  uint32_t session = 0;
  uint32_t transaction = 0;
  uint32_t packet = 0;
  std::string payload;

  // Of a Response or Notify packet.
  int Error() const;
  int ErrorIndex() const;
  std::vector<AgentxBinding> Bindings() const;
  // Of a Register packet.
  OidNumbers Subtree() const;
};

class FakeMaster {
 public:
  explicit FakeMaster(std::string path);
  // On a TCP port of 127.0.0.1 instead; backlog as in listen(2).
  struct Tcp {
    int backlog = 5;
  };
  explicit FakeMaster(Tcp tcp);
  ~FakeMaster();
  FakeMaster(const FakeMaster &) = delete;
  FakeMaster &operator=(const FakeMaster &) = delete;

  // Accepts the agent's connection and answers its Open and Register packets; false when that does
  // not happen within the time. Notifications that come meanwhile are kept for Receive().
  bool AcceptAndRegister(int timeout_ms = 10000);
  bool Accept(int timeout_ms);
  // The next packet; nothing when none comes within the time or the agent has hung up.
  std::optional<AgentxPacket> Receive(int timeout_ms = 10000);
  bool HungUp(int timeout_ms);
  // The same with answers that nobody has read.
  bool HasBeenReset(int timeout_ms);
  void Send(const AgentxPacket &packet);
  // What Send() puts on the wire; and putting bytes there as they are.
  static std::string BytesOf(const AgentxPacket &packet);
  void SendBytes(const std::string &bytes);
  // What one recv(2) brings; empty when nothing comes within the time.
  std::string ReceiveBytes(int timeout_ms);
  void Answer(const AgentxPacket &request, int error = 0);
  // Sends one request and receives its answer.
  std::optional<AgentxPacket> Ask(const AgentxPacket &request, int timeout_ms = 3000);
  void Disconnect();

  AgentxPacket Get(const std::vector<OidNumbers> &names);
  // end: of all search ranges.
  AgentxPacket GetNext(const std::vector<OidNumbers> &names, const OidNumbers &end = {},
                       bool inclusive = false);
  AgentxPacket GetBulk(uint16_t non_repeaters, uint16_t max_repetitions,
                       const std::vector<OidNumbers> &names, const OidNumbers &end = {});
  AgentxPacket TestSet(uint32_t transaction, const std::vector<AgentxBinding> &bindings);
  // CommitSet, UndoSet, CleanupSet.
  AgentxPacket Phase(uint8_t type, uint32_t transaction);

  // The number of the session; the master gives it in its answer to Open.
  uint32_t Session() const {
    return session_;
  }
  // Of the last registration (RFC 2741 6.2.3).
  int Priority() const {
    return priority_;
  }
  // Of a master on TCP.
  uint16_t Port() const;

  const std::vector<OidNumbers> &Registered() const {
    return registered_;
  }

 private:
  AgentxPacket New(uint8_t type);

  std::string path_;
  int listener_ = -1;
  int connection_ = -1;
  std::string received_;
  std::deque<AgentxPacket> kept_;
  uint32_t next_packet_ = 1000;
  uint32_t session_ = 40;
  int priority_ = 0;
  std::vector<OidNumbers> registered_;
};

}  // namespace vex

#endif
