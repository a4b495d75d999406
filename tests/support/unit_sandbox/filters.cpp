// Each filter is one of its own, as the service manager's are: of several verdicts the kernel takes
// the strictest. What a filter refuses, and with which error, is the manager's choice as well.
#include "tests/support/unit_sandbox/filters.h"

#include <fcntl.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace unit_sandbox {

namespace {

// Later than libseccomp's and the C library's names of Debian 12.
constexpr int kFchmodat2 = 452;

using Comparisons = std::vector<scmp_arg_cmp>;

struct Release {
  void operator()(void *filter) const {
    seccomp_release(filter);
  }
};
using FilterContext = std::unique_ptr<void, Release>;

void Check(int result, const std::string &what) {
  if (result < 0) {
    throw UnitError(what + ": " + strerror(-result));
  }
}

// The architectures whose programs this kernel can run, each of which has its own filter. This
// program's own is the last, since a filter may refuse to load another.
std::vector<uint32_t> LocalArchitectures() {
  switch (seccomp_arch_native()) {
    case SCMP_ARCH_X86_64:
      return {SCMP_ARCH_X86, SCMP_ARCH_X32, SCMP_ARCH_X86_64};
    case SCMP_ARCH_AARCH64:
      return {SCMP_ARCH_ARM, SCMP_ARCH_AARCH64};
    default:
      throw UnitError("an architecture whose filters are not known here");
  }
}

// Several of them have socket() and the like behind a call that a filter cannot look into.
bool Multiplexes(uint32_t architecture) {
  return architecture == SCMP_ARCH_X86;
}

FilterContext ForArchitecture(uint32_t architecture, uint32_t verdict) {
  FilterContext filter(seccomp_init(verdict));
  if (!filter) {
    throw UnitError("no memory for a filter");
  }
  if (architecture != seccomp_arch_native()) {
    Check(seccomp_arch_remove(filter.get(), SCMP_ARCH_NATIVE), "native architecture");
    Check(seccomp_arch_add(filter.get(), architecture), "architecture");
  }
  // Calls of other architectures are those of their own filter.
  Check(seccomp_attr_set(filter.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_ALLOW),
        "bad architecture");
  Check(seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_NNP, 0), "new privileges");
  return filter;
}

void Load(const FilterContext &filter) {
  Check(seccomp_load(filter.get()), "a filter is not taken");
}

// A filter that refuses some calls and allows all others.
class Refusals {
 public:
  explicit Refusals(uint32_t architecture)
      : filter_(ForArchitecture(architecture, SCMP_ACT_ALLOW)) {}

  // The call with arguments like these fails with that error.
  void Add(const char *call, int error, const Comparisons &arguments = {}) {
    const int number = seccomp_syscall_resolve_name(call);
    if (number == __NR_SCMP_ERROR) {
      throw UnitError(std::string("unknown system call ") + call);
    }
    Add(number, error, arguments);
  }
  void Add(int number, int error, const Comparisons &arguments = {}) {
    const int result = seccomp_rule_add_exact_array(
        filter_.get(), SCMP_ACT_ERRNO(static_cast<uint32_t>(error)), number,
        static_cast<unsigned>(arguments.size()), arguments.data());
    // EDOM: this architecture has no such call.
    if (result != -EDOM) {
      Check(result, "system call " + std::to_string(number));
      any_ = true;
    }
  }
  void Load() {
    if (any_) {
      unit_sandbox::Load(filter_);
    }
  }

 private:
  bool any_ = false;
  FilterContext filter_;
};

scmp_arg_cmp Has(unsigned argument, uint64_t bits) {
  return {argument, SCMP_CMP_MASKED_EQ, bits, bits};
}
scmp_arg_cmp Is(unsigned argument, scmp_compare how, uint64_t value) {
  return {argument, how, value, 0};
}

void RefuseAddressFamilies(const Filter<std::set<int>> &families, Refusals *refusals) {
  const auto refuse = [refusals](scmp_compare how, int family) {
    refusals->Add("socket", EAFNOSUPPORT, {Is(0, how, static_cast<uint64_t>(family))});
  };
  if (!families.allows) {
    for (const int family : families.content) {
      refuse(SCMP_CMP_EQ, family);
    }
    return;
  }
  if (families.content.empty()) {
    refusals->Add("socket", EAFNOSUPPORT);
    return;
  }
  const int first = *families.content.begin(), last = *families.content.rbegin();
  refuse(SCMP_CMP_LT, first);
  refuse(SCMP_CMP_GT, last);
  for (int family = first + 1; family < last; family++) {
    if (!families.content.contains(family)) {
      refuse(SCMP_CMP_EQ, family);
    }
  }
}

void RefuseWriteExecute(uint32_t architecture, Refusals *refusals) {
  if (architecture == SCMP_ARCH_X86) {
    refusals->Add("mmap", EPERM);  // the old form, whose arguments are in memory
    refusals->Add("mmap2", EPERM, {Has(2, PROT_WRITE | PROT_EXEC)});
  } else {
    refusals->Add("mmap", EPERM, {Has(2, PROT_WRITE | PROT_EXEC)});
    refusals->Add("shmat", EPERM, {Has(2, SHM_EXEC)});
  }
  refusals->Add("mprotect", EPERM, {Has(2, PROT_EXEC)});
  refusals->Add("pkey_mprotect", EPERM, {Has(2, PROT_EXEC)});
}

void RefuseRealtime(Refusals *refusals) {
  const std::set<int> permitted = {SCHED_OTHER, SCHED_BATCH, SCHED_IDLE};
  for (int policy = 0; policy < *permitted.rbegin(); policy++) {
    if (!permitted.contains(policy)) {
      refusals->Add("sched_setscheduler", EPERM,
                    {Is(1, SCMP_CMP_EQ, static_cast<uint64_t>(policy))});
    }
  }
  refusals->Add("sched_setscheduler", EPERM,
                {Is(1, SCMP_CMP_GT, static_cast<uint64_t>(*permitted.rbegin()))});
}

void RefuseSuidSgid(Refusals *refusals) {
  for (const uint64_t bit : {uint64_t{S_ISUID}, uint64_t{S_ISGID}}) {
    const struct {
      const char *call;
      unsigned mode;
    } calls[] = {{"chmod", 1},   {"fchmod", 1}, {"fchmodat", 2}, {"mkdir", 1},
                 {"mkdirat", 2}, {"mknod", 1},  {"mknodat", 2},  {"creat", 1}};
    for (const auto &[call, mode] : calls) {
      refusals->Add(call, EPERM, {Has(mode, bit)});
    }
    refusals->Add(kFchmodat2, EPERM, {Has(2, bit)});
    refusals->Add("open", EPERM, {Has(1, O_CREAT), Has(2, bit)});
    refusals->Add("openat", EPERM, {Has(2, O_CREAT), Has(3, bit)});
  }
  // Its mode is in memory, out of a filter's sight; programs fall back.
  refusals->Add("openat2", ENOSYS);
}

void RefuseNamespaces(unsigned long refused, Refusals *refusals) {
  const unsigned long all = AllNamespaces();
  if (refused == all) {
    refusals->Add("setns", EPERM);
  } else {
    refusals->Add("setns", EPERM, {Is(1, SCMP_CMP_EQ, 0)});
  }
  // Its flags are in memory; programs fall back to clone().
  refusals->Add("clone3", ENOSYS);
  for (unsigned long flag = 1; flag != 0; flag <<= 1) {
    if ((refused & flag) == 0) {
      continue;
    }
    refusals->Add("unshare", EPERM, {Has(0, flag)});
    refusals->Add("clone", EPERM, {Has(0, flag)});
    if (refused != all) {
      refusals->Add("setns", EPERM, {Has(1, flag)});
    }
  }
}

// Leaves those that are still allowed; later filters are loaded for no other.
void RestrictArchitectures(const std::set<uint32_t> &allowed,
                           std::vector<uint32_t> *architectures) {
  const FilterContext filter(seccomp_init(SCMP_ACT_ALLOW));
  if (!filter) {
    throw UnitError("no memory for a filter");
  }
  // The native one is in a filter from its beginning.
  const size_t refused = std::erase_if(*architectures, [&allowed](uint32_t one) {
    return one != seccomp_arch_native() && !allowed.contains(one);
  });
  for (const uint32_t architecture : *architectures) {
    if (architecture != seccomp_arch_native()) {
      Check(seccomp_arch_add(filter.get(), architecture), "architecture");
    }
  }
  Check(seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_NNP, 0), "new privileges");
  if (refused > 0) {
    Load(filter);
  }
}

void FilterSystemCalls(uint32_t architecture, const Unit &unit) {
  const auto &list = unit.system_calls;
  const auto refusal = [&unit](int error) {
    error = error < 0 ? unit.system_call_errno : error;
    return error == 0 ? SCMP_ACT_KILL_PROCESS : SCMP_ACT_ERRNO(static_cast<uint32_t>(error));
  };
  const FilterContext filter =
      ForArchitecture(architecture, list.allows ? refusal(-1) : uint32_t{SCMP_ACT_ALLOW});
  for (const auto &[call, error] : list.content) {
    const int number = seccomp_syscall_resolve_name(call.c_str());
    if (number == __NR_SCMP_ERROR) {
      continue;  // systemd knows calls that this libseccomp does not: to it they are no calls
    }
    const uint32_t verdict = list.allows && error < 0 ? uint32_t{SCMP_ACT_ALLOW} : refusal(error);
    const int result = seccomp_rule_add_exact(filter.get(), verdict, number, 0);
    if (result != -EDOM && result != -EACCES) {
      Check(result, call);
    }
  }
  Load(filter);
}

}  // namespace

void LoadFilters(const Unit &unit) {
  std::vector<uint32_t> architectures = LocalArchitectures();
  const auto refuse = [&architectures](const auto &add) {
    for (const uint32_t architecture : architectures) {
      Refusals refusals(architecture);
      add(architecture, &refusals);
      refusals.Load();
    }
  };
  if (unit.address_families.given) {
    refuse([&unit](uint32_t architecture, Refusals *refusals) {
      if (!Multiplexes(architecture)) {
        RefuseAddressFamilies(unit.address_families, refusals);
      }
    });
  }
  if (unit.memory_deny_write_execute) {
    refuse(RefuseWriteExecute);
  }
  if (unit.restrict_realtime) {
    refuse([](uint32_t, Refusals *refusals) { RefuseRealtime(refusals); });
  }
  if (unit.restrict_suid_sgid) {
    refuse([](uint32_t, Refusals *refusals) { RefuseSuidSgid(refusals); });
  }
  if (unit.refused_namespaces != 0) {
    refuse([&unit](uint32_t, Refusals *refusals) {
      RefuseNamespaces(unit.refused_namespaces, refusals);
    });
  }
  if (unit.protect_hostname) {
    refuse([](uint32_t, Refusals *refusals) {
      refusals->Add("sethostname", EPERM);
      refusals->Add("setdomainname", EPERM);
    });
  }
  if (unit.protect_clock) {
    refuse([](uint32_t, Refusals *refusals) {
      const std::string clock = "@clock";
      for (const std::string &call : SystemCallGroup(clock)) {
        refusals->Add(call.c_str(), EPERM);
      }
    });
  }
  if (unit.architectures) {
    RestrictArchitectures(*unit.architectures, &architectures);
  }
  if (unit.lock_personality) {
    refuse([](uint32_t, Refusals *refusals) {
      refusals->Add("personality", EPERM, {Is(0, SCMP_CMP_NE, PER_LINUX)});
    });
  }
  // Last: what comes before may need what it refuses.
  if (unit.system_calls.given) {
    for (const uint32_t architecture : architectures) {
      FilterSystemCalls(architecture, unit);
    }
  }
}

}  // namespace unit_sandbox
