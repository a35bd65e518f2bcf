// Sustained write bandwidth of the shared io_uring writer: 1 MiB pages,
// 4096-byte aligned, registered with the ring and written with O_DIRECT,
// several pages in flight, appended to one file; then, on the same file
// system in the same run, `dd oflag=direct bs=1M` writing the same amount.
// Prints both bandwidths, their ratio and the CPU time per GiB written
// (this process holds only the writer side, split into the producing
// thread and the rest; dd's is its own).
#include <fcntl.h>
#include <getopt.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dtl_logger.h"
#include "storage/io_uring_writer.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kPage = 1 << 20;
constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;

struct Options {
  std::string dir = ".";
  uint64_t size = uint64_t{2} << 30;
  unsigned depth = 8;  // pages in flight
};

struct Outcome {
  double wall_sec = 0;
  double cpu_sec = 0;
  double producer_cpu_sec = 0;  // the producing thread's share of cpu_sec
  bool ok = false;
};

double Seconds(const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; }

double CpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

// "2G", "512M", "4096K" or plain bytes.
uint64_t ParseSize(const char* text) {
  char* end = nullptr;
  uint64_t value = strtoull(text, &end, 10);
  switch (end && *end ? *end : ' ') {
    case 'G': case 'g': return value << 30;
    case 'M': case 'm': return value << 20;
    case 'K': case 'k': return value << 10;
    default: return value;
  }
}

struct PageDeleter {
  void operator()(uint8_t* p) const { free(p); }
};

Outcome RunWriter(const std::string& path, uint64_t pages, unsigned depth) {
  Outcome out;
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_DIRECT, 0644);
  if (fd < 0) {
    fprintf(stderr, "open(%s, O_DIRECT): %s\n", path.c_str(), strerror(errno));
    return out;
  }
  std::vector<std::unique_ptr<uint8_t, PageDeleter>> buffers;
  std::vector<iovec> table;
  for (unsigned i = 0; i < depth; ++i) {
    void* p = nullptr;
    if (posix_memalign(&p, 4096, kPage) != 0) return out;
    memset(p, 0xa5, kPage);
    buffers.emplace_back(static_cast<uint8_t*>(p));
    table.push_back({p, kPage});
  }
  auto flags = std::make_unique<std::atomic<bool>[]>(depth);
  std::atomic<uint64_t> errors{0};

  dtl::ipfix::IoUringWriter writer;
  if (!writer.Start() || !writer.RegisterBuffers(table.data(), depth)) {
    close(fd);
    return out;
  }
  double cpu0 = CpuSeconds(RUSAGE_SELF);
  double producer0 = CpuSeconds(RUSAGE_THREAD);
  auto t0 = Clock::now();
  for (uint64_t page = 0; page < pages; ++page) {
    unsigned i = page % depth;
    // The producer waits for its page like the disk writer does: yielding.
    while (flags[i].load(std::memory_order_acquire)) sched_yield();
    memcpy(buffers[i].get(), &page, sizeof page);  // stamps the page
    flags[i].store(true, std::memory_order_relaxed);
    dtl::ipfix::IoUringWriter::WriteJob job{fd,
                                            buffers[i].get(),
                                            kPage,
                                            static_cast<int64_t>(page * kPage),
                                            static_cast<int>(i),
                                            [&errors] { ++errors; },
                                            &flags[i],
                                            {}};
    if (!writer.Submit(job)) break;
  }
  writer.Drain();
  out.wall_sec = std::chrono::duration<double>(Clock::now() - t0).count();
  out.cpu_sec = CpuSeconds(RUSAGE_SELF) - cpu0;
  out.producer_cpu_sec = CpuSeconds(RUSAGE_THREAD) - producer0;
  writer.Stop();
  close(fd);
  out.ok = errors.load() == 0;
  if (!out.ok) fprintf(stderr, "%" PRIu64 " writes failed\n", errors.load());
  return out;
}

Outcome RunDd(const std::string& path, uint64_t pages) {
  Outcome out;
  std::string command = "dd if=/dev/zero of='" + path + "' oflag=direct bs=1M count=" +
                        std::to_string(pages) + " 2>&1";
  double cpu0 = CpuSeconds(RUSAGE_CHILDREN);
  auto t0 = Clock::now();
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  std::string text;
  char line[512];
  while (fgets(line, sizeof line, pipe)) text += line;
  int status = pclose(pipe);
  out.wall_sec = std::chrono::duration<double>(Clock::now() - t0).count();
  out.cpu_sec = CpuSeconds(RUSAGE_CHILDREN) - cpu0;
  out.ok = status == 0;
  printf("dd says: %s", text.substr(text.rfind('\n', text.size() - 2) + 1).c_str());
  if (!out.ok) fprintf(stderr, "dd failed: %s", text.c_str());
  return out;
}

void Print(const char* name, const Outcome& o, uint64_t bytes) {
  double gib = bytes / kGiB;
  printf("%-18s %8.1f MiB/s  %7.3f s  CPU %6.3f s/GiB", name, bytes / (1024.0 * 1024.0) / o.wall_sec,
         o.wall_sec, o.cpu_sec / gib);
  // The producer waits for free pages by yielding; the rest is the writer
  // thread and the kernel's io_uring workers.
  if (o.producer_cpu_sec > 0)
    printf(" (producer %.3f, writer side %.3f)", o.producer_cpu_sec / gib,
           (o.cpu_sec - o.producer_cpu_sec) / gib);
  printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  static const option longs[] = {{"dir", required_argument, nullptr, 'd'},
                                 {"size", required_argument, nullptr, 's'},
                                 {"depth", required_argument, nullptr, 'q'},
                                 {nullptr, 0, nullptr, 0}};
  int c;
  while ((c = getopt_long(argc, argv, "d:s:q:", longs, nullptr)) != -1) {
    switch (c) {
      case 'd': opt.dir = optarg; break;
      case 's': opt.size = ParseSize(optarg); break;
      case 'q': opt.depth = static_cast<unsigned>(strtoul(optarg, nullptr, 10)); break;
      default:
        fprintf(stderr, "usage: %s [--dir DIR] [--size BYTES[K|M|G]] [--depth PAGES]\n", argv[0]);
        return 2;
    }
  }
  if (opt.depth == 0) opt.depth = 1;
  uint64_t pages = opt.size / kPage;
  if (pages == 0) pages = 1;
  uint64_t bytes = pages * kPage;
  dtl_set_log_level(DTL_LOG_LEVEL_WARNING);

  std::string path = opt.dir + "/io_uring_writer_bench.dat";
  printf("%" PRIu64 " MiB to %s, 1 MiB O_DIRECT pages, %u in flight\n", pages, opt.dir.c_str(),
         opt.depth);
  Outcome writer = RunWriter(path, pages, opt.depth);
  unlink(path.c_str());
  if (!writer.ok) return 1;
  Outcome dd = RunDd(path, pages);
  unlink(path.c_str());
  if (!dd.ok) return 1;

  Print("IoUringWriter", writer, bytes);
  Print("dd oflag=direct", dd, bytes);
  printf("bandwidth ratio writer/dd: %.2f\n", dd.wall_sec / writer.wall_sec);
  return 0;
}
