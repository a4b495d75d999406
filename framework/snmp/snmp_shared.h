// What the agent thread has in common with whoever serves it: the SNMP thread, or the relay to the
// SNMP process.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_SHARED_H
#define VEX_FRAMEWORK_SNMP_SNMP_SHARED_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>

#include "framework/process/clock.h"
#include "framework/registry/image.h"
#include "framework/snmp/image_ring.h"
#include "framework/snmp/notifications.h"
#include "framework/snmp/snmp_query.h"

namespace vex {

struct SnmpShared {
  // An agent that was told to end has a second in all. The last notifications and the goodbye to
  // the master have their part of it, and what the libraries do then has the rest.
  static constexpr std::chrono::milliseconds kLastNotifications{300};
  static constexpr std::chrono::milliseconds kGoodbye{450};  // with the notifications

  // Of every object that is published. An entry stays for as long as its object: withdrawing must
  // not need memory.
  struct Published {
    uint64_t object_id;
    // Not yet in the index of the thread; or, for a process, whatever it has: the next one wants
    // it, too. Null: none, or withdrawn.
    std::shared_ptr<const Image> image;
    std::shared_ptr<const Layout> sent;  // that the process has of it
    bool waiting = false;                // in the list below
    Published *next = nullptr;
  };
  std::mutex images_mutex;
  std::unordered_map<uint64_t, Published> images;
  Published *first_waiting = nullptr;  // in any order
  std::atomic<bool> images_waiting{false};
  std::unique_ptr<ImageRingWriter> ring;  // of the process that runs

  NotificationQueue notifications;
  Notifications unsent;      // of the thread until it has finished
  bool unsent_whole = true;  // likewise: the list above has all that is unsent

  std::mutex queries_mutex;
  std::list<std::shared_ptr<SnmpQuery>> queries;
  std::shared_ptr<SnmpQuery> silent_query;  // agent thread

  std::atomic<bool> sets_enabled{true};
  std::atomic<bool> stand_behind{false};
  std::atomic<bool> up{false};
  std::atomic<void (*)()> tick{nullptr};
  std::atomic<int> tick_ms{0};
  std::atomic<bool> stop{false};

  std::mutex state_mutex;
  std::condition_variable state_changed;
  bool running = false;   // the thread's loop has begun
  bool finished = false;  // the thread is at its end
  std::atomic<bool> failed{false};

  int wake_fd = -1;
  std::thread thread;
};

SnmpShared &Side();

// Wakes the thread. Any thread.
void WakeThread();
// What WakeThread() has written is read.
void Woken();
// With images_mutex held: the thread, or the relay, sees to the object's image.
void Enqueue(SnmpShared::Published *entry);

// The tick of SnmpSetTick(): when it is next, and doing it when it is time.
class SnmpTicker {
 public:
  Clock::time_point NextDue() const;
  void Work();

 private:
  Clock::time_point next_ = Clock::now();
};

// At the thread's end: what nobody will send.
void KeepUnsent();

}  // namespace vex

#endif
