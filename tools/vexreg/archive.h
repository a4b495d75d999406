// A capture's file: a tar archive (POSIX ustar) of plain files, compressed with zstd. Pure.
#ifndef VEX_TOOLS_VEXREG_ARCHIVE_H
#define VEX_TOOLS_VEXREG_ARCHIVE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vex {

struct Member {
  std::string name;      // relative, as IsMemberName() wants it
  int64_t modified = 0;  // seconds since 1970
  std::string bytes;
};

// What an archive may have; what goes beyond is neither written nor read.
inline constexpr size_t kMostMemberBytes = size_t{32} << 20;
inline constexpr size_t kMostArchiveBytes = size_t{512} << 20;  // before compression
inline constexpr size_t kMostMembers = 100'000;

// Whether a member may have that name: parts with "/" between them, none of them empty, "." or
// "..", no control character, and of a length that the archive has room for.
bool IsMemberName(std::string_view name);

// The archive's bytes; nothing, with the reason, when a limit is reached. The names are unique and
// stand IsMemberName().
std::optional<std::string> PackMembers(const std::vector<Member> &members, std::string *error);

// The members of an archive that PackMembers() or another tar has made of plain files: anything
// else in it, a name out of place or twice, a wrong checksum, a missing end or a limit is an error.
std::optional<std::vector<Member>> UnpackMembers(std::string_view archive, std::string *error);
// The same of a tar archive that is not compressed. For tests and the fuzzer.
std::optional<std::vector<Member>> ReadTar(std::string_view tar, std::string *error);

}  // namespace vex

#endif
