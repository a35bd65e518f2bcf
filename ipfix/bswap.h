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

// Calls the fastest implementation the processor supports.
void BswapU64Array(const uint8_t* src, uint8_t* dst, size_t count);

// Name of the implementation BswapU64Array uses: "scalar" or "neon".
const char* BswapImplementationName();

}  // namespace dtl::ipfix
