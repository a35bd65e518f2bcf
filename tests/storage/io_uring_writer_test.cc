// The shared io_uring writer against real rings, real files and pipes.
#include "storage/io_uring_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "support/log_capture.h"
#include "support/wait_for.h"

namespace dtl::ipfix {
namespace {

using dtl_test::WaitFor;
constexpr std::chrono::seconds kLimit(10);

IoUringWriter::WriteJob Job(int fd, const void* data, size_t len, int64_t offset, std::atomic<bool>* in_flight,
                            std::function<void()> on_error = nullptr) {
  return {.fd = fd, .data = static_cast<const uint8_t*>(data), .len = len, .offset = offset,
          .on_error = std::move(on_error), .in_flight = in_flight, .on_complete = {}};
}

// A pipe whose write end is full, so that a write to it waits until the
// test reads. Closing the read end ends such a write with EPIPE.
struct FullPipe {
  FullPipe() {
    signal(SIGPIPE, SIG_IGN);
    const std::vector<uint8_t> filler(65536, 0);
    ok = pipe2(fds, O_NONBLOCK) == 0 && write(fds[1], filler.data(), filler.size()) == 65536 &&
         fcntl(fds[1], F_SETFL, 0) == 0;
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
      const ssize_t n = read(fds[0], out.data() + got, out.size() - got);
      got += n > 0 ? n : 0;
      return got == out.size() || n == 0 || (n < 0 && errno != EAGAIN);
    }, kLimit);
    return got == out.size() ? out.substr(65536) : std::string();
  }
  int fds[2] = {-1, -1};
  bool ok = false;
};

class IoUringWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/uring_writer_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
    fd = open((dir + "/data.bin").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
  }
  void TearDown() override {
    writer.Stop();
    close(fd);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  std::string Contents() const {
    std::string out(lseek(fd, 0, SEEK_END), '\0');
    return pread(fd, out.data(), out.size(), 0) == static_cast<ssize_t>(out.size()) ? out : "";
  }
  // count jobs of size bytes: job i is byte (i % 251) at offset i * size.
  void PrepareRecords(size_t count, size_t size) {
    records.assign(count * size, 0);
    flags = std::make_unique<std::atomic<bool>[]>(count);
    for (size_t i = 0; i < count; ++i) memset(&records[i * size], static_cast<int>(i % 251), size), flags[i] = true;
  }
  void SubmitRecords(size_t count, size_t size) {
    for (size_t i = 0; i < count; ++i)
      ASSERT_TRUE(writer.Submit(Job(fd, &records[i * size], size, static_cast<int64_t>(i * size), &flags[i])));
  }
  bool AllClear(size_t count) const {
    for (size_t i = 0; i < count; ++i)
      if (flags[i]) return false;
    return true;
  }
  std::string Records() const { return std::string(records.begin(), records.end()); }

  dtl_test::LogCapture log;
  std::string dir;
  int fd = -1;
  std::vector<uint8_t> records;
  std::unique_ptr<std::atomic<bool>[]> flags;
  IoUringWriter writer;
};

// A failed write and a short one (a pipe with room for one page of two) reach
// on_error and on_complete; the rest of a short write is not retried.
TEST_F(IoUringWriterTest, FailedAndShortWritesReachOnErrorAndClearTheFlag) {
  ASSERT_TRUE(writer.Start());
  const int closed = dup(fd);
  close(closed);
  int p[2];
  ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
  const std::vector<uint8_t> filler(15 * 4096, 0), page(8192, 1);
  ASSERT_EQ(write(p[1], filler.data(), filler.size()), static_cast<ssize_t>(filler.size()));
  const std::tuple<const char*, int, int> rows[] = {{"closed descriptor", closed, -EBADF},
                                                    {"short write", p[1], 4096}};
  for (const auto& [what, target, expected] : rows) {
    std::atomic<bool> flag{true};
    std::atomic<int> errors{0}, result{0};
    IoUringWriter::WriteJob job = Job(target, page.data(), page.size(), 0, &flag, [&] { ++errors; });
    job.on_complete = [&](int r) { result = r; };
    ASSERT_TRUE(writer.Submit(job));
    writer.Drain();
    EXPECT_FALSE(flag.load()) << what;
    EXPECT_EQ(errors.load(), 1) << what;
    EXPECT_EQ(result.load(), expected) << what;
  }
  close(p[0]), close(p[1]);
}

// Job 0 blocks on a full pipe while the next 1023 finish: job 1024's slot is
// still job 0's, so its producer waits. A command posted meanwhile (the
// barrier of registered-buffer updates) runs once nothing is in flight.
TEST_F(IoUringWriterTest, BusySlotIsNotReusedAndCommandsWaitWhileAJobIsInFlight) {
  ASSERT_TRUE(writer.Start());
  FullPipe pipe;
  ASSERT_TRUE(pipe.ok);
  const std::string slow(4096, 'Z');
  std::atomic<bool> slow_flag{true}, ran{false}, saw_busy{false};
  std::atomic<int> errors{0};
  ASSERT_TRUE(writer.Submit(Job(pipe.fds[1], slow.data(), slow.size(), 0, &slow_flag, [&] { ++errors; })));
  constexpr size_t kQuick = 1100;
  PrepareRecords(kQuick, 32);
  std::thread producer([&] { SubmitRecords(kQuick, 32); });
  const std::shared_ptr<void> unblock(nullptr, [&](void*) { pipe.CloseReader(), producer.join(); });
  ASSERT_TRUE(WaitFor([&] { return log.Count("Submit: slot 0 still in flight") == 1; }, kLimit));
  ASSERT_TRUE(WaitFor([&] { return AllClear(IoUringWriter::kRingSize - 1); }, kLimit));
  writer.PostCommand([&] { saw_busy = slow_flag.load(), ran = true; });
  EXPECT_TRUE(slow_flag.load());
  EXPECT_EQ(writer.producer_count(), IoUringWriter::kRingSize);
  EXPECT_FALSE(ran.load());
  // Let the blocked write through; then everything completes.
  EXPECT_TRUE(pipe.ReadAll(slow.size()) == slow);
  ASSERT_TRUE(WaitFor([&] { return writer.producer_count() == kQuick + 1; }, kLimit));
  writer.Drain();
  ASSERT_TRUE(WaitFor([&] { return ran.load(); }, kLimit));
  EXPECT_FALSE(saw_busy.load());
  EXPECT_FALSE(slow_flag.load());
  EXPECT_TRUE(AllClear(kQuick));
  EXPECT_EQ(errors.load(), 0);
  EXPECT_TRUE(Contents() == Records());
}

}  // namespace
}  // namespace dtl::ipfix
