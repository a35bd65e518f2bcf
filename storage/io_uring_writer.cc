// The writer thread and its ring: queued writes submitted in batches,
// completions reaped and reported, buffer registration run on the thread
// that owns the ring.
#include "storage/io_uring_writer.h"

#include <sched.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

#include "dtl_logger.h"
#include "dtl_timestamp.h"

namespace dtl::ipfix {

namespace {

constexpr unsigned kReleaseWaitRounds = 100;  // x 10 ms after a writer failure

void ClearFlag(std::atomic<bool>* flag) {
  if (flag != nullptr) flag->store(false, std::memory_order_release);
}

}  // namespace

IoUringWriter::IoUringWriter() = default;

IoUringWriter::~IoUringWriter() { Stop(); }

uint64_t IoUringWriter::RingCount() const {
  return producer_count_.load(std::memory_order_acquire) -
         completed_count_.load(std::memory_order_acquire);
}

uint64_t IoUringWriter::Pending() const {
  return producer_count_.load(std::memory_order_acquire) -
         submitted_count_.load(std::memory_order_acquire);
}

bool IoUringWriter::Start() {
  if (running_.load()) return true;
  // A writer thread that died leaves its thread and ring behind.
  if (writer_thread_.joinable() || ring_ready_) Teardown();

  int r = io_uring_queue_init(kSqDepth, &ring_, 0);
  if (r < 0) {
    DTL_LOG_ERROR("[iouring_writer] io_uring_queue_init(%u): %s", kSqDepth, strerror(-r));
    return false;
  }
  ring_ready_ = true;
  producer_count_.store(0);
  submitted_count_.store(0);
  completed_count_.store(0);
  in_flight_.store(0);
  running_.store(true);
  writer_alive_.store(true);
  writer_thread_ = std::thread([this] { ThreadBody(); });
  DTL_LOG_DEBUG("[iouring_writer] Started (sq_depth %u, ring_size %zu, iosqe_async=%d)", kSqDepth,
               kRingSize, iosqe_async ? 1 : 0);
  return true;
}

void IoUringWriter::ThreadBody() {
  dtl_set_thread_name("ipfix_io_wrt");
  DTL_LOG_DEBUG("[iouring_writer] Writer thread started (tid=%zu)",
               std::hash<std::thread::id>{}(std::this_thread::get_id()));
  bool failed = false;
  try {
    WriterLoop();
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[iouring_writer] Writer thread EXCEPTION: %s — clearing all in-flight flags",
                  e.what());
    failed = true;
  } catch (...) {
    DTL_LOG_ERROR("[iouring_writer] Writer thread UNKNOWN EXCEPTION — clearing all in-flight flags");
    failed = true;
  }
  if (failed) {
    // Nothing may leave this thread: an escaping exception would terminate
    // the host process.
    try {
      ReleaseAfterFailure();
    } catch (...) {
      running_.store(false);
      for (size_t i = 0; i < kRingSize; ++i) {
        if (slot_busy_[i].load(std::memory_order_acquire)) FinishSlot(i);
      }
    }
  }
  DTL_LOG_DEBUG("[iouring_writer] Writer thread exiting: in_flight=%zu ring_count=%zu running=%d",
               static_cast<size_t>(in_flight_.load()), static_cast<size_t>(RingCount()),
               running_.load() ? 1 : 0);
  writer_alive_.store(false, std::memory_order_release);
}

// The writer loop threw, so nothing will drive the ring any more. New jobs
// are refused from now on, and every accepted job is handed back to its
// producer. Writes still in the kernel read their buffers until they
// complete, so they get a bounded time (about a second) to be reaped first;
// whatever is left after that is released anyway rather than leaving the
// producers waiting forever. The ended thread and the ring are released by
// the owner's Stop (or the next Start), which joins and tears down.
void IoUringWriter::ReleaseAfterFailure() {
  {
    std::lock_guard<std::mutex> wake(wake_mutex_);
    running_.store(false);
  }
  wake_cv_.notify_all();
  // A producer spinning on a full ring sees running clear and gives up the
  // submit mutex; holding it here means no slot is being filled meanwhile.
  std::lock_guard<std::mutex> submit(submit_mutex_);

  for (unsigned round = 0; round < kReleaseWaitRounds && in_flight_.load() > 0; ++round) {
    __kernel_timespec timeout{0, kCqeWaitTimeoutNs};
    io_uring_cqe* cqe = nullptr;
    int r = io_uring_wait_cqe_timeout(&ring_, &cqe, &timeout);
    if (r == 0) {
      try {
        ReapCompletions();
      } catch (...) {
        // A failing callback again; its completion was consumed all the same.
      }
    } else if (r != -ETIME) {
      break;
    }
  }
  for (size_t i = 0; i < kRingSize; ++i) {
    if (slot_busy_[i].load(std::memory_order_acquire)) FinishSlot(i);
  }
  // Every accepted job now counts as finished.
  uint64_t produced = producer_count_.load(std::memory_order_acquire);
  submitted_count_.store(produced, std::memory_order_release);
  completed_count_.store(produced, std::memory_order_release);
  in_flight_.store(0);
}

void IoUringWriter::FinishSlot(size_t slot, int result) {
  WriteJob& job = slots_[slot];
  if (job.on_complete) {
    // A producer's bookkeeping must not take the writer thread down.
    try {
      job.on_complete(result);
    } catch (...) {
    }
    job.on_complete = nullptr;
  }
  ClearFlag(job.in_flight);
  // A finished slot keeps no pointer into its producer, which may be gone.
  job.in_flight = nullptr;
  slot_busy_[slot].store(false, std::memory_order_release);
}

void IoUringWriter::Stop() {
  if (!running_.load()) {
    // Only the remains of a writer thread that died are left to release.
    if (writer_thread_.joinable() || ring_ready_) {
      Teardown();
      DTL_LOG_DEBUG("[iouring_writer] Stopped");
    }
    return;
  }
  DTL_LOG_DEBUG("[iouring_writer] Stop: signalling writer thread to exit (in_flight=%zu ring_count=%zu)",
               static_cast<size_t>(in_flight_.load()), static_cast<size_t>(RingCount()));
  {
    std::lock_guard<std::mutex> wake(wake_mutex_);
    if (!running_.exchange(false)) return;
  }
  wake_cv_.notify_all();
  Teardown();
  DTL_LOG_DEBUG("[iouring_writer] Stopped");
}

void IoUringWriter::Teardown() {
  if (writer_thread_.joinable()) writer_thread_.join();
  {
    std::lock_guard<std::mutex> lock(command_mutex_);
    commands_.clear();
    command_count_.store(0);
  }
  if (ring_ready_) {
    try {
      ReapCompletions();
    } catch (...) {
      // A callback that throws here must not escape Stop or the destructor.
    }
    UnregisterBuffers();
    io_uring_queue_exit(&ring_);
    ring_ready_ = false;
  }
  // Normally nothing is left; this only covers jobs the thread never saw.
  for (size_t i = 0; i < kRingSize; ++i) {
    if (slot_busy_[i].load(std::memory_order_acquire)) FinishSlot(i);
  }
}

bool IoUringWriter::RegisterBuffers(iovec* iovecs, unsigned count) {
  if (!ring_ready_) return false;
  UnregisterBuffers();
  int r = io_uring_register_buffers(&ring_, iovecs, count);
  if (r < 0) {
    DTL_LOG_ERROR("[iouring_writer] io_uring_register_buffers(%u): %s (errno=%d)", count,
                  strerror(-r), -r);
    return false;
  }
  buffers_registered_ = true;
  return true;
}

int IoUringWriter::UpdateBuffer(unsigned slot, const iovec* iov) {
  if (!ring_ready_ || !buffers_registered_) return -EINVAL;
  __u64 tags[1] = {0};
  int r = io_uring_register_buffers_update_tag(&ring_, slot, iov, tags, 1);
  if (r < 0) {
    DTL_LOG_ERROR("[iouring_writer] io_uring_register_buffers_update_tag(slot=%u): %s (errno=%d)",
                  slot, strerror(-r), -r);
  }
  return r;
}

void IoUringWriter::UnregisterBuffers() {
  if (buffers_registered_ && ring_ready_) {
    io_uring_unregister_buffers(&ring_);
    buffers_registered_ = false;
  }
}

// Slot reuse: the slot of job k is k mod kRingSize, and completions come
// back in any order, so ring_count < kRingSize does not mean that job
// k - kRingSize has finished. Each slot therefore carries a busy mark from
// here until its own job has finished; a producer whose slot is still busy
// waits for it exactly as it waits for a full ring (yielding, holding the
// submit mutex, giving up when the writer stops). Waiting rather than
// refusing keeps the stream of a data file free of holes: a refused page
// would be lost while later pages of the same file were written.
bool IoUringWriter::Submit(const WriteJob& job) {
  auto drop_not_running = [&job] {
    DTL_LOG_ERROR("[iouring_writer] Submit: writer not running — dropping job fd=%d len=%zu offset=%lld",
                  job.fd, job.len, static_cast<long long>(job.offset));
    ClearFlag(job.in_flight);
    return false;
  };
  if (!running_.load()) return drop_not_running();

  std::lock_guard<std::mutex> submit(submit_mutex_);
  // Checked again under the lock: a writer that failed meanwhile releases
  // its slots under this mutex and must not miss a job filled after that.
  if (!running_.load()) return drop_not_running();

  if (RingCount() >= kRingSize) {
    auto start = std::chrono::steady_clock::now();
    DTL_LOG_WARNING("[iouring_writer] Submit: ring full (size=%zu/%zu) — producer spinning fd=%d len=%zu",
                    static_cast<size_t>(RingCount()), kRingSize, job.fd, job.len);
    unsigned long long iters = 0;
    while (RingCount() >= kRingSize) {
      if (!running_.load()) {
        DTL_LOG_ERROR("[iouring_writer] Submit: writer thread stopped while ring full (spin_iters=%llu fd=%d len=%zu) — dropping job",
                      iters, job.fd, job.len);
        ClearFlag(job.in_flight);
        return false;
      }
      sched_yield();
      ++iters;
    }
    auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - start);
    DTL_LOG_WARNING("[iouring_writer] Submit: ring freed iters=%llu elapsed_us=%lld fd=%d", iters,
                    static_cast<long long>(elapsed.count()), job.fd);
  }

  // Only producers advance the producer count, and they hold this mutex.
  uint64_t number = producer_count_.load(std::memory_order_relaxed);
  size_t slot = number % kRingSize;
  if (slot_busy_[slot].load(std::memory_order_acquire)) {
    auto start = std::chrono::steady_clock::now();
    DTL_LOG_WARNING("[iouring_writer] Submit: slot %zu still in flight — producer spinning fd=%d len=%zu",
                    slot, job.fd, job.len);
    unsigned long long iters = 0;
    while (slot_busy_[slot].load(std::memory_order_acquire)) {
      if (!running_.load()) {
        DTL_LOG_ERROR("[iouring_writer] Submit: writer thread stopped while slot %zu busy (spin_iters=%llu fd=%d len=%zu) — dropping job",
                      slot, iters, job.fd, job.len);
        ClearFlag(job.in_flight);
        return false;
      }
      sched_yield();
      ++iters;
    }
    auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - start);
    DTL_LOG_WARNING("[iouring_writer] Submit: slot %zu freed iters=%llu elapsed_us=%lld fd=%d", slot,
                    iters, static_cast<long long>(elapsed.count()), job.fd);
  }

  WriteJob& target = slots_[slot];
  target.fd = job.fd;
  target.data = job.data;
  target.len = job.len;
  target.offset = job.offset;
  target.buf_index = job.buf_index;
  target.on_error = job.on_error;
  target.on_complete = job.on_complete;
  target.in_flight = job.in_flight;
  slot_busy_[slot].store(true, std::memory_order_relaxed);
  {
    // Tested under the wake mutex, which Stop holds to clear it: a job
    // counted here is always seen by the writer's exit test.
    std::lock_guard<std::mutex> wake(wake_mutex_);
    if (!running_.load()) {
      target.in_flight = nullptr;
      slot_busy_[slot].store(false, std::memory_order_relaxed);
      return drop_not_running();
    }
    producer_count_.fetch_add(1, std::memory_order_release);
  }
  wake_cv_.notify_one();
  return true;
}

void IoUringWriter::PostCommand(std::function<void()> cmd) {
  {
    std::lock_guard<std::mutex> lock(command_mutex_);
    commands_.push_back(std::move(cmd));
    command_count_.store(commands_.size());
  }
  { std::lock_guard<std::mutex> wake(wake_mutex_); }
  wake_cv_.notify_one();
}

bool IoUringWriter::HasPendingCommands() {
  std::lock_guard<std::mutex> lock(command_mutex_);
  return !commands_.empty();
}

void IoUringWriter::RunPendingCommands() {
  std::deque<std::function<void()>> batch;
  {
    std::lock_guard<std::mutex> lock(command_mutex_);
    batch.swap(commands_);
    command_count_.store(0);
  }
  for (auto& cmd : batch) {
    if (cmd) cmd();
  }
}

void IoUringWriter::Drain() {
  if (!running_.load()) return;
  std::atomic<bool> done{false};
  PostCommand([&done] { done.store(true, std::memory_order_release); });
  // A writer that ends without running the command (stopped or failed)
  // never will; waiting on would never end.
  while (!done.load(std::memory_order_acquire)) {
    if (!writer_alive_.load(std::memory_order_acquire)) break;
    sched_yield();
  }
}

void IoUringWriter::WriterLoop() {
  DTL_LOG_DEBUG("[iouring_writer] WriterLoop: entered running=%d", running_.load() ? 1 : 0);
  unsigned long long iter = 1;
  for (;; ++iter) {
    if (!running_.load() && RingCount() == 0 && in_flight_.load() == 0) break;

    if ((iter & kHeartbeatMask) == 1) {
      DTL_LOG_DEBUG("[iouring_writer] WriterLoop: heartbeat iter=%llu running=%d in_flight=%zu ring_count=%zu",
                    iter, running_.load() ? 1 : 0, static_cast<size_t>(in_flight_.load()),
                    static_cast<size_t>(RingCount()));
    }

    if (in_flight_.load() > 0) {
      __kernel_timespec timeout{0, kCqeWaitTimeoutNs};
      io_uring_cqe* cqe = nullptr;
      int r = io_uring_wait_cqe_timeout(&ring_, &cqe, &timeout);
      if (r == 0) {
        DTL_LOG_DEBUG("[iouring_writer] CQE ready: in_flight=%zu ring_count=%zu",
                      static_cast<size_t>(in_flight_.load()), static_cast<size_t>(RingCount()));
        ReapCompletions();
      } else if (r == -ETIME) {
        DTL_LOG_DEBUG("[iouring_writer] CQE wait timed out (10ms): in_flight=%zu ring_count=%zu — io_uring may be stalled",
                      static_cast<size_t>(in_flight_.load()), static_cast<size_t>(RingCount()));
      } else {
        DTL_LOG_ERROR("[iouring_writer] io_uring_wait_cqe_timeout: %s (ret=%d) in_flight=%zu",
                      strerror(-r), r, static_cast<size_t>(in_flight_.load()));
      }
    }

    if (Pending() > 0) {
      PrepareAndSubmit();
      continue;
    }
    if (in_flight_.load() > 0) continue;

    // The only place commands run: nothing is pending and nothing in flight.
    RunPendingCommands();
    if (in_flight_.load() > 0 || Pending() > 0) continue;

    if (!running_.load()) break;

    DTL_LOG_DEBUG("[iouring_writer] WriterLoop: idle — sleeping on cv (running=%d in_flight=%zu pending=%zu ring_count=%zu)",
                  running_.load() ? 1 : 0, static_cast<size_t>(in_flight_.load()),
                  static_cast<size_t>(Pending()), static_cast<size_t>(RingCount()));
    {
      std::unique_lock<std::mutex> wake(wake_mutex_);
      wake_cv_.wait(wake, [this] {
        return Pending() > 0 || command_count_.load() > 0 || !running_.load();
      });
    }
    DTL_LOG_DEBUG("[iouring_writer] WriterLoop: woke up — jobs=%d cmds=%d stopping=%d pending=%zu ring_count=%zu in_flight=%zu",
                  Pending() > 0 ? 1 : 0, command_count_.load() > 0 ? 1 : 0,
                  running_.load() ? 0 : 1, static_cast<size_t>(Pending()),
                  static_cast<size_t>(RingCount()), static_cast<size_t>(in_flight_.load()));
  }
  DTL_LOG_DEBUG("[iouring_writer] WriterLoop: loop exited normally iters=%llu running=%d in_flight=%zu ring_count=%zu",
               iter, running_.load() ? 1 : 0, static_cast<size_t>(in_flight_.load()),
               static_cast<size_t>(RingCount()));
}

void IoUringWriter::PrepareAndSubmit() {
  uint64_t first = submitted_count_.load(std::memory_order_relaxed);
  uint64_t end = producer_count_.load(std::memory_order_acquire);
  size_t prepared = 0;

  for (uint64_t number = first; number < end; ++number) {
    io_uring_sqe* sqe = io_uring_get_sqe(&ring_);
    if (sqe == nullptr) {
      DTL_LOG_DEBUG("[iouring_writer] SQ ring full at %zu jobs — flushing before continuing",
                    prepared);
      int r = io_uring_submit(&ring_);
      if (r < 0) {
        DTL_LOG_ERROR("[iouring_writer] io_uring_submit (SQ-full flush) failed: %s (ret=%d) submitted=%zu",
                      strerror(-r), r,
                      static_cast<size_t>(submitted_count_.load(std::memory_order_relaxed)));
      } else {
        // The flushed jobs are with the kernel now; a later failure of the
        // final submit must not report them as failed.
        submitted_count_.fetch_add(prepared, std::memory_order_release);
        first += prepared;
        prepared = 0;
      }
      ReapCompletions();
      sqe = io_uring_get_sqe(&ring_);
      if (sqe == nullptr) {
        DTL_LOG_ERROR("[iouring_writer] Failed to get SQE after reap: in_flight=%zu pending=%zu",
                      static_cast<size_t>(in_flight_.load()), static_cast<size_t>(Pending()));
        break;
      }
    }

    size_t slot = number % kRingSize;
    const WriteJob& job = slots_[slot];
    DTL_LOG_DEBUG("[iouring_writer] Prep SQE slot=%zu fd=%d data=%p len=%zu offset=%lld buf_index=%d",
                  slot, job.fd, static_cast<const void*>(job.data), job.len,
                  static_cast<long long>(job.offset), job.buf_index);
    if (job.buf_index < 0) {
      io_uring_prep_write(sqe, job.fd, job.data, static_cast<unsigned>(job.len),
                          static_cast<__u64>(job.offset));
    } else {
      io_uring_prep_write_fixed(sqe, job.fd, job.data, static_cast<unsigned>(job.len),
                                static_cast<__u64>(job.offset), job.buf_index);
    }
    if (iosqe_async) sqe->flags |= IOSQE_ASYNC;
    io_uring_sqe_set_data64(sqe, slot);
    ++prepared;
    in_flight_.fetch_add(1);
  }

  if (prepared == 0) return;
  DTL_LOG_DEBUG("[iouring_writer] io_uring_submit: submitting %zu SQEs in_flight=%zu", prepared,
                static_cast<size_t>(in_flight_.load()));
  int r = io_uring_submit(&ring_);
  if (r >= 0) {
    DTL_LOG_DEBUG("[iouring_writer] io_uring_submit: %d SQEs accepted by kernel in_flight=%zu", r,
                  static_cast<size_t>(in_flight_.load()));
    submitted_count_.fetch_add(prepared, std::memory_order_release);
    return;
  }

  DTL_LOG_ERROR("[iouring_writer] io_uring_submit failed: %s (ret=%d) submitted=%zu in_flight=%zu",
                strerror(-r), r,
                static_cast<size_t>(submitted_count_.load(std::memory_order_relaxed)),
                static_cast<size_t>(in_flight_.load()));
  for (uint64_t number = first; number < first + prepared; ++number) {
    size_t slot = number % kRingSize;
    WriteJob& job = slots_[slot];
    DTL_LOG_ERROR("[iouring_writer]   clearing in_flight for slot=%zu fd=%d len=%zu offset=%lld",
                  slot, job.fd, job.len, static_cast<long long>(job.offset));
    // The callback first, so that the producer sees the error by the time
    // its flag reads false.
    if (job.on_error) job.on_error();
    FinishSlot(slot, r);
  }
  in_flight_.fetch_sub(prepared);
  completed_count_.fetch_add(prepared, std::memory_order_release);
  submitted_count_.fetch_add(prepared, std::memory_order_release);
}

bool IoUringWriter::AllowFailureLine(unsigned long long* suppressed) {
  const uint64_t now = dtl_timestamp_now();
  ++failure_run_;
  if (failure_run_ <= 8 || now - last_failure_line_us_ >= 1000000) {
    *suppressed = failures_not_shown_;
    failures_not_shown_ = 0;
    last_failure_line_us_ = now;
    return true;
  }
  ++failures_not_shown_;
  return false;
}

void IoUringWriter::ReapCompletions() {
  if (!ring_ready_) return;

  unsigned reaped = 0;    // completion entries consumed
  uint64_t finished = 0;  // jobs among them
  // Runs also when a callback throws, so that the consumed entries and the
  // finished jobs stay accounted for.
  struct Settle {
    IoUringWriter* writer;
    unsigned& reaped;
    uint64_t& finished;
    ~Settle() {
      io_uring_cq_advance(&writer->ring_, reaped);
      uint64_t in_flight = writer->in_flight_.load();
      if (finished > in_flight) {
        DTL_LOG_ERROR("[iouring_writer] in_flight underflow: reaped=%u in_flight=%zu",
                      static_cast<unsigned>(finished), static_cast<size_t>(in_flight));
        writer->in_flight_.store(0);
      } else {
        writer->in_flight_.store(in_flight - finished);
      }
      writer->completed_count_.fetch_add(finished, std::memory_order_release);
      DTL_LOG_DEBUG("[iouring_writer] ReapCompletions: reaped=%u num_timeouts=%u in_flight=%zu tail=%zu",
                    reaped, 0u, static_cast<size_t>(writer->in_flight_.load()),
                    static_cast<size_t>(writer->completed_count_.load()));
    }
  } settle{this, reaped, finished};

  unsigned head;
  io_uring_cqe* cqe;
  io_uring_for_each_cqe(&ring_, head, cqe) {
    ++reaped;
    uint64_t user_data = io_uring_cqe_get_data64(cqe);
    int res = cqe->res;
    if (user_data >= kRingSize) {
      DTL_LOG_ERROR("[iouring_writer] CQE with unexpected user_data=%zu (>= kRingSize=%zu)",
                    static_cast<size_t>(user_data), kRingSize);
      continue;
    }
    size_t slot = static_cast<size_t>(user_data);
    WriteJob& job = slots_[slot];
    ++finished;
    bool failed = false;
    unsigned long long suppressed = 0;
    if (res < 0) {
      if (AllowFailureLine(&suppressed))
        DTL_LOG_ERROR("[iouring_writer] CQE error (slot %zu): %s (errno=%d) fd=%d data=%p len=%zu offset=%lld buf_index=%d"
                      " (%llu more failed writes not shown)",
                      slot, strerror(-res), -res, job.fd, static_cast<const void*>(job.data), job.len,
                      static_cast<long long>(job.offset), job.buf_index, suppressed);
      failed = true;
    } else if (static_cast<size_t>(res) < job.len) {
      if (AllowFailureLine(&suppressed))
        DTL_LOG_ERROR("[iouring_writer] CQE short write (slot %zu): wrote %d of %zu bytes fd=%d data=%p offset=%lld buf_index=%d"
                      " (%llu more failed writes not shown)",
                      slot, res, job.len, job.fd, static_cast<const void*>(job.data),
                      static_cast<long long>(job.offset), job.buf_index, suppressed);
      failed = true;
    } else {
      failure_run_ = 0;
    }
    if (failed && job.on_error) {
      DTL_LOG_DEBUG("[iouring_writer] Invoking on_error for slot %zu fd=%d", slot, job.fd);
      job.on_error();
    }
    FinishSlot(slot, res);
  }
}

}  // namespace dtl::ipfix
