#include "hardware/kelmointrfc/smbios_tables.h"

#include <algorithm>
#include <cstring>

namespace vex {
namespace {

constexpr size_t kHeaderSize = 4;     // type, length, handle
constexpr uint8_t kEndOfTable = 127;  // structure type

// What an entry point says about the table.
struct EntryPoint {
  size_t length = 0;         // of the table in bytes; 3.x: at most
  size_t count = 0;          // of structures; 0: not known
  bool length_exact = true;  // false: the table may be shorter
  bool ends_at_127 = false;  // 3.x: nothing after the end-of-table structure is part of the table
};

size_t Word(std::span<const uint8_t> bytes, size_t at) {
  return bytes[at] | static_cast<size_t>(bytes[at + 1]) << 8;
}

bool StartsWith(std::span<const uint8_t> bytes, const char *anchor) {
  const size_t n = strlen(anchor);
  return bytes.size() >= n && memcmp(bytes.data(), anchor, n) == 0;
}

// The octets of an entry point add up to zero.
bool SumsToZero(std::span<const uint8_t> bytes) {
  uint8_t sum = 0;
  for (const uint8_t b : bytes) {
    sum = static_cast<uint8_t>(sum + b);
  }
  return sum == 0;
}

// "_DMI_": the 15 octets that also end the 2.x entry point.
std::optional<EntryPoint> ParseIntermediate(std::span<const uint8_t> bytes) {
  constexpr size_t kSize = 15;
  if (!StartsWith(bytes, "_DMI_") || bytes.size() < kSize || !SumsToZero(bytes.first(kSize))) {
    return std::nullopt;
  }
  EntryPoint entry;
  entry.length = Word(bytes, 6);
  entry.count = Word(bytes, 12);
  return entry;
}

std::optional<EntryPoint> ParseEntryPoint(std::span<const uint8_t> bytes) {
  if (StartsWith(bytes, "_SM3_")) {
    constexpr size_t kSize = 24;
    if (bytes.size() < kSize || bytes[6] < kSize || bytes[6] > bytes.size() ||
        !SumsToZero(bytes.first(bytes[6]))) {
      return std::nullopt;
    }
    EntryPoint entry;
    entry.length = Word(bytes, 12) | Word(bytes, 14) << 16;
    entry.length_exact = false;
    entry.ends_at_127 = true;
    return entry;
  }
  if (StartsWith(bytes, "_SM_")) {
    constexpr size_t kSize = 31;
    // Version 2.1 gave this length as one less than it is.
    if (bytes.size() < kSize || bytes[5] < kSize - 1 || bytes[5] > bytes.size() ||
        !SumsToZero(bytes.first(bytes[5]))) {
      return std::nullopt;
    }
    return ParseIntermediate(bytes.subspan(16));
  }
  return ParseIntermediate(bytes);
}

}  // namespace

std::optional<SmbiosTables> SmbiosTables::Parse(std::span<const uint8_t> entry,
                                                std::span<const uint8_t> table,
                                                const char **problem) {
  const std::optional<EntryPoint> point = ParseEntryPoint(entry);
  if (!point) {
    *problem = "malformed entry point";
    return std::nullopt;
  }
  if (table.size() > kMaxSmbiosTable) {
    *problem = "table too large";
    return std::nullopt;
  }
  const bool cut = point->length_exact && table.size() < point->length;
  table = table.first(std::min(table.size(), point->length));

  SmbiosTables result;
  result.bytes_.assign(table.begin(), table.end());
  const std::vector<uint8_t> &bytes = result.bytes_;
  size_t at = 0;
  size_t records = 0;
  bool ended = false;  // by the number of records or the end-of-table record
  while (at < bytes.size()) {
    const size_t left = bytes.size() - at;
    const size_t formatted = left < kHeaderSize ? 0 : bytes[at + 1];
    // The strings end with the first two zeros in a row, which stand there without strings too.
    size_t end = at + formatted;
    while (formatted >= kHeaderSize && end + 2 <= bytes.size() &&
           (bytes[end] != 0 || bytes[end + 1] != 0)) {
      end++;
    }
    if (formatted < kHeaderSize || end + 2 > bytes.size()) {
      if (ended) {
        break;  // padding behind the end-of-table record
      }
      *problem = "truncated or malformed record";
      return std::nullopt;
    }
    const uint8_t type = bytes[at];
    result.offsets_[type].push_back(static_cast<uint32_t>(at));
    records++;
    at = end + 2;
    ended = ended || type == kEndOfTable || records == point->count;
    if (records == point->count || (type == kEndOfTable && point->ends_at_127)) {
      break;
    }
  }
  if (records == 0) {
    *problem = "no records";
    return std::nullopt;
  }
  if (cut && !ended) {
    *problem = "table shorter than its entry point says";
    return std::nullopt;
  }
  return result;
}

const uint8_t *SmbiosTables::Record(int type, int instance) const {
  if (type < 0 || type > 255 || instance < 0) {
    return nullptr;
  }
  const std::vector<uint32_t> &of_type = offsets_[static_cast<size_t>(type)];
  if (static_cast<size_t>(instance) >= of_type.size()) {
    return nullptr;
  }
  return &bytes_[of_type[static_cast<size_t>(instance)]];
}

const char *SmbiosTables::String(const uint8_t *record, int number) const {
  if (record == nullptr || number < 1) {
    return "";
  }
  const auto first = reinterpret_cast<uintptr_t>(bytes_.data());
  const auto place = reinterpret_cast<uintptr_t>(record);
  if (place < first || place >= first + bytes_.size()) {
    return "";
  }
  const std::vector<uint32_t> &of_type = offsets_[*record];
  if (!std::binary_search(of_type.begin(), of_type.end(), static_cast<uint32_t>(place - first))) {
    return "";
  }
  // Parse() saw the double zero that ends this walk.
  const char *text = reinterpret_cast<const char *>(record + record[1]);
  if (text[0] == 0 && text[1] == 0) {
    return "";
  }
  for (; number > 1; number--) {
    text += strlen(text) + 1;
    if (*text == 0) {
      return "";
    }
  }
  return text;
}

}  // namespace vex
