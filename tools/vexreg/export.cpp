// vexreg export: what is published, for a collector of metrics.
#include <errno.h>
#include <string.h>

#include <iostream>

#include "tools/vexreg/absence.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/open_metrics.h"
#include "tools/vexreg/replace_file.h"

namespace vex {
namespace {

constexpr char kOwnObjects[] = "host/*";
constexpr mode_t kMode = 0644;  // collectors run as other users

}  // namespace

int Export(const std::string &root, const std::optional<std::string> &file) {
  const Found found = FindObjects({root, {kOwnObjects}});
  int status = kDone;
  for (const std::string &name : found.damaged) {
    Complain(name + ": damaged, left out");
  }
  if (found.objects.empty()) {
    // Without a sample all the same: what was written before is not true any more.
    status = kFailed;
    Complain(WhyNothing(root));
  }
  const std::string text = OpenMetrics(found.objects);
  if (!file) {
    std::cout << text;
    return FinishOutput(status);
  }
  if (ReplaceFile(*file, text, kMode) != 0) {
    Complain(*file + ": cannot be written: " + strerror(errno));
    return kFailed;
  }
  return status;
}

}  // namespace vex
