// File systems of a test's own, out of sight of the rest of the machine: the
// calling thread moves into a private mount namespace, where the test can
// mount a small tmpfs (and fill it), a ramfs (which refuses O_DIRECT) or a
// directory bound onto itself and made read-only. Child processes started
// afterwards from that thread see the same mounts. Needs CAP_SYS_ADMIN.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace dtl_test {

// Moves the calling thread into a mount namespace of its own whose mounts
// propagate nowhere. Empty on success, otherwise why it failed.
inline std::string EnterPrivateMountNamespace() {
  if (unshare(CLONE_NEWNS) != 0)
    return std::string("unshare(CLONE_NEWNS) failed: ") + std::strerror(errno) +
           " (a private mount namespace needs root or CAP_SYS_ADMIN)";
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return std::string("making / private in the new mount namespace failed: ") +
           std::strerror(errno);
  return "";
}

// One mount on an existing directory, unmounted when the object goes.
class ScopedMount {
 public:
  // A tmpfs of size_bytes (rounded up to whole pages by the kernel).
  static ScopedMount Tmpfs(const std::string& target, uint64_t size_bytes) {
    ScopedMount m(target);
    const std::string data = "size=" + std::to_string(size_bytes) + ",mode=0755";
    if (mount("tmpfs", target.c_str(), "tmpfs", 0, data.c_str()) != 0)
      m.Fail("mounting a tmpfs of " + std::to_string(size_bytes) + " bytes");
    return m;
  }
  static ScopedMount Ramfs(const std::string& target) {
    ScopedMount m(target);
    if (mount("ramfs", target.c_str(), "ramfs", 0, "mode=0755") != 0) m.Fail("mounting a ramfs");
    return m;
  }
  // Binds target onto itself and makes that bind read-only: new files and
  // directories under target fail with EROFS, while files opened before
  // keep working through the mount below.
  static ScopedMount ReadOnlyBind(const std::string& target) {
    ScopedMount m(target);
    if (mount(target.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
      m.Fail("binding the directory onto itself");
      return m;
    }
    if (mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
      m.Fail("remounting the bind read-only");
      umount2(target.c_str(), MNT_DETACH);
    }
    return m;
  }

  ScopedMount(ScopedMount&& other) noexcept
      : target_(std::move(other.target_)), error_(std::move(other.error_)),
        mounted_(std::exchange(other.mounted_, false)) {}
  ScopedMount& operator=(ScopedMount&& other) noexcept {
    if (this != &other) {
      Unmount();
      target_ = std::move(other.target_);
      error_ = std::move(other.error_);
      mounted_ = std::exchange(other.mounted_, false);
    }
    return *this;
  }
  ScopedMount(const ScopedMount&) = delete;
  ScopedMount& operator=(const ScopedMount&) = delete;
  ~ScopedMount() { Unmount(); }

  bool ok() const { return error_.empty(); }
  // What failed, naming the directory; empty when mounted.
  const std::string& error() const { return error_; }
  const std::string& target() const { return target_; }

  // Unmounts now (detached when still busy: open files keep the mount alive
  // for their holders, new lookups see what lies below). Empty on success.
  std::string Unmount() {
    if (!mounted_) return "";
    mounted_ = false;
    if (umount2(target_.c_str(), 0) == 0) return "";
    if (errno == EBUSY && umount2(target_.c_str(), MNT_DETACH) == 0) return "";
    return "unmounting " + target_ + " failed: " + std::strerror(errno);
  }

 private:
  explicit ScopedMount(std::string target) : target_(std::move(target)), mounted_(true) {}
  void Fail(const std::string& what) {
    error_ = what + " on " + target_ + " failed: " + std::strerror(errno);
    mounted_ = false;
  }

  std::string target_;
  std::string error_;
  bool mounted_ = false;
};

// Mounts made one on top of another, unmounted in reverse order.
class MountStack {
 public:
  MountStack() = default;
  MountStack(const MountStack&) = delete;
  MountStack& operator=(const MountStack&) = delete;
  ~MountStack() { Clear(); }

  // Keeps mount when it succeeded; returns its error (empty when mounted).
  std::string Push(ScopedMount mount) {
    if (!mount.ok()) return mount.error();
    mounts_.push_back(std::move(mount));
    return "";
  }
  // Unmounts the newest mount; empty on success.
  std::string Pop() {
    if (mounts_.empty()) return "nothing is mounted";
    const std::string error = mounts_.back().Unmount();
    mounts_.pop_back();
    return error;
  }
  void Clear() {
    while (!mounts_.empty()) Pop();
  }

 private:
  std::vector<ScopedMount> mounts_;
};

// Takes every free byte of the file system holding path, in a file of that
// name that is removed when the object goes.
class SpaceFiller {
 public:
  explicit SpaceFiller(std::filesystem::path path) : path_(std::move(path)) {
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
      error_ = "cannot create " + path_.string() + ": " + std::strerror(errno);
      return;
    }
    std::vector<char> chunk(1 << 20, 'x');
    size_t size = chunk.size();
    for (;;) {
      const ssize_t n = write(fd, chunk.data(), size);
      if (n > 0) continue;
      if (n < 0 && errno != ENOSPC) {
        error_ = "writing " + path_.string() + " failed: " + std::strerror(errno);
        break;
      }
      if (size == 1) break;
      size /= 2;
    }
    close(fd);
    struct statvfs st {};
    if (error_.empty() && statvfs(path_.parent_path().c_str(), &st) == 0 && st.f_bavail != 0)
      error_ = "the file system under " + path_.string() + " still has " +
               std::to_string(st.f_bavail) + " free blocks";
  }
  ~SpaceFiller() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  SpaceFiller(const SpaceFiller&) = delete;
  SpaceFiller& operator=(const SpaceFiller&) = delete;

  // Empty when the file system is full now, otherwise what went wrong.
  const std::string& error() const { return error_; }

 private:
  std::filesystem::path path_;
  std::string error_;
};

}  // namespace dtl_test
