// Soak: hft-sim streams into dtl-host with a small file-size limit and a small
// data-size limit for about 30 s. Sampled every 100 ms, the data under the
// root never exceeds the limit by more than one file per session, and files
// that are not data files are never deleted.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/free_udp_port.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

using dtl_test::FreeUdpPort;
using Child = dtl_test::ChildProcess;

// Total size of the data files under root; *largest_file gets the largest one.
uint64_t DataBytes(const fs::path& root, uint64_t* largest_file) {
  uint64_t total = 0;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code size_ec;
    if (it->path().extension() == ".bin" && it->is_regular_file(size_ec)) {
      const auto size = it->file_size(size_ec);
      if (!size_ec) {
        total += size;
        *largest_file = std::max<uint64_t>(*largest_file, size);
      }
    }
  }
  return total;
}

std::string ReadFile(const fs::path& path) { return dtl_test::ReadTextFile(path.string()); }

TEST(RetentionSoak, DataStaysUnderTheLimitWhileStreaming) {
  char pattern[] = "/tmp/retention_soak_XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const fs::path dir = pattern;
  const fs::path root = dir / "data";
  fs::create_directories(root / "notes");
  // Files that are not data files: retention must leave them alone.
  std::ofstream(root / "README.txt") << "keep";
  std::ofstream(root / "notes" / "old.csv") << "keep";

  constexpr uint64_t kFileLimit = 1 << 20;
  constexpr uint64_t kDataLimit = 8 << 20;
  constexpr uint64_t kSessions = 2;
  const uint16_t port = FreeUdpPort();
  ASSERT_NE(port, 0);

  Child host({DTL_BINARY_DIR "/bin/dtl-host", "-o", "ipfix-receiver-port=" + std::to_string(port),
              "-o", "ipfix-receiver-workers=2", "-o", "ipfix-data-path=" + root.string(), "-o",
              "ipfix-disk-file-size-limit=" + std::to_string(kFileLimit), "-o",
              "ipfix-disk-data-size-limit=" + std::to_string(kDataLimit), "-o", "ipfix-disk-batch-count=64",
              "--duration", "60"},
             (dir / "host.log").string());
  // The host is listening once it has printed its sources.
  const auto ready_by = steady_clock::now() + std::chrono::seconds(20);
  while (ReadFile(dir / "host.log").find("dtl-host: running") == std::string::npos && steady_clock::now() < ready_by)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_NE(ReadFile(dir / "host.log").find("dtl-host: running"), std::string::npos) << ReadFile(dir / "host.log");

  // Two switches (distinct names, so distinct files) x 96 counters x 4000
  // samples/s: about 6 MB/s, several times the limit over the run.
  auto simulator = [&](const std::string& name) {
    return std::make_unique<Child>(
        std::vector<std::string>{DTL_BINARY_DIR "/bin/hft-sim", "--target", "127.0.0.1:" + std::to_string(port),
                                 "--switch-name", name, "--interfaces", "16", "--rate", "4000", "--duration", "30"},
        (dir / (name + ".log")).string());
  };
  auto sim1 = simulator("leaf-1");
  auto sim2 = simulator("leaf-2");
  auto sim_running = [&] { return sim1->Running() | sim2->Running(); };

  uint64_t largest = 0;
  uint64_t largest_file = 0;
  uint64_t samples = 0;
  const auto stop_by = steady_clock::now() + std::chrono::seconds(45);
  while (sim_running() && steady_clock::now() < stop_by) {
    largest = std::max(largest, DataBytes(root, &largest_file));
    ++samples;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_EQ(sim1->Wait(std::chrono::seconds(5)), 0) << ReadFile(dir / "leaf-1.log");
  ASSERT_EQ(sim2->Wait(std::chrono::seconds(5)), 0) << ReadFile(dir / "leaf-2.log");
  host.Signal(SIGTERM);
  EXPECT_EQ(host.Wait(std::chrono::seconds(30)), 0) << ReadFile(dir / "host.log");
  largest = std::max(largest, DataBytes(root, &largest_file));

  std::printf("soak: %llu samples, largest data total %llu bytes, limit %llu, largest file %llu (file limit %llu)\n",
              static_cast<unsigned long long>(samples), static_cast<unsigned long long>(largest),
              static_cast<unsigned long long>(kDataLimit), static_cast<unsigned long long>(largest_file),
              static_cast<unsigned long long>(kFileLimit));
  const std::string log = ReadFile(dir / "host.log");
  EXPECT_NE(log.find("Retention enabled"), std::string::npos);
  EXPECT_GT(largest, kDataLimit / 2) << "the stream never filled the data root";
  // A file ends at the first page that reaches the file limit.
  EXPECT_LE(largest_file, 2 * kFileLimit);
  // Above the limit: each session's open file, plus the one closed file
  // whose arrival takes the ledger over the limit and starts the sweep, plus
  // one more file's worth for what arrives before the retention thread (which
  // polls every 100 ms) has its unlinks done on a loaded machine.
  EXPECT_LE(largest, kDataLimit + (kSessions + 2) * largest_file);
  EXPECT_TRUE(fs::exists(root / "README.txt"));
  EXPECT_TRUE(fs::exists(root / "notes" / "old.csv"));
  if (!HasFailure()) {
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }
}

}  // namespace
