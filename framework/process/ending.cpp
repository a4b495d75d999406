#include "framework/process/ending.h"

#include <signal.h>

#include "platform/framework.h"

namespace {
volatile sig_atomic_t told_to_end;
}  // namespace

bool vex::NoteEnding() {
  const bool first = told_to_end == 0;
  told_to_end = 1;
  return first;
}

int agent_ending(void) {
  return told_to_end;
}
