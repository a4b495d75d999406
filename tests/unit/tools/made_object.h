// Objects for tests, packed like an agent's.
#ifndef VEX_TESTS_UNIT_TOOLS_MADE_OBJECT_H
#define VEX_TESTS_UNIT_TOOLS_MADE_OBJECT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/registry/registry_file.h"
#include "platform/framework.h"

struct MadeVariable {
  std::string name;
  uint8_t type;
  std::string bytes;  // the whole field
  size_t length;      // current length
};

inline MadeVariable Int(const std::string &name, int32_t value) {
  return {name, VAR_INTEGER, std::string(reinterpret_cast<const char *>(&value), sizeof(value)),
          sizeof(value)};
}

inline MadeVariable Text(const std::string &name, size_t size, std::string text) {
  text.resize(size);
  return {name, VAR_DISPLAY_STRING, text, size};
}

inline MadeVariable Octets(const std::string &name, size_t size, std::string octets) {
  const size_t length = octets.size();
  octets.resize(size, 'Z');
  return {name, VAR_OCTET_STRING, octets, length};
}

inline vex::FileObject MadeObject(const std::vector<MadeVariable> &made) {
  vex::FileObject object;
  for (const MadeVariable &m : made) {
    vex::FileVariable variable;
    variable.name = m.name;
    variable.type = m.type;
    variable.access = ACCESS_READ_ONLY;
    variable.size = static_cast<uint32_t>(m.bytes.size());
    variable.offset = static_cast<uint32_t>(object.data.size());
    variable.length = static_cast<uint16_t>(m.length);
    object.variables.push_back(variable);
    object.data.insert(object.data.end(), m.bytes.begin(), m.bytes.end());
  }
  return object;
}

// As an agent publishes it.
inline void PublishMade(const std::string &root, const std::string &name,
                        const vex::FileObject &object) {
  std::vector<uint16_t> lengths;
  for (const vex::FileVariable &variable : object.variables) {
    lengths.push_back(variable.length);
  }
  vex::ObjectFileWriter writer(name, root);
  writer.SetLayout(object.variables, static_cast<uint32_t>(object.data.size()));
  ASSERT_EQ(writer.Publish(object.data.data(), lengths.data()), 0);
}

#endif
