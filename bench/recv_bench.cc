// Receive-path cost on loopback. hft-sim (a separate process, so that this
// process's CPU accounting holds only the receiving side) streams HFT
// samples at a fixed datagram rate, first to a bare recvmmsg sink that only
// counts (the kernel's floor), then to the collector's receiver with one
// worker decoding and assembling every sample. For each: datagrams sent and
// received, kernel drops, datagrams per second and CPU time (user + system)
// per datagram; then the collector/floor CPU ratio.
#include <getopt.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dtl_logger.h"
#include "ipfix/ipfix_receiver.h"
#include "ipfix/ipfix_session_sink.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  uint64_t datagram_rate = 300000;
  double seconds = 5;
  uint16_t port = 47390;
  uint32_t interfaces = 40;  // 40 x 6 counters = 240 = 4 templates of 60
};

struct Outcome {
  uint64_t sent = 0;
  uint64_t received = 0;
  double wall_sec = 0;
  double cpu_sec = 0;
};

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto sec = [](const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; };
  return sec(usage.ru_utime) + sec(usage.ru_stime);
}

// Counts committed samples; hands every sample the same scratch block.
class CountingSink final : public dtl::ipfix::IpfixSessionSink {
 public:
  void Start() override {}
  void Stop() override {}
  const std::string& root() const override { return root_; }
  void ProcessSchemaUpdate(size_t, const std::string&, const std::string&, uint32_t,
                           const dtl::ipfix::SchemaSnapshot& snapshot) override {
    block_.assign(snapshot.flat_fields.size() * 8 + 64, 0);
  }
  uint8_t* AcquireRecordValueSlot(size_t, const std::string&, uint32_t, uint32_t,
                                  uint64_t size) override {
    return size <= block_.size() ? block_.data() : nullptr;
  }
  void CommitRecord(size_t, const std::string&, uint64_t) override {
    commits.fetch_add(1, std::memory_order_relaxed);
  }
  void RemoveSession(size_t, const std::string&) override {}
  std::atomic<uint64_t> commits{0};

 private:
  std::string root_ = "bench";
  std::vector<uint8_t> block_;
};

// The floor: the same socket set-up and idle back-off as a receive worker,
// recvmmsg into preallocated slots, and nothing but counting.
class BareSink {
 public:
  explicit BareSink(uint16_t port) : slots_(256 * 65600) {
    fd_ = socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    int one = 1, zero = 0, size = 32 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
    setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero);
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_port = htons(port);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      std::perror("bind");
      std::exit(1);
    }
    for (size_t i = 0; i < 256; ++i) {
      iov_[i] = {slots_.data() + i * 65600, 65535};
      msgs_[i] = {};
      msgs_[i].msg_hdr.msg_iov = &iov_[i];
      msgs_[i].msg_hdr.msg_iovlen = 1;
    }
    thread_ = std::thread([this] { Loop(); });
  }
  ~BareSink() {
    running_ = false;
    thread_.join();
    close(fd_);
  }
  uint64_t received() const { return received_.load(std::memory_order_relaxed); }

 private:
  void Loop() {
    uint32_t backoff = 20;
    while (running_) {
      int n = recvmmsg(fd_, msgs_.data(), 256, MSG_DONTWAIT, nullptr);
      if (n > 0) {
        received_.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
        backoff = 20;
        continue;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(backoff));
      backoff = std::min<uint32_t>(backoff * 2, 100);
    }
  }

  int fd_ = -1;
  std::vector<uint8_t> slots_;
  std::array<iovec, 256> iov_{};
  std::array<mmsghdr, 256> msgs_{};
  std::atomic<bool> running_{true};
  std::atomic<uint64_t> received_{0};
  std::thread thread_;
};

// Runs hft-sim to completion and returns the number of datagrams it sent.
uint64_t RunSender(const Options& o) {
  const uint64_t templates = (o.interfaces * 6 + 59) / 60;
  const double sample_rate = static_cast<double>(o.datagram_rate) / static_cast<double>(templates);
  const std::string command = std::string(DTL_BINARY_DIR "/bin/hft-sim") + " --target 127.0.0.1:" +
                              std::to_string(o.port) + " --interfaces " + std::to_string(o.interfaces) +
                              " --rate " + std::to_string(sample_rate) + " --duration " +
                              std::to_string(o.seconds) + " --announce-period 1";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return 0;
  char line[1024];
  uint64_t datagrams = 0;
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    const char* at = std::strstr(line, " s: ");
    if (at != nullptr) std::sscanf(at + 4, "%" SCNu64, &datagrams);
  }
  pclose(pipe);
  return datagrams;
}

// Waits (at most 2 s) until the count stops moving after the sender ended.
template <typename Count>
uint64_t Settle(Count count) {
  uint64_t last = count();
  for (int i = 0; i < 20; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const uint64_t now = count();
    if (now == last) break;
    last = now;
  }
  return last;
}

template <typename Count>
Outcome Measure(const Options& o, Count count) {
  Outcome out;
  const double cpu0 = CpuSeconds();
  const auto t0 = Clock::now();
  out.sent = RunSender(o);
  out.received = Settle(count);
  out.wall_sec = std::chrono::duration<double>(Clock::now() - t0).count();
  out.cpu_sec = CpuSeconds() - cpu0;
  return out;
}

void Print(const char* name, const Outcome& r) {
  const uint64_t drops = r.sent > r.received ? r.sent - r.received : 0;
  std::printf("%-10s sent=%" PRIu64 " received=%" PRIu64 " drops=%" PRIu64
              " rate=%.0f dgram/s cpu=%.3f s cpu_per_dgram=%.3f us\n",
              name, r.sent, r.received, drops, r.received / r.wall_sec, r.cpu_sec,
              r.received ? r.cpu_sec * 1e6 / static_cast<double>(r.received) : 0.0);
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  static const option longopts[] = {{"rate", required_argument, nullptr, 'r'},
                                    {"seconds", required_argument, nullptr, 's'},
                                    {"port", required_argument, nullptr, 'p'},
                                    {"interfaces", required_argument, nullptr, 'i'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
  for (int c; (c = getopt_long(argc, argv, "r:s:p:i:h", longopts, nullptr)) != -1;) {
    switch (c) {
      case 'r': o.datagram_rate = std::strtoull(optarg, nullptr, 10); break;
      case 's': o.seconds = std::strtod(optarg, nullptr); break;
      case 'p': o.port = static_cast<uint16_t>(std::strtoul(optarg, nullptr, 10)); break;
      case 'i': o.interfaces = static_cast<uint32_t>(std::strtoul(optarg, nullptr, 10)); break;
      default:
        std::printf("usage: %s [--rate DATAGRAMS_PER_S] [--seconds S] [--port P] [--interfaces N]\n"
                    "Streams hft-sim over loopback into a bare recvmmsg sink and then into the\n"
                    "collector's receiver (1 worker); prints drops, rate and CPU per datagram.\n",
                    argv[0]);
        return c == 'h' ? 0 : 2;
    }
  }
  std::printf("rate=%" PRIu64 " dgram/s for %.1f s, %u interfaces x 6 counters, one fragment per datagram\n",
              o.datagram_rate, o.seconds, o.interfaces);

  Outcome floor;
  {
    BareSink sink(o.port);
    floor = Measure(o, [&] { return sink.received(); });
  }
  Print("floor", floor);

  dtl::ipfix::IpfixReceiver::Config config{};
  config.port = o.port;
  config.max_sessions = 16;
  config.recv_buffer_size = 32 << 20;
  config.workers = 1;
  config.busy_poll_us = 0;
  config.backoff_min_us = 20;
  config.backoff_max_us = 100;
  config.session_timeout_sec = 300;
  auto owned_sink = std::make_unique<CountingSink>();
  CountingSink* sink = owned_sink.get();
  Outcome collector;
  uint64_t samples = 0;
  {
    dtl::ipfix::IpfixReceiver receiver(config, std::move(owned_sink));
    receiver.Start();
    collector = Measure(o, [&] { return receiver.GetStats().packets_received; });
    samples = sink->commits.load();
    receiver.Stop();
  }
  Print("collector", collector);
  std::printf("collector committed %" PRIu64 " samples\n", samples);
  const double floor_per = floor.cpu_sec / static_cast<double>(floor.received ? floor.received : 1);
  const double coll_per = collector.cpu_sec / static_cast<double>(collector.received ? collector.received : 1);
  std::printf("cpu ratio collector/floor = %.3f\n", coll_per / floor_per);
  return 0;
}
