#include "ipfix/disk_retention.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "recv_test_support.h"

namespace {

namespace fs = boost::filesystem;
using dtl::ipfix::DiskRetention;
using dtl::ipfix::DiskWriterConfig;
using recv_test::LogCapture;
using recv_test::WaitFor;

constexpr uint64_t kMiB = 1024 * 1024;
constexpr std::time_t kBaseTime = 1700000000;

class DiskRetentionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/disk_retention_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    LogCapture::Clear();
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

  // A sparse file of the given size, so that large sizes cost no space.
  fs::path MakeFile(const std::string& relative, uint64_t size, std::time_t mtime = kBaseTime) const {
    const fs::path path = root_ / relative;
    fs::create_directories(path.parent_path());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    EXPECT_GE(fd, 0) << path;
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
    close(fd);
    fs::last_write_time(path, mtime);
    return path;
  }

  size_t CountFiles() const {
    size_t count = 0;
    for (fs::recursive_directory_iterator it(root_), end; it != end; ++it)
      if (fs::is_regular_file(it->status())) ++count;
    return count;
  }

  LogCapture log_;
  fs::path root_;
};

// --- Start-up: validation, trimming and seeding ---

TEST_F(DiskRetentionTest, LimitsThatDisableRetention) {
  {
    DiskRetention retention;
    EXPECT_FALSE(retention.Start(Config(0, 100)));
    EXPECT_FALSE(retention.Enabled());
    EXPECT_EQ(LogCapture::Count("Retention"), 0u);
  }
  {
    DiskRetention retention;
    EXPECT_FALSE(retention.Start(Config(100, 100)));
    EXPECT_EQ(LogCapture::Count("3 [IPFIX disk writer] Retention disabled: data_size_limit (100) must be > "
                                "file_size_limit (100)"),
              1u);
  }
  {
    DiskRetention retention;
    EXPECT_FALSE(retention.Start(Config(1000, 0)));
    EXPECT_EQ(LogCapture::Count("data_size_limit (1000) must be > file_size_limit (0)"), 1u);
    retention.Stop();
  }
  EXPECT_EQ(LogCapture::Count("Retention stopped"), 0u);
}

TEST_F(DiskRetentionTest, EmptyRootSizesPoolFromLimits) {
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(1024 * kMiB, 128 * kMiB)));
  EXPECT_TRUE(retention.Start(Config(1024 * kMiB, 128 * kMiB)));  // already running
  EXPECT_EQ(retention.FileTarget(), 8u);
  EXPECT_EQ(retention.SlotCapacity(), 12u);
  EXPECT_EQ(LogCapture::Count("6 [IPFIX disk writer] Retention enabled (io_uring unlinkat): "
                              "data_size_limit=1073741824 low_watermark=134217728 N=8 capacity=12 ring_depth=4"),
            1u);
  EXPECT_EQ(LogCapture::Count("startup recovery"), 0u);
  retention.Stop();
  retention.Stop();
  EXPECT_EQ(LogCapture::Count("6 [IPFIX disk writer] Retention stopped (tracked 0 files, 0 bytes still on ledger)"), 1u);
}

TEST_F(DiskRetentionTest, StartTrimsOldestBySizeDownToTarget) {
  // Names run against age so that only the modification time can order them.
  std::vector<fs::path> by_age;
  for (int i = 0; i < 10; ++i) by_age.push_back(MakeFile("d/f" + std::to_string(9 - i) + ".bin", 100, kBaseTime + i));

  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(1000, 100, 300)));  // target 700
  for (int i = 0; i < 10; ++i) EXPECT_EQ(fs::exists(by_age[i]), i >= 3) << i;
  EXPECT_EQ(retention.LedgerBytes(), 700u);
  EXPECT_EQ(retention.TrackedFiles(), 7u);
  EXPECT_EQ(LogCapture::Count("scanned 10 file(s), deleted 3 (300 bytes), seeded 7 file(s) (700 bytes), "
                              "low_watermark=700"),
            1u);
}

TEST_F(DiskRetentionTest, LowWatermarkNotBelowLimitBecomesAnEighth) {
  for (int i = 0; i < 10; ++i) MakeFile("f" + std::to_string(i) + ".bin", 100, kBaseTime + i);
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(1000, 100, 1000)));  // margin 125, target 875
  EXPECT_EQ(CountFiles(), 8u);
  EXPECT_FALSE(fs::exists(root_ / "f0.bin"));
  EXPECT_FALSE(fs::exists(root_ / "f1.bin"));
  EXPECT_EQ(LogCapture::Count("low_watermark=875"), 1u);
  EXPECT_EQ(LogCapture::Count("data_size_limit=1000 low_watermark=125 N=10 capacity=15 ring_depth=5"), 1u);
}

// 40 files of 1 MiB under a 1 GiB limit with 128 MiB files: nothing is over
// the size target, but only 4 x 8 files may stay.
TEST_F(DiskRetentionTest, StartTrimsOldestByCount) {
  std::vector<fs::path> by_age;
  for (int i = 0; i < 40; ++i)
    by_age.push_back(MakeFile("2024/0501/leaf1/ipfix_" + std::to_string(1000 - i) + ".bin", kMiB, kBaseTime + i));

  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(1024 * kMiB, 128 * kMiB)));
  for (int i = 0; i < 40; ++i) EXPECT_EQ(fs::exists(by_age[i]), i >= 8) << i;
  EXPECT_EQ(LogCapture::Count("6 [IPFIX disk writer] Retention startup recovery: scanned 40 file(s), deleted 8 "
                              "(8388608 bytes), seeded 32 file(s) (33554432 bytes), low_watermark=939524096"),
            1u);
  EXPECT_EQ(LogCapture::Count("low_watermark=134217728 N=32 capacity=48 ring_depth=16"), 1u);
  EXPECT_EQ(retention.FileTarget(), 32u);
  EXPECT_EQ(retention.SlotCapacity(), 48u);
  EXPECT_EQ(retention.TrackedFiles(), 32u);
  EXPECT_EQ(retention.LedgerBytes(), 32 * kMiB);
  retention.Stop();
  EXPECT_EQ(LogCapture::Count("Retention stopped (tracked 32 files, 33554432 bytes still on ledger)"), 1u);
}

TEST_F(DiskRetentionTest, ScanLeavesSchemaMetadataAndForeignFilesAlone) {
  const fs::path schema = MakeFile("schema/0123.json.bin", 5000, kBaseTime);
  const fs::path metadata = MakeFile("metadata/0123.bin", 5000, kBaseTime);
  const fs::path notes = MakeFile("notes.txt", 5000, kBaseTime);
  const fs::path older = MakeFile("a/1.bin", 500, kBaseTime + 1);
  const fs::path newer = MakeFile("a/2.bin", 500, kBaseTime + 2);

  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(1000, 100)));  // target 875
  EXPECT_FALSE(fs::exists(older));
  EXPECT_TRUE(fs::exists(newer));
  EXPECT_TRUE(fs::exists(schema));
  EXPECT_TRUE(fs::exists(metadata));
  EXPECT_TRUE(fs::exists(notes));
  EXPECT_EQ(LogCapture::Count("scanned 2 file(s), deleted 1 (500 bytes), seeded 1 file(s) (500 bytes)"), 1u);
}

TEST_F(DiskRetentionTest, TemplateEndingInPlaceholderCountsEveryFile) {
  MakeFile("schema/s.json", 5000, kBaseTime);
  MakeFile("metadata/m.json", 5000, kBaseTime);
  const fs::path notes = MakeFile("notes.txt", 600, kBaseTime);
  const fs::path data = MakeFile("a/1.dat", 500, kBaseTime + 1);

  DiskWriterConfig config = Config(1000, 100);
  config.counters_template = "{{source}}/{{id}}.{{tag}}";
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(config));
  EXPECT_FALSE(fs::exists(notes));
  EXPECT_TRUE(fs::exists(data));
  EXPECT_EQ(CountFiles(), 3u);
  EXPECT_EQ(LogCapture::Count("scanned 2 file(s), deleted 1 (600 bytes)"), 1u);
  std::vector<DiskRetention::RecoveredFile> found;
  EXPECT_EQ(retention.RecoverExistingFiles(found), 500u);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].path, data);
  EXPECT_EQ(found[0].mtime, kBaseTime + 1);
}

// --- Files reported while running ---

TEST_F(DiskRetentionTest, ClosedFilesOverTheLimitDeleteTheOldest) {
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(1000, 100)));  // N 10, target 875
  std::vector<fs::path> files;
  for (int i = 0; i < 11; ++i) {
    files.push_back(MakeFile("closed/" + std::to_string(i) + ".bin", 100));
    retention.RecordClosedFile(fs::path(files.back()), 100);
  }
  ASSERT_TRUE(WaitFor([&] { return CountFiles() == 8; }));
  for (int i = 0; i < 11; ++i) EXPECT_EQ(fs::exists(files[i]), i >= 3) << i;
  EXPECT_EQ(retention.LedgerBytes(), 800u);
  EXPECT_EQ(retention.TrackedFiles(), 8u);
  EXPECT_EQ(LogCapture::Count("7 [IPFIX disk writer] Retention: swept 3 oldest file(s), total now 800/1000 bytes "
                              "(8 files tracked)"),
            1u);

  // Three more small files push the count over N while the bytes stay low.
  for (int i = 11; i < 14; ++i) {
    files.push_back(MakeFile("closed/" + std::to_string(i) + ".bin", 1));
    retention.RecordClosedFile(fs::path(files.back()), 1);
  }
  ASSERT_TRUE(WaitFor([&] { return !fs::exists(files[3]); }));
  retention.Stop();
  EXPECT_EQ(CountFiles(), 10u);
  EXPECT_TRUE(fs::exists(files[4]));
  EXPECT_EQ(retention.TrackedFiles(), 10u);
  EXPECT_EQ(retention.LedgerBytes(), 703u);
}

TEST_F(DiskRetentionTest, EmptySlotPoolDeletesAtOnceWithOneWarning) {
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(150, 100)));  // N 1: a single slot
  ASSERT_EQ(retention.SlotCapacity(), 1u);
  const fs::path kept = MakeFile("k.bin", 10);
  retention.RecordClosedFile(fs::path(kept), 10);
  for (int i = 0; i < 3; ++i) {
    const fs::path extra = MakeFile("x" + std::to_string(i) + ".bin", 10);
    retention.RecordClosedFile(fs::path(extra), 10);
    EXPECT_FALSE(fs::exists(extra)) << i;
  }
  EXPECT_TRUE(fs::exists(kept));
  EXPECT_EQ(retention.TrackedFiles(), 1u);
  EXPECT_EQ(retention.LedgerBytes(), 10u);
  EXPECT_EQ(LogCapture::Count("4 [IPFIX disk writer] Retention: slot pool empty — synchronous unlink fallback"), 1u);
}

TEST_F(DiskRetentionTest, StopWaitsForUnlinksInFlight) {
  constexpr int kFiles = 3000;
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(2048, 1)));  // N 2048, ring depth 1024, target 1792
  std::vector<fs::path> files;
  for (int i = 0; i < kFiles; ++i) files.push_back(MakeFile("many/" + std::to_string(i) + ".bin", 0));
  for (auto& file : files) retention.RecordClosedFile(fs::path(file), 1);
  ASSERT_TRUE(WaitFor([&] { return retention.TrackedFiles() < kFiles; }));
  retention.Stop();
  // Every unlink handed to the ring has completed: what is left is exactly
  // what the ledger still tracks.
  const size_t left = CountFiles();
  EXPECT_EQ(left, retention.TrackedFiles());
  EXPECT_LT(left, static_cast<size_t>(kFiles));
  EXPECT_EQ(LogCapture::Count("Retention stopped (tracked " + std::to_string(left) + " files"), 1u);

  // Every slot came back from the ring: the pool still holds one for each
  // untracked file, so none of these is deleted on the spot.
  const uint64_t free_slots = retention.SlotCapacity() - retention.TrackedFiles();
  for (uint64_t i = 0; i < free_slots; ++i) {
    const fs::path late = MakeFile("late/" + std::to_string(i) + ".bin", 0);
    retention.RecordClosedFile(fs::path(late), 1);
    ASSERT_TRUE(fs::exists(late)) << i << " of " << free_slots;
  }
}

TEST_F(DiskRetentionTest, ConcurrentProducersKeepLedgerAndDiskInStep) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 250;
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(1000, 100)));  // N 10, 15 slots
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        fs::path path = MakeFile("t" + std::to_string(t) + "/" + std::to_string(i) + ".bin", 10);
        retention.RecordClosedFile(std::move(path), 10);
      }
    });
  }
  for (auto& producer : producers) producer.join();
  ASSERT_TRUE(WaitFor([&] { return retention.TrackedFiles() <= 10 && retention.LedgerBytes() <= 1000; }));
  retention.Stop();
  // A slot used twice would leave a file behind that no ledger entry covers.
  EXPECT_EQ(CountFiles(), retention.TrackedFiles());
  EXPECT_EQ(retention.LedgerBytes(), 10 * retention.TrackedFiles());
}

}  // namespace
