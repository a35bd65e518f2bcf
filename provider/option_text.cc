#include "provider/option_text.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "dtl_logger.h"

namespace dtl::ipfix {

namespace {

bool IsNumericAddress(const std::string& text) {
  in_addr v4;
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return true;
  in6_addr v6;
  return inet_pton(AF_INET6, text.c_str(), &v6) == 1;
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

}  // namespace dtl::ipfix
