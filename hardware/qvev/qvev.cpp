// libqvev: platform EVs.
#include <cstdio>
#include <exception>
#include <string>

#include "hardware/qvev/ev_source.h"
#include "platform/ev.h"
#include "platform/framework.h"

// The log, when the process has the framework; the library works without it.
#pragma weak agentlog_fprintf

extern "C" __attribute__((visibility("default"))) int get_ev(const char *name, void *buffer,
                                                             uint32_t *length) {
  try {
    std::string problem;
    const int64_t got = vex::ReadEv({}, name, buffer, *length, &problem);
    if (!problem.empty() && agentlog_fprintf != nullptr) {
      agentlog_fprintf(stderr, "EV %s: %s%s\n", name, problem.c_str(),
                       got < 0 ? ", taken as absent" : "");
    }
    if (got < 0) {
      return -1;
    }
    *length = static_cast<uint32_t>(got);
    return 0;
  } catch (const std::exception &) {
    return -1;  // no memory
  }
}
