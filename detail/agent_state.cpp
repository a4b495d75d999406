#include "detail/agent_state.h"

#include <stddef.h>
#include <string.h>
#include <time.h>

#include "common/util.h"

// ---- Data block ---------------------------------------------------------------------------------

struct [[gnu::packed]] agent_block {
  char version[32];
  int32_t start;          // seconds since 1970
  int32_t last_poll;      // seconds since 1970; -1 before the first one has ended
  int32_t poll_duration;  // milliseconds; -1 before the first one has ended
  int32_t failed_polls;
};
static_assert(offsetof(agent_block, start) == 32);
static_assert(sizeof(agent_block) == 48);

// ---- Variables ----------------------------------------------------------------------------------

static constexpr variable variables[] = {
    READ_ONLY("tlxHoAgentVersion", agent_block, version),
    READ_ONLY("tlxHoAgentStart", agent_block, start),
    READ_ONLY("tlxHoAgentLastPoll", agent_block, last_poll),
    READ_ONLY("tlxHoAgentPollDuration", agent_block, poll_duration),
    READ_ONLY("tlxHoAgentFailedPolls", agent_block, failed_polls),
};

constexpr group agent_group = described<agent_block>({
    .name = "agent",
    .title = "agent",
    .flag = 0,
    .variables = variables,
    .refresh = do_agent,
    .each_poll = true,
    .absence = nullptr,
});

// ---- State --------------------------------------------------------------------------------------

static constexpr int32_t not_known = -1;
static agent_block state = {VEXHOSTD_VERSION, not_known, not_known, not_known, 0};

// ---- Computing ----------------------------------------------------------------------------------

static int32_t seconds_now() {
  const time_t now = time(nullptr);
  return now >= 0 ? clamp_int32(static_cast<uint64_t>(now)) : -1;
}

void note_poll(int64_t milliseconds, bool failed) {
  state.last_poll = seconds_now();
  state.poll_duration = milliseconds >= 0 ? clamp_int32(static_cast<uint64_t>(milliseconds)) : -1;
  if (failed) {
    state.failed_polls = clamp_int32(int64_t{state.failed_polls} + 1);
  }
}

// ---- Entry point --------------------------------------------------------------------------------

int do_agent() {
  if (state.start == not_known) {
    state.start = seconds_now();
  }
  registry_object *object = find_or_create_object(agent_group);
  if (object == nullptr) {
    return -1;
  }
  memcpy(object->data, &state, sizeof(state));
  log_data(object);
  return 0;
}
