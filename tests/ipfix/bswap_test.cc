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

using namespace dtl::ipfix;

// Every implementation the processor runs gives the bytes of each word
// reversed, for any count (odd ones included) at any alignment, and writes
// nothing past count words.
TEST(BswapTest, EveryImplementationReversesEachWord) {
  const uint8_t words[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  const uint8_t reversed[16] = {8, 7, 6, 5, 4, 3, 2, 1, 16, 15, 14, 13, 12, 11, 10, 9};
  uint8_t out[16] = {};
  BswapU64ArrayScalar(words, out, 2);
  ASSERT_EQ(std::memcmp(out, reversed, 16), 0);

  const struct {
    const char* name;
    void (*fn)(const uint8_t*, uint8_t*, size_t);
    bool supported;
  } implementations[] = {
      {"selected", &BswapU64Array, true},
#if defined(__x86_64__)
      {"ssse3", &BswapU64ArraySsse3, BswapSsse3Supported()},
      {"avx2", &BswapU64ArrayAvx2, BswapAvx2Supported()},
#elif defined(__aarch64__)
      {"neon", &BswapU64ArrayNeon, true},
#endif
  };
  constexpr size_t kMaxCount = 67;
  std::vector<uint8_t> src(kMaxCount * 8 + 8);
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 7 + 3);
  for (const auto& impl : implementations) {
    if (!impl.supported) continue;  // not on this processor
    for (size_t count = 0; count <= kMaxCount; ++count) {
      std::vector<uint8_t> expected(count * 8);
      BswapU64ArrayScalar(src.data(), expected.data(), count);
      for (size_t src_align = 0; src_align < 8; ++src_align) {
        for (size_t dst_align = 0; dst_align < 8; ++dst_align) {
          alignas(16) uint8_t dst[kMaxCount * 8 + 24];
          std::memset(dst, 0xee, sizeof(dst));
          std::vector<uint8_t> shifted(src);
          std::memmove(shifted.data() + src_align, src.data(), count * 8);
          impl.fn(shifted.data() + src_align, dst + dst_align, count);
          const auto untouched = [](uint8_t byte) { return byte == 0xee; };
          ASSERT_TRUE(std::equal(expected.begin(), expected.end(), dst + dst_align) &&
                      std::all_of(dst, dst + dst_align, untouched) &&
                      std::all_of(dst + dst_align + count * 8, dst + sizeof(dst), untouched))
              << impl.name << " count " << count << " src+" << src_align << " dst+" << dst_align;
        }
      }
    }
  }
  // The selector takes the widest path the processor offers; the test log
  // shows which one ran.
  const std::string name = BswapImplementationName();
  std::cout << "byte-swap implementation: " << name << std::endl;
#if defined(__x86_64__)
  EXPECT_EQ(name, BswapAvx2Supported() ? "avx2" : BswapSsse3Supported() ? "ssse3" : "scalar");
#elif defined(__aarch64__)
  EXPECT_EQ(name, (getauxval(AT_HWCAP) & HWCAP_ASIMD) != 0 ? "neon" : "scalar");
#else
  EXPECT_EQ(name, "scalar");
#endif
}

}  // namespace
