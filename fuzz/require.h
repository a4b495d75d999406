// What a fuzzer holds to be true of any input.
#ifndef VEX_FUZZ_REQUIRE_H
#define VEX_FUZZ_REQUIRE_H

#include <cstdlib>

// Ends the run, with the input kept as a finding, where it is not so.
inline void Require(bool holds) {
  if (!holds) {
    abort();
  }
}

#endif
