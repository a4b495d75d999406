#include "framework/snmp/oid_text.h"

#include <charconv>

namespace vex {
namespace {

constexpr std::string_view kEnterprises = "enterprises";
constexpr uint32_t kEnterprisesOid[] = {1, 3, 6, 1, 4, 1};

}  // namespace

std::optional<std::vector<uint32_t>> ParseOid(std::string_view text) {
  std::vector<uint32_t> oid;
  if (text.starts_with(kEnterprises)) {
    text.remove_prefix(kEnterprises.size());
    oid.assign(std::begin(kEnterprisesOid), std::end(kEnterprisesOid));
    if (text.empty()) {
      return oid;
    }
    if (text.front() != '.') {
      return std::nullopt;
    }
  }
  if (!text.empty() && text.front() == '.') {
    text.remove_prefix(1);
  }
  // from_chars takes digits only: no sign, no blank, no overflow.
  const char *at = text.data();
  const char *end = text.data() + text.size();
  while (true) {
    uint32_t number = 0;
    auto [next, error] = std::from_chars(at, end, number);
    if (error != std::errc() || oid.size() == kMaxOidLength) {
      return std::nullopt;
    }
    oid.push_back(number);
    if (next == end) {
      break;
    }
    if (*next != '.') {
      return std::nullopt;
    }
    at = next + 1;
  }
  // BER packs the first two into one number: X.690, 8.19.4.
  if (oid.size() < 2 || oid[0] > 2 || (oid[0] < 2 && oid[1] > 39)) {
    return std::nullopt;
  }
  return oid;
}

}  // namespace vex
