// Starting and stopping the workers as one (all or none), the port probe,
// the summed statistics and the session key helpers.
#include "ipfix/ipfix_receiver.h"

#include <arpa/inet.h>
#include <errno.h>
#include <time.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <exception>
#include <utility>

#include "dtl_logger.h"

namespace dtl::ipfix {

namespace {

IpfixRecvWorker::Stats SumStats(const std::vector<std::unique_ptr<IpfixRecvWorker>>& workers) {
  IpfixRecvWorker::Stats total;
  for (const auto& worker : workers) {
    const IpfixRecvWorker::Stats stats = worker->GetStats();
    total.packets_received += stats.packets_received;
    total.parsed += stats.parsed;
    total.errors += stats.errors;
    total.bytes += stats.bytes;
    total.batches += stats.batches;
    total.sessions += stats.sessions;
    total.kernel_waits += stats.kernel_waits;
  }
  return total;
}

}  // namespace

IpfixReceiver::IpfixReceiver(const Config& config, std::unique_ptr<IpfixSessionSink> sink)
    : config_(config), sink_(std::move(sink)) {}

IpfixReceiver::~IpfixReceiver() { Stop(); }

bool IpfixReceiver::Start() {
  if (running_.exchange(true)) {
    DTL_LOG_WARNING("[IPFIX receiver] Receiver already running");
    return true;
  }
  const size_t count = config_.workers == 0 ? 1 : static_cast<size_t>(config_.workers);
  DTL_LOG_INFO("[IPFIX receiver] Starting IPFIX receiver on UDP port %u with %zu worker(s)",
               static_cast<unsigned>(config_.port), count);

  last_error_.clear();

  IpfixRecvWorker::Config worker_config;
  worker_config.port = config_.port;
  worker_config.max_sessions = config_.max_sessions;
  worker_config.recv_buffer_size = config_.recv_buffer_size;
  worker_config.busy_poll_us = config_.busy_poll_us;
  worker_config.backoff_min_us = config_.backoff_min_us;
  worker_config.backoff_max_us = config_.backoff_max_us;
  worker_config.bind_device = config_.bind_device;
  worker_config.session_timeout_sec = config_.session_timeout_sec;
  // Socket buffer sizes are ints; a larger setting is cut to INT_MAX here so
  // that every worker uses (and reports) the value the kernel is given.
  if (worker_config.recv_buffer_size > static_cast<uint64_t>(INT_MAX)) {
    DTL_LOG_WARNING("[IPFIX receiver] recv_buffer_size %lu exceeds the socket limit, using %d",
                    static_cast<unsigned long>(config_.recv_buffer_size), INT_MAX);
    worker_config.recv_buffer_size = static_cast<uint64_t>(INT_MAX);
  }

  // The workers bind with SO_REUSEPORT, so a second collector on this port
  // (or a stale run of this one) would bind beside them without an error
  // and take part of every exporter's stream. A bind without it fails while
  // any other socket holds the port; checked before storage is touched.
  const int probe_error = IpfixRecvWorker::ProbePortBind(worker_config);
  if (probe_error != 0) {
    last_error_ = "UDP port " + std::to_string(config_.port) +
                  (probe_error == EADDRINUSE ? " is already in use by another socket: "
                                             : " cannot be bound: ") +
                  strerror(probe_error);
    DTL_LOG_ERROR("[IPFIX receiver] %s — aborting start", last_error_.c_str());
    running_.store(false);
    return false;
  }

  if (sink_ && !sink_->Start()) {
    last_error_ = "the storage under '" + sink_->root() + "' cannot be used";
    DTL_LOG_ERROR("[IPFIX receiver] The storage under '%s' cannot be used — aborting start",
                  sink_->root().c_str());
    running_.store(false);
    return false;
  }

  workers_.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    auto worker = std::make_unique<IpfixRecvWorker>(i, worker_config, sink_.get(), &board_);
    if (worker->OpenSocket()) {
      workers_.push_back(std::move(worker));
      continue;
    }
    last_error_ = "worker " + std::to_string(i) + " cannot open its socket on UDP port " +
                  std::to_string(config_.port) + ": " + worker->socket_error();
    DTL_LOG_ERROR("[IPFIX receiver] Failed to open socket for worker %zu — aborting start", i);
    for (auto& opened : workers_) opened->CloseSocket();
    workers_.clear();
    if (sink_) sink_->Stop();
    running_.store(false);
    return false;
  }

  for (auto& worker : workers_) worker->Start();

  stats_thread_ = std::thread([this]() {
    dtl_set_thread_name("ipfix_stats");
    try {
      StatsLoggerLoop();
    } catch (const std::exception& e) {
      DTL_LOG_ERROR("[IPFIX receiver] Stats logger thread exception: %s", e.what());
    }
  });

  DTL_LOG_INFO("[IPFIX receiver] IPFIX receiver started (%zu workers)", workers_.size());
  return true;
}

void IpfixReceiver::Stop() {
  {
    std::lock_guard lock(stop_mutex_);
    if (!running_.exchange(false)) return;
  }
  stop_cv_.notify_all();
  DTL_LOG_INFO("[IPFIX receiver] Stopping IPFIX receiver (%zu workers)", workers_.size());

  if (stats_thread_.joinable()) stats_thread_.join();

  // Each pass covers all workers before the next one starts, so no socket
  // is still read while another worker's sessions are already drained.
  for (auto& worker : workers_) worker->ShutdownSocket();
  for (auto& worker : workers_) worker->Stop();
  for (auto& worker : workers_) worker->Drain();
  const std::vector<uint64_t> drops = KernelDrops();
  for (auto& worker : workers_) worker->CloseSocket();

  const IpfixRecvWorker::Stats total = SumStats(workers_);
  DTL_LOG_DEBUG("[IPFIX receiver] final counters: packets_received=%lu parsed=%lu errors=%lu bytes=%lu",
                static_cast<unsigned long>(total.packets_received), static_cast<unsigned long>(total.parsed),
                static_cast<unsigned long>(total.errors), static_cast<unsigned long>(total.bytes));

  workers_.clear();
  // Storage writes what it still holds first: the final lines count it.
  if (sink_) sink_->Stop();
  board_.Report(drops, true);
  DTL_LOG_INFO("[IPFIX receiver] IPFIX receiver stopped");
}

std::vector<uint64_t> IpfixReceiver::KernelDrops() const {
  std::vector<uint64_t> drops;
  drops.reserve(workers_.size());
  for (const auto& worker : workers_) drops.push_back(worker->KernelDrops());
  return drops;
}

IpfixRecvWorker::Stats IpfixReceiver::GetStats() const { return SumStats(workers_); }

void IpfixReceiver::StatsLoggerLoop() {
  const auto interval = std::chrono::seconds(config_.status_interval_sec);
  auto next = std::chrono::steady_clock::now() + interval;
  std::unique_lock lock(stop_mutex_);
  while (running_.load()) {
    // Without an interval the thread only waits for stop: the final report
    // is made by Stop itself.
    if (config_.status_interval_sec == 0) {
      stop_cv_.wait(lock, [this] { return !running_.load(); });
      return;
    }
    if (stop_cv_.wait_until(lock, next, [this] { return !running_.load(); })) return;
    lock.unlock();
    board_.Report(KernelDrops(), false);
    lock.lock();
    // From the previous deadline, so the lines keep a steady rhythm.
    next += interval;
  }
}

SessionKey IpfixReceiver::MakeSessionKey(const sockaddr_in6& from, uint32_t observation_domain_id) {
  SessionKey key;
  std::memcpy(key.bytes, &from.sin6_port, 2);
  std::memcpy(key.bytes + 2, &observation_domain_id, 4);
  const uint8_t* address = from.sin6_addr.s6_addr;
  static constexpr uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  if (std::memcmp(address, kMappedPrefix, sizeof(kMappedPrefix)) == 0) {
    std::memcpy(key.bytes + 6, address + 12, 4);
    key.length = SessionKey::kIpv4Length;
  } else {
    std::memcpy(key.bytes + 6, address, 16);
    key.length = SessionKey::kIpv6Length;
  }
  return key;
}

std::string IpfixReceiver::SessionKeyIpString(const SessionKey& key) {
  char text[46] = {};
  const int family = key.length == SessionKey::kIpv4Length ? AF_INET : AF_INET6;
  if (inet_ntop(family, key.bytes + 6, text, sizeof(text)) == nullptr) return std::string();
  return std::string(text);
}

uint16_t IpfixReceiver::SessionKeyPort(const SessionKey& key) {
  uint16_t port;
  std::memcpy(&port, key.bytes, 2);
  return ntohs(port);
}

uint32_t IpfixReceiver::SessionKeyDomainId(const SessionKey& key) {
  uint32_t domain;
  std::memcpy(&domain, key.bytes + 2, 4);
  return domain;
}

}  // namespace dtl::ipfix
