// The live objects of this process, as the rest of the framework uses them. Agent thread only.
#ifndef VEX_FRAMEWORK_REGISTRY_OBJECTS_H
#define VEX_FRAMEWORK_REGISTRY_OBJECTS_H

#include <cstdint>
#include <string>

#include "framework/snmp/set_channel.h"
#include "platform/framework.h"

namespace vex {

// The registry's root; tests and benchmarks work on one of their own, before the first object.
const std::string &RegistryRootPath();
void UseRegistryRoot(std::string root);

// The runner for ServeSets(): see there.
int RunSet(uint8_t phase, SetItem &item);

// Makes good what was lost since the poll before, at the cost of one statx(2) an object: publishes
// what could not be published, sees to it that the registry's path leads to the directory that the
// files are written to, and writes again the files that are stale, gone or damaged, with the values
// last published. Called after each poll.
void RetryFiles();

// Whether this is an object that create_obj() returned and delete_obj() did not release yet.
bool IsLive(const registry_object *object);

// The bytes of a variable that count: text up to its end, octets up to the current length.
size_t CurrentLength(const descriptor &variable);

}  // namespace vex

#endif
