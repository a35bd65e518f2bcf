// One receive worker: a non-blocking dual-stack UDP socket that shares the
// receiver's port through SO_REUSEPORT, a thread that pulls datagrams in
// batches with recvmmsg, and the table of exporter sessions seen by it.
// While traffic flows the thread polls with a short back-off; after a quiet
// spell it waits in the kernel (poll on the socket and a stop eventfd).
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>

#include "ipfix/session_key.h"

namespace dtl::ipfix {

class IpfixSession;
class IpfixSessionSink;
class SessionStatusBoard;

class IpfixRecvWorker {
 public:
  struct Config {
    uint16_t port = 4739;
    uint64_t max_sessions = 256;
    uint64_t recv_buffer_size = 33554432;
    uint32_t busy_poll_us = 80;
    uint32_t backoff_min_us = 20;
    uint32_t backoff_max_us = 100;
    std::string bind_device;
    // Seconds without a datagram after which a session is reaped (looked
    // at when a new exporter appears).
    uint32_t session_timeout_sec = 300;
  };

  struct Stats {
    uint64_t packets_received = 0;
    uint64_t parsed = 0;
    uint64_t errors = 0;
    uint64_t bytes = 0;
    uint64_t batches = 0;
    uint64_t sessions = 0;
    uint64_t kernel_waits = 0;  // times the thread went to wait in the kernel
  };

  static constexpr size_t kBatchSize = 256;
  // A slot is the datagram data followed by room for the sender's address.
  static constexpr size_t kSlotDataSize = 65536;
  static constexpr size_t kSlotSize = 65600;
  static constexpr size_t kMaxDatagram = 65535;
  // Without a datagram for this long, the thread stops polling and waits in
  // the kernel until one arrives, stop is asked or the sink wants a tick.
  static constexpr uint64_t kQuietBeforeWaitNs = 100'000'000;

  // sink may be null: sessions then decode without storing anything. board,
  // when given, gets every new session's account for the status report.
  IpfixRecvWorker(size_t index, const Config& config, IpfixSessionSink* sink,
                  SessionStatusBoard* board = nullptr);
  ~IpfixRecvWorker();

  IpfixRecvWorker(const IpfixRecvWorker&) = delete;
  IpfixRecvWorker& operator=(const IpfixRecvWorker&) = delete;

  // Creates, configures and binds the socket and wires the receive headers
  // to the slots. False (socket closed) on any fatal setup failure.
  bool OpenSocket();
  // Whether a worker socket for config could be the port's only holder:
  // binds (and closes at once) a socket set up like a worker's (dual stack,
  // same device) but without SO_REUSEPORT and SO_REUSEADDR, which the kernel
  // refuses while any other socket holds the port, even one that would let
  // the workers share it. 0 when the bind succeeds (or the probe cannot be
  // set up, which OpenSocket then reports), else the bind's errno.
  static int ProbePortBind(const Config& config);
  // Why the last OpenSocket failed ("bind(): Address already in use");
  // empty after a success.
  const std::string& socket_error() const { return socket_error_; }
  // Starts the receive thread once; a second call does nothing.
  void Start();
  // Stops further reads on the socket before the thread is joined.
  void ShutdownSocket();
  // Clears the running flag, wakes the thread from a kernel wait and joins it.
  void Stop();
  // After Stop: tells the sink that every session goes away, then drops them.
  void Drain();
  void CloseSocket();
  Stats GetStats() const;
  // Datagrams the kernel dropped for this socket (its receive buffer was
  // full); 0 when closed. Safe from any thread while the socket is open.
  uint64_t KernelDrops() const;

  // Body of the receive thread.
  void ReceiveLoop();
  // One datagram: header check, session lookup and the walk over its sets.
  // now_ns is the collector's monotonic clock (MonotonicNowNs) at its
  // arrival; the receive thread reads it once per batch. Only the receive
  // thread calls it while the worker runs.
  void ProcessMessage(const uint8_t* data, size_t len, const sockaddr_in6& from, uint64_t now_ns);
  // The same at the current time.
  void ProcessMessage(const uint8_t* data, size_t len, const sockaddr_in6& from) {
    ProcessMessage(data, len, from, MonotonicNowNs());
  }
  // The session of key, created when new (after reaping the sessions that
  // have had no datagram for longer than the session timeout at now_ns);
  // null when the table is full.
  IpfixSession* FindOrCreateSession(const SessionKey& key, uint64_t now_ns);
  // The clock session activity is measured with: coarse (a few ms) and
  // monotonic, cheap enough to read for every batch.
  static uint64_t MonotonicNowNs();

  size_t index() const { return index_; }
  // The socket descriptor, -1 when closed (for diagnostics).
  int socket_fd() const { return fd_; }

 private:
  struct FreeDeleter {
    void operator()(void* p) const noexcept { std::free(p); }
  };

  // Deliberately not noexcept: libstdc++ then keeps each node's hash code,
  // so rehashing never recomputes FNV over the keys.
  struct CachedSessionKeyHash {
    size_t operator()(const SessionKey& key) const { return SessionKeyHash{}(key); }
  };

  using SessionTable =
      std::unordered_map<SessionKey, std::unique_ptr<IpfixSession>, CachedSessionKeyHash>;

  uint8_t* SlotData(size_t i) const { return slots_.get() + i * kSlotSize; }
  sockaddr_in6* SlotAddress(size_t i) const {
    return reinterpret_cast<sockaddr_in6*>(SlotData(i) + kSlotDataSize);
  }
  void SleepMicros(uint32_t micros) const;
  // Waits until the socket is readable, stop is asked or timeout_ms have
  // passed (0: no limit).
  void WaitInKernel(uint32_t timeout_ms);

  size_t index_;
  Config config_;
  IpfixSessionSink* sink_;
  SessionStatusBoard* board_;
  int fd_ = -1;
  int stop_fd_ = -1;  // eventfd written by Stop
  std::string socket_error_;
  std::thread thread_;
  std::atomic<bool> running_{false};
  std::unique_ptr<uint8_t, FreeDeleter> slots_;
  std::array<mmsghdr, kBatchSize> headers_{};
  std::array<iovec, kBatchSize> iovecs_{};
  int last_filled_ = static_cast<int>(kBatchSize);
  SessionTable sessions_;
  // The session found last; null after any change that may erase it.
  SessionKey last_key_{};
  IpfixSession* last_session_ = nullptr;
  // The last session's exporter as the socket reports it: a datagram from
  // it finds the session without a key being built and compared.
  in6_addr last_address_{};
  uint16_t last_port_ = 0;
  uint32_t last_domain_ = 0;
  std::atomic<uint64_t> sessions_count_{0};
  // Datagrams refused for a full table; only every 256th is logged.
  unsigned long long refused_count_ = 0;
  std::atomic<uint64_t> packets_received_{0};
  std::atomic<uint64_t> parsed_{0};
  std::atomic<uint64_t> errors_{0};
  std::atomic<uint64_t> bytes_{0};
  std::atomic<uint64_t> batches_{0};
  std::atomic<uint64_t> kernel_waits_{0};
};

}  // namespace dtl::ipfix
