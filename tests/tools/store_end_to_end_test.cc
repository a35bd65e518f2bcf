// The whole storage path through the real programs: hft-sim exports over
// loopback UDP, dtl-host runs the plug-in with a data root, and dtl-read
// turns the files back into rows. Every stored value is checked against the
// simulator's formula, so a lost, duplicated, shifted or corrupted sample
// shows up as a failure naming the file and sample.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "dtl_data_file_header.h"
#include "support/child_process.h"
#include "support/free_udp_port.h"
#include "support/udp_port_sockets.h"
#include "tools/hft_sim/counter_layout.h"
#include "tools/hft_sim/fragment_injector.h"

namespace {

namespace fs = std::filesystem;
using dtl_test::ChildProcess;
using dtl_test::ReadTextFile;
using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kBin = DTL_BINARY_DIR "/bin/";
constexpr uint64_t kStartSec = 1700000000;
constexpr uint64_t kStartUs = kStartSec * 1000000;
constexpr uint64_t kIntervalUs = 100;

// One data file as dtl-read prints it, plus its header read directly.
struct StoredFile {
  fs::path path;
  dtl_data_file_header_t header{};
  std::vector<std::string> columns;  // counter columns, after timestamp_us
  std::vector<uint64_t> timestamps;
  std::vector<std::vector<uint64_t>> rows;
  std::string warnings;  // dtl-read's standard error
  int exit_code = -1;
};

std::vector<std::string> SplitCsv(const std::string& line) {
  std::vector<std::string> cells;
  std::stringstream in(line);
  for (std::string cell; std::getline(in, cell, ',');) cells.push_back(cell);
  return cells;
}

class StoreEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* program : {"dtl-host", "hft-sim", "dtl-read"})
      ASSERT_EQ(access((kBin + program).c_str(), X_OK), 0) << program << " is not built";
    char pattern[] = "/tmp/store_e2e_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    root_ = dir_ / "data";
  }
  void TearDown() override {
    host_.reset();
    if (!HasFailure()) {
      std::error_code ignored;
      fs::remove_all(dir_, ignored);
    } else {
      printf("kept %s for inspection\n", dir_.c_str());
    }
  }

  // Starts dtl-host storing under root_; returns once every worker listens.
  void StartHost(std::vector<std::string> options = {}) {
    port_ = dtl_test::FreeUdpPort();
    ASSERT_NE(port_, 0);
    std::vector<std::string> args = {kBin + "dtl-host", "-o",
                                     "ipfix-receiver-port=" + std::to_string(port_), "-o",
                                     "ipfix-receiver-workers=2", "-o",
                                     "ipfix-data-path=" + root_.string()};
    for (const std::string& option : options) {
      args.push_back("-o");
      args.push_back(option);
    }
    args.insert(args.end(), {"--duration", "120"});
    host_ = std::make_unique<ChildProcess>(args, HostLog());
    ASSERT_TRUE(dtl_test::WaitForText(HostLog(), "dtl-host: running", seconds(30))) << ReadTextFile(HostLog());
  }

  // Runs hft-sim to its end against the host; extra arguments follow the
  // common ones (fixed start time, so sample s has time kStartUs + s * 100).
  void RunSim(const std::string& name, std::vector<std::string> extra,
              const std::string& host = "127.0.0.1") {
    const std::string target =
        (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(port_);
    std::vector<std::string> args = {kBin + "hft-sim", "--target", target, "--start-time",
                                     std::to_string(kStartSec), "--announce-period", "0"};
    args.insert(args.end(), extra.begin(), extra.end());
    const std::string log = (dir_ / (name + ".log")).string();
    ChildProcess sim(args, log);
    ASSERT_EQ(sim.Wait(seconds(60)), 0) << ReadTextFile(log);
  }

  // Waits until the host has taken every queued datagram off its sockets,
  // then stops it with SIGTERM; the stop flushes every partial page.
  void StopHost() {
    const auto deadline = std::chrono::steady_clock::now() + seconds(30);
    dtl_test::PortSockets queue = dtl_test::ReadPortSockets(port_);
    while (queue.rx_queue != 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(milliseconds(10));
      queue = dtl_test::ReadPortSockets(port_);
    }
    EXPECT_GT(queue.count, 0);
    EXPECT_EQ(queue.rx_queue, 0u) << "the host did not drain its sockets";
    EXPECT_EQ(queue.drops, 0u) << "the kernel dropped datagrams; the checks below would be moot";
    host_->Signal(SIGTERM);
    EXPECT_EQ(host_->Wait(seconds(60)), 0) << ReadTextFile(HostLog());
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

  StoredFile Read(const fs::path& path) {
    StoredFile file;
    file.path = path;
    std::ifstream raw(path, std::ios::binary);
    raw.read(reinterpret_cast<char*>(&file.header), sizeof file.header);
    const std::string out = (dir_ / "read.out").string();
    const std::string err = (dir_ / "read.err").string();
    ChildProcess reader({kBin + "dtl-read", path.string()}, out, err);
    file.exit_code = reader.Wait(seconds(60));
    file.warnings = ReadTextFile(err);
    std::istringstream lines(ReadTextFile(out));
    std::string line;
    if (std::getline(lines, line)) {
      file.columns = SplitCsv(line);
      if (!file.columns.empty() && file.columns[0] == "timestamp_us")
        file.columns.erase(file.columns.begin());
    }
    while (std::getline(lines, line)) {
      const std::vector<std::string> cells = SplitCsv(line);
      if (cells.empty()) continue;
      file.timestamps.push_back(std::stoull(cells[0]));
      std::vector<uint64_t> values;
      for (size_t i = 1; i < cells.size(); ++i) values.push_back(std::stoull(cells[i]));
      file.rows.push_back(std::move(values));
    }
    return file;
  }

  // Checks every row of file against the formula for a run that started at
  // start_us and exported `counters` counters; returns the sample indices.
  std::vector<uint64_t> CheckRows(const StoredFile& file, size_t counters,
                                  uint64_t start_us = kStartUs) {
    std::vector<uint64_t> samples;
    EXPECT_EQ(file.columns.size(), counters) << file.path;
    for (size_t r = 0; r < file.rows.size(); ++r) {
      const uint64_t ts = file.timestamps[r];
      EXPECT_TRUE(ts >= start_us && (ts - start_us) % kIntervalUs == 0) << file.path << " " << ts;
      const uint64_t sample = (ts - start_us) / kIntervalUs;
      samples.push_back(sample);
      EXPECT_EQ(file.rows[r].size(), counters) << file.path << " row " << r;
      for (size_t f = 0; f < file.rows[r].size() && f < counters; ++f) {
        if (file.rows[r][f] != dtl::hftsim::CounterValue(sample, f)) {
          ADD_FAILURE() << file.path << " sample " << sample << " counter " << f << " holds "
                        << file.rows[r][f];
          return samples;
        }
      }
    }
    return samples;
  }

  std::string HostLog() const { return (dir_ / "host.log").string(); }

  fs::path dir_;
  fs::path root_;
  uint16_t port_ = 0;
  std::unique_ptr<ChildProcess> host_;
};

struct StreamCase {
  const char* name;
  const char* host;
  const char* datagram;  // "fragment": one record per datagram; "sample": a whole sample
  bool direct_io;
};

class StoreStreams : public StoreEndToEnd, public ::testing::WithParamInterface<StreamCase> {};

// Three exporters (one switch, three observation domains) at once: each
// session's file holds every sample exactly once, in order, with exact values.
TEST_P(StoreStreams, EverySampleOnceWithExactValues) {
  const StreamCase& c = GetParam();
  constexpr uint64_t kSamples = 3000;
  constexpr size_t kCounters = 20 * 6;  // two counter templates of 60
  ASSERT_NO_FATAL_FAILURE(StartHost({std::string("ipfix-disk-direct-io=") +
                                         (c.direct_io ? "true" : "false"),
                                     "ipfix-disk-batch-count=64"}));
  ASSERT_NO_FATAL_FAILURE(RunSim("sim", {"--exporters", "3", "--interfaces", "20", "--samples",
                                         std::to_string(kSamples), "--rate", "5000", "--datagram",
                                         c.datagram},
                                 c.host));
  ASSERT_NO_FATAL_FAILURE(StopHost());

  const std::vector<fs::path> files = DataFiles();
  ASSERT_EQ(files.size(), 3u) << "one file per session";
  for (const fs::path& path : files) {
    EXPECT_EQ(path.parent_path().filename(), "hft-sim");
    const StoredFile file = Read(path);
    ASSERT_EQ(file.exit_code, 0) << path << ": " << file.warnings;
    EXPECT_EQ(file.warnings, "") << path;
    EXPECT_STREQ(file.header.source_id, "hft-sim");
    EXPECT_EQ(file.header.first_timestamp, kStartUs);
    EXPECT_EQ(file.header.last_timestamp, kStartUs + (kSamples - 1) * kIntervalUs);
    EXPECT_EQ(file.header.file_size, fs::file_size(path));
    const std::vector<uint64_t> samples = CheckRows(file, kCounters);
    ASSERT_EQ(samples.size(), kSamples) << path;
    for (uint64_t s = 0; s < kSamples; ++s) ASSERT_EQ(samples[s], s) << path;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Loopback, StoreStreams,
    ::testing::Values(StreamCase{"Ipv4FragmentsDirect", "127.0.0.1", "fragment", true},
                      StreamCase{"Ipv4SamplesBuffered", "127.0.0.1", "sample", false},
                      StreamCase{"Ipv6FragmentsBuffered", "::1", "fragment", false},
                      StreamCase{"Ipv6SamplesDirect", "::1", "sample", true}),
    [](const ::testing::TestParamInfo<StreamCase>& info) { return info.param.name; });

// Lost fragments cost exactly the samples they belonged to. Which fragments
// the simulator drops is a pure function of the seed, so the expected set of
// stored samples is computed here with the same injector.
TEST_F(StoreEndToEnd, InjectedLossDiscardsOnlyTheSamplesConcerned) {
  constexpr uint64_t kSamples = 4000;
  constexpr size_t kFragments = 3;  // 30 interfaces x 6 counters, 60 per template
  constexpr double kLoss = 0.01;
  constexpr uint64_t kEvery = 97;
  constexpr uint64_t kSeed = 7;
  ASSERT_NO_FATAL_FAILURE(StartHost());
  ASSERT_NO_FATAL_FAILURE(RunSim("sim", {"--interfaces", "30", "--samples", std::to_string(kSamples),
                                         "--rate", "5000", "--loss", "0.01", "--loss-every", "97",
                                         "--seed", "7"}));
  ASSERT_NO_FATAL_FAILURE(StopHost());

  const dtl::hftsim::FragmentInjector injector(kLoss, kEvery, 0, kSeed);
  std::vector<uint64_t> expected;
  for (uint64_t s = 0; s < kSamples; ++s) {
    bool whole = true;
    for (size_t f = 0; f < kFragments; ++f) whole = whole && !injector.Drop(0, s, f, kFragments);
    if (whole) expected.push_back(s);
  }
  ASSERT_LT(expected.size(), kSamples - 100) << "the run should lose a fair number of samples";

  const std::vector<fs::path> files = DataFiles();
  ASSERT_EQ(files.size(), 1u);
  const StoredFile file = Read(files[0]);
  ASSERT_EQ(file.exit_code, 0) << file.warnings;
  EXPECT_EQ(CheckRows(file, 180), expected);
}

// A switch that comes back with a different set of counters on the same
// address, port and domain: the session's schema changes mid-stream, and the
// new blocks go to a new file under a new schema identifier.
TEST_F(StoreEndToEnd, CounterTemplateChangeStartsANewFileWithANewSchema) {
  ASSERT_NO_FATAL_FAILURE(StartHost());
  const uint16_t source_port = dtl_test::FreeUdpPort();
  ASSERT_NE(source_port, 0);
  const std::vector<std::string> common = {"--source-port", std::to_string(source_port),
                                           "--samples", "500", "--rate", "5000"};
  std::vector<std::string> first = common;
  first.insert(first.end(), {"--interfaces", "4"});
  ASSERT_NO_FATAL_FAILURE(RunSim("first", first));
  // The second run starts one second of sample time later.
  std::vector<std::string> second = common;
  second.insert(second.end(), {"--interfaces", "6", "--start-time", std::to_string(kStartSec + 1)});
  ASSERT_NO_FATAL_FAILURE(RunSim("second", second));
  ASSERT_NO_FATAL_FAILURE(StopHost());

  EXPECT_EQ(ReadTextFile(HostLog()).find("created session", ReadTextFile(HostLog()).find("created session") + 1),
            std::string::npos)
      << "both runs must be one session";
  const std::vector<fs::path> files = DataFiles();
  ASSERT_EQ(files.size(), 2u);
  const StoredFile before = Read(files[0]);
  const StoredFile after = Read(files[1]);
  ASSERT_EQ(before.exit_code, 0) << before.warnings;
  ASSERT_EQ(after.exit_code, 0) << after.warnings;
  EXPECT_NE(std::memcmp(before.header.counters_schema_id, after.header.counters_schema_id,
                        sizeof before.header.counters_schema_id),
            0);
  EXPECT_EQ(CheckRows(before, 24).size(), 500u);
  EXPECT_EQ(CheckRows(after, 36, kStartUs + 1000000).size(), 500u);
  // Both schemas are published for the reader.
  std::set<fs::path> schemas;
  for (const auto& entry : fs::directory_iterator(root_ / "schema")) schemas.insert(entry.path());
  EXPECT_EQ(schemas.size(), 2u);
}

// A collector killed without warning leaves files the reader takes up to the
// last whole block, every block intact.
TEST_F(StoreEndToEnd, KilledHostLeavesFilesReadableUpToTheLastWholeBlock) {
  ASSERT_NO_FATAL_FAILURE(StartHost({"ipfix-disk-batch-count=64"}));
  const std::string target = "127.0.0.1:" + std::to_string(port_);
  const std::string log = (dir_ / "sim.log").string();
  ChildProcess sim({kBin + "hft-sim", "--target", target, "--start-time", std::to_string(kStartSec),
                    "--interfaces", "8", "--rate", "2000", "--duration", "60"},
                   log);
  // Kill once a few pages are on disk.
  const auto deadline = std::chrono::steady_clock::now() + seconds(30);
  uint64_t size = 0;
  while (size < 64 * 1024 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(milliseconds(20));
    const std::vector<fs::path> files = DataFiles();
    std::error_code ec;
    size = files.empty() ? 0 : fs::file_size(files[0], ec);
  }
  ASSERT_GE(size, 64 * 1024u) << ReadTextFile(HostLog());
  host_->Signal(SIGKILL);
  EXPECT_EQ(host_->Wait(seconds(10)), 128 + SIGKILL);
  host_.reset();
  sim.Signal(SIGTERM);
  sim.Wait(seconds(10));

  const std::vector<fs::path> files = DataFiles();
  ASSERT_EQ(files.size(), 1u);
  const StoredFile file = Read(files[0]);
  ASSERT_EQ(file.exit_code, 0) << file.warnings;
  const uint64_t on_disk = fs::file_size(files[0]);
  ASSERT_GT(file.header.block_size, 0u);
  EXPECT_EQ(file.rows.size(), (on_disk - sizeof(dtl_data_file_header_t)) / file.header.block_size);
  const std::vector<uint64_t> samples = CheckRows(file, 48);
  ASSERT_FALSE(samples.empty());
  for (size_t i = 0; i < samples.size(); ++i) ASSERT_EQ(samples[i], i) << "a gap or a repeat";
}

// Switch names are path components: whatever a switch calls itself, its
// files stay one directory level under the date directories of the root,
// and the header keeps the name as sent.
TEST_F(StoreEndToEnd, HostileSwitchNamesStayUnderTheDataRoot) {
  ASSERT_NO_FATAL_FAILURE(StartHost());
  const std::vector<std::string> names = {"../escape", "a/b/../../c", "..", "%Y%m/x", "tab\there"};
  for (size_t i = 0; i < names.size(); ++i)
    ASSERT_NO_FATAL_FAILURE(
        RunSim("sim" + std::to_string(i), {"--switch-name", names[i], "--samples", "50"}));
  ASSERT_NO_FATAL_FAILURE(StopHost());

  // Nothing outside the data root besides this test's logs.
  for (const auto& entry : fs::directory_iterator(dir_))
    EXPECT_TRUE(entry.path() == root_ || entry.path().extension() == ".log") << entry.path();
  const std::vector<fs::path> files = DataFiles();
  ASSERT_EQ(files.size(), names.size());
  std::set<std::string> sources;
  for (const fs::path& path : files) {
    const fs::path relative = fs::relative(path, root_);
    EXPECT_EQ(std::distance(relative.begin(), relative.end()), 4) << relative;  // year/mmdd/source/file
    const StoredFile file = Read(path);
    EXPECT_EQ(file.exit_code, 0) << file.warnings;
    EXPECT_EQ(CheckRows(file, 24).size(), 50u) << path;
    sources.insert(file.header.source_id);
  }
  EXPECT_EQ(sources, std::set<std::string>(names.begin(), names.end()));
}

}  // namespace
