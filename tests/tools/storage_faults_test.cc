// Storage faults through the real programs: hft-sim streams into dtl-host
// while the disk under the data root fills up, turns read-only, loses the
// root or a data file, or refuses O_DIRECT. Each test process has a private
// mount namespace with file systems of its own (see support/private_mount.h).
//
// The stream comes in phases, one hft-sim run each on the same exporter
// session (same source port). Phase p starts at second kStartSec + 10 p of
// sample time, so every stored block tells its phase and sample index, and
// its values are checked against the simulator's formula. The phases before
// the fault and after it cleared must be stored whole, but for what the
// fault itself took off the disk; the phase during the fault may lose
// samples. Whatever is stored must be exact and stored once, every data file
// left must read without error, and the collector must neither crash nor
// fail its stop.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "dtl_data_file_header.h"
#include "support/child_process.h"
#include "support/free_udp_port.h"
#include "support/private_mount.h"
#include "support/udp_port_sockets.h"
#include "tools/hft_sim/counter_layout.h"

namespace {

namespace fs = std::filesystem;
using dtl_test::ChildProcess;
using dtl_test::ReadTextFile;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

const std::string kBin = DTL_BINARY_DIR "/bin/";
constexpr uint64_t kStartSec = 1700000000;
constexpr uint64_t kPhaseSpacingSec = 10;  // room for 100 000 samples per phase
constexpr uint64_t kIntervalUs = 100;
constexpr int kInterfaces = 10;
constexpr size_t kCounters = kInterfaces * 6;  // one counter template of 60
constexpr uint64_t kPhaseSamples = 5000;

// Which samples the data files hold, phase by phase, as dtl-read gives them.
struct Catalogue {
  struct File {
    fs::path path;
    int exit_code = -1;
    std::string messages;  // dtl-read's standard error
    // (phase, sample) of every row in file order; phase past the last for a
    // row that is not a sample sent
    std::vector<std::pair<size_t, uint64_t>> rows;
  };
  std::vector<File> files;
  std::vector<std::set<uint64_t>> stored;  // per phase, sample indices
  std::vector<std::string> problems;       // wrong values, stray times, repeats
  uint64_t problem_count = 0;

  void Problem(const std::string& text) {
    if (++problem_count <= 10) problems.push_back(text);
  }
};

class StorageFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* program : {"dtl-host", "hft-sim", "dtl-read"})
      ASSERT_EQ(access((kBin + program).c_str(), X_OK), 0) << program << " is not built";
    const std::string refused = dtl_test::EnterPrivateMountNamespace();
    ASSERT_EQ(refused, "") << "these tests give the collector file systems of their own in a "
                              "private mount namespace and must run as root";
    char pattern[] = "/tmp/storage_faults_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr) << std::strerror(errno);
    dir_ = pattern;
    mnt_ = dir_ / "mnt";
    root_ = mnt_ / "data";
    fs::create_directory(mnt_);
    source_port_ = dtl_test::FreeUdpPort();
    ASSERT_NE(source_port_, 0);
  }

  void TearDown() override {
    host_.reset();
    if (HasFailure() && !dir_.empty()) {
      printf("%s\n", HostTail().c_str());
      // The mounts vanish with the test; keep what the collector left.
      std::error_code ignored;
      fs::copy(root_, dir_ / "kept-data", fs::copy_options::recursive, ignored);
      printf("kept %s for inspection (the data root copied to kept-data)\n", dir_.c_str());
    }
    mounts_.Clear();
    if (!HasFailure() && !dir_.empty()) {
      std::error_code ignored;
      fs::remove_all(dir_, ignored);
    }
  }

  // Mounts the file system the data root lives on.
  void MountDisk(dtl_test::ScopedMount disk) {
    ASSERT_EQ(mounts_.Push(std::move(disk)), "") << "the test cannot build its disk";
  }

  // Starts dtl-host storing under root_; returns once every worker listens.
  void StartHost(std::vector<std::string> options = {}) {
    port_ = dtl_test::FreeUdpPort();
    ASSERT_NE(port_, 0);
    std::vector<std::string> args = {kBin + "dtl-host", "-o",
                                     "ipfix-receiver-port=" + std::to_string(port_), "-o",
                                     "ipfix-receiver-workers=2", "-o",
                                     "ipfix-data-path=" + root_.string(), "-o",
                                     "ipfix-disk-flush-idle-ms=100"};
    for (const std::string& option : options) args.insert(args.end(), {"-o", option});
    args.insert(args.end(), {"--duration", "120"});
    host_ = std::make_unique<ChildProcess>(args, HostLog());
    ASSERT_TRUE(dtl_test::WaitForText(HostLog(), "dtl-host: running", seconds(30)))
        << "dtl-host did not start";
  }

  // Starts the next phase's hft-sim run in the background.
  std::unique_ptr<ChildProcess> StartPhase(uint64_t samples) {
    const size_t phase = sent_.size();
    sent_.push_back(samples);
    destroyed_.emplace_back();
    const std::vector<std::string> args = {
        kBin + "hft-sim", "--target", "127.0.0.1:" + std::to_string(port_), "--source-port",
        std::to_string(source_port_), "--start-time",
        std::to_string(kStartSec + phase * kPhaseSpacingSec), "--announce-period", "0",
        "--interfaces", std::to_string(kInterfaces), "--samples", std::to_string(samples),
        "--rate", "10000"};
    return std::make_unique<ChildProcess>(args, SimLog(phase));
  }
  void FinishPhase(ChildProcess& sim) {
    const size_t phase = sent_.size() - 1;
    ASSERT_EQ(sim.Wait(seconds(60)), 0) << "hft-sim, phase " << phase << ": "
                                        << ReadTextFile(SimLog(phase));
  }
  void RunPhase(uint64_t samples) {
    std::unique_ptr<ChildProcess> sim = StartPhase(samples);
    ASSERT_NO_FATAL_FAILURE(FinishPhase(*sim));
  }

  // Waits until every sample of the phase is readable on disk (the idle
  // flush writes the last partial page), so that a fault injected next
  // cannot catch it in memory. A miss is reported and the test goes on, so
  // that what the fault does is still seen.
  void WaitStored(size_t phase) {
    const auto deadline = Clock::now() + seconds(10);
    size_t stored = 0;
    for (;;) {
      stored = ReadAll().stored[phase].size();
      if (stored >= sent_[phase] || Clock::now() > deadline) break;
      std::this_thread::sleep_for(milliseconds(50));
    }
    EXPECT_EQ(stored, sent_[phase]) << "phase " << phase << " was not all on disk 10 s after "
                                    << "its end; the idle flush should have written it";
  }

  // Waits until the files under the root grow past `bytes` (so the running
  // phase is being written) or the phase ends.
  void WaitForGrowth(uint64_t bytes, ChildProcess& sim) {
    const auto deadline = Clock::now() + seconds(10);
    while (TotalBinBytes() <= bytes && sim.Running() && Clock::now() < deadline)
      std::this_thread::sleep_for(milliseconds(2));
    if (TotalBinBytes() <= bytes) printf("note: the fault came after the phase's last write\n");
  }

  // Waits for a warning or error line after the first `offset` bytes of the
  // host log that contains `needle`; true when one came within 10 s.
  bool WaitForComplaint(size_t offset, const std::string& needle) {
    const auto deadline = Clock::now() + seconds(10);
    for (;;) {
      for (const std::string& line : FaultLines(offset))
        if (line.find(needle) != std::string::npos) return true;
      if (Clock::now() > deadline) return false;
      std::this_thread::sleep_for(milliseconds(20));
    }
  }

  // The samples a fault destroys at rest (the collector cannot keep what
  // is removed from outside) need not be stored in the end: everything on
  // disk now, or the blocks of `file` past its first `keep` bytes.
  void ExcuseEverythingOnDisk() {
    const Catalogue catalogue = ReadAll();
    for (size_t phase = 0; phase < sent_.size(); ++phase)
      destroyed_[phase].insert(catalogue.stored[phase].begin(), catalogue.stored[phase].end());
  }
  void ExcuseBlocksPast(const fs::path& file, uint64_t keep) {
    const fs::path copy = dir_ / "victim.bin";
    std::error_code ec;
    fs::copy_file(file, copy, fs::copy_options::overwrite_existing, ec);
    ASSERT_FALSE(ec) << "copying " << file << ": " << ec.message();
    dtl_data_file_header_t header{};
    std::ifstream(copy, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof header);
    ASSERT_GT(header.block_size, 0u) << file << " has no header yet";
    Catalogue catalogue;
    ReadInto(copy, catalogue, {"--schema-dir", (root_ / "schema").string()});
    const std::vector<std::pair<size_t, uint64_t>>& rows = catalogue.files.back().rows;
    for (size_t i = 0; i < rows.size(); ++i)
      if (rows[i].first < sent_.size() && sizeof header + (i + 1) * header.block_size > keep)
        destroyed_[rows[i].first].insert(rows[i].second);
  }

  // Stops the host with SIGTERM once it has read every queued datagram; it
  // must have run all along and must stop cleanly.
  void StopHost() {
    if (!host_->Running()) {
      ADD_FAILURE() << "the collector died during the test: exit status "
                    << host_->Wait(milliseconds(0)) << " (128 + N: killed by signal N)";
      host_.reset();
      return;
    }
    const auto deadline = Clock::now() + seconds(30);
    dtl_test::PortSockets queue = dtl_test::ReadPortSockets(port_);
    while (queue.rx_queue != 0 && Clock::now() < deadline) {
      std::this_thread::sleep_for(milliseconds(10));
      queue = dtl_test::ReadPortSockets(port_);
    }
    EXPECT_EQ(queue.rx_queue, 0u) << "the host did not drain its sockets";
    EXPECT_EQ(queue.drops, 0u) << "the kernel dropped datagrams; the counts below would be moot";
    host_->Signal(SIGTERM);
    EXPECT_EQ(host_->Wait(seconds(60)), 0) << "the collector's stop after SIGTERM";
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
  uint64_t TotalBinBytes() const {
    uint64_t total = 0;
    for (const fs::path& path : DataFiles()) {
      std::error_code ec;
      const uint64_t size = fs::file_size(path, ec);
      if (!ec) total += size;
    }
    return total;
  }
  // The file the session writes now: the one with the latest first sample.
  fs::path CurrentFile() const {
    fs::path newest;
    uint64_t latest = 0;
    for (const fs::path& path : DataFiles()) {
      const std::string name = path.filename().string();
      const uint64_t first = std::strtoull(name.c_str() + name.find('_') + 1, nullptr, 10);
      if (newest.empty() || first >= latest) newest = path, latest = first;
    }
    return newest;
  }

  // Reads every data file with dtl-read and sorts its rows into phases.
  Catalogue ReadAll() {
    Catalogue catalogue;
    catalogue.stored.resize(sent_.size());
    for (const fs::path& path : DataFiles()) ReadInto(path, catalogue);
    return catalogue;
  }
  void ReadInto(const fs::path& path, Catalogue& catalogue, std::vector<std::string> options = {}) {
    catalogue.stored.resize(sent_.size());
    const std::string out = (dir_ / "read.out").string();
    const std::string err = (dir_ / "read.err").string();
    options.insert(options.begin(), kBin + "dtl-read");
    options.push_back(path.string());
    ChildProcess reader(options, out, err);
    Catalogue::File file;
    file.path = path;
    file.exit_code = reader.Wait(seconds(60));
    file.messages = ReadTextFile(err);
    std::istringstream lines(ReadTextFile(out));
    std::string line;
    if (std::getline(lines, line) &&
        static_cast<size_t>(std::count(line.begin(), line.end(), ',')) != kCounters)
      catalogue.Problem(path.string() + ": the heading has not " + std::to_string(kCounters) +
                        " counters: " + line.substr(0, 200));
    while (std::getline(lines, line)) Sort(line, file, catalogue);
    catalogue.files.push_back(std::move(file));
  }

  // Files one CSV row under its phase after checking its every value.
  void Sort(const std::string& line, Catalogue::File& file, Catalogue& catalogue) const {
    file.rows.emplace_back(sent_.size(), 0);
    char* end = nullptr;
    const uint64_t ts = std::strtoull(line.c_str(), &end, 10);
    const std::string where = file.path.string() + " time " + std::to_string(ts);
    const uint64_t phase =
        ts < kStartSec * 1000000 ? sent_.size() : (ts / 1000000 - kStartSec) / kPhaseSpacingSec;
    const uint64_t in_phase =
        phase < sent_.size() ? ts - (kStartSec + phase * kPhaseSpacingSec) * 1000000 : 0;
    const uint64_t sample = in_phase / kIntervalUs;
    if (phase >= sent_.size() || in_phase % kIntervalUs != 0 || sample >= sent_[phase]) {
      catalogue.Problem(where + ": no sample was sent at that time");
      return;
    }
    for (size_t field = 0; field < kCounters; ++field) {
      if (*end != ',') {
        catalogue.Problem(where + ": the row has " + std::to_string(field) + " counters");
        return;
      }
      const uint64_t value = std::strtoull(end + 1, &end, 10);
      if (value != dtl::hftsim::CounterValue(sample, field)) {
        catalogue.Problem(where + " (sample " + std::to_string(sample) + ") counter " +
                          std::to_string(field) + " holds " + std::to_string(value));
        return;
      }
    }
    if (*end != '\0') {
      catalogue.Problem(where + ": the row has more than " + std::to_string(kCounters) +
                        " counters");
      return;
    }
    file.rows.back() = {phase, sample};
    if (!catalogue.stored[phase].insert(sample).second)
      catalogue.Problem(where + ": sample " + std::to_string(sample) + " is stored twice");
  }

  // The checks every scenario ends with, and its line for the record.
  void Verify(const std::string& fault) {
    const Catalogue catalogue = ReadAll();
    for (const Catalogue::File& file : catalogue.files)
      EXPECT_TRUE(file.exit_code == 0 && file.messages.find("error:") == std::string::npos)
          << "dtl-read " << file.path << " exit status " << file.exit_code << ":\n"
          << file.messages;
    EXPECT_EQ(catalogue.problem_count, 0u) << Join(catalogue.problems, "\n");
    uint64_t sent = 0, stored = 0, destroyed = 0;
    for (size_t phase = 0; phase < sent_.size(); ++phase) {
      const std::set<uint64_t>& have = catalogue.stored[phase];
      sent += sent_[phase];
      stored += have.size();
      destroyed += destroyed_[phase].size();
      if (fault_phase_ == phase) continue;
      std::vector<std::string> missing;
      uint64_t missing_count = 0;
      for (uint64_t s = 0; s < sent_[phase]; ++s) {
        if (have.count(s) != 0 || destroyed_[phase].count(s) != 0) continue;
        if (++missing_count <= 8) missing.push_back(std::to_string(s));
      }
      EXPECT_EQ(missing_count, 0u)
          << "phase " << phase << (fault_phase_ && phase < *fault_phase_ ? " (before" : " (after")
          << " the fault) lacks " << missing_count << " of its " << sent_[phase]
          << " samples, first " << Join(missing, " ") << "\n"
          << FileList(catalogue);
    }
    std::string during;
    if (fault_phase_)
      during = " (during the fault: sent " + std::to_string(sent_[*fault_phase_]) + ", stored " +
               std::to_string(catalogue.stored[*fault_phase_].size()) + ")";
    if (destroyed != 0)
      during += ", " + std::to_string(destroyed) + " destroyed on disk by the fault";
    printf("[storage fault] %s: sent %lu, stored %lu, lost %lu%s, %zu files left; collector: %s\n",
           fault.c_str(), static_cast<unsigned long>(sent), static_cast<unsigned long>(stored),
           static_cast<unsigned long>(sent - stored), during.c_str(), catalogue.files.size(),
           Join(Distinct(FaultLines(0)), " | ").c_str());
    fflush(stdout);
  }

  // The host log's warning and error lines from byte `offset` on, without
  // their time stamps.
  std::vector<std::string> FaultLines(size_t offset) const {
    const std::string text = ReadTextFile(HostLog());
    std::istringstream lines(offset < text.size() ? text.substr(offset) : "");
    std::vector<std::string> found;
    for (std::string line; std::getline(lines, line);) {
      const size_t level = std::min(line.find("[warning]"), line.find("[error]"));
      if (level != std::string::npos) found.push_back(line.substr(level));
    }
    return found;
  }
  // Each line once, with how often it came, at most eight.
  static std::vector<std::string> Distinct(const std::vector<std::string>& lines) {
    std::vector<std::string> order;
    std::map<std::string, int> seen;
    for (const std::string& line : lines)
      if (seen[line]++ == 0) order.push_back(line);
    std::vector<std::string> out;
    for (const std::string& line : order) {
      if (out.size() == 8) {
        out.push_back("...");
        break;
      }
      const int times = seen[line];
      out.push_back(line.substr(0, 200) + (times > 1 ? " (x" + std::to_string(times) + ")" : ""));
    }
    return out.empty() ? std::vector<std::string>{"no warning or error"} : out;
  }
  static std::string Join(const std::vector<std::string>& parts, const char* separator) {
    std::string text;
    for (const std::string& part : parts) text += (text.empty() ? "" : separator) + part;
    return text;
  }
  static std::string FileList(const Catalogue& catalogue) {
    std::string text = "data files:\n";
    for (const Catalogue::File& file : catalogue.files) {
      std::error_code ec;
      text += "  " + file.path.string() + " " + std::to_string(fs::file_size(file.path, ec)) +
              " bytes, " + std::to_string(file.rows.size()) + " rows\n";
    }
    return text;
  }

  size_t HostLogSize() const { return ReadTextFile(HostLog()).size(); }
  std::string HostLog() const { return (dir_ / "host.log").string(); }
  std::string SimLog(size_t phase) const {
    return (dir_ / ("sim" + std::to_string(phase) + ".log")).string();
  }
  // The host log's last lines and its warnings and errors, for a failure.
  std::string HostTail() const {
    const std::string text = ReadTextFile(HostLog());
    size_t start = text.size();
    for (int lines = 0; lines < 25 && start > 0 && start != std::string::npos; ++lines)
      start = text.rfind('\n', start - 1);
    return "--- host log " + HostLog() + ", warnings and errors:\n" +
           Join(Distinct(FaultLines(0)), "\n") + "\n--- its last lines:" +
           text.substr(start == std::string::npos ? 0 : start);
  }

  fs::path dir_;   // logs; never on a mount the test damages
  fs::path mnt_;   // the test's own file system
  fs::path root_;  // the data root, on mnt_
  uint16_t port_ = 0;
  uint16_t source_port_ = 0;
  std::vector<uint64_t> sent_;                  // samples sent, per phase
  std::vector<std::set<uint64_t>> destroyed_;   // per phase, removed from disk by the fault
  std::optional<size_t> fault_phase_;
  dtl_test::MountStack mounts_;
  std::unique_ptr<ChildProcess> host_;
};

TEST_F(StorageFaults, DiskFullMidStreamLosesOnlyWhileFull) {
  ASSERT_NO_FATAL_FAILURE(MountDisk(dtl_test::ScopedMount::Tmpfs(mnt_, 24 << 20)));
  // Files of about one page each: the full disk also meets new files.
  ASSERT_NO_FATAL_FAILURE(StartHost({"ipfix-disk-file-size-limit=1048576"}));
  ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
  WaitStored(0);
  {
    dtl_test::SpaceFiller filler(mnt_ / "filler");
    ASSERT_EQ(filler.error(), "");
    fault_phase_ = 1;
    ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
  }
  ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
  StopHost();
  Verify("disk full");
}

TEST_F(StorageFaults, ReadOnlyRootMidStreamLosesOnlyWhileReadOnly) {
  ASSERT_NO_FATAL_FAILURE(MountDisk(dtl_test::ScopedMount::Tmpfs(mnt_, 64 << 20)));
  // A file per page or so: the session rotates while it cannot create files.
  ASSERT_NO_FATAL_FAILURE(StartHost({"ipfix-disk-file-size-limit=262144"}));
  ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
  WaitStored(0);
  ASSERT_EQ(mounts_.Push(dtl_test::ScopedMount::ReadOnlyBind(root_.string())), "");
  ASSERT_NE(mkdir((root_ / "probe").c_str(), 0755), 0) << "the root is still writable";
  ASSERT_EQ(errno, EROFS);
  fault_phase_ = 1;
  ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
  ASSERT_EQ(mounts_.Pop(), "");
  ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
  StopHost();
  Verify("data root read-only");
}

// ramfs refuses O_DIRECT: the collector must see that and write through the
// page cache instead, with a warning, rather than drop the samples.
TEST_F(StorageFaults, FileSystemWithoutDirectIoStoresEverySample) {
  ASSERT_NO_FATAL_FAILURE(MountDisk(dtl_test::ScopedMount::Ramfs(mnt_)));
  ASSERT_NO_FATAL_FAILURE(StartHost());  // direct I/O is the default
  ASSERT_NO_FATAL_FAILURE(RunPhase(20000));
  StopHost();
  Verify("no O_DIRECT (ramfs)");
  bool warned = false;
  for (std::string line : FaultLines(0)) {
    std::transform(line.begin(), line.end(), line.begin(), ::tolower);
    warned = warned || (line.find("[warning]") == 0 && line.find("direct") != std::string::npos);
  }
  EXPECT_TRUE(warned) << "no warning about writing without O_DIRECT";
}

// The whole root goes while the session writes: what it held is gone, but
// the collector must build it again, schema and metadata included, for the
// samples that follow.
TEST_F(StorageFaults, DataRootRemovedMidStreamIsRebuilt) {
  ASSERT_NO_FATAL_FAILURE(MountDisk(dtl_test::ScopedMount::Tmpfs(mnt_, 64 << 20)));
  ASSERT_NO_FATAL_FAILURE(StartHost());
  ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
  WaitStored(0);
  const uint64_t before = TotalBinBytes();
  fault_phase_ = 1;
  std::unique_ptr<ChildProcess> sim = StartPhase(8000);
  WaitForGrowth(before, *sim);
  ExcuseEverythingOnDisk();
  const size_t log_offset = HostLogSize();
  std::error_code ec;
  for (int attempt = 0; attempt < 3 && (attempt == 0 || ec); ++attempt) fs::remove_all(root_, ec);
  ASSERT_FALSE(ec) << "removing " << root_ << ": " << ec.message();
  ASSERT_NO_FATAL_FAILURE(FinishPhase(*sim));
  EXPECT_TRUE(WaitForComplaint(log_offset, "")) << "the collector did not notice within 10 s";
  ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
  StopHost();
  for (const char* published : {"schema", "metadata"}) {
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(root_ / published, ec))
      count += entry.path().extension() == ".json";
    EXPECT_GE(count, 1u) << "no " << published << " file under the rebuilt root " << root_;
  }
  Verify("data root removed");
}

// A data file damaged from outside while the session writes it.
struct FileDamage {
  const char* name;
  enum Kind { kTruncateToZero, kTruncateToHalf, kDelete } kind;
};

class DamagedDataFile : public StorageFaults, public ::testing::WithParamInterface<FileDamage> {};

TEST_P(DamagedDataFile, IsNoticedAndTheSessionMovesToANewFile) {
  const FileDamage& damage = GetParam();
  ASSERT_NO_FATAL_FAILURE(MountDisk(dtl_test::ScopedMount::Tmpfs(mnt_, 64 << 20)));
  ASSERT_NO_FATAL_FAILURE(StartHost());
  ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
  WaitStored(0);
  const uint64_t before = TotalBinBytes();
  fault_phase_ = 1;
  std::unique_ptr<ChildProcess> sim = StartPhase(8000);
  WaitForGrowth(before, *sim);
  const fs::path victim = CurrentFile();
  ASSERT_FALSE(victim.empty()) << "no data file to damage";
  std::error_code ec;
  const uint64_t keep =
      damage.kind == FileDamage::kTruncateToHalf ? fs::file_size(victim, ec) / 2 : 0;
  // A cut followed by a later write leaves a hole that starts at the next
  // file system block: the collector cannot tell where in the block before
  // it the cut fell, and gives that block up rather than keep zeros.
  ASSERT_NO_FATAL_FAILURE(ExcuseBlocksPast(victim, keep == 0 ? 0 : (keep - 1) / 4096 * 4096));
  const size_t log_offset = HostLogSize();
  if (damage.kind == FileDamage::kDelete)
    fs::remove(victim, ec);
  else
    fs::resize_file(victim, keep, ec);
  ASSERT_FALSE(ec) << damage.name << " " << victim << ": " << ec.message();
  ASSERT_NO_FATAL_FAILURE(FinishPhase(*sim));
  EXPECT_TRUE(WaitForComplaint(log_offset, victim.filename().string()))
      << "no warning naming " << victim.filename() << " within 10 s";
  ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
  StopHost();
  Verify(std::string("data file ") + damage.name);
}

INSTANTIATE_TEST_SUITE_P(
    FromOutside, DamagedDataFile,
    ::testing::Values(FileDamage{"TruncatedToZero", FileDamage::kTruncateToZero},
                      FileDamage{"TruncatedToHalf", FileDamage::kTruncateToHalf},
                      FileDamage{"Deleted", FileDamage::kDelete}),
    [](const ::testing::TestParamInfo<FileDamage>& info) { return info.param.name; });

// A root that cannot be created fails the start at once: no worker, and no
// switch is asked to export (a listener stands in for the switch's API).
TEST_F(StorageFaults, UnusableDataRootFailsTheStart) {
  const fs::path plain = dir_ / "plain";
  { std::ofstream(plain) << "a regular file\n"; }
  root_ = plain / "data";
  struct Listener {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ~Listener() { close(fd); }
  } api;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(api.fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(api.fd, 4), 0);
  ASSERT_EQ(getsockname(api.fd, reinterpret_cast<sockaddr*>(&address), &length), 0);

  const auto begin = Clock::now();
  ChildProcess host({kBin + "dtl-host", "-o",
                     "ipfix-receiver-port=" + std::to_string(dtl_test::FreeUdpPort()), "-o",
                     "ipfix-data-path=" + root_.string(), "-o", "switch-1-ip=127.0.0.1", "-o",
                     "switch-1-port=" + std::to_string(ntohs(address.sin_port)), "-o",
                     "switch-1-interfaces=Ethernet1_1", "-o", "collector-ip=127.0.0.1",
                     "--duration", "30"},
                    HostLog());
  const int status = host.Wait(seconds(10));
  const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
  const std::string log = ReadTextFile(HostLog());
  EXPECT_EQ(status, 1) << "dtl-host's exit status (-1: still running after 10 s)";
  EXPECT_LT(elapsed, 5.0) << "the failed start took too long";
  EXPECT_NE(log.find(root_.string()), std::string::npos) << "no message names the data root";
  EXPECT_NE(log.find("dtl-host: the provider failed to start"), std::string::npos);
  EXPECT_EQ(log.find("dtl-host: running"), std::string::npos);
  const int contacted = accept(api.fd, nullptr, nullptr);
  EXPECT_LT(contacted, 0) << "the switch was contacted although the collector cannot store";
  if (contacted >= 0) close(contacted);
  printf("[storage fault] data root under a regular file: exit status %d after %.2f s; "
         "collector: %s\n",
         status, elapsed, Join(Distinct(FaultLines(0)), " | ").c_str());
}

}  // namespace
