// The schema and metadata files a real disk writer publishes: damage and
// removal are repaired at the next publication, and a failed write (a full
// disk) leaves the earlier file as it was.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <boost/filesystem.hpp>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "dtl_counters.h"
#include "storage/ipfix_disk_writer.h"
#include "support/log_capture.h"

namespace {

namespace fs = boost::filesystem;
using dtl::ipfix::FlatFieldInfo;
using dtl::ipfix::IpfixDiskWriter;
using dtl::ipfix::SchemaSnapshot;
using dtl_test::LogCapture;

std::string Key(uint32_t domain) {
  std::string key(10, '\0');
  const uint16_t port_be = htons(4739);
  std::memcpy(&key[0], &port_be, 2);
  std::memcpy(&key[2], &domain, 4);
  inet_pton(AF_INET, "192.0.2.1", &key[6]);
  return key;
}

// Counter template 300 with two counters, one of them with an interface label.
SchemaSnapshot Snapshot(const std::string& switch_name) {
  SchemaSnapshot s;
  s.switch_name = switch_name;
  s.exporter_port = 4739;
  for (uint16_t i = 0; i < 2; ++i) {
    const auto element = static_cast<uint16_t>(1000 + i);
    s.counter_names[element] = "c" + std::to_string(i);
    FlatFieldInfo f;
    f.template_id = 300;
    f.element_id = element;
    f.length = 8;
    f.name = s.counter_names[element];
    if (i == 0) f.metadata = {{"interface", "eth1"}};
    s.flat_fields.push_back(f);
  }
  return s;
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path.string(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> Names(const fs::path& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
  return names;
}

// Writes past `bytes` fail with EFBIG while it lives, as on a full disk.
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

class DiskPublicationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/dtl_disk_publication_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    base_ = pattern;
    root_ = base_ / "root";
    IpfixDiskWriter::Config config;
    config.root = root_.string();
    config.workers = 2;
    config.max_sessions = 4;
    writer_ = std::make_unique<IpfixDiskWriter>(config);
    ASSERT_TRUE(writer_->Start());

    writer_->ProcessSchemaUpdate(0, Key(1), Snapshot("leaf1"));
    const auto* state = writer_->FindSession(0, Key(1));
    ASSERT_NE(state, nullptr);
    char id[DTL_SCHEMA_ID_STRING_SIZE];
    dtl_schema_id_to_schema_string(state->schema_id, id);
    schema_file_ = root_ / "schema" / ("schema_" + std::string(id) + ".json");
    metadata_file_ = root_ / "metadata" / ("metadata_" + std::string(id) + ".json");
    schema_text_ = ReadFile(schema_file_);
    metadata_text_ = ReadFile(metadata_file_);
    ASSERT_FALSE(schema_text_.empty());
    ASSERT_NE(metadata_text_.find("\"source\":\"leaf1\""), std::string::npos);
  }
  void TearDown() override {
    if (writer_) writer_->Stop();
    writer_.reset();
    boost::system::error_code ec;
    fs::remove_all(base_, ec);
  }

  static void CutInHalf(const fs::path& file) { fs::resize_file(file, fs::file_size(file) / 2); }

  fs::path base_, root_, schema_file_, metadata_file_;
  std::string schema_text_, metadata_text_;
  std::unique_ptr<IpfixDiskWriter> writer_;
};

TEST_F(DiskPublicationTest, DamagedOrMissingFilesComeBackAtTheNextPublication) {
  struct Case {
    const char* what;
    std::function<void()> damage;
    bool other_session;  // published by a new session rather than again by the first
    std::vector<std::string> warnings;
  };
  const std::string differs = " does not match its identifier; writing it again";
  const std::string missing = " is missing; writing it again";
  const std::vector<Case> cases = {
      {"schema cut short, new session", [&] { CutInHalf(schema_file_); }, true,
       {schema_file_.string() + differs}},
      {"schema cut short", [&] { CutInHalf(schema_file_); }, false, {schema_file_.string() + differs}},
      {"metadata cut short", [&] { CutInHalf(metadata_file_); }, false,
       {metadata_file_.string() + " is damaged; writing it again"}},
      {"both files removed",
       [&] {
         fs::remove(schema_file_);
         fs::remove(metadata_file_);
       },
       false,
       {schema_file_.string() + missing, metadata_file_.string() + missing}},
      {"whole data root removed", [&] { fs::remove_all(root_); }, false,
       {schema_file_.string() + missing, metadata_file_.string() + missing}},
  };
  uint32_t domain = 2;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    c.damage();
    LogCapture log;
    const uint32_t session = c.other_session ? domain++ : 1;
    writer_->ProcessSchemaUpdate(session == 1 ? 0 : 1, Key(session), Snapshot("leaf1"));
    EXPECT_EQ(ReadFile(schema_file_), schema_text_);
    EXPECT_EQ(ReadFile(metadata_file_), metadata_text_);
    EXPECT_EQ(Names(schema_file_.parent_path()).size(), 1u);
    EXPECT_EQ(Names(metadata_file_.parent_path()).size(), 1u);
    EXPECT_EQ(log.Count("writing it again"), c.warnings.size());
    for (const std::string& warning : c.warnings) EXPECT_EQ(log.LevelOf(warning), 4) << warning;
  }

  // All well: checked without a word.
  LogCapture log;
  writer_->ProcessSchemaUpdate(0, Key(1), Snapshot("leaf1"));
  EXPECT_EQ(log.Count("writing it again"), 0u);
}

TEST_F(DiskPublicationTest, FailedMetadataWriteLeavesThePreviousFileWhole) {
  LogCapture log;
  {
    // Another switch with the same counters writes the same metadata file.
    FileSizeLimit full(16);
    writer_->ProcessSchemaUpdate(1, Key(2), Snapshot("leaf2"));
  }
  const std::string failure = "could not write metadata file " + metadata_file_.string() + ": File too large";
  EXPECT_EQ(log.LevelOf(failure), 3) << failure;
  EXPECT_EQ(ReadFile(metadata_file_), metadata_text_);
  EXPECT_EQ(Names(metadata_file_.parent_path()), std::vector<std::string>{metadata_file_.filename().string()});

  // Once writes succeed again the next publication lands; the first
  // switch's check then finds a file of the same counters, not damage.
  writer_->ProcessSchemaUpdate(1, Key(3), Snapshot("leaf2"));
  const std::string leaf2 = ReadFile(metadata_file_);
  EXPECT_NE(leaf2.find("\"source\":\"leaf2\""), std::string::npos);
  writer_->ProcessSchemaUpdate(0, Key(1), Snapshot("leaf1"));
  EXPECT_EQ(ReadFile(metadata_file_), leaf2);
  EXPECT_EQ(log.Count("writing it again"), 0u);
}

}  // namespace
