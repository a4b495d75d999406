#include "framework/snmp/snmp_process.h"

#include <errno.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <list>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "framework/process/log.h"
#include "framework/snmp/frames.h"
#include "framework/snmp/image_ring.h"
#include "framework/snmp/snmp_loop.h"
#include "framework/snmp/snmp_wire.h"
#include "framework/snmp/socket_transport.h"
#include "platform/framework.h"

namespace vex {
namespace {

// How long a request waits for images that the agent has not written yet, being behind or stopped.
// The master asks again after a second.
constexpr std::chrono::milliseconds kImagePatience{700};
constexpr std::chrono::minutes kSayBehindEvery{1};
// What a set's result may need from the agent's process to this one. It keeps to the deadline; here
// one more moment is waited, so that a manager hears of what was applied. The master asks again
// after a second.
constexpr std::chrono::milliseconds kResultPatience{200};
static_assert(kResultPatience >= 2 * kReturn, "what was applied is on its way here meanwhile");

// The agent has gone, or does not understand us, nor we it: another process will do better.
[[noreturn]] void Leave() {
  _exit(0);
}

FrameSocket *log_channel;  // of the log; there is one thread

int LogToAgent(const char *text, size_t length) {
  try {
    FrameWriter frame(FrameType::kLog);
    frame.PutText({text, std::min(length, kLongestMessage)});
    if (log_channel->Send(frame)) {
      return static_cast<int>(length);
    }
  } catch (const std::exception &) {
    // A message is not worth more.
  }
  return -1;
}

// ---- Sets: the agent's process runs them, keeps their time and their state.

class RemoteSet final : public SetTransaction {
 public:
  struct Part {
    SetPort::CheckResult check;
    SetPort::ApplyResult apply;
  };
  uint64_t id = 0;
  Clock::time_point deadline;
  std::vector<Part> parts;
  bool over = false;  // here; nothing of it is told any more
};

class RemoteSets final : public SetPort {
 public:
  explicit RemoteSets(FrameSocket *channel) : channel_(channel) {}

  Clock::duration Lateness() const override {
    return kResultPatience;
  }
  std::shared_ptr<SetTransaction> Begin(Clock::time_point deadline) override {
    auto set = std::make_shared<RemoteSet>();
    set->id = next_++;
    set->deadline = deadline;
    std::erase_if(sets_, [](const auto &entry) { return entry.second.expired(); });
    sets_[set->id] = set;
    return set;
  }
  int AddPart(SetTransaction &transaction, std::vector<SetItem> items) override {
    auto &set = static_cast<RemoteSet &>(transaction);
    const auto part = static_cast<uint32_t>(set.parts.size());
    FrameWriter frame(FrameType::kSetPart);
    frame.Put(set.id).Put(part).Put(int64_t{set.deadline.time_since_epoch().count()});
    Put(&frame, items);
    set.parts.reserve(set.parts.size() + 1);
    if (!channel_->Send(frame)) {
      throw std::bad_alloc();
    }
    set.parts.emplace_back();
    return static_cast<int>(part);
  }
  CheckResult CheckOf(SetTransaction &transaction, int part) override {
    auto &set = static_cast<RemoteSet &>(transaction);
    CheckResult result = set.parts.at(static_cast<size_t>(part)).check;
    if (result.state == Check::kPending && Late(set)) {
      Release(set);
      result.state = Check::kUndecided;
    }
    return result;
  }
  void RequestApply(SetTransaction &transaction) noexcept override {
    auto &set = static_cast<RemoteSet &>(transaction);
    if (!set.over && !channel_->Send(FrameWriter(FrameType::kSetApply).Put(set.id))) {
      Leave();
    }
  }
  ApplyResult ApplyOf(SetTransaction &transaction, int part) override {
    auto &set = static_cast<RemoteSet &>(transaction);
    ApplyResult result = set.parts.at(static_cast<size_t>(part)).apply;
    if (result.state == Apply::kPending && Late(set)) {
      Release(set);
      result.state = Apply::kFailed;
    }
    return result;
  }
  void Release(SetTransaction &transaction) noexcept override {
    auto &set = static_cast<RemoteSet &>(transaction);
    if (!set.over && !set.parts.empty() &&
        !channel_->Send(FrameWriter(FrameType::kSetRelease).Put(set.id))) {
      Leave();
    }
    set.over = true;
  }

  void Take(FrameReader *frame) {
    const auto id = frame->Take<uint64_t>();
    const auto part = frame->Take<uint32_t>();
    const auto check = frame->Take<Check>();
    const auto check_item = frame->Take<int32_t>();
    const auto apply = frame->Take<Apply>();
    const auto apply_item = frame->Take<int32_t>();
    const auto place = sets_.find(id);
    const std::shared_ptr<RemoteSet> set = place != sets_.end() ? place->second.lock() : nullptr;
    if (set != nullptr && frame->Whole() && part < set->parts.size()) {
      set->parts[part] = {{check, check_item}, {apply, apply_item}};
    }
  }

 private:
  static bool Late(const RemoteSet &set) {
    return set.over || Clock::now() >= set.deadline + kResultPatience;
  }

  FrameSocket *channel_;
  uint64_t next_ = 1;
  std::map<uint64_t, std::weak_ptr<RemoteSet>> sets_;
};

// ---- Notifications: the agent's process keeps each until the master has answered for it.

class RemoteNotifications final : public NotificationSource {
 public:
  explicit RemoteNotifications(FrameSocket *channel) : channel_(channel) {}

  Notifications Pop() override {
    Notifications first;
    if (!waiting_.empty()) {
      first.splice(first.end(), waiting_, waiting_.begin());
    }
    return first;
  }
  void PutBack(Notifications notifications) override {
    waiting_.splice(waiting_.begin(), notifications);
  }
  void Finished(Notifications notifications) noexcept override {
    for (const WaitingNotification &one : notifications) {
      if (!channel_->Send(FrameWriter(FrameType::kNotified).Put(one.number))) {
        Leave();
      }
    }
  }
  size_t Size() const {
    return waiting_.size();
  }
  void Take(FrameReader *frame, uint64_t session) {
    const auto for_session = frame->Take<uint64_t>();
    const auto number = frame->Take<uint64_t>();
    Notifications added;
    added.emplace_back();
    added.back().number = number;
    // What was on its way when a session ended is sent once more for the next one.
    if (vex::Take(frame, &added.back().notification) && for_session == session) {
      waiting_.splice(waiting_.end(), added);
    }
  }
  void Forget() {
    waiting_.clear();
  }

 private:
  FrameSocket *channel_;
  Notifications waiting_;
};

// ---- All of it

class ProcessSeat final : public SnmpSeat {
 public:
  explicit ProcessSeat(Descriptor channel)
      : channel_(std::move(channel)), sets_(&channel_), notifications_(&channel_) {
    log_channel = &channel_;
  }

  FrameSocket *Channel() {
    return &channel_;
  }
  ImageRingReader *Images() {
    return &images_;
  }

  int Fd() const override {
    return channel_.Fd();
  }
  bool WantsToWrite() const override {
    return channel_.HasUnsent();
  }
  // Want of memory ends the process here and in what it tells: what was not taken, or told, is by
  // the next one.
  void Ready() noexcept override {
    if (!channel_.Flush()) {
      Leave();
    }
    for (;;) {
      std::string_view bytes;
      FrameSocket::Descriptors descriptors;
      const FrameSocket::Got got = channel_.Receive(&bytes, &descriptors);
      if (got == FrameSocket::Got::kEnd) {
        Leave();
      }
      if (got == FrameSocket::Got::kNone) {
        return;
      }
      FrameReader frame(bytes);
      Take(&frame, &descriptors);
    }
  }
  void Work() override {
    for (auto asked = queries_.begin(); asked != queries_.end();) {
      if (asked->second->Ended()) {
        Tell(asked->first, *asked->second);
        asked = queries_.erase(asked);
      } else {
        ++asked;
      }
    }
  }
  bool Stopping() const override {
    return stopping_;
  }

  bool TakeImages(MibIndex *index, bool answering) override {
    const Clock::time_point until = Clock::now() + kImagePatience;
    while (images_.Anything()) {
      if (!images_.Take(index)) {
        Leave();
      }
      if (!images_.Backlog()) {
        return true;
      }
      Send(FrameWriter(FrameType::kRoom));
      if (!answering) {
        return true;
      }
      const Clock::time_point now = Clock::now();
      if (now >= until) {
        SayBehind(now);
        return false;
      }
      pollfd entry = {channel_.Fd(), POLLIN, 0};
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now);
      if (poll(&entry, 1, static_cast<int>(left.count())) > 0) {
        Ready();
      }
    }
    return true;
  }
  bool SetsEnabled() const override {
    return !images_.SetsRefused();
  }
  SetPort *Sets() override {
    return &sets_;
  }
  NotificationSource *Notifications() override {
    return &notifications_;
  }
  size_t NotificationsWaiting() const override {
    return notifications_.Size();
  }
  std::list<std::shared_ptr<SnmpQuery>> TakeQueries() override {
    return std::exchange(fresh_, {});
  }

  netsnmp_transport *Connection(int *error) override {
    if (!connection_) {
      return nullptr;
    }
    netsnmp_transport *transport = StreamTransport(connection_.Release());
    *error = transport == nullptr ? errno : 0;
    return transport;
  }
  void ConnectionFailed(int) override {
    Tell(SessionEvent::kEnded);
  }
  void SessionOpen() override {
    // What was on its way when the session before ended is the agent's again.
    notifications_.Forget();
    session_++;
    Tell(SessionEvent::kOpen);
  }
  void SessionWelcome() override {
    Tell(SessionEvent::kWelcome);
  }
  void SessionUp() override {
    Tell(SessionEvent::kUp);
  }
  void SessionRefused() override {
    Tell(SessionEvent::kRefused);
  }
  void SessionEnded(bool, bool refused) override {
    notifications_.Forget();
    Tell(refused ? SessionEvent::kEndedRefused : SessionEvent::kEnded);
  }

 private:
  void SayBehind(Clock::time_point now) {
    if (now >= say_behind_) {
      say_behind_ = now + kSayBehindEvery;
      agentlog_fprintf(stderr, "The agent is behind with its values: requests get genErr\n");
    }
  }
  void Send(const FrameWriter &frame) noexcept {
    if (!channel_.Send(frame)) {
      Leave();
    }
  }
  void Tell(SessionEvent event) noexcept {
    Send(FrameWriter(FrameType::kSession).Put(event).Put(session_));
  }
  void Tell(uint64_t number, const SnmpQuery &query) noexcept {
    Send(FrameWriter(FrameType::kAnswer)
             .Put(number)
             .Put(uint8_t{query.sent})
             .Put(uint8_t{query.refused})
             .Put(uint8_t{query.has_status})
             .Put(int32_t{query.status})
             .Put(uint8_t{query.has_value})
             .Put(query.value));
  }
  void Take(FrameReader *frame, FrameSocket::Descriptors *descriptors) {
    switch (frame->Take<FrameType>()) {
      case FrameType::kConnected:
        connection_ = std::move((*descriptors)[0]);
        break;
      case FrameType::kSetResult:
        sets_.Take(frame);
        break;
      case FrameType::kNotify:
        notifications_.Take(frame, session_);
        break;
      case FrameType::kQuery:
        TakeQuery(frame, std::move((*descriptors)[0]));
        break;
      case FrameType::kImages:
        break;  // the pass that this begins looks at them
      case FrameType::kPing:
        Send(FrameWriter(FrameType::kPong));
        break;
      case FrameType::kStop:
        stopping_ = true;
        break;
      default:
        Leave();
    }
  }
  void TakeQuery(FrameReader *frame, Descriptor socket) {
    const auto number = frame->Take<uint64_t>();
    auto query = std::make_shared<SnmpQuery>();
    query->community = frame->TakeText();
    const auto length = frame->Take<uint32_t>();
    for (uint32_t i = 0; i < length && frame->Good(); i++) {
      query->oid.push_back(frame->Take<uint32_t>());
    }
    if (!frame->Whole() || !socket) {
      Leave();
    }
    query->socket = std::move(socket);
    std::list<std::shared_ptr<SnmpQuery>> asked = {query};
    queries_[number] = query;
    fresh_.splice(fresh_.end(), asked);
  }

  FrameSocket channel_;
  ImageRingReader images_;
  RemoteSets sets_;
  RemoteNotifications notifications_;
  std::map<uint64_t, std::shared_ptr<SnmpQuery>> queries_;
  std::list<std::shared_ptr<SnmpQuery>> fresh_;  // of them
  Descriptor connection_;
  uint64_t session_ = 0;          // number of the one that was opened last
  Clock::time_point say_behind_;  // when it may be said again
  bool stopping_ = false;
};

void Serve(const AgentxSession::Settings &settings, Descriptor channel, Descriptor images,
           Descriptor control, const SnmpUser &user) {
  static auto *seat = new ProcessSeat(std::move(channel));
  SetLogSink(LogToAgent);
  const auto unable = [](Failure failure, int error) {
    seat->Channel()->Send(FrameWriter(FrameType::kUnable).PutText(failure).Put(int32_t{error}));
  };
  if (!seat->Images()->Open(images.get(), control.get())) {
    unable("no shared memory", errno);
    return;
  }
  images.Reset();
  control.Reset();
  SnmpLoop loop(settings, seat);
  if (const Failure failure = ConfineSnmpProcess(user)) {
    unable(failure, errno);
    return;
  }
  seat->Channel()->Send(FrameWriter(FrameType::kReady));
  constexpr auto kThird = kProcessGoodbye / 3;
  loop.Run({kThird, 2 * kThird});
  // What the log and the last notifications had to say, which the agent may not have made room for.
  const Clock::time_point until = Clock::now() + kThird;
  while (seat->Channel()->Flush() && seat->Channel()->HasUnsent() && Clock::now() < until) {
    pollfd entry = {seat->Channel()->Fd(), POLLOUT, 0};
    poll(&entry, 1, static_cast<int>(kThird.count()));
  }
  // As it stands: destructors would tell once more what is over.
  _exit(0);
}

}  // namespace

void RunSnmpProcess(const AgentxSession::Settings &settings, Descriptor channel, Descriptor images,
                    Descriptor control, const SnmpUser &user) {
  prctl(PR_SET_NAME, "snmp");
  try {
    Serve(settings, std::move(channel), std::move(images), std::move(control), user);
  } catch (const std::exception &) {
    // The agent sees the channel's end.
  }
  _exit(1);
}

}  // namespace vex
