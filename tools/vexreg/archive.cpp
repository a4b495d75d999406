#include "tools/vexreg/archive.h"

#include <string.h>
#include <zstd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>

namespace vex {
namespace {

constexpr size_t kBlock = 512;
constexpr int kLevel = 9;           // of compression: registries shrink well
constexpr int kMostWindowLog = 27;  // 128 MiB of memory for whoever reads

// IEEE Std 1003.1, pax, "ustar Interchange Format".
struct TarHeader {
  char name[100];
  char mode[8];
  char uid[8];
  char gid[8];
  char size[12];
  char mtime[12];
  char chksum[8];
  char typeflag;
  char linkname[100];
  char magic[6];
  char version[2];
  char uname[32];
  char gname[32];
  char devmajor[8];
  char devminor[8];
  char prefix[155];
  char rest[12];
};
static_assert(sizeof(TarHeader) == kBlock);

constexpr char kPlainFile = '0';
constexpr std::string_view kMagic = "ustar";

// Where a name is divided into prefix and name: behind that many bytes, 0 for not at all; nothing
// when it is too long.
std::optional<size_t> Division(std::string_view name) {
  if (name.size() <= sizeof(TarHeader::name)) {
    return 0;
  }
  const size_t slash = name.find('/', name.size() - sizeof(TarHeader::name) - 1);
  if (slash == std::string_view::npos || slash == 0 || slash > sizeof(TarHeader::prefix)) {
    return std::nullopt;
  }
  return slash;
}

uint64_t ChecksumOf(TarHeader header) {
  memset(header.chksum, ' ', sizeof(header.chksum));
  const auto *bytes = reinterpret_cast<const unsigned char *>(&header);
  uint64_t sum = 0;
  for (size_t i = 0; i < sizeof(header); i++) {
    sum += bytes[i];
  }
  return sum;
}

template <size_t N>
void PutOctal(char (&field)[N], uint64_t value) {
  char text[32];
  snprintf(text, sizeof(text), "%0*llo", static_cast<int>(N - 1),
           static_cast<unsigned long long>(value));
  memcpy(field, text, N);
}

// Digits, then blanks or NULs.
template <size_t N>
std::optional<uint64_t> OctalOf(const char (&field)[N]) {
  uint64_t value = 0;
  size_t at = 0;
  while (at < N && field[at] == ' ') {
    at++;
  }
  const size_t first = at;
  for (; at < N && field[at] >= '0' && field[at] <= '7'; at++) {
    value = value * 8 + static_cast<uint64_t>(field[at] - '0');
  }
  const bool clean =
      std::all_of(field + at, field + N, [](char c) { return c == ' ' || c == '\0'; });
  return at > first && clean ? std::optional(value) : std::nullopt;
}

template <size_t N>
std::string_view TextOf(const char (&field)[N]) {
  return {field, strnlen(field, N)};
}

void AppendMember(const Member &member, std::string *tar) {
  TarHeader header = {};
  const size_t division = Division(member.name).value_or(0);
  const std::string_view name = member.name;
  const std::string_view last = division == 0 ? name : name.substr(division + 1);
  memcpy(header.prefix, name.data(), division);
  memcpy(header.name, last.data(), last.size());
  PutOctal(header.mode, 0600);
  PutOctal(header.uid, 0);
  PutOctal(header.gid, 0);
  PutOctal(header.size, member.bytes.size());
  PutOctal(header.mtime, static_cast<uint64_t>(std::max<int64_t>(member.modified, 0)));
  header.typeflag = kPlainFile;
  memcpy(header.magic, kMagic.data(), kMagic.size());
  memcpy(header.version, "00", sizeof(header.version));
  snprintf(header.chksum, sizeof(header.chksum), "%06llo",
           static_cast<unsigned long long>(ChecksumOf(header)));
  header.chksum[7] = ' ';
  tar->append(reinterpret_cast<const char *>(&header), sizeof(header));
  tar->append(member.bytes);
  tar->append((kBlock - member.bytes.size() % kBlock) % kBlock, '\0');
}

// The member of a header, without its bytes. Nothing, with the reason, when it is none.
std::optional<Member> MemberOf(const TarHeader &header, uint64_t *size, std::string *error) {
  const auto sum = OctalOf(header.chksum);
  if (!sum || *sum != ChecksumOf(header) || !TextOf(header.magic).starts_with(kMagic)) {
    *error = "not a capture, or damaged";
    return std::nullopt;
  }
  if (TextOf(header.magic) != kMagic) {
    *error = "not in the format ustar: packed again by GNU tar, it takes its option --format=ustar";
    return std::nullopt;
  }
  Member member;
  if (header.prefix[0] != '\0') {
    member.name = std::string(TextOf(header.prefix)) + "/";
  }
  member.name += TextOf(header.name);
  if (header.typeflag != kPlainFile) {
    *error = member.name + ": not a plain file";
    return std::nullopt;
  }
  if (!IsMemberName(member.name)) {
    *error = member.name + ": not a name for a capture";
    return std::nullopt;
  }
  const auto bytes = OctalOf(header.size);
  const auto modified = OctalOf(header.mtime);
  if (!bytes || !modified) {
    *error = member.name + ": damaged";
    return std::nullopt;
  }
  if (*bytes > kMostMemberBytes) {
    *error = member.name + ": too large";
    return std::nullopt;
  }
  *size = *bytes;
  member.modified = static_cast<int64_t>(*modified);
  return member;
}

// Takes an archive piece by piece: what was taken is kept once, as members.
class TarReader {
 public:
  explicit TarReader(std::string *error) : error_(error) {}

  // False, with the reason, when the archive is none or too large.
  bool Take(std::string_view piece) {
    total_ += piece.size();
    if (total_ > kMostArchiveBytes) {
      return Fail("too large");
    }
    while (!piece.empty() && !ended_) {
      const std::string_view part = piece.substr(0, left_);
      piece.remove_prefix(part.size());
      left_ -= part.size();
      if (!in_member_) {
        header_.append(part);
        if (left_ == 0 && !TakeHeader()) {
          return false;
        }
        continue;
      }
      members_.back().bytes.append(part.substr(0, std::min(part.size(), wanted_)));
      wanted_ -= std::min(part.size(), wanted_);
      if (left_ == 0) {
        Next();
      }
    }
    return true;
  }

  // What was taken, when it is whole.
  std::optional<std::vector<Member>> Finish() {
    if (!ended_) {
      Fail("cut off");
      return std::nullopt;
    }
    std::set<std::string_view> names;
    for (const Member &member : members_) {
      if (!names.insert(member.name).second) {
        Fail(member.name + ": twice");
        return std::nullopt;
      }
    }
    return std::move(members_);
  }

 private:
  bool Fail(const std::string &why) {
    *error_ = why;
    return false;
  }
  void Next() {
    in_member_ = false;
    header_.clear();
    left_ = kBlock;
  }
  bool TakeHeader() {
    if (header_.find_first_not_of('\0') == std::string::npos) {
      ended_ = true;
      return true;
    }
    TarHeader header;
    memcpy(&header, header_.data(), sizeof(header));
    uint64_t size = 0;
    auto member = MemberOf(header, &size, error_);
    if (!member) {
      return false;
    }
    if (members_.size() >= kMostMembers) {
      return Fail("too many members");
    }
    members_.push_back(std::move(*member));
    wanted_ = size;
    left_ = (size + kBlock - 1) / kBlock * kBlock;
    in_member_ = true;
    if (left_ == 0) {
      Next();
    } else {
      members_.back().bytes.reserve(size);
    }
    return true;
  }

  std::string *error_;
  std::vector<Member> members_;
  std::string header_;
  size_t total_ = 0;
  size_t left_ = kBlock;  // bytes until the next header, or of this one
  size_t wanted_ = 0;     // of them, the member's
  bool in_member_ = false;
  bool ended_ = false;  // what follows says nothing
};

// The archive as it is decompressed; nothing, with the reason, when it is damaged, cut off or too
// large.
std::optional<std::vector<Member>> Decompress(std::string_view archive, std::string *error) {
  const std::unique_ptr<ZSTD_DCtx, size_t (*)(ZSTD_DCtx *)> context(ZSTD_createDCtx(),
                                                                    ZSTD_freeDCtx);
  if (!context || ZSTD_isError(ZSTD_DCtx_setParameter(context.get(), ZSTD_d_windowLogMax,
                                                      kMostWindowLog)) != 0) {
    *error = "no memory";
    return std::nullopt;
  }
  TarReader reader(error);
  std::string piece(ZSTD_DStreamOutSize(), '\0');
  ZSTD_inBuffer in = {archive.data(), archive.size(), 0};
  size_t left = 1;  // of the frame
  while (in.pos < in.size || left != 0) {
    ZSTD_outBuffer out = {piece.data(), piece.size(), 0};
    const size_t before = in.pos;
    left = ZSTD_decompressStream(context.get(), &out, &in);
    if (ZSTD_isError(left) != 0) {
      *error = std::string("not a capture, or damaged: ") + ZSTD_getErrorName(left);
      return std::nullopt;
    }
    if (out.pos == 0 && in.pos == before) {
      *error = "cut off";
      return std::nullopt;
    }
    if (!reader.Take(std::string_view(piece).substr(0, out.pos))) {
      return std::nullopt;
    }
  }
  return reader.Finish();
}

}  // namespace

bool IsMemberName(std::string_view name) {
  if (name.empty() || !Division(name) || std::any_of(name.begin(), name.end(), [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == '\x7F';
      })) {
    return false;
  }
  for (size_t from = 0; from <= name.size();) {
    const size_t end = std::min(name.find('/', from), name.size());
    const std::string_view part = name.substr(from, end - from);
    if (part.empty() || part == "." || part == "..") {
      return false;
    }
    from = end + 1;
  }
  return true;
}

std::optional<std::string> PackMembers(const std::vector<Member> &members, std::string *error) {
  if (members.size() > kMostMembers) {
    *error = "too many members";
    return std::nullopt;
  }
  std::string tar;
  for (const Member &member : members) {
    if (!IsMemberName(member.name) || member.bytes.size() > kMostMemberBytes) {
      *error = member.name + ": cannot be a part of a capture";
      return std::nullopt;
    }
    AppendMember(member, &tar);
    if (tar.size() > kMostArchiveBytes) {
      *error = "too large";
      return std::nullopt;
    }
  }
  tar.append(2 * kBlock, '\0');
  const std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx *)> context(ZSTD_createCCtx(),
                                                                    ZSTD_freeCCtx);
  std::string archive(ZSTD_compressBound(tar.size()), '\0');
  size_t size = 0;
  if (context) {
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, kLevel);
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
    size = ZSTD_compress2(context.get(), archive.data(), archive.size(), tar.data(), tar.size());
  }
  if (!context || ZSTD_isError(size) != 0) {
    *error = "cannot be compressed";
    return std::nullopt;
  }
  archive.resize(size);
  return archive;
}

std::optional<std::vector<Member>> ReadTar(std::string_view tar, std::string *error) {
  TarReader reader(error);
  return reader.Take(tar) ? reader.Finish() : std::nullopt;
}

std::optional<std::vector<Member>> UnpackMembers(std::string_view archive, std::string *error) {
  return Decompress(archive, error);
}

}  // namespace vex
