// Retention against real files and a real io_uring: the start-up scan trims
// the oldest data files, and files closed while running are deleted oldest
// first once the data is over its limits.
#include "storage/disk_retention.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "dtl_data_file_header.h"
#include "support/log_capture.h"
#include "support/wait_for.h"

namespace {

namespace fs = boost::filesystem;
using dtl::ipfix::DiskRetention;
using dtl::ipfix::DiskWriterConfig;
using dtl_test::WaitFor;

constexpr uint64_t kMiB = 1024 * 1024;
constexpr std::time_t kBaseTime = 1700000000;

std::string DataFileHeader() {
  std::string header(DTL_DATA_FILE_HEADER_SIZE, '\0');
  EXPECT_TRUE(dtl_data_file_header_build("leaf1", "ipfix_", 1, 64, nullptr, nullptr, header.data(), header.size()));
  return header;
}

class DiskRetentionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/disk_retention_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
  }
  void TearDown() override {
    boost::system::error_code ec;
    fs::remove_all(root_, ec);
  }

  DiskWriterConfig Config(uint64_t data_size_limit, uint64_t file_size_limit, uint64_t low_watermark = 0) const {
    DiskWriterConfig config;
    config.root = root_.string();
    config.data_size_limit = data_size_limit;
    config.file_size_limit = file_size_limit;
    config.low_watermark = low_watermark;
    return config;
  }
  // A sparse file of the given size that starts with content (a data-file
  // header unless told otherwise), so that large sizes cost no space.
  fs::path MakeFile(const std::string& relative, uint64_t size, std::time_t mtime = kBaseTime,
                    const std::string& content = DataFileHeader()) const {
    const fs::path path = root_ / relative;
    fs::create_directories(path.parent_path());
    std::ofstream(path.string(), std::ios::binary) << content;
    fs::resize_file(path, size);
    fs::last_write_time(path, mtime);
    return path;
  }
  size_t CountFiles() const {
    size_t count = 0;
    for (fs::recursive_directory_iterator it(root_), end; it != end; ++it)
      count += fs::is_regular_file(it->symlink_status());
    return count;
  }

  dtl_test::LogCapture log_;
  fs::path root_;
};

// The oldest data files of several sessions go until both the size target
// (data_size_limit - low_watermark) and the file count are met: found by the
// start-up scan (oldest by modification time; names run against age), or
// closed while running (never deleted on the spot; swept in ring batches).
TEST_F(DiskRetentionTest, TheOldestFilesGoDownToTheTargets) {
  const std::tuple<const char*, bool, int, uint64_t, uint64_t, uint64_t, uint64_t, int> rows[] = {
      {"scan, size: target 7000", false, 10, 1000, 10000, 1000, 3000, 7},
      {"scan, a low watermark not below the limit becomes an eighth: target 8750", false, 10, 1000, 10000, 1000,
       10000, 8},
      {"scan, count: far below the size target, but at most 4 N = 32 stay", false, 40, kMiB, 1024 * kMiB,
       128 * kMiB, 0, 32},
      {"scan, limits far beyond any disk: nothing sized by them", false, 3, kMiB, UINT64_MAX, 1, 0, 3},
      {"running, size: target 875", true, 11, 100, 1000, 100, 0, 8},
      {"running, count: N 4, ring depth 2", true, 200, 10, 400, 100, 0, 4}};
  for (const auto& [what, running, count, size, data_size_limit, file_size_limit, low_watermark, kept] : rows) {
    SCOPED_TRACE(what);
    fs::remove_all(root_);
    DiskRetention retention;
    ASSERT_TRUE(!running || retention.Start(Config(data_size_limit, file_size_limit, low_watermark)));
    std::vector<fs::path> files;
    for (int i = 0; i < count; ++i) {
      files.push_back(MakeFile("leaf" + std::to_string(i % 3) + "/ipfix_" + std::to_string(1000 - i) + ".bin",
                               running ? 0 : size, kBaseTime + i));
      if (running) retention.RecordClosedFile(fs::path(files.back()), size);
      ASSERT_TRUE(fs::exists(files.back())) << i;
    }
    ASSERT_TRUE(running || retention.Start(Config(data_size_limit, file_size_limit, low_watermark)));
    ASSERT_TRUE(WaitFor([&] { return CountFiles() == static_cast<size_t>(kept); }));
    for (int i = 0; i < count; ++i) EXPECT_EQ(fs::exists(files[i]), i >= count - kept) << i;
    EXPECT_EQ(retention.TrackedFiles(), static_cast<uint64_t>(kept));
    EXPECT_EQ(retention.LedgerBytes(), kept * size);
  }
}

// Only files that open with a data-file header, outside the schema and
// metadata directories and with the template's extension, are ours to count
// and delete; anything else is left alone, without an error. A template
// ending in a placeholder has no extension to go by.
TEST_F(DiskRetentionTest, ScanTracksOnlyDataFiles) {
  const std::string header = DataFileHeader();
  const std::vector<fs::path> left_alone = {
      MakeFile("schema/0123.bin", 5000), MakeFile("metadata/0123.bin", 5000), MakeFile("notes.txt", 5000),
      MakeFile("a/no_header.bin", 5000, kBaseTime, ""),
      MakeFile("a/other_magic.bin", 5000, kBaseTime, header.substr(0, 3) + "D" + header.substr(4)),
      MakeFile("a/lower_magic.bin", 5000, kBaseTime, "d" + header.substr(1)),
      MakeFile("a/short.bin", DTL_DATA_FILE_HEADER_SIZE - 1, kBaseTime, header.substr(0, 64))};
  const fs::path older = MakeFile("a/1.bin", 5000, kBaseTime + 1);
  const fs::path newer = MakeFile("a/2.bin", 5000, kBaseTime + 2);
  fs::create_symlink(newer, root_ / "a/link.bin");
  {
    DiskRetention retention;
    ASSERT_TRUE(retention.Start(Config(10000, 1000)));  // target 8750
    EXPECT_FALSE(fs::exists(older));
    EXPECT_TRUE(fs::exists(newer));
    EXPECT_TRUE(fs::is_symlink(root_ / "a/link.bin"));
    for (const fs::path& path : left_alone) EXPECT_TRUE(fs::exists(path)) << path;
    EXPECT_EQ(retention.TrackedFiles(), 1u);
    EXPECT_EQ(log_.Count("3 [IPFIX disk writer]"), 0u) << "no error";
  }
  DiskWriterConfig config = Config(10000, 1000);
  config.counters_template = "{{source}}/{{id}}.{{tag}}";
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(config));
  EXPECT_FALSE(fs::exists(root_ / "notes.txt")) << "the oldest data file now";
  EXPECT_TRUE(fs::exists(newer));
  EXPECT_EQ(retention.TrackedFiles(), 1u);
}

// Four producers close 3000 files at once, and retention stops while it
// sweeps: Stop waits for every unlink handed to the ring, so what is left on
// disk is exactly what the ledger tracks (a record unlinked twice or lost
// would set them apart). After Stop a closed file is left for the next scan.
TEST_F(DiskRetentionTest, ConcurrentProducersAndStopKeepLedgerAndDiskInStep) {
  constexpr int kThreads = 4, kPerThread = 750;
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(2048, 1)));  // N 2048, ring depth 1024
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t)
    producers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i)
        retention.RecordClosedFile(MakeFile("t" + std::to_string(t) + "/" + std::to_string(i) + ".bin", 0), 1);
    });
  for (auto& producer : producers) producer.join();
  ASSERT_TRUE(WaitFor([&] { return retention.TrackedFiles() < kThreads * kPerThread; }));
  retention.Stop();
  const size_t left = CountFiles();
  EXPECT_EQ(left, retention.TrackedFiles());
  EXPECT_EQ(retention.LedgerBytes(), left);
  EXPECT_LT(left, static_cast<size_t>(kThreads * kPerThread));
  retention.RecordClosedFile(MakeFile("late.bin", 0), 1);
  EXPECT_TRUE(fs::exists(root_ / "late.bin"));
  EXPECT_EQ(retention.TrackedFiles(), left);
}

}  // namespace
