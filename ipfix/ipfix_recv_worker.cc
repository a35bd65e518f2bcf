// One receive worker: its socket on the shared port, the recvmmsg loop with
// busy polling and back-off, and the dispatch of each message to its session.
#include "ipfix/ipfix_recv_worker.h"

#include <errno.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>
#include <vector>

#include "dtl_logger.h"
#include "ipfix/ipfix_receiver.h"
#include "ipfix/ipfix_session.h"
#include "storage/ipfix_session_sink.h"
#include "ipfix/message_parser.h"
#include "ipfix/session_status.h"

namespace dtl::ipfix {

namespace {

// The statistics counters have one writer, this worker; a relaxed load and
// store keep them readable from the statistics thread without the locked
// read-modify-write of fetch_add on every datagram.
inline void Bump(std::atomic<uint64_t>& counter, uint64_t by) {
  counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

uint16_t ReadU16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

constexpr socklen_t kAddressLength = sizeof(sockaddr_in6);
static_assert(kAddressLength == 28);
static_assert(sizeof(sockaddr_in6) <= IpfixRecvWorker::kSlotSize - IpfixRecvWorker::kSlotDataSize);

// The socket layer takes int option values; larger settings are cut to
// INT_MAX (the receiver warns about that once per start).
int ClampToInt(uint64_t value) {
  return static_cast<int>(std::min<uint64_t>(value, static_cast<uint64_t>(INT_MAX)));
}

}  // namespace

IpfixRecvWorker::IpfixRecvWorker(size_t index, const Config& config, IpfixSessionSink* sink,
                                 SessionStatusBoard* board)
    : index_(index), config_(config), sink_(sink), board_(board) {
  constexpr size_t kBytes = kBatchSize * kSlotSize;
  static_assert(kBytes % 64 == 0);
  // 16 MiB per worker, left untouched: an allocation this large is fresh
  // anonymous memory, and only the pages datagrams are written to become
  // resident (a few per slot at most, none while idle).
  slots_.reset(static_cast<uint8_t*>(std::aligned_alloc(64, kBytes)));
  if (!slots_) throw std::bad_alloc();
  stop_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stop_fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

IpfixRecvWorker::~IpfixRecvWorker() {
  Stop();
  CloseSocket();
  // The sink is not told here: a receiver that stops cleanly drains first.
  last_session_ = nullptr;
  sessions_.clear();
  close(stop_fd_);
}

int IpfixRecvWorker::ProbePortBind(const Config& config) {
  const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  int zero = 0;
  (void)setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof(zero));
  if (!config.bind_device.empty() &&
      setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, config.bind_device.data(),
                 static_cast<socklen_t>(config.bind_device.size())) != 0) {
    close(fd);
    return 0;
  }
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_any;
  address.sin6_port = htons(config.port);
  const int result =
      bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
  close(fd);
  return result;
}

bool IpfixRecvWorker::OpenSocket() {
  socket_error_.clear();
  fd_ = socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  if (fd_ < 0) {
    socket_error_ = std::string("socket(): ") + strerror(errno);
    DTL_LOG_ERROR("[IPFIX recv worker] [w=%zu] socket(): %s", index_, strerror(errno));
    fd_ = -1;
    return false;
  }
  // Keeps the failing step and its errno text for the receiver's report.
  auto fail = [this](const std::string& step, int error) {
    socket_error_ = step + ": " + strerror(error);
    close(fd_);
    fd_ = -1;
    return false;
  };

  int one = 1;
  if (setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0)
    DTL_LOG_WARNING("[IPFIX recv worker] [w=%zu] setsockopt SO_REUSEADDR: %s", index_,
                    strerror(errno));
  if (setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one)) != 0) {
    const int error = errno;
    DTL_LOG_ERROR("[IPFIX recv worker] [w=%zu] setsockopt SO_REUSEPORT failed: %s", index_,
                  strerror(error));
    return fail("setsockopt SO_REUSEPORT", error);
  }
  // Dual stack: IPv4 exporters arrive as IPv4-mapped IPv6 addresses.
  int zero = 0;
  if (setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof(zero)) != 0)
    DTL_LOG_WARNING("[IPFIX recv worker] [w=%zu] setsockopt IPV6_V6ONLY: %s", index_,
                    strerror(errno));

  if (!config_.bind_device.empty()) {
    if (setsockopt(fd_, SOL_SOCKET, SO_BINDTODEVICE, config_.bind_device.data(),
                   static_cast<socklen_t>(config_.bind_device.size())) != 0) {
      const int error = errno;
      DTL_LOG_ERROR("[IPFIX recv worker] [w=%zu] SO_BINDTODEVICE('%s') failed: %s", index_,
                    config_.bind_device.c_str(), strerror(error));
      return fail("SO_BINDTODEVICE('" + config_.bind_device + "')", error);
    }
    DTL_LOG_INFO("[IPFIX recv worker] [w=%zu] Socket bound to device '%s'", index_,
                 config_.bind_device.c_str());
  }

  // SO_RCVBUFFORCE passes the limit of net.core.rmem_max when privileged.
  const int rcvbuf = ClampToInt(config_.recv_buffer_size);
  if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof(rcvbuf)) != 0 &&
      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf)) != 0)
    DTL_LOG_WARNING("[IPFIX recv worker] [w=%zu] setsockopt SO_RCVBUF: %s", index_,
                    strerror(errno));

  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_any;
  address.sin6_port = htons(config_.port);
  if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    DTL_LOG_ERROR("[IPFIX recv worker] [w=%zu] bind() port=%u failed: %s", index_,
                  static_cast<unsigned>(config_.port), strerror(error));
    return fail("bind()", error);
  }
  DTL_LOG_DEBUG("[IPFIX recv worker] [w=%zu] Bound to UDP port %u (dev='%s', dual-stack), recv_buffer=%zu",
               index_, static_cast<unsigned>(config_.port),
               config_.bind_device.empty() ? "default" : config_.bind_device.c_str(),
               static_cast<size_t>(config_.recv_buffer_size));

  if (config_.busy_poll_us != 0) {
    const int busy_poll = ClampToInt(config_.busy_poll_us);
    if (setsockopt(fd_, SOL_SOCKET, SO_BUSY_POLL, &busy_poll, sizeof(busy_poll)) != 0)
      DTL_LOG_WARNING("[IPFIX recv worker] [w=%zu] SO_BUSY_POLL: %s", index_, strerror(errno));
    else
      DTL_LOG_DEBUG("[IPFIX recv worker] [w=%zu] SO_BUSY_POLL=%u µs", index_, config_.busy_poll_us);
    if (setsockopt(fd_, SOL_SOCKET, SO_PREFER_BUSY_POLL, &one, sizeof(one)) != 0)
      DTL_LOG_WARNING("[IPFIX recv worker] [w=%zu] SO_PREFER_BUSY_POLL: %s", index_,
                      strerror(errno));
  }

  // One slot per header: 65,535 data bytes (the largest UDP payload), the
  // sender's address in the slot's tail.
  for (size_t i = 0; i < kBatchSize; ++i) {
    iovecs_[i].iov_base = SlotData(i);
    iovecs_[i].iov_len = kMaxDatagram;
    std::memset(&headers_[i], 0, sizeof(headers_[i]));
    headers_[i].msg_hdr.msg_name = SlotAddress(i);
    headers_[i].msg_hdr.msg_namelen = kAddressLength;
    headers_[i].msg_hdr.msg_iov = &iovecs_[i];
    headers_[i].msg_hdr.msg_iovlen = 1;
  }
  last_filled_ = static_cast<int>(kBatchSize);
  return true;
}

void IpfixRecvWorker::Start() {
  if (running_.exchange(true)) return;
  thread_ = std::thread([this]() {
    try {
      ReceiveLoop();
      DTL_LOG_DEBUG("[IPFIX recv worker] [w=%zu] recv thread exiting normally", index_);
    } catch (const std::exception& e) {
      DTL_LOG_ERROR("[IPFIX recv worker] [w=%zu] recv thread exception: %s", index_, e.what());
    }
  });
}

void IpfixRecvWorker::ShutdownSocket() {
  if (fd_ >= 0) shutdown(fd_, SHUT_RD);
}

void IpfixRecvWorker::Stop() {
  if (!running_.exchange(false)) return;
  const uint64_t one = 1;
  // Cannot fail short of a full counter, which one write per stop never reaches.
  (void)!write(stop_fd_, &one, sizeof(one));
  if (thread_.joinable()) thread_.join();
  uint64_t drained = 0;
  (void)!read(stop_fd_, &drained, sizeof(drained));
}

void IpfixRecvWorker::Drain() {
  if (sink_ != nullptr) {
    // Keys first: the sink must not see the table change under it.
    std::vector<std::string> keys;
    keys.reserve(sessions_.size());
    for (const auto& entry : sessions_) keys.push_back(entry.second->key());
    for (const std::string& key : keys) sink_->RemoveSession(index_, key);
  }
  last_session_ = nullptr;
  sessions_.clear();
  sessions_count_.store(0);
}

void IpfixRecvWorker::CloseSocket() {
  if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
}

IpfixRecvWorker::Stats IpfixRecvWorker::GetStats() const {
  Stats stats;
  stats.packets_received = packets_received_.load(std::memory_order_relaxed);
  stats.parsed = parsed_.load(std::memory_order_relaxed);
  stats.errors = errors_.load(std::memory_order_relaxed);
  stats.bytes = bytes_.load(std::memory_order_relaxed);
  stats.batches = batches_.load(std::memory_order_relaxed);
  stats.sessions = sessions_count_.load();
  stats.kernel_waits = kernel_waits_.load(std::memory_order_relaxed);
  return stats;
}

uint64_t IpfixRecvWorker::KernelDrops() const {
  if (fd_ < 0) return 0;
  uint32_t memory[SK_MEMINFO_VARS] = {};
  socklen_t length = sizeof(memory);
  if (getsockopt(fd_, SOL_SOCKET, SO_MEMINFO, memory, &length) != 0 || length <= SK_MEMINFO_DROPS * sizeof(uint32_t))
    return 0;
  return memory[SK_MEMINFO_DROPS];
}

void IpfixRecvWorker::SleepMicros(uint32_t micros) const {
  timespec request{static_cast<time_t>(micros / 1000000), static_cast<long>(micros % 1000000) * 1000};
  timespec remaining{};
  while (nanosleep(&request, &remaining) != 0 && errno == EINTR) request = remaining;
}

void IpfixRecvWorker::WaitInKernel(uint32_t timeout_ms) {
  pollfd fds[2] = {{fd_, POLLIN, 0}, {stop_fd_, POLLIN, 0}};
  Bump(kernel_waits_, 1);
  // EINTR or an error: the loop looks again and comes back here if still quiet.
  (void)poll(fds, 2, timeout_ms == 0 ? -1 : static_cast<int>(timeout_ms));
}

void IpfixRecvWorker::ReceiveLoop() {
  dtl_set_thread_name("ipfix_recv_%zu", index_);
  uint32_t backoff = config_.backoff_min_us;
  // Bursty traffic keeps the short back-off; a spell this long without any
  // datagram sends the thread to sleep in the kernel instead.
  uint64_t last_traffic_ns = MonotonicNowNs();
  // Receive errors of this thread; only every 256th is logged.
  unsigned long long error_count = 0;

  while (running_.load(std::memory_order_relaxed)) {
    // recvmmsg shrinks msg_namelen to what it wrote; give the room back.
    for (int i = 0; i < last_filled_; ++i) headers_[i].msg_hdr.msg_namelen = kAddressLength;

    const int n = recvmmsg(fd_, headers_.data(), kBatchSize, MSG_DONTWAIT, nullptr);
    if (n > 0) {
      backoff = config_.backoff_min_us;
      last_filled_ = n;
      // One clock read serves the whole batch: its datagrams arrived together.
      const uint64_t now_ns = MonotonicNowNs();
      last_traffic_ns = now_ns;
      for (int i = 0; i < n; ++i) {
        const size_t length = headers_[i].msg_len;
        Bump(packets_received_, 1);
        Bump(bytes_, length);
        ProcessMessage(SlotData(i), length, *SlotAddress(i), now_ns);
      }
      Bump(batches_, 1);
      if (sink_ != nullptr) sink_->Tick(index_);
      continue;
    }

    last_filled_ = 0;
    if (n < 0) {
      const int error = errno;
      if (error == EINTR) continue;
      if (error != EAGAIN) {
        ++error_count;
        if (error_count % 256 == 1)
          DTL_LOG_WARNING("[IPFIX recv worker] [w=%zu] recvmmsg: %s (errno=%d, count=%llu)", index_,
                          strerror(error), error, error_count);
      }
    }
    // Quiet sessions still get their pending samples written.
    const uint32_t next_tick_ms = sink_ != nullptr ? sink_->Tick(index_) : 0;
    if (MonotonicNowNs() - last_traffic_ns >= kQuietBeforeWaitNs) {
      WaitInKernel(next_tick_ms);
      backoff = config_.backoff_min_us;
      continue;
    }
    if (backoff == 0) continue;
    SleepMicros(backoff);
    backoff = std::min(2 * backoff, config_.backoff_max_us);
  }
}

uint64_t IpfixRecvWorker::MonotonicNowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

void IpfixRecvWorker::ProcessMessage(const uint8_t* data, size_t len, const sockaddr_in6& from,
                                     uint64_t now_ns) {
  const ParsedHeader header = MessageParser::ParseHeader(data, len);
  if (!header.valid) {
    Bump(errors_, 1);
    return;
  }
  Bump(parsed_, 1);

  // Datagrams of one exporter come in runs. The key is built from narrow
  // stores, and comparing it right away as whole words stalls on them; the
  // socket address was written long before.
  IpfixSession* session = last_session_;
  if (session == nullptr || from.sin6_port != last_port_ || header.observation_domain_id != last_domain_ ||
      std::memcmp(&from.sin6_addr, &last_address_, sizeof(in6_addr)) != 0) {
    session = FindOrCreateSession(IpfixReceiver::MakeSessionKey(from, header.observation_domain_id), now_ns);
    if (session != nullptr) {
      last_address_ = from.sin6_addr;
      last_port_ = from.sin6_port;
      last_domain_ = header.observation_domain_id;
    }
  }
  if (session == nullptr) {
    ++refused_count_;
    if (refused_count_ % 256 == 1)
      DTL_LOG_ERROR(
          "[IPFIX recv worker] [w=%zu] cannot create session for domain %u (max sessions reached, "
          "count=%llu)",
          index_, header.observation_domain_id, refused_count_);
    return;
  }
  session->set_last_seen_ns(now_ns);
  SessionAccount& account = session->account_ref();
  SessionAccount::Add(account.datagrams, 1);
  SessionAccount::Add(account.bytes, len);
  session->BeginMessage(header.sequence_number);

  // Only the header's message length counts; trailing datagram bytes are ignored.
  const size_t end = header.length;
  if (end < MessageParser::kHeaderSize + MessageParser::kSetHeaderSize) return;
  size_t offset = MessageParser::kHeaderSize;
  while (end - offset >= MessageParser::kSetHeaderSize) {
    const uint16_t set_id = ReadU16(data + offset);
    const uint16_t set_length = ReadU16(data + offset + 2);
    if (set_length < MessageParser::kSetHeaderSize || offset + set_length > end) break;
    const uint8_t* body = data + offset + MessageParser::kSetHeaderSize;
    const size_t body_length = set_length - MessageParser::kSetHeaderSize;

    if (set_id == MessageParser::kTemplateSetId) {
      const std::vector<ParsedTemplate> templates = MessageParser::ParseTemplateSet(body, body_length);
      if (!templates.empty()) session->UpdateTemplates(templates);
    } else if (set_id == MessageParser::kOptionsTemplateSetId) {
      DTL_LOG_DEBUG("[IPFIX recv worker] [w=%zu] session %s: skipping options template set", index_,
                    session->display_name().c_str());
    } else if (set_id >= MessageParser::kFirstDataSetId) {
      session->ProcessDataSet(set_id, body, body_length, header.export_time, header.sequence_number);
    }
    offset += set_length;
  }
}

IpfixSession* IpfixRecvWorker::FindOrCreateSession(const SessionKey& key, uint64_t now_ns) {
  // Datagrams of one exporter come in runs; comparing the key with the last
  // one found beats hashing it.
  if (last_session_ != nullptr && key == last_key_) return last_session_;
  auto found = sessions_.find(key);
  if (found != sessions_.end()) {
    last_key_ = key;
    last_session_ = found->second.get();
    return last_session_;
  }
  last_session_ = nullptr;  // reaping below may erase it

  // Reaping only runs for an unknown key, so known exporters never pay for it.
  // Silence is measured on the collector's own clock: export times are the
  // exporters' clocks, and one exporter's clock says nothing about another.
  const uint64_t timeout_ns = uint64_t{config_.session_timeout_sec} * 1000000000ull;
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    const uint64_t last = it->second->last_seen_ns();
    if (now_ns > last && now_ns - last > timeout_ns) {
      DTL_LOG_INFO("[IPFIX recv worker] Session %s ended: no datagram for %llu s", it->second->display_name().c_str(),
                   static_cast<unsigned long long>((now_ns - last) / 1000000000ull));
      if (sink_ != nullptr) sink_->RemoveSession(index_, it->second->key());
      it = sessions_.erase(it);
      sessions_count_.store(sessions_.size());
    } else {
      ++it;
    }
  }

  if (sessions_.size() >= config_.max_sessions) return nullptr;

  auto session = std::make_unique<IpfixSession>(key.ToKeyString(), index_, sink_);
  IpfixSession* created = session.get();
  sessions_.emplace(key, std::move(session));
  sessions_count_.store(sessions_.size());
  if (board_ != nullptr) board_->Add(created->account());
  last_key_ = key;
  last_session_ = created;
  DTL_LOG_INFO("[IPFIX recv worker] New exporter session %s (receive worker %zu, %zu session(s) there)",
               created->display_name().c_str(), index_, sessions_.size());
  return created;
}

}  // namespace dtl::ipfix
