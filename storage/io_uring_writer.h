// The one asynchronous write engine of the disk storage: producers hand it
// write jobs, a dedicated writer thread turns them into io_uring submissions,
// reaps the completions, reports failures through each job's callback and
// clears each job's in-flight flag once the kernel is done with its buffer.
// Posted commands run on the writer thread while no write is pending or in
// flight, which gives the owner a barrier (Drain) and a safe moment to change
// registered buffers.
#pragma once

#include <liburing.h>
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace dtl::ipfix {

class IoUringWriter {
 public:
  // Submission queue depth of the ring.
  static constexpr unsigned kSqDepth = 256;
  // Job slots; also the bound on pending plus in-flight jobs.
  static constexpr size_t kRingSize = 1024;
  // How long the writer waits for a completion while jobs are in flight.
  static constexpr long long kCqeWaitTimeoutNs = 10000000;
  // The heartbeat line is logged when the low bits of the iteration count
  // under this mask equal 1.
  static constexpr uint64_t kHeartbeatMask = (uint64_t{1} << 20) - 1;

  // One asynchronous write. Contract for producers: set *in_flight to true
  // before Submit and leave data, the buffer and fd alone until it reads
  // false again; it is cleared in every outcome.
  struct WriteJob {
    int fd = -1;
    const uint8_t* data = nullptr;
    size_t len = 0;
    int64_t offset = 0;
    // Registered buffer holding data; negative when data lies in none.
    int buf_index = -1;
    // Called on the writer thread when the write fails or is short.
    std::function<void()> on_error;
    std::atomic<bool>* in_flight = nullptr;
    // Called on the writer thread when the job ends, before its in-flight
    // flag clears, with the bytes written or a negative errno (-ECANCELED
    // for a job the writer gave up without running).
    std::function<void(int result)> on_complete;
  };

  IoUringWriter();
  ~IoUringWriter();

  IoUringWriter(const IoUringWriter&) = delete;
  IoUringWriter& operator=(const IoUringWriter&) = delete;

  // Opens the ring and starts the writer thread; true when running (also
  // when it already was).
  bool Start();
  // Completes every accepted job, joins the writer thread and closes the
  // ring. Also releases the remains of a writer thread that died.
  void Stop();

  // Registers a buffer table with the ring (replacing any earlier one).
  bool RegisterBuffers(iovec* iovecs, unsigned count);
  // Replaces one entry of the registered table: the io_uring result (>= 0)
  // or a negative errno. Call it from a posted command so that no write
  // uses the entry meanwhile.
  int UpdateBuffer(unsigned slot, const iovec* iov);
  void UnregisterBuffers();

  // Queues a job; false (flag cleared, job dropped) when the writer is not
  // running. Waits, yielding, while all kRingSize slots are taken.
  bool Submit(const WriteJob& job);

  // Runs cmd on the writer thread once nothing is pending or in flight.
  // Commands must not wait for the writer (no Drain, no Submit into a full
  // ring).
  void PostCommand(std::function<void()> cmd);
  bool HasPendingCommands();
  // Writer thread: runs every queued command in order.
  void RunPendingCommands();
  // Returns once every job accepted before the call has completed. Not from
  // the writer thread.
  void Drain();

  bool running() const { return running_.load(); }
  // Jobs ever accepted, and jobs finished (written, failed or dropped).
  uint64_t producer_count() const { return producer_count_.load(std::memory_order_acquire); }
  uint64_t completed_count() const { return completed_count_.load(std::memory_order_acquire); }

  // Adds IOSQE_ASYNC to every submission; set before Start.
  bool iosqe_async = false;

 private:
  void ThreadBody();
  void WriterLoop();
  void ReapCompletions();
  void PrepareAndSubmit();
  // Marks the job of slot finished: in-flight flag and busy mark cleared.
  void FinishSlot(size_t slot, int result = -ECANCELED);
  // Whether a failed completion is logged now: the first few of a run of
  // failures, then at most one line a second (a full disk fails every write).
  bool AllowFailureLine(unsigned long long* suppressed);
  // After the writer loop threw: refuses new jobs and releases every
  // accepted one.
  void ReleaseAfterFailure();
  // Join of the writer thread and teardown of the ring.
  void Teardown();

  uint64_t RingCount() const;
  uint64_t Pending() const;

  io_uring ring_{};
  bool ring_ready_ = false;
  bool buffers_registered_ = false;
  std::thread writer_thread_;
  std::atomic<bool> running_{false};
  std::array<WriteJob, kRingSize> slots_;
  std::atomic<uint64_t> producer_count_{0};
  std::atomic<uint64_t> submitted_count_{0};
  std::atomic<uint64_t> completed_count_{0};
  std::mutex wake_mutex_;
  std::condition_variable wake_cv_;
  std::mutex submit_mutex_;
  std::mutex command_mutex_;
  std::deque<std::function<void()>> commands_;
  // Queued commands; read by the writer's sleep test, which must not take
  // the command mutex while it holds the wake mutex.
  std::atomic<size_t> command_count_{0};
  // Jobs in the kernel; changed by the writer thread only (atomic so that
  // Stop may report it).
  std::atomic<uint64_t> in_flight_{0};
  // Failed completions in a row, those not logged since the last line, and
  // when that line was written (µs); writer thread only.
  unsigned long long failure_run_ = 0;
  unsigned long long failures_not_shown_ = 0;
  uint64_t last_failure_line_us_ = 0;

  // A slot stays busy from Submit until its own job has finished, so a
  // producer never overwrites a job whose completion has not been reaped.
  std::array<std::atomic<bool>, kRingSize> slot_busy_{};
  // True while the writer thread runs its body; Drain gives up once false.
  std::atomic<bool> writer_alive_{false};
};

}  // namespace dtl::ipfix
