#include "framework/snmp/set_channel.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

#include "platform/framework.h"

namespace vex {

// All of it under the channel's mutex, except that the agent thread alone touches `items` from the
// moment a part is queued.
class QueuedSet final : public SetTransaction, public std::enable_shared_from_this<QueuedSet> {
 public:
  enum class Phase { kQueued, kRunning, kAccepted, kRefused, kTooLate };
  struct Part {
    std::vector<SetItem> items;
    Phase check = Phase::kQueued;
    SetChannel::Apply apply = SetChannel::Apply::kPending;
    int failed_item = 0;
  };
  enum class Stage {
    kChecking,
    kApplyQueued,
    kApplying,
    kEnded  // applied, cancelled, expired or released: nothing of it runs any more
  };

  Clock::time_point deadline;
  std::deque<Part> parts;  // a deque: the agent thread keeps a reference while another is added
  Stage stage = Stage::kChecking;
  bool cancelled = false;  // seen by the agent thread between two handlers
  bool in_queue = false;   // waiting for, or with, the agent thread
  bool settled = false;    // the handler that runs was told that it is wanted to the last

  bool Refused() const {
    for (const Part &part : parts) {
      if (part.check == Phase::kRefused) {
        return true;
      }
    }
    return false;
  }
};

constexpr std::chrono::milliseconds kSlice{50};

using Phase = QueuedSet::Phase;
using Stage = QueuedSet::Stage;

// All transactions of a channel are its own.
static QueuedSet &Own(SetTransaction &transaction) {
  return static_cast<QueuedSet &>(transaction);
}

SetChannel::SetChannel() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

SetChannel::~SetChannel() {
  if (fd_ >= 0) {
    close(fd_);
  }
}

bool SetChannel::Ready() {
  if (fd_ < 0) {
    fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  }
  return fd_ >= 0;
}

void SetChannel::WakeAgent() const {
  uint64_t one = 1;
  (void)!write(fd_, &one, sizeof(one));
}

void SetChannel::SetWake(void (*wake)()) {
  std::lock_guard lock(mutex_);
  wake_ = wake;
}

void SetChannel::Wake() const {
  if (wake_ != nullptr) {
    wake_();
  }
}

std::shared_ptr<SetTransaction> SetChannel::Begin(Clock::time_point deadline) {
  auto transaction = std::make_shared<QueuedSet>();
  transaction->deadline = deadline;
  return transaction;
}

void SetChannel::Enqueue(QueuedSet &transaction) {
  if (!transaction.in_queue) {
    queue_.push_back(transaction.shared_from_this());
    transaction.in_queue = true;
    WakeAgent();
  }
  changed_.notify_all();
}

int SetChannel::AddPart(SetTransaction &set, std::vector<SetItem> items) {
  QueuedSet &transaction = Own(set);
  std::lock_guard lock(mutex_);
  transaction.parts.emplace_back();
  transaction.parts.back().items = std::move(items);
  if (closed_ && transaction.stage == Stage::kChecking) {
    transaction.stage = Stage::kEnded;
    transaction.cancelled = true;
  }
  if (transaction.stage != Stage::kChecking) {
    // The apply is of the parts that were checked, also while it runs.
    transaction.parts.back().check = Phase::kTooLate;
    transaction.parts.back().apply = Apply::kFailed;
  } else {
    try {
      Enqueue(transaction);
    } catch (...) {
      transaction.parts.pop_back();
      throw;
    }
  }
  return static_cast<int>(transaction.parts.size()) - 1;
}

SetChannel::CheckResult SetChannel::CheckOf(SetTransaction &set, int part) {
  QueuedSet &transaction = Own(set);
  std::lock_guard lock(mutex_);
  const QueuedSet::Part &p = transaction.parts.at(static_cast<size_t>(part));
  if (p.check == Phase::kAccepted) {
    return {Check::kAccepted, 0};
  }
  if (p.check == Phase::kRefused) {
    return {Check::kRefused, p.failed_item};
  }
  if (p.check == Phase::kTooLate) {
    return {Check::kUndecided, 0};
  }
  if (transaction.stage == Stage::kChecking && Clock::now() >= transaction.deadline) {
    transaction.stage = Stage::kEnded;
    transaction.cancelled = true;
    changed_.notify_all();
  }
  return {transaction.stage == Stage::kEnded ? Check::kUndecided : Check::kPending, 0};
}

void SetChannel::RequestApply(SetTransaction &set) {
  QueuedSet &transaction = Own(set);
  std::lock_guard lock(mutex_);
  bool ready = !transaction.parts.empty();
  for (const QueuedSet::Part &part : transaction.parts) {
    ready = ready && part.check == Phase::kAccepted;
  }
  if (transaction.stage != Stage::kChecking) {
    return;
  }
  if (!ready) {
    transaction.stage = Stage::kEnded;
    transaction.cancelled = true;
  } else {
    transaction.stage = Stage::kApplyQueued;
  }
  changed_.notify_all();
}

SetChannel::ApplyResult SetChannel::ApplyOf(SetTransaction &set, int part) {
  QueuedSet &transaction = Own(set);
  std::lock_guard lock(mutex_);
  const QueuedSet::Part &p = transaction.parts.at(static_cast<size_t>(part));
  if (p.apply != Apply::kPending) {
    return {p.apply, p.failed_item};
  }
  const Clock::time_point until =
      transaction.deadline + (transaction.settled ? kReturn : Clock::duration::zero());
  if (transaction.stage != Stage::kEnded && Clock::now() >= until) {
    transaction.cancelled = true;
    if (transaction.stage != Stage::kApplying) {
      transaction.stage = Stage::kEnded;
    }
    changed_.notify_all();
  }
  return {transaction.cancelled || transaction.stage == Stage::kEnded ? Apply::kFailed
                                                                      : Apply::kPending,
          0};
}

void SetChannel::Release(SetTransaction &set) {
  QueuedSet &transaction = Own(set);
  std::lock_guard lock(mutex_);
  if (transaction.stage == Stage::kChecking || transaction.stage == Stage::kApplyQueued) {
    transaction.stage = Stage::kEnded;
    transaction.cancelled = true;
    changed_.notify_all();
  }
  // While a hook runs nobody serves the queue: sets that come and go meanwhile must not fill it.
  const auto place = std::find_if(queue_.begin(), queue_.end(), [&transaction](const auto &queued) {
    return queued.get() == &transaction;
  });
  if (place != queue_.end()) {
    queue_.erase(place);
    transaction.in_queue = false;
  }
}

void SetChannel::RunChecks(std::unique_lock<std::mutex> &lock, QueuedSet &transaction, size_t part,
                           SetRunner run) {
  QueuedSet::Part &p = transaction.parts[part];
  p.check = Phase::kRunning;
  int failed = -1;
  for (size_t i = 0; i < p.items.size() && failed < 0 && !transaction.cancelled; i++) {
    lock.unlock();
    int result = run(SET_CHECK, p.items[i]);
    lock.lock();
    if (result != 0) {
      failed = static_cast<int>(i);
    }
  }
  if (!transaction.cancelled) {
    p.check = failed < 0 ? Phase::kAccepted : Phase::kRefused;
    p.failed_item = failed < 0 ? 0 : failed;
  }
  Wake();
}

void SetChannel::RunApply(std::unique_lock<std::mutex> &lock, QueuedSet &transaction,
                          SetRunner run) {
  transaction.stage = Stage::kApplying;
  bool failed = false;
  for (size_t part = 0; part < transaction.parts.size(); part++) {
    QueuedSet::Part &p = transaction.parts[part];
    if (p.check == Phase::kTooLate) {
      continue;
    }
    for (size_t i = 0; i < p.items.size() && !failed; i++) {
      // Nothing is begun for a manager that was told of a failure, nor past the deadline; a handler
      // that takes its time asks Wanted().
      if (transaction.cancelled || Clock::now() >= transaction.deadline) {
        failed = true;
      } else {
        applying_ = &transaction;
        lock.unlock();
        failed = run(SET_APPLY, p.items[i]) != 0;
        lock.lock();
        applying_ = nullptr;
        transaction.settled = false;
      }
      if (failed) {
        p.failed_item = static_cast<int>(i);
      }
    }
    p.apply = failed ? Apply::kFailed : Apply::kApplied;
  }
  transaction.stage = Stage::kEnded;
  Wake();
}

void SetChannel::ServeOne(std::unique_lock<std::mutex> &lock, QueuedSet &transaction,
                          SetRunner run) {
  while (transaction.stage != Stage::kEnded) {
    size_t part = 0;
    while (part < transaction.parts.size() && transaction.parts[part].check != Phase::kQueued) {
      part++;
    }
    if (Clock::now() >= transaction.deadline || agent_ending() != 0) {
      transaction.stage = Stage::kEnded;
      transaction.cancelled = true;
      Wake();
    } else if (part < transaction.parts.size()) {
      RunChecks(lock, transaction, part, run);
    } else if (transaction.Refused()) {
      break;  // no apply can follow; a further part queues it again
    } else if (transaction.stage == Stage::kApplyQueued) {
      RunApply(lock, transaction, run);
    } else {
      // Held: the master turns to the apply at once, and it must not find the agent in a poll. A
      // signal that says that the agent is to end is taken here but wakes nobody, hence the slices.
      changed_.wait_until(lock, std::min(transaction.deadline, Clock::now() + kSlice));
    }
  }
  transaction.in_queue = false;
}

void SetChannel::Serve(SetRunner run) {
  uint64_t count;
  (void)!read(fd_, &count, sizeof(count));
  std::unique_lock lock(mutex_);
  // Those that come meanwhile are the next round's, and have woken the agent for it: a round ends
  // with the latest deadline in it.
  for (size_t left = queue_.size(); left > 0 && !queue_.empty(); left--) {
    std::shared_ptr<QueuedSet> transaction = std::move(queue_.front());
    queue_.pop_front();
    ServeOne(lock, *transaction, run);
  }
}

bool SetChannel::Wanted(bool last) {
  std::lock_guard lock(mutex_);
  if (applying_ == nullptr || applying_->settled) {
    return true;
  }
  if (applying_->cancelled || Clock::now() >= applying_->deadline) {
    return false;
  }
  applying_->settled = last;
  return true;
}

void SetChannel::Close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  for (const std::shared_ptr<QueuedSet> &transaction : queue_) {
    transaction->stage = Stage::kEnded;
    transaction->cancelled = true;
  }
  queue_.clear();
  Wake();
}

SetChannel &Sets() {
  static auto *channel = new SetChannel;  // outlives every thread
  return *channel;
}

int SetChannelFd() {
  return Sets().Fd();
}

void ServeSets(SetRunner run) {
  Sets().Serve(run);
}

void CloseSets() {
  Sets().Close();
}

bool SetWanted(bool last) {
  return Sets().Wanted(last);
}

}  // namespace vex
