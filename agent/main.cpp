// vexhostd: the framework runs the process; everything else is in the hooks (agent/agent.cpp).
#include "platform/framework.h"

int main(int argc, char **argv) {
  return agent_main(argc, argv);
}
