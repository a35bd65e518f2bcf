// Keeps the data files under the data root below the configured data-size
// limit by deleting the oldest ones. A start-up scan trims the root and seeds
// a ledger; afterwards receive workers report each file closed by rotation
// and a dedicated thread deletes the oldest tracked files with asynchronous
// unlinkat requests on a private io_uring. Workers and the thread share only
// lock-free slot-index structures and two atomic counters.
#pragma once

#include <liburing.h>

#include <atomic>
#include <boost/filesystem/path.hpp>
#include <boost/lockfree/queue.hpp>
#include <boost/lockfree/stack.hpp>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "ipfix/disk_writer_config.h"

namespace dtl::ipfix {

class DiskRetention {
 public:
  // One data file found by the start-up scan.
  struct RecoveredFile {
    boost::filesystem::path path;
    uint64_t size = 0;
    int64_t mtime = 0;  // seconds since the epoch; 0 when unreadable
  };

  // One tracked file; a slot index names it while it is tracked or being
  // unlinked.
  struct RetSlot {
    boost::filesystem::path path;
    uint64_t size = 0;
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
  // Stops the thread once every unlink in flight has completed and tears the
  // ring down. Idempotent.
  void Stop();

  // Tracks a file just closed by rotation; deletes it at once when no slot
  // is free. Lock-free, callable from any number of threads. Only call it
  // after a successful Start: without a slot pool the file is deleted.
  void RecordClosedFile(boost::filesystem::path&& path, uint64_t size);

  // Data files under the configured root (minus the schema and metadata
  // directories, filtered by the path template's extension), oldest first.
  // Returns the total of their sizes.
  uint64_t RecoverExistingFiles(std::vector<RecoveredFile>& files) const;

  bool Enabled() const { return retention_enabled_; }
  // Bytes and files on the ledger: tracked and not yet handed to an unlink.
  uint64_t LedgerBytes() const { return ledger_bytes_.load(std::memory_order_relaxed); }
  uint64_t TrackedFiles() const { return tracked_files_.load(std::memory_order_relaxed); }
  // N and the slot count fixed by the last Start.
  uint64_t FileTarget() const { return file_target_; }
  uint64_t SlotCapacity() const { return slot_capacity_; }

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

  void RetentionLoop();
  // Prepares unlinks of the oldest tracked files until the ledger is back
  // at the target; unlinks_in_flight grows by what was prepared.
  void Sweep(uint64_t& unlinks_in_flight);
  void SubmitWithRetries(uint64_t& unlinks_in_flight);
  // Returns the slots of every completion already available.
  void ReapCompletions(uint64_t& unlinks_in_flight);
  void ReleaseSlot(uint32_t slot);
  static void DeleteFileSync(const boost::filesystem::path& path);
  void DestroyStructures();

  DiskWriterConfig config_;
  uint64_t target_bytes_ = 0;  // T: data_size_limit - low_watermark

  bool retention_enabled_ = false;
  uint64_t file_target_ = 0;
  uint64_t slot_capacity_ = 0;
  std::vector<RetSlot> ret_slots_;
  std::unique_ptr<boost::lockfree::stack<uint32_t>> free_slots_;
  std::unique_ptr<boost::lockfree::queue<uint32_t>> candidates_;
  std::atomic<uint64_t> ledger_bytes_{0};
  std::atomic<uint64_t> tracked_files_{0};
  std::thread retention_thread_;
  std::atomic<bool> retention_running_{false};
  io_uring ring_{};
  bool ring_initialized_ = false;

  WarningLimiter pool_empty_warning_;
  WarningLimiter wait_failed_warning_;
  WarningLimiter submit_retries_warning_;
  WarningLimiter submit_failed_warning_;
};

}  // namespace dtl::ipfix
