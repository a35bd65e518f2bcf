// Options a host hands over in a dictionary, or the environment supplies.
#include "dtl_options.h"

#include <limits>

#include "dtl_dict.h"
#include "framework/test_util.h"

namespace {

using dtl::plugin::get_configuration_option;
using Dict = std::unique_ptr<dtl_custom_options, decltype(&dtl_dict_delete)>;

// The option's value when the dictionary holds text for it.
template <typename T>
T FromDict(const char* text, T default_value) {
  Dict dict(dtl_dict_create(), dtl_dict_delete);
  dtl_dict_add(dict.get(), "cfgtest-value", text);
  return get_configuration_option<T>(dict.get(), "cfgtest-value", default_value, "DTL_");
}

TEST(ConfigurationOption, ConversionIsStrict) {
  using us = unsigned short;
  for (const char* bad : {" 80", "80 ", "", "+", "-", "+-1", "0x10", "1e2", "8,0", "12abc", "65536", "-65536"})
    EXPECT_EQ(FromDict<us>(bad, 7), 7) << '"' << bad << '"';
  EXPECT_EQ(FromDict<us>("65535", 7), 65535);
  EXPECT_EQ(FromDict<us>("-1", 7), 65535);  // negative text wraps round
  EXPECT_EQ(FromDict<us>("-65535", 7), 1);
  EXPECT_EQ(FromDict<us>("+080", 7), 80);
  EXPECT_EQ(FromDict<int>("-2147483648", 7), std::numeric_limits<int>::min());
  EXPECT_EQ(FromDict<int>("2147483647", 7), std::numeric_limits<int>::max());
  EXPECT_EQ(FromDict<int>("2147483648", 7), 7);
  EXPECT_EQ(FromDict<int>("-2147483649", 7), 7);
  EXPECT_EQ(FromDict<unsigned>("4294967295", 7u), 4294967295u);
  EXPECT_EQ(FromDict<unsigned>("4294967296", 7u), 7u);
  EXPECT_EQ(FromDict<unsigned long>("18446744073709551615", 7ul), 18446744073709551615ul);
  EXPECT_EQ(FromDict<unsigned long>("18446744073709551616", 7ul), 7ul);
  EXPECT_EQ(FromDict<std::string>(" any text ", "d"), " any text ");

  // Booleans: only the fixed spellings; others keep the default.
  for (const char* t : {"1", "T", "true", "True"}) EXPECT_TRUE(FromDict<bool>(t, false)) << t;
  for (const char* t : {"0", "F", "false", "False"}) EXPECT_FALSE(FromDict<bool>(t, true)) << t;
  for (const char* t : {"TRUE", "yes", "t", "", " 1", "2"}) {
    EXPECT_TRUE(FromDict<bool>(t, true)) << t;
    EXPECT_THROW(boost::lexical_cast<bool>(std::string(t)), boost::bad_lexical_cast) << t;
  }
}

TEST(ConfigurationOption, DictionaryThenPrefixedThenBareVariable) {
  dtl_test::LogCapture log;
  Dict dict(dtl_dict_create(), dtl_dict_delete);
  setenv("DTL_CFGTEST_PORT", "443", 1);
  setenv("CFGTEST_PORT", "8443", 1);
  dtl_dict_add(dict.get(), "cfgtest-port", "");  // a value in the dictionary hides the variables
  EXPECT_EQ(get_configuration_option(dict.get(), "cfgtest-port", "d", "DTL_"), "");
  EXPECT_EQ(get_configuration_option<int>(dict.get(), "cfgtest-port", 9, "DTL_"), 9);
  EXPECT_TRUE(log.Snapshot().empty());
  dtl_dict_add(dict.get(), "cfgtest-port", nullptr);  // a key without a value does not
  EXPECT_EQ(get_configuration_option<unsigned short>(dict.get(), "cfgtest-port", 1, "DTL_"), 443);
  EXPECT_EQ(log.Snapshot(), std::vector<std::string>{"4 [dtl_getenv] Environment variables conflict - DTL_CFGTEST_PORT"
                                                     "=443 and CFGTEST_PORT=8443. Using DTL_CFGTEST_PORT"});
  unsetenv("DTL_CFGTEST_PORT");
  EXPECT_EQ(get_configuration_option<int>(nullptr, "cfgtest-port", 9, "DTL_"), 8443);
  setenv("DTL_CFGTEST_PORT", "", 1);  // set, though empty
  EXPECT_EQ(get_configuration_option(nullptr, "cfgtest-port", "d", "DTL_"), "");
  unsetenv("DTL_CFGTEST_PORT");
  unsetenv("CFGTEST_PORT");
}

// The dictionary is open addressing with deleted marks: keys must stay
// reachable through growth, removal along a probe chain and churn.
TEST(Dict, KeysStayReachableThroughGrowthRemovalAndChurn) {
  Dict d(dtl_dict_create(), dtl_dict_delete);
  const auto get = [&](const std::string& key) {
    const char* v = dtl_dict_get(d.get(), key.c_str());
    return std::string(v != nullptr ? v : "<null>");
  };
  for (int i = 0; i < 5000; ++i)
    ASSERT_TRUE(dtl_dict_add(d.get(), ("option-" + std::to_string(i)).c_str(), std::to_string(i * 7).c_str()));
  for (int i = 0; i < 5000; ++i) ASSERT_EQ(get("option-" + std::to_string(i)), std::to_string(i * 7));
  EXPECT_EQ(get("Option-1"), "<null>");  // case-sensitive

  // "ab" lands in the bucket after "a" (same start): removing "a" keeps "ab"
  // reachable, and adding either again must not duplicate it.
  d.reset(dtl_dict_create());
  ASSERT_TRUE(dtl_dict_add(d.get(), "a", "1") && dtl_dict_add(d.get(), "ab", "2"));
  ASSERT_TRUE(dtl_dict_remove(d.get(), "a"));
  EXPECT_FALSE(dtl_dict_remove(d.get(), "a"));
  ASSERT_TRUE(dtl_dict_add(d.get(), "ab", "3") && dtl_dict_add(d.get(), "a", "4"));
  EXPECT_EQ(d->table->size, 2u);
  EXPECT_EQ(get("a") + get("ab"), "43");

  // Ten live keys while thousands come and go: deleted buckets are dropped
  // at the same bucket count, so the table never grows past what ten need.
  for (int i = 0; i < 3000; ++i) {
    ASSERT_TRUE(dtl_dict_add(d.get(), ("k" + std::to_string(i)).c_str(), "v"));
    ASSERT_TRUE(i < 10 || dtl_dict_remove(d.get(), ("k" + std::to_string(i - 10)).c_str()));
  }
  EXPECT_EQ(d->table->size, 12u);
  EXPECT_LE(d->table->n_buckets, 32u);
  EXPECT_EQ(get("k2990") + get("k2999") + get("k2989"), "vv<null>");
}

}  // namespace
