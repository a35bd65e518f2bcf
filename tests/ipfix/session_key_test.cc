#include "ipfix/session_key.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ipfix/ipfix_receiver.h"

namespace {

using dtl::ipfix::IpfixReceiver;
using dtl::ipfix::SessionKey;
using dtl::ipfix::SessionKeyHash;

sockaddr_in6 From(const char* address, uint16_t port) {
  sockaddr_in6 from{};
  from.sin6_family = AF_INET6;
  from.sin6_port = htons(port);
  EXPECT_EQ(inet_pton(AF_INET6, address, &from.sin6_addr), 1) << address;
  return from;
}

uint64_t ReferenceFnv(const uint8_t* bytes, size_t n) {
  uint64_t hash = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < n; ++i) hash = (hash ^ bytes[i]) * 0x100000001b3ull;
  return hash;
}

TEST(SessionKeyTest, Ipv4MappedExporterGivesTenByteKey) {
  const SessionKey key = IpfixReceiver::MakeSessionKey(From("::ffff:192.0.2.7", 4739), 0x01020304);
  ASSERT_EQ(key.length, SessionKey::kIpv4Length);
  uint8_t expected[10] = {0x12, 0x83, 0, 0, 0, 0, 192, 0, 2, 7};
  uint32_t domain = 0x01020304;
  std::memcpy(expected + 2, &domain, 4);  // host order
  EXPECT_EQ(0, std::memcmp(key.bytes, expected, 10));
  for (size_t i = 10; i < sizeof(key.bytes); ++i) EXPECT_EQ(key.bytes[i], 0) << i;

  EXPECT_EQ(IpfixReceiver::SessionKeyIpString(key), "192.0.2.7");
  EXPECT_EQ(IpfixReceiver::SessionKeyPort(key), 4739);
  EXPECT_EQ(IpfixReceiver::SessionKeyDomainId(key), 0x01020304u);
  EXPECT_EQ(key.ToKeyString(), std::string(reinterpret_cast<const char*>(expected), 10));
}

TEST(SessionKeyTest, NativeIpv6ExporterGivesTwentyTwoByteKey) {
  const SessionKey key = IpfixReceiver::MakeSessionKey(From("2001:db8::1", 50000), 9);
  ASSERT_EQ(key.length, SessionKey::kIpv6Length);
  EXPECT_EQ(IpfixReceiver::SessionKeyIpString(key), "2001:db8::1");
  EXPECT_EQ(IpfixReceiver::SessionKeyPort(key), 50000);
  EXPECT_EQ(IpfixReceiver::SessionKeyDomainId(key), 9u);
  EXPECT_EQ(key.ToKeyString().size(), 22u);

  // Only ::ffff:a.b.c.d is IPv4; the deprecated ::a.b.c.d form stays IPv6.
  EXPECT_EQ(IpfixReceiver::MakeSessionKey(From("::192.0.2.7", 1), 0).length, SessionKey::kIpv6Length);
}

TEST(SessionKeyTest, SameHostOverBothFamiliesIsTwoSessions) {
  const SessionKey v4 = IpfixReceiver::MakeSessionKey(From("::ffff:127.0.0.1", 4000), 1);
  const SessionKey v6 = IpfixReceiver::MakeSessionKey(From("::1", 4000), 1);
  EXPECT_FALSE(v4 == v6);
  EXPECT_EQ(IpfixReceiver::SessionKeyIpString(v6), "::1");

  // Port and domain are part of the identity.
  EXPECT_FALSE(v4 == IpfixReceiver::MakeSessionKey(From("::ffff:127.0.0.1", 4001), 1));
  EXPECT_FALSE(v4 == IpfixReceiver::MakeSessionKey(From("::ffff:127.0.0.1", 4000), 2));
  EXPECT_TRUE(v4 == IpfixReceiver::MakeSessionKey(From("::ffff:127.0.0.1", 4000), 1));
}

TEST(SessionKeyTest, HashAndEqualityUseSignificantBytesOnly) {
  const SessionKey key = IpfixReceiver::MakeSessionKey(From("::ffff:10.1.2.3", 4739), 5);
  SessionKey dirty = key;
  dirty.bytes[15] = 0xAA;  // past the significant length
  EXPECT_TRUE(key == dirty);
  EXPECT_EQ(SessionKeyHash{}(key), SessionKeyHash{}(dirty));
  EXPECT_EQ(SessionKeyHash{}(key), ReferenceFnv(key.bytes, 10));

  const SessionKey v6 = IpfixReceiver::MakeSessionKey(From("fe80::1:2", 4739), 5);
  EXPECT_EQ(SessionKeyHash{}(v6), ReferenceFnv(v6.bytes, 22));

  SessionKey longer = key;
  longer.length = SessionKey::kIpv6Length;  // same leading bytes, other length
  EXPECT_FALSE(key == longer);
}

}  // namespace
