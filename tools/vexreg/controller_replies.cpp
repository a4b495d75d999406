#include "tools/vexreg/controller_replies.h"

#include <cstdio>
#include <cstdlib>
#include <map>

#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr std::string_view kRows = "host/fwver";
constexpr char kIntegrated[] = "Integrated Farwatch Firmware";
constexpr char kRemote[] = "Remote Farwatch Firmware";

constexpr size_t kVersionSize = 80;
constexpr size_t kMinor = 16;
constexpr size_t kMajor = 17;
constexpr size_t kGeneration = 68;
struct {
  const char *key;
  char generation;
} constexpr kGenerations[] = {{"ZQ10", 6}, {"ZQ9", 5}, {"ZQ7", 4}, {"ZQ5", 3}};

constexpr size_t kLogicSize = 78;
constexpr size_t kLogicCode = 12;
constexpr char kGoodCode = '\xA1';
struct {
  const char *key;
  size_t position;
  bool is_word;
} constexpr kLogic[] = {
    {"CPLD-Q47-SPI", 14, false},         {"CPLD-Q47-MAINIO", 15, false},
    {"CPLD-Q47-UPPERCPU", 16, false},    {"CPLD-Q47-LOWERCPU", 17, false},
    {"FMP-Q47-UPPERZRB", 18, true},      {"FMP-Q47-LOWERZRB", 22, true},
    {"CPLD-Q47-UPPERZRBFPGA", 26, true}, {"CPLD-Q47-LOWERZRBFPGA", 30, true},
    {"CPLD-Q47-SFF", 34, false},         {"CPLD-Q47-PCIEIO", 35, false},
    {"pciex_io_cpld", 36, false},
};

std::map<std::string, std::string> TextsOf(const FileObject &object) {
  std::map<std::string, std::string> texts;
  for (const FileVariable &variable : object.variables) {
    if (const auto bytes = BytesOf(object, variable)) {
      texts[variable.name] = std::string(*bytes);
    }
  }
  return texts;
}

std::string VersionReply(const std::string &version, const std::string &key) {
  int major = 0;
  int minor = 0;
  if (sscanf(version.c_str(), "%d.%d", &major, &minor) != 2) {
    return "";
  }
  std::string reply(kVersionSize, '\0');
  reply[kMajor] = static_cast<char>(major);
  reply[kMinor] = static_cast<char>(minor);
  for (const auto &one : kGenerations) {
    if (key == one.key) {
      reply[kGeneration] = one.generation;
    }
  }
  return reply;
}

void AddLogic(const std::string &version, const std::string &key, std::string *reply) {
  for (const auto &one : kLogic) {
    if (key != one.key) {
      continue;
    }
    if (reply->empty()) {
      reply->assign(kLogicSize, '\0');
      (*reply)[kLogicCode] = kGoodCode;
    }
    unsigned parts[3] = {};
    if (!one.is_word) {
      (*reply)[one.position] = static_cast<char>(strtoul(version.c_str(), nullptr, 16));
    } else if (sscanf(version.c_str(), "%x.%x.%x", &parts[2], &parts[1], &parts[0]) == 3) {
      for (size_t i = 0; i < 3; i++) {
        (*reply)[one.position + i] = static_cast<char>(parts[i]);
      }
      // A word of zeros would be no version.
      (*reply)[one.position + 3] = 1;
    }
  }
}

}  // namespace

ControllerReplies RepliesFor(const std::vector<NamedObject> &objects) {
  ControllerReplies replies;
  for (const NamedObject &named : objects) {
    if (!named.name.starts_with(kRows)) {
      continue;
    }
    auto texts = TextsOf(named.object);
    const std::string &name = texts["tlxHoFwVerDisplayName"];
    const std::string &version = texts["tlxHoFwVerVersion"];
    const std::string &key = texts["tlxHoFwVerKeyString"];
    if (name == kIntegrated) {
      replies.version = VersionReply(version, key);
    } else if (name == kRemote) {
      replies.card = VersionReply(version, key);
    } else {
      AddLogic(version, key, &replies.logic);
    }
  }
  return replies;
}

}  // namespace vex
