// A small MIB, and images of its objects, for tests of the SNMP side.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_SMALL_MIB_H
#define VEX_TESTS_UNIT_FRAMEWORK_SMALL_MIB_H

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "framework/registry/image.h"
#include "framework/snmp/mib_index.h"
#include "platform/framework.h"

namespace vex {

// Two scalars, a table of three columns, a scalar after it, and a text that only notifications
// carry.
inline constexpr uint32_t kCountOid[] = {1, 3, 9, 1, 1};
inline constexpr uint32_t kTextOid[] = {1, 3, 9, 1, 2};
inline constexpr uint32_t kRowNumberOid[] = {1, 3, 9, 2, 1, 1};
inline constexpr uint32_t kRowNameOid[] = {1, 3, 9, 2, 1, 2};
inline constexpr uint32_t kRowDateOid[] = {1, 3, 9, 2, 1, 3};
inline constexpr uint32_t kLastOid[] = {1, 3, 9, 3, 1};
inline constexpr uint32_t kNotifyOid[] = {1, 3, 9, 4, 1};

enum SmallMib { kCount, kText, kRowNumber, kRowName, kRowDate, kLast, kNotify };

inline constexpr MibVariable kSmallMib[] = {
    {"smallCount", kCountOid, 5, VAR_INTEGER, MibAccess::kReadWrite, false, 11, 0, 0, ""},
    {"smallText", kTextOid, 5, VAR_DISPLAY_STRING, MibAccess::kReadWrite, false, 11, 0, 8, ""},
    {"smallRowNumber", kRowNumberOid, 6, VAR_INTEGER, MibAccess::kReadOnly, true, 11, 0, 0, ""},
    {"smallRowName", kRowNameOid, 6, VAR_DISPLAY_STRING, MibAccess::kReadWrite, true, 11, 0, 15,
     ""},
    {"smallRowDate", kRowDateOid, 6, VAR_OCTET_STRING, MibAccess::kReadWrite, true, 11, 7, 8, ""},
    {"smallLast", kLastOid, 5, VAR_INTEGER, MibAccess::kReadOnly, false, 11, 0, 0, ""},
    {"smallNotify", kNotifyOid, 5, VAR_DISPLAY_STRING, MibAccess::kNotify, false, 11, 0, 255, ""},
};

class ImageMaker {
 public:
  ImageMaker(uint64_t object_id, uint32_t instance) : image_(std::make_shared<Image>()) {
    image_->object_id = object_id;
    image_->instance = instance;
  }
  ImageMaker &Int(SmallMib variable, int32_t value) {
    Add(variable, &value, sizeof(value), sizeof(value), 0);
    return *this;
  }
  ImageMaker &Text(SmallMib variable, const std::string &value, int size) {
    Add(variable, value.data(), value.size(), size, 0);
    return *this;
  }
  ImageMaker &Octets(SmallMib variable, const std::string &value, int size) {
    Add(variable, value.data(), value.size(), size, static_cast<uint16_t>(value.size()));
    return *this;
  }
  ImageMaker &ReadOnly() {
    layout_.variables.back().writable = false;
    return *this;
  }
  std::shared_ptr<Image> Make() {
    image_->layout = std::make_shared<Layout>(layout_);
    return image_;
  }

 private:
  void Add(SmallMib variable, const void *value, size_t length, int size, uint16_t octets) {
    const MibVariable &mib = kSmallMib[variable];
    auto offset = static_cast<uint32_t>(image_->data.size());
    layout_.variables.push_back({&mib, static_cast<int>(layout_.variables.size()), size, offset,
                                 mib.type, mib.access == MibAccess::kReadWrite});
    image_->data.resize(offset + static_cast<size_t>(size));
    memcpy(image_->data.data() + offset, value, length);
    image_->octet_lengths.push_back(octets);
  }

  std::shared_ptr<Image> image_;
  Layout layout_;
};

inline std::vector<SubId> NameOf(SmallMib variable, std::vector<SubId> suffix) {
  std::vector<SubId> name(kSmallMib[variable].Oid().begin(), kSmallMib[variable].Oid().end());
  name.insert(name.end(), suffix.begin(), suffix.end());
  return name;
}

}  // namespace vex

#endif
