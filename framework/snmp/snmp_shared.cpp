#include "framework/snmp/snmp_shared.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace vex {

SnmpShared &Side() {
  static auto *shared = new SnmpShared;  // outlives every thread
  return *shared;
}

void WakeThread() {
  uint64_t one = 1;
  (void)!write(Side().wake_fd, &one, sizeof(one));
}

void Woken() {
  uint64_t count;
  (void)!read(Side().wake_fd, &count, sizeof(count));
}

void Enqueue(SnmpShared::Published *entry) {
  SnmpShared &side = Side();
  if (!entry->waiting) {
    entry->waiting = true;
    entry->next = side.first_waiting;
    side.first_waiting = entry;
    side.images_waiting.store(true, std::memory_order_release);
  }
}

Clock::time_point SnmpTicker::NextDue() const {
  return Side().tick.load() != nullptr ? next_ : Clock::time_point::max();
}

void SnmpTicker::Work() {
  void (*tick)() = Side().tick.load();
  const Clock::time_point now = Clock::now();
  if (tick != nullptr && now >= next_) {
    next_ = now + std::chrono::milliseconds(std::max(Side().tick_ms.load(), 1));
    tick();
  }
}

void KeepUnsent() {
  SnmpShared &side = Side();
  side.notifications.SetUp(false);  // as many as are kept
  for (auto one = side.notifications.Pop(); !one.empty(); one = side.notifications.Pop()) {
    side.unsent.splice(side.unsent.end(), one);
  }
  side.unsent_whole = true;
}

}  // namespace vex
