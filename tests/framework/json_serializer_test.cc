#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "dtl_json.h"

namespace {

using dtl::json::serialize_compact;
using dtl::json::serialize_pretty;
using dtl::json::value;

const std::filesystem::path kParsonDir = std::filesystem::path(DTL_TESTDATA_DIR) / "parson";

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(JsonSerializerNumbers, WrittenAsDoublesWithSeventeenDigits) {
  EXPECT_EQ(serialize_compact(value(0.1)), "0.10000000000000001");
  EXPECT_EQ(serialize_compact(value(1e300)), "1.0000000000000001e+300");
  EXPECT_EQ(serialize_compact(value(-0.0)), "-0");
  EXPECT_EQ(serialize_compact(value(1.5)), "1.5");
  EXPECT_EQ(serialize_compact(value(5e-324)), "4.9406564584124654e-324");
  EXPECT_EQ(serialize_compact(value(100)), "100");
  EXPECT_EQ(serialize_compact(value(-42)), "-42");
  EXPECT_EQ(serialize_compact(value(4294967295u)), "4294967295");
}

TEST(JsonSerializerNumbers, WholeNumbersAroundTheExponentSwitch) {
  EXPECT_EQ(serialize_compact(value(1e16)), "10000000000000000");
  EXPECT_EQ(serialize_compact(value(1e17)), "1e+17");
  EXPECT_EQ(serialize_compact(value(-1e17)), "-1e+17");
  EXPECT_EQ(serialize_compact(value(-123.0)), "-123");
  EXPECT_EQ(serialize_compact(value(int64_t{12345678901234567})), "12345678901234568");
  EXPECT_EQ(serialize_compact(value(int64_t{99999999999999999})), "1e+17");
  // Integers beyond 2^53 lose precision exactly as doubles do.
  EXPECT_EQ(serialize_compact(value((int64_t{1} << 53) + 1)), "9007199254740992");
  EXPECT_EQ(serialize_compact(value(std::numeric_limits<uint64_t>::max())),
            "1.8446744073709552e+19");
  EXPECT_EQ(serialize_compact(value(std::numeric_limits<int64_t>::min())),
            "-9.2233720368547758e+18");
}

TEST(JsonSerializerNumbers, AgreesWithPrintf) {
  std::vector<double> samples = {0.5, 1.0 / 3, 2.5e-5, 1e-5, 1e-4, 123456.789, 6.02214076e23,
                                 -7.25, 4503599627370495.5, 9007199254740993.0, 1e100, 3e-300};
  uint64_t state = 88172645463325252ull;  // xorshift: varied bit patterns, repeatable
  for (int i = 0; i < 5000; ++i) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    double d;
    std::memcpy(&d, &state, sizeof(d));
    if (std::isfinite(d)) samples.push_back(d);
    samples.push_back(static_cast<double>(static_cast<int64_t>(state) >> (state % 64)));
  }
  char expected[64];
  for (double d : samples) {
    std::snprintf(expected, sizeof(expected), "%1.17g", d);
    ASSERT_EQ(serialize_compact(value(d)), expected) << d;
  }
}

TEST(JsonSerializerNumbers, NonFiniteBecomesNull) {
  EXPECT_EQ(serialize_compact(value(std::nan(""))), "null");
  EXPECT_EQ(serialize_compact(value(std::numeric_limits<double>::infinity())), "null");
  EXPECT_EQ(serialize_pretty(value::array({-std::numeric_limits<double>::infinity()})),
            "[\n    null\n]");
}

TEST(JsonSerializerStrings, EscapesLikeTheReferencePrinter) {
  EXPECT_EQ(serialize_compact(value("a/b")), R"("a\/b")");
  EXPECT_EQ(serialize_compact(value("q\"b\\")), R"("q\"b\\")");
  EXPECT_EQ(serialize_compact(value("\b\f\n\r\t")), R"("\b\f\n\r\t")");
  EXPECT_EQ(serialize_compact(value("\x01\x1f\x0b")), R"("\u0001\u001f\u000b")");
  // DEL and UTF-8 bytes pass through untouched.
  EXPECT_EQ(serialize_compact(value("\x7f\xc3\xa9\xe4\xb8\xad")), "\"\x7f\xc3\xa9\xe4\xb8\xad\"");
  EXPECT_EQ(serialize_compact(value("")), "\"\"");
}

TEST(JsonSerializerStrings, EmbeddedNulIsEscaped) {
  const std::string text("a\0b", 3);
  EXPECT_EQ(serialize_compact(value(text)), R"("a\u0000b")");
}

// Each text is one way of breaking UTF-8; none may reach the output.
const char* const kInvalidUtf8[] = {
    "\xff",              // byte never used in UTF-8
    "\x80x",             // stray continuation byte
    "ab\xc3",            // sequence cut off at the end
    "\xe4\xb8x",          // sequence cut off by an ASCII byte
    "\xc0\xaf",          // overlong '/'
    "\xe0\x80\xaf",      // overlong, three bytes
    "\xf0\x82\x82\xac",  // overlong, four bytes
    "\xed\xa0\x80",      // surrogate half
    "\xf4\x90\x80\x80",  // above U+10FFFF
};

TEST(JsonSerializerStrings, InvalidUtf8IsLeftOutAndOutputStaysValid) {
  for (const char* bad : kInvalidUtf8) {
    SCOPED_TRACE(testing::PrintToString(std::string(bad)));
    EXPECT_FALSE(dtl::json::is_valid_utf8(bad));
    value v = value::object();
    v["keep"] = 1;
    v[bad] = "bad key";
    v["bad value"] = bad;
    v["list"] = value::array({"a", bad, "b"});
    v["only bad"] = value::array({bad});
    const std::string compact = serialize_compact(v);
    EXPECT_EQ(compact, R"({"keep":1,"list":["a","b"],"only bad":[]})");
    EXPECT_EQ(serialize_pretty(value::object({{"x", bad}})), "{}");
    EXPECT_EQ(serialize_pretty(value(bad)), "null");
    EXPECT_FALSE(value::parse(serialize_pretty(v), nullptr, false).is_discarded());
  }
  // Boundaries of the valid range pass through.
  for (const char* good : {"\xc2\x80", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                           "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(dtl::json::is_valid_utf8(good)) << testing::PrintToString(std::string(good));
    EXPECT_EQ(serialize_compact(value::array({good})), "[\"" + std::string(good) + "\"]");
  }
}

TEST(JsonSerializerLayout, CompactHasNoBlanks) {
  value v = value::object();
  v["a"] = value::object({{"b", nullptr}, {"c", value::array({1, true, false})}});
  v["empty_array"] = value::array();
  v["empty_object"] = value::object();
  v["k/\n"] = "x y";
  EXPECT_EQ(
      serialize_compact(v),
      R"({"a":{"b":null,"c":[1,true,false]},"empty_array":[],"empty_object":{},"k\/\n":"x y"})");
}

TEST(JsonSerializerLayout, PrettyIndentsFourBlanksPerLevel) {
  value v = value::object();
  v["a"] = value::object({{"b", nullptr}, {"c", value::array({1, value::object()})}});
  v["empty"] = value::array();
  EXPECT_EQ(serialize_pretty(v),
            "{\n"
            "    \"a\": {\n"
            "        \"b\": null,\n"
            "        \"c\": [\n"
            "            1,\n"
            "            {}\n"
            "        ]\n"
            "    },\n"
            "    \"empty\": []\n"
            "}");
}

TEST(JsonSerializerLayout, ScalarsAndEmptyContainersAtTopLevel) {
  EXPECT_EQ(serialize_pretty(value()), "null");
  EXPECT_EQ(serialize_pretty(value(true)), "true");
  EXPECT_EQ(serialize_pretty(value::object()), "{}");
  EXPECT_EQ(serialize_pretty(value::array()), "[]");
  EXPECT_EQ(serialize_compact(value::array({value::array()})), "[[]]");
}

// Reference texts parsed and printed again must come back byte for byte.
TEST(JsonSerializerReference, PrettySchemasRoundTrip) {
  int cases = 0;
  for (const auto& entry : std::filesystem::directory_iterator(kParsonDir)) {
    const std::string name = entry.path().filename().string();
    if (!name.ends_with(".pretty.json")) continue;
    SCOPED_TRACE(name);
    const std::string text = ReadFile(entry.path());
    EXPECT_EQ(serialize_pretty(value::parse(text)), text);
    ++cases;
  }
  EXPECT_GE(cases, 8);
}

TEST(JsonSerializerReference, CompactRestBodiesRoundTrip) {
  std::ifstream in(kParsonDir / "rest_bodies.tsv");
  std::string line;
  int cases = 0;
  while (std::getline(in, line)) {
    const auto tab = line.find('\t');
    ASSERT_NE(tab, std::string::npos) << line;
    const std::string body = line.substr(tab + 1);
    SCOPED_TRACE(line.substr(0, tab));
    EXPECT_EQ(serialize_compact(value::parse(body)), body);
    ++cases;
  }
  EXPECT_EQ(cases, 7);
}

}  // namespace
