// The page that a scenario shares with the agent that it disturbs: with the launcher, before it
// becomes the agent, and with the library preloaded into it.
#ifndef VEX_TESTS_FAULTS_PAGE_H
#define VEX_TESTS_FAULTS_PAGE_H

#include <atomic>
#include <cstdint>

namespace faults {

inline constexpr char kPageVariable[] = "VEX_FAULTS_PAGE";  // path of the page's file

inline constexpr unsigned kMostCalls = 120;

// What the agent is made to do at its next allocation: defects for the suite to notice.
enum class Sabotage : uint32_t {
  kNone,
  kLeakDescriptor,
  kLeaveChild,
  kAbort,
  kExitSilently,
};

struct Page {
  // Written by the scenario.
  std::atomic<uint32_t> go;                 // 1: somebody listens, the launcher goes on
  std::atomic<uint32_t> arm_in_main;        // 1: main() arms
  std::atomic<uint32_t> whole_family;       // 1: allocations of what it forks count, too
  std::atomic<uint32_t> disarm_after_main;  // 1: what happens behind main() does not count
  uint32_t calls[kMostCalls];  // system calls that are announced to the listener; 0 ends them
  std::atomic<uint64_t> fail_allocation;  // the n-th from the mark on; 0: none
  std::atomic<Sabotage> sabotage;
  // Calls and allocations count while it is 1.
  std::atomic<uint32_t> armed;
  // Written by the launcher: the listener's descriptor and 1, or a negated errno.
  std::atomic<int32_t> listener;
  // Written by the agent.
  std::atomic<int32_t> agent;  // its process number
  std::atomic<uint64_t> allocations;
  std::atomic<uint32_t> failed_allocations;
  char place[4096];  // of the allocation that failed: one "file+offset" a line
};

}  // namespace faults

#endif
