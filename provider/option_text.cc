#include "provider/option_text.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <numeric>

#include "dtl_logger.h"

namespace dtl::ipfix {

namespace {

bool IsNumericAddress(const std::string& text) {
  in_addr v4;
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return true;
  in6_addr v6;
  return inet_pton(AF_INET6, text.c_str(), &v6) == 1;
}

std::string Lower(const std::string& text) {
  std::string lower = text;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

}  // namespace

std::string ResolveHostAddress(const std::string& text) {
  if (text.empty() || IsNumericAddress(text)) return text;

  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* result = nullptr;
  const int rc = getaddrinfo(text.c_str(), nullptr, &hints, &result);
  if (rc != 0 || result == nullptr) {
    DTL_LOG_ERROR("[Utils] [%s] getaddrinfo() failed: %s", "dtl_utils_get_host_ip",
                  gai_strerror(rc));
    DTL_LOG_WARNING("[ipfix bin data provider] DNS resolution failed for '%s' — using as-is",
                    text.c_str());
    if (result != nullptr) freeaddrinfo(result);
    return text;
  }

  // Only the first answer counts, as a switch takes one collector address.
  char buffer[1025] = {};
  const void* address =
      result->ai_family == AF_INET6
          ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(result->ai_addr)->sin6_addr)
          : static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(result->ai_addr)->sin_addr);
  inet_ntop(result->ai_family == AF_INET6 ? AF_INET6 : AF_INET, address, buffer, sizeof(buffer));
  freeaddrinfo(result);
  DTL_LOG_INFO("[ipfix bin data provider] Resolved '%s' -> %s", text.c_str(), buffer);
  return buffer;
}

std::vector<std::string> SplitCommaList(const std::string& text) {
  std::vector<std::string> items;
  size_t begin = 0;
  while (begin <= text.size()) {
    size_t end = text.find(',', begin);
    if (end == std::string::npos) end = text.size();
    if (end > begin) items.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return items;
}

std::optional<bool> ParseBoolText(const std::string& text) {
  const std::string word = Lower(text);
  if (word == "true" || word == "yes" || word == "on" || word == "1") return true;
  if (word == "false" || word == "no" || word == "off" || word == "0") return false;
  return std::nullopt;
}

std::optional<uint64_t> ParseUnsignedText(const std::string& text) {
  if (text.empty()) return std::nullopt;
  uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (value > (UINT64_MAX - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  return value;
}

std::optional<uint64_t> ParseSizeText(const std::string& text) {
  const size_t digits_end = text.find_first_not_of("0123456789");
  const std::optional<uint64_t> number = ParseUnsignedText(text.substr(0, digits_end));
  if (!number) return std::nullopt;
  if (digits_end == std::string::npos) return number;

  // The unit is not empty here: a character that is no digit ended the number.
  const std::string unit = Lower(text.substr(digits_end));
  static const std::string kPrefixes = "kmgt";
  const size_t prefix = kPrefixes.find(unit[0]);
  unsigned shift = 0;
  if (prefix != std::string::npos) {
    shift = 10 * static_cast<unsigned>(prefix + 1);
    const std::string rest = unit.substr(1);
    if (rest != "" && rest != "b" && rest != "ib") return std::nullopt;
  } else if (unit != "b") {
    return std::nullopt;
  }
  if (shift != 0 && *number > (UINT64_MAX >> shift)) return std::nullopt;
  return *number << shift;
}

size_t EditDistance(const std::string& a, const std::string& b) {
  // One row of the classic table at a time.
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

}  // namespace dtl::ipfix
