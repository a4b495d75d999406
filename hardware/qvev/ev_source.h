// Where EVs are found, and how they are read. The two directories are parameters for tests.
#ifndef VEX_HARDWARE_QVEV_EV_SOURCE_H
#define VEX_HARDWARE_QVEV_EV_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "hardware/qvev/paths.h"

namespace vex {

struct EvDirectories {
  const char *raw = kRawEvDirectory;
  const char *uefi = kUefiVariableDirectory;
};

// Reads at most `length` bytes of an EV into buffer. Returns their number, or -1 when there is
// none. `problem` says what is wrong with sources that exist, also when one of them gave the value:
// a raw file that cannot be used before a UEFI variable that can, or is shorter than wanted before
// one that is not, or a value with more bytes than wanted. It stays empty when nothing is wrong or
// no source exists. Any thread.
int64_t ReadEv(const EvDirectories &directories, const char *name, void *buffer, size_t length,
               std::string *problem);

}  // namespace vex

#endif
