#include "storage/disk_retention.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdint>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "dtl_data_file_header.h"
#include "ipfix/recv_test_support.h"

namespace {

namespace fs = boost::filesystem;
using dtl::ipfix::DiskRetention;
using dtl::ipfix::DiskWriterConfig;
using recv_test::LogCapture;
using recv_test::WaitFor;

constexpr uint64_t kMiB = 1024 * 1024;
constexpr std::time_t kBaseTime = 1700000000;

std::string DataFileHeader() {
  std::string header(DTL_DATA_FILE_HEADER_SIZE, '\0');
  EXPECT_TRUE(dtl_data_file_header_build("leaf1", "ipfix_", 1, 64, nullptr, nullptr, header.data(), header.size()));
  return header;
}

size_t ErrorLines() {
  size_t count = 0;
  for (const std::string& line : LogCapture::Snapshot())
    if (line.rfind("3 ", 0) == 0) ++count;
  return count;
}

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

  // A sparse file of the given size that starts with `content`, so that
  // large sizes cost no space.
  fs::path MakeFile(const std::string& relative, uint64_t size, std::time_t mtime = kBaseTime,
                    const std::string& content = {}) const {
    const fs::path path = root_ / relative;
    fs::create_directories(path.parent_path());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    EXPECT_GE(fd, 0) << path;
    EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
    close(fd);
    fs::last_write_time(path, mtime);
    return path;
  }
  // What the start-up scan counts: a file that opens with a data-file header.
  fs::path MakeDataFile(const std::string& relative, uint64_t size, std::time_t mtime = kBaseTime) const {
    return MakeFile(relative, size, mtime, DataFileHeader());
  }

  size_t CountFiles() const {
    size_t count = 0;
    for (fs::recursive_directory_iterator it(root_), end; it != end; ++it)
      if (fs::is_regular_file(it->symlink_status())) ++count;
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

TEST_F(DiskRetentionTest, EmptyRootSizesStructuresFromLimits) {
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(1024 * kMiB, 128 * kMiB)));
  EXPECT_TRUE(retention.Start(Config(1024 * kMiB, 128 * kMiB)));  // already running
  EXPECT_EQ(retention.FileTarget(), 8u);
  EXPECT_EQ(retention.RingDepth(), 4u);
  EXPECT_EQ(LogCapture::Count("6 [IPFIX disk writer] Retention enabled (io_uring unlinkat): "
                              "data_size_limit=1073741824 low_watermark=134217728 N=8 ring_depth=4"),
            1u);
  EXPECT_EQ(LogCapture::Count("startup recovery"), 0u);
  retention.Stop();
  retention.Stop();
  EXPECT_EQ(LogCapture::Count("6 [IPFIX disk writer] Retention stopped (tracked 0 files, 0 bytes still on ledger)"), 1u);
}

// Limits far beyond any disk: N is huge, but what is allocated follows the
// files present, and the ledger tracks every file without sweeping.
TEST_F(DiskRetentionTest, HugeLimitsSizeStructuresByFilesPresent) {
  struct Case {
    uint64_t data_size_limit;
    uint64_t file_size_limit;
  };
  const Case cases[] = {{1000000000000000ull, 128 * kMiB},
                        {100000000000000000ull, 128 * kMiB},
                        {UINT64_MAX, 128 * kMiB},
                        {UINT64_MAX, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.data_size_limit);
    LogCapture::Clear();
    for (int i = 0; i < 3; ++i) MakeDataFile("d/" + std::to_string(i) + ".bin", kMiB, kBaseTime + i);
    {
      DiskRetention retention;
      ASSERT_TRUE(retention.Start(Config(c.data_size_limit, c.file_size_limit)));
      EXPECT_EQ(retention.FileTarget(), c.data_size_limit / c.file_size_limit);
      EXPECT_EQ(retention.RingDepth(), DiskRetention::kMaxRingDepth);
      EXPECT_EQ(retention.TrackedFiles(), 3u);
      for (int i = 0; i < 2; ++i) {
        const fs::path closed = MakeFile("closed/" + std::to_string(i) + ".bin", 0);
        retention.RecordClosedFile(fs::path(closed), kMiB);
      }
      EXPECT_EQ(retention.TrackedFiles(), 5u);
      EXPECT_EQ(retention.LedgerBytes(), 5 * kMiB);
      if (c.file_size_limit == 1) continue;  // the destructor stops it and frees the ledger
      retention.Stop();
      EXPECT_EQ(LogCapture::Count("Retention stopped (tracked 5 files, 5242880 bytes still on ledger)"), 1u);
    }
    EXPECT_EQ(CountFiles(), 5u);
    EXPECT_EQ(ErrorLines(), 0u);
    fs::remove_all(root_ / "closed");
  }
}

TEST_F(DiskRetentionTest, StartTrimsOldestBySizeDownToTarget) {
  // Names run against age so that only the modification time can order them.
  std::vector<fs::path> by_age;
  for (int i = 0; i < 10; ++i)
    by_age.push_back(MakeDataFile("d/f" + std::to_string(9 - i) + ".bin", 1000, kBaseTime + i));

  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(10000, 1000, 3000)));  // target 7000
  for (int i = 0; i < 10; ++i) EXPECT_EQ(fs::exists(by_age[i]), i >= 3) << i;
  EXPECT_EQ(retention.LedgerBytes(), 7000u);
  EXPECT_EQ(retention.TrackedFiles(), 7u);
  EXPECT_EQ(LogCapture::Count("scanned 10 file(s), deleted 3 (3000 bytes), seeded 7 file(s) (7000 bytes), "
                              "low_watermark=7000"),
            1u);
}

TEST_F(DiskRetentionTest, LowWatermarkNotBelowLimitBecomesAnEighth) {
  for (int i = 0; i < 10; ++i) MakeDataFile("f" + std::to_string(i) + ".bin", 1000, kBaseTime + i);
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(10000, 1000, 10000)));  // margin 1250, target 8750
  EXPECT_EQ(CountFiles(), 8u);
  EXPECT_FALSE(fs::exists(root_ / "f0.bin"));
  EXPECT_FALSE(fs::exists(root_ / "f1.bin"));
  EXPECT_EQ(LogCapture::Count("low_watermark=8750"), 1u);
  EXPECT_EQ(LogCapture::Count("data_size_limit=10000 low_watermark=1250 N=10 ring_depth=5"), 1u);
}

// 40 files of 1 MiB under a 1 GiB limit with 128 MiB files: nothing is over
// the size target, but only 4 x 8 files may stay.
TEST_F(DiskRetentionTest, StartTrimsOldestByCount) {
  std::vector<fs::path> by_age;
  for (int i = 0; i < 40; ++i)
    by_age.push_back(MakeDataFile("2024/0501/leaf1/ipfix_" + std::to_string(1000 - i) + ".bin", kMiB, kBaseTime + i));

  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(1024 * kMiB, 128 * kMiB)));
  for (int i = 0; i < 40; ++i) EXPECT_EQ(fs::exists(by_age[i]), i >= 8) << i;
  EXPECT_EQ(LogCapture::Count("6 [IPFIX disk writer] Retention startup recovery: scanned 40 file(s), deleted 8 "
                              "(8388608 bytes), seeded 32 file(s) (33554432 bytes), low_watermark=939524096"),
            1u);
  EXPECT_EQ(LogCapture::Count("low_watermark=134217728 N=32 ring_depth=16"), 1u);
  EXPECT_EQ(retention.FileTarget(), 32u);
  EXPECT_EQ(retention.TrackedFiles(), 32u);
  EXPECT_EQ(retention.LedgerBytes(), 32 * kMiB);
  retention.Stop();
  EXPECT_EQ(LogCapture::Count("Retention stopped (tracked 32 files, 33554432 bytes still on ledger)"), 1u);
}

// Only files that open with a data-file header are ours to count and
// delete; anything else under the root is left alone, without an error.
TEST_F(DiskRetentionTest, ScanTracksOnlyFilesWithDataFileHeader) {
  const std::string header = DataFileHeader();
  std::string other_magic = header;
  other_magic[3] = 'D';
  std::string lower_magic = header;
  lower_magic[0] = 'd';
  const std::vector<fs::path> left_alone = {
      MakeDataFile("schema/0123.bin", 5000),
      MakeDataFile("metadata/0123.bin", 5000),
      MakeDataFile("notes.txt", 5000),
      MakeFile("a/no_header.bin", 5000),
      MakeFile("a/other_magic.bin", 5000, kBaseTime, other_magic),
      MakeFile("a/lower_magic.bin", 5000, kBaseTime, lower_magic),
      MakeFile("a/short.bin", DTL_DATA_FILE_HEADER_SIZE - 1, kBaseTime, header.substr(0, 64)),
  };
  const fs::path older = MakeDataFile("a/1.bin", 5000, kBaseTime + 1);
  const fs::path newer = MakeDataFile("a/2.bin", 5000, kBaseTime + 2);
  fs::create_symlink(newer, root_ / "a/link.bin");
  // Root reads anything, so only others can try an unreadable file.
  const bool can_lock_out = geteuid() != 0;
  const fs::path unreadable = root_ / "a/unreadable.bin";
  if (can_lock_out) {
    MakeDataFile("a/unreadable.bin", 5000);
    fs::permissions(unreadable, fs::no_perms);
  }

  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(10000, 1000)));  // target 8750
  EXPECT_FALSE(fs::exists(older));
  EXPECT_TRUE(fs::exists(newer));
  EXPECT_TRUE(fs::is_symlink(root_ / "a/link.bin"));
  EXPECT_EQ(fs::exists(unreadable), can_lock_out);
  for (const fs::path& path : left_alone) EXPECT_TRUE(fs::exists(path)) << path;
  EXPECT_EQ(LogCapture::Count("scanned 2 file(s), deleted 1 (5000 bytes), seeded 1 file(s) (5000 bytes)"), 1u);
  EXPECT_EQ(ErrorLines(), 0u);
}

TEST_F(DiskRetentionTest, TemplateEndingInPlaceholderCountsEveryFile) {
  MakeDataFile("schema/s.json", 5000, kBaseTime);
  MakeDataFile("metadata/m.json", 5000, kBaseTime);
  const fs::path notes = MakeDataFile("notes.txt", 6000, kBaseTime);
  const fs::path data = MakeDataFile("a/1.dat", 5000, kBaseTime + 1);

  DiskWriterConfig config = Config(10000, 1000);
  config.counters_template = "{{source}}/{{id}}.{{tag}}";
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(config));
  EXPECT_FALSE(fs::exists(notes));
  EXPECT_TRUE(fs::exists(data));
  EXPECT_EQ(CountFiles(), 3u);
  EXPECT_EQ(LogCapture::Count("scanned 2 file(s), deleted 1 (6000 bytes)"), 1u);
  std::vector<DiskRetention::RecoveredFile> found;
  EXPECT_EQ(retention.RecoverExistingFiles(found), 5000u);
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

// Far more files than N, and than the ring holds, arrive faster than the
// sweep: each is tracked, none is deleted on the spot, and the sweep works
// through them oldest first in several batches.
TEST_F(DiskRetentionTest, FilesBeyondNAreTrackedAndSweptInOrder) {
  constexpr int kFiles = 200;
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(400, 100)));  // N 4, ring depth 2, target 350
  ASSERT_EQ(retention.RingDepth(), 2u);
  std::vector<fs::path> files;
  for (int i = 0; i < kFiles; ++i) {
    files.push_back(MakeFile("many/" + std::to_string(i) + ".bin", 0));
    retention.RecordClosedFile(fs::path(files.back()), 10);
    // The newest file is the last the sweep would take.
    ASSERT_TRUE(fs::exists(files.back())) << i;
  }
  ASSERT_TRUE(WaitFor([&] { return CountFiles() == 4; }));
  for (int i = 0; i < kFiles; ++i) EXPECT_EQ(fs::exists(files[i]), i >= kFiles - 4) << i;
  EXPECT_EQ(retention.TrackedFiles(), 4u);
  EXPECT_EQ(retention.LedgerBytes(), 40u);
  EXPECT_EQ(LogCapture::Count("synchronous unlink"), 0u);
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

  // After Stop a closed file is left for the next start-up scan.
  const fs::path late = MakeFile("late.bin", 0);
  retention.RecordClosedFile(fs::path(late), 1);
  EXPECT_TRUE(fs::exists(late));
  EXPECT_EQ(retention.TrackedFiles(), left);
}

TEST_F(DiskRetentionTest, ConcurrentProducersKeepLedgerAndDiskInStep) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 250;
  DiskRetention retention;
  ASSERT_TRUE(retention.Start(Config(1000, 100)));  // N 10, ring depth 5
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
  // A record unlinked twice or lost would leave disk and ledger apart.
  EXPECT_EQ(CountFiles(), retention.TrackedFiles());
  EXPECT_EQ(retention.LedgerBytes(), 10 * retention.TrackedFiles());
}

}  // namespace
