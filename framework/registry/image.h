// Snapshots of one object's published values, never changed: what log_data() hands to the SNMP
// side.
#ifndef VEX_FRAMEWORK_REGISTRY_IMAGE_H
#define VEX_FRAMEWORK_REGISTRY_IMAGE_H

#include <cstdint>
#include <memory>
#include <vector>

#include "framework/snmp/mib_table.h"

namespace vex {

// One variable of an object that the MIB modules know. Others are not served.
struct ServedVariable {
  const MibVariable *mib;
  int slot;
  int size;         // bytes in the data block
  uint32_t offset;  // in the data block
  uint8_t type;     // enum variable_type
  bool writable;
  bool operator==(const ServedVariable &) const = default;
};

// Shared by the images of one object for as long as its descriptors stay the same.
struct Layout {
  std::vector<ServedVariable> variables;  // in slot order
};

struct Image {
  std::shared_ptr<const Layout> layout;
  uint64_t object_id = 0;               // never reused within the process
  uint32_t instance = 0;                // the row's number; scalars are served as .0 whatever it is
  std::vector<uint8_t> data;            // the whole data block
  std::vector<uint16_t> octet_lengths;  // by position in layout->variables; for octet strings
};

}  // namespace vex

#endif
