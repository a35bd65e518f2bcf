#include "ipfix/bswap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#if defined(__aarch64__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

namespace {

using dtl::ipfix::BswapU64Array;
using dtl::ipfix::BswapU64ArrayScalar;

std::vector<uint8_t> Pattern(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7 + 3);
  return v;
}

TEST(BswapTest, ScalarReversesEachWord) {
  const uint8_t src[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  uint8_t dst[16] = {};
  BswapU64ArrayScalar(src, dst, 2);
  const uint8_t expected[16] = {8, 7, 6, 5, 4, 3, 2, 1, 16, 15, 14, 13, 12, 11, 10, 9};
  EXPECT_EQ(std::memcmp(dst, expected, 16), 0);
}

TEST(BswapTest, ImplementationNameIsKnown) {
  const std::string name = dtl::ipfix::BswapImplementationName();
  EXPECT_TRUE(name == "scalar" || name == "neon" || name == "ssse3" || name == "avx2") << name;
}

// Every implementation must give the scalar bytes for any count (odd ones
// included) at any alignment, and must not write past count words.
using BswapFn = void (*)(const uint8_t*, uint8_t*, size_t);

void ExpectSameAsScalar(BswapFn fn) {
  constexpr size_t kMaxCount = 67;
  const std::vector<uint8_t> src = Pattern(kMaxCount * 8 + 8);
  for (size_t count = 0; count <= kMaxCount; ++count) {
    std::vector<uint8_t> expected(count * 8);
    BswapU64ArrayScalar(src.data(), expected.data(), count);
    for (size_t src_align = 0; src_align < 8; ++src_align) {
      for (size_t dst_align = 0; dst_align < 8; ++dst_align) {
        alignas(16) uint8_t dst[kMaxCount * 8 + 24];
        std::memset(dst, 0xee, sizeof(dst));
        std::vector<uint8_t> shifted(src.begin(), src.end());
        std::memmove(shifted.data() + src_align, src.data(), count * 8);
        fn(shifted.data() + src_align, dst + dst_align, count);
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), dst + dst_align))
            << "count " << count << " src+" << src_align << " dst+" << dst_align;
        for (size_t i = 0; i < dst_align; ++i) ASSERT_EQ(dst[i], 0xee);
        for (size_t i = dst_align + count * 8; i < sizeof(dst); ++i) ASSERT_EQ(dst[i], 0xee);
      }
    }
  }
}

TEST(BswapTest, SelectedMatchesScalar) { ExpectSameAsScalar(&BswapU64Array); }

#if defined(__x86_64__)
TEST(BswapTest, Ssse3MatchesScalar) {
  if (!dtl::ipfix::BswapSsse3Supported()) GTEST_SKIP() << "no SSSE3 on this processor";
  ExpectSameAsScalar(&dtl::ipfix::BswapU64ArraySsse3);
}

TEST(BswapTest, Avx2MatchesScalar) {
  if (!dtl::ipfix::BswapAvx2Supported()) GTEST_SKIP() << "no AVX2 on this processor";
  ExpectSameAsScalar(&dtl::ipfix::BswapU64ArrayAvx2);
}

// The selector must take the widest vector path the processor offers.
TEST(BswapTest, SelectsWidestSupportedPath) {
  const std::string name = dtl::ipfix::BswapImplementationName();
  if (dtl::ipfix::BswapAvx2Supported()) {
    EXPECT_EQ(name, "avx2");
  } else if (dtl::ipfix::BswapSsse3Supported()) {
    EXPECT_EQ(name, "ssse3");
  } else {
    EXPECT_EQ(name, "scalar");
  }
}
#endif

#if defined(__aarch64__)
TEST(BswapTest, NeonMatchesScalar) { ExpectSameAsScalar(&dtl::ipfix::BswapU64ArrayNeon); }

// The selector must take NEON whenever the kernel reports Advanced SIMD (as
// every 64-bit Arm Linux processor and the emulator do). The name is printed
// so that a test log shows which path ran.
TEST(BswapTest, SelectsNeonWithAdvancedSimd) {
  const std::string name = dtl::ipfix::BswapImplementationName();
  std::cout << "byte-swap implementation: " << name << std::endl;
  const bool has_asimd = (getauxval(AT_HWCAP) & HWCAP_ASIMD) != 0;
  EXPECT_EQ(name, has_asimd ? "neon" : "scalar");
}
#endif

}  // namespace
