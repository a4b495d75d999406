// Names of objects and directories: the one place where they are resolved, by their text alone. For
// libvexcommon and tools.
#ifndef VEX_FRAMEWORK_REGISTRY_REGISTRY_PATH_H
#define VEX_FRAMEWORK_REGISTRY_REGISTRY_PATH_H

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/framework.h"

namespace vex {

// Where the objects lie; a test or tool may work on another root.
inline constexpr char kRegistryRoot[] = REGISTRY_ROOT;

// Resolves an object's name, absolute or relative to the root ("../../kelmo/registry/x/y"
// included), by its text alone, to its path below the root ("host/cpu.0"); nothing when it leads
// outside the root, is the root itself, or is too long. The one place where names are resolved.
std::optional<std::string> ResolveObjectName(std::string_view name,
                                             std::string_view root = kRegistryRoot);

// As ResolveObjectName(), and the root itself is "".
std::optional<std::string> ResolveDirectoryName(std::string_view name, std::string_view root);

// "host/cpu.0" is "host" and "cpu.0"; the parent of "x" is "".
std::pair<std::string, std::string> SplitPath(const std::string &path);

}  // namespace vex

#endif
