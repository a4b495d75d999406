// An agent for tests of the framework: its hooks do what a test tells them.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_AGENT_HOOKS_H
#define VEX_TESTS_UNIT_FRAMEWORK_AGENT_HOOKS_H

#include <functional>

namespace vex {

struct AgentHooks {
  std::function<int(int, char **)> init = [](int, char **) { return 0; };
  std::function<int()> poll = [] { return 0; };
  std::function<int()> clean_up = [] { return 0; };
};
AgentHooks &TheAgentHooks();

}  // namespace vex

#endif
