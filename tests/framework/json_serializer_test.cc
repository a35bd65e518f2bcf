// The serializer must write what the reference printer writes, byte for byte:
// schema identifiers are MD5s of that text (tests/data/parson, whose cases
// cover every escape).
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <limits>

#include "dtl_json.h"
#include "framework/test_util.h"

namespace {

using dtl::json::serialize_compact;
using dtl::json::serialize_pretty;
using dtl::json::value;
using dtl_test::ReadFile;

const std::filesystem::path kParsonDir = std::filesystem::path(DTL_TESTDATA_DIR) / "parson";

TEST(JsonSerializer, IntegersNonFiniteNulAndCompactLayout) {
  const double inf = std::numeric_limits<double>::infinity();
  const struct {
    value input;
    const char* expected;
    const char* what;
  } rows[] = {
      {value(-42), "-42", "negative integer"},
      {value(4294967295u), "4294967295", "unsigned"},
      {value(int64_t{99999999999999999}), "1e+17", "integer rounded up to the exponent form"},
      {value((int64_t{1} << 53) + 1), "9007199254740992", "beyond 2^53 as a double"},
      {value(std::numeric_limits<uint64_t>::max()), "1.8446744073709552e+19", "uint64 max"},
      {value(std::numeric_limits<int64_t>::min()), "-9.2233720368547758e+18", "int64 min"},
      {value(std::nan("")), "null", "NaN"},
      {value::array({-inf}), "[null]", "infinity"},
      {value(std::string("a\0b", 3)), R"("a\u0000b")", "embedded NUL (other escapes: the reference texts)"},
      {value::array({value::array()}), "[[]]", "nested empty array"},
      {value::object({{"b", nullptr}, {"c", value::array({1, true, false})}, {"e", value::object()}}),
       R"({"b":null,"c":[1,true,false],"e":{}})", "compact has no blanks"},
  };
  for (const auto& row : rows) EXPECT_EQ(serialize_compact(row.input), row.expected) << row.what;
  EXPECT_EQ(serialize_pretty(value::object({{"a", value::array({1, value::object()})}})),
            "{\n    \"a\": [\n        1,\n        {}\n    ]\n}");
}

TEST(JsonSerializer, NumbersAgreeWithPrintf) {
  // Doubles are written "%1.17g": 0.1 as 0.10000000000000001, 1e16 whole, 1e17 with an exponent.
  std::vector<double> samples = {0.1, -0.0, 1e16, 1e17, -1e17, 1.0 / 3, 2.5e-5, 1e-5, 1e-4, 123456.789, 6.02214076e23,
                                 1e300, 5e-324, 4503599627370495.5, 9007199254740993.0};
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

// Each text breaks UTF-8 in its own way; none may reach the output.
TEST(JsonSerializer, InvalidUtf8IsLeftOutAndOutputStaysValid) {
  for (const char* bad : {"\xff", "\x80x", "ab\xc3", "\xe4\xb8x", "\xc0\xaf", "\xe0\x80\xaf",
                          "\xf0\x82\x82\xac", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
    SCOPED_TRACE(testing::PrintToString(std::string(bad)));
    EXPECT_FALSE(dtl::json::is_valid_utf8(bad));
    value v = value::object();
    v["keep"] = 1;
    v[bad] = "bad key";
    v["bad value"] = bad;
    v["list"] = value::array({"a", bad, "b"});
    v["only bad"] = value::array({bad});
    EXPECT_EQ(serialize_compact(v), R"({"keep":1,"list":["a","b"],"only bad":[]})");
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

// Reference texts parsed and printed again come back byte for byte: pretty
// schemas and compact REST bodies ("name<TAB>body" lines).
TEST(JsonSerializer, ReferenceTextsRoundTrip) {
  int pretty_cases = 0, rest_cases = 0;
  for (const auto& entry : std::filesystem::directory_iterator(kParsonDir)) {
    if (!entry.path().string().ends_with(".pretty.json")) continue;
    const std::string text = ReadFile(entry.path());
    EXPECT_EQ(serialize_pretty(value::parse(text)), text) << entry.path();
    ++pretty_cases;
  }
  std::ifstream in(kParsonDir / "rest_bodies.tsv");
  for (std::string line; std::getline(in, line); ++rest_cases) {
    const std::string body = line.substr(line.find('\t') + 1);
    EXPECT_EQ(serialize_compact(value::parse(body)), body) << line;
  }
  EXPECT_GE(pretty_cases, 8);
  EXPECT_EQ(rest_cases, 7);
}

}  // namespace
