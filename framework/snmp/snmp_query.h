// SNMP queries over net-snmp's client library: made by the SNMP side while the agent thread
// waits, or by a tool's only thread.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_QUERY_H
#define VEX_FRAMEWORK_SNMP_SNMP_QUERY_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "framework/snmp/socket_transport.h"

namespace vex {

constexpr uint16_t kSnmpPort = 161;

// One question and its answer: the two threads share it.
class SnmpQuery {
 public:
  std::string address;  // IPv4
  std::string community;
  std::vector<uint32_t> oid;
  bool next = false;  // GETNEXT instead of GET
  Descriptor socket;  // connected to address; without one, one is opened

  // Agent thread: waits until the query has ended. False when it has not by then; it goes on, and
  // its answer can no longer be had.
  bool Wait(Clock::time_point until);
  // Whether an answer has come, after Wait() returned false.
  bool AnsweredLate();
  bool Ended();
  // The answer, after Wait() returned true.
  bool has_value = false;
  int32_t value = 0;
  bool has_status = false;
  int status = 0;
  std::vector<uint32_t> name;  // of the first variable in the answer
  bool refused = false;        // nobody listens at the address

  bool sent = false;

  // For whoever asks: the SNMP side or its relay.
  void Done();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
};

// The SNMP side's half.
class SnmpQueries {
 public:
  ~SnmpQueries();
  // What cannot be started has ended.
  void Start(const std::shared_ptr<SnmpQuery> &query);
  bool Empty() const {
    return running_.empty();
  }
  // Sockets to wait for.
  void Collect(std::vector<int> *fds) const;
  void Ready(int fd);
  // Asks again, gives up.
  void Work();
  Clock::time_point NextDue() const;

 private:
  struct Running {
    std::shared_ptr<SnmpQuery> query;
    void *handle = nullptr;
    bool finished = false;
  };

  static int Answered(int operation, netsnmp_session *session, int reqid, netsnmp_pdu *pdu,
                      void *magic);
  bool Send(Running *running);
  void Sweep();

  std::list<Running> running_;  // a list: net-snmp holds pointers to the elements
  Clock::time_point next_work_;
};

}  // namespace vex

#endif
