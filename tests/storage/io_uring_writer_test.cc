// The shared io_uring writer against real rings, real files and pipes.
#include "storage/io_uring_writer.h"

#include <fcntl.h>
#include <signal.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "dtl_logger.h"
#include "support/log_capture.h"

namespace dtl::ipfix {
namespace {

// A write job from its first seven fields, as most tests need it.
struct Job : IoUringWriter::WriteJob {
  Job(int fd_, const uint8_t* data_, size_t len_, int64_t offset_, int buf_index_,
      std::function<void()> on_error_, std::atomic<bool>* in_flight_) {
    fd = fd_;
    data = data_;
    len = len_;
    offset = offset_;
    buf_index = buf_index_;
    on_error = std::move(on_error_);
    in_flight = in_flight_;
  }
};

using dtl_test::LogCapture;

// Polls cond for at most 10 seconds.
bool WaitFor(const std::function<bool()>& cond) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

struct ScopeExit {
  std::function<void()> fn;
  ~ScopeExit() { fn(); }
};

// A pipe whose write end is full, so that a write to it waits until the
// test reads. Closing the read end ends such a write with EPIPE.
struct FullPipe {
  FullPipe() {
    signal(SIGPIPE, SIG_IGN);
    if (pipe2(fds, O_NONBLOCK) != 0) return;
    std::vector<uint8_t> filler(65536, 0);
    ok = write(fds[1], filler.data(), filler.size()) == 65536 && fcntl(fds[1], F_SETFL, 0) == 0;
  }
  ~FullPipe() { CloseReader(), close(fds[1]); }
  void CloseReader() {
    if (fds[0] >= 0) close(fds[0]);
    fds[0] = -1;
  }
  // Reads the filler and then extra bytes; returns the extra ones.
  std::string ReadAll(size_t extra) {
    std::string out(65536 + extra, '\0');
    size_t got = 0;
    WaitFor([&] {
      ssize_t n = read(fds[0], out.data() + got, out.size() - got);
      if (n > 0) got += n;
      return got == out.size() || n == 0 || (n < 0 && errno != EAGAIN);
    });
    return got == out.size() ? out.substr(65536) : std::string();
  }
  int fds[2] = {-1, -1};
  bool ok = false;
};

struct TempDir {
  TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/uring_writer_XXXXXX";
    path = mkdtemp(pattern.data()) ? pattern : "";
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
  std::string path;
};

struct AlignedBuffer {
  explicit AlignedBuffer(size_t size) : size(size) {
    void* p = nullptr;
    if (posix_memalign(&p, 4096, size) == 0) data.reset(static_cast<uint8_t*>(p));
  }
  struct Free {
    void operator()(uint8_t* p) const { free(p); }
  };
  std::unique_ptr<uint8_t, Free> data;
  size_t size;
};

std::string ReadFile(const std::string& path) {
  std::string out;
  int fd = open(path.c_str(), O_RDONLY);
  char buf[65536];
  ssize_t n;
  while (fd >= 0 && (n = read(fd, buf, sizeof buf)) > 0) out.append(buf, n);
  if (fd >= 0) close(fd);
  return out;
}

class IoUringWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir.path.empty());
    file = dir.path + "/data.bin";
    fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
  }
  void TearDown() override {
    writer.Stop();
    if (fd >= 0) close(fd);
  }

  // Jobs of record_size bytes each, job i filled with byte (i % 251) and
  // written at offset i * record_size.
  void PrepareRecords(size_t count, size_t record_size) {
    records.assign(count * record_size, 0);
    flags = std::make_unique<std::atomic<bool>[]>(count);
    for (size_t i = 0; i < count; ++i) {
      memset(&records[i * record_size], static_cast<int>(i % 251), record_size);
      flags[i] = true;
    }
  }
  void SubmitRecords(size_t count, size_t record_size, bool prepare = true) {
    if (prepare) PrepareRecords(count, record_size);
    for (size_t i = 0; i < count; ++i) {
      Job job{fd, &records[i * record_size], record_size,
              static_cast<int64_t>(i * record_size), -1, nullptr, &flags[i]};
      ASSERT_TRUE(writer.Submit(job));
    }
  }
  bool AllClear(size_t count) {
    for (size_t i = 0; i < count; ++i)
      if (flags[i].load()) return false;
    return true;
  }

  LogCapture log;
  TempDir dir;
  std::string file;
  int fd = -1;
  std::vector<uint8_t> records;
  std::unique_ptr<std::atomic<bool>[]> flags;
  IoUringWriter writer;
};

TEST_F(IoUringWriterTest, LifecycleIsIdempotentAndRefusesJobsWhenStopped) {
  std::atomic<bool> flag{true};
  uint8_t byte = 1;
  EXPECT_FALSE(writer.Submit(Job{fd, &byte, 1, 0, -1, nullptr, &flag}));
  EXPECT_FALSE(flag.load());

  EXPECT_TRUE(writer.Start());
  EXPECT_TRUE(writer.Start());
  EXPECT_EQ(LogCapture::Count("[iouring_writer] Started (sq_depth 256, ring_size 1024"), 1u);
  writer.Stop();
  writer.Stop();
  EXPECT_EQ(LogCapture::Count("[iouring_writer] Writer thread started"), 1u);
  EXPECT_EQ(LogCapture::Count("[iouring_writer] Stopped"), 1u);

  flag = true;
  EXPECT_FALSE(writer.Submit(Job{fd, &byte, 1, 0, -1, nullptr, &flag}));
  EXPECT_FALSE(flag.load());
  EXPECT_EQ(LogCapture::Count("Submit: writer not running — dropping job"), 2u);

  // A stopped writer starts again with a fresh ring.
  ASSERT_TRUE(writer.Start());
  flag = true;
  EXPECT_TRUE(writer.Submit(Job{fd, &byte, 1, 0, -1, nullptr, &flag}));
  writer.Drain();
  EXPECT_FALSE(flag.load());
  EXPECT_EQ(ReadFile(file), std::string(1, '\1'));
}

TEST_F(IoUringWriterTest, FixedAndPlainWritesLandAtTheirOffsets) {
  ASSERT_TRUE(writer.Start());
  EXPECT_EQ(writer.UpdateBuffer(0, nullptr), -EINVAL);

  AlignedBuffer a(8192), b(4096), plain(4096);
  memset(a.data.get(), 'A', a.size);
  memset(b.data.get(), 'B', b.size);
  memset(plain.data.get(), 'P', plain.size);
  // Entry 0 registered at once, entry 1 empty and filled later on the
  // writer thread, as the disk writer does it.
  iovec table[2] = {{a.data.get(), a.size}, {nullptr, 0}};
  ASSERT_TRUE(writer.RegisterBuffers(table, 2));
  std::atomic<int> update_result{1};
  std::thread::id command_thread;
  writer.PostCommand([&] {
    iovec entry{b.data.get(), b.size};
    command_thread = std::this_thread::get_id();
    update_result = writer.UpdateBuffer(1, &entry);
  });
  writer.Drain();
  EXPECT_EQ(update_result.load(), 1);  // entries updated
  EXPECT_NE(command_thread, std::this_thread::get_id());

  std::atomic<bool> f[3] = {true, true, true};
  std::atomic<int> errors{0};
  auto on_error = [&] { ++errors; };
  ASSERT_TRUE(writer.Submit(Job{fd, b.data.get(), 4096, 8192, 1, on_error, &f[0]}));
  ASSERT_TRUE(writer.Submit(Job{fd, plain.data.get(), 4096, 12288, -1, on_error, &f[1]}));
  ASSERT_TRUE(writer.Submit(Job{fd, a.data.get(), 8192, 0, 0, on_error, &f[2]}));
  writer.Drain();
  EXPECT_FALSE(f[0] || f[1] || f[2]);
  EXPECT_EQ(errors.load(), 0);
  EXPECT_TRUE(ReadFile(file) ==
              std::string(8192, 'A') + std::string(4096, 'B') + std::string(4096, 'P'));

  // A fixed write really goes through the registered table: data outside
  // the named buffer is refused by the kernel, where a plain write works.
  std::atomic<bool> outside{true};
  ASSERT_TRUE(writer.Submit(Job{fd, plain.data.get(), 4096, 0, 0, on_error, &outside}));
  writer.Drain();
  EXPECT_FALSE(outside.load());
  EXPECT_EQ(errors.load(), 1);
  EXPECT_EQ(LogCapture::Count("[iouring_writer] CQE error (slot 3)"), 1u);
}

TEST_F(IoUringWriterTest, FailedAndShortWritesReachOnErrorAndClearTheFlag) {
  ASSERT_TRUE(writer.Start());
  int closed = dup(fd);
  close(closed);
  std::atomic<bool> flag{true};
  std::atomic<int> errors{0};
  uint8_t byte = 7;
  ASSERT_TRUE(writer.Submit(Job{closed, &byte, 1, 0, -1, [&] { ++errors; }, &flag}));
  writer.Drain();
  EXPECT_FALSE(flag.load());
  EXPECT_EQ(errors.load(), 1);
  EXPECT_EQ(writer.completed_count(), 1u);
  EXPECT_EQ(LogCapture::Count("[iouring_writer] CQE error (slot 0): Bad file descriptor (errno=9)"), 1u);

  // A non-blocking pipe with room for one page takes a page of a two-page
  // write and reports it; the rest is not retried.
  int p[2];
  ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
  std::vector<uint8_t> filler(15 * 4096, 0);
  ASSERT_EQ(write(p[1], filler.data(), filler.size()), static_cast<ssize_t>(filler.size()));
  std::vector<uint8_t> page(8192, 1);
  flag = true;
  ASSERT_TRUE(writer.Submit(Job{p[1], page.data(), page.size(), 0, -1, [&] { ++errors; }, &flag}));
  writer.Drain();
  EXPECT_FALSE(flag.load());
  EXPECT_EQ(errors.load(), 2);
  EXPECT_EQ(LogCapture::Count("CQE short write (slot 1): wrote 4096 of 8192 bytes"), 1u);
  close(p[0]);
  close(p[1]);
}

TEST_F(IoUringWriterTest, MoreJobsThanSlotsAllLandAndStopFinishesAcceptedOnes) {
  ASSERT_TRUE(writer.Start());
  constexpr size_t kJobs = 5000;
  SubmitRecords(kJobs, 64);
  writer.Drain();
  EXPECT_TRUE(AllClear(kJobs));
  EXPECT_EQ(writer.completed_count(), kJobs);
  EXPECT_TRUE(ReadFile(file) == std::string(records.begin(), records.end()));

  // Stop right after a burst: every accepted job is still written.
  ASSERT_EQ(ftruncate(fd, 0), 0);
  SubmitRecords(2000, 128);
  writer.Stop();
  EXPECT_TRUE(AllClear(2000));
  EXPECT_TRUE(ReadFile(file) == std::string(records.begin(), records.end()));
}

// Job 0 blocks on a full pipe while the next 1023 finish: the slot of job
// 1024 is still job 0's, so its producer has to wait until job 0 is done.
TEST_F(IoUringWriterTest, BusySlotIsNotReusedWhileItsJobIsInFlight) {
  ASSERT_TRUE(writer.Start());
  FullPipe pipe;
  ASSERT_TRUE(pipe.ok);
  std::string slow(4096, 'Z');
  std::atomic<bool> slow_flag{true};
  std::atomic<int> errors{0};
  ASSERT_TRUE(writer.Submit(Job{pipe.fds[1], reinterpret_cast<const uint8_t*>(slow.data()),
                                slow.size(), 0, -1, [&] { ++errors; }, &slow_flag}));

  constexpr size_t kQuick = 1100;
  PrepareRecords(kQuick, 32);
  std::thread producer([&] { SubmitRecords(kQuick, 32, false); });
  ScopeExit unblock{[&] {
    pipe.CloseReader();
    producer.join();
  }};
  ASSERT_TRUE(WaitFor([&] { return LogCapture::Count("Submit: slot 0 still in flight") == 1; }));
  ASSERT_TRUE(WaitFor([&] { return AllClear(IoUringWriter::kRingSize - 1); }));
  EXPECT_TRUE(slow_flag.load());
  EXPECT_EQ(writer.producer_count(), IoUringWriter::kRingSize);

  // Let the blocked write through; then everything completes.
  EXPECT_TRUE(pipe.ReadAll(slow.size()) == slow);
  ASSERT_TRUE(WaitFor([&] { return writer.producer_count() == kQuick + 1; }));
  writer.Drain();
  EXPECT_FALSE(slow_flag.load());
  EXPECT_TRUE(AllClear(kQuick));
  EXPECT_EQ(errors.load(), 0);
  EXPECT_TRUE(ReadFile(file) == std::string(records.begin(), records.end()));
}

TEST_F(IoUringWriterTest, CommandsRunOnlyWhenNothingIsPendingOrInFlight) {
  ASSERT_TRUE(writer.Start());
  FullPipe pipe;
  ASSERT_TRUE(pipe.ok);
  std::string page(4096, 'Q');
  std::atomic<bool> blocked{true};
  ASSERT_TRUE(writer.Submit(Job{pipe.fds[1], reinterpret_cast<const uint8_t*>(page.data()),
                                page.size(), 0, -1, nullptr, &blocked}));
  SubmitRecords(10, 16);
  std::atomic<bool> saw_busy{false}, ran{false};
  writer.PostCommand([&] {
    saw_busy = blocked.load() || !AllClear(10);
    ran = true;
  });
  std::atomic<bool> drained{false};
  std::thread drainer([&] {
    writer.Drain();
    drained = true;
  });
  ScopeExit unblock{[&] {
    pipe.CloseReader();
    drainer.join();
  }};
  ASSERT_TRUE(WaitFor([&] { return AllClear(10); }));
  EXPECT_FALSE(ran.load());
  EXPECT_FALSE(drained.load());

  EXPECT_TRUE(pipe.ReadAll(page.size()) == page);
  ASSERT_TRUE(WaitFor([&] { return drained.load(); }));
  EXPECT_TRUE(ran.load());
  EXPECT_FALSE(saw_busy.load());
}

TEST_F(IoUringWriterTest, WriterThreadFailureReleasesJobsWithoutAborting) {
  ASSERT_TRUE(writer.Start());
  int closed = dup(fd);
  close(closed);
  uint8_t byte = 3;
  std::atomic<bool> failing{true};
  ASSERT_TRUE(writer.Submit(
      Job{closed, &byte, 1, 0, -1, [] { throw std::runtime_error("callback failed"); }, &failing}));
  ASSERT_TRUE(WaitFor([&] { return LogCapture::Count("Writer thread exiting") == 1; }));
  EXPECT_FALSE(writer.running());
  EXPECT_FALSE(failing.load());
  EXPECT_EQ(LogCapture::Count(
                "[iouring_writer] Writer thread EXCEPTION: callback failed — clearing all in-flight flags"),
            1u);

  std::atomic<bool> later{true};
  EXPECT_FALSE(writer.Submit(Job{fd, &byte, 1, 0, -1, nullptr, &later}));
  EXPECT_FALSE(later.load());
  writer.Drain();  // returns at once

  // The remains are released by Stop, and the writer can start afresh.
  writer.Stop();
  ASSERT_TRUE(writer.Start());
  writer.PostCommand([] { throw 42; });
  ASSERT_TRUE(WaitFor([&] { return LogCapture::Count("Writer thread exiting") == 2; }));
  EXPECT_EQ(LogCapture::Count("[iouring_writer] Writer thread UNKNOWN EXCEPTION"), 1u);
}

// Needs the right to mount; a 1 MiB tmpfs fills after a few writes.
TEST_F(IoUringWriterTest, FullFileSystemReachesOnError) {
  TempDir mount_point;
  if (mount("tmpfs", mount_point.path.c_str(), "tmpfs", 0, "size=1m") != 0)
    GTEST_SKIP() << "cannot mount a small tmpfs here (" << strerror(errno) << ")";
  struct Unmount {
    std::string path;
    ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
  } unmount{mount_point.path};

  int small = open((mount_point.path + "/full.bin").c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(small, 0);
  std::vector<uint8_t> page(256 * 1024, 9);
  std::atomic<bool> f[6] = {true, true, true, true, true, true};
  std::atomic<int> errors{0};
  ASSERT_TRUE(writer.Start());
  for (int i = 0; i < 6; ++i)
    ASSERT_TRUE(writer.Submit(
        Job{small, page.data(), page.size(), int64_t{i} * 262144, -1, [&] { ++errors; }, &f[i]}));
  writer.Drain();
  for (auto& flag : f) EXPECT_FALSE(flag.load());
  EXPECT_GE(errors.load(), 2);
  close(small);
}

}  // namespace
}  // namespace dtl::ipfix
