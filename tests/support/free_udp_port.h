// An ephemeral UDP port that is free right now (dual-stack), or 0 when none
// could be had. Tests bind their receivers to it.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace dtl_test {

inline uint16_t FreeUdpPort() {
  const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_any;
  socklen_t length = sizeof(address);
  uint16_t port = 0;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    port = ntohs(address.sin6_port);
  if (fd >= 0) close(fd);
  return port;
}

}  // namespace dtl_test
