#include "tools/vexreg/values.h"

#include <time.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>

#include "platform/framework.h"

namespace vex {
namespace {

// The length of the UTF-8 sequence (RFC 3629) that begins here; 0 when none does.
size_t SequenceLength(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(0);
  if (first < 0x80) {
    return 1;
  }
  size_t length = 0;
  // The second byte's range excludes overlong forms, surrogates and what lies above U+10FFFF.
  unsigned low = 0x80;
  unsigned high = 0xBF;
  if (first >= 0xC2 && first <= 0xDF) {
    length = 2;
  } else if (first >= 0xE0 && first <= 0xEF) {
    length = 3;
    low = first == 0xE0 ? 0xA0 : low;
    high = first == 0xED ? 0x9F : high;
  } else if (first >= 0xF0 && first <= 0xF4) {
    length = 4;
    low = first == 0xF0 ? 0x90 : low;
    high = first == 0xF4 ? 0x8F : high;
  }
  if (length == 0 || text.size() < length || byte(1) < low || byte(1) > high) {
    return 0;
  }
  for (size_t i = 2; i < length; i++) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) {
      return 0;
    }
  }
  return length;
}

bool IsWithin(const FileObject &object, const FileVariable &variable) {
  return variable.offset <= object.data.size() &&
         variable.size <= object.data.size() - variable.offset;
}

}  // namespace

std::string Utf8(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    size_t length = SequenceLength(bytes);
    if (length > 0) {
      text.append(bytes.substr(0, length));
    } else {
      const auto byte = static_cast<unsigned char>(bytes[0]);
      text += static_cast<char>(0xC0 | byte >> 6);
      text += static_cast<char>(0x80 | (byte & 0x3F));
      length = 1;
    }
    bytes.remove_prefix(length);
  }
  return text;
}

std::optional<int32_t> IntegerOf(const FileObject &object, const FileVariable &variable) {
  int32_t value = 0;
  if (variable.type != VAR_INTEGER || variable.size != sizeof(value) ||
      !IsWithin(object, variable)) {
    return std::nullopt;
  }
  std::memcpy(&value, object.data.data() + variable.offset, sizeof(value));
  return value;
}

std::optional<std::string_view> BytesOf(const FileObject &object, const FileVariable &variable) {
  if (!IsWithin(object, variable)) {
    return std::nullopt;
  }
  const std::string_view field(reinterpret_cast<const char *>(object.data.data()) + variable.offset,
                               variable.size);
  if (variable.type == VAR_DISPLAY_STRING) {
    return field.substr(0, field.find('\0'));
  }
  if (variable.type == VAR_OCTET_STRING) {
    return field.substr(0, variable.length);
  }
  return field;
}

std::string Hex(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
  return text;
}

namespace {

// What print() makes of the local time, as strftime(3); the number where there is no such time.
template <typename Print>
std::string FormattedTime(int64_t seconds, const Print &print) {
  const time_t time = seconds;
  tm local = {};
  char text[64];
  return localtime_r(&time, &local) != nullptr && print(text, sizeof(text), &local) > 0
             ? text
             : std::to_string(seconds);
}

}  // namespace

std::string TimeText(int64_t seconds) {
  return FormattedTime(seconds, [](char *text, size_t size, const tm *local) {
    return strftime(text, size, "%Y-%m-%d %H:%M:%S", local);
  });
}

std::string ZonedTimeText(int64_t seconds) {
  return FormattedTime(seconds, [](char *text, size_t size, const tm *local) {
    return strftime(text, size, "%Y-%m-%d %H:%M:%S %Z", local);
  });
}

std::string IsoTime(int64_t seconds) {
  std::string text = FormattedTime(seconds, [](char *to, size_t size, const tm *local) {
    return strftime(to, size, "%Y-%m-%dT%H:%M:%S%z", local);
  });
  constexpr size_t kMinutes = 2;  // of the offset, which ISO 8601 has a colon before
  const bool is_time = text.find('T') != std::string::npos;
  return is_time ? text.insert(text.size() - kMinutes, ":") : text;
}

nlohmann::ordered_json ValueJson(const FileObject &object, const FileVariable &variable) {
  if (variable.type == VAR_INTEGER) {
    const auto value = IntegerOf(object, variable);
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json();
  }
  const auto bytes = BytesOf(object, variable);
  if (!bytes) {
    return nullptr;
  }
  return variable.type == VAR_DISPLAY_STRING ? Utf8(*bytes) : Hex(*bytes);
}

nlohmann::ordered_json ObjectJson(const FileObject &object,
                                  nlohmann::ordered_json (*value)(const FileObject &,
                                                                  const FileVariable &)) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  // The members are appended: looking each name up in an ordered_json would be quadratic.
  auto &members = json.get_ref<nlohmann::ordered_json::object_t &>();
  std::set<std::string> names;
  for (size_t slot = 0; slot < object.variables.size(); slot++) {
    const FileVariable &variable = object.variables[slot];
    if (variable.type == 0) {
      continue;
    }
    std::string name = Utf8(variable.name);
    while (!names.insert(name).second) {
      name += "#" + std::to_string(slot);
    }
    members.push_back({name, value(object, variable)});
  }
  return json;
}

}  // namespace vex
