#include "tools/dtl_read/rate_calculator.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "dtl_counters.h"

namespace dtl::read {

namespace {

// The rule of a column (0 unsigned, 1 signed, 2 real), or -1 when it gets
// no rate.
int RuleOf(const CounterColumn& c) {
  const bool unsigned_type = c.data_type == DTL_DATA_TYPE_UINT64 || c.data_type == DTL_DATA_TYPE_UNDEFINED;
  if (unsigned_type && (c.length == 1 || c.length == 2 || c.length == 4 || c.length == 8)) return 0;
  if (c.data_type == DTL_DATA_TYPE_INT64 && c.length == 8) return 1;
  if (c.data_type == DTL_DATA_TYPE_FP64 && c.length == 8) return 2;
  return -1;
}

}  // namespace

std::vector<CounterColumn> RateCalculator::RatedColumns(const std::vector<CounterColumn>& columns) {
  std::vector<CounterColumn> rated;
  for (const CounterColumn& c : columns)
    if (RuleOf(c) >= 0) rated.push_back(c);
  return rated;
}

bool RateCalculator::SameColumns(const std::vector<CounterColumn>& a, const std::vector<CounterColumn>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i].column != b[i].column || a[i].data_type != b[i].data_type || a[i].length != b[i].length) return false;
  return true;
}

void RateCalculator::SetColumns(std::vector<CounterColumn> rated) {
  columns_ = std::move(rated);
  counters_.clear();
  for (const CounterColumn& c : columns_) {
    const int rule = RuleOf(c);
    const uint64_t mask = c.length >= 8 ? ~uint64_t{0} : (uint64_t{1} << (8 * c.length)) - 1;
    counters_.push_back({static_cast<Rule>(rule), c.offset, c.length, mask});
  }
  if (previous_.size() != counters_.size()) have_previous_ = false;
  previous_.resize(counters_.size());
  rates_.resize(counters_.size());
}

bool RateCalculator::Add(uint64_t timestamp_us, const uint8_t* values) {
  if (have_previous_ && timestamp_us <= previous_us_) return false;
  const bool row = have_previous_;
  const double dt = static_cast<double>(timestamp_us - previous_us_);
  for (size_t i = 0; i < counters_.size(); ++i) {
    const Counter& c = counters_[i];
    uint64_t v = 0;
    std::memcpy(&v, values + c.offset, c.length);
    if (row) {
      const uint64_t p = previous_[i];
      double delta = 0;
      if (c.rule == Rule::kUnsigned) {
        // Modular difference at the counter's width; more than half the
        // width backwards is a reset, not a wrap.
        const uint64_t step = (v - p) & c.mask;
        delta = step > (c.mask >> 1) + 1 ? std::numeric_limits<double>::quiet_NaN() : static_cast<double>(step);
      } else if (c.rule == Rule::kSigned) {
        delta = static_cast<double>(static_cast<int64_t>(v)) - static_cast<double>(static_cast<int64_t>(p));
      } else {
        delta = std::bit_cast<double>(v) - std::bit_cast<double>(p);
      }
      rates_[i] = delta * 1e6 / dt;
    }
    previous_[i] = v;
  }
  have_previous_ = true;
  previous_us_ = timestamp_us;
  return row;
}

}  // namespace dtl::read
