// Path building of the data files and the registries behind it; the
// AsyncDataFile members that turn a template into a path live here too.
#include "storage/data_file_paths.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <locale>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "dtl_logger.h"
#include "dtl_string_template.h"
#include "storage/async_data_file.h"

namespace dtl::ipfix {

namespace fs = boost::filesystem;

namespace {

bool IsUnsafePathByte(unsigned char c) {
  return c == '/' || c == '\\' || c == '%' || c < 0x20 || c == 0x7f;
}

}  // namespace

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
// Paths closed in this process are never continued either: with a template
// whose paths do not change from file to file, the next file would append
// to one that retention may already be deleting.
namespace {
std::mutex paths_mutex;
std::set<std::string> open_paths;
std::set<std::string> retired_paths;
}  // namespace

std::string ClaimPath(std::string const& path, std::function<bool(std::string const&)> const& usable,
                      unsigned* next_suffix) {
  std::lock_guard<std::mutex> lock(paths_mutex);
  const fs::path wanted(path);
  const std::string stem = (wanted.parent_path() / wanted.stem()).string();
  const std::string extension = wanted.extension().string();
  for (unsigned n = 1;; n = n == 1 ? std::max(2u, *next_suffix) : n + 1) {
    std::string candidate = n == 1 ? path : stem + "-" + std::to_string(n) + extension;
    if (open_paths.count(candidate) != 0 || retired_paths.count(candidate) != 0 || !usable(candidate))
      continue;
    open_paths.insert(candidate);
    if (n > 1) {
      *next_suffix = n + 1;
      DTL_LOG_INFO("[async_data_file] %s is in use or holds other data; using %s", path.c_str(),
                   candidate.c_str());
    }
    return candidate;
  }
}

// retire: the path's template gives every file the same name, so the name
// must never be taken again in this process (see above). Templates with the
// file's first timestamp in the name never repeat it and are not remembered.
void ReleasePath(std::string const& path, bool retire) {
  if (path.empty()) return;
  std::lock_guard<std::mutex> lock(paths_mutex);
  open_paths.erase(path);
  if (retire) retired_paths.insert(path);
}

bool TemplateRepeatsNames(std::string const& path_template) {
  return path_template.find("{{id}}") == std::string::npos &&
         path_template.find("{{timestamp}}") == std::string::npos;
}

// Devices whose file system refused O_DIRECT; their files are written
// through the page cache, and the refusal is reported once per device.
namespace {
std::mutex direct_io_mutex;
std::set<dev_t> direct_io_refused;
}  // namespace

bool DirectIoRefused(dev_t device) {
  std::lock_guard<std::mutex> lock(direct_io_mutex);
  return direct_io_refused.count(device) != 0;
}

bool RememberDirectIoRefused(dev_t device) {
  std::lock_guard<std::mutex> lock(direct_io_mutex);
  return direct_io_refused.insert(device).second;
}

bool ReadAll(int fd, void* data, size_t len, off_t offset) {
  auto* p = static_cast<uint8_t*>(data);
  while (len > 0) {
    const ssize_t n = pread(fd, p, len, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
    offset += n;
  }
  return true;
}

bool WriteAll(int fd, void const* data, size_t len, off_t offset) {
  auto const* p = static_cast<uint8_t const*>(data);
  while (len > 0) {
    const ssize_t n = pwrite(fd, p, len, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = ENOSPC;
      return false;
    }
    p += n;
    len -= static_cast<size_t>(n);
    offset += n;
  }
  return true;
}


std::string SanitizePathComponent(std::string const& name) {
  if (name.empty() || name == "." || name == "..")
    return std::string(name.empty() ? 1 : name.size(), '_');
  std::string safe = name;
  for (char& c : safe)
    if (IsUnsafePathByte(static_cast<unsigned char>(c))) c = '_';
  if (safe.size() <= kMaxPathComponent) return safe;

  // Too long for a file name: a readable prefix, cut before a UTF-8 lead
  // byte, then a hash of the whole name so that long names differing only
  // past the prefix stay apart. FNV-1a: stable across builds and runs, so a
  // switch keeps its directory over restarts.
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : name) hash = (hash ^ c) * 1099511628211ull;
  char suffix[18];
  std::snprintf(suffix, sizeof suffix, "~%016llx", static_cast<unsigned long long>(hash));
  size_t keep = kMaxPathComponent - (sizeof suffix - 1);
  // A continuation byte (10xxxxxx) at the cut belongs to a sequence that
  // starts before it; a sequence is at most 4 bytes long.
  for (int i = 0; i < 3 && (static_cast<unsigned char>(safe[keep]) & 0xC0) == 0x80; ++i) --keep;
  safe.resize(keep);
  return safe + suffix;
}

std::string AsyncDataFile::BuildFilePath() {
  // Network-supplied names are confined to one path component each; the
  // header keeps them unchanged.
  const std::string tag = SanitizePathComponent(tag_);
  const std::string host_name(client_id_.host_name,
                              strnlen(client_id_.host_name, sizeof client_id_.host_name));
  // The tag is a file-name prefix ("ipfix_"), but a tag that ends a
  // directory name stands alone ("ipfix/"). Only the tag: a switch name that
  // ends in "_" keeps it.
  std::string path_template = data_path_template_;
  boost::algorithm::replace_all(path_template, "{{tag}}/", "{{tag_dir}}/");
  std::string path = dtl::string_template(path_template,
                                          {{"node", SanitizePathComponent(host_name)},
                                           {"source", SanitizePathComponent(source_)},
                                           {"port", std::to_string(client_id_.port)},
                                           {"timestamp", std::to_string(first_timestamp_)},
                                           {"tag", tag_.empty() ? std::string() : tag + "_"},
                                           {"tag_dir", tag_.empty() ? std::string() : tag}});
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

}  // namespace dtl::ipfix
