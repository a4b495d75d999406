#include "framework/snmp/snmp_loop.h"

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "framework/snmp/mib_table.h"
#include "platform/framework.h"

namespace vex {
namespace {

constexpr std::chrono::milliseconds kLongestSpin{2};  // then the rest has its turn
// After want of memory: the next try must not take the processor for itself.
constexpr std::chrono::milliseconds kRest{10};
// Images that nobody asked for are still taken over now and then, so that each is held once only.
constexpr std::chrono::seconds kLongestSleep{30};

// That this thread may run on. Where they are more than the set has room for, the call fails.
int Processors() {
  cpu_set_t set;
  return sched_getaffinity(0, sizeof(set), &set) == 0 ? CPU_COUNT(&set) : CPU_SETSIZE;
}

}  // namespace

SnmpLoop::SnmpLoop(AgentxSession::Settings settings, SnmpSeat *seat)
    : seat_(seat),
      index_(MibVariables()),
      requests_(&index_, seat->Sets()),
      sender_(seat->Notifications()),
      session_(std::move(settings),
               {[this](netsnmp_pdu *pdu) { Request(pdu); },
                [this](const AgentxSession::PacketHeader &header) {
                  requests_.HandleUnread(&session_, header);
                },
                [this] { seat_->SessionOpen(); }, [this] { seat_->SessionWelcome(); },
                [this] { seat_->SessionUp(); }, [this] { seat_->SessionRefused(); },
                [this](bool was_open, bool refused) { Ended(was_open, refused); }}),
      spinning_(Processors()) {
  fds_.reserve(kUsualDescriptors);
  query_fds_.reserve(kUsualDescriptors);
}

// Does one part of the work; what it leaves undone, for want of memory, is done by a later pass.
template <typename Function>
void SnmpLoop::Try(Function function) noexcept {
  try {
    function();
  } catch (...) {
    short_of_memory_ = true;
  }
}

void SnmpLoop::Run(Ending ending) {
  while (!seat_->Stopping()) {
    short_of_memory_ = false;
    Try([this] { Wait(); });
    Try([this] { Spin(); });
    Work();
    if (short_of_memory_) {
      poll(nullptr, 0, static_cast<int>(kRest.count()));
    }
    Say();
  }
  const Clock::time_point now = Clock::now();
  Try([&] {
    SendLast(now + ending.notifications);
    session_.Close(now + ending.goodbye);
  });
  Ended(session_.Open(), false);
}

void SnmpLoop::Say() {
  if (short_of_memory_) {
    last_short_ = Clock::now();
  }
  if (said_short_ != short_of_memory_ &&
      (short_of_memory_ || Clock::now() - last_short_ > std::chrono::seconds(1))) {
    said_short_ = short_of_memory_;
    agentlog_fprintf(stderr, said_short_ ? "The SNMP side is short of memory; trying again\n"
                                         : "The SNMP side has memory again\n");
  }
}

// What is to be notified before the end, more than may be under way at once.
void SnmpLoop::SendLast(Clock::time_point until) {
  sender_.Send(&session_);
  while (session_.Open() && seat_->NotificationsWaiting() > 0 && Clock::now() < until) {
    short wanted = session_.WantsToWrite() ? POLLIN | POLLOUT : POLLIN;
    pollfd entry = {session_.Socket(), wanted, 0};
    if (poll(&entry, 1, 20) > 0) {
      session_.SocketReady((entry.revents & ~POLLOUT) != 0, (entry.revents & POLLOUT) != 0);
    }
    sender_.Send(&session_);
  }
}

void SnmpLoop::Request(const netsnmp_pdu *pdu) {
  spinning_.Asked(Clock::now());
  bool current = false;
  try {
    current = seat_->TakeImages(&index_, true);
  } catch (const std::exception &) {
    short_of_memory_ = true;
  }
  requests_.Handle(&session_, pdu, seat_->SetsEnabled(), current);
  const Clock::time_point now = Clock::now();
  spin_until_ = now + spinning_.Answered(now);
}

void SnmpLoop::Ended(bool was_open, bool refused) {
  if (was_open) {
    sender_.SessionLost();
    requests_.SessionLost();
  }
  seat_->SessionEnded(was_open, refused);
}

void SnmpLoop::Connect() {
  if (!session_.Down()) {
    return;
  }
  int error = 0;
  netsnmp_transport *connection = seat_->Connection(&error);
  if (connection == nullptr && error == 0) {
    return;
  }
  if (!session_.Adopt(connection)) {
    seat_->ConnectionFailed(error);
  }
}

// Answers the requests that follow one another closely, without the rest of a pass in between:
// the sooner the answer, the likelier it finds the master still awake.
void SnmpLoop::Spin() {
  Clock::time_point now = Clock::now();
  Clock::time_point longest = now + kLongestSpin;
  while (now < spin_until_ && now < longest) {
    pollfd fds[] = {{session_.Socket(), POLLIN, 0}, {seat_->Fd(), POLLIN, 0}};
    if (poll(fds, 2, 0) > 0) {
      if (fds[1].revents != 0 || fds[0].revents != POLLIN) {
        return;
      }
      session_.SocketReady(true, false);
      now = Clock::now();
      continue;
    }
    const Clock::time_point before = now;
    now = Clock::now();
    if (!spinning_.Looked(before, now)) {
      spin_until_ = now;
    }
  }
}

void SnmpLoop::Wait() {
  Clock::time_point now = Clock::now();
  std::chrono::nanoseconds patience{0};
  if (now >= spin_until_) {
    Clock::time_point due = now + kLongestSleep;
    due = std::min({due, session_.NextDue(), requests_.NextDue(), queries_.NextDue(),
                    sender_.NextDue(), seat_->NextDue()});
    patience = std::max(due - now, Clock::duration::zero());
  }

  fds_.clear();
  const auto wanted = [](bool writes) -> short { return writes ? POLLIN | POLLOUT : POLLIN; };
  fds_.push_back({seat_->Fd(), wanted(seat_->WantsToWrite()), 0});
  // poll(2) passes over negative descriptors.
  fds_.push_back({session_.Socket(), wanted(session_.WantsToWrite()), 0});
  fds_.push_back({seat_->WatchFd(), POLLIN, 0});
  query_fds_.clear();
  queries_.Collect(&query_fds_);
  for (int fd : query_fds_) {
    fds_.push_back({fd, POLLIN, 0});
  }
  auto whole = std::chrono::duration_cast<std::chrono::seconds>(patience);
  timespec timeout = {whole.count(), (patience - whole).count()};
  if (ppoll(fds_.data(), fds_.size(), &timeout, nullptr) <= 0) {
    return;
  }

  if (fds_[0].revents != 0) {
    seat_->Ready();
  }
  if (fds_[1].revents != 0) {
    session_.SocketReady((fds_[1].revents & ~POLLOUT) != 0, (fds_[1].revents & POLLOUT) != 0);
  }
  if (fds_[2].revents != 0) {
    seat_->WatchReady();
  }
  for (size_t i = 3; i < fds_.size(); i++) {
    if (fds_[i].revents != 0) {
      queries_.Ready(fds_[i].fd);
    }
  }
}

void SnmpLoop::Work() {
  if (Clock::now() >= spin_until_) {
    Try([this] { seat_->TakeImages(&index_, false); });
  }
  Try([this] { session_.Work(); });
  Try([this] { Connect(); });
  Try([this] { requests_.Work(&session_); });
  Try([this] { sender_.Send(&session_); });
  Try([this] {
    for (const std::shared_ptr<SnmpQuery> &query : seat_->TakeQueries()) {
      queries_.Start(query);
    }
  });
  Try([this] { queries_.Work(); });
  Try([this] { seat_->Work(); });
}

}  // namespace vex
