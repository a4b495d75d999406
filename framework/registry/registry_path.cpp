#include "framework/registry/registry_path.h"

#include <algorithm>
#include <vector>

namespace vex {

namespace {

// Of a component of an object's name: room for what a temporary name adds within NAME_MAX.
constexpr size_t kMaxComponent = 200;
constexpr size_t kMaxRelative = 1024;

}  // namespace

std::pair<std::string, std::string> SplitPath(const std::string &path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return {"", path};
  }
  return {path.substr(0, slash), path.substr(slash + 1)};
}

std::optional<std::string> ResolveDirectoryName(std::string_view name, std::string_view root) {
  if (name.empty() || name.size() > 4 * kMaxRelative || name.find('\0') != name.npos) {
    return std::nullopt;
  }
  std::vector<std::string_view> path;
  auto append = [&path](std::string_view text) {
    while (!text.empty()) {
      const size_t slash = text.find('/');
      const std::string_view component = text.substr(0, slash);
      if (component == "..") {
        if (!path.empty()) {
          path.pop_back();  // above "/" is "/"
        }
      } else if (!component.empty() && component != ".") {
        path.push_back(component);
      }
      text = slash == text.npos ? std::string_view() : text.substr(slash + 1);
    }
  };
  append(root);
  const std::vector<std::string_view> base = path;
  if (name.front() == '/') {
    path.clear();
  }
  append(name);
  if (path.size() < base.size() || !std::equal(base.begin(), base.end(), path.begin())) {
    return std::nullopt;
  }
  std::string relative;
  for (size_t i = base.size(); i < path.size(); i++) {
    if (path[i].size() > kMaxComponent || path[i].front() == '.') {
      return std::nullopt;
    }
    if (!relative.empty()) {
      relative += '/';
    }
    relative += path[i];
  }
  if (relative.size() > kMaxRelative) {
    return std::nullopt;
  }
  return relative;
}

std::optional<std::string> ResolveObjectName(std::string_view name, std::string_view root) {
  std::optional<std::string> relative = ResolveDirectoryName(name, root);
  return relative && !relative->empty() ? std::move(relative) : std::nullopt;
}

}  // namespace vex
