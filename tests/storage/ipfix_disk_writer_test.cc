// The disk writer against real io_uring and real files: page sizing, schema
// and metadata publication, samples read back byte for byte (direct I/O on
// and off), header pages of new files, rotation, removal, schema changes,
// hostile names, and the whole path from a simulated switch to the files.
#include "storage/ipfix_disk_writer.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "dtl_counters.h"
#include "dtl_data_file_header.h"
#include "ipfix/ipfix_receiver.h"
#include "ipfix/recv_test_support.h"
#include "tools/hft_sim/counter_layout.h"
#include "tools/hft_sim/hft_simulator.h"

namespace {

namespace fs = boost::filesystem;
using dtl::ipfix::FlatFieldInfo;
using dtl::ipfix::IpfixDiskWriter;
using dtl::ipfix::SchemaSnapshot;
using recv_test::LogCapture;

constexpr uint64_t kBaseUs = 1714521600000000ull;  // 2024-05-01 00:00:00 UTC

std::string Key(const char* ipv4, uint16_t port, uint32_t domain) {
  std::string key(10, '\0');
  const uint16_t port_be = htons(port);
  std::memcpy(&key[0], &port_be, 2);
  std::memcpy(&key[2], &domain, 4);
  inet_pton(AF_INET, ipv4, &key[6]);
  return key;
}

// A snapshot of one counter template 300 with the given field names.
SchemaSnapshot Snapshot(const std::string& switch_name, size_t fields,
                        const std::vector<dtl::ipfix::MetadataPairs>& metadata = {}) {
  SchemaSnapshot s;
  s.switch_name = switch_name;
  s.exporter_port = 4739;
  for (size_t i = 0; i < fields; ++i) {
    const auto element = static_cast<uint16_t>(1000 + i);
    s.counter_names[element] = "c" + std::to_string(i);
    FlatFieldInfo f;
    f.template_id = 300;
    f.element_id = element;
    f.length = 8;
    f.name = s.counter_names[element];
    if (i < metadata.size()) f.metadata = metadata[i];
    s.flat_fields.push_back(f);
  }
  return s;
}

uint64_t Value(uint64_t sample, size_t field) { return sample * 1000 + field + 1; }
uint64_t SampleTs(uint64_t sample) { return kBaseUs + sample * 100; }

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path.string(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Data files under root (schema and metadata directories left out), sorted.
std::vector<fs::path> DataFiles(const fs::path& root) {
  std::vector<fs::path> files;
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    if (!fs::is_regular_file(it->path())) continue;
    const std::string parent = it->path().parent_path().filename().string();
    if (parent == "schema" || parent == "metadata") continue;
    files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

struct Block {
  uint64_t ts = 0;
  std::vector<uint64_t> values;
};

struct DataFile {
  dtl_data_file_header_t header{};
  std::vector<Block> blocks;
};

// Parses a data file, checking the header and every block's framing.
DataFile Parse(const fs::path& path) {
  DataFile file;
  const std::string bytes = ReadFile(path);
  EXPECT_GE(bytes.size(), 256u) << path;
  if (bytes.size() < 256) return file;
  std::memcpy(&file.header, bytes.data(), 256);
  EXPECT_TRUE(dtl_data_file_header_is_valid(&file.header)) << path;
  EXPECT_EQ(file.header.file_size, bytes.size()) << path;
  const uint32_t block_size = file.header.block_size;
  EXPECT_GE(block_size, 16u);
  if (block_size < 16) return file;
  EXPECT_EQ((bytes.size() - 256) % block_size, 0u) << path;
  for (size_t off = 256; off + block_size <= bytes.size(); off += block_size) {
    const char* b = bytes.data() + off;
    EXPECT_EQ(std::string(b, 4), "DTLD") << path << " @" << off;
    uint32_t padding;
    std::memcpy(&padding, b + 4, 4);
    EXPECT_EQ(padding, 0u);
    Block block;
    std::memcpy(&block.ts, b + 8, 8);
    block.values.resize((block_size - 16) / 8);
    std::memcpy(block.values.data(), b + 16, block_size - 16);
    file.blocks.push_back(std::move(block));
  }
  return file;
}

class DiskWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/dtl_disk_writer_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    base_ = pattern;
    root_ = base_ / "root";
    config_.root = root_.string();
    config_.workers = 2;
    config_.max_sessions = 4;
  }
  void TearDown() override {
    boost::system::error_code ec;
    fs::remove_all(base_, ec);
  }

  std::unique_ptr<IpfixDiskWriter> StartWriter() {
    auto writer = std::make_unique<IpfixDiskWriter>(config_);
    writer->Start();
    return writer;
  }

  // Writes samples [first, first + count) through the zero-copy slots.
  static void WriteSamples(IpfixDiskWriter& w, const std::string& key, size_t fields, uint64_t first,
                           uint64_t count, size_t worker = 0) {
    for (uint64_t i = first; i < first + count; ++i) {
      const uint64_t ts = SampleTs(i);
      uint8_t* slot = w.AcquireRecordValueSlot(worker, key, static_cast<uint32_t>(ts / 1000000),
                                               static_cast<uint32_t>(ts % 1000000) * 1000, fields * 8);
      ASSERT_NE(slot, nullptr) << "sample " << i;
      for (size_t f = 0; f < fields; ++f) {
        const uint64_t v = Value(i, f);
        std::memcpy(slot + 8 * f, &v, 8);
      }
      w.CommitRecord(worker, key, fields * 8);
    }
  }

  static void ExpectSamples(const std::vector<Block>& blocks, uint64_t first, size_t fields) {
    for (size_t i = 0; i < blocks.size(); ++i) {
      ASSERT_EQ(blocks[i].ts, SampleTs(first + i)) << "block " << i;
      ASSERT_EQ(blocks[i].values.size(), fields);
      for (size_t f = 0; f < fields; ++f) ASSERT_EQ(blocks[i].values[f], Value(first + i, f)) << i << "/" << f;
    }
  }

  fs::path base_, root_;
  IpfixDiskWriter::Config config_;
};

TEST(DiskWriterPageSizing, FollowsTheBlockSizeTable) {
  struct Row {
    size_t fields;
    uint32_t block_size, min_batch, bytes_target, capacity, hdr_blocks;
    uint64_t header_size;
    bool aligned;
  };
  const Row rows[] = {
      {30, 256, 16, 4096, 4096, 15, 4096, true},     {1, 24, 512, 43690, 44032, 160, 4096, true},
      {100, 816, 256, 1285, 1536, 80, 65536, true},  {62, 512, 8, 2048, 2048, 1, 768, false},
      {510, 4096, 1, 256, 1000, 1, 4352, false},
  };
  for (const Row& r : rows) {
    const uint32_t block_size = static_cast<uint32_t>((r.fields + 2) * 8);
    ASSERT_EQ(block_size, r.block_size);
    const auto s = IpfixDiskWriter::ComputePageSizing(block_size, 1000);
    EXPECT_EQ(s.min_batch, r.min_batch) << r.fields;
    EXPECT_EQ(s.bytes_target, r.bytes_target) << r.fields;
    EXPECT_EQ(s.batch_capacity, r.capacity) << r.fields;
    EXPECT_EQ(s.buffer_size, uint64_t{r.block_size} * r.capacity) << r.fields;
    EXPECT_EQ(s.hdr_blocks, r.hdr_blocks) << r.fields;
    EXPECT_EQ(s.header_size, r.header_size) << r.fields;
    EXPECT_EQ(s.header_aligned, r.aligned) << r.fields;
  }
  EXPECT_EQ(IpfixDiskWriter::ComputePageSizing(256, 1000).buffer_size, 1048576u);
  // batch_count is a lower bound, rounded up to whole 4 KiB multiples.
  EXPECT_EQ(IpfixDiskWriter::ComputePageSizing(256, 5000).batch_capacity, 5008u);
}

TEST_F(DiskWriterTest, PublishesSchemaAndCompactMetadata) {
  LogCapture log;
  auto w = StartWriter();
  auto s = Snapshot("leaf1", 4, {{{"tc", "3"}, {"interface", "eth1"}}, {{"interface", "eth1"}, {"tc", "3"}},
                                 {{"interface", "eth2"}}});
  s.flat_fields[0].name = s.flat_fields[1].name = "tx_bytes";
  const std::string key = Key("192.0.2.1", 4739, 7);
  w->ProcessSchemaUpdate(0, key, s);

  const auto* state = w->FindSession(0, key);
  ASSERT_NE(state, nullptr);
  EXPECT_EQ(state->block_size, 48u);
  char id[DTL_SCHEMA_ID_STRING_SIZE];
  dtl_schema_id_to_schema_string(state->schema_id, id);
  ASSERT_FALSE(dtl_schema_id_is_unset(state->schema_id));

  const fs::path schema_file = root_ / "schema" / ("schema_" + std::string(id) + ".json");
  ASSERT_TRUE(fs::exists(schema_file));
  const std::string schema_text = ReadFile(schema_file);
  char md5[DTL_MD5_HEX_SIZE];
  EXPECT_EQ(std::string(dtl_HexMD5(schema_text.data(), schema_text.size(), md5)), id);
  const auto schema = nlohmann::json::parse(schema_text);
  std::vector<std::pair<std::string, int>> counters;
  std::function<void(const nlohmann::json&)> walk = [&](const nlohmann::json& j) {
    if (j.is_object() && j.contains("name") && j.contains("offset"))
      counters.emplace_back(j["name"].get<std::string>(), j["offset"].get<int>());
    if (j.is_structured())
      for (const auto& child : j) walk(child);
  };
  walk(schema);
  EXPECT_EQ(counters, (std::vector<std::pair<std::string, int>>{{"interface=eth1:tc=3:tx_bytes", 0},
                                                                {"interface=eth1:tc=3:tx_bytes_1", 8},
                                                                {"interface=eth2:c2", 16},
                                                                {"c3", 24}}));

  const fs::path metadata_file = root_ / "metadata" / ("metadata_" + std::string(id) + ".json");
  EXPECT_EQ(ReadFile(metadata_file),
            R"({"source":"leaf1","metadata_content":{"counters":{"name_match_labels":[)"
            R"({"pattern":"^interface=$MATCH:","index_names":["interface"],"matches_and_labels":[{"pattern_match":["eth2"]}]},)"
            R"({"pattern":"^interface=$MATCH:tc=$MATCH:","index_names":["interface","tc"],)"
            R"("matches_and_labels":[{"pattern_match":["eth1","3"]}]}]}}})");
  EXPECT_FALSE(fs::exists(metadata_file.string() + ".tmp"));
  EXPECT_EQ(log.Count("metadata.json updated (4 fields, 2 shape group(s))"), 1u);

  // The same schema again changes nothing; another session with it finds
  // the schema file on disk.
  w->ProcessSchemaUpdate(0, key, s);
  EXPECT_EQ(log.Count("metadata.json updated"), 1u);
  w->ProcessSchemaUpdate(1, Key("192.0.2.2", 4739, 7), s);
  EXPECT_EQ(log.Count("schema already on disk, not rewriting"), 1u);
  EXPECT_EQ(log.Count("Session leaf1: schema updated"), 1u);
}

TEST_F(DiskWriterTest, UnknownSourceWithoutMetadataHasNoShapeGroups) {
  LogCapture log;
  auto w = StartWriter();
  w->ProcessSchemaUpdate(0, Key("192.0.2.1", 1, 1), Snapshot("", 2));
  const auto* state = w->FindSession(0, Key("192.0.2.1", 1, 1));
  ASSERT_NE(state, nullptr);
  EXPECT_EQ(state->src, "unknown");
  char id[DTL_SCHEMA_ID_STRING_SIZE];
  dtl_schema_id_to_schema_string(state->schema_id, id);
  EXPECT_EQ(ReadFile(root_ / "metadata" / ("metadata_" + std::string(id) + ".json")),
            R"({"source":"unknown","metadata_content":{"counters":{"name_match_labels":[]}}})");
  EXPECT_EQ(log.Count("(2 fields, 0 shape group(s))"), 1u);
}

class DiskWriterIoTest : public DiskWriterTest, public ::testing::WithParamInterface<bool> {};

TEST_P(DiskWriterIoTest, SamplesReadBackExactly) {
  config_.direct_io = GetParam();
  auto w = StartWriter();
  const std::string key = Key("192.0.2.1", 4739, 7);
  w->ProcessSchemaUpdate(1, key, Snapshot("leaf1", 30));

  // The header page (15 blocks of 256 bytes) goes out with the 15th sample.
  WriteSamples(*w, key, 30, 0, 14, 1);
  EXPECT_TRUE(DataFiles(root_).empty());
  WriteSamples(*w, key, 30, 14, 1, 1);
  std::vector<fs::path> files;
  ASSERT_TRUE(recv_test::WaitFor([&] {
    files = DataFiles(root_);
    return files.size() == 1 && fs::file_size(files[0]) == 4096;
  }));
  EXPECT_EQ(files[0], root_ / "2024" / "0501" / "leaf1" / ("ipfix_" + std::to_string(kBaseUs) + ".bin"));

  // A full data page (4096 blocks) and a partial one.
  const uint64_t total = 15 + 4096 + 100;
  WriteSamples(*w, key, 30, 15, total - 15, 1);
  w->Stop();
  w.reset();

  files = DataFiles(root_);
  ASSERT_EQ(files.size(), 1u);
  const DataFile file = Parse(files[0]);
  EXPECT_EQ(file.header.block_size, 256u);
  EXPECT_STREQ(file.header.source_id, "leaf1");
  EXPECT_STREQ(file.header.source_tag, "ipfix");
  EXPECT_EQ(file.header.first_timestamp, SampleTs(0));
  EXPECT_EQ(file.header.last_timestamp, SampleTs(total - 1));
  ASSERT_EQ(file.blocks.size(), total);
  ExpectSamples(file.blocks, 0, 30);
}

INSTANTIATE_TEST_SUITE_P(DirectIo, DiskWriterIoTest, ::testing::Bool());

TEST_F(DiskWriterTest, RotationStartsEachFileWithAHeaderPage) {
  config_.file_size_limit = 4096;
  auto w = StartWriter();
  const std::string key = Key("192.0.2.1", 4739, 7);
  auto s = Snapshot("leaf1", 30);
  w->ProcessSchemaUpdate(0, key, s);
  const uint64_t total = 15 + 4096 + 10;
  WriteSamples(*w, key, 30, 0, total);
  w.reset();

  const auto files = DataFiles(root_);
  ASSERT_EQ(files.size(), 2u);
  const DataFile first = Parse(files[0]);
  const DataFile second = Parse(files[1]);
  ASSERT_EQ(first.blocks.size(), 15u);
  ExpectSamples(first.blocks, 0, 30);
  EXPECT_EQ(second.header.first_timestamp, SampleTs(15));
  ASSERT_EQ(second.blocks.size(), total - 15);
  ExpectSamples(second.blocks, 15, 30);
  EXPECT_EQ(std::memcmp(first.header.counters_schema_id, second.header.counters_schema_id, 16), 0);
}

TEST_F(DiskWriterTest, RemoveSessionFlushesThePartialPage) {
  auto w = StartWriter();
  const std::string key = Key("192.0.2.1", 4739, 7);
  w->ProcessSchemaUpdate(0, key, Snapshot("leaf1", 30));
  WriteSamples(*w, key, 30, 0, 20);
  w->RemoveSession(0, key);
  EXPECT_EQ(w->FindSession(0, key), nullptr);
  // The same exporter again gets a fresh state, and its samples go there.
  w->ProcessSchemaUpdate(0, key, Snapshot("leaf1", 30));
  WriteSamples(*w, key, 30, 100, 5);
  ASSERT_NE(w->FindSession(0, key), nullptr);
  EXPECT_EQ(w->FindSession(0, key)->count, 5u);

  const auto files = DataFiles(root_);
  ASSERT_EQ(files.size(), 1u);
  const DataFile file = Parse(files[0]);
  ASSERT_EQ(file.blocks.size(), 20u);
  ExpectSamples(file.blocks, 0, 30);
  EXPECT_EQ(file.header.last_timestamp, SampleTs(19));
}

// Without an aligned header page no data page starts on a 4 KiB boundary:
// such files are written through the page cache, every block in place.
TEST_F(DiskWriterTest, BlockSizeWithoutAlignedHeaderPageIsStoredBuffered) {
  LogCapture log;
  auto w = StartWriter();
  const std::string key = Key("192.0.2.1", 4739, 7);
  w->ProcessSchemaUpdate(0, key, Snapshot("leaf1", 62));
  EXPECT_EQ(log.Count("block_size 512 has no 4K-aligned header page"), 1u);
  WriteSamples(*w, key, 62, 0, 2048 + 4);
  w.reset();
  const auto files = DataFiles(root_);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(fs::file_size(files[0]), 256u + 2052u * 512u);
  const DataFile file = Parse(files[0]);
  ASSERT_EQ(file.blocks.size(), 2052u);
  ExpectSamples(file.blocks, 0, 62);
}

TEST_F(DiskWriterTest, TemplateChangeWithSameNamesStartsANewFile) {
  auto w = StartWriter();
  const std::string key = Key("192.0.2.1", 4739, 7);
  SchemaSnapshot a = Snapshot("leaf1", 2);
  SchemaSnapshot b = a;  // one more counter in template 300, no new name
  FlatFieldInfo extra;
  extra.template_id = 300;
  extra.element_id = 1002;
  extra.length = 8;
  extra.name = "ie_1002";
  b.flat_fields.push_back(extra);

  w->ProcessSchemaUpdate(0, key, a);
  WriteSamples(*w, key, 2, 0, 20);
  w->ProcessSchemaUpdate(0, key, b);
  EXPECT_EQ(w->FindSession(0, key)->block_size, 40u);
  WriteSamples(*w, key, 3, 20, 20);
  w.reset();

  const auto files = DataFiles(root_);
  ASSERT_EQ(files.size(), 2u);
  const DataFile old_file = Parse(files[0]);
  const DataFile new_file = Parse(files[1]);
  EXPECT_EQ(old_file.header.block_size, 32u);
  EXPECT_EQ(new_file.header.block_size, 40u);
  EXPECT_NE(std::memcmp(old_file.header.counters_schema_id, new_file.header.counters_schema_id, 16), 0);
  ASSERT_EQ(old_file.blocks.size(), 20u);
  ASSERT_EQ(new_file.blocks.size(), 20u);
  ExpectSamples(old_file.blocks, 0, 2);
  ExpectSamples(new_file.blocks, 20, 3);
}

TEST_F(DiskWriterTest, InvalidUtf8NamesStillPublishValidJson) {
  auto w = StartWriter();
  const std::string key = Key("192.0.2.1", 4739, 7);
  auto s = Snapshot("sw\xff", 2, {{{"if\xc3", "eth\xfe"}}});
  s.flat_fields[1].name = "c\xe2\x82";  // truncated sequence
  w->ProcessSchemaUpdate(0, key, s);
  const auto* state = w->FindSession(0, key);
  ASSERT_NE(state, nullptr);
  char id[DTL_SCHEMA_ID_STRING_SIZE];
  dtl_schema_id_to_schema_string(state->schema_id, id);
  const auto metadata =
      nlohmann::json::parse(ReadFile(root_ / "metadata" / ("metadata_" + std::string(id) + ".json")));
  EXPECT_EQ(metadata["source"], "sw\xef\xbf\xbd");
  const auto& group = metadata["metadata_content"]["counters"]["name_match_labels"][0];
  EXPECT_EQ(group["index_names"][0], "if\xef\xbf\xbd");
  EXPECT_EQ(group["matches_and_labels"][0]["pattern_match"][0], "eth\xef\xbf\xbd");
  const std::string schema_text = ReadFile(root_ / "schema" / ("schema_" + std::string(id) + ".json"));
  EXPECT_NO_THROW(nlohmann::json::parse(schema_text));
  EXPECT_NE(schema_text.find("c\xef\xbf\xbd\xef\xbf\xbd"), std::string::npos);
  WriteSamples(*w, key, 2, 0, 3);
}

TEST_F(DiskWriterTest, HostileSwitchNamesStayUnderTheRoot) {
  auto w = StartWriter();
  const std::vector<std::string> names = {"../x", "a/b", "", std::string("\x01\n\x7f", 3), "..", "%D"};
  for (size_t i = 0; i < names.size(); ++i) {
    const std::string key = Key("192.0.2.1", static_cast<uint16_t>(100 + i), 1);
    w->ProcessSchemaUpdate(0, key, Snapshot(names[i], 2));
    WriteSamples(*w, key, 2, i * 10, 3);
  }
  w.reset();

  // Nothing beside the root, and every data file two levels below the date.
  std::vector<fs::path> beside;
  for (fs::directory_iterator it(base_), end; it != end; ++it) beside.push_back(it->path().filename());
  EXPECT_EQ(beside, std::vector<fs::path>{"root"});
  const auto files = DataFiles(root_);
  ASSERT_EQ(files.size(), names.size());
  for (const fs::path& file : files) {
    EXPECT_EQ(file.parent_path().parent_path().parent_path().parent_path(), root_) << file;
    EXPECT_EQ(Parse(file).blocks.size(), 3u) << file;
  }
}

// Drop messages are rate-limited by process-wide counters, so this is the
// only test that drops samples.
TEST_F(DiskWriterTest, DropsAreReportedAndLeaveThePageAlone) {
  LogCapture log;
  auto w = StartWriter();
  const std::string key = Key("192.0.2.1", 4739, 7);
  EXPECT_EQ(w->AcquireRecordValueSlot(0, key, 1, 0, 8), nullptr);
  EXPECT_EQ(log.Count("AcquireRecordValueSlot: a session without schema on worker=0"), 1u);
  EXPECT_EQ(w->AcquireRecordValueSlot(9, key, 1, 0, 8), nullptr);
  EXPECT_EQ(log.Count("AcquireRecordValueSlot: bad worker_id=9 (shards=2)"), 1u);

  w->ProcessSchemaUpdate(0, key, Snapshot("leaf1", 2));
  WriteSamples(*w, key, 2, 0, 2);
  EXPECT_EQ(w->AcquireRecordValueSlot(0, key, 77, 0, 24), nullptr);
  EXPECT_EQ(log.Count("values_size=24 exceeds values_capacity=16 (block_size=32)"), 1u);
  const auto* state = w->FindSession(0, key);
  EXPECT_EQ(state->count, 2u);
  // Only committed samples move the page's times.
  EXPECT_EQ(state->first_ts, SampleTs(0));
  EXPECT_EQ(state->last_ts, SampleTs(1));
  // A commit without a slot does nothing; an abandoned slot is handed out again.
  w->CommitRecord(0, key, 16);
  EXPECT_EQ(state->count, 2u);
  uint8_t* a = w->AcquireRecordValueSlot(0, key, 1, 0, 16);
  uint8_t* b = w->AcquireRecordValueSlot(0, key, 1, 0, 16);
  EXPECT_EQ(a, b);
}

TEST_F(DiskWriterTest, ExhaustedSlotPoolFallsBackToUnregisteredWrites) {
  LogCapture log;
  config_.max_sessions = 1;  // 4 slots
  auto w = StartWriter();
  ASSERT_EQ(w->pool_slots(), 4u);
  const std::string k1 = Key("192.0.2.1", 1, 1), k2 = Key("192.0.2.1", 2, 1), k3 = Key("192.0.2.1", 3, 1);
  w->ProcessSchemaUpdate(0, k1, Snapshot("a", 30));
  w->ProcessSchemaUpdate(0, k2, Snapshot("b", 30));
  w->ProcessSchemaUpdate(0, k3, Snapshot("c", 30));
  const auto* s1 = w->FindSession(0, k1);
  const auto* s2 = w->FindSession(0, k2);
  const auto* s3 = w->FindSession(0, k3);
  EXPECT_EQ((std::vector<int>{s1->buf_index[0], s1->buf_index[1], s1->header_buf_index}),
            (std::vector<int>{0, 1, 2}));
  EXPECT_EQ((std::vector<int>{s2->buf_index[0], s2->buf_index[1], s2->header_buf_index}),
            (std::vector<int>{3, -1, -1}));
  EXPECT_EQ(s3->buf_index[0], -1);
  EXPECT_EQ(log.Count("iovec pool exhausted for data buf[1]"), 2u);
  EXPECT_EQ(log.Count("iovec pool exhausted for header page"), 2u);

  for (const std::string* key : {&k1, &k2, &k3}) WriteSamples(*w, *key, 30, 0, 15 + 4096 + 1);
  // Removing a session frees its slots for the next one.
  w->RemoveSession(0, k1);
  const std::string k4 = Key("192.0.2.1", 4, 1);
  w->ProcessSchemaUpdate(0, k4, Snapshot("d", 30));
  const auto* s4 = w->FindSession(0, k4);
  EXPECT_EQ((std::vector<int>{s4->buf_index[0], s4->buf_index[1], s4->header_buf_index}),
            (std::vector<int>{0, 1, 2}));
  w.reset();
  EXPECT_EQ(log.Count("[iouring_writer] CQE error"), 0u);
  const auto files = DataFiles(root_);
  ASSERT_EQ(files.size(), 3u);
  for (const fs::path& file : files) {
    const DataFile parsed = Parse(file);
    ASSERT_EQ(parsed.blocks.size(), 15u + 4096 + 1) << file;
    ExpectSamples(parsed.blocks, 0, 30);
  }
}

// The whole path: two simulated switches over loopback into a receiver with
// two workers and a real disk writer; every sample must be on disk once.
TEST_F(DiskWriterTest, SimulatedSwitchesEndUpOnDiskExactlyOnce) {
  constexpr uint64_t kSamples = 4000;
  dtl::ipfix::IpfixReceiver::Config config{};
  config.port = recv_test::FreeUdpPort();
  config.max_sessions = 8;
  config.recv_buffer_size = 16 << 20;
  config.workers = 2;
  config.backoff_min_us = 20;
  config.backoff_max_us = 200;
  IpfixDiskWriter::Config disk = config_;
  disk.workers = 2;

  const std::vector<std::string> switches = {"leaf-a", "leaf-b"};
  std::vector<dtl::hftsim::SimConfig> sims;
  for (size_t i = 0; i < switches.size(); ++i) {
    dtl::hftsim::SimConfig sim;
    sim.target = "127.0.0.1:" + std::to_string(config.port);
    sim.switch_name = switches[i];
    sim.observation_domain = static_cast<uint32_t>(10 + i);
    sim.interface_count = 3;
    sim.traffic_classes = {"tc0", "tc3"};
    sim.counters_per_template = 12;  // 36 counters in templates 300-302
    sim.sample_count = kSamples;
    sim.rate = 2000;
    sim.announce_period_sec = 0;
    sim.start_time_ns = static_cast<int64_t>(kBaseUs) * 1000;
    sims.push_back(sim);
  }

  uint64_t datagrams = 0;
  {
    dtl::ipfix::IpfixReceiver receiver(config, std::make_unique<IpfixDiskWriter>(disk));
    receiver.Start();
    ASSERT_TRUE(receiver.running());
    std::vector<dtl::hftsim::SimRunResult> results(sims.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < sims.size(); ++i)
      threads.emplace_back([&, i] { results[i] = dtl::hftsim::HftSimulator(sims[i]).Run(); });
    for (auto& t : threads) t.join();
    for (const auto& r : results) {
      ASSERT_TRUE(r.ok()) << r.error;
      datagrams += r.totals.datagrams;
    }
    EXPECT_TRUE(recv_test::WaitFor([&] { return receiver.GetStats().packets_received >= datagrams; }))
        << receiver.GetStats().packets_received << " of " << datagrams;
    receiver.Stop();
  }

  const dtl::hftsim::HftSimulator reference(sims[0]);
  std::map<std::string, std::vector<uint64_t>> seen;  // source -> sample indices
  for (const fs::path& path : DataFiles(root_)) {
    const DataFile file = Parse(path);
    ASSERT_EQ(file.header.block_size, (36u + 2) * 8);
    for (const Block& block : file.blocks) {
      const uint64_t sample = block.values[0] / 1000003 - 1;
      ASSERT_LT(sample, kSamples);
      ASSERT_EQ(block.ts, reference.SampleTimeNs(sample) / 1000) << path;
      for (size_t f = 0; f < block.values.size(); ++f)
        ASSERT_EQ(block.values[f], dtl::hftsim::CounterValue(sample, f)) << path << " sample " << sample;
      seen[file.header.source_id].push_back(sample);
    }
  }
  ASSERT_EQ(seen.size(), switches.size());
  for (const std::string& name : switches) {
    std::vector<uint64_t>& samples = seen[name];
    std::sort(samples.begin(), samples.end());
    ASSERT_EQ(samples.size(), kSamples) << name;
    for (uint64_t i = 0; i < kSamples; ++i) ASSERT_EQ(samples[i], i) << name;
  }
}

}  // namespace

namespace {

// Whole blocks a reader finds in a file being written: valid blocks up to the
// first zero-filled one, after which everything up to the end must be zero.
std::vector<Block> BlocksOfOpenFile(const fs::path& path) {
  std::vector<Block> blocks;
  const std::string bytes = ReadFile(path);
  if (bytes.size() < 256) return blocks;
  dtl_data_file_header_t header;
  std::memcpy(&header, bytes.data(), 256);
  size_t off = 256;
  for (; off + header.block_size <= bytes.size(); off += header.block_size) {
    if (std::string(bytes.data() + off, 4) != "DTLD") break;
    Block block;
    std::memcpy(&block.ts, bytes.data() + off + 8, 8);
    block.values.resize((header.block_size - 16) / 8);
    std::memcpy(block.values.data(), bytes.data() + off + 16, header.block_size - 16);
    blocks.push_back(std::move(block));
  }
  EXPECT_EQ(bytes.find_first_not_of('\0', off), std::string::npos) << "only zero padding after the blocks";
  return blocks;
}

}  // namespace

// A session that goes quiet has its pending samples on disk within about
// flush_idle_ms, as whole blocks a reader can take while the file is open;
// later samples continue right behind them, and the close leaves an exact
// file. Covers the header unit (first 15 samples) and a data page.
TEST_F(DiskWriterTest, IdleSessionsPagesReachTheDiskAndLaterSamplesFollow) {
  config_.flush_idle_ms = 20;
  auto w = StartWriter();
  const std::string key = Key("192.0.2.1", 4739, 7);
  w->ProcessSchemaUpdate(0, key, Snapshot("leaf1", 30));
  uint64_t sent = 0;
  for (const uint64_t burst : {5u, 20u, 4096u + 7u, 1u}) {
    WriteSamples(*w, key, 30, sent, burst);
    sent += burst;
    std::vector<Block> on_disk;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (on_disk.size() < sent && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      w->Tick(0);  // the receive worker's call, made here by hand
      const auto files = DataFiles(root_);
      if (files.size() == 1) on_disk = BlocksOfOpenFile(files[0]);
    }
    ASSERT_EQ(on_disk.size(), sent) << "after a burst of " << burst;
    ExpectSamples(on_disk, 0, 30);
  }
  w.reset();
  const auto files = DataFiles(root_);
  ASSERT_EQ(files.size(), 1u);
  const DataFile file = Parse(files[0]);
  ASSERT_EQ(file.blocks.size(), sent);
  ExpectSamples(file.blocks, 0, 30);
  EXPECT_EQ(file.header.last_timestamp, SampleTs(sent - 1));
}

// While no data file can be created, every page is given up (counted and
// said once) and the page never grows past its buffer, however many samples
// arrive; once the path can be created again, the next samples are stored.
TEST_F(DiskWriterTest, SamplesWithoutADataFileAreLostOnceSaidAndStorageResumes) {
  LogCapture log;
  config_.counters_template = "blocked/{{source}}/{{id}}.bin";
  config_.batch_count = 64;
  auto w = StartWriter();
  std::ofstream(root_ / "blocked") << "a file where a directory should be";
  const std::string key = Key("192.0.2.1", 4739, 7);
  w->ProcessSchemaUpdate(0, key, Snapshot("leaf1", 30));
  const uint32_t capacity = w->FindSession(0, key)->batch_capacity;
  WriteSamples(*w, key, 30, 0, 3 * capacity + 5);
  EXPECT_LE(w->FindSession(0, key)->count, capacity);
  EXPECT_EQ(log.Count("no data file can be created under"), 1u);
  EXPECT_EQ(DataFiles(root_), std::vector<fs::path>{root_ / "blocked"}) << "no data file yet";

  fs::remove(root_ / "blocked");
  const uint64_t later = 3 * capacity + 5;
  WriteSamples(*w, key, 30, later, 2 * capacity);
  w.reset();
  const auto files = DataFiles(root_);
  ASSERT_EQ(files.size(), 1u);
  const DataFile file = Parse(files[0]);
  ASSERT_GE(file.blocks.size(), capacity) << "samples after the fault are stored";
  const uint64_t first = (file.blocks.front().ts - SampleTs(0)) / 100;
  EXPECT_GE(first, later - capacity) << "nothing older than the page that found the path again";
  ExpectSamples(file.blocks, first, 30);
  EXPECT_EQ(file.blocks.back().ts, SampleTs(later + 2 * capacity - 1));
}
