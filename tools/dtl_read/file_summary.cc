#include "tools/dtl_read/file_summary.h"

#include <algorithm>
#include <cstring>

#include "dtl_counters.h"
#include "tools/dtl_read/value_text.h"

namespace dtl::read {

FileSummary::FileSummary(std::vector<CounterColumn> columns)
    : columns_(std::move(columns)), stats_(columns_.size()) {}

void FileSummary::Add(uint64_t timestamp_us, const uint8_t* values) {
  if (samples_ == 0) first_ts_ = timestamp_us;
  last_ts_ = timestamp_us;
  for (size_t i = 0; i < columns_.size(); ++i) {
    const CounterColumn& c = columns_[i];
    Stats& s = stats_[i];
    const uint8_t* p = values + c.offset;
    s.last = FormatValue(c, values);
    if (samples_ == 0) s.first = s.last;
    const ValueKind kind = KindOf(c);
    if (kind == ValueKind::kUnsigned) {
      uint64_t v;
      std::memcpy(&v, p, 8);
      if (samples_ > 0 && v > s.prev_u) s.max_u = std::max(s.max_u, v - s.prev_u);
      s.prev_u = v;
    } else if (kind == ValueKind::kSigned) {
      int64_t v;
      std::memcpy(&v, p, 8);
      if (samples_ > 0 && v > s.prev_s) {
        s.max_s = std::max(s.max_s, static_cast<uint64_t>(v) - static_cast<uint64_t>(s.prev_s));
      }
      s.prev_s = v;
    } else if (kind == ValueKind::kReal) {
      double v;
      std::memcpy(&v, p, 8);
      if (samples_ > 0 && v > s.prev_d) s.max_d = std::max(s.max_d, v - s.prev_d);
      s.prev_d = v;
    }
  }
  ++samples_;
}

void FileSummary::Print(FILE* out, const std::string& path,
                        const dtl_data_file_header_t& header) const {
  const std::string source(header.source_id, strnlen(header.source_id, sizeof header.source_id));
  const std::string tag(header.source_tag, strnlen(header.source_tag, sizeof header.source_tag));
  fprintf(out, "file:        %s\n", path.c_str());
  fprintf(out, "source:      %s (tag %s)\n", source.c_str(), tag.c_str());
  const uint64_t span = samples_ > 0 ? last_ts_ - first_ts_ : 0;
  fprintf(out, "time span:   %llu .. %llu us (%.6f s)\n",
          static_cast<unsigned long long>(first_ts_), static_cast<unsigned long long>(last_ts_),
          static_cast<double>(span) / 1e6);
  fprintf(out, "samples:     %llu\n", static_cast<unsigned long long>(samples_));
  if (samples_ >= 2 && last_ts_ > first_ts_) {
    fprintf(out, "sample rate: %.3f /s\n",
            static_cast<double>(samples_ - 1) * 1e6 / static_cast<double>(span));
  } else {
    fprintf(out, "sample rate: n/a\n");
  }

  std::vector<std::string> increases(columns_.size(), "-");
  size_t name_w = 7, first_w = 5, last_w = 4;
  for (size_t i = 0; i < columns_.size(); ++i) {
    const Stats& s = stats_[i];
    const ValueKind kind = KindOf(columns_[i]);
    if (samples_ > 0 && kind == ValueKind::kUnsigned) increases[i] = std::to_string(s.max_u);
    if (samples_ > 0 && kind == ValueKind::kSigned) increases[i] = std::to_string(s.max_s);
    if (samples_ > 0 && kind == ValueKind::kReal) {
      char buf[32];
      increases[i].assign(buf, AppendShortest(buf, s.max_d));
    }
    name_w = std::max(name_w, columns_[i].column.size());
    first_w = std::max(first_w, s.first.size());
    last_w = std::max(last_w, s.last.size());
  }
  const int nw = static_cast<int>(name_w), fw = static_cast<int>(first_w),
            lw = static_cast<int>(last_w);
  fprintf(out, "%-*s  %*s  %*s  %s\n", nw, "counter", fw, "first", lw, "last", "max_increase");
  for (size_t i = 0; i < columns_.size(); ++i) {
    fprintf(out, "%-*s  %*s  %*s  %s\n", nw, columns_[i].column.c_str(), fw,
            stats_[i].first.c_str(), lw, stats_[i].last.c_str(), increases[i].c_str());
  }
}

}  // namespace dtl::read
