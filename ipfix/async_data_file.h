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

namespace dtl::ipfix {

class IoUringWriter;

// Makes a value safe to use as exactly one directory or file name component:
// '/', '\\', '%' (a time-format directive such as %D could expand to a
// separator), control bytes and DEL become '_', and a name that is empty,
// "." or ".." becomes as many '_' (at least one). Values from the network,
// such as a switch name, pass through it before they reach a path, so that
// they can neither leave the data root nor add directory levels.
std::string SanitizePathComponent(std::string const& name);

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

  // Asynchronous append at the current end through the shared writer; the
  // caller has set *in_flight and keeps data alive until it clears.
  // first_ts is not used.
  void Write(void const* data, unsigned long len, unsigned long first_ts, unsigned long last_ts,
             std::atomic<bool>* in_flight, int buf_index);
  // Synchronous buffered append, for lengths that direct I/O cannot write.
  // first_ts is not used.
  void WriteSync(void const* data, unsigned long len, unsigned long first_ts,
                 unsigned long last_ts);
  // Takes the written-bytes count from the file's size on disk.
  void UpdateFileSize();

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
  // Whether the file at path may take this file's blocks: it does not exist,
  // is empty, or has a valid header with the same block size and schema.
  bool CanContinue(std::string const& path) const;
  void HandleHash(std::string& path) const;
  std::string EnsurePathExists(std::string const& path) const;
  bool CreateFile();
  void OpenFd();
  void CloseFd();
  // Common end of every setter: close now, or remember while deferred.
  void SettingChanged();
  // Shared start of Write and WriteSync: a failed asynchronous write closes
  // the damaged file before anything else is appended.
  void HandleErrorPending(bool synchronous);

  IoUringWriter* writer_;
  int fd_ = -1;

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
};

}  // namespace dtl::ipfix
