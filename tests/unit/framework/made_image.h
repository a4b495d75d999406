// Images of objects whose variables the modules have, for tests of the SNMP side.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_MADE_IMAGE_H
#define VEX_TESTS_UNIT_FRAMEWORK_MADE_IMAGE_H

#include <memory>
#include <vector>

#include "framework/registry/image.h"
#include "framework/snmp/mib_table.h"
#include "platform/framework.h"

namespace vex {

// An object with the given variables in slot order.
inline std::shared_ptr<Image> MakeImage(uint64_t id, uint32_t instance,
                                        const std::vector<const char *> &variables) {
  auto layout = std::make_shared<Layout>();
  auto image = std::make_shared<Image>();
  int slot = 0;
  for (const char *name : variables) {
    const MibVariable &mib = *FindMibVariable(name);
    const int size =
        mib.type == VAR_INTEGER ? 4 : mib.max_length + (mib.type == VAR_DISPLAY_STRING);
    layout->variables.push_back({&mib, slot++, size, static_cast<uint32_t>(image->data.size()),
                                 mib.type, mib.access == MibAccess::kReadWrite});
    image->data.resize(image->data.size() + static_cast<size_t>(size));
    image->octet_lengths.push_back(0);
  }
  image->layout = layout;
  image->object_id = id;
  image->instance = instance;
  return image;
}

}  // namespace vex

#endif
