// Feeds arbitrary bytes to the data-file reader the way dtl-read uses it: a
// counters-schema text and a data file, both hostile. The header is
// validated, blocks are read to the end, and every block is printed as CSV,
// as JSON and into a summary.
//
// One input is a big-endian u16 length, that many bytes of schema text, and
// the rest as the data file. Both go to memory-backed files so that the
// reader runs its own open, stat and read path.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "tools/dtl_read/counter_schema.h"
#include "tools/dtl_read/data_file_reader.h"
#include "tools/dtl_read/file_summary.h"
#include "tools/dtl_read/row_output.h"

namespace {

// A memory file holding the given bytes, closed with the object.
class MemoryFile {
 public:
  MemoryFile(const char* name, const uint8_t* data, size_t size) : fd_(memfd_create(name, 0)) {
    if (fd_ < 0) return;
    size_t done = 0;
    while (done < size) {
      const ssize_t n = write(fd_, data + done, size - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
  }
  ~MemoryFile() {
    if (fd_ >= 0) close(fd_);
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  bool ok() const { return fd_ >= 0; }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  size_t schema_length = (static_cast<size_t>(data[0]) << 8) | data[1];
  if (schema_length > size - 2) schema_length = size - 2;
  MemoryFile schema_file("schema", data + 2, schema_length);
  MemoryFile data_file("data", data + 2 + schema_length, size - 2 - schema_length);
  if (!schema_file.ok() || !data_file.ok()) return 0;

  std::string error;
  std::optional<dtl::read::CounterSchema> schema = dtl::read::CounterSchema::Load(schema_file.path(), &error);
  dtl::read::DataFileReader reader;
  if (!reader.Open(data_file.path(), &error)) return 0;
  (void)reader.SchemaId();
  if (!schema) return 0;
  // dtl-read refuses a schema whose values do not fit the file's blocks.
  const uint64_t capacity = reader.header().block_size - dtl::read::kBlockValuesOffset;
  if (schema->ValueAreaSize() > capacity) return 0;

  dtl::read::FileSummary summary(schema->columns());
  size_t printed = 0;
  while (reader.ReadNext(&error) == dtl::read::DataFileReader::Result::kBlock) {
    const uint8_t* values = reader.block() + dtl::read::kBlockValuesOffset;
    summary.Add(reader.timestamp_us(), values);
    printed += dtl::read::CsvRow(reader.timestamp_us(), schema->columns(), values).size();
    printed += dtl::read::JsonRow(reader.timestamp_us(), schema->columns(), values).size();
  }
  FILE* sink = fopen("/dev/null", "w");
  if (sink != nullptr) {
    summary.Print(sink, data_file.path(), reader.header());
    fclose(sink);
  }
  return printed == SIZE_MAX ? 1 : 0;
}
