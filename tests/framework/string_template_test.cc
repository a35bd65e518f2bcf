#include "dtl_string_template.h"

#include <map>

#include "framework/test_util.h"

namespace {

TEST(StringTemplate, Substitution) {
  const struct {
    const char* text;
    std::map<std::string, std::string> values;
    const char* expected;
    const char* what;
  } rows[] = {
      {"{{year}}/{{a}}/{{b}}.bin", {{"a", "leaf1"}}, "{{year}}/leaf1/{{b}}.bin", "unknown keys kept"},
      {"x{{a}}{{b}}y{{a}}", {{"a", "1"}, {"b", "2"}}, "x12y1", "every occurrence"},
      {"{{}}", {{"", "empty"}}, "empty", "empty key"},
      {"{{}}", {}, "{{}}", "empty key without a value"},
      {"{{a}} then {{b", {{"a", "1"}, {"b", "2"}}, "1 then {{b", "unterminated"},
      {"}}{{a}}", {{"a", "1"}}, "}}1", "stray closing braces"},
      {"{{a{{b}}}}", {{"a{{b", "K"}, {"b", "B"}}, "K}}", "key ends at the first }}"},
      {"{{a}}{{b}}", {{"a", "{{b}}"}, {"b", "B"}}, "{{b}}B", "values are not rescanned"},
      {"{{a}}}}", {{"a", "{{a"}}, "{{a}}", "value forms a key with the rest"},
  };
  for (const auto& row : rows) EXPECT_EQ(dtl::string_template(row.text, row.values), row.expected) << row.what;
}

TEST(ExpandStringTemplate, FormatsIntoAnAllocatedTextAndRefusesNull) {
  const std::string big(10000, 'q');
  EXPECT_EQ(dtl_test::TakeText(dtl_expand_string_template("%s_%d<%s>", "leaf", 42, big.c_str())),
            "leaf_42<" + big + ">");
  dtl_test::LogCapture log;
  EXPECT_EQ(dtl_expand_string_template(nullptr), nullptr);
  EXPECT_EQ(log.Snapshot(), std::vector<std::string>{"3 Failed to calculate length of expanded string template"});
}

}  // namespace
