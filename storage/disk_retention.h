// Keeps the data files under the data root below the configured data-size
// limit by deleting the oldest ones. A start-up scan trims the root and seeds
// a ledger; afterwards receive workers report each file closed by rotation
// and a dedicated thread deletes the oldest tracked files with asynchronous
// unlinkat requests on a private io_uring. Workers and the thread share only
// an intrusive lock-free queue of heap records and two atomic counters, so
// memory follows the files actually tracked, never the size of the limit.
#pragma once

#include <liburing.h>

#include <atomic>
#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "storage/disk_writer_config.h"

namespace dtl::ipfix {

class DiskRetention {
 public:
  // One data file found by the start-up scan.
  struct RecoveredFile {
    boost::filesystem::path path;
    uint64_t size = 0;
    int64_t mtime = 0;  // seconds since the epoch
  };

  // One tracked file, owned by the candidate queue, then by the in-flight
  // table until its unlink completes.
  struct TrackedFile {
    boost::filesystem::path path;
    uint64_t size = 0;
    std::atomic<TrackedFile*> next{nullptr};  // link in the candidate queue
  };

  // Files the ring may be asked to unlink in one batch, at most.
  static constexpr unsigned kMaxRingDepth = 1024;
  // Idle wake-up of the retention thread and the wait for one completion.
  static constexpr long long kPollIntervalNs = 100000000;
  // Attempts of io_uring_submit per batch.
  static constexpr int kSubmitAttempts = 16;
  // Repeated warnings are logged when more than this has passed (µs).
  static constexpr uint64_t kWarningIntervalUs = 9999999;

  DiskRetention();
  ~DiskRetention();

  DiskRetention(const DiskRetention&) = delete;
  DiskRetention& operator=(const DiskRetention&) = delete;

  // Validates the limits, trims the data root, seeds the ledger and starts
  // the retention thread. True when retention runs (also when it already
  // did); false when it is off, the limits are invalid or the ring cannot be
  // set up. Call before any RecordClosedFile.
  bool Start(const DiskWriterConfig& config);
  // Stops the thread once every unlink in flight has completed, tears the
  // ring down and frees every record still tracked; the counters keep their
  // last values. Idempotent. No RecordClosedFile may run concurrently.
  void Stop();

  // Tracks a file just closed by rotation. Lock-free apart from allocating
  // one small record; callable from any number of threads between Start and
  // Stop; outside them the file is left
  // for the next start-up scan. Deleted at once only when no memory is left
  // to track it.
  void RecordClosedFile(boost::filesystem::path&& path, uint64_t size);

  // Data files under the configured root, oldest first: regular files that
  // open with a data-file header, outside the schema and metadata
  // directories, filtered by the path template's extension. Returns the
  // total of their sizes.
  uint64_t RecoverExistingFiles(std::vector<RecoveredFile>& files) const;

  bool Enabled() const { return retention_enabled_; }
  // Bytes and files on the ledger: tracked and not yet handed to an unlink.
  uint64_t LedgerBytes() const { return ledger_bytes_.load(std::memory_order_relaxed); }
  uint64_t TrackedFiles() const { return tracked_files_.load(std::memory_order_relaxed); }
  // Fixed by the last Start: N, and the ring depth, which also bounds the
  // unlinks in flight and sizes the table holding their records.
  uint64_t FileTarget() const { return file_target_; }
  unsigned RingDepth() const { return ring_depth_; }

 private:
  // Lets a repeated warning through at most once per kWarningIntervalUs;
  // safe to consult from several threads.
  class WarningLimiter {
   public:
    bool Allow();

   private:
    static constexpr uint64_t kNever = UINT64_MAX;
    std::atomic<uint64_t> last_us_{kNever};
  };

  // Oldest first; many producers, one consumer (the retention thread, or
  // Start and Stop while it is not running). A push links the record itself,
  // so it never allocates and never fails.
  class CandidateQueue {
   public:
    CandidateQueue();
    ~CandidateQueue();
    CandidateQueue(const CandidateQueue&) = delete;
    CandidateQueue& operator=(const CandidateQueue&) = delete;

    void Push(std::unique_ptr<TrackedFile> record);
    // The oldest record; null when empty or while the push of the next one
    // is still under way.
    std::unique_ptr<TrackedFile> Pop();

   private:
    void Link(TrackedFile* node);

    TrackedFile stub_;                // keeps the list non-empty
    std::atomic<TrackedFile*> head_;  // newest, swapped by producers
    TrackedFile* tail_;               // oldest, the consumer's alone
  };

  void RetentionLoop();
  // Prepares unlinks of the oldest tracked files until the ledger is back
  // at the target. False when it stopped short for want of a free ring
  // entry or of a record still being pushed; the sweep then resumes.
  bool Sweep();
  void SubmitWithRetries();
  // Frees the record of every completion already available.
  void ReapCompletions();
  uint64_t UnlinksInFlight() const { return in_flight_.size() - free_in_flight_.size(); }
  static void DeleteFileSync(const boost::filesystem::path& path);
  // Frees the queue with every record left in it and every record in flight.
  void DestroyStructures();

  DiskWriterConfig config_;
  uint64_t target_bytes_ = 0;  // T: data_size_limit - low_watermark

  bool retention_enabled_ = false;
  uint64_t file_target_ = 0;
  unsigned ring_depth_ = 0;
  std::unique_ptr<CandidateQueue> candidates_;
  // Records whose unlink was prepared, indexed by the request's user data,
  // and the free indices; touched only by the retention thread (and by
  // Start and Stop while it is not running).
  std::vector<std::unique_ptr<TrackedFile>> in_flight_;
  std::vector<uint32_t> free_in_flight_;
  std::atomic<uint64_t> ledger_bytes_{0};
  std::atomic<uint64_t> tracked_files_{0};
  std::thread retention_thread_;
  std::atomic<bool> retention_running_{false};
  io_uring ring_{};
  bool ring_initialized_ = false;

  WarningLimiter wait_failed_warning_;
  WarningLimiter submit_retries_warning_;
  WarningLimiter submit_failed_warning_;
};

}  // namespace dtl::ipfix
