// Byte-order reversal of arrays of 64-bit words: turns the exporter's
// big-endian counters into host-order values. The implementation is chosen
// once from the processor's capabilities.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dtl::ipfix {

// Writes count 64-bit words of src to dst, each with its bytes reversed.
// Neither pointer needs any alignment; the ranges must not overlap.
void BswapU64ArrayScalar(const uint8_t* src, uint8_t* dst, size_t count);

#if defined(__aarch64__)
// Advanced SIMD version: two words per 128-bit step, an odd last word scalar.
void BswapU64ArrayNeon(const uint8_t* src, uint8_t* dst, size_t count);
#endif

#if defined(__x86_64__)
// SSSE3 version: two words per 128-bit shuffle, an odd last word scalar.
void BswapU64ArraySsse3(const uint8_t* src, uint8_t* dst, size_t count);
// AVX2 version: four words per 256-bit shuffle, the rest through SSSE3.
void BswapU64ArrayAvx2(const uint8_t* src, uint8_t* dst, size_t count);
// Whether this processor can run the vector versions above.
bool BswapSsse3Supported();
bool BswapAvx2Supported();
#endif

// Calls the fastest implementation the processor supports.
void BswapU64Array(const uint8_t* src, uint8_t* dst, size_t count);

// Name of the implementation BswapU64Array uses: "scalar", "neon", "ssse3"
// or "avx2".
const char* BswapImplementationName();

}  // namespace dtl::ipfix
