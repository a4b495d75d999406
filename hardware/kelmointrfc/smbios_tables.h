// The SMBIOS tables as parsed and checked from the bytes of their entry point and structure table
// (DSP0134, sections 5.2 and 6.1). Pure: no files, no state.
#ifndef VEX_HARDWARE_KELMOINTRFC_SMBIOS_TABLES_H
#define VEX_HARDWARE_KELMOINTRFC_SMBIOS_TABLES_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vex {

// A table larger than this is refused; the largest ones known are well below a megabyte.
inline constexpr size_t kMaxSmbiosTable = size_t{16} << 20;

// A table in which every record, with its strings and their double zero, is complete.
class SmbiosTables {
 public:
  // Takes the 2.x ("_SM_", or "_DMI_" alone) or 3.x ("_SM3_") entry point, and the structures.
  // Nothing when either is malformed; *problem then says why (a static text).
  static std::optional<SmbiosTables> Parse(std::span<const uint8_t> entry,
                                           std::span<const uint8_t> table, const char **problem);

  // The instance-th record (from 0) of the type, or null. O(1).
  const uint8_t *Record(int type, int instance) const;
  // The text of a record's string (from 1); "" when it has none of that number or is not one of
  // these tables.
  const char *String(const uint8_t *record, int number) const;

 private:
  std::vector<uint8_t> bytes_;
  std::array<std::vector<uint32_t>, 256> offsets_;  // by type, in table order
};

}  // namespace vex

#endif
