// Per-second rates of counters between consecutive samples. Unsigned
// counters (UINT64 or UNDEFINED, 1, 2, 4 or 8 bytes) wrap at their width; a
// step back of more than half the width is a reset and gives no rate. INT64
// and FP64 counters give their signed change. Samples at or before the
// latest time seen are left out (late or repeated), and the first sample of
// a run gives no row.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/dtl_read/counter_schema.h"

namespace dtl::read {

class RateCalculator {
 public:
  // The columns a rate is computed for, in their order; the others (bit
  // fields, text, 128-bit values, odd lengths) are left out.
  static std::vector<CounterColumn> RatedColumns(const std::vector<CounterColumn>& columns);
  // Whether two files' rated columns are the same counters (by column name,
  // type and length), so that a run may go on from one to the other.
  static bool SameColumns(const std::vector<CounterColumn>& a, const std::vector<CounterColumn>& b);

  // Where the rated columns lie in the blocks to come (of RatedColumns);
  // the run's last sample is kept.
  void SetColumns(std::vector<CounterColumn> rated);
  const std::vector<CounterColumn>& columns() const { return columns_; }
  // Forgets the last sample: the next one starts a new run.
  void Restart() { have_previous_ = false; }

  // Takes a sample in file order; true when it gives a row, whose rates
  // (NaN where there is none) are then in rates().
  bool Add(uint64_t timestamp_us, const uint8_t* values);
  const double* rates() const { return rates_.data(); }

 private:
  enum class Rule { kUnsigned, kSigned, kReal };
  struct Counter {
    Rule rule;
    uint32_t offset;
    uint32_t length;
    uint64_t mask;  // of the unsigned width
  };

  std::vector<CounterColumn> columns_;
  std::vector<Counter> counters_;
  std::vector<uint64_t> previous_;  // raw value bits of the last kept sample
  std::vector<double> rates_;
  bool have_previous_ = false;
  uint64_t previous_us_ = 0;
};

}  // namespace dtl::read
