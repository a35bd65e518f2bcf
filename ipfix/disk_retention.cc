#include "ipfix/disk_retention.h"

#include <fcntl.h>
#include <time.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <system_error>

#include "dtl_logger.h"
#include "dtl_timestamp.h"

namespace dtl::ipfix {

namespace fs = boost::filesystem;

namespace {

constexpr const char* kDefaultPathTemplate = "{{year}}/{{month}}{{day}}/{{source}}/{{tag}}{{id}}.bin";
constexpr uint64_t kMaxCountLimit = 2147483647;
constexpr uint64_t kMaxSlots = 4294967295;

// The extension every data file gets from the path template: the text from
// the last "." on, unless a placeholder follows it (then nothing filters).
std::string ExtensionFilter(const std::string& configured_template) {
  const std::string path_template = configured_template.empty() ? kDefaultPathTemplate : configured_template;
  const size_t dot = path_template.rfind('.');
  if (dot == std::string::npos) return {};
  std::string filter = path_template.substr(dot);
  if (filter.find('{') != std::string::npos) return {};
  return filter;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

void SleepNs(long long ns) {
  timespec ts{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

}  // namespace

bool DiskRetention::WarningLimiter::Allow() {
  const uint64_t now = dtl_timestamp_now();
  uint64_t last = last_us_.load(std::memory_order_relaxed);
  if (last != kNever && now - last <= kWarningIntervalUs) return false;
  // Of several threads hitting the same moment, only one logs.
  return last_us_.compare_exchange_strong(last, now, std::memory_order_relaxed);
}

DiskRetention::DiskRetention() = default;

DiskRetention::~DiskRetention() { Stop(); }

bool DiskRetention::Start(const DiskWriterConfig& config) {
  if (retention_enabled_) return true;
  config_ = config;
  if (config_.data_size_limit == 0) return false;
  if (config_.file_size_limit == 0 || config_.data_size_limit <= config_.file_size_limit) {
    DTL_LOG_ERROR("[IPFIX disk writer] Retention disabled: data_size_limit (%zu) must be > file_size_limit (%zu)",
                  static_cast<size_t>(config_.data_size_limit), static_cast<size_t>(config_.file_size_limit));
    return false;
  }
  if (config_.low_watermark == 0 || config_.low_watermark >= config_.data_size_limit)
    config_.low_watermark = config_.data_size_limit >> 3;
  target_bytes_ = config_.data_size_limit - config_.low_watermark;

  std::vector<RecoveredFile> files;
  uint64_t total = RecoverExistingFiles(files);

  // Over the limit already: delete the oldest at once, first by size, then
  // by count so that the ledger never needs more slots than N allows.
  size_t next = 0;
  size_t deleted_files = 0;
  uint64_t deleted_bytes = 0;
  auto delete_next = [&]() {
    DeleteFileSync(files[next].path);
    ++deleted_files;
    deleted_bytes += files[next].size;
    return files[next++].size;
  };
  while (total > target_bytes_ && next < files.size()) total -= delete_next();
  const uint64_t base_count = config_.data_size_limit / config_.file_size_limit;
  const uint64_t max_count = base_count > kMaxCountLimit / 4 ? kMaxCountLimit : 4 * base_count;
  while (files.size() - next > max_count) delete_next();

  const size_t survivors = files.size() - next;
  file_target_ = std::max<uint64_t>(survivors, base_count);
  slot_capacity_ = file_target_ >= kMaxSlots ? kMaxSlots : std::min(file_target_ + file_target_ / 2, kMaxSlots);
  if (slot_capacity_ == 0) slot_capacity_ = 1;

  ret_slots_.clear();
  ret_slots_.resize(slot_capacity_);
  free_slots_ = std::make_unique<boost::lockfree::stack<uint32_t>>(slot_capacity_);
  candidates_ = std::make_unique<boost::lockfree::queue<uint32_t>>(slot_capacity_ + 1);
  for (uint64_t i = 0; i < slot_capacity_; ++i) {
    if (!free_slots_->push(static_cast<uint32_t>(i))) {
      DTL_LOG_WARNING("[IPFIX disk writer] Retention: free_slots_ push failed at %u (capacity=%zu)",
                      static_cast<unsigned>(i), static_cast<size_t>(slot_capacity_));
      break;
    }
  }

  unsigned long long seeded_files = 0;
  unsigned long long seeded_bytes = 0;
  for (size_t i = next; i < files.size(); ++i) {
    uint32_t slot = 0;
    if (!free_slots_->pop(slot)) {
      DTL_LOG_WARNING("[IPFIX disk writer] Retention: free slot pool exhausted while seeding (seeded %llu of %zu survivors)",
                      seeded_files, survivors);
      break;
    }
    RetSlot& entry = ret_slots_[slot];
    entry.path = std::move(files[i].path);
    entry.size = files[i].size;
    if (!candidates_->push(slot)) {
      DTL_LOG_ERROR("[IPFIX disk writer] Retention: candidates_ push failed while seeding");
      DeleteFileSync(entry.path);
      free_slots_->push(slot);
      continue;
    }
    ++seeded_files;
    seeded_bytes += entry.size;
  }
  ledger_bytes_.store(seeded_bytes, std::memory_order_relaxed);
  tracked_files_.store(seeded_files, std::memory_order_relaxed);
  if (!files.empty())
    DTL_LOG_INFO("[IPFIX disk writer] Retention startup recovery: scanned %zu file(s), deleted %zu (%zu bytes), "
                 "seeded %llu file(s) (%llu bytes), low_watermark=%llu",
                 files.size(), deleted_files, static_cast<size_t>(deleted_bytes), seeded_files, seeded_bytes,
                 static_cast<unsigned long long>(target_bytes_));

  uint64_t depth = slot_capacity_ - std::min(slot_capacity_, file_target_);
  if (depth == 0) depth = 1;
  const unsigned ring_depth = static_cast<unsigned>(std::min<uint64_t>(depth, kMaxRingDepth));
  const int ret = io_uring_queue_init(ring_depth, &ring_, 0);
  if (ret < 0) {
    DTL_LOG_ERROR("[IPFIX disk writer] Retention: io_uring_queue_init(%u) failed: %s — disabling retention", ring_depth,
                  strerror(-ret));
    DestroyStructures();
    return false;
  }
  ring_initialized_ = true;
  DTL_LOG_INFO("[IPFIX disk writer] Retention enabled (io_uring unlinkat): data_size_limit=%zu low_watermark=%zu N=%zu "
               "capacity=%zu ring_depth=%u",
               static_cast<size_t>(config_.data_size_limit), static_cast<size_t>(config_.low_watermark),
               static_cast<size_t>(file_target_), static_cast<size_t>(slot_capacity_), ring_depth);
  retention_enabled_ = true;
  retention_running_.store(true);
  try {
    retention_thread_ = std::thread(&DiskRetention::RetentionLoop, this);
  } catch (const std::system_error& e) {
    DTL_LOG_ERROR("[IPFIX disk writer] Retention: failed to start the retention thread: %s", e.what());
    retention_running_.store(false);
    retention_enabled_ = false;
    io_uring_queue_exit(&ring_);
    ring_initialized_ = false;
    DestroyStructures();
    return false;
  }
  return true;
}

void DiskRetention::Stop() {
  if (!retention_enabled_) return;
  retention_running_.store(false);
  if (retention_thread_.joinable()) retention_thread_.join();
  if (ring_initialized_) {
    io_uring_queue_exit(&ring_);
    ring_initialized_ = false;
  }
  retention_enabled_ = false;
  DTL_LOG_INFO("[IPFIX disk writer] Retention stopped (tracked %llu files, %llu bytes still on ledger)",
               static_cast<unsigned long long>(TrackedFiles()), static_cast<unsigned long long>(LedgerBytes()));
}

void DiskRetention::DestroyStructures() {
  free_slots_.reset();
  candidates_.reset();
  ret_slots_.clear();
}

uint64_t DiskRetention::RecoverExistingFiles(std::vector<RecoveredFile>& files) const {
  files.clear();
  if (config_.root.empty()) return 0;
  const fs::path root(config_.root);
  boost::system::error_code ec;
  if (!fs::exists(root, ec) || ec) return 0;

  const std::string filter = ExtensionFilter(config_.counters_template);
  const std::string schema_prefix = (root / "schema").string() + "/";
  const std::string metadata_prefix = (root / "metadata").string() + "/";
  uint64_t total = 0;

  fs::recursive_directory_iterator it(root, ec);
  const fs::recursive_directory_iterator end;
  while (!ec && it != end) {
    const fs::path& path = it->path();
    const std::string text = path.string();
    boost::system::error_code entry_ec;
    if (fs::is_regular_file(fs::status(path, entry_ec)) && !entry_ec && !StartsWith(text, schema_prefix) &&
        !StartsWith(text, metadata_prefix) && (filter.empty() || path.extension().string() == filter)) {
      const uint64_t size = fs::file_size(path, entry_ec);
      if (!entry_ec) {
        std::time_t mtime = fs::last_write_time(path, entry_ec);
        if (entry_ec) mtime = 0;
        files.push_back(RecoveredFile{path, size, static_cast<int64_t>(mtime)});
        total += size;
      }
    }
    it.increment(ec);
  }
  if (ec)
    DTL_LOG_WARNING("[IPFIX disk writer] Retention: scan of %s failed: %s", config_.root.c_str(),
                    ec.message().c_str());

  std::sort(files.begin(), files.end(),
            [](const RecoveredFile& a, const RecoveredFile& b) { return a.mtime < b.mtime; });
  return total;
}

void DiskRetention::RecordClosedFile(fs::path&& path, uint64_t size) {
  uint32_t slot = 0;
  if (!free_slots_ || !free_slots_->pop(slot)) {
    if (pool_empty_warning_.Allow())
      DTL_LOG_WARNING("[IPFIX disk writer] Retention: slot pool empty — synchronous unlink fallback");
    DeleteFileSync(path);
    return;
  }
  RetSlot& entry = ret_slots_[slot];
  entry.path = std::move(path);
  entry.size = size;
  // Counted before the push: once pushed, the retention thread may pop and
  // subtract the file at once, and the ledger must never dip below zero.
  ledger_bytes_.fetch_add(size, std::memory_order_relaxed);
  tracked_files_.fetch_add(1, std::memory_order_relaxed);
  if (candidates_->push(slot)) return;

  ledger_bytes_.fetch_sub(size, std::memory_order_relaxed);
  tracked_files_.fetch_sub(1, std::memory_order_relaxed);
  DTL_LOG_ERROR("[IPFIX disk writer] Retention: candidates_ push failed — synchronous unlink");
  DeleteFileSync(entry.path);
  free_slots_->push(slot);
}

void DiskRetention::RetentionLoop() {
  dtl_set_thread_name("ipfix_ret");
  uint64_t unlinks_in_flight = 0;
  for (;;) {
    const bool running = retention_running_.load();
    if (!running && unlinks_in_flight == 0) return;

    if (running && (LedgerBytes() > config_.data_size_limit || TrackedFiles() > file_target_))
      Sweep(unlinks_in_flight);

    if (unlinks_in_flight > 0) {
      // Entries left unsubmitted by a failed submission would never
      // complete; hand them to the kernel before waiting on them.
      if (io_uring_sq_ready(&ring_) > 0) SubmitWithRetries(unlinks_in_flight);
      io_uring_cqe* cqe = nullptr;
      __kernel_timespec timeout{0, kPollIntervalNs};
      const int ret = io_uring_wait_cqe_timeout(&ring_, &cqe, &timeout);
      if (ret == 0) {
        ReapCompletions(unlinks_in_flight);
        continue;
      }
      if (ret > 0 || ret == -ETIME || ret == -EINTR) continue;
      if (wait_failed_warning_.Allow())
        DTL_LOG_WARNING("[IPFIX disk writer] Retention: io_uring_wait_cqe_timeout failed: %s", strerror(-ret));
      if (!retention_running_.load()) return;
      SleepNs(kPollIntervalNs);
      continue;
    }
    if (!retention_running_.load()) return;
    SleepNs(kPollIntervalNs);
  }
}

void DiskRetention::Sweep(uint64_t& unlinks_in_flight) {
  unsigned swept = 0;
  while (LedgerBytes() > target_bytes_ || TrackedFiles() > file_target_) {
    uint32_t slot = 0;
    if (!candidates_->pop(slot)) break;
    RetSlot& entry = ret_slots_[slot];
    io_uring_sqe* sqe = io_uring_get_sqe(&ring_);
    if (sqe == nullptr) {
      SubmitWithRetries(unlinks_in_flight);
      ReapCompletions(unlinks_in_flight);
      sqe = io_uring_get_sqe(&ring_);
    }
    if (sqe == nullptr) {
      if (!candidates_->push(slot)) {
        DTL_LOG_ERROR("[IPFIX disk writer] Retention: candidates_ re-push failed — synchronous unlink");
        DeleteFileSync(entry.path);
        ledger_bytes_.fetch_sub(entry.size, std::memory_order_relaxed);
        tracked_files_.fetch_sub(1, std::memory_order_relaxed);
        ReleaseSlot(slot);
      }
      break;
    }
    io_uring_prep_unlinkat(sqe, AT_FDCWD, entry.path.c_str(), 0);
    io_uring_sqe_set_data64(sqe, slot);
    ledger_bytes_.fetch_sub(entry.size, std::memory_order_relaxed);
    tracked_files_.fetch_sub(1, std::memory_order_relaxed);
    ++unlinks_in_flight;
    ++swept;
  }
  if (io_uring_sq_ready(&ring_) > 0) SubmitWithRetries(unlinks_in_flight);
  if (swept > 0)
    DTL_LOG_DEBUG("[IPFIX disk writer] Retention: swept %u oldest file(s), total now %llu/%zu bytes (%llu files tracked)",
                  swept, static_cast<unsigned long long>(LedgerBytes()), static_cast<size_t>(config_.data_size_limit),
                  static_cast<unsigned long long>(TrackedFiles()));
}

void DiskRetention::SubmitWithRetries(uint64_t& unlinks_in_flight) {
  for (int attempt = 0; attempt < kSubmitAttempts; ++attempt) {
    const int ret = io_uring_submit(&ring_);
    if (ret >= 0) return;
    if (ret == -EINTR) continue;
    if (ret == -EBUSY || ret == -EAGAIN) {
      ReapCompletions(unlinks_in_flight);
      SleepNs(1000000);
      continue;
    }
    if (submit_failed_warning_.Allow())
      DTL_LOG_WARNING("[IPFIX disk writer] Retention: io_uring_submit failed: %s", strerror(-ret));
    return;
  }
  if (submit_retries_warning_.Allow())
    DTL_LOG_WARNING("[IPFIX disk writer] Retention: io_uring_submit still failing after retries");
}

void DiskRetention::ReapCompletions(uint64_t& unlinks_in_flight) {
  unsigned head = 0;
  unsigned reaped = 0;
  io_uring_cqe* cqe = nullptr;
  // The unlink's own result is not examined: the file left the ledger when
  // its request was prepared.
  io_uring_for_each_cqe(&ring_, head, cqe) {
    const uint64_t slot = io_uring_cqe_get_data64(cqe);
    if (slot < slot_capacity_) ReleaseSlot(static_cast<uint32_t>(slot));
    ++reaped;
  }
  io_uring_cq_advance(&ring_, reaped);
  unlinks_in_flight -= std::min<uint64_t>(reaped, unlinks_in_flight);
}

void DiskRetention::ReleaseSlot(uint32_t slot) { free_slots_->push(slot); }

void DiskRetention::DeleteFileSync(const fs::path& path) {
  boost::system::error_code ec;
  fs::remove(path, ec);
  if (ec)
    DTL_LOG_DEBUG("[IPFIX disk writer] Retention: sync remove(%s) failed: %s", path.c_str(), ec.message().c_str());
}

}  // namespace dtl::ipfix
