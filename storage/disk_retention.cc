// Retention's thread: a start-up scan of the files already on disk, then
// closed files queued oldest first and deleted through io_uring until the
// data is below the low watermark.
#include "storage/disk_retention.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <system_error>
#include <utility>

#include "dtl_data_file_header.h"
#include "dtl_logger.h"
#include "dtl_timestamp.h"

namespace dtl::ipfix {

namespace fs = boost::filesystem;

namespace {

constexpr const char* kDefaultPathTemplate = "{{year}}/{{month}}{{day}}/{{source}}/{{tag}}{{id}}.bin";
constexpr uint64_t kMaxCountLimit = 2147483647;

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

class FdCloser {
 public:
  explicit FdCloser(int fd) : fd_(fd) {}
  ~FdCloser() { close(fd_); }
  FdCloser(const FdCloser&) = delete;
  FdCloser& operator=(const FdCloser&) = delete;

 private:
  int fd_;
};

// True, with its size and modification time, when the file is a regular
// file (not reached through a symbolic link) that opens with a data-file
// header. Only the magic decides, and quietly: anything else under the root
// belongs to someone else and is simply left alone.
bool ProbeDataFile(const fs::path& path, uint64_t& size, int64_t& mtime) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return false;
  const FdCloser closer(fd);
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < DTL_DATA_FILE_HEADER_SIZE) return false;
  dtl_data_file_header_t header;
  ssize_t got = 0;
  do {
    got = pread(fd, &header, sizeof header, 0);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof header) || !dtl_magic_value_match_type(header.magic, DTL_MAGIC_TYPE_FILE))
    return false;
  size = static_cast<uint64_t>(st.st_size);
  mtime = static_cast<int64_t>(st.st_mtim.tv_sec);
  return true;
}

}  // namespace

bool DiskRetention::WarningLimiter::Allow() {
  const uint64_t now = dtl_timestamp_now();
  uint64_t last = last_us_.load(std::memory_order_relaxed);
  if (last != kNever && now - last <= kWarningIntervalUs) return false;
  // Of several threads hitting the same moment, only one logs.
  return last_us_.compare_exchange_strong(last, now, std::memory_order_relaxed);
}

// A multi-producer, single-consumer list in the manner of D. Vyukov's
// intrusive queue: a producer swaps itself in as head and then links its
// predecessor to it; the consumer walks from the tail.
DiskRetention::CandidateQueue::CandidateQueue() : head_(&stub_), tail_(&stub_) {}

DiskRetention::CandidateQueue::~CandidateQueue() {
  while (Pop()) {
  }
}

void DiskRetention::CandidateQueue::Push(std::unique_ptr<TrackedFile> record) { Link(record.release()); }

void DiskRetention::CandidateQueue::Link(TrackedFile* node) {
  node->next.store(nullptr, std::memory_order_relaxed);
  TrackedFile* previous = head_.exchange(node, std::memory_order_acq_rel);
  // Publishes the record's path and size to the consumer.
  previous->next.store(node, std::memory_order_release);
}

std::unique_ptr<DiskRetention::TrackedFile> DiskRetention::CandidateQueue::Pop() {
  TrackedFile* tail = tail_;
  TrackedFile* next = tail->next.load(std::memory_order_acquire);
  if (tail == &stub_) {
    if (next == nullptr) return nullptr;
    tail_ = next;
    tail = next;
    next = next->next.load(std::memory_order_acquire);
  }
  if (next == nullptr) {
    // tail is the last record linked, or a producer has swapped in a newer
    // head but not linked it yet: then wait for a later call.
    if (tail != head_.load(std::memory_order_acquire)) return nullptr;
    // Give the last record a successor so that it can leave the list.
    Link(&stub_);
    next = tail->next.load(std::memory_order_acquire);
    if (next == nullptr) return nullptr;
  }
  tail_ = next;
  return std::unique_ptr<TrackedFile>(tail);
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
  // by count so that a root full of tiny files cannot swamp the ledger.
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

  // Everything below is sized by what exists, never by the limit itself: N
  // may be astronomically large, the files on disk cannot be.
  const size_t survivors = files.size() - next;
  file_target_ = std::max<uint64_t>(survivors, base_count);
  ring_depth_ = static_cast<unsigned>(std::clamp<uint64_t>(file_target_ / 2, 1, kMaxRingDepth));
  try {
    candidates_ = std::make_unique<CandidateQueue>();
    in_flight_.resize(ring_depth_);
    free_in_flight_.reserve(ring_depth_);
  } catch (const std::bad_alloc&) {
    DTL_LOG_ERROR("[IPFIX disk writer] Retention: out of memory setting up the ledger — disabling retention");
    DestroyStructures();
    return false;
  }
  for (unsigned i = ring_depth_; i > 0; --i) free_in_flight_.push_back(i - 1);

  ledger_bytes_.store(0, std::memory_order_relaxed);
  tracked_files_.store(0, std::memory_order_relaxed);
  for (size_t i = next; i < files.size(); ++i) RecordClosedFile(std::move(files[i].path), files[i].size);
  if (!files.empty())
    DTL_LOG_INFO("[IPFIX disk writer] Retention startup recovery: scanned %zu file(s), deleted %zu (%zu bytes), "
                 "seeded %llu file(s) (%llu bytes), low_watermark=%llu",
                 files.size(), deleted_files, static_cast<size_t>(deleted_bytes),
                 static_cast<unsigned long long>(TrackedFiles()), static_cast<unsigned long long>(LedgerBytes()),
                 static_cast<unsigned long long>(target_bytes_));

  const int ret = io_uring_queue_init(ring_depth_, &ring_, 0);
  if (ret < 0) {
    DTL_LOG_ERROR("[IPFIX disk writer] Retention: io_uring_queue_init(%u) failed: %s — disabling retention",
                  ring_depth_, strerror(-ret));
    DestroyStructures();
    return false;
  }
  ring_initialized_ = true;
  DTL_LOG_INFO("[IPFIX disk writer] Retention enabled (io_uring unlinkat): data_size_limit=%zu low_watermark=%zu N=%zu "
               "ring_depth=%u",
               static_cast<size_t>(config_.data_size_limit), static_cast<size_t>(config_.low_watermark),
               static_cast<size_t>(file_target_), ring_depth_);
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
  // The kernel copied each path when its request was submitted; once the
  // ring is gone no request can reach a record, so all may be freed.
  if (ring_initialized_) {
    io_uring_queue_exit(&ring_);
    ring_initialized_ = false;
  }
  retention_enabled_ = false;
  DestroyStructures();
  DTL_LOG_INFO("[IPFIX disk writer] Retention stopped (tracked %llu files, %llu bytes still on ledger)",
               static_cast<unsigned long long>(TrackedFiles()), static_cast<unsigned long long>(LedgerBytes()));
}

void DiskRetention::DestroyStructures() {
  candidates_.reset();
  in_flight_.clear();
  free_in_flight_.clear();
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
    uint64_t size = 0;
    int64_t mtime = 0;
    if (fs::is_regular_file(it->symlink_status(entry_ec)) && !entry_ec && !StartsWith(text, schema_prefix) &&
        !StartsWith(text, metadata_prefix) && (filter.empty() || path.extension().string() == filter) &&
        ProbeDataFile(path, size, mtime)) {
      files.push_back(RecoveredFile{path, size, mtime});
      total += size;
    }
    it.increment(ec);
  }
  if (ec)
    DTL_LOG_WARNING("[IPFIX disk writer] Retention: scan of %s failed: %s", config_.root.c_str(),
                    ec.message().c_str());

  // Ties in time fall back to the name, which the path template starts
  // with the first sample's time.
  std::sort(files.begin(), files.end(), [](const RecoveredFile& a, const RecoveredFile& b) {
    return a.mtime != b.mtime ? a.mtime < b.mtime : a.path < b.path;
  });
  return total;
}

void DiskRetention::RecordClosedFile(fs::path&& path, uint64_t size) {
  if (!candidates_) return;
  std::unique_ptr<TrackedFile> record;
  try {
    record = std::make_unique<TrackedFile>();
  } catch (const std::bad_alloc&) {
  }
  if (!record) {
    // A file nobody tracks would stay until the next start; without memory
    // to track it, deleting it now is the only way to keep the limit.
    DTL_LOG_ERROR("[IPFIX disk writer] Retention: no memory to track %s — synchronous unlink", path.c_str());
    DeleteFileSync(path);
    return;
  }
  record->path = std::move(path);
  record->size = size;
  // Counted before the push: once pushed, the retention thread may pop and
  // subtract the file at once, and the ledger must never dip below zero.
  ledger_bytes_.fetch_add(size, std::memory_order_relaxed);
  tracked_files_.fetch_add(1, std::memory_order_relaxed);
  candidates_->Push(std::move(record));
}

void DiskRetention::RetentionLoop() {
  dtl_set_thread_name("ipfix_ret");
  // Set while a sweep that began over the limit has not yet reached the
  // target: it resumes as completions free ring entries or as a record
  // still being pushed becomes visible.
  bool sweep_unfinished = false;
  for (;;) {
    const bool running = retention_running_.load();
    if (!running && UnlinksInFlight() == 0) return;

    if (running && (sweep_unfinished || LedgerBytes() > config_.data_size_limit || TrackedFiles() > file_target_))
      sweep_unfinished = !Sweep();

    if (UnlinksInFlight() > 0) {
      // Entries left unsubmitted by a failed submission would never
      // complete; hand them to the kernel before waiting on them.
      if (io_uring_sq_ready(&ring_) > 0) SubmitWithRetries();
      io_uring_cqe* cqe = nullptr;
      __kernel_timespec timeout{0, kPollIntervalNs};
      const int ret = io_uring_wait_cqe_timeout(&ring_, &cqe, &timeout);
      if (ret == 0) {
        ReapCompletions();
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

bool DiskRetention::Sweep() {
  unsigned swept = 0;
  bool finished = true;
  while (LedgerBytes() > target_bytes_ || TrackedFiles() > file_target_) {
    // At most ring_depth_ unlinks are in flight, so a free index also means
    // a free submission entry; the second test only guards that invariant.
    if (free_in_flight_.empty() || io_uring_sq_space_left(&ring_) == 0) {
      finished = false;
      break;
    }
    std::unique_ptr<TrackedFile> oldest = candidates_->Pop();
    if (!oldest) {
      // A record counted but not linked yet: a producer is mid-push.
      finished = false;
      break;
    }
    const uint32_t index = free_in_flight_.back();
    free_in_flight_.pop_back();
    in_flight_[index] = std::move(oldest);
    const TrackedFile& entry = *in_flight_[index];
    io_uring_sqe* sqe = io_uring_get_sqe(&ring_);
    io_uring_prep_unlinkat(sqe, AT_FDCWD, entry.path.c_str(), 0);
    io_uring_sqe_set_data64(sqe, index);
    ledger_bytes_.fetch_sub(entry.size, std::memory_order_relaxed);
    tracked_files_.fetch_sub(1, std::memory_order_relaxed);
    ++swept;
  }
  if (io_uring_sq_ready(&ring_) > 0) SubmitWithRetries();
  if (swept > 0)
    DTL_LOG_DEBUG("[IPFIX disk writer] Retention: swept %u oldest file(s), total now %llu/%zu bytes (%llu files tracked)",
                  swept, static_cast<unsigned long long>(LedgerBytes()), static_cast<size_t>(config_.data_size_limit),
                  static_cast<unsigned long long>(TrackedFiles()));
  return finished;
}

void DiskRetention::SubmitWithRetries() {
  for (int attempt = 0; attempt < kSubmitAttempts; ++attempt) {
    const int ret = io_uring_submit(&ring_);
    if (ret >= 0) return;
    if (ret == -EINTR) continue;
    if (ret == -EBUSY || ret == -EAGAIN) {
      ReapCompletions();
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

void DiskRetention::ReapCompletions() {
  unsigned head = 0;
  unsigned reaped = 0;
  io_uring_cqe* cqe = nullptr;
  // The unlink's own result is not examined: the file left the ledger when
  // its request was prepared.
  io_uring_for_each_cqe(&ring_, head, cqe) {
    const uint64_t index = io_uring_cqe_get_data64(cqe);
    if (index < in_flight_.size() && in_flight_[index]) {
      in_flight_[index].reset();
      free_in_flight_.push_back(static_cast<uint32_t>(index));
    }
    ++reaped;
  }
  io_uring_cq_advance(&ring_, reaped);
}

void DiskRetention::DeleteFileSync(const fs::path& path) {
  boost::system::error_code ec;
  fs::remove(path, ec);
  if (ec)
    DTL_LOG_DEBUG("[IPFIX disk writer] Retention: sync remove(%s) failed: %s", path.c_str(), ec.message().c_str());
}

}  // namespace dtl::ipfix
