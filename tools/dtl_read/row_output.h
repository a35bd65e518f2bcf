// Rows of samples as text: CSV (one heading, then one line per row) or JSON
// lines (one object per row), each row being the sample's time and either
// its counter values or the counters' per-second rates. Optional leading
// cells: the file's source, and the time in ISO 8601 instead of microseconds.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/dtl_read/counter_schema.h"
#include "tools/dtl_read/output_buffer.h"
#include "tools/dtl_read/value_text.h"

namespace dtl::read {

struct RowLayout {
  bool json = false;
  bool source = false;    // a first column "source"
  bool iso_time = false;  // column "time" (text) instead of "timestamp_us"
};

class RowOutput {
 public:
  RowOutput(std::vector<CounterColumn> columns, RowLayout layout, std::string_view source);

  const std::vector<CounterColumn>& columns() const { return columns_; }
  // The CSV heading line, newline included; empty for JSON lines.
  const std::string& heading() const { return heading_; }

  // A row of the values of the columns in a block's value area. JSON gives
  // numbers for the 8-byte numeric types (null for a non-finite FP64) and
  // strings for the rest.
  void AppendRow(OutputBuffer& out, uint64_t timestamp_us, const uint8_t* values) const;
  // A row of one rate per column; NaN is no value (an empty CSV cell, JSON
  // null), infinities are null in JSON.
  void AppendRates(OutputBuffer& out, uint64_t timestamp_us, const double* rates) const;

 private:
  // A JSON member: its key text and the cells that assign it. A key that
  // occurs twice (a counter named like the time column, say) is one member
  // at its first place holding the last value assigned, as the framework's
  // JSON objects behave.
  struct Member {
    std::string key;  // opening brace or comma, quoted key and colon
    std::vector<int> cells;
  };
  static constexpr int kSourceCell = -2, kTimeCell = -1;

  char* AppendTime(char* p, uint64_t timestamp_us) const;
  // A CSV row's first cells: the source when asked for, then the time.
  char* AppendCsvStart(char* p, uint64_t timestamp_us) const;
  char* AppendJsonCell(OutputBuffer& out, char* p, int cell, uint64_t timestamp_us, const uint8_t* values) const;
  char* AppendJsonRate(char* p, double rate) const;

  std::vector<CounterColumn> columns_;
  std::vector<ValueKind> kinds_;
  RowLayout layout_;
  std::string source_text_;  // as a CSV field or a JSON string
  std::string heading_;
  std::vector<Member> members_;
  size_t row_bound_ = 0;  // characters a row can take, JSON string escapes aside
};

}  // namespace dtl::read
