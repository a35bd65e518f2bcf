// The simulator's UDP side: one unconnected socket per exporter (so each has
// its own source port) sending to one collector address with sendmmsg.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace dtl::hftsim {

using Datagram = std::vector<uint8_t>;

struct SendStats {
  uint64_t datagrams = 0;
  uint64_t bytes = 0;
  uint64_t errors = 0;
};

class UdpSender {
 public:
  // Datagrams handed to the kernel in one sendmmsg call at most.
  static constexpr size_t kBatch = 64;

  UdpSender() = default;
  ~UdpSender();
  UdpSender(const UdpSender&) = delete;
  UdpSender& operator=(const UdpSender&) = delete;

  // Resolves host and port (numeric or by name) and opens one socket per
  // exporter for the address family of the result; socket i is bound to
  // source_port + i unless source_port is 0. False with a reason.
  bool Open(const std::string& host, uint16_t port, size_t sockets, uint16_t source_port,
            std::string& error);
  void Close();

  // Sends every datagram on the given socket, in order. A datagram the kernel
  // refuses counts as an error and is skipped; an interrupted call is retried
  // unless *stop is set, in which case the rest is abandoned.
  SendStats Send(size_t socket_index, const std::vector<Datagram>& datagrams, const std::atomic<bool>& stop);

  // The resolved collector address in text form ("[v6]:port" for IPv6).
  const std::string& target_text() const { return target_text_; }

 private:
  std::vector<int> fds_;
  sockaddr_storage target_{};
  socklen_t target_length_ = 0;
  std::string target_text_;
  std::vector<mmsghdr> messages_;
  std::vector<iovec> iovecs_;
};

}  // namespace dtl::hftsim
