#include "dtl_atomic_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <utility>

namespace dtl {
namespace {

// Closes the descriptor it holds, unless released first.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  // Closes now, reporting the result; an interrupted close still closed the
  // descriptor on Linux, and the data was already flushed.
  bool Close() {
    const int fd = fd_;
    fd_ = -1;
    return ::close(fd) == 0 || errno == EINTR;
  }

 private:
  int fd_;
};

// Removes the temporary file unless the rename took it over.
class TemporaryName {
 public:
  explicit TemporaryName(std::string path) : path_(std::move(path)) {}
  ~TemporaryName() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  TemporaryName(const TemporaryName&) = delete;
  TemporaryName& operator=(const TemporaryName&) = delete;
  const std::string& path() const { return path_; }
  void Release() { path_.clear(); }

 private:
  std::string path_;
};

bool Fail(std::string* error, int err) {
  if (error != nullptr) *error = strerror(err);
  return false;
}

bool WriteAll(int fd, std::string_view text) {
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) {  // no progress and no reason given: the device is full
      errno = ENOSPC;
      return false;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

bool SyncFile(int fd) {
  while (::fsync(fd) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

// The rename is durable only once the directory is flushed too; a failure
// here leaves a correct file behind and is not reported.
void SyncDirectory(const std::string& dir) {
  Descriptor fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() >= 0) SyncFile(fd.get());
}

}  // namespace

bool WriteFileAtomically(const std::string& path, std::string_view text, std::string* error) {
  // Process id plus a process-wide counter keeps concurrent writers of the
  // same path apart; a leftover of a killed process is stepped over.
  static std::atomic<unsigned long> counter{0};
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);

  int fd = -1;
  std::string temporary;
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    temporary = path + "." + std::to_string(::getpid()) + "." + std::to_string(counter++) + ".tmp";
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0 && errno != EEXIST) return Fail(error, errno);
  }
  if (fd < 0) return Fail(error, EEXIST);

  Descriptor file(fd);
  TemporaryName name(temporary);
  if (!WriteAll(file.get(), text) || !SyncFile(file.get()) || !file.Close()) return Fail(error, errno);
  if (::rename(name.path().c_str(), path.c_str()) != 0) return Fail(error, errno);
  name.Release();
  SyncDirectory(dir);
  return true;
}

}  // namespace dtl
