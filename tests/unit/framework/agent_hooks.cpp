#include "tests/unit/framework/agent_hooks.h"

#include "platform/framework.h"

const char *agent;
int32_t poll_time;
char log_dir[80];
queue obj_Q;
unsigned char ignore_peer_stop;
int32_t NicCondition;
int32_t PrevNicCondition;

namespace vex {
AgentHooks &TheAgentHooks() {
  static AgentHooks hooks;
  return hooks;
}
}  // namespace vex

int init_agent(int argc, char **argv) {
  return vex::TheAgentHooks().init(argc, argv);
}

int get_data(void) {
  return vex::TheAgentHooks().poll();
}

int cleanup_agent(void) {
  return vex::TheAgentHooks().clean_up();
}
