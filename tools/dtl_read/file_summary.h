// Per-file summary: the source, the time span and rate of the samples, and
// per counter its first and last value and its largest increase between two
// consecutive samples.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "dtl_data_file_header.h"
#include "tools/dtl_read/counter_schema.h"

namespace dtl::read {

class FileSummary {
 public:
  explicit FileSummary(std::vector<CounterColumn> columns);

  // Takes one block's time and value area, in file order.
  void Add(uint64_t timestamp_us, const uint8_t* values);
  // Prints the summary of everything added:
  //   file:        PATH
  //   source:      ID (tag TAG)
  //   time span:   FIRST .. LAST us (SECONDS s)
  //   samples:     N
  //   sample rate: RATE /s      (n/a below two samples or a zero span)
  // then a table "counter first last max_increase" with one line per counter.
  // The increase is that of the unsigned value (signed for INT64, real for
  // FP64); a decrease (a reset or wrap) counts as no increase; other types
  // print "-".
  void Print(FILE* out, const std::string& path, const dtl_data_file_header_t& header) const;

 private:
  struct Stats {
    std::string first, last;
    uint64_t prev_u = 0, max_u = 0;
    int64_t prev_s = 0;
    uint64_t max_s = 0;  // differences of signed values fit an unsigned word
    double prev_d = 0, max_d = 0;
  };

  std::vector<CounterColumn> columns_;
  std::vector<Stats> stats_;
  uint64_t samples_ = 0;
  uint64_t first_ts_ = 0;
  uint64_t last_ts_ = 0;
};

}  // namespace dtl::read
