// TruthValue of the MIB modules (RFC 2579).
#ifndef VEX_DETAIL_TRUTH_H
#define VEX_DETAIL_TRUTH_H

#include <stdint.h>

constexpr int32_t truth_value(bool holds) {
  return holds ? 1 : 2;
}

#endif
