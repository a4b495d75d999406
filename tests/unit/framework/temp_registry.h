// A registry root of a test's own, removed with everything in it at the end.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_TEMP_REGISTRY_H
#define VEX_TESTS_UNIT_FRAMEWORK_TEMP_REGISTRY_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace vex {

class TempRegistry {
 public:
  TempRegistry() {
    char name[] = "/tmp/vexregistry.XXXXXX";
    base_ = mkdtemp(name);
    root_ = base_ + "/spool/registry";
    std::filesystem::create_directories(root_);
  }
  ~TempRegistry() {
    std::error_code ignored;
    std::filesystem::remove_all(base_, ignored);
  }
  TempRegistry(const TempRegistry &) = delete;
  TempRegistry &operator=(const TempRegistry &) = delete;

  const std::string &base() const {
    return base_;
  }
  const std::string &root() const {
    return root_;
  }
  std::string Path(const std::string &name) const {
    return root_ + "/" + name;
  }

 private:
  std::string base_;
  std::string root_;
};

inline std::vector<uint8_t> ReadBytes(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void WriteBytes(const std::string &path, const std::vector<uint8_t> &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

// The signals of a mask as /proc/self/status prints it, without the two real-time ones that are the
// C library's own (it neither blocks nor sets them, whatever it is asked).
inline unsigned long long Signals(const std::string &hex) {
  return strtoull(hex.c_str(), nullptr, 16) & ~0x180000000ULL;
}

}  // namespace vex

#endif
