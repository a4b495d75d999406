// The bytes of an object's file; docs/registry-format.md describes them. For the code that reads
// and writes the files, and for its fuzzer.
#ifndef VEX_FRAMEWORK_REGISTRY_REGISTRY_FORMAT_H
#define VEX_FRAMEWORK_REGISTRY_REGISTRY_FORMAT_H

#include <string.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "framework/registry/registry_file.h"

namespace vex {

// Fixed-width fields in the machine's own order: the files never leave the machine, and the magic
// tells a file of the other order.
static_assert(std::endian::native == std::endian::little);

constexpr char kMagic[8] = {'V', 'E', 'X', 'R', 'E', 'G', '1', '\n'};
constexpr uint32_t kVersion = 1;
// The limits of an object; what is larger is neither made nor read.
constexpr size_t kMaxFile = size_t{4} << 20;
constexpr size_t kMaxVariables = 4096;
constexpr size_t kMaxData = size_t{1} << 20;
constexpr size_t kMaxVariableName = 255;

struct FileHeader {
  char magic[8];
  uint32_t version;
  uint32_t var_count;
  uint32_t data_size;
  uint32_t names_size;    // bytes of names behind the descriptor table
  uint32_t slots_offset;  // of slot 0 in the file
  uint32_t slot_size;     // slot 1 follows slot 0 at once
  uint64_t checksum;      // of the header (this field as 0), the table and the names
};
static_assert(sizeof(FileHeader) == 40);

struct FileDescriptor {
  uint32_t size;
  uint32_t offset;
  uint32_t name_offset;  // in the names
  uint16_t name_length;
  uint8_t type;
  uint8_t access;
};
static_assert(sizeof(FileDescriptor) == 16);

// Behind it: one uint16_t current length a variable, padding to a multiple of 8, the data block,
// padding to a multiple of 8. All zero: a slot that was never written.
struct SlotHeader {
  uint64_t sequence;
  int64_t published_ns;
  uint64_t checksum;  // of the slot (this field as 0), begun with the header's checksum
};
static_assert(sizeof(SlotHeader) == 24);

constexpr size_t Padded(size_t n) {
  return (n + 7) & ~size_t{7};
}

constexpr size_t SlotSize(size_t var_count, size_t data_size) {
  return sizeof(SlotHeader) + Padded(2 * var_count) + Padded(data_size);
}

// A field where it stands in a file's bytes, which need not be aligned.
template <typename T>
T Load(const uint8_t *bytes) {
  T value;
  memcpy(&value, bytes, sizeof(value));
  return value;
}

template <typename T>
void Store(uint8_t *bytes, const T &value) {
  memcpy(bytes, &value, sizeof(value));
}

// size is a multiple of 8.
uint64_t RegistryChecksum(const uint8_t *bytes, size_t size, uint64_t seed);

// The newest state that stands whole in a file's bytes; nothing when there is none. *torn: a slot
// is neither whole nor empty, so that a writer may be at work; false when the header is wrong.
std::optional<FileObject> ParseObjectFile(const std::vector<uint8_t> &file, bool *torn);

}  // namespace vex

#endif
