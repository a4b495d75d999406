#include "tests/unit/framework/agent_thread/fake_snmp.h"

#include <unistd.h>

#include <chrono>
#include <new>
#include <thread>
#include <utility>

#include "platform/framework.h"

namespace vex {

FakeSnmp &TheFakeSnmp() {
  static FakeSnmp snmp;
  return snmp;
}

int SnmpStart(const char *application, SnmpSettings *settings) {
  FakeSnmp &snmp = TheFakeSnmp();
  if (snmp.start_fails) {
    snmp.failed = true;
    return -1;
  }
  snmp.application = application;
  snmp.running = true;
  *settings = snmp.settings;
  return 0;
}

bool SnmpStop() {
  TheFakeSnmp().running = false;
  return !TheFakeSnmp().stays;
}

bool SnmpFailed() {
  return TheFakeSnmp().failed;
}

std::optional<std::vector<Notification>> SnmpUnsent() {
  if (TheFakeSnmp().unsent_fails > 0) {
    TheFakeSnmp().unsent_fails--;
    throw std::bad_alloc();
  }
  return TheFakeSnmp().unsent;
}

bool SnmpRunning() {
  return TheFakeSnmp().running;
}

void SnmpSetTick(void (*tick)(), int interval_ms) {
  TheFakeSnmp().tick = tick;
  TheFakeSnmp().tick_ms = interval_ms;
}

void SnmpEnableSets(bool enabled) {
  TheFakeSnmp().sets_enabled = enabled;
}

void SnmpPublish(std::shared_ptr<const Image> image) {
  if (TheFakeSnmp().publish_fails > 0) {
    TheFakeSnmp().publish_fails--;
    throw std::bad_alloc();
  }
  TheFakeSnmp().publications++;
  TheFakeSnmp().served[image->object_id] = std::move(image);
}

void SnmpWithdraw(uint64_t object_id) noexcept {
  TheFakeSnmp().served.erase(object_id);
}

void SnmpNotify(Notification notification) {
  if (TheFakeSnmp().notify_fails > 0) {
    TheFakeSnmp().notify_fails--;
    throw std::bad_alloc();
  }
  TheFakeSnmp().notifications.push_back(std::move(notification));
}

void SnmpNotifyOlder(std::vector<Notification> notifications) {
  for (Notification &notification : notifications) {
    SnmpNotify(std::move(notification));
  }
}

bool SnmpUp() {
  return TheFakeSnmp().up;
}

bool SnmpNothingWaiting() {
  if (TheFakeSnmp().asked_what_waits != nullptr) {
    TheFakeSnmp().asked_what_waits();
  }
  return TheFakeSnmp().nothing_waiting;
}

SnmpAnswer SnmpQueryInteger(const std::string &address, const std::string &community,
                            const char *oid, std::chrono::nanoseconds patience) {
  FakeSnmp &snmp = TheFakeSnmp();
  snmp.queried = address + " " + community + " " + oid;
  snmp.queries++;
  snmp.patience = patience;
  return snmp.answer;
}

bool SnmpAnsweredLate() {
  return std::exchange(TheFakeSnmp().answered_late, false);
}

int SetChannelFd() {
  return TheFakeSnmp().set_fd;
}

void ServeSets(SetRunner run) {
  FakeSnmp &snmp = TheFakeSnmp();
  char byte;
  if (read(snmp.set_fd, &byte, 1) != 1) {
    return;
  }
  for (SetItem &item : snmp.pending) {
    int result = run(SET_CHECK, item);
    if (result == 0) {
      result = run(SET_APPLY, item);
    }
    snmp.set_results.push_back(result);
  }
  snmp.pending.clear();
  const auto until = std::chrono::steady_clock::now() + snmp.hold;
  while (std::chrono::steady_clock::now() < until && agent_ending() == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void CloseSets() {
  TheFakeSnmp().sets_closed = true;
}

bool SetWanted(bool) {
  return TheFakeSnmp().wanted;
}

// ---- The MIB

namespace {

constexpr uint32_t kOids[][10] = {
    {1, 3, 6, 1, 4, 1, 4891, 99, 1, 1}, {1, 3, 6, 1, 4, 1, 4891, 99, 1, 2},
    {1, 3, 6, 1, 4, 1, 4891, 99, 1, 3}, {1, 3, 6, 1, 4, 1, 4891, 99, 1, 4},
    {1, 3, 6, 1, 4, 1, 4891, 99, 2, 1}, {1, 3, 6, 1, 4, 1, 4891, 99, 2, 2},
    {1, 3, 6, 1, 4, 1, 4891, 99, 3, 1},
};
constexpr MibAccess kRo = MibAccess::kReadOnly;
constexpr MibAccess kRw = MibAccess::kReadWrite;
const MibVariable kVariables[] = {
    {"exampleCount", kOids[0], 10, VAR_INTEGER, kRw, false, 99, 0, 0, ""},
    {"exampleName", kOids[1], 10, VAR_DISPLAY_STRING, kRo, false, 99, 0, 32, ""},
    {"exampleRole", kOids[2], 10, VAR_DISPLAY_STRING, kRw, false, 99, 0, 8, ""},
    {"exampleDate", kOids[3], 10, VAR_OCTET_STRING, kRw, false, 99, 0, 7, ""},
    {"rowSize", kOids[4], 10, VAR_INTEGER, kRo, true, 99, 0, 0, ""},
    {"rowLabel", kOids[5], 10, VAR_DISPLAY_STRING, kRw, true, 99, 0, 8, ""},
    {"exampleText", kOids[6], 10, VAR_DISPLAY_STRING, MibAccess::kNotify, false, 99, 0, 255, ""},
};
const MibGroup kGroups[] = {{99, "example", kOids[0], 8, 3, 17}};

}  // namespace

std::span<const MibVariable> MibVariables() {
  return kVariables;
}

std::span<const MibGroup> MibGroups() {
  return kGroups;
}

const MibVariable *FindMibVariable(std::string_view name) {
  for (const MibVariable &v : kVariables) {
    if (name == v.name) {
      return &v;
    }
  }
  return nullptr;
}

std::span<const uint32_t> MibNotificationRoot() {
  return {kOids[0], 7};
}

const MibVariable &MibTrapDescription() {
  return kVariables[6];
}

}  // namespace vex
