// vexreg export: what is published, for a collector of metrics.
#include "common/sources.h"
#include "tools/vexreg/absence.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/open_metrics.h"
#include "tools/vexreg/replace_file.h"

namespace vex {
namespace {

constexpr mode_t kMode = 0644;  // collectors run as other users

}  // namespace

int Export(const std::string &root, const std::optional<std::string> &file) {
  int status = kDone;
  std::vector<NamedObject> objects;
  std::vector<Unread> unread;
  for (NamedFile &one : ReadObjectsOf(host_directory, root, &unread)) {
    if (one.object) {
      objects.push_back({std::move(one.name), std::move(*one.object)});
    } else {
      Complain(one.name + ": damaged, or not for this user to read; left out");
    }
  }
  if (!unread.empty()) {
    // What is there is not known: neither some of it nor none may be told as all.
    TellUnread(unread, root, &status);
    return status;
  }
  if (objects.empty()) {
    // Without a sample all the same: what was written before is not true any more.
    status = kFailed;
    Complain(WhyNothing(root));
  }
  const std::string text = OpenMetrics(objects);
  return WriteOutput(file.value_or(kStandardOutput), text, kMode) ? status : kFailed;
}

}  // namespace vex
