// A data file's life while it is written: settings that force a new file,
// rotation by size and time, creation with its 256-byte header, and writes
// through the io_uring writer at tracked offsets (ends in _close.cc).
#include "storage/async_data_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <cstring>
#include <functional>
#include <locale>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "dtl_counters.h"
#include "dtl_logger.h"
#include "dtl_string_template.h"
#include "storage/data_file_paths.h"
#include "storage/io_uring_writer.h"

namespace dtl::ipfix {

namespace fs = boost::filesystem;

namespace {

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

}  // namespace

AsyncDataFile::AsyncDataFile(dtl_client_id_t const& client_id, std::string const& source,
                             std::string const& tag, IoUringWriter* writer)
    : writer_(writer), client_id_(client_id), source_(source), tag_(tag) {}

AsyncDataFile::~AsyncDataFile() {
  try {
    CloseCurrent(false);
  } catch (std::exception const& e) {
    DTL_LOG_ERROR("[async_data_file] closing %s failed: %s", data_file_name_.c_str(), e.what());
  } catch (...) {
    DTL_LOG_ERROR("[async_data_file] closing %s failed", data_file_name_.c_str());
  }
  CloseMetaFd();
  ReleasePath(data_file_name_);
}

// Runs before the new value is stored: the file being closed is finished
// under the settings it was written with (its block size above all).
void AsyncDataFile::SettingChanged() {
  if (defer_rotation)
    rotation_pending = true;
  else
    ForceRotation();
}

void AsyncDataFile::setBlockSize(unsigned block_size) {
  if (block_size == block_size_) return;
  SettingChanged();
  block_size_ = block_size;
}

void AsyncDataFile::setSizeLimit(unsigned long bytes) {
  if (bytes == 0 || bytes == size_limit_) return;
  SettingChanged();
  size_limit_ = bytes;
}

void AsyncDataFile::setTimeLimit(unsigned long microseconds) {
  if (microseconds == 0 || microseconds == time_limit_) return;
  SettingChanged();
  time_limit_ = microseconds;
}

void AsyncDataFile::setCounterSchemaId(unsigned char const* schema_id) {
  unsigned char value[DTL_DATA_FILE_SCHEMA_ID_SIZE] = {};
  if (schema_id != nullptr) memcpy(value, schema_id, sizeof value);
  if (memcmp(value, counters_schema_id_, sizeof value) == 0) return;
  SettingChanged();
  memcpy(counters_schema_id_, value, sizeof value);
}

void AsyncDataFile::setUseDirectIO(bool use_direct_io) {
  if (use_direct_io == use_direct_io_) return;
  SettingChanged();
  use_direct_io_ = use_direct_io;
}

void AsyncDataFile::setDataRoot(std::string const& root) {
  if (root.empty() || root == data_root_) return;
  SettingChanged();
  data_root_ = root;
}

void AsyncDataFile::setDataPathTemplate(std::string const& path_template) {
  if (path_template.empty() || path_template == data_path_template_) return;
  SettingChanged();
  data_path_template_ = path_template;
}

bool AsyncDataFile::NeedRotation(unsigned long first_ts, unsigned long current_ts) const {
  const uint64_t first = first_timestamp_;
  if (first == 0) return has_file() ? written_bytes != 0 : true;
  // Whether the file is still there is CheckOnDisk's question, asked by the
  // owner on its own schedule.
  if (first == first_ts) return false;
  if (written_bytes >= 0 && static_cast<uint64_t>(written_bytes) >= size_limit_) return true;
  if (first > current_ts) {
    DTL_LOG_WARNING("[async_data_file] first_timestamp %lu > current %lu",
                    static_cast<unsigned long>(first), current_ts);
    return true;
  }
  if (current_ts - first >= time_limit_) return true;
  return !has_file();
}

std::string AsyncDataFile::Rotate(unsigned long first_ts, long* closed_size) {
  if (closed_size != nullptr) *closed_size = 0;
  std::string closed;
  if (has_file()) {
    DTL_LOG_DEBUG("[async_data_file] Rotate: closing current file %s written_bytes=%lld",
                  data_file_name_.c_str(), static_cast<long long>(written_bytes));
    const uint64_t size = CloseCurrent(false);
    if (size > 0) {
      closed = data_file_name_;
      if (closed_size != nullptr) *closed_size = static_cast<long>(size);
    }
    ReleasePath(data_file_name_, TemplateRepeatsNames(data_path_template_));
  }

  first_timestamp_ = first_ts;
  last_timestamp_ = 0;
  id_ = first_ts == 0 ? std::string() : std::to_string(first_ts);
  written_bytes = 0;
  created_file_ = false;
  buffered_only_ = false;
  write_counter_ = 0;
  ResetWriteTracking();

  data_file_name_ = BuildFilePath();
  // An existing file is continued only when its blocks are the ones this
  // file would write: same block size and counters schema.
  if (!data_file_name_.empty())
    data_file_name_ = ClaimPath(
        data_file_name_, [this](std::string const& path) { return CanContinue(path); },
        &next_suffix_);
  DTL_LOG_DEBUG("[async_data_file] Rotate: new file path %s (first_ts=%lu)",
                data_file_name_.c_str(), first_ts);
  if (data_file_name_.empty()) return closed;

  boost::system::error_code ec;
  if (fs::exists(data_file_name_, ec)) {
    DTL_LOG_DEBUG("[async_data_file] Rotate: appending to existing file %s",
                  data_file_name_.c_str());
    ContinueAfterLastBlock();
    return closed;
  }

  DTL_LOG_DEBUG("[async_data_file] Rotate: creating directory tree for %s",
                data_file_name_.c_str());
  try {
    EnsurePathExists(data_file_name_);
  } catch (std::exception const& e) {
    if (report_errors_) {
      DTL_LOG_ERROR("[async_data_file] Failed to create path for %s: %s", data_file_name_.c_str(),
                    e.what());
      report_errors_ = false;
    }
    ReleasePath(data_file_name_);
    data_file_name_.clear();
    return closed;
  }

  if (!CreateFile()) {
    const int error = errno;
    if (report_errors_) {
      DTL_LOG_ERROR("[async_data_file] Failed to create file %s: %s", data_file_name_.c_str(),
                    strerror(error));
      report_errors_ = false;
    }
    ReleasePath(data_file_name_);
    data_file_name_.clear();
    return closed;
  }
  // The next failure is a new fault and is reported again.
  report_errors_ = true;
  created_file_ = true;
  return closed;
}

bool AsyncDataFile::CanContinue(std::string const& path) const {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return true;  // a new file
  if (!S_ISREG(status.st_mode)) return false;
  if (status.st_size == 0) return true;
  FilePtr file(fopen(path.c_str(), "rb"));
  dtl_data_file_header_t header{};
  if (!file || fread(&header, sizeof header, 1, file.get()) != 1) return false;
  return dtl_data_file_header_is_valid(&header) && header.block_size == block_size_ &&
         std::memcmp(header.counters_schema_id, counters_schema_id_,
                     sizeof header.counters_schema_id) == 0;
}

void AsyncDataFile::ForceRotation() {
  if (has_file()) {
    DTL_LOG_WARNING("[async_data_file] ForceRotation: closing %s written_bytes=%lld",
                    data_file_name_.c_str(), static_cast<long long>(written_bytes));
    const uint64_t size = CloseCurrent(false);
    if (size > 0) {
      closed_path_ = data_file_name_;
      closed_size_ = size;
    }
  }
  ReleasePath(data_file_name_, TemplateRepeatsNames(data_path_template_));
  data_file_name_.clear();
}

std::string AsyncDataFile::TakeClosedFile(uint64_t* size) {
  *size = closed_size_;
  closed_size_ = 0;
  return std::exchange(closed_path_, std::string());
}

bool AsyncDataFile::CreateFile() {
  DTL_LOG_DEBUG("[async_data_file] CreateFile: %s", data_file_name_.c_str());
  const int fd = open(data_file_name_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) {
    const int error = errno;
    // Once per fault: while the root stays unusable every page retries.
    if (report_errors_)
      DTL_LOG_ERROR("[async_data_file] CreateFile open(%s) failed: %s (errno=%d)",
                    data_file_name_.c_str(), strerror(error), error);
    errno = error;
    return false;
  }
  DTL_LOG_DEBUG("[async_data_file] CreateFile: created fd=%d %s", fd, data_file_name_.c_str());
  close(fd);
  written_bytes = 0;
  return true;
}

bool AsyncDataFile::OpenForWrite() {
  if (fd_ >= 0) return true;
  if (!has_file()) return false;
  const char* name = data_file_name_.c_str();
  struct stat status {};
  const bool known = stat(name, &status) == 0;
  bool direct = use_direct_io_ && !direct_io_blocked && !buffered_only_ &&
                !(known && DirectIoRefused(status.st_dev));
  int flags = O_WRONLY | (direct ? O_DIRECT : 0);
  DTL_LOG_DEBUG("[async_data_file] OpenFd: opening %s (flags=0x%x direct=%d)", name,
                static_cast<unsigned>(flags), direct ? 1 : 0);
  int fd = open(name, flags);
  if (fd < 0 && errno == EINVAL && direct) {
    // Some file systems (ramfs, some FUSE and network ones) refuse O_DIRECT:
    // their files are written through the page cache instead.
    fd = open(name, O_WRONLY);
    if (fd >= 0) {
      direct = false;
      struct stat opened {};
      if (fstat(fd, &opened) == 0 && RememberDirectIoRefused(opened.st_dev))
        DTL_LOG_WARNING(
            "[async_data_file] The file system of %s refuses direct I/O (O_DIRECT); its data files "
            "are written through the page cache instead",
            name);
    }
  }
  if (fd < 0) {
    const int error = errno;
    DTL_LOG_ERROR("[async_data_file] OpenFd open(%s) failed: %s (errno=%d)", name, strerror(error),
                  error);
    return false;
  }
  fd_ = fd;
  fd_direct_ = direct;
  if (meta_fd_ < 0) meta_fd_ = open(name, O_RDWR);
  DTL_LOG_DEBUG("[async_data_file] OpenFd: fd=%d %s direct=%d", fd_, name, direct ? 1 : 0);
  return true;
}

void AsyncDataFile::OpenFd() { OpenForWrite(); }

void AsyncDataFile::CloseFd() {
  if (fd_ < 0) return;
  DTL_LOG_DEBUG("[async_data_file] CloseFd: fd=%d %s written_bytes=%lld", fd_,
                data_file_name_.c_str(), static_cast<long long>(written_bytes));
  if (!fd_direct_) {
    // Written data is not read back here; keep it from crowding the cache.
    const int rc = posix_fadvise(fd_, 0, 0, POSIX_FADV_DONTNEED);
    if (rc != 0)
      DTL_LOG_WARNING("[async_data_file] CloseFd: posix_fadvise(DONTNEED) fd=%d %s failed: %s", fd_,
                      data_file_name_.c_str(), strerror(rc));
    else
      DTL_LOG_DEBUG("[async_data_file] CloseFd: posix_fadvise(DONTNEED) fd=%d %s", fd_,
                    data_file_name_.c_str());
  }
  close(fd_);
  fd_ = -1;
  fd_direct_ = false;
}

void AsyncDataFile::CloseMetaFd() {
  if (meta_fd_ < 0) return;
  close(meta_fd_);
  meta_fd_ = -1;
}

void AsyncDataFile::FillFileHeader(void* buffer, unsigned long length) const {
  dtl_data_file_header_build(source_.c_str(), tag_.c_str(), first_timestamp_, block_size_,
                             counters_schema_id_, &event_schema_ids_[0][0], buffer, length);
}

int AsyncDataFile::HeaderFd(bool* opened) const {
  *opened = false;
  if (meta_fd_ >= 0) return meta_fd_;
  const int fd = open(data_file_name_.c_str(), O_RDWR);
  *opened = fd >= 0;
  return fd;
}

bool AsyncDataFile::UpdateFileHeader() { return UpdateFileHeader(false); }

bool AsyncDataFile::UpdateFileHeader(bool rebuild_invalid) {
  if (!has_file()) return true;
  const char* name = data_file_name_.c_str();
  DTL_LOG_DEBUG("[async_data_file] UpdateFileHeader: fopen %s", name);
  bool opened = false;
  const int fd = HeaderFd(&opened);
  if (fd < 0) {
    const int error = errno;
    if (error == ENOENT) return true;  // nothing left to describe
    DTL_LOG_ERROR("[async_data_file] UpdateFileHeader fopen(%s) failed: %s (errno=%d)", name,
                  strerror(error), error);
    return false;
  }
  struct Closer {
    int fd;
    bool owned;
    ~Closer() {
      if (owned) close(fd);
    }
  } closer{fd, opened};

  dtl_data_file_header_t header{};
  errno = 0;
  if (!ReadAll(fd, &header, sizeof header, 0)) {
    const int error = errno;
    DTL_LOG_ERROR("[async_data_file] UpdateFileHeader fread(%s) failed: %s (errno=%d)", name,
                  strerror(error), error);
    return false;
  }
  if (!dtl_data_file_header_is_valid(&header)) {
    DTL_LOG_ERROR("[async_data_file] UpdateFileHeader: invalid header magic in %s", name);
    // A header lost to a failed write is ours to restore: its blocks follow.
    if (!rebuild_invalid) return false;
    FillFileHeader(&header, sizeof header);
  }
  if (header.first_timestamp == 0) header.first_timestamp = first_timestamp_;
  header.file_size = static_cast<uint64_t>(written_bytes);
  // A continued file closed before this run wrote to it keeps its own end.
  if (last_timestamp_ != 0) header.last_timestamp = last_timestamp_;
  if (!WriteAll(fd, &header, sizeof header, 0)) {
    const int error = errno;
    DTL_LOG_ERROR("[async_data_file] UpdateFileHeader fwrite(%s) failed: %s (errno=%d)", name,
                  strerror(error), error);
    return false;
  }
  DTL_LOG_DEBUG("[async_data_file] UpdateFileHeader: updated %s last_ts=%lu file_size=%lld", name,
                static_cast<unsigned long>(last_timestamp_), static_cast<long long>(written_bytes));
  return true;
}

void AsyncDataFile::ResetWriteTracking() {
  error_pending_.store(false, std::memory_order_relaxed);
  bad_end_.store(INT64_MAX, std::memory_order_relaxed);
  done_end_.store(0, std::memory_order_relaxed);
}

void AsyncDataFile::NoteBadEnd(int64_t end) {
  int64_t current = bad_end_.load(std::memory_order_relaxed);
  while (end < current && !bad_end_.compare_exchange_weak(current, end, std::memory_order_relaxed)) {
  }
  error_pending_.store(true, std::memory_order_release);
}

void AsyncDataFile::Write(void const* data, unsigned long len, unsigned long /*first_ts*/,
                          unsigned long last_ts, std::atomic<bool>* in_flight, int buf_index) {
  const uint64_t offset = static_cast<uint64_t>(written_bytes);
  WriteAt(data, offset, len, offset + len, last_ts, in_flight, buf_index);
}

void AsyncDataFile::WriteAt(void const* data, uint64_t offset, uint64_t len, uint64_t logical_end,
                            uint64_t last_ts, std::atomic<bool>* in_flight, int buf_index) {
  auto release = [in_flight] {
    if (in_flight != nullptr) in_flight->store(false);
  };
  if (writer_ == nullptr || len == 0) {
    release();
    return;
  }
  ++write_counter_;
  if (!has_file()) {
    DTL_LOG_WARNING(
        "[async_data_file] Write: data_file_name_ empty, dropping %zu bytes (source=%s stat=%u)",
        static_cast<size_t>(len), source_.c_str(), static_cast<unsigned>(write_counter_));
    release();
    return;
  }
  if (!OpenForWrite()) {
    release();
    NoteBadEnd(static_cast<int64_t>(offset));
    return;
  }
  last_timestamp_ = last_ts;

  IoUringWriter::WriteJob job;
  job.fd = fd_;
  job.data = static_cast<const uint8_t*>(data);
  job.len = len;
  job.offset = static_cast<int64_t>(offset);
  job.buf_index = buf_index;
  job.in_flight = in_flight;
  const int64_t end = static_cast<int64_t>(offset + len);
  job.on_complete = [this, offset, len, end](int result) {
    if (result >= 0 && static_cast<uint64_t>(result) == len) {
      int64_t done = done_end_.load(std::memory_order_relaxed);
      while (end > done && !done_end_.compare_exchange_weak(done, end, std::memory_order_relaxed)) {
      }
      return;
    }
    NoteBadEnd(static_cast<int64_t>(offset) + std::max(result, 0));
  };
  DTL_LOG_DEBUG(
      "[async_data_file] Write: submitting async job fd=%d len=%zu offset=%lld buf_index=%d src=%s",
      fd_, static_cast<size_t>(len), static_cast<long long>(offset), buf_index, source_.c_str());
  // A refused job never reaches the disk: the file is good only below it.
  if (!writer_->Submit(job)) NoteBadEnd(static_cast<int64_t>(offset));
  written_bytes = static_cast<int64_t>(logical_end);
}

void AsyncDataFile::WriteSync(void const* data, unsigned long len, unsigned long /*first_ts*/,
                              unsigned long last_ts) {
  if (len == 0) return;
  ++write_counter_;
  if (!has_file()) {
    DTL_LOG_WARNING(
        "[async_data_file] WriteSync: data_file_name_ empty, dropping %zu bytes (source=%s stat=%u)",
        static_cast<size_t>(len), source_.c_str(), static_cast<unsigned>(write_counter_));
    return;
  }
  last_timestamp_ = last_ts;

  const char* name = data_file_name_.c_str();
  DTL_LOG_DEBUG("[async_data_file] WriteSync: open %s len=%zu offset=%lld", name,
                static_cast<size_t>(len), static_cast<long long>(written_bytes));
  // Positioned, not appended: padding of an earlier direct write may lie
  // beyond the current end, and is overwritten here.
  const int bfd = open(name, O_WRONLY);
  if (bfd < 0) {
    const int error = errno;
    DTL_LOG_ERROR("[async_data_file] WriteSync open(%s) failed: %s (errno=%d)", name,
                  strerror(error), error);
    ForceRotation();
    return;
  }
  errno = 0;
  const bool ok = WriteAll(bfd, data, len, static_cast<off_t>(written_bytes));
  const int error = errno;
  DTL_LOG_DEBUG("[async_data_file] WriteSync: close bfd=%d", bfd);
  close(bfd);
  if (ok) {
    DTL_LOG_DEBUG("[async_data_file] WriteSync: wrote %zu bytes to %s", static_cast<size_t>(len),
                  name);
    written_bytes += static_cast<int64_t>(len);
    const int64_t end = written_bytes;
    int64_t done = done_end_.load(std::memory_order_relaxed);
    if (end > done) done_end_.store(end, std::memory_order_relaxed);
    return;
  }
  DTL_LOG_ERROR(
      "[async_data_file] WriteSync write(%s) at offset %lld returned %d of %zu: %s (errno=%d)", name,
      static_cast<long long>(written_bytes), -1, static_cast<size_t>(len), strerror(error), error);
  // The blocks before this write are kept; the file ends where it was good.
  ForceRotation();
}

void AsyncDataFile::UpdateFileSize() {
  if (!has_file()) return;
  struct stat st;
  if (stat(data_file_name_.c_str(), &st) == 0) written_bytes = st.st_size;
}

}  // namespace dtl::ipfix
