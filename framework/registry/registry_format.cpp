#include "framework/registry/registry_format.h"

#include <string.h>

#include <cstddef>
#include <string>
#include <utility>

namespace vex {

namespace {

// The head of a file, checked; the offsets in it can be trusted.
struct Head {
  FileHeader header;
  std::vector<FileVariable> variables;
};

std::optional<Head> ParseHead(const std::vector<uint8_t> &file) {
  Head head;
  if (file.size() < sizeof(FileHeader)) {
    return std::nullopt;
  }
  head.header = Load<FileHeader>(file.data());
  const FileHeader &h = head.header;
  if (memcmp(h.magic, kMagic, sizeof(kMagic)) != 0 || h.version != kVersion ||
      h.var_count > kMaxVariables || h.data_size > kMaxData || h.names_size > kMaxFile) {
    return std::nullopt;
  }
  const size_t table = sizeof(FileHeader);
  const size_t names = table + size_t{h.var_count} * sizeof(FileDescriptor);
  if (h.slots_offset != Padded(names + h.names_size) || h.slots_offset > file.size() ||
      h.slot_size != SlotSize(h.var_count, h.data_size) ||
      file.size() > size_t{h.slots_offset} + 2 * size_t{h.slot_size}) {
    return std::nullopt;
  }
  std::vector<uint8_t> covered(file.begin(), file.begin() + h.slots_offset);
  Store<uint64_t>(&covered[offsetof(FileHeader, checksum)], 0);
  if (RegistryChecksum(covered.data(), covered.size(), 0) != h.checksum) {
    return std::nullopt;
  }
  head.variables.reserve(h.var_count);
  for (size_t i = 0; i < h.var_count; i++) {
    const auto d = Load<FileDescriptor>(&file[table + i * sizeof(FileDescriptor)]);
    if (d.offset > h.data_size || d.size > h.data_size - d.offset ||
        d.name_length > kMaxVariableName || d.name_offset > h.names_size ||
        d.name_length > h.names_size - d.name_offset) {
      return std::nullopt;
    }
    FileVariable v;
    v.name.assign(reinterpret_cast<const char *>(&file[names]) + d.name_offset, d.name_length);
    v.type = d.type;
    v.access = d.access;
    v.size = d.size;
    v.offset = d.offset;
    // 1 is a 32-bit integer, 2 and 3 are strings, 0 a slot without a variable.
    if (d.type > 3 || (d.type == 1 && d.size != 4) || (d.type == 0 && d.size != 0) ||
        v.name.find('\0') != std::string::npos) {
      return std::nullopt;
    }
    head.variables.push_back(std::move(v));
  }
  return head;
}

enum class SlotState { kEmpty, kBad, kGood };

SlotState CheckSlot(const std::vector<uint8_t> &file, const Head &head, size_t offset) {
  if (offset > file.size() || file.size() - offset < head.header.slot_size) {
    return SlotState::kBad;
  }
  const uint8_t *slot = &file[offset];
  const auto h = Load<SlotHeader>(slot);
  if (h.sequence == 0 && h.published_ns == 0 && h.checksum == 0) {
    return SlotState::kEmpty;
  }
  const uint8_t *lengths = slot + sizeof(SlotHeader);
  SlotHeader covered = h;
  covered.checksum = 0;
  uint64_t sum = RegistryChecksum(reinterpret_cast<const uint8_t *>(&covered), sizeof(covered),
                                  head.header.checksum);
  sum = RegistryChecksum(lengths, head.header.slot_size - sizeof(SlotHeader), sum);
  if (h.sequence == 0 || sum != h.checksum) {
    return SlotState::kBad;
  }
  for (size_t i = 0; i < head.variables.size(); i++) {
    if (Load<uint16_t>(lengths + 2 * i) > head.variables[i].size) {
      return SlotState::kBad;
    }
  }
  return SlotState::kGood;
}

FileObject TakeSlot(const std::vector<uint8_t> &file, Head &&head, size_t offset) {
  const uint8_t *slot = &file[offset];
  const auto h = Load<SlotHeader>(slot);
  const uint8_t *lengths = slot + sizeof(SlotHeader);
  const uint8_t *data = lengths + Padded(2 * head.variables.size());
  FileObject object;
  object.variables = std::move(head.variables);
  for (size_t i = 0; i < object.variables.size(); i++) {
    object.variables[i].length = Load<uint16_t>(lengths + 2 * i);
  }
  object.data.assign(data, data + head.header.data_size);
  object.sequence = h.sequence;
  object.published_ns = h.published_ns;
  return object;
}

}  // namespace

// FNV-1a's scheme on 64-bit words, with a shift that brings the high bits back down.
uint64_t RegistryChecksum(const uint8_t *bytes, size_t size, uint64_t seed) {
  uint64_t h = seed ^ 0xcbf29ce484222325;
  for (size_t i = 0; i < size; i += 8) {
    h = (h ^ Load<uint64_t>(bytes + i)) * 0x9e3779b97f4a7c15;
    h ^= h >> 32;
  }
  return h;
}

std::optional<FileObject> ParseObjectFile(const std::vector<uint8_t> &file, bool *torn) {
  *torn = false;
  std::optional<Head> head = ParseHead(file);
  if (!head) {
    return std::nullopt;
  }
  size_t newest = 0;  // no slot begins there
  uint64_t sequence = 0;
  for (const size_t offset : {size_t{head->header.slots_offset},
                              size_t{head->header.slots_offset} + head->header.slot_size}) {
    const SlotState state = CheckSlot(file, *head, offset);
    *torn = *torn || state == SlotState::kBad;
    if (state == SlotState::kGood && Load<SlotHeader>(&file[offset]).sequence > sequence) {
      sequence = Load<SlotHeader>(&file[offset]).sequence;
      newest = offset;
    }
  }
  if (newest == 0) {
    return std::nullopt;
  }
  return TakeSlot(file, std::move(*head), newest);
}

}  // namespace vex
