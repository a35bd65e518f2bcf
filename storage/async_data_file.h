// One session's current data file on disk and the policy that decides when
// to start the next one: path building from a template, creation, the
// 256-byte data file header, asynchronous appends through the shared
// io_uring writer, synchronous appends, and the header rewrite on close.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "dtl_data_file_header.h"
#include "dtl_source.h"
#include "storage/data_file_paths.h"

namespace dtl::ipfix {

class IoUringWriter;


class AsyncDataFile {
 public:
  static constexpr const char* kDefaultPathTemplate =
      "{{year}}/{{month}}{{day}}/{{source}}/{{tag}}{{id}}.bin";
  static constexpr uint64_t kDefaultSizeLimit = 26214400;     // 25 MiB
  static constexpr uint64_t kDefaultTimeLimitUs = 900000000;  // 15 minutes
  static constexpr uint32_t kDefaultBlockSize = 65536;
  // Every this many write calls NeedRotation checks that the file still exists.
  static constexpr unsigned kExistenceCheckInterval = 16;

  // No file is opened; the first Rotate creates one. writer is not owned and
  // may be null (then Write does nothing).
  AsyncDataFile(dtl_client_id_t const& client_id, std::string const& source, std::string const& tag,
                IoUringWriter* writer);
  // Closes the current file and rewrites its header.
  ~AsyncDataFile();

  AsyncDataFile(AsyncDataFile const&) = delete;
  AsyncDataFile& operator=(AsyncDataFile const&) = delete;

  // Each setter ignores a value equal to the current one; the four marked
  // ignore zero or empty values too. A change closes the current file
  // (ForceRotation), or only marks rotation_pending while defer_rotation is set.
  void setBlockSize(unsigned block_size);
  void setSizeLimit(unsigned long bytes);                   // ignores 0
  void setTimeLimit(unsigned long microseconds);            // ignores 0
  void setCounterSchemaId(unsigned char const* schema_id);  // 16 bytes; null = unset
  void setUseDirectIO(bool use_direct_io);
  void setDataRoot(std::string const& root);                   // ignores ""
  void setDataPathTemplate(std::string const& path_template);  // ignores ""

  // Whether a page whose samples span first_ts..current_ts needs a new file.
  bool NeedRotation(unsigned long first_ts, unsigned long current_ts) const;
  // Closes the current file (if any) and opens the next one for first_ts.
  // Returns the closed file's path (empty when there was none) and stores its
  // size in *closed_size (0 when there was none); closed_size may be null.
  std::string Rotate(unsigned long first_ts, long* closed_size);
  // Closes the current file now; the next Rotate starts a new one.
  void ForceRotation();

  // Writes the header of the current file into the first min(length, 256)
  // bytes of buffer.
  void FillFileHeader(void* buffer, unsigned long length) const;
  // Rewrites the header on disk with the final size and last timestamp.
  bool UpdateFileHeader();

  // Asynchronous write of len bytes of data at offset through the shared
  // writer; afterwards the file's whole blocks end at logical_end and the
  // newest of them has time last_ts. The bytes from logical_end to
  // offset + len are padding (direct I/O writes whole 4 KiB pages) that the
  // next write overwrites and the close cuts off. The caller has set
  // *in_flight and keeps data alive until it clears.
  void WriteAt(void const* data, uint64_t offset, uint64_t len, uint64_t logical_end,
               uint64_t last_ts, std::atomic<bool>* in_flight, int buf_index);
  // Asynchronous append of whole blocks at the current end (WriteAt without
  // padding). first_ts is not used.
  void Write(void const* data, unsigned long len, unsigned long first_ts, unsigned long last_ts,
             std::atomic<bool>* in_flight, int buf_index);
  // Synchronous buffered write at the current end, for lengths that direct
  // I/O cannot write. first_ts is not used.
  void WriteSync(void const* data, unsigned long len, unsigned long first_ts,
                 unsigned long last_ts);
  // Takes the written-bytes count from the file's size on disk.
  void UpdateFileSize();

  // Opens the write descriptor now if the file has none. True when there is
  // a descriptor; direct_io_active() then tells whether writes bypass the
  // page cache (and so must be whole, aligned 4 KiB pages).
  bool OpenForWrite();
  bool direct_io_active() const { return fd_ >= 0 && fd_direct_; }
  // Set by the owner when its block layout cannot keep writes aligned; the
  // next descriptor opened is a buffered one.
  bool direct_io_blocked = false;

  // Whether a write of the current file failed since the last call.
  bool TakeWriteError() { return error_pending_.exchange(false, std::memory_order_acq_rel); }
  // End of the furthest write of the current file known to be on disk.
  int64_t durable_end() const { return done_end_.load(std::memory_order_relaxed); }

  // What the periodic look at the file on disk found.
  enum class DiskState { kOk, kWriteFailed, kDeleted, kTruncated };
  // Checks that the current file is still the one being written: present
  // under its name, not cut shorter than what was written (nor cut and
  // lengthened again, which leaves a hole), its header intact. Call with no
  // write of the file in flight.
  DiskState CheckOnDisk();
  // The part of that check a single fstat answers (deleted, or shorter than
  // what was written); safe with writes in flight, cheap enough for every page.
  DiskState QuickCheckOnDisk();

  // Closes a file whose writes failed or which was damaged from outside
  // (state says how): keeps exactly the whole blocks written before the
  // first bad byte, with a header that describes them, or removes the file
  // when none is left (or it was deleted). Returns the path kept (empty when
  // none) and stores its size in *kept_size. The next Rotate starts a file.
  std::string CloseDamaged(DiskState state, uint64_t* kept_size);
  // The last file closed by ForceRotation (a settings change), for the
  // owner's size accounting: its path (empty when none, or when taken).
  std::string TakeClosedFile(uint64_t* size);
  // Whether the last Rotate created a new file (not continued an old one).
  bool created_file() const { return created_file_; }
  std::string const& data_file_name() const { return data_file_name_; }
  bool has_file() const { return !data_file_name_.empty(); }
  uint64_t first_timestamp() const { return first_timestamp_; }
  uint64_t last_timestamp() const { return last_timestamp_; }
  std::string const& id() const { return id_; }
  uint32_t block_size() const { return block_size_; }
  uint64_t size_limit() const { return size_limit_; }
  uint64_t time_limit() const { return time_limit_; }
  bool use_direct_io() const { return use_direct_io_; }
  std::string const& data_root() const { return data_root_; }
  std::string const& data_path_template() const { return data_path_template_; }
  // Number of write calls, wrapping at 256.
  uint8_t write_counter() const { return write_counter_; }

 private:
  std::string BuildFilePath();
  // Closes the descriptor and gives the file its final form: whole blocks
  // only, no padding, header with size and last timestamp; a file without a
  // single block is removed. Returns the final size (0 when removed).
  uint64_t CloseCurrent(bool damaged);
  // Continuing an existing file: starts after its last whole block (a
  // zero-padded tail left by a collector that died is cut).
  void ContinueAfterLastBlock();
  // Reads the timestamp of block index (0 = first after the header).
  bool ReadBlockTimestamp(uint64_t index, uint64_t* ts) const;
  void ResetWriteTracking();
  // Descriptor for reading or rewriting the header: meta_fd_ when open,
  // else a new one (*opened tells the caller to close it); -1 on failure.
  int HeaderFd(bool* opened) const;
  bool UpdateFileHeader(bool rebuild_invalid);
  void CloseMetaFd();
  // Whether the file at path may take this file's blocks: it does not exist,
  // is empty, or has a valid header with the same block size and schema.
  bool CanContinue(std::string const& path) const;
  void HandleHash(std::string& path) const;
  std::string EnsurePathExists(std::string const& path) const;
  bool CreateFile();
  void OpenFd();
  void CloseFd();
  // Common start of every change of a setting: close now, or remember while deferred.
  void SettingChanged();
  // A failed write ends at offset end: the file is good only below it.
  void NoteBadEnd(int64_t end);

  IoUringWriter* writer_;
  int fd_ = -1;
  bool fd_direct_ = false;
  // Writes of this file may not continue: padding sits beyond the logical
  // end of a continued file that does not end on a 4 KiB boundary.
  bool buffered_only_ = false;
  bool created_file_ = false;
  // Buffered read-write descriptor of the current file beside the write
  // descriptor: the header rewrite and the final cut go through it, so they
  // still work when the path has become unreachable (a root made read-only).
  int meta_fd_ = -1;
  // Names tried after the template's own when a path is taken: -2, -3, ...
  unsigned next_suffix_ = 1;
  std::string closed_path_;
  uint64_t closed_size_ = 0;

 public:
  // Size of the current file = offset of the next write.
  int64_t written_bytes = 0;

 private:
  dtl_client_id_t client_id_;
  std::string source_;
  std::string tag_;
  std::string data_root_ = ".";
  std::string data_path_template_ = kDefaultPathTemplate;
  uint64_t size_limit_ = kDefaultSizeLimit;
  uint64_t time_limit_ = kDefaultTimeLimitUs;
  uint32_t block_size_ = kDefaultBlockSize;
  bool use_direct_io_ = true;
  unsigned char counters_schema_id_[DTL_DATA_FILE_SCHEMA_ID_SIZE] = {};
  unsigned char event_schema_ids_[DTL_DATA_FILE_EVENT_SCHEMA_COUNT][DTL_DATA_FILE_SCHEMA_ID_SIZE] =
      {};
  std::string id_;
  uint64_t first_timestamp_ = 0;
  uint64_t last_timestamp_ = 0;
  std::string data_file_name_;
  bool report_errors_ = true;
  uint8_t write_counter_ = 0;

 public:
  // While set, setters only mark rotation_pending; the owner applies a batch
  // of settings and then rotates once.
  bool defer_rotation = false;
  bool rotation_pending = false;

 private:
  // Set by the io_uring writer thread when a job of this file failed.
  std::atomic<bool> error_pending_{false};
  // Written by the io_uring writer thread: the lowest offset known not to
  // hold what was written there, and the end of the furthest write that
  // completed in full.
  std::atomic<int64_t> bad_end_{INT64_MAX};
  std::atomic<int64_t> done_end_{0};
};

}  // namespace dtl::ipfix
