// libqvev: platform EVs.
#include <cstdio>
#include <exception>
#include <string>

#include "framework/process/guard.h"
#include "hardware/qvev/ev_source.h"
#include "platform/ev.h"
#include "platform/framework.h"

// The log, when the process has the framework; the library works without it.
#pragma weak agentlog_fprintf

extern "C" __attribute__((visibility("default"))) int get_ev(const char *name, void *buffer,
                                                             uint32_t *length) {
  try {
    std::string problem;
    const int64_t got = vex::Persistently([&] {
      problem.clear();
      return vex::ReadEv({}, name, buffer, *length, &problem);
    });
    if (!problem.empty() && agentlog_fprintf != nullptr) {
      agentlog_fprintf(stderr, "EV %s: %s%s\n", name, problem.c_str(),
                       got < 0 ? ", taken as absent" : "");
    }
    if (got < 0) {
      return -1;
    }
    *length = static_cast<uint32_t>(got);
    return 0;
  } catch (const std::exception &failure) {
    if (agentlog_fprintf != nullptr) {
      agentlog_fprintf(stderr, "EV %s: %s, taken as absent\n", name, failure.what());
    }
    return -1;
  }
}
