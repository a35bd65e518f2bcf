// A window of sample times, from (inclusive) to (exclusive), and the range
// of a data file's blocks that can hold its samples, found by bisection
// over the blocks' times rather than by reading the file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/dtl_read/data_file_reader.h"

namespace dtl::read {

// Blocks searched beyond the bisection's bounds on either side: samples
// stored slightly out of time order still fall into the range.
inline constexpr uint64_t kWindowSlackBlocks = 64;

struct TimeWindow {
  std::optional<int64_t> from;  // microseconds since the epoch
  std::optional<int64_t> to;

  bool bounded() const { return from.has_value() || to.has_value(); }
  bool Contains(uint64_t timestamp_us) const;
  // Whether samples between first and last (inclusive) can lie in it.
  bool Overlaps(uint64_t first_us, uint64_t last_us) const;
};

// Blocks [*first, *end) of the file's data blocks (DataEnd) to read for
// the window: the first block whose time is not before `from` and the first
// whose time is not before `to`, as if the times were sorted, each moved
// outwards by kWindowSlackBlocks. Every row of the range still has to be
// checked with Contains.
bool FindBlockRange(DataFileReader& reader, const TimeWindow& window, uint64_t* first, uint64_t* end,
                    std::string* error);

}  // namespace dtl::read
