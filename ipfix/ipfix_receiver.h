// The IPFIX collector's UDP side: N receive workers sharing one port, the
// statistics thread that logs their counters, and the sink that the workers'
// sessions hand decoded data to (storage, known only through its interface).
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ipfix/ipfix_recv_worker.h"
#include "ipfix/session_status.h"
#include "storage/ipfix_session_sink.h"
#include "ipfix/session_key.h"

namespace dtl::ipfix {

class IpfixReceiver {
 public:
  struct Config {
    uint16_t port = 4739;
    uint64_t max_sessions = 256;
    uint64_t recv_buffer_size = 33554432;
    uint64_t workers = 4;  // 0 is taken as 1
    uint32_t busy_poll_us = 80;
    uint32_t backoff_min_us = 20;
    uint32_t backoff_max_us = 100;
    std::string bind_device;
    uint32_t session_timeout_sec = 300;
    // Seconds between status reports (a line per session and one for the
    // collector); 0 reports only at stop.
    uint32_t status_interval_sec = 10;
  };

  // Opens nothing and starts nothing. Without a sink nothing is stored.
  explicit IpfixReceiver(const Config& config, std::unique_ptr<IpfixSessionSink> sink = nullptr);
  ~IpfixReceiver();

  IpfixReceiver(const IpfixReceiver&) = delete;
  IpfixReceiver& operator=(const IpfixReceiver&) = delete;

  // Makes sure no other socket holds the port, starts the sink, opens every
  // worker's socket (all or none), starts the workers and the statistics
  // thread. True when running (a second call only warns); false, with an
  // error logged, last_error() set and nothing left running, when the port
  // is held by another socket (even one that would share it through
  // SO_REUSEPORT: the kernel would then split the exporters' streams between
  // the two holders), the sink cannot start (storage unusable) or a socket
  // cannot be opened.
  bool Start();
  // Stops and drains every worker, then the sink. Safe to call twice.
  void Stop();
  bool running() const { return running_.load(); }
  // Why the last Start failed, naming the port or storage and the reason;
  // empty after a successful start. Read it on the thread that called Start.
  const std::string& last_error() const { return last_error_; }

  // Sum of the workers' counters (zero when stopped).
  IpfixRecvWorker::Stats GetStats() const;

  static SessionKey MakeSessionKey(const sockaddr_in6& from, uint32_t observation_domain_id);
  static std::string SessionKeyIpString(const SessionKey& key);
  static uint16_t SessionKeyPort(const SessionKey& key);
  static uint32_t SessionKeyDomainId(const SessionKey& key);

  // Body of the status thread: reports every status_interval_sec.
  void StatsLoggerLoop();
  // Each worker socket's kernel drop count (sockets still open).
  std::vector<uint64_t> KernelDrops() const;

 private:
  Config config_;
  std::unique_ptr<IpfixSessionSink> sink_;
  SessionStatusBoard board_;
  // Wakes the status thread at stop.
  std::mutex stop_mutex_;
  std::condition_variable stop_cv_;
  std::vector<std::unique_ptr<IpfixRecvWorker>> workers_;
  std::thread stats_thread_;
  std::atomic<bool> running_{false};
  std::string last_error_;
};

}  // namespace dtl::ipfix
