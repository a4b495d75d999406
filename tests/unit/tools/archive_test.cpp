#include "tools/vexreg/archive.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zstd.h>

#include <functional>

#include "tests/support/failing_zstd.h"

namespace vex {
namespace {

constexpr size_t kBlock = 512;

std::string Compressed(const std::string &bytes) {
  std::string archive(ZSTD_compressBound(bytes.size()), '\0');
  archive.resize(ZSTD_compress(archive.data(), archive.size(), bytes.data(), bytes.size(), 1));
  return archive;
}

// The tar archive of one member.
std::string Tar(const std::string &name, const std::string &bytes) {
  std::string error;
  const auto archive = PackMembers({{name, 1'700'000'000, bytes}}, &error);
  EXPECT_TRUE(archive) << error;
  std::string tar(ZSTD_getFrameContentSize(archive->data(), archive->size()), '\0');
  ZSTD_decompress(tar.data(), tar.size(), archive->data(), archive->size());
  return tar;
}

// The same with a change in its header, whose checksum is made right again.
std::string Changed(const std::function<void(std::string *)> &change) {
  std::string tar = Tar("host/etc/mtab", "text");
  change(&tar);
  tar.replace(148, 8, 8, ' ');
  unsigned sum = 0;
  for (size_t i = 0; i < kBlock; i++) {
    sum += static_cast<unsigned char>(tar[i]);
  }
  char text[8];
  snprintf(text, sizeof(text), "%06o", sum);
  tar.replace(148, 7, text, 7);
  return tar;
}

std::string ErrorOf(const std::string &tar) {
  std::string error = "none";
  EXPECT_FALSE(ReadTar(tar, &error));
  return error;
}

TEST(Archive, GivesBackWhatWentIn) {
  const std::string deep = "registry/" + std::string(90, 'd') + "/" + std::string(99, 'n');
  const std::vector<Member> members = {{"a", 0, ""},
                                       {"b/c", 1'700'000'000, std::string(513, 'x')},
                                       {deep, 5, std::string("\0\n", 2)}};
  std::string error;
  const auto archive = PackMembers(members, &error);
  ASSERT_TRUE(archive) << error;
  const auto read = UnpackMembers(*archive, &error);
  ASSERT_TRUE(read) << error;
  ASSERT_EQ(read->size(), members.size());
  for (size_t i = 0; i < members.size(); i++) {
    EXPECT_EQ((*read)[i].name, members[i].name);
    EXPECT_EQ((*read)[i].modified, members[i].modified);
    EXPECT_EQ((*read)[i].bytes, members[i].bytes);
  }
}

TEST(Archive, OnlyNamesThatStayBelow) {
  for (const std::string &name :
       {std::string(), std::string("/etc/passwd"), std::string("../x"), std::string("a/../x"),
        std::string("a/.."), std::string("."), std::string("a//b"), std::string("a/"),
        std::string("a\nb"), std::string(101, 'x'), std::string(160, 'x') + "/y",
        std::string("a\0b", 3), std::string("a\x7F"), "/" + std::string(100, 'x')}) {
    EXPECT_FALSE(IsMemberName(name)) << name;
    std::string error;
    EXPECT_FALSE(PackMembers({{name, 0, ""}}, &error));
  }
  EXPECT_TRUE(IsMemberName("host/etc/..mtab"));
}

// Each of these a tar archive can have, and each would lead out of the place or past a limit.
TEST(Archive, WhatAHostileOneHasIsRefused) {
  const auto put = [](size_t at, const std::string &text) {
    return [at, text](std::string *tar) { tar->replace(at, text.size(), text); };
  };
  EXPECT_EQ(ErrorOf(Changed(put(0, "/etc/passwd"))).substr(0, 5), "/etc/");
  EXPECT_NE(ErrorOf(Changed(put(0, "../../../xxxx"))), "none");
  EXPECT_NE(ErrorOf(Changed(put(345, "../.."))), "none");
  for (const char type : {'1', '2', '3', '4', '5', '6', '7', 'x', 'g', 'L', 'K', 'S', '\0'}) {
    EXPECT_EQ(ErrorOf(Changed(put(156, std::string(1, type)))), "host/etc/mtab: not a plain file");
  }
  EXPECT_EQ(ErrorOf(Changed(put(124, "77777777777"))), "host/etc/mtab: too large");
  EXPECT_EQ(ErrorOf(Changed(put(124, "-0000000001"))), "host/etc/mtab: damaged");
  EXPECT_EQ(ErrorOf(Changed(put(124, "\x80\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"))),
            "host/etc/mtab: damaged");
  for (const char *size : {"            ", "00000000004x", "4 4         ", "0x4         "}) {
    EXPECT_EQ(ErrorOf(Changed(put(124, size))), "host/etc/mtab: damaged") << size;
  }
  EXPECT_EQ(ErrorOf(Changed(put(136, "yesterday"))), "host/etc/mtab: damaged");
  EXPECT_EQ(ErrorOf(Changed(put(124, "00000100000"))), "cut off");
  std::string changed = Tar("host/etc/mtab", "text");
  changed[0] = 'g';
  EXPECT_EQ(ErrorOf(changed), "not a capture, or damaged");
  EXPECT_EQ(ErrorOf(Changed(put(257, "nomagi"))), "not a capture, or damaged");
  EXPECT_EQ(ErrorOf(Changed(put(257, "ustar  "))),
            "not in the format ustar: packed again by GNU tar, it takes its option --format=ustar");
  EXPECT_EQ(ErrorOf(std::string(700, 'x')), "not a capture, or damaged");
  EXPECT_EQ(ErrorOf(""), "cut off");
  const std::string tar = Tar("a", "text");
  for (size_t length = 0; length < tar.size() - kBlock; length++) {
    std::string error;
    EXPECT_FALSE(ReadTar(tar.substr(0, length), &error)) << length;
  }
  const std::string one = tar.substr(0, 2 * kBlock);
  EXPECT_EQ(ErrorOf(one + tar), "a: twice");
}

// As other programs write them: blanks before, or nothing behind.
TEST(Archive, NumbersOfOtherProgramsAreTaken) {
  for (const char *size : {"000000000004", "          4 ", "4           ", "         04 "}) {
    std::string error;
    const auto read =
        ReadTar(Changed([&](std::string *tar) { tar->replace(124, 12, size, 12); }), &error);
    ASSERT_TRUE(read) << size << error;
    EXPECT_EQ(read->at(0).bytes, "text");
  }
}

TEST(Archive, DamagedCompressionIsRefused) {
  std::string error;
  const auto archive = PackMembers({{"a", 0, std::string(100'000, 'x')}}, &error);
  ASSERT_TRUE(archive);
  for (size_t length = 0; length < archive->size(); length++) {
    EXPECT_FALSE(UnpackMembers(archive->substr(0, length), &error)) << length;
  }
  for (size_t at = 0; at < archive->size(); at++) {
    std::string damaged = *archive;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
    UnpackMembers(damaged, &error);  // whatever it says, within its bytes
  }
  EXPECT_FALSE(UnpackMembers("no archive at all", &error));
  // A bomb: a few kilobytes that would be more than a capture may have.
  EXPECT_FALSE(UnpackMembers(Compressed(std::string(kMostArchiveBytes + 1, '\0')), &error));
  EXPECT_EQ(error, "too large");
}

// Another bomb is as large as a capture may be: it is there once, and one that is no archive never.
TEST(Archive, ABombCostsNoMoreThanItsLimit) {
  // In a process of its own: what it has had at most is counted from its start.
  const auto most_of = [](const std::string &archive) {
    const pid_t pid = fork();
    if (pid == 0) {
      std::string error;
      _exit(UnpackMembers(archive, &error) ? 0 : 1);
    }
    rusage usage = {};
    int status = 0;
    EXPECT_EQ(wait4(pid, &status, 0, &usage), pid);
    EXPECT_TRUE(WIFEXITED(status));
    return static_cast<size_t>(usage.ru_maxrss) << 10;
  };
  const std::string none = Compressed(std::string(kMostArchiveBytes / 4, 'x'));
  const size_t before = most_of("");
  EXPECT_LT(most_of(none), before + kMostArchiveBytes / 8);
  std::vector<Member> members;
  constexpr size_t kCount = 4;
  for (size_t i = 0; i < kCount; i++) {
    members.push_back({std::to_string(i), 0, std::string(kMostMemberBytes, '\0')});
  }
  std::string error;
  const auto archive = PackMembers(members, &error);
  members.clear();
  members.shrink_to_fit();
  ASSERT_TRUE(archive) << error;
  EXPECT_LT(most_of(*archive), most_of("") + kCount * kMostMemberBytes * 3 / 2);
}

TEST(Archive, LimitsHoldForWritingToo) {
  std::string error;
  EXPECT_FALSE(PackMembers({{"a", 0, std::string(kMostMemberBytes + 1, 'x')}}, &error));
  EXPECT_EQ(error, "a: cannot be a part of a capture");
  std::vector<Member> many(kMostMembers + 1, {"a", 0, ""});
  EXPECT_FALSE(PackMembers(many, &error));
  EXPECT_EQ(error, "too many members");
  many.clear();
  const std::string header = Tar("a", "").substr(0, kBlock);
  std::string tar;
  tar.reserve((kMostMembers + 1) * kBlock);
  for (size_t i = 0; i <= kMostMembers; i++) {
    tar += header;
  }
  EXPECT_EQ(ErrorOf(tar), "too many members");
}

TEST(Archive, WithoutMemoryItSaysSo) {
  std::string error;
  const auto archive = PackMembers({{"a", 0, "text"}}, &error);
  ASSERT_TRUE(archive);
  for (const char *call : {"ZSTD_createDCtx", "ZSTD_DCtx_setParameter"}) {
    failing_zstd_call = call;
    EXPECT_FALSE(UnpackMembers(*archive, &error)) << call;
    EXPECT_EQ(error, "no memory");
  }
  for (const char *call : {"ZSTD_createCCtx", "ZSTD_compress2"}) {
    failing_zstd_call = call;
    EXPECT_FALSE(PackMembers({{"a", 0, "text"}}, &error)) << call;
    EXPECT_EQ(error, "cannot be compressed");
  }
  failing_zstd_call = "";
}

}  // namespace
}  // namespace vex
