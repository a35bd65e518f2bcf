// Reader of one data file: validates the 256-byte header, then hands out
// the fixed-size blocks that follow it, all of them or a range, stopping
// cleanly at the last whole block of a file whose writer was killed
// mid-write. A file still being written may end in the zero padding of its
// last direct-I/O write, which is no data and no fault. Single blocks'
// times can be read at random for a search by time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "dtl_data_file_header.h"

namespace dtl::read {

// Byte offset of a block's value area; values sit at this plus their offset.
inline constexpr size_t kBlockValuesOffset = 16;
// Byte offset of a block's time (microseconds since the epoch, u64).
inline constexpr size_t kBlockTimeOffset = 8;
// Unit of the collector's direct-I/O writes; a partial page is padded to it.
inline constexpr uint64_t kDirectIoBlock = 4096;

class DataFileReader {
 public:
  enum class Result { kBlock, kEnd, kError };

  DataFileReader() = default;
  ~DataFileReader();
  DataFileReader(const DataFileReader&) = delete;
  DataFileReader& operator=(const DataFileReader&) = delete;

  // Opens the file and validates its header; false with the reason in error.
  bool Open(const std::string& path, std::string* error);

  const dtl_data_file_header_t& header() const { return header_; }
  // The counters schema identifier as 32 hex characters; HasSchemaId is
  // false when the header leaves it unset (all zero).
  std::string SchemaId() const;
  bool HasSchemaId() const;
  // Whole blocks between the header and the end of the file.
  uint64_t block_count() const { return block_count_; }
  // Bytes of the file when it was opened.
  uint64_t file_bytes() const { return file_bytes_; }
  // Conditions that do not stop reading (a cut-short file, a header that was
  // never finalised); filled by Open, DataEnd and ReadNext.
  const std::vector<std::string>& warnings() const { return warnings_; }

  // Blocks that hold data: block_count() less a zero-filled tail left by a
  // writer that died (with a warning). Found by bisection over the blocks,
  // assuming data blocks come first and zero blocks after them.
  uint64_t DataEnd();
  // The time of block `index` (< block_count()), read on its own.
  bool TimestampAt(uint64_t index, uint64_t* timestamp_us, std::string* error);
  // Whether block `index` starts with the data block magic.
  bool HasBlockMagic(uint64_t index);

  // Makes ReadNext go through blocks [first, end) only.
  void LimitTo(uint64_t first, uint64_t end);
  // Reads the next block. kEnd after the last whole block, or at a zero-filled
  // tail (a crash before the data reached the disk), which adds a warning.
  // A block without the "DTLD" magic is kError with the reason in error.
  Result ReadNext(std::string* error);
  // The block read last: its time and its whole bytes.
  uint64_t timestamp_us() const;
  const uint8_t* block() const { return current_; }

 private:
  bool ReadAt(uint64_t offset, void* into, size_t bytes);
  bool LoadChunk(std::string* error);
  bool IsZeroBlock(uint64_t index);
  bool RestIsZero();
  // Length of the zero padding that ends a file of `actual` bytes: zeros
  // from a block boundary to the end, shorter than one I/O block, in a file
  // whose size is a whole number of I/O blocks. 0 when there is none.
  uint64_t PaddingAtEnd(uint64_t actual);
  uint64_t BlockOffset(uint64_t index) const { return DTL_DATA_FILE_HEADER_SIZE + index * header_.block_size; }
  std::string ZeroTailWarning(uint64_t first_zero) const;

  int fd_ = -1;
  dtl_data_file_header_t header_{};
  uint64_t file_bytes_ = 0;
  uint64_t block_count_ = 0;
  uint64_t data_end_ = 0;
  bool data_end_known_ = false;
  uint64_t next_block_ = 0;
  uint64_t end_block_ = 0;
  // Blocks are read many at a time into chunk_, starting with chunk_first_.
  std::vector<uint8_t> chunk_;
  uint64_t chunk_first_ = 0;
  uint64_t chunk_blocks_ = 0;
  const uint8_t* current_ = nullptr;
  std::vector<std::string> warnings_;
};

}  // namespace dtl::read
