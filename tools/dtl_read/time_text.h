// Sample times as text: the ISO 8601 form the tools print (always UTC with
// six fraction digits) and the forms they accept for time windows.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace dtl::read {

// Characters AppendIsoTime writes for any time before the year 10000.
inline constexpr size_t kIsoTimeLength = 27;

// Writes YYYY-MM-DDTHH:MM:SS.ffffffZ for `us` microseconds since the epoch
// (more year digits past 9999) at out; returns the end.
char* AppendIsoTime(char* out, uint64_t us);
std::string IsoTime(uint64_t us);

// Reads a time bound: an integer of microseconds since the epoch, or
// YYYY-MM-DD, or YYYY-MM-DD(T| )HH:MM[:SS[.fraction]] with an optional zone
// (Z, +HH:MM, -HH:MM; none means UTC). Fractions finer than a microsecond
// are cut off. Times before the epoch come back negative. nullopt with the
// reason in error for anything else.
std::optional<int64_t> ParseTime(std::string_view text, std::string* error);

}  // namespace dtl::read
