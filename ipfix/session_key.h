// Identity of one exporter session: (exporter address, UDP port, observation
// domain), packed so that IPv4 exporters hash and compare on 10 bytes.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace dtl::ipfix {

// Bytes 0-1: source port (network order); 2-5: observation domain (host
// order); 6..: 4 IPv4 bytes or 16 IPv6 bytes; byte 22: significant length
// (10 or 22). Bytes past the significant length are zero.
struct SessionKey {
  static constexpr uint8_t kIpv4Length = 10;
  static constexpr uint8_t kIpv6Length = 22;

  uint8_t bytes[22] = {};
  uint8_t length = 0;

  bool operator==(const SessionKey& other) const {
    return length == other.length && std::memcmp(bytes, other.bytes, length) == 0;
  }

  // The significant bytes as a byte string: the name of the session towards
  // the disk writer.
  std::string ToKeyString() const { return std::string(reinterpret_cast<const char*>(bytes), length); }
};
static_assert(sizeof(SessionKey) == 23);

// 64-bit FNV-1a over the significant bytes.
struct SessionKeyHash {
  size_t operator()(const SessionKey& key) const noexcept {
    uint64_t hash = 0xcbf29ce484222325ull;
    for (uint8_t i = 0; i < key.length; ++i) {
      hash ^= key.bytes[i];
      hash *= 0x100000001b3ull;
    }
    return static_cast<size_t>(hash);
  }
};

}  // namespace dtl::ipfix
