#include "tools/dtl_read/time_window.h"

#include <algorithm>

namespace dtl::read {

namespace {

// Stored times are unsigned; a bound before the epoch precedes them all.
bool Before(uint64_t timestamp_us, int64_t bound) {
  return bound > 0 && timestamp_us < static_cast<uint64_t>(bound);
}

// First block in [0, end) whose time is not before `bound`, assuming the
// times ascend.
bool LowerBound(DataFileReader& reader, uint64_t end, int64_t bound, uint64_t* found, std::string* error) {
  uint64_t lo = 0, hi = end;
  while (lo < hi) {
    const uint64_t mid = lo + (hi - lo) / 2;
    uint64_t ts = 0;
    if (!reader.TimestampAt(mid, &ts, error)) return false;
    if (Before(ts, bound)) lo = mid + 1;
    else hi = mid;
  }
  *found = lo;
  return true;
}

}  // namespace

bool TimeWindow::Contains(uint64_t timestamp_us) const {
  return !(from && Before(timestamp_us, *from)) && !(to && !Before(timestamp_us, *to));
}

bool TimeWindow::Overlaps(uint64_t first_us, uint64_t last_us) const {
  return !(from && Before(last_us, *from)) && !(to && !Before(first_us, *to));
}

bool FindBlockRange(DataFileReader& reader, const TimeWindow& window, uint64_t* first, uint64_t* end,
                    std::string* error) {
  const uint64_t blocks = reader.DataEnd();
  *first = 0;
  *end = blocks;
  uint64_t found = 0;
  if (window.from) {
    if (!LowerBound(reader, blocks, *window.from, &found, error)) return false;
    *first = found > kWindowSlackBlocks ? found - kWindowSlackBlocks : 0;
  }
  if (window.to) {
    if (!LowerBound(reader, blocks, *window.to, &found, error)) return false;
    *end = std::min(blocks, found + kWindowSlackBlocks);
  }
  return true;
}

}  // namespace dtl::read
