#include <gtest/gtest.h>
#include <stdarg.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "dtl_counters.h"
#include "dtl_json.h"
#include "dtl_logger.h"
#include "dtl_timestamp.h"

namespace {

namespace fs = std::filesystem;
using Json = dtl::json::value;

const fs::path kParsonDir = fs::path(DTL_TESTDATA_DIR) / "parson";

std::vector<std::string> g_log;

void CaptureLog(int, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char line[1024];
  vsnprintf(line, sizeof(line), fmt, args);
  va_end(args);
  g_log.emplace_back(line);
}

bool LogContains(const std::string& text) {
  return std::any_of(g_log.begin(), g_log.end(),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

class LogCapture : public ::testing::Test {
 protected:
  void SetUp() override {
    g_log.clear();
    dtl_set_log_func(CaptureLog, DTL_LOG_LEVEL_DEBUG);
  }
  void TearDown() override { dtl_set_log_func(nullptr, 0); }
};

struct SchemaDeleter {
  void operator()(dtl_counters_schema_t* s) const { dtl_destroy_counters_schema(s); }
};
using SchemaPtr = std::unique_ptr<dtl_counters_schema_t, SchemaDeleter>;

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string IdText(const unsigned char* id) {
  CString text(dtl_schema_id_string(id));
  return text ? std::string(text.get()) : std::string();
}

std::string SchemaIdText(const dtl_counters_schema_t* schema) {
  dtl_schema_id_t id;
  if (!dtl_calc_counters_schema_id(id, schema)) return {};
  return IdText(id);
}

// A counter record whose strings point into the caller's literals; the
// library stores deep copies.
dtl_counter_info_t Counter(const char* name, uint32_t data_type, uint32_t length = 8) {
  dtl_counter_info_t c{};
  c.name = const_cast<char*>(name);
  c.description = const_cast<char*>("");
  c.units = const_cast<char*>("");
  c.data_type = data_type;
  c.counting_type = DTL_COUNTING_TYPE_RUNNING_SUM;
  c.length = length;
  return c;
}

SchemaPtr SchemaOf(const std::vector<dtl_counter_info_t>& counters, const char* group = "ipfix") {
  SchemaPtr schema(dtl_create_counters_schema());
  EXPECT_TRUE(
      dtl_counters_schema_add_counter(schema.get(), counters.data(), counters.size(), group));
  return schema;
}

// ---- Reference schemas ----

// Builds a schema from a reference input description through the C API.
SchemaPtr BuildReferenceSchema(const Json& input) {
  SchemaPtr schema(dtl_create_counters_schema());
  for (const Json& g : input.at("groups")) {
    const std::string name = g.at("name").get<std::string>();
    const std::string provider = g.at("provider").get<std::string>();
    dtl_counter_group_t* group =
        dtl_create_counter_group_no_provider(name.c_str(), provider.c_str());
    EXPECT_NE(group, nullptr);
    group->granularity = g.at("granularity").get<uint32_t>();
    for (const Json& c : g.at("counters")) {
      const std::string cname = c.at("name").get<std::string>();
      const std::string description = c.at("description").get<std::string>();
      const std::string units = c.at("units").get<std::string>();
      dtl_counter_info_t info{};
      info.name = const_cast<char*>(cname.c_str());
      info.description = const_cast<char*>(description.c_str());
      info.units = const_cast<char*>(units.c_str());
      info.data_type = c.at("data_type").get<uint32_t>();
      info.counting_type = c.at("counting_type").get<uint32_t>();
      info.offset = c.at("offset").get<uint32_t>();
      info.length = c.at("length").get<uint32_t>();
      info.hidden = c.at("hidden").get<uint8_t>();
      info.mandatory = c.at("mandatory").get<uint8_t>();
      info.index = c.at("index").get<uint8_t>();
      info.string_format = c.at("string_format").get<uint32_t>();
      EXPECT_TRUE(dtl_add_counter_to_group(group, &info));
    }
    EXPECT_TRUE(dtl_counters_schema_append_group(schema.get(), group));
  }
  return schema;
}

std::vector<std::string> ReferenceCases() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(kParsonDir)) {
    const std::string file = entry.path().filename().string();
    const std::string suffix = ".input.json";
    if (file.ends_with(suffix)) names.push_back(file.substr(0, file.size() - suffix.size()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

class ReferenceSchema : public ::testing::TestWithParam<std::string> {};

TEST_P(ReferenceSchema, TextAndIdentifierMatchTheReference) {
  const std::string base = (kParsonDir / GetParam()).string();
  SchemaPtr schema = BuildReferenceSchema(Json::parse(ReadFile(base + ".input.json")));
  const std::string pretty = ReadFile(base + ".pretty.json");
  std::string md5 = ReadFile(base + ".md5");
  while (!md5.empty() && (md5.back() == '\n' || md5.back() == '\r')) md5.pop_back();

  CString text(dtl_counters_schema_serialize(schema.get()));
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(std::string(text.get()), pretty);
  EXPECT_EQ(SchemaIdText(schema.get()), md5);

  // The other ways to the same identifier agree.
  dtl_schema_id_t from_text;
  ASSERT_TRUE(dtl_get_schema_id_from_pretty_json_string(pretty.c_str(), from_text));
  EXPECT_EQ(IdText(from_text), md5);
  std::unique_ptr<dtl_json_value_t, decltype(&dtl_json_value_free)> json(
      dtl_counters_schema_jsonify(schema.get()), dtl_json_value_free);
  ASSERT_NE(json, nullptr);
  dtl_schema_id_t from_json;
  ASSERT_TRUE(dtl_type_system_get_json_schema_id(from_json, json.get()));
  EXPECT_EQ(IdText(from_json), md5);
  char file_md5[DTL_MD5_HEX_SIZE];
  ASSERT_TRUE(dtl_compute_file_md5((base + ".pretty.json").c_str(), file_md5));
  EXPECT_EQ(std::string(file_md5), md5);
}

INSTANTIATE_TEST_SUITE_P(Parson, ReferenceSchema, ::testing::ValuesIn(ReferenceCases()),
                         [](const auto& info) { return info.param; });

TEST(ReferenceSchemaCases, AllPresent) { EXPECT_GE(ReferenceCases().size(), 8u); }

// ---- Schema identifiers ----

TEST(SchemaId, UnsetResetCopyCompare) {
  dtl_schema_id_t a, b;
  dtl_reset_schema_id(a);
  EXPECT_TRUE(dtl_schema_id_is_unset(a));
  EXPECT_EQ(IdText(a), std::string(32, '0'));
  ASSERT_TRUE(dtl_schema_from_id_string("000102030405060708090a0b0c0d0e0f", b));
  EXPECT_FALSE(dtl_schema_id_is_unset(b));
  EXPECT_GT(dtl_compare_schema_id(b, a), 0);
  dtl_copy_schema_id(a, b);
  EXPECT_EQ(dtl_compare_schema_id(a, b), 0);
  EXPECT_EQ(a[15], 0x0f);
}

TEST(SchemaId, TextParsingAcceptsEitherCase) {
  dtl_schema_id_t id;
  ASSERT_TRUE(dtl_schema_from_id_string("0123456789ABCDEFabcdefAbCdEf0189", id));
  EXPECT_EQ(id[0], 0x01);
  EXPECT_EQ(id[4], 0x89);
  EXPECT_EQ(id[5], 0xab);
  EXPECT_EQ(IdText(id), "0123456789abcdefabcdefabcdef0189");
  char buffer[DTL_SCHEMA_ID_STRING_SIZE];
  dtl_schema_id_to_schema_string(id, buffer);
  EXPECT_STREQ(buffer, "0123456789abcdefabcdefabcdef0189");
}

TEST(SchemaId, TextParsingRejectsMalformedText) {
  dtl_schema_id_t id;
  dtl_reset_schema_id(id);
  const std::string good(32, 'a');
  EXPECT_FALSE(dtl_schema_from_id_string(good.substr(0, 31).c_str(), id));
  EXPECT_FALSE(dtl_schema_from_id_string((good + "a").c_str(), id));
  EXPECT_FALSE(dtl_schema_from_id_string("", id));
  EXPECT_FALSE(dtl_schema_from_id_string(nullptr, id));
  EXPECT_FALSE(dtl_schema_from_id_string(good.c_str(), nullptr));
  for (char bad : {'g', 'G', ' ', '-', 'x'}) {
    std::string text = good;
    text[17] = bad;
    EXPECT_FALSE(dtl_schema_from_id_string(text.c_str(), id)) << text;
  }
  // A failed parse leaves the identifier as it was.
  EXPECT_TRUE(dtl_schema_id_is_unset(id));
}

TEST(SchemaId, BlobIdentifier) {
  dtl_schema_id_t id;
  dtl_reset_schema_id(id);
  EXPECT_FALSE(dtl_schema_id_is_blob(id));
  dtl_schema_id_set_blob(id);
  EXPECT_TRUE(dtl_schema_id_is_blob(id));
  EXPECT_EQ(memcmp(id, "BLOB_DATA_SCHEMA", 16), 0);
  id[15] ^= 1;
  EXPECT_FALSE(dtl_schema_id_is_blob(id));
}

TEST(SchemaId, StableForTheSameSchemaAndSensitiveToOrder) {
  SchemaPtr ab = SchemaOf({Counter("a", DTL_DATA_TYPE_UINT64), Counter("b", DTL_DATA_TYPE_UINT64)});
  SchemaPtr ba = SchemaOf({Counter("b", DTL_DATA_TYPE_UINT64), Counter("a", DTL_DATA_TYPE_UINT64)});
  const std::string id_ab = SchemaIdText(ab.get());
  ASSERT_EQ(id_ab.size(), 32u);
  EXPECT_EQ(SchemaIdText(ab.get()), id_ab);
  EXPECT_NE(SchemaIdText(ba.get()), id_ab);

  SchemaPtr ab_again =
      SchemaOf({Counter("a", DTL_DATA_TYPE_UINT64), Counter("b", DTL_DATA_TYPE_UINT64)});
  EXPECT_EQ(SchemaIdText(ab_again.get()), id_ab);
  ab_again->groups[0]->counters[1]->hidden = 1;
  EXPECT_NE(SchemaIdText(ab_again.get()), id_ab);
}

// ---- MD5 ----

TEST(Md5, FileDigestFailsOnMissingOrEmptyFiles) {
  const fs::path dir = fs::path(testing::TempDir()) / "counters_schema_md5";
  fs::create_directories(dir);
  char hex[DTL_MD5_HEX_SIZE] = "junk";
  EXPECT_FALSE(dtl_compute_file_md5((dir / "missing").c_str(), hex));
  EXPECT_STREQ(hex, "");
  std::ofstream(dir / "empty").close();
  strcpy(hex, "junk");
  EXPECT_FALSE(dtl_compute_file_md5((dir / "empty").c_str(), hex));
  EXPECT_STREQ(hex, "");
  std::ofstream(dir / "abc") << "abc";
  EXPECT_TRUE(dtl_compute_file_md5((dir / "abc").c_str(), hex));
  EXPECT_STREQ(hex, "900150983cd24fb0d6963f7d28e17f72");
  fs::remove_all(dir);
}

// ---- Sizes, counts and offsets ----

TEST(SchemaSizes, SizeOfCountersByType) {
  SchemaPtr schema =
      SchemaOf({Counter("u64", DTL_DATA_TYPE_UINT64, 0), Counter("u128", DTL_DATA_TYPE_UINT128, 0),
                Counter("str", DTL_DATA_TYPE_STRING, 20)});
  EXPECT_EQ(dtl_counters_schema_size_of_counters(schema.get()), 44u);
  EXPECT_EQ(schema->size_of_counters, 44u);
  ASSERT_EQ(schema->num_groups, 1u);
  EXPECT_STREQ(schema->groups[0]->name, "ipfix");
  EXPECT_EQ(dtl_counters_schema_number_of_counters(schema.get()), 3u);

  // Later additions go to the same first group and update the size.
  const dtl_counter_info_t more[] = {Counter("i128", DTL_DATA_TYPE_INT128, 4)};
  ASSERT_TRUE(dtl_counters_schema_add_counter(schema.get(), more, 1, "other"));
  EXPECT_EQ(schema->num_groups, 1u);
  EXPECT_EQ(schema->size_of_counters, 60u);
}

TEST(SchemaSizes, OffsetsRunAcrossGroups) {
  SchemaPtr schema =
      SchemaOf({Counter("u64", DTL_DATA_TYPE_UINT64, 0), Counter("u128", DTL_DATA_TYPE_UINT128, 0),
                Counter("str", DTL_DATA_TYPE_STRING, 20)});
  dtl_counter_group_t* second = dtl_create_counter_group_no_provider("second", nullptr);
  const dtl_counter_info_t i64 = Counter("i64", DTL_DATA_TYPE_INT64, 4);
  const dtl_counter_info_t last = Counter("last", DTL_DATA_TYPE_FP64, 0);
  ASSERT_TRUE(dtl_add_counter_to_group(second, &i64));
  ASSERT_TRUE(dtl_add_counter_to_group(second, &last));
  ASSERT_TRUE(dtl_counters_schema_append_group(schema.get(), second));

  dtl_counters_schema_update_counter_offsets(schema.get());
  EXPECT_EQ(schema->groups[0]->counters[0]->offset, 0u);
  EXPECT_EQ(schema->groups[0]->counters[1]->offset, 8u);
  EXPECT_EQ(schema->groups[0]->counters[2]->offset, 24u);
  // A non-string type with an explicit length takes that length.
  EXPECT_EQ(second->counters[0]->offset, 44u);
  EXPECT_EQ(second->counters[1]->offset, 48u);
}

class SchemaOffsetsLog : public LogCapture {};

TEST_F(SchemaOffsetsLog, ZeroLengthStringStopsTheLayout) {
  SchemaPtr schema =
      SchemaOf({Counter("u64", DTL_DATA_TYPE_UINT64), Counter("empty_str", DTL_DATA_TYPE_STRING, 0),
                Counter("after", DTL_DATA_TYPE_UINT64)});
  schema->groups[0]->counters[2]->offset = 999;
  dtl_counters_schema_update_counter_offsets(schema.get());
  EXPECT_EQ(schema->groups[0]->counters[1]->offset, 8u);
  EXPECT_EQ(schema->groups[0]->counters[2]->offset, 999u);
  EXPECT_TRUE(LogContains(
      "[dtl_counters_schema_update_counter_offsets] Fail: received 0 length string counter "
      "empty_str"));
  EXPECT_TRUE(LogContains("[schema] Set up counter u64  size=8  offset=0"));
}

TEST_F(SchemaOffsetsLog, NumberOfCountersNeedsOneCounterSetPerGroup) {
  SchemaPtr schema =
      SchemaOf({Counter("a", DTL_DATA_TYPE_UINT64), Counter("b", DTL_DATA_TYPE_UINT64)});
  EXPECT_EQ(dtl_counters_schema_total_number_of_counters(schema.get()), 2u);
  schema->groups[0]->num_counter_sets = 3;
  EXPECT_EQ(dtl_counters_schema_number_of_counters(schema.get()), 0u);
  EXPECT_TRUE(LogContains("num_counter_sets should be 1, not 3"));
  EXPECT_EQ(dtl_counters_schema_total_number_of_counters(schema.get()), 6u);
}

// ---- JSON form ----

TEST(SchemaJson, EmptySchemaAndOmittedMembers) {
  SchemaPtr empty(dtl_create_counters_schema());
  CString text(dtl_counters_schema_serialize(empty.get()));
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text.get(),
               "{\n    \"title\": \"Dartel performance counters collector\",\n"
               "    \"version\": \"1.5.0\",\n    \"counter_groups\": []\n}");

  dtl_counter_info_t odd = Counter("odd", 9);
  odd.counting_type = 3;
  odd.string_format = 5;
  odd.description = nullptr;
  SchemaPtr schema = SchemaOf({odd});
  std::unique_ptr<dtl_json_value_t, decltype(&dtl_json_value_free)> json(
      dtl_counters_schema_jsonify(schema.get()), dtl_json_value_free);
  ASSERT_NE(json, nullptr);
  const Json& counter = json->v["counter_groups"][0]["counters"][0];
  EXPECT_FALSE(counter.contains("data_type"));
  EXPECT_FALSE(counter.contains("counting_type"));
  EXPECT_FALSE(counter.contains("string_format"));
  EXPECT_FALSE(counter.contains("description"));
  EXPECT_EQ(counter["name"], "odd");
}

class SchemaText : public LogCapture {};

// Counter and group texts go into the schema's JSON document, so text that
// is not UTF-8 is refused with one error line and never reaches the output.
TEST_F(SchemaText, InvalidUtf8IsRefused) {
  const char* const kBad[] = {"\xff", "ab\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"};
  enum Field { kName, kDescription, kUnits };
  for (const char* bad : kBad) {
    for (Field field : {kName, kDescription, kUnits}) {
      SCOPED_TRACE(testing::PrintToString(std::string(bad)) + " in field " +
                   std::to_string(field));
      g_log.clear();
      dtl_counter_info_t counter = Counter("ok", DTL_DATA_TYPE_UINT64);
      char** text[] = {&counter.name, &counter.description, &counter.units};
      *text[field] = const_cast<char*>(bad);
      SchemaPtr schema = SchemaOf({Counter("first", DTL_DATA_TYPE_UINT64)});
      EXPECT_FALSE(dtl_add_counter_to_group(schema->groups[0], &counter));
      EXPECT_EQ(g_log.size(), 1u);
      EXPECT_EQ(schema->groups[0]->num_counters, 1u);
    }
    g_log.clear();
    EXPECT_EQ(dtl_create_counter_group_no_provider(bad, nullptr), nullptr);
    EXPECT_EQ(dtl_create_counter_group_no_provider("g", bad), nullptr);
    EXPECT_EQ(g_log.size(), 2u);
  }
  // Valid multi-byte names are kept as they are.
  SchemaPtr schema =
      SchemaOf({Counter("Gr\xc3\xb6\xc3\x9f" "e \xf0\x9d\x84\x9e", DTL_DATA_TYPE_UINT64)});
  EXPECT_EQ(schema->groups[0]->num_counters, 1u);
}

TEST_F(SchemaText, InvalidTextSetAfterwardsIsLeftOutOfTheDocument) {
  SchemaPtr schema = SchemaOf({Counter("a", DTL_DATA_TYPE_UINT64)});
  // The records are plain C structures: a caller may still change them.
  dtl_counter_group_t* group = schema->groups[0];
  free(group->name);
  group->name = strdup("g\xff");
  free(group->counters[0]->name);
  group->counters[0]->name = strdup("c\xfe");
  std::unique_ptr<dtl_json_value_t, decltype(&dtl_json_value_free)> json(
      dtl_counters_schema_jsonify(schema.get()), dtl_json_value_free);
  ASSERT_NE(json, nullptr);
  const Json& group_json = json->v["counter_groups"][0];
  EXPECT_FALSE(group_json.contains("name"));
  EXPECT_FALSE(group_json["counters"][0].contains("name"));
  EXPECT_EQ(group_json["counters"][0]["offset"], 0);
  CString text(dtl_counters_schema_serialize(schema.get()));
  ASSERT_NE(text, nullptr);
  EXPECT_FALSE(Json::parse(text.get(), nullptr, false).is_discarded()) << text.get();
  EXPECT_NE(SchemaIdText(schema.get()), "");
}

class CounterInfo : public LogCapture {};

TEST_F(CounterInfo, ReadBackFromItsJsonForm) {
  dtl_counter_info_t original = Counter("str", DTL_DATA_TYPE_STRING, 20);
  original.units = const_cast<char*>("bytes");
  original.offset = 16;
  original.hidden = 1;
  original.index = 3;
  original.string_format = DTL_STRING_FORMAT_UUID;
  SchemaPtr schema = SchemaOf({original});
  std::unique_ptr<dtl_json_value_t, decltype(&dtl_json_value_free)> json(
      dtl_counters_schema_jsonify(schema.get()), dtl_json_value_free);
  ASSERT_NE(json, nullptr);
  dtl_json_value_t counter{json->v["counter_groups"][0]["counters"][0]};

  dtl_counter_info_t info;
  ASSERT_TRUE(dtl_counter_info_from_json(&counter, &info));
  EXPECT_STREQ(info.name, "str");
  EXPECT_STREQ(info.units, "bytes");
  EXPECT_EQ(info.data_type, static_cast<uint32_t>(DTL_DATA_TYPE_STRING));
  EXPECT_EQ(info.counting_type, static_cast<uint32_t>(DTL_COUNTING_TYPE_RUNNING_SUM));
  EXPECT_EQ(info.length, 20u);
  EXPECT_EQ(info.offset, 16u);
  EXPECT_EQ(info.hidden, 1);
  EXPECT_EQ(info.index, 3);
  EXPECT_EQ(info.string_format, static_cast<uint32_t>(DTL_STRING_FORMAT_UUID));
  dtl_destroy_counter_info(&info);
  EXPECT_TRUE(g_log.empty());

  counter.v.erase("units");
  EXPECT_FALSE(dtl_counter_info_from_json(&counter, &info));
  EXPECT_TRUE(LogContains("JSON does not match schema '"));
}

TEST_F(CounterInfo, DeepCopyOwnsItsStrings) {
  std::string name = "name";
  dtl_counter_info_t src = Counter(name.data(), DTL_DATA_TYPE_UINT64);
  src.identifier = 77;
  src.reserved = 5;
  dtl_counter_info_t copy;
  ASSERT_TRUE(dtl_counter_info_deep_copy(&copy, &src));
  name[0] = 'N';
  EXPECT_STREQ(copy.name, "name");
  EXPECT_NE(copy.units, src.units);
  EXPECT_EQ(copy.identifier, 77u);
  EXPECT_EQ(copy.reserved, 5u);
  dtl_destroy_counter_info(&copy);
  EXPECT_EQ(copy.name, nullptr);
  EXPECT_TRUE(g_log.empty());

  // Releasing a record whose strings are gone warns once per string.
  dtl_destroy_counter_info(&copy);
  ASSERT_EQ(g_log.size(), 3u);
  EXPECT_EQ(g_log[0].rfind("on src/counters/counter_data", 0), 0u) << g_log[0];
  EXPECT_NE(g_log[0].find("dtl_destroy_counter_info"), std::string::npos);
  EXPECT_NE(g_log[0].find("attempted to free NULL ptr"), std::string::npos);
}

// ---- Vocabularies ----

TEST(Vocabulary, UnknownNumbersAndNames) {
  EXPECT_EQ(dtl_data_type_to_string(8), nullptr);
  EXPECT_EQ(dtl_counting_type_to_string(3), nullptr);
  EXPECT_EQ(dtl_string_format_to_string(0xFFFFFFFFu), nullptr);
  EXPECT_STREQ(dtl_granularity_to_string(3), "unknown");
  EXPECT_EQ(dtl_data_type_from_string("uint64"), DTL_VOCABULARY_UNKNOWN);
  EXPECT_EQ(dtl_counting_type_from_string(nullptr), DTL_VOCABULARY_UNKNOWN);
  EXPECT_EQ(dtl_granularity_from_string("unknown"), DTL_VOCABULARY_UNKNOWN);
  EXPECT_EQ(dtl_string_format_from_string("Default"), DTL_VOCABULARY_UNKNOWN);
  EXPECT_EQ(dtl_string_format_from_string(nullptr), 0u);
}

// ---- Counters data block ----

TEST(CountersData, ResetWritesMagicPaddingAndTime) {
  alignas(8) unsigned char block[sizeof(dtl_counters_data_t) + 2 * sizeof(uint64_t)];
  memset(block, 0xAB, sizeof(block));
  auto* data = reinterpret_cast<dtl_counters_data_t*>(block);
  const uint64_t before = dtl_timestamp_now();
  dtl_counters_data_reset(data);
  const uint64_t after = dtl_timestamp_now();
  EXPECT_EQ(memcmp(block, "DTLD\0\0\0\0", 8), 0);
  EXPECT_GE(data->timestamp, before);
  EXPECT_LE(data->timestamp, after);
  // The values are the caller's business.
  EXPECT_EQ(data->values[0], 0xABABABABABABABABull);
}

}  // namespace
