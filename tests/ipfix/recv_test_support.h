// Helpers for the reception tests: exporter addresses and loopback senders.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "support/free_udp_port.h"
#include "support/log_capture.h"
#include "support/wait_for.h"

namespace recv_test {

using dtl_test::FreeUdpPort;
using dtl_test::LogCapture;
using dtl_test::WaitFor;

// An exporter's address as the dual-stack receive socket reports it.
inline sockaddr_in6 From(const char* address, uint16_t port) {
  sockaddr_in6 from{};
  from.sin6_family = AF_INET6;
  from.sin6_port = htons(port);
  inet_pton(AF_INET6, address, &from.sin6_addr);
  return from;
}

// A loopback sender on a dual-stack socket: bound to "::ffff:127.0.0.1" it
// sends over IPv4, bound to "::1" over native IPv6.
class UdpSender {
 public:
  explicit UdpSender(const char* loopback = "::ffff:127.0.0.1") : local_(From(loopback, 0)) {
    socklen_t length = sizeof(local_);
    ok_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&local_), sizeof(local_)) == 0 &&
          getsockname(fd_, reinterpret_cast<sockaddr*>(&local_), &length) == 0;
  }
  ~UdpSender() { close(fd_); }
  UdpSender(const UdpSender&) = delete;
  UdpSender& operator=(const UdpSender&) = delete;

  bool ok() const { return ok_; }
  // The sender's address as the receiver sees it.
  const sockaddr_in6& SeenAs() const { return local_; }
  bool Send(uint16_t port, const std::vector<uint8_t>& bytes) const {
    sockaddr_in6 to = local_;
    to.sin6_port = htons(port);
    return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) ==
           static_cast<ssize_t>(bytes.size());
  }

 private:
  sockaddr_in6 local_;
  int fd_ = socket(AF_INET6, SOCK_DGRAM, 0);
  bool ok_ = false;
};

}  // namespace recv_test
