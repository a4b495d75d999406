// What the agent's process and that of its SNMP side tell each other, and what of it the agent lets
// be set.
#include <stddef.h>
#include <stdint.h>

#include <string_view>
#include <vector>

#include "framework/snmp/snmp_wire.h"
#include "fuzz/require.h"
#include "tests/unit/framework/made_image.h"

const char *agent = "fuzz";

namespace {

using namespace vex;

// What is taken is written as something that is taken for the same.
template <typename What>
bool TakenAndWritten(std::string_view bytes, What *what) {
  FrameReader reader(bytes);
  if (!Take(&reader, what)) {
    return false;
  }
  FrameWriter once(FrameType::kPing);
  Put(&once, *what);
  FrameReader again(std::string_view(once.Bytes()).substr(1));
  What same;
  Require(Take(&again, &same));
  FrameWriter twice(FrameType::kPing);
  Put(&twice, same);
  Require(once.Bytes() == twice.Bytes());
  return true;
}

void TakeSets(std::string_view bytes) {
  static const auto image = MakeImage(
      5, 0, {"tlxHoOsCommonPollFreq", "tlxHoSystemRole", "tlxHoGUID", "tlxHoMibRevMajor"});
  std::vector<SetItem> items;
  if (!TakenAndWritten(bytes, &items)) {
    return;
  }
  for (const SetItem &item : items) {
    if (!MaySet(*image, item)) {
      continue;
    }
    Require(item.object_id == 5 && item.slot >= 0 && item.slot < 3 && item.length >= 0);
    const auto length = static_cast<size_t>(item.length);
    const ServedVariable &variable = image->layout->variables[static_cast<size_t>(item.slot)];
    Require(item.value.size() == length + (variable.type == VAR_INTEGER ? 0 : 1));
    Require(length <= static_cast<size_t>(variable.size));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string_view bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
  Notification notification;
  Configured configured;
  switch (data[0] % 3) {
    case 0:
      TakeSets(bytes);
      break;
    case 1:
      TakenAndWritten(bytes, &notification);
      break;
    default:
      TakenAndWritten(bytes, &configured);
  }
  return 0;
}
