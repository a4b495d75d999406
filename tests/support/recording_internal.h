// Shared by the sources of the recording framework.
#ifndef VEX_TESTS_SUPPORT_RECORDING_INTERNAL_H
#define VEX_TESTS_SUPPORT_RECORDING_INTERNAL_H

#include <string>
#include <utility>

namespace rec {

void Record(const std::string &operation, const std::string &name, const std::string &data = "");
// Whether this call was told to fail; sets errno.
bool Fails(const std::string &operation, const std::string &name);
// Output and exit status of a command; null when it was not given.
const std::pair<std::string, int> *FindCommand(const std::string &command);
// A remote management card's ioctl().
int TransactWithCard(int descriptor, void *argument);

// What a read() that is held up throws, for run_apart() to catch.
struct HeldUp {};

}  // namespace rec

#endif
