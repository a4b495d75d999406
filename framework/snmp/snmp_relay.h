// The agent's side of the SNMP process: starts it, again when it has ended, and hands over what the
// agent thread has for it and it for the agent thread. Nothing here reads what came from the master
// or the network; what the process says is checked.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_RELAY_H
#define VEX_FRAMEWORK_SNMP_SNMP_RELAY_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "framework/process/clock.h"
#include "framework/snmp/frames.h"
#include "framework/snmp/master_finder.h"
#include "framework/snmp/notifications.h"
#include "framework/snmp/set_channel.h"
#include "framework/snmp/snmp_shared.h"
#include "framework/snmp/snmp_starter.h"
#include "framework/snmp/snmp_wire.h"

namespace vex {

class SnmpRelay {
 public:
  SnmpRelay() = default;
  // Ends the process; what it has not finished is the queues' again.
  ~SnmpRelay();
  SnmpRelay(const SnmpRelay &) = delete;
  SnmpRelay &operator=(const SnmpRelay &) = delete;

  // What became of the start.
  enum class Begun {
    kRuns,
    kUnable,  // *why: on this machine there can be none
    kFailed,  // *why: now, or for its configuration
    kEnding   // the agent is to end, or *why when its configuration takes for ever
  };
  // Agent thread, before there is another one: starts the process, and waits until it has no
  // rights, until then at the latest. Throws std::bad_alloc.
  Begun Begin(const std::string &application, const SnmpUser &user, Clock::time_point until,
              SnmpSettings *settings, std::string *why);
  // The rest is for one thread: returns when Side().stop is set. Throws std::runtime_error when
  // there can be no process any more.
  void Run();

 private:
  struct Set {
    std::shared_ptr<SetTransaction> transaction;
    Clock::time_point deadline;
    struct Part {
      SetPort::CheckResult check;
      SetPort::ApplyResult apply;
    };
    std::vector<Part> parts;
    size_t items = 0;
    bool applying = false;
  };
  struct Asked {
    std::shared_ptr<SnmpQuery> query;
    Clock::time_point until;
  };
  // Ends of the process that may follow one another closely.
  class Restarts {
   public:
    // The process has ended: when the next one may begin.
    Clock::time_point Ended(Clock::time_point now);
    bool Often() const {
      return often_;
    }
    // True once, when it has stayed after having ended too often.
    bool Stays(Clock::time_point now);

   private:
    static constexpr int kAtOnce = 50;
    static constexpr std::chrono::seconds kOneMoreAfter{10};
    static constexpr std::chrono::seconds kRare{5};
    int left_ = kAtOnce;
    Clock::time_point counted_ = Clock::now();
    Clock::time_point last_{};
    bool often_ = false;
  };

  template <typename Function>
  void Try(Function function);
  std::optional<Begun> First(Clock::time_point until, std::string *why);
  bool Spawn();
  void NotStarted(const char *why);
  void NotBegun();
  void HungUp();
  void Gone(const char *why, bool counts = true);
  void Wait(Clock::time_point until);
  void StarterReady();
  void ChildReady();
  void Take(FrameReader *frame);
  void TakeSession(FrameReader *frame);
  void TakeNotified(uint64_t number);
  void TakeSetPart(FrameReader *frame);
  void AddSetPart(uint64_t id, Clock::time_point deadline, FrameReader *frame);
  void TakeAnswer(FrameReader *frame);
  void TakeLog(std::string_view text);
  void TakeLastWords();
  void Hostile();
  void Send(const FrameWriter &frame, std::span<const int> descriptors = {});

  void Work();
  void Connect();
  void PumpImages();
  void Notify();
  void AskQueries();
  void ForgetQueries();
  bool Ask(const std::shared_ptr<SnmpQuery> &query) noexcept;
  void TellSets();
  void TellSet(uint64_t id, uint32_t part, const SetPort::CheckResult &check,
               const SetPort::ApplyResult &apply);
  void Ping();
  Clock::time_point NextDue() const;
  void Ending();

  SnmpStarter starter_;
  std::optional<MasterFinder> finder_;
  SnmpTicker ticker_;
  FrameSocket child_;
  bool has_child_ = false;
  bool ready_ = false;  // it has no rights and serves
  int unborn_ = 0;      // of those that were asked for, what the starter has not answered for
  bool begun_ = false;  // the first one has served: after its end there is another
  std::string unable_;  // why it could not be started
  int unable_error_ = 0;
  const char *why_gone_ = nullptr;  // where we ended it
  Clock::time_point spawn_at_;
  Restarts restarts_;
  bool said_often_ = false;
  bool said_not_started_ = false;
  bool stopping_ = false;
  bool short_of_memory_ = false;  // since the last rest
  bool images_told_ = false;      // the process knows that there is much in the ring

  bool connected_ = false;  // it has a connection to the master
  bool open_ = false;       // and a session
  uint64_t session_ = 0;
  // When a session that ended with its process counts as one that the master has ended.
  Clock::time_point away_at_ = Clock::time_point::max();
  Notifications unanswered_;
  uint64_t next_notification_ = 1;
  std::map<uint64_t, Set> sets_;
  std::map<uint64_t, Asked> queries_;
  uint64_t next_query_ = 1;
  Clock::time_point heard_;
  bool pinged_ = false;

  // Messages of the process: so many at once, and so many a second.
  double messages_left_ = 200;
  Clock::time_point messages_counted_ = Clock::now();
  unsigned messages_lost_ = 0;
};

}  // namespace vex

#endif
