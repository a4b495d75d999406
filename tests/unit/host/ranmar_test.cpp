#include "status/ranmar.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "tests/support/recording_framework.h"

namespace {

// The same generator in integers: every quantity is a multiple of 2^-24, so a value is its
// numerator and nothing is ever rounded. The bits of the table come from the two small generators
// as published: a lagged product modulo 179 and a congruence modulo 169.
class IntegerRanmar {
 public:
  IntegerRanmar(int ij, int kl) {
    std::array<int, 3> lagged = {(ij / 177) % 177 + 2, ij % 177 + 2, (kl / 169) % 178 + 1};
    int congruence = kl % 169;
    for (uint32_t &entry : table_) {
      entry = 0;
      for (uint32_t bit = kOne >> 1; bit != 0; bit >>= 1) {
        const int next = lagged[0] * lagged[1] % 179 * lagged[2] % 179;
        lagged = {lagged[1], lagged[2], next};
        congruence = (53 * congruence + 1) % 169;
        if (congruence * next % 64 >= 32) {
          entry |= bit;
        }
      }
    }
  }

  // The next value times 2^24.
  uint32_t Next() {
    // The n-th value mixes those of 97 and 33 steps before.
    const uint32_t mixed =
        (table_[(96 + 97 * kTurns - step_) % 97] + kOne - table_[(32 + 97 * kTurns - step_) % 97]) %
        kOne;
    table_[(96 + 97 * kTurns - step_) % 97] = mixed;
    step_++;
    carry_ = (carry_ + kCarryModulus - kCarryStep) % kCarryModulus;
    return (mixed + kOne - carry_) % kOne;
  }

 private:
  static constexpr uint32_t kOne = 1 << 24;
  static constexpr uint32_t kCarryStep = 7654321;
  static constexpr uint32_t kCarryModulus = 16777213;
  static constexpr size_t kTurns = 1000;  // enough of them that the index never gets negative
  std::array<uint32_t, 97> table_ = {};
  uint32_t carry_ = 362436;
  size_t step_ = 0;
};

constexpr float kUnit = 16777216.0F;  // 2^24

// The check that was published with the generator: seeds 1802 and 9373, after 20,000 values the
// next six times 4096 times 4096.
TEST(Ranmar, PublishedCheck) {
  ASSERT_EQ(ranmar_initialise(1802, 9373), 0);
  std::vector<float> values(20000);
  ASSERT_EQ(ranmar_values(values.data(), 20000), 0);
  ASSERT_EQ(ranmar_values(values.data(), 6), 0);
  const std::array<float, 6> expected = {6533892, 14220222, 7275067, 6172232, 8354498, 10633180};
  for (size_t i = 0; i < expected.size(); i++) {
    EXPECT_EQ(values[i] * kUnit, expected[i]) << i;
  }
}

TEST(Ranmar, IntegersAgreeWithThePublishedCheckToo) {
  IntegerRanmar integers(1802, 9373);
  for (int i = 0; i < 20000; i++) {
    integers.Next();
  }
  for (const uint32_t expected : {6533892, 14220222, 7275067, 6172232, 8354498, 10633180}) {
    EXPECT_EQ(integers.Next(), expected);
  }
}

TEST(Ranmar, ValuesOfManySeeds) {
  for (const auto &[ij, kl] : {std::pair{0, 0},
                               {0, 1},
                               {0, 168},
                               {0, 169},
                               {0, 4471},  // of which one value is 0
                               {0, 13398},
                               {0, 22136},
                               {0, 30081},
                               {177, 178},
                               {176, 30080},
                               {31328, 30081},
                               {31327, 0},
                               {12345, 6789}}) {
    ASSERT_EQ(ranmar_initialise(ij, kl), 0);
    IntegerRanmar integers(ij, kl);
    std::vector<float> values(1000);
    ASSERT_EQ(ranmar_values(values.data(), 1000), 0);
    for (size_t i = 0; i < values.size(); i++) {
      ASSERT_EQ(values[i] * kUnit, static_cast<float>(integers.Next()))
          << ij << ' ' << kl << ' ' << i;
      ASSERT_LT(values[i], 1.0F);
      ASSERT_GE(values[i], 0.0F);
    }
  }
}

TEST(Ranmar, OctetsAreTheTopEightBits) {
  ASSERT_EQ(ranmar_initialise(0, 22136), 0);
  IntegerRanmar integers(0, 22136);
  unsigned char octets[130];
  memset(octets, 0xA5, sizeof(octets));
  // At most 128 are made, whatever is asked for.
  ASSERT_EQ(generate_octets(octets, 130), 0);
  for (int i = 0; i < 128; i++) {
    EXPECT_EQ(octets[i], integers.Next() >> 16) << i;
  }
  EXPECT_EQ(octets[128], 0xA5);
  // 128 values are drawn for every call: the next sixteen begin with the 129th.
  octets[16] = 0xA5;
  ASSERT_EQ(generate_octets(octets, 16), 0);
  for (int i = 0; i < 16; i++) {
    EXPECT_EQ(octets[i], integers.Next() >> 16) << i;
  }
  EXPECT_EQ(octets[16], 0xA5);
  for (int i = 16; i < 128; i++) {
    integers.Next();
  }
  ASSERT_EQ(generate_octets(octets, 1), 0);
  EXPECT_EQ(octets[0], integers.Next() >> 16);
}

TEST(Ranmar, NotReadyBeforeItIsSeeded) {
  unsigned char octets[16] = {7};
  EXPECT_EQ(generate_octets(octets, 16), -11);
  EXPECT_EQ(octets[0], 7);
  float value = 7;
  EXPECT_EQ(ranmar_values(&value, 1), -11);
  EXPECT_EQ(value, 7);
}

TEST(Ranmar, SeedsOutOfRangeAreRefusedButCountAsSeeded) {
  for (const auto &[ij, kl] :
       {std::pair{-1, 0}, {31329, 0}, {0, -1}, {0, 30082}, {INT32_MAX, INT32_MAX}}) {
    EXPECT_EQ(ranmar_initialise(ij, kl), -11) << ij << ' ' << kl;
  }
  unsigned char octet = 7;
  EXPECT_EQ(generate_octets(&octet, 1), 0);
}

TEST(Ranmar, SeededFromTheLastTwoOctetsOfEth0) {
  for (const auto &[fifth, sixth] :
       {std::pair{0x12, 0x34}, {0x00, 0x00}, {0xFF, 0xFF}, {0x75, 0x82}}) {
    rec::PutHardwareAddress("eth0", {'\x52', '\x54', '\x00', '\x99', static_cast<char>(fifth),
                                     static_cast<char>(sixth)});
    ASSERT_EQ(seed_generator(), 0);
    IntegerRanmar integers(0, (fifth * 256 + sixth) % 30082);
    unsigned char octets[16];
    ASSERT_EQ(generate_octets(octets, 16), 0);
    for (const unsigned char octet : octets) {
      EXPECT_EQ(octet, integers.Next() >> 16) << fifth << ' ' << sixth;
    }
  }
}

TEST(Ranmar, WithoutEth0TheSeedIsZero) {
  rec::PutHardwareAddress("eth0", "");
  IntegerRanmar integers(0, 0);
  ASSERT_EQ(seed_generator(), 0);
  unsigned char octets[16];
  ASSERT_EQ(generate_octets(octets, 16), 0);
  for (const unsigned char octet : octets) {
    EXPECT_EQ(octet, integers.Next() >> 16);
  }
}

TEST(Ranmar, WithoutSocketsTheSeedIsZero) {
  rec::PutHardwareAddress("eth0", "\x01\x02\x03\x04\x05\x06");
  rec::Fail("socket");
  unsigned char address[2] = {1, 2};
  EXPECT_EQ(read_hardware_address(0, address, 2), -1);
  ASSERT_EQ(seed_generator(), 0);
  unsigned char octet;
  ASSERT_EQ(generate_octets(&octet, 1), 0);
  EXPECT_EQ(octet, IntegerRanmar(0, 0).Next() >> 16);
}

TEST(Ranmar, HardwareAddressFromTheLastOctetBackwards) {
  rec::PutHardwareAddress("eth0", "\x01\x02\x03\x04\x05\x06");
  rec::PutHardwareAddress("eth3", "\x11\x12\x13\x14\x15\x16");
  rec::PutHardwareAddress("eth1", "");
  unsigned char address[8] = {};
  ASSERT_EQ(read_hardware_address(0, address, 2), 0);
  EXPECT_EQ(address[0], 6);
  EXPECT_EQ(address[1], 5);
  EXPECT_EQ(address[2], 0);
  // At most six.
  ASSERT_EQ(read_hardware_address(3, address, 8), 0);
  EXPECT_EQ(address[5], 0x11);
  EXPECT_EQ(address[6], 0);
  EXPECT_EQ(read_hardware_address(1, address, 2), -1);
}

}  // namespace
