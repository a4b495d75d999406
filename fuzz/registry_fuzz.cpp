// Bytes of a sibling's registry file. Each input is read as it is, and once more with its checksums
// made right, so that what lies behind them is reached.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>

#include "framework/registry/registry_format.h"

namespace {

// What a reader relies on.
void Check(const std::vector<uint8_t> &file) {
  bool torn = false;
  const std::optional<vex::FileObject> object = vex::ParseObjectFile(file, &torn);
  if (!object) {
    return;
  }
  for (const vex::FileVariable &v : object->variables) {
    if (v.offset > object->data.size() || v.size > object->data.size() - v.offset ||
        v.length > v.size || v.type > 3 || (v.type == 1 && v.size != 4) ||
        v.name.size() > vex::kMaxVariableName || v.name.find('\0') != std::string::npos) {
      __builtin_trap();
    }
  }
}

void Repair(std::vector<uint8_t> &file) {
  vex::FileHeader header;
  if (file.size() < sizeof(header)) {
    return;
  }
  memcpy(file.data(), vex::kMagic, sizeof(vex::kMagic));
  memcpy(&header, file.data(), sizeof(header));
  header.version = vex::kVersion;
  header.var_count %= 64;
  header.data_size %= 4096;
  header.names_size %= 1024;
  header.slots_offset = static_cast<uint32_t>(vex::Padded(
      sizeof(header) + header.var_count * sizeof(vex::FileDescriptor) + header.names_size));
  header.slot_size = static_cast<uint32_t>(vex::SlotSize(header.var_count, header.data_size));
  header.checksum = 0;
  file.resize(header.slots_offset + 2 * size_t{header.slot_size});
  memcpy(file.data(), &header, sizeof(header));
  header.checksum = vex::RegistryChecksum(file.data(), header.slots_offset, 0);
  memcpy(file.data(), &header, sizeof(header));
  for (int i = 0; i < 2; i++) {
    uint8_t *slot = &file[header.slots_offset + static_cast<size_t>(i) * header.slot_size];
    vex::SlotHeader h;
    memcpy(&h, slot, sizeof(h));
    h.checksum = 0;
    uint64_t sum =
        vex::RegistryChecksum(reinterpret_cast<const uint8_t *>(&h), sizeof(h), header.checksum);
    h.checksum = vex::RegistryChecksum(slot + sizeof(h), header.slot_size - sizeof(h), sum);
    memcpy(slot, &h, sizeof(h));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<uint8_t> file(data, data + size);
  Check(file);
  Repair(file);
  Check(file);
  return 0;
}
