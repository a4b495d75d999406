#include "tools/vexreg/absence.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <algorithm>

#include "common/sources.h"
#include "framework/registry/directory_lock.h"
#include "framework/registry/registry_dir.h"
#include "tools/vexreg/host_facts.h"

namespace vex {
namespace {

// 0, or the error of listing a directory below the root. One that is not there is no error.
int ListingError(int root, const char *directory) {
  const Descriptor opened(OpenBeneath(root, directory, O_RDONLY | O_DIRECTORY | O_NONBLOCK));
  return opened || (*directory != '\0' && errno == ENOENT) ? 0 : errno;
}

int ListingError(const std::string &path) {
  const Descriptor root(OpenRegistryRoot(path, false));
  if (!root) {
    return errno;
  }
  const int error = ListingError(root.get(), "");
  return error != 0 ? error : ListingError(root.get(), host_directory);
}

}  // namespace

bool IsHeld(const std::string &path) {
  const Descriptor root(OpenRegistryRoot(path, false));
  const Descriptor own(
      root ? OpenBeneath(root.get(), host_directory, O_RDONLY | O_DIRECTORY | O_NONBLOCK) : -1);
  return own && DirectoryHolder(own.get()).has_value();
}

AgentSight SeeAgent(const std::string &root) {
  AgentSight sight;
  const std::vector<ProcessFact> agents = FindProcesses(kAgentName);
  sight.looked = true;
  sight.runs = !agents.empty();
  sight.stopped = sight.runs && std::all_of(agents.begin(), agents.end(), IsStopped);
  sight.hidden = ProcessesHidden();
  sight.elsewhere = root != kRegistryRoot && !IsHeld(root);
  return sight;
}

std::string SightText(const AgentSight &sight, bool published) {
  if (!sight.looked) {
    return "";
  }
  if (sight.runs && sight.elsewhere) {
    return "the agent publishes elsewhere; check --root";
  }
  if (sight.stopped) {
    return "the agent is stopped by a signal; continue it, or restart it";
  }
  if (sight.runs) {
    return published ? "the agent runs, but is silent; run: vexreg doctor"
                     : "the agent runs, and publishes at its first poll";
  }
  if (sight.hidden) {
    return "whether the agent runs is not for this user to see";
  }
  return "no agent runs; start it: systemctl start vexhostd";
}

std::string JudgeAbsence(const AbsenceFacts &facts) {
  if (facts.error == EACCES) {
    return "nothing to see: " + facts.root +
           " is not for this user to read. Run the command as root.";
  }
  const std::string what =
      facts.error == 0 ? "nothing is published in " + facts.root + ": "
      : facts.error == ENOENT
          ? "nothing is published: there is no registry " + facts.root + ", and "
          : "nothing to see: " + facts.root + ": " + strerror(facts.error) + "; ";
  if (facts.agent_runs && facts.elsewhere) {
    return what + "the agent publishes elsewhere; check --root";
  }
  if (facts.agent_runs) {
    return what +
           "the agent runs, and publishes at its first poll, one poll interval after its start. "
           "If nothing comes, run: vexreg doctor";
  }
  if (facts.agent_hidden) {
    return what + "whether the agent runs is not for this user to see. Run as root: vexreg doctor";
  }
  return what + "no agent runs. Start it: systemctl start vexhostd";
}

std::string WhyNothing(const std::string &root) {
  AbsenceFacts facts;
  facts.root = root;
  facts.error = ListingError(root);
  const AgentSight sight = SeeAgent(root);
  facts.agent_hidden = sight.hidden;
  facts.agent_runs = sight.runs;
  facts.elsewhere = sight.elsewhere;
  return JudgeAbsence(facts);
}

}  // namespace vex
