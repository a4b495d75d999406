#include "common/util.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/recording_framework.h"

namespace {

TEST(Printable, ShowsNothingThatEndsALineOrMovesATerminal) {
  EXPECT_STREQ(printable("/mnt/a b~").text, "/mnt/a b~");
  EXPECT_STREQ(printable("a\nb\x1B[2J\x7F").text, "a?b?[2J?");
  // C1 controls in UTF-8, of which U+0080 is the first and U+009F the last.
  EXPECT_STREQ(printable("a\xC2\x80"
                         "b\xC2\x9F")
                   .text,
               "a??b??");
}

TEST(Printable, LeavesOtherCharacters) {
  for (const char *text : {"", "\xC2\xA0", "\xC2\xBF", "\xC3\x9F", "\xE2\x82\xAC"}) {
    EXPECT_STREQ(printable(text).text, text);
  }
  // The first half of a character at the end, also where the text was cut there.
  EXPECT_STREQ(printable("a\xC2").text, "a\xC2");
  const std::string cut(sizeof(printable::text) - 2, 'x');
  EXPECT_EQ(printable((cut + "\xC2\x80").c_str()).text, cut + "\xC2");
}

TEST(ClampInt32, HoldsAValueAtTheNearest) {
  EXPECT_EQ(clamp_int32(0), 0);
  EXPECT_EQ(clamp_int32(INT32_MAX), INT32_MAX);
  EXPECT_EQ(clamp_int32(int64_t{INT32_MAX} + 1), INT32_MAX);
  EXPECT_EQ(clamp_int32(UINT64_MAX), INT32_MAX);
  EXPECT_EQ(clamp_int32(INT32_MIN), INT32_MIN);
  EXPECT_EQ(clamp_int32(int64_t{INT32_MIN} - 1), INT32_MIN);
  EXPECT_EQ(clamp_int32(INT64_MIN), INT32_MIN);
}

// After days, when the least of a wrong rate shows.
TEST(MonotonicMilliseconds, AreThoseOfTheNanoseconds) {
  rec::PassTime(1e6);
  const int64_t before = monotonic_nanoseconds();
  const int64_t milliseconds = monotonic_milliseconds();
  EXPECT_GE(milliseconds, before / 1'000'000);
  EXPECT_LE(milliseconds, monotonic_nanoseconds() / 1'000'000);
}

// As in a process that was started without its standard descriptors.
TEST(DescriptorHandle, ClosesDescriptorZeroToo) {
  close(0);
  {
    const descriptor_handle handle(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(handle.get(), 0);
    EXPECT_TRUE(handle);
  }
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
}

}  // namespace
