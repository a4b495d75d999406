// vexreg: names and variables as they are given to `put`, and any object shown, dumped and watched:
// nothing of it reaches a terminal as more than text. The input is lines; the first is a name, the
// last one a data block when it begins with '='.
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz/require.h"
#include "tools/vexreg/changes.h"
#include "tools/vexreg/host_facts.h"
#include "tools/vexreg/names.h"
#include "tools/vexreg/open_metrics.h"
#include "tools/vexreg/put.h"
#include "tools/vexreg/tables.h"
#include "tools/vexreg/values.h"

namespace vex {
// Of framework/registry/registry_format.h, whose other names are those of put.h too.
std::optional<FileObject> ParseObjectFile(const std::vector<uint8_t> &file, bool *torn);
}  // namespace vex

namespace {

void RequirePlain(const std::string &text) {
  for (size_t i = 0; i < text.size(); i++) {
    const auto byte = static_cast<unsigned char>(text[i]);
    Require((byte >= 0x20 || byte == '\n') && byte != 0x7F);
    Require(byte != 0xC2 || static_cast<unsigned char>(text.at(i + 1)) >= 0xA0);
  }
}

void Show(const std::string &name, const vex::FileObject &object) {
  const std::vector<vex::NamedObject> objects = {{name, object}, {name + ".1", object}};
  RequirePlain(vex::RenderTables(objects, 0));
  RequirePlain(vex::RenderTables(objects, 40));
  vex::Style style;
  style.words = style.bars = true;
  RequirePlain(vex::RenderTables(objects, 0, style));
  RequirePlain(vex::RenderTables(objects, 40, style));
  const std::string metrics = vex::OpenMetrics({{"host/filesys.1", object}, {"host/info", object}});
  RequirePlain(metrics);
  Require(metrics.ends_with("# EOF\n"));
  const nlohmann::ordered_json json = vex::ObjectJson(object);
  const std::string text = vex::SafeJson(json.dump(2));
  RequirePlain(text);
  Require(nlohmann::ordered_json::parse(text) == json);
  for (const std::string &line : vex::ChangeLines(name, nullptr, &object)) {
    RequirePlain(line);
    Require(line.find('\n') == std::string::npos);
  }
  vex::FileObject other = object;
  for (uint8_t &byte : other.data) {
    byte ^= 0x80;
  }
  for (const std::string &line : vex::ChangeLines(name, &object, &other)) {
    RequirePlain(line);
  }
}

}  // namespace

const char *agent = "fuzz";

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<std::string> lines(1);
  for (size_t i = 0; i < size; i++) {
    if (data[i] == '\n') {
      lines.emplace_back();
    } else {
      lines.back() += static_cast<char>(data[i]);
    }
  }
  const std::string name = lines.front();
  lines.erase(lines.begin());
  RequirePlain(vex::SafeText(name));
  (void)vex::NearestName(name, {"host/cpu.0", "host/memory", name});
  const auto relative = vex::ResolveObjectName(name);
  if (relative) {
    Require(!relative->empty() && relative->front() != '/' && relative->front() != '.' &&
            relative->find("/.") == std::string::npos &&
            relative->find("//") == std::string::npos && relative->find('\0') == std::string::npos);
    Require(vex::ResolveObjectName(*relative) == relative);
  }
  (void)vex::CountConnections(std::string(reinterpret_cast<const char *>(data), size), "/socket");

  std::optional<std::vector<uint8_t>> block;
  if (!lines.empty() && lines.back().starts_with('=')) {
    block.emplace(lines.back().begin() + 1, lines.back().end());
    lines.pop_back();
  }
  std::string error;
  auto object = vex::MakeObject(lines, block, &error);
  Require(object.has_value() == error.empty());
  if (object) {
    for (vex::FileVariable &v : object->variables) {
      Require(v.offset <= object->data.size() && v.size <= object->data.size() - v.offset);
      v.name = name + v.name;
    }
    Show(name, *object);
  }
  bool torn = false;
  object = vex::ParseObjectFile({data, data + size}, &torn);
  if (object) {
    Show("file/name", *object);
  }
  return 0;
}
