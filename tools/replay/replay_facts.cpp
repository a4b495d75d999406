#include "tools/replay/replay_facts.h"

#include <string.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace vex {

ReplayFacts ReadReplayFacts(const char *path) {
  ReplayFacts facts;
  std::ifstream file(path != nullptr ? path : "", std::ios::binary);
  std::string rest;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(kKernelLine)) {
      std::istringstream parts(line.substr(strlen(kKernelLine)));
      std::getline(parts, facts.release, '|');
      std::getline(parts, facts.version, '|');
      std::getline(parts, facts.machine, '|');
    } else if (line.starts_with(kCardLine)) {
      const std::string digits = line.substr(strlen(kCardLine));
      for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        facts.card += static_cast<char>(strtol(digits.substr(i, 2).c_str(), nullptr, 16));
      }
    } else {
      rest += line + "\n";
    }
  }
  facts.mounts = ParseFigures(rest);
  return facts;
}

}  // namespace vex
