// The disk writer against real io_uring and real files: the published schema
// and metadata files and their repair, and samples read back value for value
// across header pages, pages, rotation, idle flushes and schema changes.
#include "storage/ipfix_disk_writer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstring>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <tuple>

#include "dtl_counters.h"
#include "dtl_data_file_header.h"
#include "support/log_capture.h"
#include "support/wait_for.h"

namespace {

namespace fs = boost::filesystem;
using dtl::ipfix::IpfixDiskWriter;
using dtl::ipfix::SchemaSnapshot;

constexpr uint64_t kBaseUs = 1714521600000000ull;  // 2024-05-01 00:00:00 UTC

std::string Key(uint32_t domain) { return "192.0.2.1:4739/" + std::to_string(domain); }  // opaque to the writer
uint64_t Value(uint64_t sample, size_t field) { return sample * 1000 + field + 1; }
uint64_t SampleTs(uint64_t sample) { return kBaseUs + sample * 100; }

// One counter template 300 with counters c0, c1, ... and their metadata.
SchemaSnapshot Snapshot(const std::string& switch_name, size_t fields,
                        const std::vector<dtl::ipfix::MetadataPairs>& metadata = {}) {
  SchemaSnapshot s;
  s.switch_name = switch_name;
  s.exporter_port = 4739;
  for (size_t i = 0; i < fields; ++i) {
    dtl::ipfix::FlatFieldInfo& f = s.flat_fields.emplace_back();
    f.template_id = 300;
    f.element_id = static_cast<uint16_t>(1000 + i);
    f.length = 8;
    f.name = s.counter_names[f.element_id] = "c" + std::to_string(i);
    if (i < metadata.size()) f.metadata = metadata[i];
  }
  return s;
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path.string(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Data files under root (schema and metadata directories left out), sorted.
std::vector<fs::path> DataFiles(const fs::path& root) {
  std::vector<fs::path> files;
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    const std::string parent = it->path().parent_path().filename().string();
    if (fs::is_regular_file(it->path()) && parent != "schema" && parent != "metadata") files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Checks a data file of leaf1 block by block: block i holds sample
// first + i, its time and its values. A closed file must have a valid header
// with its exact size; a file still being written (open) may end in zero
// padding. Returns the header and the number of blocks.
std::pair<dtl_data_file_header_t, uint64_t> CheckFile(const fs::path& path, uint64_t first, size_t fields,
                                                      bool open = false) {
  const std::string bytes = ReadFile(path);
  dtl_data_file_header_t header{};
  std::memcpy(&header, bytes.data(), std::min<size_t>(bytes.size(), 256));
  const size_t size = (fields + 2) * 8;
  EXPECT_TRUE(open || (bytes.size() >= 256 && dtl_data_file_header_is_valid(&header) &&
                       header.file_size == bytes.size() && header.block_size == size)) << path;
  size_t off = 256, n = 0;
  for (; off + size <= bytes.size() && (!open || bytes.compare(off, 4, "DTLD") == 0); off += size, ++n) {
    std::vector<uint64_t> words = {SampleTs(first + n)};
    for (size_t f = 0; f < fields; ++f) words.push_back(Value(first + n, f));
    if (bytes.compare(off, 8, "DTLD\0\0\0\0", 8) != 0 || bytes.compare(off + 8, size - 8, std::string(
            reinterpret_cast<const char*>(words.data()), size - 8)) != 0) {
      ADD_FAILURE() << path << ": block " << n << " is not sample " << first + n;
      return {header, n};
    }
  }
  EXPECT_EQ(bytes.find_first_not_of('\0', std::min(off, bytes.size())), std::string::npos) << path << ": not padding";
  EXPECT_TRUE(open || off == bytes.size()) << path;
  return {header, n};
}

// Checks that a closed data file holds exactly samples [first, first + count).
dtl_data_file_header_t ExpectFile(const fs::path& path, uint64_t first, uint64_t count, size_t fields) {
  const auto [header, blocks] = CheckFile(path, first, fields);
  EXPECT_EQ(blocks, count) << path;
  EXPECT_STREQ(header.source_id, "leaf1") << path;
  EXPECT_STREQ(header.source_tag, "ipfix") << path;
  EXPECT_EQ(header.first_timestamp, SampleTs(first)) << path;
  EXPECT_EQ(header.last_timestamp, SampleTs(first + count - 1)) << path;
  return header;
}

class DiskWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/dtl_disk_writer_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = fs::path(pattern) / "root";
    config_.root = root_.string();
    config_.workers = 2;
    config_.max_sessions = 4;
  }
  void TearDown() override {
    boost::system::error_code ec;
    fs::remove_all(root_.parent_path(), ec);
  }
  std::unique_ptr<IpfixDiskWriter> StartWriter() {
    auto writer = std::make_unique<IpfixDiskWriter>(config_);
    EXPECT_TRUE(writer->Start());
    return writer;
  }
  // Writes samples [first, first + count) through the zero-copy slots.
  static void WriteSamples(IpfixDiskWriter& w, const std::string& key, size_t fields, uint64_t first,
                           uint64_t count) {
    for (uint64_t i = first; i < first + count; ++i) {
      const uint64_t ts = SampleTs(i);
      uint8_t* slot = w.AcquireRecordValueSlot(0, key, static_cast<uint32_t>(ts / 1000000),
                                               static_cast<uint32_t>(ts % 1000000) * 1000, fields * 8);
      ASSERT_NE(slot, nullptr) << "sample " << i;
      for (size_t f = 0; f < fields; ++f) reinterpret_cast<uint64_t*>(slot)[f] = Value(i, f);
      w.CommitRecord(0, key, fields * 8);
    }
  }
  // The published "schema" or "metadata" file of a session.
  fs::path Published(const std::string& kind, const IpfixDiskWriter& w, const std::string& key) const {
    char id[DTL_SCHEMA_ID_STRING_SIZE];
    dtl_schema_id_to_schema_string(w.FindSession(0, key)->schema_id, id);
    return root_ / kind / (kind + "_" + id + ".json");
  }

  fs::path root_;
  IpfixDiskWriter::Config config_;
};

// Byte-exact metadata, counter names and offsets in the schema file (named
// by the MD5 of its text), and text that is not UTF-8 made valid.
TEST_F(DiskWriterTest, PublishesSchemaAndCompactMetadata) {
  auto w = StartWriter();
  auto s = Snapshot("leaf1", 4, {{{"tc", "3"}, {"interface", "eth1"}}, {{"interface", "eth1"}, {"tc", "3"}},
                                 {{"interface", "eth2"}}});
  s.flat_fields[0].name = s.flat_fields[1].name = "tx_bytes";
  w->ProcessSchemaUpdate(0, Key(7), s);
  ASSERT_EQ(w->FindSession(0, Key(7))->block_size, 48u);
  const std::string schema_text = ReadFile(Published("schema", *w, Key(7)));
  char md5[DTL_MD5_HEX_SIZE];
  EXPECT_EQ(Published("schema", *w, Key(7)).filename().string(),
            "schema_" + std::string(dtl_HexMD5(schema_text.data(), schema_text.size(), md5)) + ".json");
  std::vector<std::pair<std::string, int>> counters;
  const nlohmann::json schema = nlohmann::json::parse(schema_text);
  for (const auto& counter : schema["counter_groups"][0]["counters"]) counters.emplace_back(counter["name"], counter["offset"]);
  EXPECT_EQ(counters, (std::vector<std::pair<std::string, int>>{{"interface=eth1:tc=3:tx_bytes", 0},
                                                                {"interface=eth1:tc=3:tx_bytes_1", 8},
                                                                {"interface=eth2:c2", 16},
                                                                {"c3", 24}}));
  EXPECT_EQ(ReadFile(Published("metadata", *w, Key(7))),
            R"({"source":"leaf1","metadata_content":{"counters":{"name_match_labels":[)"
            R"({"pattern":"^interface=$MATCH:","index_names":["interface"],"matches_and_labels":[{"pattern_match":["eth2"]}]},)"
            R"({"pattern":"^interface=$MATCH:tc=$MATCH:","index_names":["interface","tc"],)"
            R"("matches_and_labels":[{"pattern_match":["eth1","3"]}]}]}}})");
  EXPECT_FALSE(fs::exists(Published("metadata", *w, Key(7)).string() + ".tmp"));
  auto bad = Snapshot("sw\xff", 2, {{{"if\xc3", "eth\xfe"}}});
  bad.flat_fields[1].name = "c\xe2\x82";  // a truncated sequence
  w->ProcessSchemaUpdate(0, Key(8), bad);
  EXPECT_EQ(ReadFile(Published("metadata", *w, Key(8))),
            "{\"source\":\"sw\xef\xbf\xbd\",\"metadata_content\":{\"counters\":{\"name_match_labels\":["
            "{\"pattern\":\"^if\xef\xbf\xbd=$MATCH:\",\"index_names\":[\"if\xef\xbf\xbd\"],"
            "\"matches_and_labels\":[{\"pattern_match\":[\"eth\xef\xbf\xbd\"]}]}]}}}");
  const std::string bad_schema = ReadFile(Published("schema", *w, Key(8)));
  EXPECT_TRUE(nlohmann::json::accept(bad_schema));
  EXPECT_NE(bad_schema.find("c\xef\xbf\xbd\xef\xbf\xbd"), std::string::npos);
  // A switch without a name is stored as "unknown".
  w->ProcessSchemaUpdate(0, Key(9), Snapshot("", 1));
  EXPECT_EQ(w->FindSession(0, Key(9))->src, "unknown");
}

// Damage and removal are repaired at the next publication, by the session or
// another one with the same counters; a write that fails half way (at a file
// size limit here, as on a full disk) leaves the earlier file whole.
TEST_F(DiskWriterTest, DamagedOrMissingPublishedFilesComeBack) {
  const auto leaf1 = Snapshot("leaf1", 2, {{{"interface", "eth1"}}});
  auto w = StartWriter();
  w->ProcessSchemaUpdate(0, Key(1), leaf1);
  const fs::path schema = Published("schema", *w, Key(1)), metadata = Published("metadata", *w, Key(1));
  const std::string schema_text = ReadFile(schema), metadata_text = ReadFile(metadata);
  auto cut = [](const fs::path& file) { fs::resize_file(file, fs::file_size(file) / 2); };
  auto failed_write = [&] {
    const sighandler_t old_handler = signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    const rlimit lowered{16, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lowered), 0);
    w->ProcessSchemaUpdate(0, Key(3), Snapshot("leaf2", 2, {{{"interface", "eth1"}}}));
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, old_handler);
  };
  const std::tuple<const char*, std::function<void()>, uint32_t, size_t> rows[] = {
      {"another switch's write of the metadata file failed", failed_write, 1, 0},
      {"schema cut short, new session", [&] { cut(schema); }, 2, 1},
      {"schema cut short", [&] { cut(schema); }, 1, 1},
      {"metadata cut short", [&] { cut(metadata); }, 1, 1},
      {"both files removed", [&] { fs::remove(schema), fs::remove(metadata); }, 1, 2},
      {"whole data root removed", [&] { fs::remove_all(root_); }, 1, 2},
      {"nothing damaged", [] {}, 1, 0},
  };
  for (const auto& [what, damage, session, warnings] : rows) {
    damage();
    dtl_test::LogCapture log;
    w->ProcessSchemaUpdate(0, Key(session), leaf1);
    EXPECT_EQ(ReadFile(schema), schema_text) << what;
    EXPECT_EQ(ReadFile(metadata), metadata_text) << what;
    EXPECT_EQ(std::distance(fs::directory_iterator(schema.parent_path()), {}), 1) << what;
    EXPECT_EQ(std::distance(fs::directory_iterator(metadata.parent_path()), {}), 1) << what;
    EXPECT_EQ(log.Count("writing it again"), warnings) << what;
  }
  // Another switch with the same counters publishes (writes work again); the
  // first switch's check then finds a file of the same counters, not damage.
  w->ProcessSchemaUpdate(0, Key(4), Snapshot("leaf2", 2, {{{"interface", "eth1"}}}));
  w->ProcessSchemaUpdate(0, Key(1), leaf1);
  EXPECT_NE(ReadFile(metadata).find("\"source\":\"leaf2\""), std::string::npos);
}

// Every sample once, in order, with its values, across the header unit of
// each file, full and partial data pages, rotation and both write modes.
TEST_F(DiskWriterTest, SamplesReadBackExactly) {
  const uint64_t big = IpfixDiskWriter::Config{}.file_size_limit;
  // what, counters (blocks of (counters + 2) * 8 bytes), direct I/O, file size limit, max_sessions
  // (3 registered buffers each, and one), blocks per file
  const std::tuple<const char*, size_t, bool, uint64_t, uint64_t, std::vector<uint64_t>> rows[] = {
      {"header page of 15 blocks, a full page and a partial one", 30, true, big, 4, {15 + 4096 + 100}},
      {"the same through the page cache", 30, false, big, 4, {15 + 4096 + 100}},
      {"one registered buffer: the others written from plain memory", 30, true, big, 0, {15 + 2 * 4096 + 1}},
      {"rotation at the size limit", 30, true, 4096, 4, {15, 4096 + 10}},
      {"512-byte blocks: no aligned header page, written buffered", 62, true, big, 4, {2048 + 4}},
      {"24-byte blocks: header unit of 160 blocks", 1, true, big, 4, {500}},
      {"816-byte blocks: 64 KiB header page, a full page", 100, true, big, 4, {80 + 1536 + 3}}};
  int r = 0;
  for (const auto& [what, fields, direct_io, file_size_limit, max_sessions, blocks_per_file] : rows) {
    SCOPED_TRACE(what);
    const fs::path root = root_ / std::to_string(r++);
    config_.root = root.string();
    config_.direct_io = direct_io;
    config_.file_size_limit = file_size_limit;
    config_.max_sessions = max_sessions;
    auto w = StartWriter();
    w->ProcessSchemaUpdate(0, Key(7), Snapshot("leaf1", fields));
    uint64_t total = 0;
    for (uint64_t n : blocks_per_file) total += n;
    WriteSamples(*w, Key(7), fields, 0, total);
    w.reset();
    const auto files = DataFiles(root);
    ASSERT_EQ(files.size(), blocks_per_file.size());
    EXPECT_EQ(files[0], root / "2024" / "0501" / "leaf1" / ("ipfix_" + std::to_string(kBaseUs) + ".bin"));
    const dtl_data_file_header_t head = ExpectFile(files[0], 0, blocks_per_file[0], fields);
    for (size_t i = 1, first = blocks_per_file[0]; i < files.size(); first += blocks_per_file[i++])
      EXPECT_EQ(std::memcmp(ExpectFile(files[i], first, blocks_per_file[i], fields).counters_schema_id,
                            head.counters_schema_id, 16), 0);
  }
}

// A switch with one more counter under the same names changes the schema:
// the session's next samples go to a new file. A session removed (its
// switch gone for good) takes its partial page to disk.
TEST_F(DiskWriterTest, SchemaChangeAndRemovalCloseTheFileWithEverySample) {
  auto w = StartWriter();
  const SchemaSnapshot a = Snapshot("leaf1", 2);
  SchemaSnapshot b = Snapshot("leaf1", 3);
  b.counter_names.erase(1002);
  b.flat_fields[2].name = "ie_1002";
  w->ProcessSchemaUpdate(0, Key(7), a);
  WriteSamples(*w, Key(7), 2, 0, 20);
  w->ProcessSchemaUpdate(0, Key(7), b);
  WriteSamples(*w, Key(7), 3, 20, 20);
  w->RemoveSession(0, Key(7));
  EXPECT_EQ(w->FindSession(0, Key(7)), nullptr);
  const auto files = DataFiles(root_);
  ASSERT_EQ(files.size(), 2u);
  EXPECT_NE(std::memcmp(ExpectFile(files[0], 0, 20, 2).counters_schema_id,
                        ExpectFile(files[1], 20, 20, 3).counters_schema_id, 16), 0);
}

// A quiet session's pending samples reach the disk within about flush_idle_ms
// as whole blocks a reader can take while the file is open (header unit and
// data pages); later samples follow right behind, the close leaves it exact.
TEST_F(DiskWriterTest, IdleSessionsPagesReachTheDiskAndLaterSamplesFollow) {
  config_.flush_idle_ms = 20;
  auto w = StartWriter();
  w->ProcessSchemaUpdate(0, Key(7), Snapshot("leaf1", 30));
  uint64_t sent = 0;
  for (const uint64_t burst : {5u, 20u, 4096u + 7u, 1u}) {
    WriteSamples(*w, Key(7), 30, sent, burst);
    sent += burst;
    uint64_t on_disk = 0;
    EXPECT_TRUE(dtl_test::WaitFor([&] {
      w->Tick(0);  // the receive worker's call, made here by hand
      const auto files = DataFiles(root_);
      on_disk = files.size() == 1 ? CheckFile(files[0], 0, 30, true).second : 0;
      return on_disk >= sent;
    }, std::chrono::seconds(10)));
    ASSERT_EQ(on_disk, sent) << "after a burst of " << burst;
  }
  w.reset();
  const auto files = DataFiles(root_);
  ASSERT_EQ(files.size(), 1u);
  ExpectFile(files[0], 0, sent, 30);
}

}  // namespace
