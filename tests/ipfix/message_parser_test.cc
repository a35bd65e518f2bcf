#include "ipfix/message_parser.h"

#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "dtl_logger.h"
#include "tools/hft_sim/ipfix_message_builder.h"

// The largest single allocation while tracking is on; operator new is
// replaced for the whole test program so that the parser's allocations can
// be measured (only the test's thread allocates while it tracks).
namespace {
bool tracking_allocations = false;
size_t largest_allocation = 0;
}  // namespace

void* operator new(size_t size) {
  if (tracking_allocations && size > largest_allocation) largest_allocation = size;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace {

using dtl::hftsim::IpfixMessageBuilder;
using dtl::ipfix::MessageParser;
using dtl::ipfix::ParsedTemplate;

std::vector<std::string> logged;

void Capture(int level, const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  logged.push_back(std::to_string(level) + " " + text);
}

class MessageParserTest : public testing::Test {
 protected:
  void SetUp() override {
    logged.clear();
    dtl_set_log_func(Capture, DTL_LOG_LEVEL_DEBUG);
  }
  void TearDown() override { dtl_set_log_func(nullptr, DTL_LOG_LEVEL_ERROR); }

  // A header-only message with the Length field overridable.
  static std::vector<uint8_t> Header(uint16_t version, uint16_t length) {
    IpfixMessageBuilder b;
    b.PutU16(version);
    b.PutU16(length);
    b.PutU32(0x01020304);
    b.PutU32(0xA0B0C0D0);
    b.PutU32(77);
    return b.bytes();
  }
};

TEST_F(MessageParserTest, HeaderFieldsAreConvertedToHostOrder) {
  std::vector<uint8_t> message = Header(10, 16);
  auto header = MessageParser::ParseHeader(message.data(), message.size());
  ASSERT_TRUE(header.valid);
  EXPECT_EQ(header.export_time, 0x01020304u);
  EXPECT_EQ(header.sequence_number, 0xA0B0C0D0u);
  EXPECT_EQ(header.observation_domain_id, 77u);
  EXPECT_EQ(header.length, 16);

  // Bytes past the Length field do not matter to the header.
  message.resize(40, 0xEE);
  header = MessageParser::ParseHeader(message.data(), message.size());
  ASSERT_TRUE(header.valid);
  EXPECT_EQ(header.length, 16);
}

TEST_F(MessageParserTest, InvalidHeadersAreAllZero) {
  std::vector<uint8_t> ok = Header(10, 16);
  struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
    size_t len;
  } cases[] = {
      {"15 bytes", ok, 15},
      {"length above datagram", Header(10, 17), 16},
      {"length below header", Header(10, 15), 16},
      {"version 9", Header(9, 16), 16},
  };
  for (const Case& c : cases) {
    auto header = MessageParser::ParseHeader(c.bytes.data(), c.len);
    EXPECT_FALSE(header.valid) << c.what;
    EXPECT_EQ(header.export_time | header.sequence_number | header.observation_domain_id, 0u) << c.what;
    EXPECT_EQ(header.length, 0) << c.what;
  }
  EXPECT_TRUE(logged.empty());
}

TEST_F(MessageParserTest, ShortBodyAndEmptyTemplates) {
  const uint8_t three[3] = {1, 44, 0};
  EXPECT_TRUE(MessageParser::ParseTemplateSet(three, 3).empty());

  // Four zero bytes of padding read as template 0 with no fields.
  IpfixMessageBuilder b;
  b.AddTemplate(300, {});
  b.PutU32(0);
  auto templates = MessageParser::ParseTemplateSet(b.bytes().data(), b.size());
  ASSERT_EQ(templates.size(), 2u);
  EXPECT_EQ(templates[0].template_id, 300);
  EXPECT_TRUE(templates[0].fields.empty());
  EXPECT_EQ(templates[1].template_id, 0);
  EXPECT_TRUE(templates[1].fields.empty());
  EXPECT_TRUE(logged.empty());
}

TEST_F(MessageParserTest, EnterpriseSpecifierConsumesEightBytes) {
  IpfixMessageBuilder b;
  b.AddTemplate(257, {{0x1234, 4, 0}, {0x0042, 65535, 0xDEADBEEF}, {7, 2, 0}});
  b.PutU16(0xFFFF);  // fewer than 4 trailing bytes: not another template
  auto templates = MessageParser::ParseTemplateSet(b.bytes().data(), b.size());
  ASSERT_EQ(templates.size(), 1u);
  const ParsedTemplate& t = templates[0];
  ASSERT_EQ(t.fields.size(), 3u);
  EXPECT_EQ(t.fields[0], (dtl::ipfix::ParsedFieldSpecifier{0x1234, 4, false, 0}));
  EXPECT_EQ(t.fields[1], (dtl::ipfix::ParsedFieldSpecifier{0x42, 65535, true, 0xDEADBEEF}));
  EXPECT_EQ(t.fields[2], (dtl::ipfix::ParsedFieldSpecifier{7, 2, false, 0}));
  EXPECT_TRUE(t.HasVariableLengthFields());
}

TEST_F(MessageParserTest, TruncatedSpecifierKeepsEarlierTemplates) {
  IpfixMessageBuilder b;
  b.AddTemplate(300, {{1, 8, 0}, {2, 8, 0}});
  b.AddTemplate(301, {{1, 8, 0}, {2, 8, 0}, {3, 8, 0}});
  std::vector<uint8_t> body = b.bytes();
  body.resize(body.size() - 2);  // cuts the third specifier of 301
  auto templates = MessageParser::ParseTemplateSet(body.data(), body.size());
  ASSERT_EQ(templates.size(), 1u);
  EXPECT_EQ(templates[0].template_id, 300);
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_EQ(logged[0], "3 [IPFIX parser] Template 301: 3 field specifiers claimed, room for 2");

  // Enough room for the claimed count, but an enterprise number eats it.
  IpfixMessageBuilder e;
  e.AddTemplate(302, {{1, 4, 7}});
  std::vector<uint8_t> enterprise = e.bytes();
  enterprise[3] = 2;  // claims a second specifier: 8 bytes would do without the number
  logged.clear();
  EXPECT_TRUE(MessageParser::ParseTemplateSet(enterprise.data(), enterprise.size()).empty());
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_EQ(logged[0], "3 [IPFIX parser] Template 302: truncated field specifier at index 1");
}

// The field count is the sender's claim: it must be checked against the
// bytes before it sizes anything.
TEST_F(MessageParserTest, ClaimedFieldCountBeyondTheBytesIsRefusedWithoutAllocating) {
  struct Case {
    uint16_t claimed;
    size_t specifiers_present;
    bool accepted;
  } cases[] = {
      {65535, 0, false}, {65535, 3, false}, {4, 3, false}, {3, 3, true}, {0, 0, true},
  };
  for (const Case& c : cases) {
    IpfixMessageBuilder b;
    b.PutU16(300);
    b.PutU16(c.claimed);
    for (size_t i = 0; i < c.specifiers_present; ++i) {
      b.PutU16(static_cast<uint16_t>(100 + i));
      b.PutU16(8);
    }
    logged.clear();
    largest_allocation = 0;
    tracking_allocations = true;
    const auto templates = MessageParser::ParseTemplateSet(b.bytes().data(), b.size());
    tracking_allocations = false;
    EXPECT_EQ(templates.size(), c.accepted ? 1u : 0u) << c.claimed;
    EXPECT_EQ(logged.size(), c.accepted ? 0u : 1u) << c.claimed;
    // A few specifiers' worth, never the claimed count's (65535 x 12 bytes).
    EXPECT_LE(largest_allocation, 1024u) << c.claimed;
  }
}

TEST_F(MessageParserTest, TruncatedEnterpriseNumberIsReported) {
  IpfixMessageBuilder b;
  b.AddTemplate(258, {{1, 4, 0}, {2, 4, 9}});
  std::vector<uint8_t> body = b.bytes();
  body.resize(body.size() - 1);
  EXPECT_TRUE(MessageParser::ParseTemplateSet(body.data(), body.size()).empty());
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_EQ(logged[0], "3 [IPFIX parser] Template 258: truncated enterprise number at field 1");
}

TEST_F(MessageParserTest, FixedRecordSize) {
  ParsedTemplate t;
  EXPECT_EQ(t.FixedRecordSize(), 0u);
  t.fields = {{1, 2, false, 0}, {2, 8, false, 0}};
  EXPECT_EQ(t.FixedRecordSize(), 10u);
  EXPECT_FALSE(t.HasVariableLengthFields());
  t.fields = {{1, 8, false, 0}, {2, 8, false, 0}, {3, 65535, false, 0}};
  EXPECT_EQ(t.FixedRecordSize(), 0u);
}

}  // namespace
