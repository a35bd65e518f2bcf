#include "dtl_string_template.h"

#include <stdarg.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dtl_logger.h"

namespace {

TEST(StringTemplate, ReplacesKnownKeysAndKeepsUnknownOnes) {
  EXPECT_EQ(dtl::string_template("{{year}}/{{a}}/{{b}}.bin", {{"a", "leaf1"}}),
            "{{year}}/leaf1/{{b}}.bin");
  EXPECT_EQ(dtl::string_template("x{{a}}{{b}}y{{a}}", {{"a", "1"}, {"b", "2"}}), "x12y1");
  EXPECT_EQ(dtl::string_template("{{}}", {{"", "empty"}}), "empty");
  EXPECT_EQ(dtl::string_template("{{}}", {}), "{{}}");
}

TEST(StringTemplate, UnterminatedAndNestedBraces) {
  EXPECT_EQ(dtl::string_template("{{a}} then {{b", {{"a", "1"}, {"b", "2"}}), "1 then {{b");
  EXPECT_EQ(dtl::string_template("}}{{a}}", {{"a", "1"}}), "}}1");
  // The key ends at the first "}}": no nesting.
  EXPECT_EQ(dtl::string_template("{{a{{b}}}}", {{"a{{b", "K"}, {"b", "B"}}), "K}}");
}

TEST(StringTemplate, ValuesAreNotRescanned) {
  EXPECT_EQ(dtl::string_template("{{a}}{{b}}", {{"a", "{{b}}"}, {"b", "B"}}), "{{b}}B");
  EXPECT_EQ(dtl::string_template("{{a}}}}", {{"a", "{{a"}}), "{{a}}");
}

std::vector<std::string> g_lines;
void CaptureLog(int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  char buffer[512];
  vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  g_lines.emplace_back(buffer);
}

TEST(ExpandStringTemplate, FormatsIntoAnAllocatedText) {
  std::string big(10000, 'q');
  std::unique_ptr<char, decltype(&free)> text(
      dtl_expand_string_template("%s_%d<%s>", "leaf", 42, big.c_str()), &free);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(std::string(text.get()), "leaf_42<" + big + ">");
}

TEST(ExpandStringTemplate, NullFormatGivesNullAndOneErrorLine) {
  g_lines.clear();
  dtl_set_log_func(CaptureLog, DTL_LOG_LEVEL_DEBUG);
  char* text = dtl_expand_string_template(nullptr);
  dtl_set_log_func(nullptr, DTL_LOG_LEVEL_ERROR);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(g_lines, std::vector<std::string>{"Failed to calculate length of expanded string template"});
}

}  // namespace
