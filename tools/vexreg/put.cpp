#include "tools/vexreg/put.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "framework/registry/registry_format.h"
#include "platform/framework.h"

namespace vex {
namespace {

// The whole text as a number that the type can hold; nothing otherwise.
template <typename Number>
std::optional<Number> ParseNumber(std::string_view text) {
  Number number = 0;
  const char *end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) {
    return std::nullopt;
  }
  return number;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::optional<std::vector<uint8_t>> ParseHex(std::string_view text) {
  if (text.size() % 2 != 0) {
    return std::nullopt;
  }
  std::vector<uint8_t> bytes;
  bytes.reserve(text.size() / 2);
  for (size_t i = 0; i < text.size(); i += 2) {
    const int high = HexDigit(text[i]);
    const int low = HexDigit(text[i + 1]);
    if (high < 0 || low < 0) {
      return std::nullopt;
    }
    bytes.push_back(static_cast<uint8_t>(high << 4 | low));
  }
  return bytes;
}

// One variable and its field in the data block.
struct Value {
  uint8_t type;
  std::vector<uint8_t> field;
};

std::optional<Value> ParseInteger(std::string_view text, std::string *error) {
  const auto number = ParseNumber<int32_t>(text);
  if (!number) {
    *error = "not a whole number from -2147483648 to 2147483647";
    return std::nullopt;
  }
  Value value{VAR_INTEGER, std::vector<uint8_t>(sizeof(*number))};
  std::memcpy(value.field.data(), &*number, sizeof(*number));
  return value;
}

std::optional<Value> ParseText(std::string_view text, std::string *error) {
  const size_t colon = text.find(':');
  const auto size = ParseNumber<uint32_t>(text.substr(0, colon));
  if (colon == std::string_view::npos || !size || *size == 0 || *size > kMaxData) {
    *error = "the form is str:SIZE:TEXT with a SIZE from 1 to " + std::to_string(kMaxData);
    return std::nullopt;
  }
  text.remove_prefix(colon + 1);
  if (text.size() > *size - 1) {
    *error =
        "the text is longer than " + std::to_string(*size - 1) + (*size == 2 ? " byte" : " bytes");
    return std::nullopt;
  }
  Value value{VAR_DISPLAY_STRING, std::vector<uint8_t>(*size)};
  std::memcpy(value.field.data(), text.data(), text.size());
  return value;
}

std::optional<Value> ParseOctets(std::string_view text, std::string *error) {
  auto octets = ParseHex(text);
  if (!octets || octets->empty() || octets->size() > UINT16_MAX) {
    *error = "not an even number of hexadecimal digits for 1 to 65535 octets";
    return std::nullopt;
  }
  return Value{VAR_OCTET_STRING, std::move(*octets)};
}

std::optional<Value> ParseValue(std::string_view text, std::string *error) {
  const std::string_view kind = text.substr(0, 4);
  const std::string_view rest = text.substr(kind.size());
  if (kind == "int:") {
    return ParseInteger(rest, error);
  }
  if (kind == "str:") {
    return ParseText(rest, error);
  }
  if (kind == "hex:") {
    return ParseOctets(rest, error);
  }
  *error = "a variable is int:N, str:SIZE:TEXT or hex:HEX";
  return std::nullopt;
}

}  // namespace

std::optional<FileObject> MakeObject(const std::vector<std::string> &texts,
                                     const std::optional<std::vector<uint8_t>> &data,
                                     std::string *error) {
  if (texts.size() > kMaxVariables) {
    *error = "more than " + std::to_string(kMaxVariables) + " variables";
    return std::nullopt;
  }
  FileObject object;
  for (const std::string &text : texts) {
    const auto value = ParseValue(text, error);
    if (!value) {
      *error = text + ": " + *error;
      return std::nullopt;
    }
    FileVariable variable;
    variable.name = "var" + std::to_string(object.variables.size());
    variable.type = value->type;
    variable.access = ACCESS_READ_ONLY;
    variable.size = static_cast<uint32_t>(value->field.size());
    variable.offset = static_cast<uint32_t>(object.data.size());
    variable.length = static_cast<uint16_t>(std::min<size_t>(value->field.size(), UINT16_MAX));
    object.variables.push_back(std::move(variable));
    object.data.insert(object.data.end(), value->field.begin(), value->field.end());
    if (object.data.size() > kMaxData) {
      break;
    }
  }
  if (data) {
    if (data->size() < object.data.size()) {
      *error = "the data block has " + std::to_string(data->size()) +
               " bytes, fewer than the variables need";
      return std::nullopt;
    }
    object.data = *data;
  }
  if (object.data.size() > kMaxData) {
    *error = "the data block is larger than " + std::to_string(kMaxData) + " bytes";
    return std::nullopt;
  }
  return object;
}

}  // namespace vex
