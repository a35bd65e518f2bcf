#include <filesystem>

#include "dtl_counters.h"
#include "dtl_json.h"
#include "framework/test_util.h"

namespace {

namespace fs = std::filesystem;
using Json = dtl::json::value;
using dtl_test::LogCapture;
using dtl_test::ReadFile;
using dtl_test::TakeText;

using SchemaPtr = std::unique_ptr<dtl_counters_schema_t, decltype(&dtl_destroy_counters_schema)>;
using JsonPtr = std::unique_ptr<dtl_json_value_t, decltype(&dtl_json_value_free)>;

std::string SchemaIdText(const dtl_counters_schema_t* schema) {
  dtl_schema_id_t id;
  return dtl_calc_counters_schema_id(id, schema) ? TakeText(dtl_schema_id_string(id)) : "";
}

// A counter whose strings point into the caller's literals; the library
// stores deep copies.
dtl_counter_info_t Counter(const char* name, uint32_t data_type, uint32_t length = 8) {
  dtl_counter_info_t c{};
  c.name = const_cast<char*>(name), c.description = c.units = const_cast<char*>("");
  c.data_type = data_type, c.counting_type = DTL_COUNTING_TYPE_RUNNING_SUM, c.length = length;
  return c;
}

SchemaPtr SchemaOf(const std::vector<dtl_counter_info_t>& counters) {
  SchemaPtr schema(dtl_create_counters_schema(), dtl_destroy_counters_schema);
  EXPECT_TRUE(dtl_counters_schema_add_counter(schema.get(), counters.data(), counters.size(), "ipfix"));
  return schema;
}

// A schema built through the C interface from a reference input description.
SchemaPtr BuildReferenceSchema(const Json& input) {
  SchemaPtr schema(dtl_create_counters_schema(), dtl_destroy_counters_schema);
  for (const Json& g : input.at("groups")) {
    dtl_counter_group_t* group = dtl_create_counter_group_no_provider(
        g.at("name").get<std::string>().c_str(), g.at("provider").get<std::string>().c_str());
    EXPECT_NE(group, nullptr);
    group->granularity = g.at("granularity").get<uint32_t>();
    for (const Json& c : g.at("counters")) {
      std::string name = c.at("name"), description = c.at("description"), units = c.at("units");
      dtl_counter_info_t info = Counter(name.c_str(), c.at("data_type"), c.at("length"));
      info.description = description.data(), info.units = units.data();
      info.counting_type = c.at("counting_type"), info.offset = c.at("offset");
      info.hidden = c.at("hidden"), info.mandatory = c.at("mandatory"), info.index = c.at("index");
      info.string_format = c.at("string_format");
      EXPECT_TRUE(dtl_add_counter_to_group(group, &info));
    }
    EXPECT_TRUE(dtl_counters_schema_append_group(schema.get(), group));
  }
  return schema;
}

TEST(ReferenceSchema, TextAndIdentifierMatchTheReference) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(fs::path(DTL_TESTDATA_DIR) / "parson"))
    if (entry.path().string().ends_with(".input.json"))
      names.push_back(entry.path().string().substr(0, entry.path().string().size() - 11));
  ASSERT_GE(names.size(), 8u);
  for (const std::string& base : names) {
    SCOPED_TRACE(base);
    SchemaPtr schema = BuildReferenceSchema(Json::parse(ReadFile(base + ".input.json")));
    const std::string pretty = ReadFile(base + ".pretty.json"), md5 = ReadFile(base + ".md5").substr(0, 32);
    EXPECT_EQ(TakeText(dtl_counters_schema_serialize(schema.get())), pretty);
    EXPECT_EQ(SchemaIdText(schema.get()), md5);

    // The other ways to the same identifier agree.
    dtl_schema_id_t from_text, from_json;
    ASSERT_TRUE(dtl_get_schema_id_from_pretty_json_string(pretty.c_str(), from_text));
    EXPECT_EQ(TakeText(dtl_schema_id_string(from_text)), md5);
    JsonPtr json(dtl_counters_schema_jsonify(schema.get()), dtl_json_value_free);
    ASSERT_TRUE(json && dtl_type_system_get_json_schema_id(from_json, json.get()));
    EXPECT_EQ(TakeText(dtl_schema_id_string(from_json)), md5);
    char file_md5[DTL_MD5_HEX_SIZE];
    ASSERT_TRUE(dtl_compute_file_md5((base + ".pretty.json").c_str(), file_md5));
    EXPECT_EQ(std::string(file_md5), md5);
  }
}

TEST(SchemaId, TextFormsAndBlob) {
  dtl_schema_id_t a;
  ASSERT_TRUE(dtl_schema_from_id_string("0123456789ABCDEFabcdefAbCdEf0189", a));
  char text[DTL_SCHEMA_ID_STRING_SIZE];
  dtl_schema_id_to_schema_string(a, text);
  EXPECT_STREQ(text, "0123456789abcdefabcdefabcdef0189");
  // Malformed text is refused and leaves the identifier as it was.
  dtl_reset_schema_id(a);
  const std::string good(32, 'a');
  for (const std::string& bad : {good.substr(0, 31), good + "a", std::string(), good.substr(0, 17) +
                                 "g" + good.substr(18), good.substr(0, 17) + "-" + good.substr(18)})
    EXPECT_FALSE(dtl_schema_from_id_string(bad.c_str(), a)) << bad;
  EXPECT_FALSE(dtl_schema_from_id_string(nullptr, a) || dtl_schema_from_id_string(good.c_str(), nullptr));
  EXPECT_TRUE(dtl_schema_id_is_unset(a) && !dtl_schema_id_is_blob(a));
  dtl_schema_id_set_blob(a);
  EXPECT_TRUE(memcmp(a, "BLOB_DATA_SCHEMA", 16) == 0 && dtl_schema_id_is_blob(a));
  a[15] ^= 1;
  EXPECT_FALSE(dtl_schema_id_is_blob(a));
}

// Texts go into the schema's JSON document, so text that is not UTF-8 is
// refused with one error line and never reaches the output; valid
// multi-byte text is kept.
TEST(SchemaText, InvalidUtf8IsRefused) {
  LogCapture log;
  SchemaPtr schema = SchemaOf({Counter("Gr\xc3\xb6\xc3\x9f" "e \xf0\x9d\x84\x9e", DTL_DATA_TYPE_UINT64)});
  for (const char* bad : {"\xff", "ab\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
    SCOPED_TRACE(testing::PrintToString(std::string(bad)));
    for (int field = 0; field < 3; ++field) {
      dtl_counter_info_t counter = Counter("ok", DTL_DATA_TYPE_UINT64);
      char** texts[] = {&counter.name, &counter.description, &counter.units};
      *texts[field] = const_cast<char*>(bad);
      EXPECT_FALSE(dtl_add_counter_to_group(schema->groups[0], &counter)) << field;
    }
    EXPECT_EQ(schema->groups[0]->num_counters, 1u);
    EXPECT_EQ(dtl_create_counter_group_no_provider(bad, nullptr), nullptr);
    EXPECT_EQ(dtl_create_counter_group_no_provider("g", bad), nullptr);
  }
  EXPECT_EQ(log.Snapshot().size(), 25u);
}

// The records are plain C structures: a caller may still put text that is
// not UTF-8, or none, into them. Such members are left out of the document,
// and a counter read back without them is refused.
TEST(SchemaText, InvalidOrMissingTextSetAfterwardsIsLeftOut) {
  LogCapture log;
  SchemaPtr schema = SchemaOf({Counter("a", DTL_DATA_TYPE_UINT64)});
  dtl_counter_info_t* counter = schema->groups[0]->counters[0];
  for (char** text : {&schema->groups[0]->name, &counter->name, &counter->description}) free(*text);
  schema->groups[0]->name = strdup("g\xff");
  counter->name = strdup("c\xfe");
  counter->description = nullptr;
  JsonPtr json(dtl_counters_schema_jsonify(schema.get()), dtl_json_value_free);
  ASSERT_NE(json, nullptr);
  const Json& counter_json = json->v["counter_groups"][0]["counters"][0];
  EXPECT_FALSE(json->v["counter_groups"][0].contains("name"));
  EXPECT_FALSE(counter_json.contains("name") || counter_json.contains("description"));
  EXPECT_EQ(counter_json["offset"], 0);
  const std::string text = TakeText(dtl_counters_schema_serialize(schema.get()));
  EXPECT_FALSE(Json::parse(text, nullptr, false).is_discarded()) << text;
  EXPECT_EQ(SchemaIdText(schema.get()).size(), 32u);
  const dtl_json_value_t read_back{counter_json};
  dtl_counter_info_t info;
  EXPECT_FALSE(dtl_counter_info_from_json(&read_back, &info));
  EXPECT_EQ(log.Count("JSON does not match schema '"), 1u);

  // A record released twice warns once per string the second time.
  const dtl_counter_info_t original = Counter("x", DTL_DATA_TYPE_UINT64);
  ASSERT_TRUE(dtl_counter_info_deep_copy(&info, &original));
  dtl_destroy_counter_info(&info);
  dtl_destroy_counter_info(&info);
  EXPECT_EQ(log.Count("attempted to free NULL ptr"), 3u);
}

}  // namespace
