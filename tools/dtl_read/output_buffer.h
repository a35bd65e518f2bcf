// A large output buffer for row text: formatters write straight into it and
// it goes to a file descriptor in big writes, so printing a row costs no
// allocation and no stdio call.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace dtl::read {

class OutputBuffer {
 public:
  // Writes to fd whenever at least flush_at bytes are pending.
  explicit OutputBuffer(int fd, size_t flush_at = size_t{1} << 20);
  ~OutputBuffer();
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;

  // Room for n more bytes at the returned pointer; Commit(end) keeps what
  // was written up to end.
  char* Reserve(size_t n) {
    if (capacity_ - used_ < n) Grow(n);
    return data_.get() + used_;
  }
  void Commit(char* end) {
    used_ = static_cast<size_t>(end - data_.get());
    if (used_ >= flush_at_) Flush();
  }
  void Append(std::string_view text);
  void Append(char c) { Append(std::string_view(&c, 1)); }

  // Writes out everything pending; false once a write has failed (the
  // reason stays in errno), after which output is dropped.
  bool Flush();
  bool failed() const { return failed_; }

 private:
  void Grow(size_t n);

  int fd_;
  size_t flush_at_;
  std::unique_ptr<char[]> data_;
  size_t capacity_ = 0;
  size_t used_ = 0;
  bool failed_ = false;
};

}  // namespace dtl::read
