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
#include <vector>

namespace dtl_test {

// Empty on success, otherwise why it failed.
inline std::string EnterPrivateMountNamespace() {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return std::string("no private mount namespace (needs root or CAP_SYS_ADMIN): ") + std::strerror(errno);
  return "";
}

// Mounts made one on top of another, unmounted newest first when popped or
// when the object goes. Each call returns its error, empty on success.
class MountStack {
 public:
  MountStack() = default;
  MountStack(const MountStack&) = delete;
  MountStack& operator=(const MountStack&) = delete;
  ~MountStack() { Clear(); }

  // A tmpfs of size_bytes (rounded up to whole pages by the kernel).
  std::string Tmpfs(const std::string& target, uint64_t size_bytes) {
    const std::string data = "size=" + std::to_string(size_bytes) + ",mode=0755";
    return Pushed(target, mount("tmpfs", target.c_str(), "tmpfs", 0, data.c_str()));
  }
  std::string Ramfs(const std::string& target) {
    return Pushed(target, mount("ramfs", target.c_str(), "ramfs", 0, "mode=0755"));
  }
  // Binds target onto itself read-only: new files and directories under it
  // fail with EROFS, while files opened before keep working.
  std::string ReadOnlyBind(const std::string& target) {
    std::string error = Pushed(target, mount(target.c_str(), target.c_str(), nullptr, MS_BIND, nullptr));
    if (error.empty() && mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
      error = "remounting " + target + " read-only failed: " + std::strerror(errno);
      Pop();
    }
    return error;
  }
  // Unmounts the newest mount, detached when still busy (open files keep it
  // alive for their holders; new lookups see what lies below).
  std::string Pop() {
    if (targets_.empty()) return "nothing is mounted";
    const std::string target = targets_.back();
    targets_.pop_back();
    if (umount2(target.c_str(), 0) == 0 || (errno == EBUSY && umount2(target.c_str(), MNT_DETACH) == 0)) return "";
    return "unmounting " + target + " failed: " + std::strerror(errno);
  }
  void Clear() {
    while (!targets_.empty()) Pop();
  }

 private:
  std::string Pushed(const std::string& target, int result) {
    if (result != 0) return "mounting on " + target + " failed: " + std::strerror(errno);
    targets_.push_back(target);
    return "";
  }
  std::vector<std::string> targets_;
};

// Takes every free byte of the file system holding path, in a file of that
// name (the caller removes it to clear the fault). Empty when the file
// system is full now, otherwise what went wrong.
inline std::string FillUp(const std::filesystem::path& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return "cannot create " + path.string() + ": " + std::strerror(errno);
  std::vector<char> chunk(1 << 20, 'x');
  std::string error;
  for (size_t size = chunk.size(); size > 0 && error.empty();) {
    const ssize_t n = write(fd, chunk.data(), size);
    if (n < 0 && errno != ENOSPC) error = "writing " + path.string() + " failed: " + std::strerror(errno);
    if (n <= 0) size /= 2;
  }
  close(fd);
  struct statvfs st {};
  if (error.empty() && statvfs(path.parent_path().c_str(), &st) == 0 && st.f_bavail != 0)
    error = "the file system under " + path.string() + " still has " + std::to_string(st.f_bavail) + " free blocks";
  return error;
}

}  // namespace dtl_test
