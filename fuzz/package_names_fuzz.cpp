// What a package's name and architecture become: two texts with a zero between them.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/require.h"
#include "software/packages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input(reinterpret_cast<const char *>(data), size);
  const std::string name = input.c_str();
  const std::string architecture =
      name.size() < input.size() ? input.substr(name.size() + 1).c_str() : "";

  const int package_class = classify_package(name.c_str());
  const int type = package_class % 256;
  Require(package_class == 0 || type == 2 || type == 3 || type == 5);
  Require(package_class / 256 <= 2);
  if (check_package_name(name.c_str()) == NAME_USABLE) {
    Require(!name.empty() && name.size() <= 89);
    Require(name.find_first_of(" \t\n;|&$`'\"\\<>()*?[]{}!#/") == std::string::npos);
  }
  for (int origin = 0; origin <= 2; origin++) {
    char decorated[decorated_size];
    memset(decorated, 'x', sizeof(decorated));
    decorate_name(decorated, name.c_str(), architecture.c_str(), origin);
    const size_t length = strnlen(decorated, sizeof(decorated));
    Require(length < sizeof(decorated));
    const size_t kept = name.size() < sizeof(decorated) - 1 ? name.size() : sizeof(decorated) - 1;
    Require(strncmp(decorated, name.c_str(), kept) == 0);
    Require(origin != 0 || length == kept);
  }
  return 0;
}
