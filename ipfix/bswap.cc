// The byte-swap implementations (scalar, SSSE3, NEON) and the choice
// among them at start-up.
#include "ipfix/bswap.h"

#include <cstring>

#if defined(__aarch64__)
#include <arm_neon.h>
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace dtl::ipfix {

void BswapU64ArrayScalar(const uint8_t* src, uint8_t* dst, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    uint64_t word;
    std::memcpy(&word, src + i * 8, sizeof(word));
    word = __builtin_bswap64(word);
    std::memcpy(dst + i * 8, &word, sizeof(word));
  }
}

#if defined(__aarch64__)
void BswapU64ArrayNeon(const uint8_t* src, uint8_t* dst, size_t count) {
  size_t i = 0;
  // vld1q_u8/vst1q_u8 have byte alignment, so unaligned buffers are fine.
  for (; i + 2 <= count; i += 2) {
    const uint8x16_t words = vld1q_u8(src + i * 8);
    vst1q_u8(dst + i * 8, vrev64q_u8(words));
  }
  if (i < count) BswapU64ArrayScalar(src + i * 8, dst + i * 8, count - i);
}
#endif

#if defined(__x86_64__)
// Shuffle control that reverses the bytes within each 64-bit lane.
#define DTL_BSWAP64_LANE_MASK 7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8

// Only these functions are built for the newer instruction sets; the rest
// of the library stays baseline x86-64 and reaches them through the selector.
__attribute__((target("ssse3"))) void BswapU64ArraySsse3(const uint8_t* src, uint8_t* dst,
                                                         size_t count) {
  const __m128i mask = _mm_setr_epi8(DTL_BSWAP64_LANE_MASK);
  size_t i = 0;
  for (; i + 2 <= count; i += 2) {
    const __m128i words = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i * 8));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i * 8), _mm_shuffle_epi8(words, mask));
  }
  if (i < count) BswapU64ArrayScalar(src + i * 8, dst + i * 8, count - i);
}

__attribute__((target("avx2"))) void BswapU64ArrayAvx2(const uint8_t* src, uint8_t* dst,
                                                       size_t count) {
  // The 256-bit shuffle works per 128-bit half, so the mask repeats.
  const __m256i mask = _mm256_setr_epi8(DTL_BSWAP64_LANE_MASK, DTL_BSWAP64_LANE_MASK);
  size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const __m256i words = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i * 8));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i * 8), _mm256_shuffle_epi8(words, mask));
  }
  if (i < count) BswapU64ArraySsse3(src + i * 8, dst + i * 8, count - i);
}

#undef DTL_BSWAP64_LANE_MASK

// The feature data is filled by a constructor of the runtime; initialising it
// here too keeps the answer right when asked during static initialisation.
bool BswapSsse3Supported() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("ssse3");
}
bool BswapAvx2Supported() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
}
#endif

namespace {

using BswapFn = void (*)(const uint8_t*, uint8_t*, size_t);

struct BswapImplementation {
  const char* name;
  BswapFn fn;
  bool (*supported)();
};

#if defined(__aarch64__)
bool HasAdvancedSimd() { return (getauxval(AT_HWCAP) & HWCAP_ASIMD) != 0; }
#endif
bool AlwaysSupported() { return true; }

// Candidates in order of preference; the first one the processor supports
// wins. Another vector path is one more entry ahead of the scalar one.
constexpr BswapImplementation kImplementations[] = {
#if defined(__aarch64__)
    {"neon", &BswapU64ArrayNeon, &HasAdvancedSimd},
#endif
#if defined(__x86_64__)
    {"avx2", &BswapU64ArrayAvx2, &BswapAvx2Supported},
    {"ssse3", &BswapU64ArraySsse3, &BswapSsse3Supported},
#endif
    {"scalar", &BswapU64ArrayScalar, &AlwaysSupported},
};

const BswapImplementation& SelectedImplementation() {
  // Initialised once, thread-safe: several receive workers may race here.
  static const BswapImplementation& selected = []() -> const BswapImplementation& {
    for (const BswapImplementation& impl : kImplementations) {
      if (impl.supported()) return impl;
    }
    return kImplementations[sizeof(kImplementations) / sizeof(kImplementations[0]) - 1];
  }();
  return selected;
}

}  // namespace

void BswapU64Array(const uint8_t* src, uint8_t* dst, size_t count) {
  static const BswapFn fn = SelectedImplementation().fn;
  fn(src, dst, count);
}

const char* BswapImplementationName() { return SelectedImplementation().name; }

}  // namespace dtl::ipfix
