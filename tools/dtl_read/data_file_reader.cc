#include "tools/dtl_read/data_file_reader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "dtl_counters.h"

namespace dtl::read {

namespace {

std::string VersionText(const dtl_version_t& v) {
  return std::to_string(v.major) + "." + std::to_string(v.minor) + "." + std::to_string(v.patch);
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

bool DataFileReader::Open(const std::string& path, std::string* error) {
  path_ = path;
  file_.reset(fopen(path.c_str(), "rb"));
  if (!file_) {
    *error = std::string("cannot open: ") + std::strerror(errno);
    return false;
  }
  struct stat st {};
  if (fstat(fileno(file_.get()), &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = "not a regular file";
    return false;
  }
  const uint64_t actual = static_cast<uint64_t>(st.st_size);
  if (actual < DTL_DATA_FILE_HEADER_SIZE) {
    *error = "file too short for a data file header (" + std::to_string(actual) + " bytes)";
    return false;
  }
  if (fread(&header_, sizeof(header_), 1, file_.get()) != 1) {
    *error = "cannot read the header";
    return false;
  }
  if (!CheckHeader(header_, error)) return false;

  const uint64_t body = actual - DTL_DATA_FILE_HEADER_SIZE;
  const uint64_t padding = PaddingAtEnd(actual);
  block_count_ = (body - padding) / header_.block_size;
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
  // The header's block size is only trusted as far as the file holds a
  // block of it: a damaged header must not cost gigabytes of memory.
  if (block_count_ > 0) block_.resize(header_.block_size);
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

DataFileReader::Result DataFileReader::ReadNext(std::string* error) {
  if (next_block_ >= block_count_) return Result::kEnd;
  if (fread(block_.data(), block_.size(), 1, file_.get()) != 1) {
    *error = "read error at block " + std::to_string(next_block_);
    return Result::kError;
  }
  ++next_block_;
  if (dtl_magic_value_match_type(block_.data(), DTL_MAGIC_TYPE_DATA)) return Result::kBlock;
  const uint64_t offset = DTL_DATA_FILE_HEADER_SIZE + (next_block_ - 1) * header_.block_size;
  if (RestIsZero()) {
    warnings_.push_back("file cut short: zero-filled from block " +
                        std::to_string(next_block_ - 1) + " (offset " + std::to_string(offset) +
                        "), reading " + std::to_string(next_block_ - 1) + " blocks");
    next_block_ = block_count_;
    return Result::kEnd;
  }
  *error = "corrupt block " + std::to_string(next_block_ - 1) + " at offset " +
           std::to_string(offset) + " (bad block magic)";
  return Result::kError;
}

uint64_t DataFileReader::timestamp_us() const {
  uint64_t ts = 0;
  std::memcpy(&ts, block_.data() + offsetof(dtl_counters_data_t, timestamp), sizeof(ts));
  return ts;
}

uint64_t DataFileReader::PaddingAtEnd(uint64_t actual) {
  if (actual % kDirectIoBlock != 0) return 0;
  // Padding shorter than one I/O block follows a block that holds data, so
  // the last byte that is not zero lies in this window.
  const uint64_t block_size = header_.block_size;
  const uint64_t from = actual > kDirectIoBlock + block_size ? actual - kDirectIoBlock - block_size : 0;
  std::vector<uint8_t> bytes(actual - from);
  if (pread(fileno(file_.get()), bytes.data(), bytes.size(), static_cast<off_t>(from)) !=
      static_cast<ssize_t>(bytes.size()))
    return 0;
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
  if (std::any_of(block_.begin(), block_.end(), [](uint8_t b) { return b != 0; })) return false;
  std::vector<uint8_t> chunk(1 << 16);
  size_t n = 0;
  while ((n = fread(chunk.data(), 1, chunk.size(), file_.get())) > 0) {
    if (std::any_of(chunk.begin(), chunk.begin() + n, [](uint8_t b) { return b != 0; }))
      return false;
  }
  return true;
}

}  // namespace dtl::read
