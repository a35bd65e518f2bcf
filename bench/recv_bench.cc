// Receive-path cost on loopback. hft-sim (a separate process, so that this
// process's CPU accounting holds only the receiving side) streams HFT
// samples at a fixed datagram rate into one receiving side at a time:
//
//   floor    a bare recvmmsg sink that only counts (the kernel's floor)
//   floor-src  the same, also asking for each datagram's source address,
//            which any collector needs to keep its exporters apart
//   decode   the collector's receiver, one worker decoding and assembling
//            every sample into a scratch block (nothing stored)
//   store    the collector's receiver with the real disk writer storing
//            every sample under a temporary directory
//   nfcapd   nfdump's collector (a child process) on the same port
//
// For each: datagrams sent and received, kernel drops on the port's sockets,
// the offered rate and CPU time (user + system) per datagram; for store also
// the samples sent and the samples found in the data files afterwards. With
// several rates the rates are tried in order for each side until one loses
// datagrams or samples.
#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dtl_data_file_header.h"
#include "dtl_logger.h"
#include "ipfix/ipfix_receiver.h"
#include "storage/ipfix_disk_writer.h"
#include "storage/ipfix_session_sink.h"
#include "tests/support/udp_port_sockets.h"

namespace {

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;

struct Options {
  std::vector<uint64_t> rates = {300000};
  double seconds = 5;
  uint16_t port = 47390;
  uint32_t interfaces = 40;  // 40 x 6 counters = 240 = 4 templates of 60
  std::vector<std::string> sinks = {"floor", "decode"};
  std::string data_dir = "/tmp";
  bool direct_io = true;
  uint32_t flush_idle_ms = 1000;  // 0: partial pages only at stop
  uint64_t recv_buffer = 32 << 20;
};

struct SenderResult {
  uint64_t datagrams = 0;
  uint64_t samples = 0;
  double elapsed_sec = 0;
};

struct Outcome {
  SenderResult sent;
  uint64_t received = 0;
  uint64_t kernel_drops = 0;
  double wall_sec = 0;
  double cpu_sec = 0;
  bool has_samples = false;  // the store side: samples counted in the files
  uint64_t samples_stored = 0;
  std::string error;
};

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto sec = [](const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; };
  return sec(usage.ru_utime) + sec(usage.ru_stime);
}

// user + system time of another process, from /proc/PID/stat.
double ProcessCpuSeconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t paren = text.rfind(')');
  if (paren == std::string::npos) return 0;
  std::istringstream fields(text.substr(paren + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  // After the command: state is field 3, utime field 14, stime field 15.
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::strtoull(field.c_str(), nullptr, 10);
    if (i == 15) stime = std::strtoull(field.c_str(), nullptr, 10);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

using dtl_test::PortSockets;
using dtl_test::ReadPortSockets;

// Counts committed samples; hands every sample the same scratch block.
class CountingSink final : public dtl::ipfix::IpfixSessionSink {
 public:
  bool Start() override { return true; }
  void Stop() override {}
  const std::string& root() const override { return root_; }
  void ProcessSchemaUpdate(size_t, const std::string&, const dtl::ipfix::SchemaSnapshot& snapshot) override {
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
  // With sources, each datagram's source address is asked for too, as any
  // collector must to tell its exporters apart.
  BareSink(uint16_t port, uint64_t recv_buffer, bool sources) : slots_(256 * 65600), sources_(sources) {
    fd_ = socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    int one = 1, zero = 0;
    const int size = static_cast<int>(recv_buffer);
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
      if (sources_) msgs_[i].msg_hdr.msg_name = &addresses_[i];
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
      if (sources_)
        for (mmsghdr& m : msgs_) m.msg_hdr.msg_namelen = sizeof(sockaddr_in6);
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
  std::array<sockaddr_in6, 256> addresses_{};
  bool sources_ = false;
  std::atomic<bool> running_{true};
  std::atomic<uint64_t> received_{0};
  std::thread thread_;
};

uint64_t CounterTemplates(const Options& o) { return (o.interfaces * 6 + 59) / 60; }

// Runs hft-sim to completion and returns what it reports having sent.
SenderResult RunSender(const Options& o, uint64_t datagram_rate) {
  const double sample_rate = static_cast<double>(datagram_rate) / static_cast<double>(CounterTemplates(o));
  const std::string command = std::string(DTL_BINARY_DIR "/bin/hft-sim") + " --target 127.0.0.1:" +
                              std::to_string(o.port) + " --interfaces " + std::to_string(o.interfaces) +
                              " --rate " + std::to_string(sample_rate) + " --duration " +
                              std::to_string(o.seconds) + " --announce-period 1";
  SenderResult result;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  char line[1024];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    // "hft-sim: sent N samples from E exporter(s) to T in S s: D datagrams, ..."
    const char* sent = std::strstr(line, "sent ");
    if (sent != nullptr) std::sscanf(sent + 5, "%" SCNu64, &result.samples);
    const char* in = std::strstr(line, " in ");
    if (in != nullptr) std::sscanf(in + 4, "%lf", &result.elapsed_sec);
    const char* at = std::strstr(line, " s: ");
    if (at != nullptr) std::sscanf(at + 4, "%" SCNu64, &result.datagrams);
  }
  pclose(pipe);
  return result;
}

// Waits (at most 2 s) until the value stops moving after the sender ended.
uint64_t Settle(const std::function<uint64_t()>& count) {
  uint64_t last = count();
  for (int i = 0; i < 20; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const uint64_t now = count();
    if (now == last) break;
    last = now;
  }
  return last;
}

// One run against a receiving side that is already listening: received()
// counts what it got, cpu() is its CPU time so far.
Outcome Measure(const Options& o, uint64_t rate, const std::function<uint64_t()>& received,
                const std::function<double()>& cpu) {
  Outcome out;
  const uint64_t drops0 = ReadPortSockets(o.port).drops;
  const double cpu0 = cpu();
  const auto t0 = Clock::now();
  out.sent = RunSender(o, rate);
  out.received = Settle(received);
  out.wall_sec = std::chrono::duration<double>(Clock::now() - t0).count();
  out.cpu_sec = cpu() - cpu0;
  out.kernel_drops = ReadPortSockets(o.port).drops - drops0;
  return out;
}

// Samples stored under root: whole blocks behind each data file's header.
uint64_t StoredSamples(const fs::path& root) {
  uint64_t samples = 0;
  boost::system::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    if (!fs::is_regular_file(it->path())) continue;
    const std::string parent = it->path().parent_path().filename().string();
    if (parent == "schema" || parent == "metadata") continue;
    dtl_data_file_header_t header{};
    std::ifstream in(it->path().string(), std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(&header), sizeof header)) continue;
    const uint64_t size = fs::file_size(it->path());
    if (header.block_size > 0 && size > 256) samples += (size - 256) / header.block_size;
  }
  return samples;
}

dtl::ipfix::IpfixReceiver::Config ReceiverConfig(const Options& o) {
  dtl::ipfix::IpfixReceiver::Config config{};
  config.port = o.port;
  config.max_sessions = 16;
  config.recv_buffer_size = o.recv_buffer;
  config.workers = 1;
  config.busy_poll_us = 0;
  config.backoff_min_us = 20;
  config.backoff_max_us = 100;
  config.session_timeout_sec = 300;
  return config;
}

Outcome RunFloor(const Options& o, uint64_t rate) {
  BareSink sink(o.port, o.recv_buffer, false);
  return Measure(o, rate, [&] { return sink.received(); }, CpuSeconds);
}

Outcome RunFloorWithSources(const Options& o, uint64_t rate) {
  BareSink sink(o.port, o.recv_buffer, true);
  return Measure(o, rate, [&] { return sink.received(); }, CpuSeconds);
}

Outcome RunDecode(const Options& o, uint64_t rate) {
  dtl::ipfix::IpfixReceiver receiver(ReceiverConfig(o), std::make_unique<CountingSink>());
  receiver.Start();
  Outcome out = Measure(o, rate, [&] { return receiver.GetStats().packets_received; }, CpuSeconds);
  receiver.Stop();
  return out;
}

Outcome RunStore(const Options& o, uint64_t rate) {
  const std::string pattern_text = o.data_dir + "/dtl_recv_bench_XXXXXX";
  std::vector<char> pattern(pattern_text.begin(), pattern_text.end());
  pattern.push_back('\0');
  Outcome out;
  if (mkdtemp(pattern.data()) == nullptr) {
    out.error = "cannot create a directory under " + o.data_dir;
    return out;
  }
  const fs::path base = pattern.data();
  dtl::ipfix::IpfixReceiver::Config config = ReceiverConfig(o);
  dtl::ipfix::DiskWriterConfig disk;
  disk.root = (base / "root").string();
  disk.workers = 1;
  disk.max_sessions = config.max_sessions;
  disk.direct_io = o.direct_io;
  disk.flush_idle_ms = o.flush_idle_ms;
  {
    dtl::ipfix::IpfixReceiver receiver(config, std::make_unique<dtl::ipfix::IpfixDiskWriter>(disk));
    receiver.Start();
    out = Measure(o, rate, [&] { return receiver.GetStats().packets_received; }, CpuSeconds);
    receiver.Stop();
  }
  out.has_samples = true;
  out.samples_stored = StoredSamples(base / "root");
  boost::system::error_code ec;
  fs::remove_all(base, ec);
  return out;
}

Outcome RunNfcapd(const Options& o, uint64_t rate) {
  Outcome out;
  char pattern[] = "/tmp/dtl_recv_bench_nfcapd_XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    out.error = "cannot create a directory under /tmp";
    return out;
  }
  const std::string dir = pattern;
  const std::string port = std::to_string(o.port);
  const std::string buffer = std::to_string(o.recv_buffer);
  const pid_t pid = fork();
  if (pid == 0) {
    const int devnull = open("/dev/null", O_WRONLY);
    if (devnull >= 0) {
      dup2(devnull, STDOUT_FILENO);
      dup2(devnull, STDERR_FILENO);
    }
    execlp("nfcapd", "nfcapd", "-p", port.c_str(), "-b", "127.0.0.1", "-w", dir.c_str(), "-B", buffer.c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }
  if (pid < 0) {
    out.error = "fork failed";
    return out;
  }
  // Bounded wait for its socket to appear.
  bool listening = false;
  for (int i = 0; i < 100 && !listening; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    listening = ReadPortSockets(o.port).count > 0;
    if (waitpid(pid, nullptr, WNOHANG) == pid) break;
  }
  if (listening) {
    // nfcapd counts nothing we can read while it runs: it has received
    // everything the kernel neither dropped nor still queues.
    out = Measure(
        o, rate,
        [&] {
          const PortSockets s = ReadPortSockets(o.port);
          return s.rx_queue;  // settles at 0 once nfcapd has read everything
        },
        [&] { return ProcessCpuSeconds(pid); });
    const uint64_t lost = out.kernel_drops;
    out.received = out.sent.datagrams > lost ? out.sent.datagrams - lost : 0;
  } else {
    out.error = "nfcapd did not start (is nfdump installed? scripts/install-deps.sh --bench)";
  }
  kill(pid, SIGTERM);
  int status = 0;
  bool reaped = false;
  for (int i = 0; i < 100 && !reaped; ++i) {
    reaped = waitpid(pid, &status, WNOHANG) == pid;
    if (!reaped) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  if (!reaped) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  boost::system::error_code ec;
  fs::remove_all(dir, ec);
  return out;
}

uint64_t Missing(const Outcome& r) {
  const uint64_t lost = r.sent.datagrams > r.received ? r.sent.datagrams - r.received : 0;
  uint64_t missing = std::max(lost, r.kernel_drops);
  if (r.has_samples && r.sent.samples > r.samples_stored) missing += r.sent.samples - r.samples_stored;
  return missing;
}

double CpuPerDatagramUs(const Outcome& r) {
  return r.received ? r.cpu_sec * 1e6 / static_cast<double>(r.received) : 0.0;
}

void Print(const std::string& name, uint64_t rate, const Outcome& r) {
  if (!r.error.empty()) {
    std::printf("%-7s rate=%" PRIu64 " error: %s\n", name.c_str(), rate, r.error.c_str());
    return;
  }
  const uint64_t lost = r.sent.datagrams > r.received ? r.sent.datagrams - r.received : 0;
  std::printf("%-7s rate=%" PRIu64 " sent=%" PRIu64 " offered=%.0f dgram/s received=%" PRIu64 " lost=%" PRIu64
              " kernel_drops=%" PRIu64 " cpu=%.3f s cpu_per_dgram=%.3f us",
              name.c_str(), rate, r.sent.datagrams,
              r.sent.elapsed_sec > 0 ? static_cast<double>(r.sent.datagrams) / r.sent.elapsed_sec : 0.0,
              r.received, lost, r.kernel_drops, r.cpu_sec, CpuPerDatagramUs(r));
  if (r.has_samples)
    std::printf(" samples_sent=%" PRIu64 " samples_stored=%" PRIu64, r.sent.samples, r.samples_stored);
  std::printf(" %s\n", Missing(r) == 0 ? "ok" : "LOSS");
  std::fflush(stdout);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n == 0 ? 0 : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::vector<std::string> SplitList(const char* text) {
  std::vector<std::string> out;
  std::stringstream in(text);
  for (std::string item; std::getline(in, item, ',');)
    if (!item.empty()) out.push_back(item);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  unsigned long rounds = 1;
  static const option longopts[] = {{"rate", required_argument, nullptr, 'r'},
                                    {"seconds", required_argument, nullptr, 's'},
                                    {"port", required_argument, nullptr, 'p'},
                                    {"interfaces", required_argument, nullptr, 'i'},
                                    {"sinks", required_argument, nullptr, 'k'},
                                    {"data-dir", required_argument, nullptr, 'd'},
                                    {"direct-io", required_argument, nullptr, 'o'},
                                    {"recv-buffer", required_argument, nullptr, 'b'},
                                    {"flush-idle-ms", required_argument, nullptr, 'f'},
                                    {"rounds", required_argument, nullptr, 'n'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
  for (int c; (c = getopt_long(argc, argv, "r:s:p:i:k:d:o:b:f:n:h", longopts, nullptr)) != -1;) {
    switch (c) {
      case 'r':
        o.rates.clear();
        for (const std::string& r : SplitList(optarg)) o.rates.push_back(std::strtoull(r.c_str(), nullptr, 10));
        break;
      case 's': o.seconds = std::strtod(optarg, nullptr); break;
      case 'p': o.port = static_cast<uint16_t>(std::strtoul(optarg, nullptr, 10)); break;
      case 'i': o.interfaces = static_cast<uint32_t>(std::strtoul(optarg, nullptr, 10)); break;
      case 'k': o.sinks = SplitList(optarg); break;
      case 'd': o.data_dir = optarg; break;
      case 'o': o.direct_io = std::strtoul(optarg, nullptr, 10) != 0; break;
      case 'b': o.recv_buffer = std::strtoull(optarg, nullptr, 10); break;
      case 'f': o.flush_idle_ms = static_cast<uint32_t>(std::strtoul(optarg, nullptr, 10)); break;
      case 'n': rounds = std::max<unsigned long>(1, std::strtoul(optarg, nullptr, 10)); break;
      default:
        std::printf(
            "usage: %s [--rate R1,R2,...] [--seconds S] [--port P] [--interfaces N]\n"
            "          [--sinks floor,floor-src,decode,store,nfcapd] [--data-dir DIR] [--direct-io 0|1]\n"
            "          [--recv-buffer BYTES] [--flush-idle-ms MS] [--rounds N]\n"
            "Streams hft-sim over loopback into each receiving side in turn: a bare recvmmsg\n"
            "sink (floor), the same asking for source addresses (floor-src), the collector's receiver decoding only (decode), the receiver with\n"
            "the disk writer storing under a temporary directory in DIR (store), nfcapd.\n"
            "Prints drops, offered rate and CPU per datagram. With several rates each side\n"
            "is tried at the rates in order until one loses datagrams or samples. With N\n"
            "rounds the sides take turns N times and the medians are printed at the end:\n"
            "the kernel's share of the cost varies from run to run by more than the\n"
            "receiver's own.\n",
            argv[0]);
        return c == 'h' ? 0 : 2;
    }
  }
  dtl_set_log_level(DTL_LOG_LEVEL_WARNING);
  std::printf("%.1f s per run, %u interfaces x 6 counters = %" PRIu64
              " counter templates, one fragment per datagram, receive buffer %" PRIu64 " B\n",
              o.seconds, o.interfaces, CounterTemplates(o), o.recv_buffer);

  // CPU per datagram and ratio to the same round's floor, by side and rate.
  std::map<std::pair<std::string, uint64_t>, std::vector<double>> per_dgram, ratios;
  for (unsigned long round = 0; round < rounds; ++round) {
    if (rounds > 1) std::printf("round %lu of %lu\n", round + 1, rounds);
    // CPU per datagram of each floor by rate.
    std::map<std::string, std::map<uint64_t, double>> floors;
    for (const std::string& sink : o.sinks) {
      std::function<Outcome(const Options&, uint64_t)> run;
      if (sink == "floor")
        run = RunFloor;
      else if (sink == "floor-src")
        run = RunFloorWithSources;
      else if (sink == "decode" || sink == "collector")
        run = RunDecode;
      else if (sink == "store")
        run = RunStore;
      else if (sink == "nfcapd")
        run = RunNfcapd;
      else {
        std::fprintf(stderr, "unknown sink %s\n", sink.c_str());
        return 2;
      }
      uint64_t best = 0;
      double best_offered = 0;
      bool sender_limited = false;
      for (uint64_t rate : o.rates) {
        const Outcome r = run(o, rate);
        Print(sink, rate, r);
        if (!r.error.empty() || Missing(r) != 0) break;
        best = rate;
        best_offered = r.sent.elapsed_sec > 0 ? static_cast<double>(r.sent.datagrams) / r.sent.elapsed_sec : 0;
        // hft-sim shares the machine: a rate it cannot offer says nothing
        // about the receiving side, so stepping stops there.
        if (best_offered < 0.97 * static_cast<double>(rate)) {
          sender_limited = true;
          std::printf("%-7s rate=%" PRIu64 " sender offered only %.0f dgram/s\n", sink.c_str(), rate, best_offered);
        }
        per_dgram[{sink, rate}].push_back(CpuPerDatagramUs(r));
        if (sink.rfind("floor", 0) == 0) {
          floors[sink][rate] = CpuPerDatagramUs(r);
        } else {
          for (auto& [floor, per] : floors) {
            if (per[rate] <= 0) continue;
            const double ratio = CpuPerDatagramUs(r) / per[rate];
            ratios[{sink + "/" + floor, rate}].push_back(ratio);
            std::printf("%-7s rate=%" PRIu64 " cpu ratio %s/%s = %.3f\n", sink.c_str(), rate, sink.c_str(),
                        floor.c_str(), ratio);
          }
        }
        if (sender_limited) break;
      }
      if (o.rates.size() > 1)
        std::printf("%-7s highest rate without loss: %s%" PRIu64 " dgram/s requested, %.0f offered%s\n", sink.c_str(),
                    sender_limited ? ">= " : "", best, best_offered, sender_limited ? " (sender limit)" : "");
    }
  }
  if (rounds > 1) {
    for (auto& [side, values] : per_dgram) {
      std::printf("median  %-9s rate=%" PRIu64 " cpu_per_dgram=%.3f us over %zu rounds\n", side.first.c_str(),
                  side.second, Median(values), values.size());
    }
    for (auto& [pair, r] : ratios)
      std::printf("median  ratio %s rate=%" PRIu64 " = %.3f (min %.3f, max %.3f)\n", pair.first.c_str(),
                  pair.second, Median(r), *std::min_element(r.begin(), r.end()), *std::max_element(r.begin(), r.end()));
  }
  return 0;
}
