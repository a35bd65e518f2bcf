#include "tools/hft_sim/udp_sender.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace dtl::hftsim {

namespace {

// A deep send buffer lets bursts at full speed queue in the kernel instead of
// blocking the generator on every batch.
constexpr int kSendBufferBytes = 4 * 1024 * 1024;

std::string AddressText(const sockaddr_storage& address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET6) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
    inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof(text));
    std::string result = "[";
    result += text;
    result += "]:";
    result += std::to_string(ntohs(v6->sin6_port));
    return result;
  }
  const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
  inet_ntop(AF_INET, &v4->sin_addr, text, sizeof(text));
  return std::string(text) + ":" + std::to_string(ntohs(v4->sin_port));
}

// Binds fd to the wildcard address of its family at port. SO_REUSEADDR lets
// a run that follows another take the same port at once.
bool BindSourcePort(int fd, int family, uint16_t port, std::string& error) {
  const int on = 1;
  (void)::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_storage local{};
  socklen_t length = 0;
  if (family == AF_INET6) {
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&local);
    v6->sin6_family = AF_INET6;
    v6->sin6_addr = in6addr_any;
    v6->sin6_port = htons(port);
    length = sizeof(sockaddr_in6);
  } else {
    auto* v4 = reinterpret_cast<sockaddr_in*>(&local);
    v4->sin_family = AF_INET;
    v4->sin_addr.s_addr = htonl(INADDR_ANY);
    v4->sin_port = htons(port);
    length = sizeof(sockaddr_in);
  }
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), length) != 0) {
    error = "cannot bind source port " + std::to_string(port) + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace

UdpSender::~UdpSender() { Close(); }

void UdpSender::Close() {
  for (int fd : fds_) ::close(fd);
  fds_.clear();
}

bool UdpSender::Open(const std::string& host, uint16_t port, size_t sockets, uint16_t source_port,
                     std::string& error) {
  Close();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_protocol = IPPROTO_UDP;
  addrinfo* results = nullptr;
  const std::string service = std::to_string(port);
  const int rc = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &results);
  if (rc != 0 || results == nullptr) {
    error = "cannot resolve '" + host + "': " + ::gai_strerror(rc);
    return false;
  }
  std::memcpy(&target_, results->ai_addr, results->ai_addrlen);
  target_length_ = results->ai_addrlen;
  const int family = results->ai_family;
  ::freeaddrinfo(results);
  target_text_ = AddressText(target_);

  for (size_t i = 0; i < sockets; ++i) {
    const int fd = ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 0) {
      error = std::string("cannot open UDP socket: ") + std::strerror(errno);
      Close();
      return false;
    }
    fds_.push_back(fd);
    int size = kSendBufferBytes;
    // Best effort: the kernel caps it at its configured maximum.
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    if (source_port != 0 && !BindSourcePort(fd, family, static_cast<uint16_t>(source_port + i), error)) {
      Close();
      return false;
    }
  }
  return true;
}

SendStats UdpSender::Send(size_t socket_index, const std::vector<Datagram>& datagrams,
                          const std::atomic<bool>& stop) {
  SendStats stats;
  if (socket_index >= fds_.size()) {
    stats.errors = datagrams.size();
    return stats;
  }
  const int fd = fds_[socket_index];
  size_t next = 0;
  while (next < datagrams.size()) {
    const size_t count = std::min(kBatch, datagrams.size() - next);
    messages_.assign(count, mmsghdr{});
    iovecs_.resize(count);
    for (size_t i = 0; i < count; ++i) {
      const Datagram& datagram = datagrams[next + i];
      iovecs_[i].iov_base = const_cast<uint8_t*>(datagram.data());
      iovecs_[i].iov_len = datagram.size();
      msghdr& header = messages_[i].msg_hdr;
      header.msg_name = &target_;
      header.msg_namelen = target_length_;
      header.msg_iov = &iovecs_[i];
      header.msg_iovlen = 1;
    }
    const int sent = ::sendmmsg(fd, messages_.data(), static_cast<unsigned>(count), 0);
    if (sent < 0) {
      if (errno == EINTR) {
        if (stop.load(std::memory_order_relaxed)) break;
        continue;
      }
      // The first datagram of the batch was refused; skip it and go on.
      ++stats.errors;
      ++next;
      continue;
    }
    for (int i = 0; i < sent; ++i) {
      ++stats.datagrams;
      stats.bytes += datagrams[next + static_cast<size_t>(i)].size();
    }
    next += static_cast<size_t>(sent);
  }
  return stats;
}

}  // namespace dtl::hftsim
