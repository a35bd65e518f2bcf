// How a data file ends: the final cut to whole blocks and the header
// rewrite, files damaged by a failed write or from outside, and continuing a
// file an earlier run left behind.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "dtl_counters.h"
#include "dtl_data_file_header.h"
#include "dtl_logger.h"
#include "storage/async_data_file.h"
#include "storage/data_file_paths.h"

namespace dtl::ipfix {

namespace {

constexpr uint64_t kHeaderBytes = DTL_DATA_FILE_HEADER_SIZE;

}  // namespace

bool AsyncDataFile::ReadBlockTimestamp(uint64_t index, uint64_t* ts) const {
  bool opened = false;
  const int fd = meta_fd_ >= 0 ? meta_fd_ : open(data_file_name_.c_str(), O_RDONLY);
  opened = meta_fd_ < 0 && fd >= 0;
  if (fd < 0) return false;
  dtl_counters_data_t block{};
  const off_t offset = static_cast<off_t>(kHeaderBytes + index * block_size_);
  const bool ok = ReadAll(fd, &block, sizeof block, offset) &&
                  dtl_magic_value_match_type(block.header.magic, DTL_MAGIC_TYPE_DATA);
  if (opened) close(fd);
  if (ok) *ts = block.timestamp;
  return ok;
}

void AsyncDataFile::ContinueAfterLastBlock() {
  UpdateFileSize();
  const uint64_t size = static_cast<uint64_t>(written_bytes);
  if (size < kHeaderBytes || block_size_ == 0) {
    // An empty file takes a new header like a new one.
    written_bytes = 0;
    created_file_ = true;
    return;
  }
  uint64_t blocks = (size - kHeaderBytes) / block_size_;
  // A collector that died after writing a partial page padded to 4 KiB left
  // zeros behind its last block: new blocks go right after that block.
  uint64_t ts = 0;
  while (blocks > 0 && size - (kHeaderBytes + (blocks - 1) * block_size_) <= 4096 + block_size_ &&
         !ReadBlockTimestamp(blocks - 1, &ts))
    --blocks;
  if (blocks > 0 && ts == 0) ReadBlockTimestamp(blocks - 1, &ts);
  const uint64_t end = kHeaderBytes + blocks * block_size_;
  if (end != size)
    DTL_LOG_INFO("[async_data_file] Continuing %s after its last whole block (%llu of %llu bytes)",
                 data_file_name_.c_str(), static_cast<unsigned long long>(end),
                 static_cast<unsigned long long>(size));
  written_bytes = static_cast<int64_t>(end);
  last_timestamp_ = ts;
  done_end_.store(static_cast<int64_t>(end), std::memory_order_relaxed);
  // Direct I/O needs 4 KiB-aligned offsets, which this file's end is not.
  buffered_only_ = end % 4096 != 0;
}

namespace {

// The file's size as the kernel reports it, and whether it is below done.
// A write's completion can be reported a moment before the file's size
// shows it; only a size still short after the file was synced is a cut.
bool ShorterThan(int fd, int64_t done, struct stat* status) {
  if (status->st_size >= done) return false;
  fdatasync(fd);
  return fstat(fd, status) == 0 && status->st_size < done;
}

}  // namespace

AsyncDataFile::DiskState AsyncDataFile::QuickCheckOnDisk() {
  if (!has_file() || fd_ < 0) return DiskState::kOk;
  struct stat by_fd {};
  if (fstat(fd_, &by_fd) != 0) return DiskState::kOk;
  if (by_fd.st_nlink == 0) return DiskState::kDeleted;
  // Completed writes never shrink a file: something else did.
  if (ShorterThan(fd_, done_end_.load(std::memory_order_relaxed), &by_fd)) {
    NoteBadEnd(by_fd.st_size);
    return DiskState::kTruncated;
  }
  return DiskState::kOk;
}

AsyncDataFile::DiskState AsyncDataFile::CheckOnDisk() {
  if (!has_file()) return DiskState::kOk;
  struct stat by_path {};
  const bool present = stat(data_file_name_.c_str(), &by_path) == 0;
  if (fd_ < 0) return present ? DiskState::kOk : DiskState::kDeleted;
  struct stat by_fd {};
  if (fstat(fd_, &by_fd) != 0) return DiskState::kOk;
  // Unlinked, or its name now belongs to another file.
  if (by_fd.st_nlink == 0 || !present || by_path.st_ino != by_fd.st_ino ||
      by_path.st_dev != by_fd.st_dev)
    return DiskState::kDeleted;
  const int64_t done = done_end_.load(std::memory_order_relaxed);
  if (ShorterThan(fd_, done, &by_fd)) {
    NoteBadEnd(by_fd.st_size);
    return DiskState::kTruncated;
  }
  // Cut and then lengthened again by a later write: a hole below what was
  // written (every write is complete, so every byte below done is data).
  const int64_t limit = std::min<int64_t>(done, written_bytes);
  off_t hole = lseek(fd_, 0, SEEK_HOLE);
  if (hole >= 0 && hole < limit) {
    // Confirmed once the file is synced, as for the size above.
    fdatasync(fd_);
    hole = lseek(fd_, 0, SEEK_HOLE);
  }
  if (hole >= 0 && hole < limit) {
    // Holes start on file system blocks, while the cut may have fallen
    // anywhere in the block before: only what precedes that block is sure.
    const int64_t granule = by_fd.st_blksize > 0 ? by_fd.st_blksize : 4096;
    NoteBadEnd(std::max<int64_t>(0, hole - granule));
    return DiskState::kTruncated;
  }
  if (done >= static_cast<int64_t>(kHeaderBytes) && meta_fd_ >= 0) {
    char magic[DTL_MAGIC_SIZE] = {};
    if (ReadAll(meta_fd_, magic, sizeof magic, 0) &&
        !dtl_magic_value_match_type(magic, DTL_MAGIC_TYPE_FILE)) {
      // Cut to nothing and lengthened again by a write that was in flight.
      NoteBadEnd(0);
      return DiskState::kTruncated;
    }
  }
  return DiskState::kOk;
}

uint64_t AsyncDataFile::CloseCurrent(bool damaged) {
  CloseFd();
  if (!has_file()) {
    CloseMetaFd();
    return 0;
  }
  const char* name = data_file_name_.c_str();
  int64_t end = written_bytes;
  if (damaged) end = std::min(end, bad_end_.load(std::memory_order_relaxed));
  const uint64_t block = block_size_ == 0 ? 1 : block_size_;
  const uint64_t blocks =
      end >= static_cast<int64_t>(kHeaderBytes) ? (static_cast<uint64_t>(end) - kHeaderBytes) / block : 0;
  const uint64_t keep = blocks == 0 ? 0 : kHeaderBytes + blocks * block;

  struct stat status {};
  const bool reachable = meta_fd_ >= 0 ? fstat(meta_fd_, &status) == 0
                                       : stat(name, &status) == 0;
  if (!reachable) {
    CloseMetaFd();
    return 0;
  }
  if (blocks == 0) {
    // Not one sample reached this file: it would only be an unreadable
    // leftover for the reader and for retention.
    CloseMetaFd();
    if (unlink(name) == 0)
      DTL_LOG_DEBUG("[async_data_file] Removed %s: no whole sample reached it", name);
    written_bytes = 0;
    return 0;
  }
  // Cut the padding of the last page, or a partial block a failed write left.
  if (static_cast<uint64_t>(status.st_size) != keep) {
    const int rc = meta_fd_ >= 0 ? ftruncate(meta_fd_, static_cast<off_t>(keep))
                                 : truncate(name, static_cast<off_t>(keep));
    if (rc != 0) {
      const int error = errno;
      DTL_LOG_ERROR("[async_data_file] Cutting %s to %llu bytes failed: %s (errno=%d)", name,
                    static_cast<unsigned long long>(keep), strerror(error), error);
    }
  }
  written_bytes = static_cast<int64_t>(keep);
  if (damaged) {
    uint64_t ts = 0;
    if (ReadBlockTimestamp(blocks - 1, &ts)) last_timestamp_ = ts;
  }
  UpdateFileHeader(damaged);
  CloseMetaFd();
  return keep;
}

std::string AsyncDataFile::CloseDamaged(DiskState state, uint64_t* kept_size) {
  *kept_size = 0;
  if (!has_file()) return std::string();
  const std::string path = data_file_name_;
  if (state == DiskState::kDeleted) {
    // Its name may belong to another file now: leave the path alone.
    CloseFd();
    CloseMetaFd();
    DTL_LOG_WARNING("[async_data_file] %s was deleted or replaced outside the collector", path.c_str());
  } else {
    const uint64_t before = static_cast<uint64_t>(written_bytes);
    *kept_size = CloseCurrent(true);
    if (*kept_size > 0)
      DTL_LOG_WARNING(
          "[async_data_file] Closed %s with the %llu whole blocks on disk (%llu of %llu bytes kept)",
          path.c_str(),
          static_cast<unsigned long long>((*kept_size - kHeaderBytes) / (block_size_ ? block_size_ : 1)),
          static_cast<unsigned long long>(*kept_size), static_cast<unsigned long long>(before));
  }
  ReleasePath(path, TemplateRepeatsNames(data_path_template_));
  data_file_name_.clear();
  ResetWriteTracking();
  return *kept_size > 0 ? path : std::string();
}

}  // namespace dtl::ipfix
