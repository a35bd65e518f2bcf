#include "tools/dtl_read/output_buffer.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace dtl::read {

OutputBuffer::OutputBuffer(int fd, size_t flush_at)
    : fd_(fd), flush_at_(flush_at), data_(new char[2 * flush_at]), capacity_(2 * flush_at) {}

OutputBuffer::~OutputBuffer() { Flush(); }

void OutputBuffer::Append(std::string_view text) {
  char* at = Reserve(text.size());
  std::memcpy(at, text.data(), text.size());
  Commit(at + text.size());
}

bool OutputBuffer::Flush() {
  size_t done = 0;
  while (!failed_ && done < used_) {
    const ssize_t n = write(fd_, data_.get() + done, used_ - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) failed_ = true;
    if (n > 0) done += static_cast<size_t>(n);
  }
  used_ = 0;
  return !failed_;
}

void OutputBuffer::Grow(size_t n) {
  // Pending bytes go out first; only a single piece larger than the buffer
  // (a long text value) makes it bigger.
  Flush();
  if (capacity_ >= n) return;
  data_.reset(new char[n]);
  capacity_ = n;
}

}  // namespace dtl::read
