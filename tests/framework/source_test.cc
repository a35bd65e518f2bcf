#include "dtl_source.h"

#include "framework/test_util.h"

namespace {

using ArrayPtr = std::unique_ptr<dtl_source_array_t, decltype(&dtl_destroy_source_array)>;
using SourcePtr = std::unique_ptr<dtl_source_t, decltype(&dtl_destroy_source)>;

TEST(Source, TextsAreCutAndTheFullStringNeedsRoom) {
  dtl_test::LogCapture log;
  const std::string long_id(70, 'x');
  SourcePtr s(dtl_create_source(long_id.c_str(), "a-very-long-tag-name"), dtl_destroy_source);
  EXPECT_EQ(dtl_test::TakeText(dtl_source_string(s.get())), std::string(63, 'x'));
  EXPECT_STREQ(s->tag, "a-very-long-tag");
  s.reset(dtl_create_source("ipfix", "ipfix"));
  char buffer[12];
  EXPECT_TRUE(dtl_source_full_string(s.get(), buffer, 12));
  EXPECT_STREQ(buffer, "ipfix:ipfix");
  EXPECT_FALSE(dtl_source_full_string(s.get(), buffer, 11));
  EXPECT_EQ(log.Snapshot(), std::vector<std::string>{"7 [source] buffer too small for source ipfix:ipfix (got 11)"});
}

TEST(Source, RangeForms) {
  dtl_test::LogCapture log;
  setenv("DTL_SOURCE_ID", "node", 1);
  const struct {
    const char* text;
    std::vector<std::string> identifiers;  // none for a refused text
  } rows[] = {{"3", {"node_1", "node_2", "node_3"}}, {"rack[2-3]", {"rack_2", "rack_3"}}, {"7-8", {"node_7", "node_8"}},
              {"5-2", {}}, {"-3", {}}, {"3-", {}}, {"0", {}}, {"", {}}, {"abc", {}}, {"1-x", {}}, {"rack[4-2]", {}},
              {"rack[2]", {}}, {"rack[a-3]", {}}, {"rack[1-2]x", {}}, {"99999", {}}};
  for (const auto& row : rows) {
    log.Clear();
    ArrayPtr array(dtl_create_source_array_from_string(row.text), dtl_destroy_source_array);
    std::vector<std::string> identifiers;
    for (uint16_t i = 0; array && i < array->count; ++i) identifiers.emplace_back(array->sources[i]->identifier);
    EXPECT_EQ(identifiers, row.identifiers) << row.text;
    EXPECT_EQ(array == nullptr, row.identifiers.empty()) << row.text;
    const std::string refused = std::string("3 [source] Invalid source format: ") + row.text;
    EXPECT_EQ(log.Snapshot(), row.identifiers.empty() ? std::vector{refused} : std::vector<std::string>{}) << row.text;
  }
  unsetenv("DTL_SOURCE_ID");
}

TEST(Source, ArrayHoldsAtMost65534SourcesFoundByIdentity) {
  ArrayPtr array(dtl_create_source_array(), dtl_destroy_source_array);
  for (int i = 0; i < DTL_SOURCE_ARRAY_MAX; ++i)
    ASSERT_TRUE(dtl_source_array_append(array.get(), dtl_create_source(std::to_string(i).c_str(), "")));
  SourcePtr extra(dtl_create_source("0", ""), dtl_destroy_source);
  EXPECT_FALSE(dtl_source_array_append(array.get(), extra.get()));  // still ours to free
  EXPECT_FALSE(dtl_source_array_append(array.get(), nullptr));
  EXPECT_EQ(array->count, 65534);
  EXPECT_STREQ(array->sources[65533]->identifier, "65533");
  EXPECT_EQ(dtl_source_array_find_source(array.get(), array->sources[40000]), 40000);
  EXPECT_EQ(dtl_source_array_find_source(array.get(), extra.get()), 65535);  // an equal twin is not found
}

}  // namespace
