#include "ipfix/async_data_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

#include "dtl_logger.h"
#include "dtl_string_template.h"
#include "ipfix/io_uring_writer.h"

namespace dtl::ipfix {

namespace {

namespace fs = boost::filesystem;

bool IsUnsafePathByte(unsigned char c) {
  return c == '/' || c == '\\' || c == '%' || c < 0x20 || c == 0x7f;
}

// The file's first timestamp as UTC calendar time down to the millisecond,
// printed with format (strftime-like directives, Boost's %f and friends).
std::string FormatUtc(std::string const& format, uint64_t timestamp_us) {
  namespace pt = boost::posix_time;
  // Boost's calendar ends with the year 9999; beyond it the arithmetic overflows.
  constexpr uint64_t kLastSecond = 253402300799ull;
  if (timestamp_us / 1000000 > kLastSecond)
    throw std::out_of_range("timestamp after the year 9999");
  const pt::ptime epoch(boost::gregorian::date(1970, 1, 1));
  const pt::ptime when = epoch + pt::seconds(static_cast<long>(timestamp_us / 1000000)) +
                         pt::milliseconds(static_cast<long>((timestamp_us / 1000) % 1000));
  if (when.is_special()) throw std::out_of_range("timestamp outside the calendar");
  std::ostringstream out;
  // The locale takes ownership of the facet (reference count 0).
  out.imbue(std::locale(std::locale::classic(), new pt::time_facet(format.c_str())));
  out << when;
  return out.str();
}

// Paths of the data files open in this process. Two sessions can build the
// same path (one switch exporting several observation domains starts them
// in the same microsecond); appending both to one file would interleave
// blocks of different sessions, so the second one gets a distinct name.
std::mutex open_paths_mutex;
std::set<std::string> open_paths;

// Reserves the first of path, "<stem>-2<extension>", "-3", ... that no
// other data file holds open and that usable accepts.
std::string ClaimPath(std::string const& path,
                      std::function<bool(std::string const&)> const& usable) {
  std::lock_guard<std::mutex> lock(open_paths_mutex);
  const fs::path wanted(path);
  const std::string stem = (wanted.parent_path() / wanted.stem()).string();
  const std::string extension = wanted.extension().string();
  for (unsigned n = 1;; ++n) {
    std::string candidate = n == 1 ? path : stem + "-" + std::to_string(n) + extension;
    if (open_paths.count(candidate) != 0 || !usable(candidate)) continue;
    open_paths.insert(candidate);
    if (n > 1)
      DTL_LOG_INFO("[async_data_file] %s is in use or holds other data; using %s", path.c_str(),
                   candidate.c_str());
    return candidate;
  }
}

void ReleasePath(std::string const& path) {
  if (path.empty()) return;
  std::lock_guard<std::mutex> lock(open_paths_mutex);
  open_paths.erase(path);
}

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

}  // namespace

std::string SanitizePathComponent(std::string const& name) {
  if (name.empty() || name == "." || name == "..")
    return std::string(name.empty() ? 1 : name.size(), '_');
  std::string safe = name;
  for (char& c : safe)
    if (IsUnsafePathByte(static_cast<unsigned char>(c))) c = '_';
  return safe;
}

AsyncDataFile::AsyncDataFile(dtl_client_id_t const& client_id, std::string const& source,
                             std::string const& tag, IoUringWriter* writer)
    : writer_(writer), client_id_(client_id), source_(source), tag_(tag) {}

AsyncDataFile::~AsyncDataFile() {
  try {
    CloseFd();
    UpdateFileHeader();
  } catch (std::exception const& e) {
    DTL_LOG_ERROR("[async_data_file] closing %s failed: %s", data_file_name_.c_str(), e.what());
  } catch (...) {
    DTL_LOG_ERROR("[async_data_file] closing %s failed", data_file_name_.c_str());
  }
  ReleasePath(data_file_name_);
}

void AsyncDataFile::SettingChanged() {
  if (defer_rotation)
    rotation_pending = true;
  else
    ForceRotation();
}

void AsyncDataFile::setBlockSize(unsigned block_size) {
  if (block_size == block_size_) return;
  block_size_ = block_size;
  SettingChanged();
}

void AsyncDataFile::setSizeLimit(unsigned long bytes) {
  if (bytes == 0 || bytes == size_limit_) return;
  size_limit_ = bytes;
  SettingChanged();
}

void AsyncDataFile::setTimeLimit(unsigned long microseconds) {
  if (microseconds == 0 || microseconds == time_limit_) return;
  time_limit_ = microseconds;
  SettingChanged();
}

void AsyncDataFile::setCounterSchemaId(unsigned char const* schema_id) {
  unsigned char value[DTL_DATA_FILE_SCHEMA_ID_SIZE] = {};
  if (schema_id != nullptr) memcpy(value, schema_id, sizeof value);
  if (memcmp(value, counters_schema_id_, sizeof value) == 0) return;
  memcpy(counters_schema_id_, value, sizeof value);
  SettingChanged();
}

void AsyncDataFile::setUseDirectIO(bool use_direct_io) {
  if (use_direct_io == use_direct_io_) return;
  use_direct_io_ = use_direct_io;
  SettingChanged();
}

void AsyncDataFile::setDataRoot(std::string const& root) {
  if (root.empty() || root == data_root_) return;
  data_root_ = root;
  SettingChanged();
}

void AsyncDataFile::setDataPathTemplate(std::string const& path_template) {
  if (path_template.empty() || path_template == data_path_template_) return;
  data_path_template_ = path_template;
  SettingChanged();
}

bool AsyncDataFile::NeedRotation(unsigned long first_ts, unsigned long current_ts) const {
  const uint64_t first = first_timestamp_;
  if (first == 0) return has_file() ? written_bytes != 0 : true;
  if (has_file() && write_counter_ % kExistenceCheckInterval == 0) {
    struct stat st;
    if (stat(data_file_name_.c_str(), &st) != 0) return true;
  }
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
    CloseFd();
    UpdateFileHeader();
    if (closed_size != nullptr) *closed_size = static_cast<long>(written_bytes);
    closed = data_file_name_;
    ReleasePath(data_file_name_);
  }

  first_timestamp_ = first_ts;
  last_timestamp_ = 0;
  id_ = first_ts == 0 ? std::string() : std::to_string(first_ts);
  written_bytes = 0;

  data_file_name_ = BuildFilePath();
  // An existing file is continued only when its blocks are the ones this
  // file would write: same block size and counters schema.
  if (!data_file_name_.empty())
    data_file_name_ = ClaimPath(data_file_name_, [this](std::string const& path) {
      return CanContinue(path);
    });
  DTL_LOG_DEBUG("[async_data_file] Rotate: new file path %s (first_ts=%lu)",
                data_file_name_.c_str(), first_ts);
  if (data_file_name_.empty()) return closed;

  boost::system::error_code ec;
  if (fs::exists(data_file_name_, ec)) {
    DTL_LOG_DEBUG("[async_data_file] Rotate: appending to existing file %s",
                  data_file_name_.c_str());
    UpdateFileSize();
    return closed;
  }

  DTL_LOG_DEBUG("[async_data_file] Rotate: creating directory tree for %s",
                data_file_name_.c_str());
  try {
    EnsurePathExists(data_file_name_);
  } catch (std::runtime_error const& e) {
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
  }
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
    CloseFd();
    UpdateFileHeader();
  }
  ReleasePath(data_file_name_);
  data_file_name_.clear();
}

std::string AsyncDataFile::BuildFilePath() {
  // Network-supplied names are confined to one path component each; the
  // header keeps them unchanged.
  const std::string tag = SanitizePathComponent(tag_);
  const std::string host_name(client_id_.host_name,
                              strnlen(client_id_.host_name, sizeof client_id_.host_name));
  std::string path = dtl::string_template(data_path_template_,
                                          {{"node", SanitizePathComponent(host_name)},
                                           {"source", SanitizePathComponent(source_)},
                                           {"port", std::to_string(client_id_.port)},
                                           {"timestamp", std::to_string(first_timestamp_)},
                                           {"tag", tag_.empty() ? std::string() : tag + "_"}});
  try {
    if (first_timestamp_ != 0) {
      path = dtl::string_template(path, {{"year", "%Y"},
                                         {"month", "%m"},
                                         {"day", "%d"},
                                         {"hour", "%H"},
                                         {"minute", "%M"},
                                         {"second", "%S"}});
      HandleHash(path);
      path = FormatUtc(path, first_timestamp_);
    }
    if (!id_.empty()) path = dtl::string_template(path, {{"id", id_}});
    if (data_root_.empty()) return path;
    // A tag directly followed by a directory separator loses its underscore.
    boost::algorithm::replace_all(path, "_/", "/");
    return (fs::absolute(data_root_) / path).string();
  } catch (std::exception const& e) {
    // A timestamp beyond the calendar or a vanished working directory: no
    // file rather than an exception into the disk writer's thread.
    if (report_errors_) {
      DTL_LOG_ERROR("[async_data_file] Failed to build path from %s (first_ts=%lu): %s",
                    path.c_str(), static_cast<unsigned long>(first_timestamp_), e.what());
      report_errors_ = false;
    }
    return std::string();
  }
}

void AsyncDataFile::HandleHash(std::string& path) const {
  const size_t start = path.find("{{hash");
  if (start == std::string::npos) return;
  const size_t close = path.find("}}", start);
  if (close == std::string::npos) {
    DTL_LOG_ERROR("[async_data_file] path_template expects {{hash[num]}}, missing closing braces");
    return;
  }
  const size_t end = close + 2;
  int modulus = 0;
  if (sscanf(path.c_str() + start, "{{hash%d}}", &modulus) != 1) {
    DTL_LOG_ERROR("[async_data_file] path_template expects {{hash[num]}}, received %.*s",
                  static_cast<int>(end - start), path.c_str() + start);
    return;
  }

  uint64_t value = 0;
  bool scanned = false;
  if (source_.compare(0, 2, "0x") == 0) {
    unsigned long guid = 0;
    scanned = sscanf(source_.c_str(), "0x%lx", &guid) == 1;
    if (scanned)
      value = guid;
    else
      DTL_LOG_ERROR("[async_data_file] Failed to read %s as guid", source_.c_str());
  }
  if (!scanned)
    for (unsigned char c : source_) value += c;

  const uint64_t divisor = static_cast<uint64_t>(static_cast<int64_t>(modulus));
  if (divisor != 0) value %= divisor;
  path.replace(start, end - start, std::to_string(static_cast<int32_t>(value)));
}

std::string AsyncDataFile::EnsurePathExists(std::string const& path) const {
  const fs::path parent = fs::path(path).parent_path();
  if (!parent.empty() && !fs::exists(parent)) fs::create_directories(parent);
  if (!parent.empty() && !fs::is_directory(parent))
    throw std::runtime_error("Inaccessible data path " + parent.string());
  return path;
}

bool AsyncDataFile::CreateFile() {
  DTL_LOG_DEBUG("[async_data_file] CreateFile: %s", data_file_name_.c_str());
  const int fd = open(data_file_name_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) {
    const int error = errno;
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

void AsyncDataFile::OpenFd() {
  if (fd_ != -1 || !has_file()) return;
  const int flags = O_WRONLY | (use_direct_io_ ? O_DIRECT : 0);
  DTL_LOG_DEBUG("[async_data_file] OpenFd: opening %s (flags=0x%x direct=%d)",
                data_file_name_.c_str(), static_cast<unsigned>(flags), use_direct_io_ ? 1 : 0);
  const int fd = open(data_file_name_.c_str(), flags);
  if (fd < 0) {
    const int error = errno;
    DTL_LOG_ERROR("[async_data_file] OpenFd open(%s) failed: %s (errno=%d)",
                  data_file_name_.c_str(), strerror(error), error);
    return;
  }
  fd_ = fd;
  DTL_LOG_DEBUG("[async_data_file] OpenFd: fd=%d %s direct=%d", fd_, data_file_name_.c_str(),
                use_direct_io_ ? 1 : 0);
}

void AsyncDataFile::CloseFd() {
  if (fd_ < 0) return;
  DTL_LOG_DEBUG("[async_data_file] CloseFd: fd=%d %s written_bytes=%lld", fd_,
                data_file_name_.c_str(), static_cast<long long>(written_bytes));
  if (!use_direct_io_) {
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
}

void AsyncDataFile::FillFileHeader(void* buffer, unsigned long length) const {
  dtl_data_file_header_build(source_.c_str(), tag_.c_str(), first_timestamp_, block_size_,
                             counters_schema_id_, &event_schema_ids_[0][0], buffer, length);
}

bool AsyncDataFile::UpdateFileHeader() {
  if (!has_file()) return true;
  boost::system::error_code ec;
  if (!fs::exists(data_file_name_, ec)) return true;

  const char* name = data_file_name_.c_str();
  DTL_LOG_DEBUG("[async_data_file] UpdateFileHeader: fopen %s", name);
  FilePtr file(fopen(name, "rb+"));
  if (!file) {
    const int error = errno;
    DTL_LOG_ERROR("[async_data_file] UpdateFileHeader fopen(%s) failed: %s (errno=%d)", name,
                  strerror(error), error);
    return false;
  }
  dtl_data_file_header_t header;
  errno = 0;
  if (fread(&header, sizeof header, 1, file.get()) != 1) {
    const int error = errno;
    DTL_LOG_ERROR("[async_data_file] UpdateFileHeader fread(%s) failed: %s (errno=%d)", name,
                  strerror(error), error);
    return false;
  }
  if (!dtl_data_file_header_is_valid(&header)) {
    DTL_LOG_ERROR("[async_data_file] UpdateFileHeader: invalid header magic in %s", name);
    return false;
  }
  if (header.first_timestamp == 0) header.first_timestamp = first_timestamp_;
  header.file_size = static_cast<uint64_t>(written_bytes);
  // A continued file closed before this run wrote to it keeps its own end.
  if (last_timestamp_ != 0) header.last_timestamp = last_timestamp_;
  errno = 0;
  if (fseek(file.get(), 0, SEEK_SET) != 0 || fwrite(&header, sizeof header, 1, file.get()) != 1 ||
      fflush(file.get()) != 0) {
    const int error = errno;
    DTL_LOG_ERROR("[async_data_file] UpdateFileHeader fwrite(%s) failed: %s (errno=%d)", name,
                  strerror(error), error);
    return false;
  }
  // fclose can still report a deferred write error.
  if (fclose(file.release()) != 0) {
    const int error = errno;
    DTL_LOG_ERROR("[async_data_file] UpdateFileHeader fwrite(%s) failed: %s (errno=%d)", name,
                  strerror(error), error);
    return false;
  }
  DTL_LOG_DEBUG("[async_data_file] UpdateFileHeader: updated %s last_ts=%lu file_size=%lld", name,
                static_cast<unsigned long>(last_timestamp_), static_cast<long long>(written_bytes));
  return true;
}

void AsyncDataFile::HandleErrorPending(bool synchronous) {
  if (!error_pending_.exchange(false, std::memory_order_acquire)) return;
  if (synchronous)
    DTL_LOG_ERROR(
        "[async_data_file] WriteSync: error_pending set by io_uring — forcing rotation on %s",
        data_file_name_.c_str());
  else
    DTL_LOG_ERROR("[async_data_file] Write: error_pending set by io_uring — forcing rotation on %s",
                  data_file_name_.c_str());
  ForceRotation();
}

void AsyncDataFile::Write(void const* data, unsigned long len, unsigned long /*first_ts*/,
                          unsigned long last_ts, std::atomic<bool>* in_flight, int buf_index) {
  if (writer_ == nullptr || len == 0) return;
  HandleErrorPending(false);
  last_timestamp_ = last_ts;
  ++write_counter_;
  if (!has_file()) {
    DTL_LOG_WARNING(
        "[async_data_file] Write: data_file_name_ empty, dropping %zu bytes (source=%s stat=%u)",
        static_cast<size_t>(len), source_.c_str(), static_cast<unsigned>(write_counter_));
    if (in_flight != nullptr) in_flight->store(false);
    return;
  }
  if (fd_ == -1) OpenFd();
  if (fd_ == -1) {
    if (in_flight != nullptr) in_flight->store(false);
    return;
  }

  IoUringWriter::WriteJob job;
  job.fd = fd_;
  job.data = static_cast<const uint8_t*>(data);
  job.len = len;
  job.offset = written_bytes;
  job.buf_index = buf_index;
  job.in_flight = in_flight;
  job.on_error = [this] { error_pending_.store(true, std::memory_order_release); };
  DTL_LOG_DEBUG(
      "[async_data_file] Write: submitting async job fd=%d len=%zu offset=%lld buf_index=%d src=%s",
      fd_, static_cast<size_t>(len), static_cast<long long>(written_bytes), buf_index,
      source_.c_str());
  writer_->Submit(job);
  // A dropped job still advances the offset: the page is lost, not shifted.
  written_bytes += static_cast<int64_t>(len);
}

void AsyncDataFile::WriteSync(void const* data, unsigned long len, unsigned long /*first_ts*/,
                              unsigned long last_ts) {
  if (len == 0) return;
  HandleErrorPending(true);
  last_timestamp_ = last_ts;
  ++write_counter_;
  if (!has_file()) return;

  const char* name = data_file_name_.c_str();
  DTL_LOG_DEBUG("[async_data_file] WriteSync: open %s len=%zu offset=%lld", name,
                static_cast<size_t>(len), static_cast<long long>(written_bytes));
  const int bfd = open(name, O_WRONLY | O_APPEND);
  if (bfd < 0) {
    const int error = errno;
    DTL_LOG_ERROR("[async_data_file] WriteSync open(%s) failed: %s (errno=%d)", name,
                  strerror(error), error);
    ForceRotation();
    return;
  }
  const ssize_t written = write(bfd, data, len);
  const int error = errno;
  DTL_LOG_DEBUG("[async_data_file] WriteSync: close bfd=%d", bfd);
  close(bfd);
  if (written >= 0 && static_cast<size_t>(written) == len) {
    DTL_LOG_DEBUG("[async_data_file] WriteSync: wrote %zd bytes to %s", written, name);
    written_bytes += static_cast<int64_t>(len);
    return;
  }
  DTL_LOG_ERROR(
      "[async_data_file] WriteSync write(%s) at offset %lld returned %zd of %zu: %s (errno=%d)",
      name, static_cast<long long>(written_bytes), written, static_cast<size_t>(len),
      written < 0 ? strerror(error) : "short write", written < 0 ? error : 0);
  ForceRotation();
}

void AsyncDataFile::UpdateFileSize() {
  if (!has_file()) return;
  struct stat st;
  if (stat(data_file_name_.c_str(), &st) == 0) written_bytes = st.st_size;
}

}  // namespace dtl::ipfix
