#include "tests/support/failing_zstd.h"

#include <zstd.h>

namespace vex {

std::string_view failing_zstd_call;

}  // namespace vex

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {

ZSTD_DCtx *__real_ZSTD_createDCtx();
ZSTD_DCtx *__wrap_ZSTD_createDCtx() {
  return vex::failing_zstd_call == "ZSTD_createDCtx" ? nullptr : __real_ZSTD_createDCtx();
}

ZSTD_CCtx *__real_ZSTD_createCCtx();
ZSTD_CCtx *__wrap_ZSTD_createCCtx() {
  return vex::failing_zstd_call == "ZSTD_createCCtx" ? nullptr : __real_ZSTD_createCCtx();
}

size_t __real_ZSTD_DCtx_setParameter(ZSTD_DCtx *context, ZSTD_dParameter parameter, int value);
size_t __wrap_ZSTD_DCtx_setParameter(ZSTD_DCtx *context, ZSTD_dParameter parameter, int value) {
  return vex::failing_zstd_call == "ZSTD_DCtx_setParameter"
             ? static_cast<size_t>(-1)
             : __real_ZSTD_DCtx_setParameter(context, parameter, value);
}

size_t __real_ZSTD_compress2(ZSTD_CCtx *context, void *to, size_t room, const void *from,
                             size_t size);
size_t __wrap_ZSTD_compress2(ZSTD_CCtx *context, void *to, size_t room, const void *from,
                             size_t size) {
  return vex::failing_zstd_call == "ZSTD_compress2"
             ? static_cast<size_t>(-1)
             : __real_ZSTD_compress2(context, to, room, from, size);
}
}
// NOLINTEND(bugprone-reserved-identifier)
