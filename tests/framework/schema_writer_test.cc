// Schema documents published as files named after their identifier. The
// exact text and name are checked through dtl-read's tests, which publish
// with this writer; a full disk under the atomic write by the disk writer's
// publication tests, nearer the program.
#include "dtl_schema_writer.h"

#include <unistd.h>

#include <filesystem>
#include <set>
#include <stdexcept>
#include <thread>

#include "dtl_atomic_file.h"
#include "dtl_schema_file.h"
#include "framework/test_util.h"

namespace {

namespace fs = std::filesystem;
using dtl::json::value;
using dtl_test::ReadFile;
using Names = std::set<std::string>;

value CountersSchema(const std::string& counter) {
  value groups = value::array();
  if (!counter.empty()) groups.push_back({{"name", "ipfix"}, {"counters", value::array({{{"name", counter}}})}});
  return {{"title", "Dartel performance counters collector"}, {"version", "1.5.0"}, {"counter_groups", groups}};
}

std::string FileName(const value& doc) { return "schema_" + dtl::md5(dtl::json::serialize_pretty(doc)) + ".json"; }

Names Files(const fs::path& dir) {
  Names names;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) names.insert(entry.path().filename());
  return names;
}

class SchemaWriterTest : public ::testing::Test {
 protected:
  void SetUp() override { AllowEmpty(nullptr, nullptr), fs::create_directories(dir_); }
  void TearDown() override { AllowEmpty(nullptr, nullptr), fs::remove_all(dir_); }
  // Sets (or unsets, for null) both variables and forgets the computed flag.
  static void AllowEmpty(const char* prefixed, const char* bare) {
    prefixed ? setenv("DTL_ALLOW_EMPTY_COUNTER_SCHEMA", prefixed, 1) : unsetenv("DTL_ALLOW_EMPTY_COUNTER_SCHEMA");
    bare ? setenv("ALLOW_EMPTY_COUNTER_SCHEMA", bare, 1) : unsetenv("ALLOW_EMPTY_COUNTER_SCHEMA");
    dtl::detail::reset_schema_writer_allow_empty_flag();
  }
  // The runtime error's text (checked to be logged as an error too), or "".
  std::string Publish(const value& doc) {
    try {
      dtl::SchemaWriter{.schema_dir = dir_.string()}.onSchema(doc);
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(log_.LevelOf(e.what()), DTL_LOG_LEVEL_ERROR);
      return e.what();
    }
    return "";
  }

  dtl_test::LogCapture log_;
  fs::path dir_ = fs::path(testing::TempDir()) / ("schema_writer_test_" + std::to_string(getpid()));
};

TEST_F(SchemaWriterTest, VersionsAndEmptySchemas) {
  const std::string old = " is incompatible with the serializer, the minimal supported version is 1.4.0";
  const std::pair<value, std::string> rows[] = {{"1.3.0", "[schema writer] schema version 1.3.0" + old},
                                                {"garbage", "[schema writer] schema version garbage" + old},
                                                {1.5, "[schema writer] missing Dartel schema version"},
                                                {"1.4.0", ""}, {"1.4.7", ""}, {"2.0", ""}};
  for (const auto& [version, error] : rows) {
    value doc = CountersSchema(version.dump());
    doc["version"] = version;
    EXPECT_EQ(Publish(doc), error);
    EXPECT_EQ(fs::exists(dir_ / FileName(doc)), error.empty()) << version;
  }
  // A counters schema without counters needs the variable; the prefixed one wins.
  const std::string unknown = "[schema writer] schema was not recognized neither as type system nor as counters schema";
  const value empty = CountersSchema("");
  EXPECT_EQ(Publish(empty), unknown);
  AllowEmpty("0", "True");
  EXPECT_EQ(Publish(empty), unknown);
  AllowEmpty(nullptr, "Y");
  EXPECT_EQ(Publish(empty), "");
  EXPECT_TRUE(fs::exists(dir_ / FileName(empty)));
}

TEST_F(SchemaWriterTest, MembersArraysEventSchemasAndBadText) {
  const value inner = CountersSchema("inner"), a = CountersSchema("a");
  const value event = {{"provider_version", "3.1"}, {"counter_groups", value::array()}};
  EXPECT_EQ(Publish(value{{"version", "1.4.0"}, {"counters_schema", inner}, {"schemas", {a, event}}}), "");
  EXPECT_EQ(Files(dir_), (Names{FileName(inner), FileName(a), FileName(event)}));
  EXPECT_EQ(ReadFile(dir_ / FileName(inner)), dtl::json::serialize_pretty(inner));

  log_.Clear();
  dtl::SchemaWriter other{.schema_dir = (dir_ / "other").string()};
  other.onSchema(value{{"version", "1.5.0"}, {"counters_schema", CountersSchema("")}});
  other.onSchema(std::string("{\"version\": "));
  EXPECT_EQ(Files(dir_ / "other"), Names{});
  EXPECT_EQ(log_.Snapshot(), (std::vector<std::string>{"6 [schema writer] Skipping empty counters_schema.",
                                                       "4 [schema writer] Could not deserialize schema JSON"}));
}

TEST_F(SchemaWriterTest, FailuresAreLoggedOnceUntilTheNextSuccess) {
  // A regular file where a directory is expected: creation fails even for root.
  std::ofstream(dir_ / "blocker") << "x";
  const fs::path blocked = dir_ / "blocker" / "schemas";
  const value doc = CountersSchema("tx");
  dtl::SchemaWriter writer{.schema_dir = blocked.string()};
  for (int i = 0; i < 2; ++i) writer.onSchema(doc);
  EXPECT_FALSE(writer.report);
  const std::string file = (blocked / FileName(doc)).string(), dir = blocked.string();
  EXPECT_EQ(log_.Snapshot(),
            std::vector{"4 [data] Could not create schema file '" + file + "': Inaccessible data path " + dir});
  writer.schema_dir = dir_.string();
  writer.onSchema(doc);
  EXPECT_TRUE(writer.report);

  // The file name taken by a directory: the write fails, logged once again.
  log_.Clear();
  fs::create_directories(dir_ / "taken" / FileName(doc));
  writer.schema_dir = (dir_ / "taken").string();
  for (int i = 0; i < 2; ++i) writer.onSchema(doc);
  ASSERT_EQ(log_.Snapshot().size(), 1u);
  const std::string taken = (dir_ / "taken" / FileName(doc)).string();
  EXPECT_EQ(log_.Snapshot()[0].rfind("4 [data] Could not write schema file '" + taken, 0), 0u);
  EXPECT_FALSE(writer.report);
}

TEST_F(SchemaWriterTest, ConcurrentAtomicWritesLeaveOneWholeText) {
  // Writers of the same name at the same moment never collide on a
  // temporary file, and the file always holds one text whole.
  const std::string texts[] = {std::string(5000, 'a'), std::string(3, 'b')};
  bool ok[2] = {true, true};
  std::vector<std::thread> writers;
  for (int t = 0; t < 2; ++t)
    writers.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) ok[t] = dtl::WriteFileAtomically(dir_ / "f.json", texts[t], nullptr) && ok[t];
    });
  for (auto& writer : writers) writer.join();
  EXPECT_TRUE(ok[0] && ok[1]);
  const std::string last = ReadFile(dir_ / "f.json");
  EXPECT_TRUE(last == texts[0] || last == texts[1]);
  EXPECT_EQ(Files(dir_), Names{"f.json"});
}

}  // namespace
