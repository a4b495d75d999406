#include "framework/snmp/snmp_relay.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "framework/process/log.h"
#include "framework/process/printable.h"
#include "framework/snmp/snmp_process.h"
#include "framework/snmp/snmp_requests.h"
#include "framework/snmp/socket_transport.h"
#include "platform/framework.h"

namespace vex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// After want of memory: the next try must not take the processor for itself.
constexpr milliseconds kRest{10};
constexpr milliseconds kSlice{50};  // of a wait that the agent's end cuts short
static_assert(SnmpShared::kLastNotifications + kProcessGoodbye <= SnmpShared::kGoodbye);
// After the end of a process for the next one to have a session, before the master counts as away.
constexpr seconds kNextSession{10};
// Until another is tried where there was none.
constexpr milliseconds kAnother{200};
// A process that says nothing is asked whether it lives, and has as long to answer.
constexpr seconds kSilence{10};
// At one go, while the agent thread may wait to publish.
constexpr int kImagesAtOnce = 64;
// Taken at one go: it may write as fast as we read.
constexpr int kFramesAtOnce = 256;
// A sound process keeps to kMostSets, and is never taken for a hostile one.
constexpr size_t kMostSetsHeld = 4 * kMostSets;
// Variables of all of them together; a manager has a few.
constexpr size_t kMostItemsHeld = 4096;
constexpr size_t kMostQueries = 64;
constexpr double kMessagesAtOnce = 200;
constexpr double kMessagesPerSecond = 10;

std::string HowItEnded(int status) {
  return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                             : "status " + std::to_string(WEXITSTATUS(status));
}

// What lacks now and may be there for the next start: no reason to go on with more rights.
bool MayPass(int error) {
  switch (error) {
    case EAGAIN:
    case EDQUOT:
    case EINTR:
    case EIO:
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
    case ENOSPC:
    case ETOOMANYREFS:  // descriptors on their way between processes
      return true;
    default:
      return false;
  }
}

bool AnyNews(const SetPort::CheckResult &was, const SetPort::CheckResult &is) {
  return was.state != is.state;
}

}  // namespace

Clock::time_point SnmpRelay::Restarts::Ended(Clock::time_point now) {
  const auto more = static_cast<int>((now - counted_) / kOneMoreAfter);
  if (more > 0) {
    left_ = std::min(kAtOnce, left_ + more);
    counted_ = now;
  }
  last_ = now;
  if (left_ > 0) {
    left_--;
    return now;
  }
  often_ = true;
  return now + kRare;
}

bool SnmpRelay::Restarts::Stays(Clock::time_point now) {
  if (!often_ || now - last_ < 6 * kOneMoreAfter) {
    return false;
  }
  often_ = false;
  return true;
}

SnmpRelay::~SnmpRelay() {
  stopping_ = true;
  Gone(nullptr);
}

// ---- The start

SnmpRelay::Begun SnmpRelay::Begin(const std::string &application, const SnmpUser &user,
                                  Clock::time_point until, SnmpSettings *settings,
                                  std::string *why) {
  const auto without = [](int error) { return MayPass(error) ? Begun::kFailed : Begun::kUnable; };
  if (!starter_.Start(application, Side().stand_behind, user)) {
    *why = strerror(errno);
    return without(errno);
  }
  std::string_view bytes;
  for (;;) {
    pollfd entry = {starter_.Channel()->Fd(), POLLIN, 0};
    const int ready = poll(&entry, 1, static_cast<int>(kSlice.count()));
    const FrameSocket::Got got =
        ready > 0 ? starter_.Channel()->Receive(&bytes, nullptr) : FrameSocket::Got::kNone;
    if (got == FrameSocket::Got::kEnd) {
      *why = "its starter has ended";
      return Begun::kFailed;
    }
    if (got == FrameSocket::Got::kFrame) {
      break;
    }
    if (agent_ending() != 0) {
      return Begun::kEnding;
    }
    if (Clock::now() >= until) {
      *why = "reading its configuration takes more than a minute";
      return Begun::kEnding;
    }
  }
  FrameReader frame(bytes);
  const auto type = frame.Take<FrameType>();
  if (type == FrameType::kMisconfigured) {
    *why = frame.TakeText();
    return Begun::kFailed;
  }
  Configured configured;
  if (type == FrameType::kUnable) {
    *why = frame.TakeText();
    const auto error = frame.Take<int32_t>();
    *why = *why + ": " + strerror(error);
    return without(error);
  }
  if (type != FrameType::kConfigured || !vex::Take(&frame, &configured)) {
    *why = "its starter makes no sense";
    return Begun::kFailed;
  }
  if (!configured.master.Plain()) {
    *why = "the address of the master agent is to be looked up: " + configured.master.target;
    return Begun::kUnable;
  }
  *settings = std::move(configured.settings);
  finder_.emplace(std::move(configured.master));
  return First(until, why).value_or(Begun::kEnding);
}

// The first process: nothing when the agent is to end meanwhile.
std::optional<SnmpRelay::Begun> SnmpRelay::First(Clock::time_point until, std::string *why) {
  if (!Spawn()) {
    *why = strerror(errno);
    return MayPass(errno) ? Begun::kFailed : Begun::kUnable;
  }
  while (!ready_) {
    if (agent_ending() != 0) {
      return std::nullopt;
    }
    if (Clock::now() >= until) {
      *why = "it is not ready after a minute";
      return Begun::kFailed;
    }
    pollfd entries[] = {{starter_.Channel()->Fd(), POLLIN, 0}, {child_.Fd(), POLLIN, 0}};
    const int ready = poll(entries, 2, static_cast<int>(kSlice.count()));
    starter_.Channel()->Flush();
    if (ready <= 0) {
      continue;
    }
    if (entries[1].revents != 0) {
      ChildReady();
    }
    if (entries[0].revents != 0) {
      StarterReady();
    }
    if (!has_child_) {
      *why = unable_.empty() ? "it ends at once" : unable_;
      return unable_.empty() || MayPass(unable_error_) ? Begun::kFailed : Begun::kUnable;
    }
  }
  begun_ = true;
  return Begun::kRuns;
}

// Asks the starter for a process. False with errno.
bool SnmpRelay::Spawn() {
  auto ring = std::make_unique<ImageRingWriter>();
  Descriptor ours;
  Descriptor its;
  if (!ring->Open() || !FrameSocket::Pair(&ours, &its)) {
    return false;
  }
  const int descriptors[] = {its.get(), ring->ImagesFd(), ring->ControlFd()};
  if (!starter_.Channel()->Send(FrameWriter(FrameType::kSpawn), descriptors)) {
    return false;
  }
  unborn_++;
  ring->CloseDescriptors();
  child_ = FrameSocket(std::move(ours));
  has_child_ = true;
  ready_ = false;
  connected_ = false;
  open_ = false;
  heard_ = Clock::now();
  pinged_ = false;

  // It has nothing yet: everything is put into the ring, before the first request as a rule.
  SnmpShared &side = Side();
  std::lock_guard lock(side.images_mutex);
  side.first_waiting = nullptr;
  for (auto place = side.images.begin(); place != side.images.end();) {
    SnmpShared::Published &entry = place->second;
    entry.waiting = false;
    entry.sent = nullptr;
    if (entry.image == nullptr) {
      place = side.images.erase(place);
      continue;
    }
    Enqueue(&entry);
    ++place;
  }
  ring->SetBacklog(side.first_waiting != nullptr);
  ring->RefuseSets(!side.sets_enabled);
  side.ring = std::move(ring);
  return true;
}

// Another process than the first cannot be had now: says so, once until there is one.
void SnmpRelay::NotStarted(const char *why) {
  if (begun_ && !said_not_started_) {
    said_not_started_ = true;
    agentlog_fprintf(stderr, "%s: Can't start an SNMP process: %s (trying again)\n", AgentName(),
                     why);
  }
}

// There was none, or none that could give its rights up: no end that counts, and no reason to
// hurry.
void SnmpRelay::NotBegun() {
  NotStarted(unable_.c_str());
  Gone(nullptr, false);
}

// The process has ended, or is of no use any more: what it had and has not finished is the next
// one's, but for sets and queries.
void SnmpRelay::Gone(const char *why, bool counts) {
  SnmpShared &side = Side();
  if (!has_child_) {
    return;
  }
  has_child_ = false;
  ready_ = false;
  why_gone_ = why != nullptr ? why : why_gone_;
  Try([this] { TakeLastWords(); });
  child_.Close();
  side.up = false;
  {
    std::lock_guard lock(side.images_mutex);
    side.ring.reset();
  }
  connected_ = false;
  if (std::exchange(open_, false)) {
    away_at_ = Clock::now() + kNextSession;
  }
  side.notifications.PutBack(std::exchange(unanswered_, {}));
  for (auto &[number, set] : sets_) {
    vex::Sets().Release(*set.transaction);
  }
  sets_.clear();
  for (auto &[number, asked] : queries_) {
    asked.query->Done();
  }
  queries_.clear();
  // One that has closed its end may live on. At the agent's end it has its time for a goodbye.
  if (why != nullptr || !stopping_) {
    starter_.Channel()->Send(FrameWriter(FrameType::kKill));
  }
  const Clock::time_point now = Clock::now();
  spawn_at_ = counts ? restarts_.Ended(now) : now + kAnother;
  finder_->Welcome();
  finder_->Lost(false);
}

// ---- What comes in

// What it has said before its end and nobody has read: what the master has taken is not to be sent
// again, and the log not to lack the reason.
void SnmpRelay::TakeLastWords() {
  std::string_view bytes;
  for (int i = 0; i < kFramesAtOnce; i++) {
    if (child_.Receive(&bytes, nullptr) != FrameSocket::Got::kFrame) {
      return;
    }
    FrameReader frame(bytes);
    const auto type = frame.Take<FrameType>();
    if (type == FrameType::kNotified) {
      TakeNotified(frame.Take<uint64_t>());
    } else if (type == FrameType::kLog) {
      TakeLog(frame.TakeText());
    }
  }
}

void SnmpRelay::StarterReady() {
  std::string_view bytes;
  FrameSocket::Got got;
  while ((got = starter_.Channel()->Receive(&bytes, nullptr)) == FrameSocket::Got::kFrame) {
    FrameReader frame(bytes);
    const auto type = frame.Take<FrameType>();
    const auto number = frame.Take<int32_t>();
    unborn_ -= type == FrameType::kSpawned ? 1 : 0;
    if (type == FrameType::kSpawned && number != 0) {
      unable_ = strerror(number);
      unable_error_ = number;
      NotBegun();
    } else if (type == FrameType::kEnded) {
      const char *why = std::exchange(why_gone_, nullptr);
      if (begun_ && !stopping_ && !restarts_.Often()) {
        const std::string how = why != nullptr ? why : HowItEnded(number);
        agentlog_fprintf(stderr, "%s: The SNMP process has ended (%s); starting another\n",
                         AgentName(), how.c_str());
      }
    }
  }
  if (got == FrameSocket::Got::kEnd) {
    throw std::runtime_error("its starter has ended");
  }
}

// Nobody has the other end: where there never was a process, the starter has said so before.
void SnmpRelay::HungUp() {
  if (unborn_ > 0) {
    StarterReady();
  }
  Gone(nullptr);
}

void SnmpRelay::ChildReady() {
  if (!child_.Flush()) {
    HungUp();
    return;
  }
  std::string_view bytes;
  for (int i = 0; i < kFramesAtOnce && has_child_; i++) {
    const FrameSocket::Got got = child_.Receive(&bytes, nullptr);
    if (got == FrameSocket::Got::kNone) {
      return;
    }
    if (got == FrameSocket::Got::kEnd) {
      HungUp();
      return;
    }
    heard_ = Clock::now();
    pinged_ = false;
    FrameReader frame(bytes);
    Take(&frame);
  }
}

void SnmpRelay::Hostile() {
  Gone("it says what makes no sense");
}

void SnmpRelay::Take(FrameReader *frame) {
  const auto type = frame->Take<FrameType>();
  if (type == FrameType::kUnable && !ready_) {
    unable_ = PrintableLine(frame->TakeText());
    unable_error_ = frame->Take<int32_t>();
    unable_ = unable_ + ": " + strerror(unable_error_);
    NotBegun();
    return;
  }
  if (type == FrameType::kReady && !ready_ && frame->Whole()) {
    ready_ = true;
    said_not_started_ = false;
    return;
  }
  if (type == FrameType::kLog) {
    const std::string_view text = frame->TakeText();
    Try([&] { TakeLog(text); });
    return;
  }
  if (!ready_) {
    Hostile();
    return;
  }
  switch (type) {
    case FrameType::kSession:
      TakeSession(frame);
      break;
    case FrameType::kNotified: {
      const auto number = frame->Take<uint64_t>();
      if (frame->Whole()) {
        TakeNotified(number);
      } else {
        Hostile();
      }
      break;
    }
    case FrameType::kSetPart:
      TakeSetPart(frame);
      break;
    case FrameType::kSetApply:
    case FrameType::kSetRelease: {
      const auto place = sets_.find(frame->Take<uint64_t>());
      if (!frame->Whole()) {
        Hostile();
      } else if (place != sets_.end() && type == FrameType::kSetApply) {
        place->second.applying = true;
        vex::Sets().RequestApply(*place->second.transaction);
      } else if (place != sets_.end()) {
        vex::Sets().Release(*place->second.transaction);
        sets_.erase(place);
      }
      break;
    }
    case FrameType::kAnswer:
      TakeAnswer(frame);
      break;
    case FrameType::kRoom:
      PumpImages();
      Send(FrameWriter(FrameType::kImages));
      break;
    case FrameType::kPong:
      break;
    default:
      Hostile();
  }
}

void SnmpRelay::TakeSession(FrameReader *frame) {
  const auto event = frame->Take<SessionEvent>();
  const auto session = frame->Take<uint64_t>();
  if (!frame->Whole()) {
    Hostile();
    return;
  }
  SnmpShared &side = Side();
  switch (event) {
    case SessionEvent::kOpen:
      open_ = true;
      session_ = session;
      away_at_ = Clock::time_point::max();
      side.notifications.SetUp(true);
      break;
    case SessionEvent::kWelcome:
      finder_->Welcome();
      break;
    case SessionEvent::kUp:
      side.up = open_;
      finder_->Found();
      break;
    case SessionEvent::kRefused:
      finder_->Refused();
      break;
    case SessionEvent::kEnded:
    case SessionEvent::kEndedRefused:
      side.up = false;
      open_ = false;
      if (connected_) {
        connected_ = false;
        finder_->Lost(event == SessionEvent::kEndedRefused);
      }
      side.notifications.PutBack(std::exchange(unanswered_, {}));
      away_at_ = Clock::time_point::max();
      side.notifications.SetUp(false);
      break;
    default:
      Hostile();
  }
}

void SnmpRelay::TakeNotified(uint64_t number) {
  const auto place =
      std::find_if(unanswered_.begin(), unanswered_.end(),
                   [number](const WaitingNotification &one) { return one.number == number; });
  if (place != unanswered_.end()) {
    Notifications answered;
    answered.splice(answered.end(), unanswered_, place);
    Side().notifications.Finished(std::move(answered));
  }
}

// The deadline is the process's, where it is not later than the agent itself would have it. What it
// asks for is checked against what the agent has published; a set that is none is refused for good.
void SnmpRelay::TakeSetPart(FrameReader *frame) {
  const auto id = frame->Take<uint64_t>();
  const auto part = frame->Take<uint32_t>();
  const Clock::time_point deadline =
      std::min(Clock::time_point(Clock::duration(frame->Take<int64_t>())),
               Clock::now() + SnmpRequests::kSetPatience);
  const auto place = sets_.find(id);
  if (place == sets_.end() && part > 0) {
    // There was no memory for the parts before it.
    TellSet(id, part, {SetPort::Check::kUndecided, 0}, {SetPort::Apply::kFailed, 0});
    return;
  }
  const size_t parts = place != sets_.end() ? place->second.parts.size() : 0;
  const bool applying = place != sets_.end() && place->second.applying;
  if (applying || part != parts || parts >= kMostParts ||
      (parts == 0 && sets_.size() >= kMostSetsHeld)) {
    Hostile();
    return;
  }
  try {
    AddSetPart(id, deadline, frame);
  } catch (const std::bad_alloc &) {
    // Nothing of it is or will be applied.
    if (place != sets_.end()) {
      vex::Sets().Release(*place->second.transaction);
    }
    sets_.erase(id);
    TellSet(id, part, {SetPort::Check::kUndecided, 0}, {SetPort::Apply::kFailed, 0});
  }
}

void SnmpRelay::AddSetPart(uint64_t id, Clock::time_point deadline, FrameReader *frame) {
  std::vector<SetItem> items;
  if (!vex::Take(frame, &items)) {
    Hostile();
    return;
  }
  SnmpShared &side = Side();
  size_t held = items.size();
  for (const auto &[number, set] : sets_) {
    held += set.items;
  }
  bool may = side.sets_enabled && held <= kMostItemsHeld;
  for (const SetItem &item : items) {
    std::shared_ptr<const Image> image;
    {
      std::lock_guard lock(side.images_mutex);
      const auto place = side.images.find(item.object_id);
      image = place != side.images.end() ? place->second.image : nullptr;
    }
    // An object may have gone, or changed, since the process has looked.
    may = may && image != nullptr && MaySet(*image, item);
  }
  auto place = sets_.find(id);
  if (place == sets_.end()) {
    Set set;
    set.deadline = deadline;
    set.transaction = vex::Sets().Begin(deadline);
    place = sets_.emplace(id, std::move(set)).first;
  }
  Set &set = place->second;
  set.parts.reserve(set.parts.size() + 1);
  if (!may) {
    vex::Sets().Release(*set.transaction);
    items = {};  // of any size that a frame has
  }
  const size_t count = items.size();
  vex::Sets().AddPart(*set.transaction, std::move(items));
  set.items += count;
  set.parts.emplace_back();
}

void SnmpRelay::TakeAnswer(FrameReader *frame) {
  const auto number = frame->Take<uint64_t>();
  const bool sent = frame->Take<uint8_t>() != 0;
  const bool refused = frame->Take<uint8_t>() != 0;
  const bool has_status = frame->Take<uint8_t>() != 0;
  const auto status = frame->Take<int32_t>();
  const bool has_value = frame->Take<uint8_t>() != 0;
  const auto value = frame->Take<int32_t>();
  if (!frame->Whole()) {
    Hostile();
    return;
  }
  const auto place = queries_.find(number);
  if (place == queries_.end()) {
    return;
  }
  SnmpQuery &query = *place->second.query;
  query.sent = sent;
  query.refused = refused;
  query.has_status = has_status;
  query.status = status;
  query.has_value = has_status && status == 0 && has_value;
  query.value = value;
  query.Done();
  queries_.erase(place);
}

// What it logs is a line of the agent's log: cut, printable ASCII, not empty, and not without end.
void SnmpRelay::TakeLog(std::string_view text) {
  const std::string line = PrintableLine(text.substr(0, kLongestMessage));
  if (line.empty()) {
    return;
  }
  const Clock::time_point now = Clock::now();
  messages_left_ =
      std::min(kMessagesAtOnce,
               messages_left_ + kMessagesPerSecond *
                                    std::chrono::duration<double>(now - messages_counted_).count());
  messages_counted_ = now;
  if (messages_left_ < 1) {
    messages_lost_++;
    return;
  }
  messages_left_--;
  if (messages_lost_ != 0) {
    agentlog_fprintf(stderr, "%s: %u messages of the SNMP process are left out\n", AgentName(),
                     messages_lost_);
    messages_lost_ = 0;
  }
  agentlog_fprintf(stderr, "%s\n", line.c_str());
}

// ---- What goes out

void SnmpRelay::Send(const FrameWriter &frame, std::span<const int> descriptors) {
  if (has_child_ && !child_.Send(frame, descriptors)) {
    // Of a process that has ended, its status is the reason.
    const bool ended = errno == EPIPE || errno == ECONNRESET;
    Gone(ended ? nullptr : "it takes no messages");
  }
}

void SnmpRelay::Connect() {
  const Clock::time_point now = Clock::now();
  if (!ready_ || connected_ || now < finder_->NextAttempt()) {
    return;
  }
  finder_->Watch();
  const Descriptor socket(finder_->Connect());
  if (!socket) {
    finder_->Failed(errno);
    return;
  }
  const int descriptors[] = {socket.get()};
  Send(FrameWriter(FrameType::kConnected), descriptors);
  connected_ = has_child_;
}

// Puts what waits into the ring, as far as there is room.
void SnmpRelay::PumpImages() {
  SnmpShared &side = Side();
  if (!side.images_waiting.load(std::memory_order_acquire)) {
    return;
  }
  for (bool more = true; more;) {
    std::lock_guard lock(side.images_mutex);
    if (side.ring == nullptr) {
      return;
    }
    for (int i = 0; i < kImagesAtOnce && more; i++) {
      SnmpShared::Published *entry = side.first_waiting;
      if (entry == nullptr) {
        side.images_waiting.store(false, std::memory_order_relaxed);
        side.ring->SetBacklog(false);
        return;
      }
      ImageRingWriter::Put put;
      if (entry->image != nullptr) {
        put = side.ring->PutImage(*entry->image, entry->sent != entry->image->layout);
      } else {
        put = side.ring->PutWithdrawal(entry->object_id);
      }
      more = put == ImageRingWriter::Put::kDone || put == ImageRingWriter::Put::kNever;
      if (more) {
        side.first_waiting = entry->next;
        entry->waiting = false;
        if (entry->image == nullptr) {
          side.images.erase(entry->object_id);
        } else if (put == ImageRingWriter::Put::kDone) {
          entry->sent = entry->image->layout;
        }
      }
    }
  }
}

// As many at a time as may be with the master without an answer.
void SnmpRelay::Notify() {
  NotificationQueue &queue = Side().notifications;
  while (has_child_ && open_ && unanswered_.size() < NotificationSender::kMostUnanswered) {
    Notifications taken = queue.Pop();
    if (taken.empty()) {
      return;
    }
    taken.front().number = next_notification_++;
    unanswered_.splice(unanswered_.end(), taken);
    const WaitingNotification &one = unanswered_.back();
    try {
      FrameWriter frame(FrameType::kNotify);
      frame.Put(session_).Put(one.number);
      Put(&frame, one.notification);
      if (frame.Bytes().size() > FrameSocket::kLongest) {
        TakeNotified(one.number);  // nor would it fit into a packet
      } else {
        Send(frame);
      }
    } catch (const std::bad_alloc &) {
      short_of_memory_ = true;
      Notifications back;
      back.splice(back.end(), unanswered_, std::prev(unanswered_.end()));
      queue.PutBack(std::move(back));
      return;
    }
  }
}

void SnmpRelay::AskQueries() {
  SnmpShared &side = Side();
  std::list<std::shared_ptr<SnmpQuery>> fresh;
  {
    std::lock_guard lock(side.queries_mutex);
    fresh.swap(side.queries);
  }
  for (const std::shared_ptr<SnmpQuery> &query : fresh) {
    if (!Ask(query)) {
      query->Done();
    }
  }
}

// False when it could not be asked.
bool SnmpRelay::Ask(const std::shared_ptr<SnmpQuery> &query) noexcept {
  const bool may = ready_ && queries_.size() < kMostQueries;
  const Descriptor socket(may ? ConnectUdp(query->address, kSnmpPort) : -1);
  if (!socket) {
    return false;
  }
  const uint64_t number = next_query_++;
  try {
    FrameWriter frame(FrameType::kQuery);
    frame.Put(number).PutText(query->community).Put(static_cast<uint32_t>(query->oid.size()));
    for (const uint32_t part : query->oid) {
      frame.Put(part);
    }
    queries_[number] = {query, Clock::now() + kSilence};
    const int descriptors[] = {socket.get()};
    Send(frame, descriptors);
    return true;
  } catch (const std::bad_alloc &) {
    queries_.erase(number);
    return false;
  }
}

// The process gives each a few seconds. What it does not answer is not remembered for that.
void SnmpRelay::ForgetQueries() {
  const Clock::time_point now = Clock::now();
  std::erase_if(queries_, [now](const auto &entry) {
    const bool over = now >= entry.second.until;
    if (over) {
      entry.second.query->Done();
    }
    return over;
  });
}

void SnmpRelay::TellSet(uint64_t id, uint32_t part, const SetPort::CheckResult &check,
                        const SetPort::ApplyResult &apply) {
  Send(FrameWriter(FrameType::kSetResult)
           .Put(id)
           .Put(part)
           .Put(check.state)
           .Put(int32_t{check.failed_item})
           .Put(apply.state)
           .Put(int32_t{apply.failed_item}));
}

// What has been decided of sets, or is so by the time.
void SnmpRelay::TellSets() {
  for (auto place = sets_.begin(); place != sets_.end();) {
    Set &set = place->second;
    for (size_t i = 0; i < set.parts.size(); i++) {
      Set::Part &part = set.parts[i];
      const auto number = static_cast<int>(i);
      const SetPort::CheckResult check = vex::Sets().CheckOf(*set.transaction, number);
      SetPort::ApplyResult apply = part.apply;
      if (set.applying && apply.state == SetPort::Apply::kPending) {
        apply = vex::Sets().ApplyOf(*set.transaction, number);
      }
      if (AnyNews(part.check, check) || apply.state != part.apply.state) {
        TellSet(place->first, static_cast<uint32_t>(i), check, apply);
        if (!has_child_) {
          return;  // and with it all sets
        }
        part = {check, apply};
      }
    }
    // The process releases it; where it does not, nothing of it can happen any more.
    if (Clock::now() >= set.deadline + kSilence) {
      vex::Sets().Release(*set.transaction);
      place = sets_.erase(place);
    } else {
      ++place;
    }
  }
}

void SnmpRelay::Ping() {
  const Clock::time_point now = Clock::now();
  if (!has_child_ || now < heard_ + kSilence) {
    return;
  }
  if (pinged_ && unborn_ > 0) {
    // Nobody else can make the next one.
    throw std::runtime_error("its starter does not answer");
  }
  if (pinged_) {
    Gone("it does not answer");
    return;
  }
  Send(FrameWriter(FrameType::kPing));
  heard_ = now;
  pinged_ = true;
}

// ---- The thread

// What is left undone for want of memory is done by a later pass.
template <typename Function>
void SnmpRelay::Try(Function function) {
  try {
    function();
  } catch (const std::bad_alloc &) {
    short_of_memory_ = true;
  }
}

Clock::time_point SnmpRelay::NextDue() const {
  if (short_of_memory_) {
    return Clock::now();
  }
  Clock::time_point due = std::min({ticker_.NextDue(), away_at_, Clock::now() + kSilence});
  if (!has_child_) {
    return std::min(due, spawn_at_);
  }
  due = std::min(due, heard_ + kSilence);
  if (ready_ && !connected_) {
    due = std::min(due, finder_->NextAttempt());
  }
  for (const auto &[id, set] : sets_) {
    const Clock::time_point now = Clock::now();
    due = std::min(due, now < set.deadline ? set.deadline : set.deadline + kSilence);
  }
  return due;
}

void SnmpRelay::Wait(Clock::time_point until) {
  // Whatever is due, or to be read, is so still.
  if (std::exchange(short_of_memory_, false)) {
    poll(nullptr, 0, static_cast<int>(kRest.count()));
  }
  const auto wanted = [](const FrameSocket &socket) -> short {
    return socket.HasUnsent() ? POLLIN | POLLOUT : POLLIN;
  };
  pollfd entries[] = {{Side().wake_fd, POLLIN, 0},
                      {starter_.Channel()->Fd(), wanted(*starter_.Channel()), 0},
                      {has_child_ ? child_.Fd() : -1, wanted(child_), 0},
                      {finder_->WatchFd(), POLLIN, 0}};
  const Clock::duration left = std::max(until - Clock::now(), Clock::duration::zero());
  const auto whole = std::chrono::duration_cast<seconds>(left);
  const timespec timeout = {whole.count(), std::chrono::nanoseconds(left - whole).count()};
  const int ready = ppoll(entries, std::size(entries), &timeout, nullptr);
  if (ready <= 0) {
    // For want of memory, or by a limit on descriptors below the number of these.
    short_of_memory_ = ready < 0 && errno != EINTR;
    return;
  }
  if (entries[0].revents != 0) {
    Woken();
  }
  if (entries[2].revents != 0) {
    Try([this] { ChildReady(); });
  }
  if (entries[1].revents != 0) {
    Try([this] {
      starter_.Channel()->Flush();
      StarterReady();
    });
  }
  if (entries[3].revents != 0 && finder_->WatchFd() >= 0) {
    finder_->WatchReady();
  }
}

void SnmpRelay::Work() {
  SnmpShared &side = Side();
  if (!has_child_ && Clock::now() >= spawn_at_) {
    Try([this] {
      if (!Spawn()) {
        NotStarted(strerror(errno));
        spawn_at_ = Clock::now() + kAnother;
      }
    });
    if (restarts_.Often() && !said_often_) {
      said_often_ = true;
      agentlog_fprintf(stderr,
                       "%s: The SNMP process ends again and again; starting it every 5 seconds\n",
                       AgentName());
    }
  }
  if (has_child_ && restarts_.Stays(Clock::now())) {
    said_often_ = false;
    agentlog_fprintf(stderr, "%s: The SNMP process stays\n", AgentName());
  }
  if (Clock::now() >= away_at_) {
    away_at_ = Clock::time_point::max();
    side.notifications.SetUp(false);
  }
  Try([this] { Connect(); });
  if (side.images_waiting.load(std::memory_order_acquire)) {
    PumpImages();
    images_told_ = false;
  }
  bool much = false;
  bool broken = false;
  {
    std::lock_guard lock(side.images_mutex);
    const size_t unread = side.ring != nullptr ? side.ring->Unread() : 0;
    broken = unread > kRingSize;
    much = unread > ImageRingWriter::kMuchUnread;
  }
  if (broken) {
    Hostile();
  } else if (much && !images_told_) {
    images_told_ = true;
    Try([this] { Send(FrameWriter(FrameType::kImages)); });
  } else if (!much) {
    images_told_ = false;
  }
  Try([this] { Notify(); });
  ForgetQueries();
  Try([this] { AskQueries(); });
  Try([this] { TellSets(); });
  Try([this] { Ping(); });
  ticker_.Work();
}

void SnmpRelay::Run() {
  SnmpShared &side = Side();
  while (!side.stop.load()) {
    Wait(NextDue());
    Work();
  }
  stopping_ = true;
  Ending();
  Gone(nullptr);
  starter_.End();
}

void SnmpRelay::Ending() {
  const Clock::time_point begin = Clock::now();
  const NotificationQueue &queue = Side().notifications;
  while (open_ && !queue.AllDone() && Clock::now() < begin + SnmpShared::kLastNotifications) {
    Wait(std::min(Clock::now() + milliseconds(20), begin + SnmpShared::kLastNotifications));
    Try([this] { Notify(); });
  }
  Try([this] { Send(FrameWriter(FrameType::kStop)); });
  while (has_child_ && Clock::now() < begin + SnmpShared::kGoodbye) {
    Wait(begin + SnmpShared::kGoodbye);
  }
}

}  // namespace vex
