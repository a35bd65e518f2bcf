// Helpers for the receive-path tests: a thread-safe log capture, a sink that
// records what the workers tell it, loopback UDP senders and bounded waits.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/free_udp_port.h"
#include "support/log_capture.h"
#include "support/wait_for.h"
#include "dtl_logger.h"
#include "storage/ipfix_session_sink.h"

namespace recv_test {

using dtl_test::LogCapture;

// Remembers lifecycle calls and removed sessions; stores nothing.
class CountingSink : public dtl::ipfix::IpfixSessionSink {
 public:
  bool Start() override {
    ++starts;
    return true;
  }
  void Stop() override { ++stops; }
  const std::string& root() const override { return root_; }
  void ProcessSchemaUpdate(size_t, const std::string&, const dtl::ipfix::SchemaSnapshot&) override {}
  uint8_t* AcquireRecordValueSlot(size_t, const std::string&, uint32_t, uint32_t, uint64_t) override {
    return nullptr;
  }
  void CommitRecord(size_t, const std::string&, uint64_t) override {}
  void RemoveSession(size_t worker_id, const std::string& key) override {
    std::lock_guard<std::mutex> lock(mutex_);
    removed_.emplace_back(worker_id, key);
  }
  std::vector<std::pair<size_t, std::string>> removed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return removed_;
  }

  std::atomic<int> starts{0};
  std::atomic<int> stops{0};

 private:
  std::string root_;
  mutable std::mutex mutex_;
  std::vector<std::pair<size_t, std::string>> removed_;
};

using dtl_test::WaitFor;

// A UDP port that was free a moment ago.
using dtl_test::FreeUdpPort;

// A loopback sender on a dual-stack socket: bound to "::ffff:127.0.0.1" it
// sends over IPv4, bound to "::1" over native IPv6.
class UdpSender {
 public:
  explicit UdpSender(const char* loopback = "::ffff:127.0.0.1") {
    local_.sin6_family = AF_INET6;
    fd_ = socket(AF_INET6, SOCK_DGRAM, 0);
    socklen_t length = sizeof(local_);
    ok_ = fd_ >= 0 && inet_pton(AF_INET6, loopback, &local_.sin6_addr) == 1 &&
          bind(fd_, reinterpret_cast<sockaddr*>(&local_), sizeof(local_)) == 0 &&
          getsockname(fd_, reinterpret_cast<sockaddr*>(&local_), &length) == 0;
  }
  ~UdpSender() {
    if (fd_ >= 0) close(fd_);
  }
  UdpSender(const UdpSender&) = delete;
  UdpSender& operator=(const UdpSender&) = delete;

  bool ok() const { return ok_; }
  // The sender's address as the dual-stack receiver sees it.
  const sockaddr_in6& SeenAs() const { return local_; }

  bool Send(uint16_t port, const std::vector<uint8_t>& bytes) const {
    sockaddr_in6 to = local_;
    to.sin6_port = htons(port);
    return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                  sizeof(to)) == static_cast<ssize_t>(bytes.size());
  }

 private:
  sockaddr_in6 local_{};
  int fd_ = -1;
  bool ok_ = false;
};

}  // namespace recv_test
