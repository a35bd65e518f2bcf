#include "dtl_options.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "dtl_dict.h"
#include "dtl_logger.h"

namespace {

using dtl::plugin::get_configuration_option;

std::vector<std::string> g_warnings;
void CaptureLog(int level, const char* fmt, ...) {
  if (level > DTL_LOG_LEVEL_WARNING) return;
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  g_warnings.emplace_back(buf);
}

struct DictDeleter {
  void operator()(dtl_custom_options* d) const { dtl_dict_delete(d); }
};

// Dictionary plus environment variables that are removed again afterwards.
class ConfigurationOptionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dict_.reset(dtl_dict_create());
    ASSERT_NE(dict_, nullptr);
    g_warnings.clear();
    dtl_set_log_func(CaptureLog, DTL_LOG_LEVEL_DEBUG);
  }
  void TearDown() override {
    for (const std::string& name : env_) unsetenv(name.c_str());
    dtl_set_log_func(nullptr, 0);
  }
  void SetEnv(const std::string& name, const char* value) {
    env_.push_back(name);
    ASSERT_EQ(setenv(name.c_str(), value, 1), 0);
  }
  void Put(const char* key, const char* value) { ASSERT_TRUE(dtl_dict_add(dict_.get(), key, value)); }
  const dtl_custom_options* opts() const { return dict_.get(); }

  template <typename T>
  T FromDict(const char* text, T default_value) {
    Put("cfgtest-value", text);
    return get_configuration_option<T>(opts(), "cfgtest-value", default_value, "DTL_");
  }

  std::unique_ptr<dtl_custom_options, DictDeleter> dict_;
  std::vector<std::string> env_;
};

std::string EnvKey(const char* name, const char* prefix) {
  std::unique_ptr<char, decltype(&free)> key(dtl_option_name_to_environment_key(name, prefix), &free);
  return key ? std::string(key.get()) : std::string("<null>");
}

TEST(OptionEnvironmentName, PrefixUpperCaseAndUnderscores) {
  EXPECT_EQ(EnvKey("ipfix-receiver-port", "DTL_"), "DTL_IPFIX_RECEIVER_PORT");
  EXPECT_EQ(EnvKey("switch-2-ip", "DTL_"), "DTL_SWITCH_2_IP");
  EXPECT_EQ(EnvKey("Mixed.case_x", "p-"), "p-MIXED.CASE_X");  // prefix kept as given
  EXPECT_EQ(EnvKey("", "DTL_"), "DTL_");
  std::unique_ptr<char, decltype(&free)> name(dtl_option_to_env_name("data-root"), &free);
  EXPECT_STREQ(name.get(), "DTL_DATA_ROOT");
}

TEST(StringToBool, AcceptsOnlyTheFixedSpellings) {
  for (const char* t : {"1", "T", "true", "True"}) EXPECT_TRUE(dtl::detail::string_to_bool(t)) << t;
  for (const char* t : {"0", "F", "false", "False"}) EXPECT_FALSE(dtl::detail::string_to_bool(t)) << t;
  for (const char* t : {"TRUE", "yes", "t", "f", "", " 1", "1 ", "2"})
    EXPECT_THROW(dtl::detail::string_to_bool(t), boost::bad_lexical_cast) << t;
  try {
    dtl::detail::string_to_bool("maybe");
    FAIL();
  } catch (const boost::bad_lexical_cast& e) {
    EXPECT_STREQ(e.what(), "bad lexical cast: source type value could not be interpreted as target");
  }
  // The lexical_cast specialisation routes through the same table.
  EXPECT_TRUE(boost::lexical_cast<bool>(std::string("True")));
  EXPECT_THROW(boost::lexical_cast<bool>(std::string("TRUE")), boost::bad_lexical_cast);
}

TEST_F(ConfigurationOptionTest, IntegerConversionIsStrict) {
  using us = unsigned short;
  EXPECT_EQ(FromDict<us>("65535", 7), 65535);
  EXPECT_EQ(FromDict<us>("65536", 7), 7);
  EXPECT_EQ(FromDict<us>("-1", 7), 65535);
  EXPECT_EQ(FromDict<us>("-65535", 7), 1);
  EXPECT_EQ(FromDict<us>("-65536", 7), 7);
  EXPECT_EQ(FromDict<us>("+80", 7), 80);
  EXPECT_EQ(FromDict<us>("080", 7), 80);
  for (const char* bad : {" 80", "80 ", "", "+", "-", "+-1", "0x10", "1e2", "8,0", "12abc"})
    EXPECT_EQ(FromDict<us>(bad, 7), 7) << '"' << bad << '"';

  EXPECT_EQ(FromDict<int>("-2147483648", 7), std::numeric_limits<int>::min());
  EXPECT_EQ(FromDict<int>("2147483647", 7), std::numeric_limits<int>::max());
  EXPECT_EQ(FromDict<int>("2147483648", 7), 7);
  EXPECT_EQ(FromDict<int>("-2147483649", 7), 7);

  EXPECT_EQ(FromDict<unsigned>("4294967295", 7u), 4294967295u);
  EXPECT_EQ(FromDict<unsigned>("4294967296", 7u), 7u);
  EXPECT_EQ(FromDict<unsigned>("-1", 7u), 4294967295u);

  EXPECT_EQ(FromDict<unsigned long>("18446744073709551615", 7ul), 18446744073709551615ul);
  EXPECT_EQ(FromDict<unsigned long>("18446744073709551616", 7ul), 7ul);
  EXPECT_EQ(FromDict<unsigned long>("-1", 7ul), std::numeric_limits<unsigned long>::max());
}

TEST_F(ConfigurationOptionTest, BoolAndStringConversion) {
  EXPECT_TRUE(FromDict<bool>("True", false));
  EXPECT_FALSE(FromDict<bool>("0", true));
  EXPECT_TRUE(FromDict<bool>("TRUE", true));
  EXPECT_FALSE(FromDict<bool>("yes", false));
  EXPECT_EQ(FromDict<std::string>(" any text ", "d"), " any text ");
  // A literal default selects the string form.
  EXPECT_EQ(get_configuration_option(opts(), "cfgtest-missing", "fallback", "DTL_"), "fallback");
}

TEST_F(ConfigurationOptionTest, DictionaryValueHidesEnvironment) {
  SetEnv("DTL_CFGTEST_PORT", "4000");
  Put("cfgtest-port", "");
  EXPECT_EQ(get_configuration_option<std::string>(opts(), "cfgtest-port", "d", "DTL_"), "");
  EXPECT_EQ(get_configuration_option<int>(opts(), "cfgtest-port", 9, "DTL_"), 9);
  Put("cfgtest-port", "abc");
  EXPECT_EQ(get_configuration_option<int>(opts(), "cfgtest-port", 9, "DTL_"), 9);
  // A key stored without a value falls through to the environment.
  Put("cfgtest-port", nullptr);
  EXPECT_EQ(get_configuration_option<int>(opts(), "cfgtest-port", 9, "DTL_"), 4000);
  EXPECT_EQ(get_configuration_option<int>(nullptr, "cfgtest-port", 9, "DTL_"), 4000);
  EXPECT_TRUE(g_warnings.empty());
}

TEST_F(ConfigurationOptionTest, EnvironmentPrefixedWinsWithOneConflictWarning) {
  SetEnv("DTL_CFGTEST_SWITCH_PORT", "443");
  SetEnv("CFGTEST_SWITCH_PORT", "8443");
  EXPECT_EQ(get_configuration_option<unsigned short>(nullptr, "cfgtest-switch-port", 1, "DTL_"), 443);
  ASSERT_EQ(g_warnings.size(), 1u);
  EXPECT_EQ(g_warnings[0],
            "[dtl_getenv] Environment variables conflict - DTL_CFGTEST_SWITCH_PORT=443 and "
            "CFGTEST_SWITCH_PORT=8443. Using DTL_CFGTEST_SWITCH_PORT");

  g_warnings.clear();
  unsetenv("DTL_CFGTEST_SWITCH_PORT");
  EXPECT_EQ(get_configuration_option<unsigned short>(opts(), "cfgtest-switch-port", 1, "DTL_"),
            8443);
  EXPECT_TRUE(g_warnings.empty());
}

TEST_F(ConfigurationOptionTest, EmptyEnvironmentValueCountsAsSet) {
  EXPECT_EQ(get_configuration_option<std::string>(nullptr, "cfgtest-empty", "d", "DTL_"), "d");
  SetEnv("DTL_CFGTEST_EMPTY", "");
  EXPECT_EQ(get_configuration_option<std::string>(nullptr, "cfgtest-empty", "d", "DTL_"), "");
  EXPECT_TRUE(get_configuration_option<bool>(nullptr, "cfgtest-empty", true, "DTL_"));
}

TEST_F(ConfigurationOptionTest, FlatFunctionsScanLenientlyAndDifferInEnvironment) {
  // Dictionary text: as is for strings, scanned for numbers.
  Put("cfgtest-flat", "12abc");
  EXPECT_EQ(dtl_get_configuration_option_string(opts(), "cfgtest-flat", "d"),
            dtl_dict_get(opts(), "cfgtest-flat"));
  EXPECT_EQ(dtl_get_configuration_option_int(opts(), "cfgtest-flat", 5), 12);
  EXPECT_EQ(dtl_get_configuration_option_uint64(opts(), "cfgtest-flat", 5), 12u);
  EXPECT_EQ(get_configuration_option<int>(opts(), "cfgtest-flat", 5, "DTL_"), 5);
  Put("cfgtest-flat", "  -7");
  EXPECT_EQ(dtl_get_configuration_option_int(opts(), "cfgtest-flat", 5), -7);
  Put("cfgtest-flat", "none");
  EXPECT_EQ(dtl_get_configuration_option_int(opts(), "cfgtest-flat", 5), 5);
  EXPECT_EQ(dtl_get_configuration_option_uint64(opts(), "cfgtest-flat", 5), 5u);

  // Only the int form falls back to the bare variable.
  const char* dflt = "d";
  SetEnv("CFGTEST_ENV", "31");
  EXPECT_EQ(dtl_get_configuration_option_string(nullptr, "cfgtest-env", dflt), dflt);
  EXPECT_EQ(dtl_get_configuration_option_uint64(nullptr, "cfgtest-env", 5), 5u);
  EXPECT_EQ(dtl_get_configuration_option_int(nullptr, "cfgtest-env", 5), 31);
  EXPECT_TRUE(g_warnings.empty());

  SetEnv("DTL_CFGTEST_ENV", "18446744073709551615");
  EXPECT_STREQ(dtl_get_configuration_option_string(nullptr, "cfgtest-env", dflt),
               "18446744073709551615");
  EXPECT_EQ(dtl_get_configuration_option_uint64(nullptr, "cfgtest-env", 5), 18446744073709551615ull);
  EXPECT_TRUE(g_warnings.empty());  // string and uint64 never read the bare name
  dtl_get_configuration_option_int(nullptr, "cfgtest-env", 5);
  EXPECT_EQ(g_warnings.size(), 1u);
}

}  // namespace
