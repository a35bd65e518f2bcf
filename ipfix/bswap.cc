#include "ipfix/bswap.h"

#include <cstring>

#if defined(__aarch64__)
#include <arm_neon.h>
#include <asm/hwcap.h>
#include <sys/auxv.h>
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
