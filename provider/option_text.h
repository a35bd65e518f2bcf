// Small text helpers used while reading the provider's options: host names
// turned into numeric addresses, comma-separated option lists, the strict
// conversions of option values, and the distance used to suggest the key a
// misspelt one was meant to be.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace dtl::ipfix {

// A numeric IPv4/IPv6 address (or empty text) is returned as is; a host name
// becomes the first address getaddrinfo gives for it, or stays unchanged
// (after an error and a warning line) when it does not resolve.
std::string ResolveHostAddress(const std::string& text);

// The pieces between commas, in order, without the empty ones. Blanks are
// kept as they are.
std::vector<std::string> SplitCommaList(const std::string& text);

// true/yes/on/1 and false/no/off/0, in any letter case; nothing else.
std::optional<bool> ParseBoolText(const std::string& text);

// Decimal digits only (no sign, no blanks), within 64 bits.
std::optional<uint64_t> ParseUnsignedText(const std::string& text);

// A byte count: decimal digits, optionally followed by K, M, G or T
// (powers of 1024, any letter case), which may carry a trailing B or iB
// ("10G", "10GB", "10GiB"); a bare trailing B is allowed too. Nothing when
// the result does not fit 64 bits.
std::optional<uint64_t> ParseSizeText(const std::string& text);

// Levenshtein distance: single-character insertions, deletions and
// substitutions needed to turn a into b.
size_t EditDistance(const std::string& a, const std::string& b);

}  // namespace dtl::ipfix
