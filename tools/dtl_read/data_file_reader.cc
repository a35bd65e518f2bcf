#include "tools/dtl_read/data_file_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "dtl_counters.h"

namespace dtl::read {

namespace {

// Bytes per read of consecutive blocks: large enough that the kernel's
// read-ahead streams, small enough to stay in the cache.
constexpr uint64_t kChunkBytes = uint64_t{8} << 20;

std::string VersionText(const dtl_version_t& v) {
  return std::to_string(v.major) + "." + std::to_string(v.minor) + "." + std::to_string(v.patch);
}

bool AllZero(const uint8_t* p, size_t n) {
  return std::all_of(p, p + n, [](uint8_t b) { return b == 0; });
}

// The framework's own test (logged by the framework), repeated here so that
// the user gets one message that names the file and the failed check.
bool CheckHeader(const dtl_data_file_header_t& h, std::string* error) {
  if (!dtl_magic_value_match_type(h.magic, DTL_MAGIC_TYPE_FILE)) {
    *error = "not a data file (bad header magic)";
    return false;
  }
  uint32_t packed = 0;
  std::memcpy(&packed, &h.version, sizeof(packed));
  const uint16_t reader = DTL_DATA_FILE_VERSION_MAJOR | (DTL_DATA_FILE_VERSION_MINOR << 8);
  if (!dtl_versions_are_compatible(packed, reader)) {
    *error = "unsupported format version " + VersionText(h.version) + " (this reader reads " +
             std::to_string(DTL_DATA_FILE_VERSION_MAJOR) + ".0 to " +
             std::to_string(DTL_DATA_FILE_VERSION_MAJOR) + "." +
             std::to_string(DTL_DATA_FILE_VERSION_MINOR) + ")";
    return false;
  }
  if (h.file_size < DTL_DATA_FILE_HEADER_SIZE) {
    *error = "bad header: file size " + std::to_string(h.file_size) + " is below the header size";
    return false;
  }
  if (h.byte_order != 0) {
    *error = "big-endian data files are not supported";
    return false;
  }
  if (h.block_size < kBlockValuesOffset) {
    *error = "bad header: block size " + std::to_string(h.block_size) + " is below " +
             std::to_string(kBlockValuesOffset);
    return false;
  }
  if (!dtl_data_file_header_is_valid(&h)) {
    *error = "invalid header";
    return false;
  }
  return true;
}

}  // namespace

DataFileReader::~DataFileReader() {
  if (fd_ >= 0) close(fd_);
}

bool DataFileReader::Open(const std::string& path, std::string* error) {
  fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) {
    *error = std::string("cannot open: ") + std::strerror(errno);
    return false;
  }
  struct stat st {};
  if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = "not a regular file";
    return false;
  }
  const uint64_t actual = file_bytes_ = static_cast<uint64_t>(st.st_size);
  if (actual < DTL_DATA_FILE_HEADER_SIZE) {
    *error = "file too short for a data file header (" + std::to_string(actual) + " bytes)";
    return false;
  }
  if (!ReadAt(0, &header_, sizeof(header_))) {
    *error = "cannot read the header";
    return false;
  }
  if (!CheckHeader(header_, error)) return false;
  posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);

  const uint64_t body = actual - DTL_DATA_FILE_HEADER_SIZE;
  const uint64_t padding = PaddingAtEnd(actual);
  block_count_ = end_block_ = (body - padding) / header_.block_size;
  const uint64_t tail = (body - padding) % header_.block_size;
  if (tail != 0) {
    warnings_.push_back("file cut short: " + std::to_string(tail) + " bytes after block " +
                        std::to_string(block_count_) + " ignored, reading " +
                        std::to_string(block_count_) + " whole blocks");
  }
  // The writer stores the final size when it closes the file, so a header
  // still saying 256 comes from a file that is open or whose writer died.
  if (header_.file_size == DTL_DATA_FILE_HEADER_SIZE && body != 0) {
    warnings_.push_back("header not finalised (file still being written, or its writer stopped)");
  } else if (header_.file_size > actual) {
    warnings_.push_back("file cut short: header says " + std::to_string(header_.file_size) +
                        " bytes, the file has " + std::to_string(actual));
  }
  return true;
}

std::string DataFileReader::SchemaId() const {
  char text[DTL_SCHEMA_ID_STRING_SIZE];
  dtl_schema_id_to_schema_string(header_.counters_schema_id, text);
  return text;
}

bool DataFileReader::HasSchemaId() const {
  return !dtl_schema_id_is_unset(header_.counters_schema_id);
}

bool DataFileReader::ReadAt(uint64_t offset, void* into, size_t bytes) {
  auto* to = static_cast<uint8_t*>(into);
  while (bytes > 0) {
    const ssize_t n = pread(fd_, to, bytes, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    to += n, offset += static_cast<uint64_t>(n), bytes -= static_cast<size_t>(n);
  }
  return true;
}

bool DataFileReader::TimestampAt(uint64_t index, uint64_t* timestamp_us, std::string* error) {
  if (index < block_count_ && ReadAt(BlockOffset(index) + kBlockTimeOffset, timestamp_us, sizeof(*timestamp_us)))
    return true;
  *error = "read error at block " + std::to_string(index);
  return false;
}

bool DataFileReader::HasBlockMagic(uint64_t index) {
  uint8_t magic[4];
  return index < block_count_ && ReadAt(BlockOffset(index), magic, sizeof magic) &&
         dtl_magic_value_match_type(magic, DTL_MAGIC_TYPE_DATA);
}

bool DataFileReader::IsZeroBlock(uint64_t index) {
  std::vector<uint8_t> bytes(header_.block_size);
  return ReadAt(BlockOffset(index), bytes.data(), bytes.size()) && AllZero(bytes.data(), bytes.size());
}

uint64_t DataFileReader::DataEnd() {
  if (data_end_known_) return data_end_;
  data_end_known_ = true;
  data_end_ = block_count_;
  if (block_count_ == 0 || HasBlockMagic(block_count_ - 1) || !IsZeroBlock(block_count_ - 1)) return data_end_;
  // The last block is zero: the first zero block lies in [lo, hi].
  uint64_t lo = 0, hi = block_count_ - 1;
  while (lo < hi) {
    const uint64_t mid = lo + (hi - lo) / 2;
    if (IsZeroBlock(mid)) hi = mid;
    else lo = mid + 1;
  }
  data_end_ = lo;
  warnings_.push_back(ZeroTailWarning(lo));
  return data_end_;
}

std::string DataFileReader::ZeroTailWarning(uint64_t first_zero) const {
  return "file cut short: zero-filled from block " + std::to_string(first_zero) + " (offset " +
         std::to_string(BlockOffset(first_zero)) + "), reading " + std::to_string(first_zero) + " blocks";
}

void DataFileReader::LimitTo(uint64_t first, uint64_t end) {
  end_block_ = std::min(end, block_count_);
  next_block_ = std::min(first, end_block_);
}

bool DataFileReader::LoadChunk(std::string* error) {
  const uint64_t block_size = header_.block_size;
  const uint64_t per_chunk = std::max<uint64_t>(1, kChunkBytes / block_size);
  chunk_blocks_ = std::min(per_chunk, end_block_ - next_block_);
  // The header's block size is only trusted as far as the file holds
  // blocks of it: a damaged header must not cost gigabytes of memory.
  if (chunk_.size() < chunk_blocks_ * block_size) chunk_.resize(chunk_blocks_ * block_size);
  chunk_first_ = next_block_;
  if (ReadAt(BlockOffset(next_block_), chunk_.data(), chunk_blocks_ * block_size)) return true;
  chunk_blocks_ = 0;
  *error = "read error at block " + std::to_string(next_block_);
  return false;
}

DataFileReader::Result DataFileReader::ReadNext(std::string* error) {
  if (next_block_ >= end_block_) return Result::kEnd;
  if (next_block_ < chunk_first_ || next_block_ >= chunk_first_ + chunk_blocks_) {
    if (!LoadChunk(error)) return Result::kError;
  }
  current_ = chunk_.data() + (next_block_ - chunk_first_) * header_.block_size;
  ++next_block_;
  if (dtl_magic_value_match_type(current_, DTL_MAGIC_TYPE_DATA)) return Result::kBlock;
  if (RestIsZero()) {
    warnings_.push_back(ZeroTailWarning(next_block_ - 1));
    next_block_ = end_block_;
    return Result::kEnd;
  }
  *error = "corrupt block " + std::to_string(next_block_ - 1) + " at offset " +
           std::to_string(BlockOffset(next_block_ - 1)) + " (bad block magic)";
  return Result::kError;
}

uint64_t DataFileReader::timestamp_us() const {
  uint64_t ts = 0;
  std::memcpy(&ts, current_ + kBlockTimeOffset, sizeof(ts));
  return ts;
}

uint64_t DataFileReader::PaddingAtEnd(uint64_t actual) {
  if (actual % kDirectIoBlock != 0) return 0;
  // Padding shorter than one I/O block follows a block that holds data, so
  // the last byte that is not zero lies in this window.
  const uint64_t block_size = header_.block_size;
  const uint64_t from = actual > kDirectIoBlock + block_size ? actual - kDirectIoBlock - block_size : 0;
  std::vector<uint8_t> bytes(actual - from);
  if (!ReadAt(from, bytes.data(), bytes.size())) return 0;
  const auto last = std::find_if(bytes.rbegin(), bytes.rend(), [](uint8_t b) { return b != 0; });
  if (last == bytes.rend()) return 0;
  const uint64_t last_offset = from + static_cast<uint64_t>(bytes.rend() - last) - 1;
  // The zeros count from the boundary after the block holding that byte.
  uint64_t start = DTL_DATA_FILE_HEADER_SIZE;
  if (last_offset >= start) start += ((last_offset - start) / block_size + 1) * block_size;
  if (start >= actual || actual - start >= kDirectIoBlock) return 0;
  return actual - start;
}

bool DataFileReader::RestIsZero() {
  // Everything from the current block to the end of the file, whole
  // blocks or not, must be zero.
  if (!AllZero(current_, header_.block_size)) return false;
  std::vector<uint8_t> piece(1 << 20);
  for (uint64_t at = BlockOffset(next_block_); at < file_bytes_;) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(piece.size(), file_bytes_ - at));
    if (!ReadAt(at, piece.data(), n) || !AllZero(piece.data(), n)) return false;
    at += n;
  }
  return true;
}

}  // namespace dtl::read
