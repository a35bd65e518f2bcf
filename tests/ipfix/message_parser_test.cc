#include "ipfix/message_parser.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "support/log_capture.h"
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
using dtl::ipfix::ParsedFieldSpecifier;
using dtl_test::LogCapture;

TEST(MessageParserTest, FieldSpecifiersAndTrailingBytes) {
  LogCapture log;
  IpfixMessageBuilder b;
  b.AddTemplate(257, {{0x1234, 4, 0}, {0x0042, 65535, 0xDEADBEEF}, {7, 2, 0}});
  b.AddTemplate(300, {{1, 2, 0}, {2, 8, 0}});
  b.PutU32(0);       // four zero bytes of padding read as template 0 without fields
  b.PutU16(0xFFFF);  // fewer than 4 trailing bytes: not another template
  const auto t = MessageParser::ParseTemplateSet(b.bytes().data(), b.size());
  ASSERT_EQ(t.size(), 3u);
  ASSERT_EQ(t[0].fields.size(), 3u);
  EXPECT_EQ(t[0].fields[0], (ParsedFieldSpecifier{0x1234, 4, false, 0}));
  EXPECT_EQ(t[0].fields[1], (ParsedFieldSpecifier{0x42, 65535, true, 0xDEADBEEF}));
  EXPECT_EQ(t[0].fields[2], (ParsedFieldSpecifier{7, 2, false, 0}));
  EXPECT_EQ(t[2].template_id, 0);
  EXPECT_TRUE(t[2].fields.empty());
  EXPECT_TRUE(LogCapture::Snapshot().empty());
}

// Hostile template sets: a truncated template ends the set (the templates
// before it are kept, the cause is logged), and a claimed field count is
// checked against the bytes before it sizes anything.
TEST(MessageParserTest, TruncatedTemplatesEndTheSetWithoutAllocatingForTheClaim) {
  LogCapture log;
  const auto claim = [](uint16_t claimed, size_t specifiers_present) {
    IpfixMessageBuilder b;
    b.PutU16(300);
    b.PutU16(claimed);
    for (size_t i = 0; i < specifiers_present; ++i) b.PutU32(0x00640008);  // element 100, 8 bytes
    return b.bytes();
  };
  IpfixMessageBuilder cut_specifier, enterprise_eats_room, cut_enterprise;
  cut_specifier.AddTemplate(300, {{1, 8, 0}, {2, 8, 0}});
  cut_specifier.AddTemplate(301, {{1, 8, 0}, {2, 8, 0}, {3, 8, 0}});
  enterprise_eats_room.AddTemplate(302, {{1, 4, 7}});
  cut_enterprise.AddTemplate(258, {{1, 4, 0}, {2, 4, 9}});
  struct Case {
    std::vector<uint8_t> body;
    std::vector<uint16_t> kept;
    const char* line;
  } cases[] = {
      {{1, 44, 0}, {}, nullptr},
      {cut_specifier.bytes(), {300}, "3 [IPFIX parser] Template 301: 3 field specifiers claimed, room for 2"},
      {enterprise_eats_room.bytes(), {}, "3 [IPFIX parser] Template 302: truncated field specifier at index 1"},
      {cut_enterprise.bytes(), {}, "3 [IPFIX parser] Template 258: truncated enterprise number at field 1"},
      {claim(65535, 0), {}, "3 [IPFIX parser] Template 300: 65535 field specifiers claimed, room for 0"},
      {claim(65535, 3), {}, "3 [IPFIX parser] Template 300: 65535 field specifiers claimed, room for 3"},
      {claim(4, 3), {}, "3 [IPFIX parser] Template 300: 4 field specifiers claimed, room for 3"},
      {claim(3, 3), {300}, nullptr},
      {claim(0, 0), {300}, nullptr},
  };
  cases[1].body.resize(cases[1].body.size() - 2);  // cuts the third specifier of 301
  cases[2].body[3] = 2;  // a second specifier: 8 bytes would hold it without the enterprise number
  cases[3].body.pop_back();  // cuts the enterprise number
  for (const Case& c : cases) {
    LogCapture::Clear();
    largest_allocation = 0;
    tracking_allocations = true;
    const auto templates = MessageParser::ParseTemplateSet(c.body.data(), c.body.size());
    tracking_allocations = false;
    // A few specifiers' worth, never the claimed count's (65535 x 12 bytes).
    EXPECT_LE(largest_allocation, 1024u) << c.line;
    std::vector<uint16_t> kept;
    for (const auto& t : templates) kept.push_back(t.template_id);
    EXPECT_EQ(kept, c.kept) << c.line;
    EXPECT_EQ(LogCapture::Snapshot(), c.line ? std::vector<std::string>{c.line} : std::vector<std::string>{});
  }
}

}  // namespace
