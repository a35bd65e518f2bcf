// Sequential reader of one data file: validates the 256-byte header, then
// hands out the fixed-size blocks that follow it, stopping cleanly at the
// last whole block of a file whose writer was killed mid-write. A file still
// being written may end in the zero padding of its last direct-I/O write,
// which is no data and no fault.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "dtl_data_file_header.h"

namespace dtl::read {

// Byte offset of a block's value area; values sit at this plus their offset.
inline constexpr size_t kBlockValuesOffset = 16;
// Unit of the collector's direct-I/O writes; a partial page is padded to it.
inline constexpr uint64_t kDirectIoBlock = 4096;

class DataFileReader {
 public:
  enum class Result { kBlock, kEnd, kError };

  // Opens the file and validates its header; false with the reason in error.
  bool Open(const std::string& path, std::string* error);

  const dtl_data_file_header_t& header() const { return header_; }
  // The counters schema identifier as 32 hex characters; HasSchemaId is
  // false when the header leaves it unset (all zero).
  std::string SchemaId() const;
  bool HasSchemaId() const;
  // Whole blocks between the header and the end of the file.
  uint64_t block_count() const { return block_count_; }
  // Conditions that do not stop reading (a cut-short file, a header that was
  // never finalised); filled by Open and by ReadNext.
  const std::vector<std::string>& warnings() const { return warnings_; }

  // Reads the next block. kEnd after the last whole block, or at a zero-filled
  // tail (a crash before the data reached the disk), which adds a warning.
  // A block without the "DTLD" magic is kError with the reason in error.
  Result ReadNext(std::string* error);
  // The block read last: index from 0, its time and its whole bytes.
  uint64_t block_index() const { return next_block_ - 1; }
  uint64_t timestamp_us() const;
  const uint8_t* block() const { return block_.data(); }

 private:
  struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
  };
  bool RestIsZero();
  // Length of the zero padding that ends a file of `actual` bytes: zeros
  // from a block boundary to the end, shorter than one I/O block, in a file
  // whose size is a whole number of I/O blocks. 0 when there is none.
  uint64_t PaddingAtEnd(uint64_t actual);

  std::unique_ptr<FILE, FileCloser> file_;
  std::string path_;
  dtl_data_file_header_t header_{};
  uint64_t block_count_ = 0;
  uint64_t next_block_ = 0;
  std::vector<uint8_t> block_;
  std::vector<std::string> warnings_;
};

}  // namespace dtl::read
