// Names of variables as net-snmp's library takes them.
#ifndef VEX_FRAMEWORK_SNMP_OID_NAME_H
#define VEX_FRAMEWORK_SNMP_OID_NAME_H

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace vex {

// The numbers of an object identifier of the MIB table, with or without an instance at the end.
class OidName {
 public:
  explicit OidName(std::span<const uint32_t> of) : length_(of.size()) {
    std::copy(of.begin(), of.end(), name_);
  }
  OidName(std::span<const uint32_t> of, uint32_t last) : OidName(of) {
    name_[length_++] = last;
  }
  const oid *Numbers() const {
    return name_;
  }
  size_t Length() const {
    return length_;
  }

 private:
  oid name_[UINT8_MAX + 1];  // the MIB table's lengths have 8 bits
  size_t length_;
};

}  // namespace vex

#endif
