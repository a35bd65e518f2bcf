// The storage path through the real programs: hft-sim exports over loopback
// UDP, dtl-host runs the plug-in with a data root, and dtl-read turns the
// files back into rows. Sample s of a run that starts at second t has the
// time t * 10^6 + s * 100 us and the values CounterValue(s, field), so every
// stored row is checked against the simulator's formula.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "dtl_data_file_header.h"
#include "support/child_process.h"
#include "support/free_udp_port.h"
#include "support/udp_port_sockets.h"
#include "support/wait_for.h"
#include "tools/hft_sim/counter_layout.h"

namespace store_run {

namespace fs = std::filesystem;
using dtl_test::ChildProcess;
using dtl_test::ReadTextFile;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

inline const std::string kBin = DTL_BINARY_DIR "/bin/";
constexpr uint64_t kStartSec = 1700000000, kStartUs = kStartSec * 1000000, kIntervalUs = 100;
constexpr uint64_t kRunSpacingSec = 10;  // run r of a session starts at kStartSec + 10 r

// One data file: its header as stored and its rows as dtl-read prints them.
struct StoredFile {
  fs::path path;
  dtl_data_file_header_t header{};
  size_t columns = 0;  // counter columns, after timestamp_us
  std::vector<uint64_t> timestamps;
  std::vector<std::vector<uint64_t>> rows;
  std::string errors;  // dtl-read's standard error
  int exit_code = -1;
};

// The run and sample of time ts among runs that sent sent[r] samples each;
// run sent.size() when no sample was sent at that time.
inline std::pair<size_t, uint64_t> Place(uint64_t ts, const std::vector<uint64_t>& sent) {
  const uint64_t run = ts < kStartUs ? sent.size() : (ts / 1000000 - kStartSec) / kRunSpacingSec;
  const uint64_t offset = run < sent.size() ? ts - (kStartSec + run * kRunSpacingSec) * 1000000 : 0;
  if (run >= sent.size() || offset % kIntervalUs != 0 || offset / kIntervalUs >= sent[run]) return {sent.size(), 0};
  return {run, offset / kIntervalUs};
}

inline bool Exact(const std::vector<uint64_t>& row, uint64_t sample, size_t counters) {
  bool exact = row.size() == counters;
  for (size_t f = 0; exact && f < counters; ++f) exact = row[f] == dtl::hftsim::CounterValue(sample, f);
  return exact;
}

// The rows of files sorted among the runs of one session (see Place).
struct Sorted {
  std::vector<std::vector<int>> exact;               // [run][sample]: rows with exactly its values
  std::vector<std::pair<size_t, uint64_t>> inexact;  // run and sample of rows with other values
  uint64_t stray = 0;                                // rows at no sample's time
  std::string examples;                              // the first wrong rows
};
inline Sorted Sort(const std::vector<StoredFile>& files, const std::vector<uint64_t>& sent, size_t counters) {
  Sorted sorted;
  for (uint64_t samples : sent) sorted.exact.emplace_back(samples, 0);
  for (const StoredFile& file : files) {
    for (size_t r = 0; r < file.rows.size(); ++r) {
      const auto [run, sample] = Place(file.timestamps[r], sent);
      const bool exact = run < sent.size() && Exact(file.rows[r], sample, counters);
      if (exact && ++sorted.exact[run][sample] == 1) continue;
      if (run == sent.size()) ++sorted.stray;
      if (run < sent.size() && !exact) sorted.inexact.emplace_back(run, sample);
      if (sorted.examples.size() < 500)
        sorted.examples += file.path.string() + " time " + std::to_string(file.timestamps[r]) + "\n";
    }
  }
  return sorted;
}

// A file read without a word, rows in time order, and a header telling its
// source, first and last time and size.
inline void ExpectWellFormed(const StoredFile& file, const std::string& source = "hft-sim") {
  EXPECT_EQ(file.exit_code, 0) << file.path << ": " << file.errors;
  EXPECT_EQ(file.errors, "") << file.path;
  EXPECT_EQ(file.header.source_id, source) << file.path;
  EXPECT_TRUE(std::is_sorted(file.timestamps.begin(), file.timestamps.end())) << file.path;
  EXPECT_EQ(file.header.first_timestamp, file.timestamps.empty() ? 0 : file.timestamps.front()) << file.path;
  EXPECT_EQ(file.header.last_timestamp, file.timestamps.empty() ? 0 : file.timestamps.back()) << file.path;
  EXPECT_EQ(file.header.file_size, fs::file_size(file.path)) << file.path;
}

class StoreRun : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* program : {"dtl-host", "hft-sim", "dtl-read"})
      ASSERT_EQ(access((kBin + program).c_str(), X_OK), 0) << program << " is not built";
    char pattern[] = "/tmp/store_run_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    root_ = dir_ / "data";
  }
  void TearDown() override {
    host_.reset();
    std::error_code ignored;
    if (HasFailure()) std::printf("kept %s for a look\n", dir_.c_str());
    if (!HasFailure()) fs::remove_all(dir_, ignored);
  }

  // Starts dtl-host storing under root_ with these -o options; returns once it listens.
  void StartHost(const std::vector<std::string>& options = {}, int workers = 2) {
    port_ = dtl_test::FreeUdpPort();
    std::vector<std::string> args = {kBin + "dtl-host", "-o", "ipfix-receiver-port=" + std::to_string(port_), "-o",
                                     "ipfix-receiver-workers=" + std::to_string(workers), "-o",
                                     "ipfix-data-path=" + root_.string()};
    for (const std::string& option : options) args.insert(args.end(), {"-o", option});
    args.insert(args.end(), {"--duration", "120"});
    host_ = std::make_unique<ChildProcess>(args, Log("host"));
    ASSERT_TRUE(dtl_test::WaitForText(Log("host"), "dtl-host: running", seconds(30))) << ReadTextFile(Log("host"));
  }
  // hft-sim towards the host from `from`: run 0's start time, one
  // announcement, then args (later options override earlier ones).
  std::unique_ptr<ChildProcess> StartSim(const std::vector<std::string>& args, const std::string& name = "sim",
                                         const std::string& from = "127.0.0.1") {
    const std::string host = from.find(':') == std::string::npos ? from : "[" + from + "]";
    std::vector<std::string> all = {kBin + "hft-sim", "--target", host + ":" + std::to_string(port_), "--start-time",
                                    std::to_string(kStartSec), "--announce-period", "0"};
    all.insert(all.end(), args.begin(), args.end());
    return std::make_unique<ChildProcess>(all, Log(name));
  }
  void RunSim(const std::vector<std::string>& args, const std::string& name = "sim",
              const std::string& from = "127.0.0.1") {
    ASSERT_EQ(StartSim(args, name, from)->Wait(seconds(60)), 0) << ReadTextFile(Log(name));
  }
  // Once the host has read every queued datagram, stops it with SIGTERM; it
  // must have run all along, and its stop writes out every partial page.
  void StopHost() {
    ASSERT_TRUE(host_->Running()) << "the collector died: status " << host_->Wait(milliseconds(0)) << "\n"
                                  << ReadTextFile(Log("host"));
    dtl_test::PortSockets queue;
    dtl_test::WaitFor([&] { return (queue = dtl_test::ReadPortSockets(port_)).rx_queue == 0; }, seconds(30));
    EXPECT_GT(queue.count, 0);
    EXPECT_EQ(queue.rx_queue, 0u) << "the host did not drain its sockets";
    EXPECT_EQ(queue.drops, 0u) << "the kernel dropped datagrams; the checks below would be moot";
    host_->Signal(SIGTERM);
    EXPECT_EQ(host_->Wait(seconds(60)), 0) << ReadTextFile(Log("host"));
    host_.reset();
  }

  std::vector<fs::path> DataFiles() const {
    std::vector<fs::path> files;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root_, ec), end; !ec && it != end; it.increment(ec))
      if (it->path().extension() == ".bin") files.push_back(it->path());
    std::sort(files.begin(), files.end());
    return files;
  }
  uint64_t DataBytes(uint64_t* largest_file = nullptr) const {
    uint64_t total = 0;
    for (const fs::path& path : DataFiles()) {
      std::error_code ec;
      const uint64_t size = fs::file_size(path, ec);
      total += ec ? 0 : size;
      if (largest_file != nullptr && !ec) *largest_file = std::max(*largest_file, size);
    }
    return total;
  }
  // Runs dtl-read (with these options) on path.
  StoredFile Read(const fs::path& path, std::vector<std::string> options = {}) {
    StoredFile file;
    file.path = path;
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&file.header), sizeof file.header);
    options.insert(options.begin(), kBin + "dtl-read");
    options.push_back(path.string());
    ChildProcess reader(options, (dir_ / "read.out").string(), (dir_ / "read.err").string());
    file.exit_code = reader.Wait(seconds(60));
    file.errors = ReadTextFile((dir_ / "read.err").string());
    std::istringstream lines(ReadTextFile((dir_ / "read.out").string()));
    std::string line;
    if (std::getline(lines, line)) file.columns = std::count(line.begin(), line.end(), ',');
    for (std::vector<uint64_t> values; std::getline(lines, line); values.clear()) {
      std::istringstream cells(line);
      for (std::string cell; std::getline(cells, cell, ',');) values.push_back(std::stoull(cell));
      file.timestamps.push_back(values.at(0));
      file.rows.emplace_back(values.begin() + 1, values.end());
    }
    return file;
  }
  std::vector<StoredFile> ReadAll() {
    std::vector<StoredFile> files;
    for (const fs::path& path : DataFiles()) files.push_back(Read(path));
    return files;
  }
  std::string Log(const std::string& name) const { return (dir_ / (name + ".log")).string(); }
  // The exporter sessions the host reports created.
  size_t SessionsCreated() const {
    std::istringstream lines(ReadTextFile(Log("host")));
    size_t count = 0;
    for (std::string line; std::getline(lines, line);) count += line.find("New exporter session") != std::string::npos;
    return count;
  }

  fs::path dir_, root_;
  uint16_t port_ = 0;
  std::unique_ptr<ChildProcess> host_;
};

}  // namespace store_run
