// The reader of a package query's output, and of the listing, on any text.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/require.h"
#include "software/packages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) {
    return 0;
  }
  FILE *stream = fmemopen(const_cast<uint8_t *>(data), size, "r");
  Require(stream != nullptr);
  package_answer answer;
  const int result = read_package_answer(stream, &answer);
  fclose(stream);
  Require(result == 0 || result == -1);
  const char *const texts[] = {answer.name, answer.version, answer.description,
                               answer.architecture};
  for (const char *text : texts) {
    if (text == nullptr) {
      continue;
    }
    // Within the answer, and ended there.
    Require(text >= answer.texts && text < answer.texts + sizeof(answer.texts));
    Require(memchr(text, '\0', static_cast<size_t>(answer.texts + sizeof(answer.texts) - text)) !=
            nullptr);
  }

  std::vector<char> listing(data, data + size);
  const char *names[16];
  const int count = split_listing(listing.data(), listing.size(), names, 16);
  Require(count >= 0 && count <= 16);
  for (int i = 0; i < count; i++) {
    const char *end = static_cast<const char *>(
        memchr(names[i], '\0', static_cast<size_t>(listing.data() + listing.size() - names[i])));
    Require(end != nullptr);
  }
  return 0;
}
