#include "dtl_schema_writer.h"

#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "dtl_atomic_file.h"
#include "dtl_logger.h"
#include "dtl_schema_file.h"

namespace fs = boost::filesystem;
using dtl::json::value;

namespace {

std::vector<std::string> g_lines;
std::vector<int> g_levels;

void CaptureLog(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  char buffer[2048];
  vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  g_lines.emplace_back(buffer);
  g_levels.push_back(level);
}

std::string ReadFile(fs::path const& path) {
  std::ifstream in(path.string(), std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

value CountersSchema(std::string const& counter_name, bool with_counter = true) {
  value groups = value::array();
  if (with_counter)
    groups.push_back({{"name", "ipfix"}, {"counters", value::array({{{"name", counter_name}}})}});
  return {{"title", "Dartel performance counters collector"},
          {"version", "1.5.0"},
          {"counter_groups", groups}};
}

// A full disk in miniature: writes past `bytes` fail with EFBIG while it
// lives (SIGXFSZ ignored so that the process survives them).
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    old_handler_ = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &old_);
    rlimit lowered = old_;
    lowered.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &lowered);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, old_handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit old_{};
  sighandler_t old_handler_;
};

const char kNotRecognized[] =
    "[schema writer] schema was not recognized neither as type system nor as counters schema";

class SchemaWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/schema_writer_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = fs::canonical(pattern);
    cwd_ = fs::current_path();
    SetAllowEmpty(nullptr, nullptr);
    g_lines.clear();
    g_levels.clear();
    dtl_set_log_func(CaptureLog, DTL_LOG_LEVEL_DEBUG);
  }

  void TearDown() override {
    dtl_set_log_func(nullptr, DTL_LOG_LEVEL_ERROR);
    fs::current_path(cwd_);
    SetAllowEmpty(nullptr, nullptr);
    boost::system::error_code ec;
    fs::remove_all(dir_, ec);
  }

  // Sets (or unsets, for null) both variables and forgets the computed flag.
  static void SetAllowEmpty(const char* prefixed, const char* bare) {
    if (prefixed) setenv("DTL_ALLOW_EMPTY_COUNTER_SCHEMA", prefixed, 1);
    else unsetenv("DTL_ALLOW_EMPTY_COUNTER_SCHEMA");
    if (bare) setenv("ALLOW_EMPTY_COUNTER_SCHEMA", bare, 1);
    else unsetenv("ALLOW_EMPTY_COUNTER_SCHEMA");
    dtl::detail::reset_schema_writer_allow_empty_flag();
  }

  std::vector<std::string> Files(fs::path const& d) {
    std::vector<std::string> names;
    if (fs::is_directory(d))
      for (auto const& entry : fs::directory_iterator(d)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  static fs::path FileFor(fs::path const& d, value const& schema) {
    return d / ("schema_" + dtl::md5(dtl::json::serialize_pretty(schema)) + ".json");
  }

  // The runtime error's text, after checking that it was logged as an error.
  std::string Raised(dtl::SchemaWriter& writer, value const& doc) {
    try {
      writer.onSchema(doc);
    } catch (std::runtime_error const& e) {
      EXPECT_TRUE(!g_lines.empty() && g_lines.back() == e.what() &&
                  g_levels.back() == DTL_LOG_LEVEL_ERROR);
      return e.what();
    }
    ADD_FAILURE() << "no runtime error raised";
    return {};
  }

  fs::path dir_;
  fs::path cwd_;
};

TEST(SchemaFileNaming, Md5AndSchemaFilePath) {
  EXPECT_EQ(dtl::md5(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(dtl::md5(std::string("a\0b", 3)), "70350f6027bce3713f6b76473084309b");
  unsigned char id[16];
  for (int i = 0; i < 16; ++i) id[i] = static_cast<unsigned char>(i * 17);
  EXPECT_EQ(dtl::data_file::get_schema_file_path("/data/schema", id),
            "/data/schema/schema_00112233445566778899aabbccddeeff.json");
  EXPECT_EQ(dtl::data_file::get_schema_file_path("/data", nullptr), "");
}

TEST_F(SchemaWriterTest, FileIsNamedByDigestOfItsExactText) {
  std::string base = std::string(DTL_TESTDATA_DIR) + "/parson/provider_two_counters";
  std::string pretty = ReadFile(base + ".pretty.json");
  std::string id = ReadFile(base + ".md5").substr(0, 32);
  dtl::SchemaWriter writer{.schema_dir = dir_.string()};
  writer.onSchema(pretty);
  writer.onSchema(value::parse(pretty));  // a second publication rewrites the same bytes
  EXPECT_EQ(Files(dir_), std::vector<std::string>{"schema_" + id + ".json"});
  EXPECT_EQ(ReadFile(dir_ / ("schema_" + id + ".json")), pretty);
  EXPECT_TRUE(writer.report);
}

TEST_F(SchemaWriterTest, VersionChecks) {
  dtl::SchemaWriter writer{.schema_dir = dir_.string()};
  value doc = CountersSchema("tx");
  doc["version"] = "1.3.0";
  EXPECT_EQ(Raised(writer, doc),
            "[schema writer] schema version 1.3.0 is incompatible with the serializer, the "
            "minimal supported version is 1.4.0");
  doc["version"] = "garbage";
  EXPECT_NE(Raised(writer, doc).find("garbage"), std::string::npos);
  doc["version"] = 1.5;  // not a string
  EXPECT_EQ(Raised(writer, doc), "[schema writer] missing Dartel schema version");
  EXPECT_TRUE(Files(dir_).empty());

  for (const char* version : {"1.4.0", "1.4.7", "2.0"}) {
    doc = CountersSchema(version);
    doc["version"] = version;
    EXPECT_NO_THROW(writer.onSchema(doc)) << version;
    EXPECT_TRUE(fs::exists(FileFor(dir_, doc))) << version;
  }
}

TEST_F(SchemaWriterTest, EmptyCountersSchemaNeedsTheAllowEmptyVariable) {
  dtl::SchemaWriter writer{.schema_dir = dir_.string()};
  value empty = CountersSchema("", false);
  EXPECT_EQ(Raised(writer, empty), kNotRecognized);
  // Computed once per process: a later change goes unnoticed.
  setenv("DTL_ALLOW_EMPTY_COUNTER_SCHEMA", "yes", 1);
  EXPECT_EQ(Raised(writer, empty), kNotRecognized);
  SetAllowEmpty("0", "True");  // the prefixed variable wins
  EXPECT_EQ(Raised(writer, empty), kNotRecognized);
  SetAllowEmpty(nullptr, "Y");
  EXPECT_NO_THROW(writer.onSchema(empty));
  EXPECT_TRUE(fs::exists(FileFor(dir_, empty)));
}

TEST_F(SchemaWriterTest, ConflictingAllowEmptyVariablesWarnOnce) {
  SetAllowEmpty("t", "0");
  dtl::SchemaWriter writer{.schema_dir = dir_.string()};
  writer.onSchema(CountersSchema("", false));
  writer.onSchema(CountersSchema("", false));
  EXPECT_EQ(g_levels, std::vector<int>{DTL_LOG_LEVEL_WARNING});
  EXPECT_EQ(g_lines, std::vector<std::string>{
                         "[dtl_getenv] Environment variables conflict - "
                         "DTL_ALLOW_EMPTY_COUNTER_SCHEMA=t and ALLOW_EMPTY_COUNTER_SCHEMA=0. "
                         "Using DTL_ALLOW_EMPTY_COUNTER_SCHEMA"});
}

TEST_F(SchemaWriterTest, CountersSchemaMemberAndSchemasArray) {
  value inner = CountersSchema("inner");
  value a = CountersSchema("a");
  value b = {{"provider_version", "3.1"}, {"events", value::array({1, 2})}};
  value doc = {{"version", "1.4.0"}, {"counters_schema", inner}, {"schemas", {a, b}}};
  dtl::SchemaWriter writer{.schema_dir = dir_.string()};
  writer.onSchema(doc);
  std::vector<std::string> expected = {FileFor(dir_, inner).filename().string(),
                                       FileFor(dir_, a).filename().string(),
                                       FileFor(dir_, b).filename().string()};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(Files(dir_), expected);
  EXPECT_EQ(ReadFile(FileFor(dir_, inner)), dtl::json::serialize_pretty(inner));

  // An empty counters_schema member is skipped without error.
  fs::path other = dir_ / "other";
  dtl::SchemaWriter skipping{.schema_dir = other.string()};
  g_lines.clear();
  skipping.onSchema(value{{"version", "1.5.0"}, {"counters_schema", CountersSchema("", false)}});
  EXPECT_TRUE(Files(other).empty());
  EXPECT_EQ(g_lines, std::vector<std::string>{"[schema writer] Skipping empty counters_schema."});
}

TEST_F(SchemaWriterTest, SingleEventSchemaAndUnparsableText) {
  value doc = {{"provider_version", "7.2.1"}, {"counter_groups", value::array()}};
  dtl::SchemaWriter writer{.schema_dir = dir_.string()};
  writer.onSchema(doc);  // no "version" needed, empty groups allowed
  EXPECT_TRUE(fs::exists(FileFor(dir_, doc)));
  writer.onSchema(std::string("{\"version\": "));
  EXPECT_EQ(g_lines, (std::vector<std::string>{
                         "dtl::SchemaWriter::onSchema() identified single event schema.",
                         "[schema writer] Could not deserialize schema JSON"}));
  EXPECT_EQ(g_levels, (std::vector<int>{DTL_LOG_LEVEL_INFO, DTL_LOG_LEVEL_WARNING}));
}

TEST_F(SchemaWriterTest, DirectoryFailureIsLoggedOnceUntilNextSuccess) {
  // A regular file where a directory is expected: creation fails even for root.
  fs::path blocker = dir_ / "blocker";
  std::ofstream(blocker.string()) << "x";
  fs::path blocked = blocker / "schemas";
  value doc = CountersSchema("tx");
  dtl::SchemaWriter writer{.schema_dir = blocked.string()};
  EXPECT_NO_THROW(writer.onSchema(doc));
  EXPECT_NO_THROW(writer.onSchema(doc));
  EXPECT_FALSE(writer.report);
  EXPECT_EQ(g_lines, std::vector<std::string>{"[data] Could not create schema file '" +
                                              FileFor(blocked, doc).string() +
                                              "': Inaccessible data path " + blocked.string()});

  writer.schema_dir = (dir_ / "good").string();
  writer.onSchema(doc);
  EXPECT_TRUE(writer.report);
  writer.schema_dir = blocked.string();
  writer.onSchema(doc);
  EXPECT_EQ(g_lines.size(), 2u);
}

TEST_F(SchemaWriterTest, WriteFailureIsLogged) {
  value doc = CountersSchema("tx");
  fs::create_directory(FileFor(dir_, doc));  // the file name is taken by a directory
  dtl::SchemaWriter writer{.schema_dir = dir_.string()};
  writer.onSchema(doc);
  writer.onSchema(doc);
  ASSERT_EQ(g_lines.size(), 1u);
  EXPECT_EQ(g_lines[0].rfind("[data] Could not write schema file '" + FileFor(dir_, doc).string(), 0),
            0u);
  EXPECT_FALSE(writer.report);
}

TEST_F(SchemaWriterTest, FullDiskLeavesTheEarlierFileWholeAndNoTemporaryFile) {
  value doc = CountersSchema("tx");
  const fs::path file = FileFor(dir_, doc);
  dtl::SchemaWriter writer{.schema_dir = dir_.string()};
  writer.onSchema(doc);
  const std::string good = ReadFile(file);
  ASSERT_EQ(good, dtl::json::serialize_pretty(doc));
  {
    FileSizeLimit full(16);
    writer.onSchema(doc);
  }
  EXPECT_EQ(ReadFile(file), good);
  EXPECT_EQ(Files(dir_), std::vector<std::string>{file.filename().string()});
  EXPECT_FALSE(writer.report);
  EXPECT_EQ(g_lines.back(), "[data] Could not write schema file '" + file.string() + "': File too large");
}

TEST_F(SchemaWriterTest, AtomicWriteReplacesWholeOrNotAtAll) {
  const std::string path = (dir_ / "f.json").string();
  std::string error;
  ASSERT_TRUE(dtl::WriteFileAtomically(path, "first, longer text", &error)) << error;
  ASSERT_TRUE(dtl::WriteFileAtomically(path, "second", &error)) << error;
  EXPECT_EQ(ReadFile(path), "second");
  EXPECT_FALSE(dtl::WriteFileAtomically((dir_ / "missing" / "f.json").string(), "x", &error));
  EXPECT_EQ(error, "No such file or directory");

  // Writers of the same name at the same moment never collide on a
  // temporary file, and the file always holds one text whole.
  const std::string texts[] = {std::string(5000, 'a'), std::string(3, 'b')};
  std::vector<std::thread> writers;
  bool ok[2] = {true, true};
  for (int t = 0; t < 2; ++t)
    writers.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) ok[t] = dtl::WriteFileAtomically(path, texts[t], nullptr) && ok[t];
    });
  for (auto& writer : writers) writer.join();
  EXPECT_TRUE(ok[0] && ok[1]);
  const std::string last = ReadFile(path);
  EXPECT_TRUE(last == texts[0] || last == texts[1]);
  EXPECT_EQ(Files(dir_), std::vector<std::string>{"f.json"});
}

TEST_F(SchemaWriterTest, RelativeDirectoriesResolveAgainstWorkingDirectory) {
  fs::current_path(dir_);
  value doc = CountersSchema("tx");
  std::string name = FileFor("", doc).string();

  dtl::SchemaWriter relative{.schema_dir = "rel/schemas"};
  EXPECT_EQ(relative.schemaFilePath(dtl::md5(dtl::json::serialize_pretty(doc))),
            (dir_ / "rel/schemas" / name).string());
  relative.onSchema(doc);
  EXPECT_TRUE(fs::exists(dir_ / "rel/schemas" / name));

  dtl::SchemaWriter fallback{.root_dir = "."};
  fallback.onSchema(doc);
  EXPECT_EQ(ReadFile(dir_ / "schema" / name), dtl::json::serialize_pretty(doc));
}

}  // namespace
