// The AgentX session with the master agent, RFC 2741. Encoding and decoding are net-snmp's;
// opening, registering and pinging are done here, and connecting by a MasterFinder, since the
// library's own ways of doing them wait for the master's answers. Everything runs on the SNMP
// thread and nothing waits.
#ifndef VEX_FRAMEWORK_SNMP_AGENTX_SESSION_H
#define VEX_FRAMEWORK_SNMP_AGENTX_SESSION_H

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "framework/process/clock.h"
#include "framework/snmp/master_finder.h"
#include "framework/snmp/mib_table.h"
#include "framework/snmp/socket_transport.h"

namespace vex {

// Protocol numbers, RFC 2741 6.1 and 6.2.16.
enum AgentxType : int {
  kAgentxOpen = 1,
  kAgentxClose = 2,
  kAgentxRegister = 3,
  kAgentxGet = 5,
  kAgentxGetNext = 6,
  kAgentxGetBulk = 7,
  kAgentxTestSet = 8,
  kAgentxCommitSet = 9,
  kAgentxUndoSet = 10,
  kAgentxCleanupSet = 11,
  kAgentxNotify = 12,
  kAgentxPing = 13,
  kAgentxResponse = 18,
};
// Flags of a packet, RFC 2741 6.1.
constexpr int kNonDefaultContext = 0x08;
constexpr int kNetworkByteOrder = 0x10;

enum AgentxError : int {
  kAgentxNotOpen = 257,
  kAgentxUnsupportedContext = 262,
  kAgentxProcessingError = 268,
};

class AgentxSession {
 public:
  struct Settings {
    std::string name;  // in the Open PDU
    MasterAddress master;
    int ping_seconds = 15;    // of silence
    int timeout_seconds = 0;  // asked of the master; 0: its own default
    uint8_t priority = 127;   // of the registrations (RFC 2741 6.2.3): the lowest answers
    std::span<const MibGroup> groups;
  };
  // Of a packet on the wire, RFC 2741 6.1.
  struct PacketHeader {
    int type;
    int flags;
    uint32_t session;
    uint32_t transaction;
    uint32_t packet;
  };
  // What the owner does with the session's events, none of which throws.
  struct Events {
    std::function<void(netsnmp_pdu *)> request;  // Get, GetNext, GetBulk and the four of a set
    // One of them came and could not be read, for want of memory or because it is malformed.
    std::function<void(const PacketHeader &)> unread;
    std::function<void()> open;     // the registrations follow
    std::function<void()> welcome;  // the master has taken one of them,
    std::function<void()> up;       // and all
    std::function<void()> refused;  // the master takes no session; its end follows
    // The connection has ended, for another one to be adopted; was_open: there was a session, whose
    // answers to what was sent may not have come.
    std::function<void(bool was_open, bool refused)> ended;
  };

  AgentxSession(Settings settings, Events events);
  ~AgentxSession();
  AgentxSession(const AgentxSession &) = delete;
  AgentxSession &operator=(const AgentxSession &) = delete;

  // The master takes notifications, whatever it thinks of the registrations.
  bool Open() const {
    return stage_ == Stage::kRegistering || stage_ == Stage::kUp;
  }
  // There is no connection: Adopt() one.
  bool Down() const {
    return stage_ == Stage::kDown && !broken_;
  }
  // Its end has been seen; SocketReady() or Work() will clear it away.
  bool Broken() const {
    return broken_;
  }
  // For poll(2); -1 when there is nothing to wait for.
  int Socket() const;
  bool WantsToWrite() const;
  // When Work() is to be called at the latest; never while Down().
  Clock::time_point NextDue() const;
  // Begins a session over a connection to the master, while Down(); takes the transport over. False
  // for null and when there is no memory.
  bool Adopt(netsnmp_transport *transport);

  // The socket is readable or writable.
  void SocketReady(bool readable, bool writable);
  // Registers again, pings, gives up, as the time has come.
  void Work();

  // A PDU of the given type for this session, or null.
  netsnmp_pdu *NewPdu(int type) const;
  // Sends a PDU and takes it over; null is one that there was no memory for. answer: called once,
  // with the response, or with null when the session is lost before; not called for a Response PDU.
  // false when it could not be sent (then answer is not called): when the session is not Broken()
  // and the PDU was not TooLong(), another try may succeed. Throws nothing.
  using Answer = std::function<void(const netsnmp_pdu *)>;
  bool Send(netsnmp_pdu *pdu, Answer answer = nullptr) noexcept;
  // Why the last Send() failed: it would never fit into a packet.
  bool TooLong() const {
    return too_long_;
  }
  // Ends the session, for another one to begin: its state is not known any more.
  void Break() {
    broken_ = true;
  }

  // Says goodbye to the master and waits for its answer, until then at the latest.
  void Close(Clock::time_point until);

 private:
  enum class Stage { kDown, kOpening, kRegistering, kUp };
  struct Waiting;

  static int CheckPacket(u_char *bytes, size_t length);
  static int Parse(netsnmp_session *session, netsnmp_pdu *pdu, u_char *bytes, size_t length);
  static int Packet(int operation, netsnmp_session *session, int reqid, netsnmp_pdu *pdu,
                    void *magic);
  static int Response(int operation, netsnmp_session *session, int reqid, netsnmp_pdu *pdu,
                      void *magic);
  void Request(netsnmp_pdu *pdu);
  void TellUnread();
  void Opened(const netsnmp_pdu *response);
  void Register(size_t group);
  void Registered(size_t group, const netsnmp_pdu *response);
  void Ping();
  void Drop();

  const Settings settings_;
  const Events events_;
  Stage stage_ = Stage::kDown;
  void *handle_ = nullptr;  // net-snmp's single-session handle
  netsnmp_session *session_ = nullptr;
  long session_id_ = 0;
  bool broken_ = false;
  bool too_long_ = false;
  bool close_answered_ = false;
  std::optional<PacketHeader> arrived_;  // a whole packet that was not read yet
  bool ping_unanswered_ = false;
  size_t unregistered_ = 0;
  std::vector<bool> registered_;
  Clock::duration registration_retry_{};
  Clock::time_point give_up_;  // of an answer to Open or Ping
  Clock::time_point next_ping_;
  Clock::time_point next_registration_;
  bool said_duplicate_ = false;
  bool said_refused_ = false;  // an Open
  bool refused_ = false;       // the last one
};

}  // namespace vex

#endif
