// Small text helpers used while reading the provider's options: host names
// turned into numeric addresses, and comma-separated option lists.
#pragma once

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

}  // namespace dtl::ipfix
