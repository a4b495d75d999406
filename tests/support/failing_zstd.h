// Calls of the compressor that fail when a test wants it.
#ifndef VEX_TESTS_SUPPORT_FAILING_ZSTD_H
#define VEX_TESTS_SUPPORT_FAILING_ZSTD_H

#include <string_view>

namespace vex {

// The one that fails now, as without memory; none when empty.
extern std::string_view failing_zstd_call;

}  // namespace vex

#endif
