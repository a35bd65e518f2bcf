// In-process cost of decoding and storing HFT samples: datagrams pre-built by
// the simulated switch go through the receive worker's per-datagram path
// (header check, session lookup, set walk, sample assembly, byte-swap into
// the sink's block) on this one thread, with no socket involved. Beside it,
// memcpy of the same counter bytes into blocks of the same size.
//
// Sinks:
//   DiskWriterShm      - the real disk writer on a tmpfs root (/dev/shm,
//                        direct I/O off): pages are really written, by the
//                        io_uring writer's threads into page cache; the
//                        worker waits whenever that copy falls behind.
//   DiskWriterShmPaced - the same fed at about 250 MB/s of blocks, which
//                        the copy sustains: the worker never waits, but it
//                        sleeps between laps as a worker between batches.
//   RingSink           - the writer's slot work alone (block header, zeroed
//                        tail, two alternating page-sized buffers), nothing
//                        written.
//
// Per sample the 300 record's time is advanced by 100 us in the datagram
// itself (as the exporter would), so that data files see monotonic time.
// Every stored sample is counted back from the files afterwards: a run that
// lost samples is reported as an error, not as a figure.
//
// Counters: items_per_second = samples per second of the measuring thread's
// CPU time (the receive worker's core); ns_per_fragment = that CPU time per
// data record; sys_ns_per_sample = its kernel share; proc_ns_per_sample =
// the whole process's CPU per sample (for the disk writer this adds the
// io_uring writer's copy into tmpfs); warnings = warning lines logged.
#include <benchmark/benchmark.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <boost/filesystem.hpp>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dtl_data_file_header.h"
#include "dtl_logger.h"
#include "storage/ipfix_disk_writer.h"
#include "ipfix/ipfix_receiver.h"
#include "ipfix/ipfix_recv_worker.h"
#include "storage/ipfix_session_sink.h"
#include "tools/hft_sim/hft_simulator.h"

namespace {

namespace fs = boost::filesystem;
using dtl::ipfix::IpfixDiskWriter;

// Distinct pre-built samples cycled through by the hot loop: enough that the
// records differ, few enough that they stay in cache as a freshly received
// batch would.
constexpr size_t kRingSamples = 256;
// Byte offsets in a sample's first datagram: the message header (16) and the
// set header (4), then template 300's seconds and nanoseconds fields.
constexpr size_t kSecondsOffset = 20;
constexpr size_t kNanosecondsOffset = 24;
constexpr uint32_t kStepNs = 100000;

// Warnings logged while a case runs (the writer's waits for in-flight page
// writes at rotation, for one); errors are printed as they come.
std::atomic<uint64_t> g_warnings{0};

void CountingLog(int level, const char* format, ...) {
  if (level > DTL_LOG_LEVEL_WARNING) return;
  g_warnings.fetch_add(1, std::memory_order_relaxed);
  if (level < DTL_LOG_LEVEL_WARNING) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
  }
}

double Ns(const timeval& tv) { return static_cast<double>(tv.tv_sec) * 1e9 + static_cast<double>(tv.tv_usec) * 1e3; }

// The calling thread's user and system CPU time so far.
void ThreadUserSysNs(double& user, double& sys) {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  user = Ns(usage.ru_utime);
  sys = Ns(usage.ru_stime);
}

double CpuNs(clockid_t clock) {
  timespec ts{};
  clock_gettime(clock, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

void StoreBe32(uint8_t* p, uint32_t v) {
  v = __builtin_bswap32(v);
  std::memcpy(p, &v, 4);
}

// The stream of one exporter whose samples are `fragments` records of
// `counters` 8-byte counters each (one record per datagram).
struct Stream {
  std::vector<dtl::hftsim::Datagram> announcement;
  std::vector<dtl::hftsim::Datagram> datagrams;  // kRingSamples x fragments
  size_t fragments = 0;
  size_t counters = 0;
};

Stream BuildStream(size_t fragments, size_t counters) {
  dtl::hftsim::SimConfig config;
  config.counter_names = {"c0", "c1", "c2", "c3", "c4", "c5", "c6", "c7"};
  config.interface_count = static_cast<uint32_t>(fragments * counters / config.counter_names.size());
  config.counters_per_template = static_cast<uint32_t>(counters);
  config.start_time_ns = 1714521600000000000ll;
  Stream stream;
  stream.fragments = fragments;
  stream.counters = counters;
  if (!config.Validate().empty() || config.CounterTemplateCount() != fragments) return stream;
  dtl::hftsim::HftSimulator sim(config);
  stream.announcement = sim.BuildAnnouncement(0);
  for (uint64_t i = 0; i < kRingSamples; ++i) {
    std::vector<dtl::hftsim::Datagram> sample = sim.BuildSample(0, i);
    if (sample.size() != fragments) return Stream{};
    for (auto& d : sample) stream.datagrams.push_back(std::move(d));
  }
  return stream;
}

sockaddr_in6 ExporterAddress() {
  sockaddr_in6 from{};
  from.sin6_family = AF_INET6;
  from.sin6_port = htons(40000);
  const uint8_t mapped[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 127, 0, 0, 1};
  std::memcpy(&from.sin6_addr, mapped, 16);
  return from;
}

// The disk writer's slot work without the writer: blocks laid out as in a
// data page, two page buffers alternating, a full page simply reused.
class RingSink final : public dtl::ipfix::IpfixSessionSink {
 public:
  bool Start() override { return true; }
  void Stop() override {}
  const std::string& root() const override { return root_; }
  void ProcessSchemaUpdate(size_t, const std::string&, const dtl::ipfix::SchemaSnapshot& snapshot) override {
    block_size_ = static_cast<uint32_t>((snapshot.flat_fields.size() + 2) * 8);
    const auto sizing = IpfixDiskWriter::ComputePageSizing(block_size_, 1000);
    capacity_ = sizing.batch_capacity;
    for (auto& page : pages_) {
      void* p = nullptr;
      if (posix_memalign(&p, 4096, sizing.buffer_size) != 0) p = nullptr;
      page.reset(static_cast<uint8_t*>(p));
      if (page) std::memset(page.get(), 0, sizing.buffer_size);
    }
  }
  uint8_t* AcquireRecordValueSlot(size_t, const std::string&, uint32_t sec, uint32_t nsec,
                                  uint64_t values_size) override {
    const uint64_t values_capacity = block_size_ - 16;
    if (!pages_[active_] || values_size > values_capacity) return nullptr;
    uint8_t* block = pages_[active_].get() + static_cast<uint64_t>(count_) * block_size_;
    const uint64_t ts = static_cast<uint64_t>(sec) * 1000000u + nsec / 1000u;
    std::memcpy(block, "DTLD", 4);
    std::memset(block + 4, 0, 4);
    std::memcpy(block + 8, &ts, 8);
    std::memset(block + 16 + values_size, 0, values_capacity - values_size);
    pending_ = true;
    return block + 16;
  }
  void CommitRecord(size_t, const std::string&, uint64_t) override {
    if (!pending_) return;
    pending_ = false;
    ++committed;
    if (++count_ == capacity_) {
      count_ = 0;
      active_ ^= 1;
    }
  }
  void RemoveSession(size_t, const std::string&) override {}

  uint64_t committed = 0;

 private:
  struct Free {
    void operator()(uint8_t* p) const { free(p); }
  };
  std::string root_ = "ring";
  std::unique_ptr<uint8_t, Free> pages_[2];
  uint32_t block_size_ = 0;
  uint32_t capacity_ = 0;
  uint32_t count_ = 0;
  unsigned active_ = 0;
  bool pending_ = false;
};

// Samples stored under root: whole blocks behind each data file's header.
uint64_t StoredSamples(const fs::path& root) {
  uint64_t samples = 0;
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    if (!fs::is_regular_file(it->path())) continue;
    const std::string parent = it->path().parent_path().filename().string();
    if (parent == "schema" || parent == "metadata") continue;
    dtl_data_file_header_t header{};
    FILE* f = std::fopen(it->path().c_str(), "rb");
    if (f == nullptr) continue;
    const bool read = std::fread(&header, sizeof header, 1, f) == 1;
    std::fclose(f);
    const uint64_t size = fs::file_size(it->path());
    if (read && header.block_size > 0 && size > 256) samples += (size - 256) / header.block_size;
  }
  return samples;
}

// Feeds the pre-built samples round and round through the worker's message
// path; returns the number of samples fed. Time measurement brackets only
// the loop.
void RunLoop(benchmark::State& state, Stream& stream, dtl::ipfix::IpfixRecvWorker& worker,
             const sockaddr_in6& from, double samples_per_sec = 0) {
  const size_t fragments = stream.fragments;
  // Pacing sleeps once per lap of the ring until the lap's deadline; the
  // sleep costs the thread no CPU time.
  const long lap_ns = samples_per_sec > 0 ? static_cast<long>(kRingSamples * 1e9 / samples_per_sec) : 0;
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  uint32_t sec = 1714521600;
  uint32_t nsec = 0;
  size_t next = 0;
  double user0 = 0, sys0 = 0;
  ThreadUserSysNs(user0, sys0);
  const uint64_t warnings0 = g_warnings.load();
  const double thread0 = CpuNs(CLOCK_THREAD_CPUTIME_ID);
  const double process0 = CpuNs(CLOCK_PROCESS_CPUTIME_ID);
  for (auto _ : state) {
    dtl::hftsim::Datagram* sample = &stream.datagrams[next * fragments];
    nsec += kStepNs;
    if (nsec >= 1000000000u) {
      nsec = 0;
      ++sec;
    }
    StoreBe32(sample[0].data() + kSecondsOffset, sec);
    StoreBe32(sample[0].data() + kNanosecondsOffset, nsec);
    // The receive thread reads the clock once per batch of datagrams.
    const uint64_t now_ns = dtl::ipfix::IpfixRecvWorker::MonotonicNowNs();
    for (size_t f = 0; f < fragments; ++f)
      worker.ProcessMessage(sample[f].data(), sample[f].size(), from, now_ns);
    if (++next == kRingSamples) {
      next = 0;
      if (lap_ns > 0) {
        deadline.tv_nsec += lap_ns;
        deadline.tv_sec += deadline.tv_nsec / 1000000000;
        deadline.tv_nsec %= 1000000000;
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
        }
      }
    }
  }
  const double thread_ns = CpuNs(CLOCK_THREAD_CPUTIME_ID) - thread0;
  const double process_ns = CpuNs(CLOCK_PROCESS_CPUTIME_ID) - process0;
  double user1 = 0, sys1 = 0;
  ThreadUserSysNs(user1, sys1);
  const double samples = static_cast<double>(state.iterations());
  state.SetItemsProcessed(state.iterations());
  state.counters["ns_per_fragment"] = thread_ns / (samples * static_cast<double>(fragments));
  // The system share is what the worker spends in the kernel: waits for a
  // page write (sched_yield), file rotation, page faults.
  state.counters["sys_ns_per_sample"] = (sys1 - sys0) / samples;
  state.counters["proc_ns_per_sample"] = process_ns / samples;
  state.counters["warnings"] = static_cast<double>(g_warnings.load() - warnings0);
}

void SetLabel(benchmark::State& state, const Stream& stream, uint64_t block_size) {
  state.SetLabel(std::to_string(stream.fragments) + "x" + std::to_string(stream.counters) +
                 " counters, block " + std::to_string(block_size) + " B");
}

// The real disk writer on tmpfs; with a pace, fed below the rate at which
// the io_uring writer's copy into tmpfs keeps up, so the worker never waits
// for a page write and its CPU time is the decode + store work alone.
void DiskWriterShm(benchmark::State& state, double samples_per_sec) {
  Stream stream = BuildStream(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
  if (stream.datagrams.empty()) {
    state.SkipWithError("simulator cannot build this layout");
    return;
  }
  char pattern[] = "/dev/shm/dtl_decode_store_XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    state.SkipWithError("mkdtemp under /dev/shm failed");
    return;
  }
  const fs::path base = pattern;
  IpfixDiskWriter::Config config;
  config.root = (base / "root").string();
  config.workers = 1;
  config.max_sessions = 4;
  config.direct_io = false;
  uint64_t stored = 0;
  uint64_t block_size = 0;
  {
    IpfixDiskWriter writer(config);
    writer.Start();
    dtl::ipfix::IpfixRecvWorker::Config worker_config;
    dtl::ipfix::IpfixRecvWorker worker(0, worker_config, &writer);
    const sockaddr_in6 from = ExporterAddress();
    for (const auto& d : stream.announcement) worker.ProcessMessage(d.data(), d.size(), from);
    const std::string key = dtl::ipfix::IpfixReceiver::MakeSessionKey(from, 1).ToKeyString();
    const IpfixDiskWriter::DomainState* domain = writer.FindSession(0, key);
    if (domain == nullptr || domain->block_size == 0) {
      state.SkipWithError("the announcement did not complete the session's schema");
      return;
    }
    block_size = domain->block_size;
    RunLoop(state, stream, worker, from, samples_per_sec);
    worker.Drain();
    writer.Stop();
    stored = StoredSamples(config.root);
  }
  boost::system::error_code ec;
  fs::remove_all(base, ec);
  SetLabel(state, stream, block_size);
  if (stored != static_cast<uint64_t>(state.iterations()))
    state.SkipWithError(("stored " + std::to_string(stored) + " of " + std::to_string(state.iterations()) +
                         " samples").c_str());
}

void BM_DecodeStoreDiskWriterShm(benchmark::State& state) { DiskWriterShm(state, 0); }

// About 250 MB/s of blocks, at most 500 000 samples/s.
void BM_DecodeStoreDiskWriterShmPaced(benchmark::State& state) {
  const double block_size = static_cast<double>((state.range(0) * state.range(1) + 2) * 8);
  DiskWriterShm(state, std::min(500000.0, 250e6 / block_size));
}

void BM_DecodeStoreRingSink(benchmark::State& state) {
  Stream stream = BuildStream(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
  if (stream.datagrams.empty()) {
    state.SkipWithError("simulator cannot build this layout");
    return;
  }
  RingSink sink;
  dtl::ipfix::IpfixRecvWorker::Config worker_config;
  dtl::ipfix::IpfixRecvWorker worker(0, worker_config, &sink);
  const sockaddr_in6 from = ExporterAddress();
  for (const auto& d : stream.announcement) worker.ProcessMessage(d.data(), d.size(), from);
  RunLoop(state, stream, worker, from);
  SetLabel(state, stream, (stream.fragments * stream.counters + 2) * 8);
  if (sink.committed != static_cast<uint64_t>(state.iterations()))
    state.SkipWithError(("committed " + std::to_string(sink.committed) + " of " +
                         std::to_string(state.iterations()) + " samples")
                            .c_str());
}

// The floor: the counter bytes of each of the sample's records copied as
// they are (no byte-swap, no parsing) into consecutive blocks of the same
// size in page-sized buffers, as the decode path fills them.
void BM_MemcpySameBytes(benchmark::State& state) {
  Stream stream = BuildStream(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
  if (stream.datagrams.empty()) {
    state.SkipWithError("simulator cannot build this layout");
    return;
  }
  const size_t fragments = stream.fragments;
  const size_t counter_bytes = stream.counters * 8;
  const uint32_t block_size = static_cast<uint32_t>((fragments * stream.counters + 2) * 8);
  const auto sizing = IpfixDiskWriter::ComputePageSizing(block_size, 1000);
  std::vector<uint8_t> pages(2 * sizing.buffer_size);
  const size_t blocks = 2 * static_cast<size_t>(sizing.batch_capacity);
  // The counters of a record are its last counter_bytes bytes (the opening
  // record carries the time fields in front of them).
  std::vector<const uint8_t*> sources;
  for (const auto& d : stream.datagrams) sources.push_back(d.data() + d.size() - counter_bytes);
  size_t next = 0;
  size_t block = 0;
  const double thread0 = CpuNs(CLOCK_THREAD_CPUTIME_ID);
  for (auto _ : state) {
    uint8_t* dest = pages.data() + block * block_size + 16;
    const uint8_t* const* src = &sources[next * fragments];
    for (size_t f = 0; f < fragments; ++f) std::memcpy(dest + f * counter_bytes, src[f], counter_bytes);
    benchmark::DoNotOptimize(dest);
    benchmark::ClobberMemory();
    if (++next == kRingSamples) next = 0;
    if (++block == blocks) block = 0;
  }
  const double thread_ns = CpuNs(CLOCK_THREAD_CPUTIME_ID) - thread0;
  state.SetItemsProcessed(state.iterations());
  state.counters["ns_per_fragment"] =
      thread_ns / (static_cast<double>(state.iterations()) * static_cast<double>(fragments));
  state.SetLabel(std::to_string(fragments) + "x" + std::to_string(stream.counters) + " counters, " +
                 std::to_string(fragments * counter_bytes) + " B per sample");
}

// With --benchmark_repetitions the spread is shown as min and max beside
// the mean and median.
double Min(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }
double Max(const std::vector<double>& v) { return *std::max_element(v.begin(), v.end()); }

void Cases(benchmark::internal::Benchmark* b) {
  b->ArgNames({"fragments", "counters"});
  b->ComputeStatistics("min", Min)->ComputeStatistics("max", Max);
  for (int64_t fragments : {2, 8})
    for (int64_t counters : {32, 64}) b->Args({fragments, counters});
}

BENCHMARK(BM_DecodeStoreDiskWriterShm)->Apply(Cases);
// Paced runs take wall time in proportion: a shorter CPU-time target.
BENCHMARK(BM_DecodeStoreDiskWriterShmPaced)->Apply(Cases)->MinTime(0.1);
BENCHMARK(BM_DecodeStoreRingSink)->Apply(Cases);
BENCHMARK(BM_MemcpySameBytes)->Apply(Cases);

}  // namespace

int main(int argc, char** argv) {
  // Session, writer and file messages are not what is measured: warnings
  // are counted per case, errors printed.
  dtl_set_log_func(CountingLog, DTL_LOG_LEVEL_WARNING);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
