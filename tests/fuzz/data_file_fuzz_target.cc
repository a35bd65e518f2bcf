// Feeds arbitrary bytes to the data-file reader the way dtl-read uses it: a
// counters-schema text and a data file, both hostile. The header is
// validated, blocks are read to the end, and every block is printed as CSV,
// as JSON lines, as rates and into a summary. Every JSON line must be the
// text the framework's JSON library gives for the same object, and the
// search by time must land inside the file.
//
// One input is a big-endian u16 length, that many bytes of schema text, and
// the rest as the data file. Both go to memory-backed files so that the
// reader runs its own open, stat and read path.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "dtl_json.h"
#include "tools/dtl_read/counter_schema.h"
#include "tools/dtl_read/data_file_reader.h"
#include "tools/dtl_read/file_summary.h"
#include "tools/dtl_read/output_buffer.h"
#include "tools/dtl_read/rate_calculator.h"
#include "tools/dtl_read/row_output.h"
#include "tools/dtl_read/time_window.h"

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
  int fd() const { return fd_; }
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

  // A window from the first block's time on, searched over the blocks.
  uint64_t first = 0, end = 0, start_us = 0;
  dtl::read::TimeWindow window;
  if (reader.TimestampAt(0, &start_us, &error)) window.from = static_cast<int64_t>(start_us & INT64_MAX);
  if (dtl::read::FindBlockRange(reader, window, &first, &end, &error) &&
      (first > end || end > reader.block_count()))
    __builtin_trap();

  // CSV and rates go to /dev/null, JSON lines to a memory file for the check.
  const int sink = open("/dev/null", O_WRONLY);
  MemoryFile lines("lines", nullptr, 0);
  dtl::read::OutputBuffer out(sink, 4096), json_out(lines.fd(), 4096);
  const char* source = reader.header().source_id;
  const dtl::read::RowOutput csv(schema->columns(), {.source = true}, std::string_view(source, strnlen(source, 64)));
  const dtl::read::RowOutput json(schema->columns(), {.json = true, .source = true}, "fuzz");
  dtl::read::RateCalculator rates;
  rates.SetColumns(dtl::read::RateCalculator::RatedColumns(schema->columns()));
  const dtl::read::RowOutput rate_rows(rates.columns(), {.json = true, .iso_time = true}, "");
  dtl::read::FileSummary summary(schema->columns());
  while (reader.ReadNext(&error) == dtl::read::DataFileReader::Result::kBlock) {
    const uint8_t* values = reader.block() + dtl::read::kBlockValuesOffset;
    summary.Add(reader.timestamp_us(), values);
    csv.AppendRow(out, reader.timestamp_us(), values);
    json.AppendRow(json_out, reader.timestamp_us(), values);
    if (rates.Add(reader.timestamp_us(), values)) rate_rows.AppendRates(out, reader.timestamp_us(), rates.rates());
  }
  FILE* sink_file = fopen("/dev/null", "w");
  if (sink_file != nullptr) {
    summary.Print(sink_file, data_file.path(), reader.header());
    fclose(sink_file);
  }
  out.Flush();
  json_out.Flush();
  if (sink >= 0) close(sink);

  // Each JSON line reads back as JSON and prints again to the same text.
  std::string text;
  char piece[4096];
  for (ssize_t n; (n = pread(lines.fd(), piece, sizeof piece, static_cast<off_t>(text.size()))) > 0;)
    text.append(piece, static_cast<size_t>(n));
  for (size_t at = 0, end; at < text.size(); at = end + 1) {
    end = text.find('\n', at);
    const std::string line = text.substr(at, end - at);
    const std::string again = dtl::json::value::parse(line).dump(-1, ' ', false, dtl::json::value::error_handler_t::replace);
    if (again != line) __builtin_trap();
  }
  return 0;
}
