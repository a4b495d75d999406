// What an agent asks of SNMP: configuration, traps, queries, MIB revisions. The SNMP side does
// the work (framework/snmp/snmp_thread.h).
#include "framework/snmp/snmp_api.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <time.h>

#include <exception>
#include <iterator>
#include <optional>
#include <string>

#include "framework/process/guard.h"
#include "framework/process/log.h"
#include "framework/process/main_loop.h"
#include "framework/registry/objects.h"
#include "framework/snmp/notifications.h"
#include "framework/snmp/snmp_thread.h"
#include "framework/snmp/unsent.h"
#include "platform/framework.h"

namespace vex {

namespace {

constexpr int kOk = 0;
constexpr int kNotOk = -1;

SnmpSettings &Settings() {
  static auto *settings = new SnmpSettings;
  return *settings;
}

bool traps_enabled = true;

// Of the application that was started; none before.
std::optional<UnsentFile> &Unsent() {
  static auto *unsent = new std::optional<UnsentFile>;
  return *unsent;
}

// What was notified since the master last had all of it, oldest first: what a killed agent would
// lose. The thread's own list is shorter, and not to be had while it runs.
std::vector<Notification> &Waiting() {
  static auto *waiting = new std::vector<Notification>;
  return *waiting;
}
size_t waiting_noted = 0;  // so many were notified since then
size_t waiting_kept = 0;   // so many of them when the file was written

// It is on its way already: for want of memory it is not remembered.
void Remember(Notification notification) noexcept {
  try {
    Waiting().push_back(std::move(notification));
    waiting_noted++;
    if (Waiting().size() > NotificationQueue::kKeptWhileDown) {
      Waiting().erase(Waiting().begin());
    }
  } catch (const std::exception &) {
  }
}

void ForgetWaiting() {
  Waiting().clear();
  waiting_noted = 0;
  waiting_kept = 0;
}

// Whether the master has everything; where it is there, it is given a moment to say so.
bool AllTaken() {
  constexpr int kMoments = 20;
  constexpr timespec kMoment = {0, 1'000'000};
  for (int i = 0; i < kMoments && SnmpUp() && !SnmpNothingWaiting() && agent_ending() == 0; i++) {
    nanosleep(&kMoment, nullptr);
  }
  return SnmpNothingWaiting();
}

// Without an error everything that was kept waits in this process; else a later poll tries again.
void TakeUnsent() noexcept {
  try {
    std::optional<std::vector<Notification>> kept = Unsent()->Read();
    if (!kept) {
      Unsent()->SayUnread(errno);
      return;
    }
    if (!kept->empty()) {
      Waiting().reserve(Waiting().size() + kept->size());
      std::vector<Notification> older = *kept;
      SnmpNotifyOlder(std::move(*kept));
      Waiting().insert(Waiting().begin(), std::make_move_iterator(older.begin()),
                       std::make_move_iterator(older.end()));
    }
    Unsent()->Taken();
  } catch (const std::exception &) {
    Unsent()->SayUnread(ENOMEM);
  }
}

// Nothing when it cannot be told what is unsent.
std::optional<std::vector<Notification>> UnsentAtTheEnd() {
  constexpr int kTries = 3;
  for (int tries = 1;; tries++) {
    try {
      return SnmpUnsent();
    } catch (const std::exception &) {
      if (tries == kTries) {
        return std::nullopt;
      }
    }
  }
}

// The address of the query that is open; "" for none.
std::string &QueryAddress() {
  static auto *address = new std::string;
  return *address;
}

QueryPatience &Patience() {
  static auto *patience = new QueryPatience;
  return *patience;
}

// One line when the queries begin to be met with silence, one when they are answered again.
void SayWhetherSilent() {
  static bool said = false;
  if (Patience().Silent() == said) {
    return;
  }
  said = !said;
  if (said) {
    agentlog_fprintf(stderr,
                     "%s: The SNMP agent at %s does not answer queries: it hangs, or does not know "
                     "the community (trying again)\n",
                     AgentName(), QueryAddress().c_str());
  } else {
    agentlog_fprintf(stderr, "%s: The SNMP agent at %s answers queries again\n", AgentName(),
                     QueryAddress().c_str());
  }
}

// The value that the agent at QueryAddress() has for it; nothing when it has none, or no answer
// came in time.
std::optional<int32_t> Ask(const char *oid, int *status) {
  QueryPatience &patience = Patience();
  if (SnmpAnsweredLate()) {
    patience.AnsweredLate();
    SayWhetherSilent();
  }
  const Clock::time_point asked = Clock::now();
  const Clock::duration allowed = patience.Allowed(oid, asked);
  if (allowed <= Clock::duration::zero() || agent_ending() != 0) {
    return std::nullopt;
  }
  const SnmpAnswer answer = SnmpQueryInteger(QueryAddress(), Settings().community, oid, allowed);
  patience.Ended(oid, answer.end, asked, allowed, Clock::now());
  if (answer.end == QueryEnd::kAnswered && status != nullptr) {
    *status = answer.status;
  }
  // Who is not there is neither silent nor back.
  if (answer.end == QueryEnd::kAnswered || answer.end == QueryEnd::kSilent) {
    SayWhetherSilent();
  }
  return answer.value;
}

// Tried more than once: a notification that has a place to wait is never lost.
void Notify(const Notification &notification) {
  constexpr int kTries = 3;
  for (int tries = 1;; tries++) {
    try {
      SnmpNotify(notification);
      return;
    } catch (const std::exception &) {
      if (tries == kTries) {
        throw;
      }
    }
  }
}

const MibGroup *FindGroup(int number) {
  for (const MibGroup &group : MibGroups()) {
    if (group.number == number) {
      return &group;
    }
  }
  return nullptr;
}

int SendTrap(const registry_object *object, const int *slots, int slot_count,
             const char *description, int number) {
  if (!traps_enabled || number < 0 || slot_count < 0) {
    return -1;
  }
  Notification notification;
  notification.number = static_cast<uint32_t>(number);
  notification.description = description != nullptr ? description : "";
  if (object != nullptr) {
    if (!IsLive(object) || (slot_count > 0 && slots == nullptr)) {
      return -1;
    }
    for (int i = 0; i < slot_count; i++) {
      if (slots[i] < 0 || slots[i] >= object->var_count) {
        return -1;
      }
      const descriptor &d = object->desc[slots[i]];
      const MibVariable *mib = d.type != 0 ? FindMibVariable(d.name) : nullptr;
      if (mib == nullptr || mib->type != d.type) {
        return -1;
      }
      const auto *bytes = static_cast<const uint8_t *>(d.value);
      notification.variables.push_back({mib,
                                        mib->column ? static_cast<uint32_t>(object->instance) : 0,
                                        {bytes, bytes + CurrentLength(d)}});
    }
  }
  Notify(notification);
  Remember(std::move(notification));
  return 0;
}

}  // namespace

void BeginQueries() {
  Patience().Begin();
}

}  // namespace vex

using namespace vex;  // NOLINT(google-build-using-namespace): what follows is the C interface

void vex::RetryUnsent() noexcept {
  if (!Unsent() || !traps_enabled) {
    return;
  }
  if (Unsent()->Unread()) {
    TakeUnsent();
  } else if (waiting_noted == waiting_kept ? SnmpNothingWaiting() : AllTaken()) {
    ForgetWaiting();
    Unsent()->AllSent();
  } else if (waiting_noted != waiting_kept && Unsent()->KeepMeanwhile(Waiting()) == 0) {
    waiting_kept = waiting_noted;
  }
}

bool vex::EndSnmp() {
  const bool ended = SnmpStop();
  if (!Unsent()) {
    return ended;
  }
  if (const auto unsent = UnsentAtTheEnd()) {
    Unsent()->Keep(*unsent);
  } else if (!SnmpNothingWaiting()) {
    // What was kept before is still in the file.
    agentlog_fprintf(stderr, "%s: Can't keep the traps of this run that are not sent: %s\n",
                     AgentName(), ended ? "they cannot be had" : "the SNMP side hangs");
  }
  return ended;
}

int init_snmp_appname(const char *name) {
  return Guarded(-1, [&] {
    if (name == nullptr || name[0] == '\0' || SnmpRunning()) {
      return -1;
    }
    SnmpSettings settings;
    Unsent().emplace(RegistryRootPath(), name);
    if (SnmpStart(name, &settings) != 0) {
      Unsent().reset();
      return -1;
    }
    ConfigurePollTime(settings.poll_interval);
    Settings() = std::move(settings);
    if (traps_enabled) {
      TakeUnsent();
    }
    return 0;
  });
}

char *find_community_string(char **community) {
  const std::string &name = Settings().community;
  char *copy = name.empty() ? nullptr : strdup(name.c_str());
  if (community != nullptr) {
    *community = copy;
  }
  return copy;
}

int cfg_set_state(int value) {
  if (value != kOk && value != kNotOk) {
    return -1;
  }
  SnmpEnableSets(value == kOk);
  return 0;
}

int cfg_trap_state(int value) {
  if (value != kOk && value != kNotOk) {
    return -1;
  }
  traps_enabled = value == kOk;
  return 0;
}

int send_trap(registry_object *object, const int *slots, int slot_count, const char *description,
              int number) {
  return Guarded(-1, [&] { return SendTrap(object, slots, slot_count, description, number); });
}

int get_mib_major_revision(int group) {
  const MibGroup *found = FindGroup(group);
  return found != nullptr ? found->major_revision : 0;
}

int get_mib_minor_revision(int group) {
  const MibGroup *found = FindGroup(group);
  return found != nullptr ? found->minor_revision : 0;
}

int init_snmp_connection(const char *address) {
  return Guarded(-1, [&] {
    in_addr parsed;
    if (address == nullptr || inet_pton(AF_INET, address, &parsed) != 1 ||
        !QueryAddress().empty() || !SnmpRunning() || Settings().community.empty()) {
      return -1;
    }
    QueryAddress() = address;
    return 0;
  });
}

int get_one_snmp_integer_from_api(const char *oid, int32_t *value, int *status) {
  return Guarded(-1, [&] {
    if (oid == nullptr || value == nullptr || QueryAddress().empty() || !SnmpRunning()) {
      return -1;
    }
    const std::optional<int32_t> answer = Ask(oid, status);
    if (!answer) {
      return -1;
    }
    *value = *answer;
    return 0;
  });
}

int cleanup_snmp_connection(void) {
  if (QueryAddress().empty()) {
    return -1;
  }
  QueryAddress().clear();
  return 0;
}
