// Storage faults through the real programs, each test in a private mount
// namespace with file systems of its own: the stream comes in phases (runs
// of one exporter session, see store_run.h). The phases before the fault and
// after it cleared must be stored whole, but for what the fault took off the
// disk; whatever is stored must be exact and stored once, every file left
// must read without error, and the collector must neither crash nor fail its stop.
#include <sys/stat.h>

#include <cerrno>
#include <functional>
#include <set>

#include "support/private_mount.h"
#include "tests/tools/store_run.h"

namespace {

using namespace store_run;

constexpr size_t kCounters = 60;  // 10 interfaces, one counter template
constexpr uint64_t kPhaseSamples = 5000;

class StorageFaults : public StoreRun {
 protected:
  void SetUp() override {
    ASSERT_EQ(dtl_test::EnterPrivateMountNamespace(), "") << "these tests must run as root";
    ASSERT_NO_FATAL_FAILURE(StoreRun::SetUp());
    mnt_ = dir_ / "mnt";  // the test's own file system holds the data root; logs stay in dir_
    root_ = mnt_ / "data";
    fs::create_directory(mnt_);
    source_port_ = dtl_test::FreeUdpPort();
  }
  void TearDown() override {
    host_.reset();
    std::error_code ignored;  // the mounts vanish with the test: keep what the collector left
    if (HasFailure()) fs::copy(root_, dir_ / "kept-data", fs::copy_options::recursive, ignored);
    mounts_.Clear();
    StoreRun::TearDown();
  }

  // The host writes out a partial page after 100 ms without samples, so that
  // a fault injected after a phase cannot catch it in memory.
  void Start(std::vector<std::string> options = {}) {
    options.push_back("ipfix-disk-flush-idle-ms=100");
    ASSERT_NO_FATAL_FAILURE(StartHost(options));
  }
  std::unique_ptr<ChildProcess> StartPhase(uint64_t samples) {
    sent_.push_back(samples);
    destroyed_.emplace_back();
    return StartSim({"--source-port", std::to_string(source_port_), "--start-time",
                     std::to_string(kStartSec + (sent_.size() - 1) * kRunSpacingSec), "--interfaces", "10",
                     "--samples", std::to_string(samples), "--rate", "10000"},
                    "sim" + std::to_string(sent_.size() - 1));
  }
  void FinishPhase(ChildProcess& sim) {
    ASSERT_EQ(sim.Wait(seconds(60)), 0) << ReadTextFile(Log("sim" + std::to_string(sent_.size() - 1)));
  }
  void RunPhase(uint64_t samples) { ASSERT_NO_FATAL_FAILURE(FinishPhase(*StartPhase(samples))); }
  size_t Stored(const Sorted& sorted, size_t phase) const {
    return sent_[phase] - std::count(sorted.exact[phase].begin(), sorted.exact[phase].end(), 0);
  }

  // Phase 0 whole on disk, then `fault` before phase 1 starts or, mid_stream,
  // once phase 1 is being written; `clear` after phase 1, then phase 2.
  void Scenario(const std::string& name, const std::vector<std::string>& options, const std::function<void()>& fault,
                const std::function<void()>& clear, bool mid_stream = false) {
    ASSERT_NO_FATAL_FAILURE(Start(options));
    ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
    size_t stored = 0;
    dtl_test::WaitFor([&] { return (stored = Stored(Sort(ReadAll(), sent_, kCounters), 0)) == sent_[0]; }, seconds(10));
    EXPECT_EQ(stored, sent_[0]) << "phase 0 was not all on disk 10 s after its end";
    const uint64_t before = DataBytes();
    fault_phase_ = 1;
    if (!mid_stream) fault();
    std::unique_ptr<ChildProcess> sim = StartPhase(mid_stream ? 8000 : kPhaseSamples);
    if (mid_stream) {
      dtl_test::WaitFor([&] { return DataBytes() > before || !sim->Running(); }, seconds(10));
      log_offset_ = ReadTextFile(Log("host")).size();
      fault();
    }
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_NO_FATAL_FAILURE(FinishPhase(*sim));
    ASSERT_NO_FATAL_FAILURE(clear());
    ASSERT_NO_FATAL_FAILURE(RunPhase(kPhaseSamples));
    StopHost();
    Verify(name);
  }

  // True when a warning or error line containing needle comes into the host
  // log past log_offset_ within 10 s.
  bool WaitForComplaint(const std::string& needle) {
    return dtl_test::WaitFor(
        [&] {
          std::istringstream lines(ReadTextFile(Log("host")).substr(log_offset_));
          for (std::string line; std::getline(lines, line);)
            if ((line.find("[warning]") != std::string::npos || line.find("[error]") != std::string::npos) &&
                line.find(needle) != std::string::npos)
              return true;
          return false;
        },
        seconds(10));
  }

  // What a fault destroys at rest need not be stored in the end: everything
  // on disk now, or the blocks of `file` past its first `keep` bytes.
  void ExcuseEverythingOnDisk() {
    const Sorted sorted = Sort(ReadAll(), sent_, kCounters);
    for (size_t phase = 0; phase < sent_.size(); ++phase)
      for (uint64_t s = 0; s < sent_[phase]; ++s)
        if (sorted.exact[phase][s] != 0) destroyed_[phase].insert(s);
  }
  void ExcuseBlocksPast(const fs::path& file, uint64_t keep) {
    std::error_code ec;
    fs::copy_file(file, dir_ / "victim.bin", fs::copy_options::overwrite_existing, ec);
    ASSERT_FALSE(ec) << "copying " << file << ": " << ec.message();
    const StoredFile victim = Read(dir_ / "victim.bin", {"--schema-dir", (root_ / "schema").string()});
    ASSERT_GT(victim.header.block_size, 0u) << file << " has no header yet";
    for (size_t i = 0; i < victim.rows.size(); ++i) {
      const auto [phase, sample] = Place(victim.timestamps[i], sent_);
      const uint64_t end = sizeof victim.header + (i + 1) * victim.header.block_size;
      if (phase < sent_.size() && Exact(victim.rows[i], sample, kCounters) && end > keep)
        destroyed_[phase].insert(sample);
    }
  }

  // The checks every scenario ends with, and its line for the record.
  void Verify(const std::string& fault) {
    const std::vector<StoredFile> files = ReadAll();
    const Sorted sorted = Sort(files, sent_, kCounters);
    for (const StoredFile& file : files)
      EXPECT_TRUE(file.exit_code == 0 && file.errors.find("error:") == std::string::npos)
          << "dtl-read " << file.path << " exit status " << file.exit_code << ":\n" << file.errors;
    uint64_t sent = 0, stored = 0, twice = 0;
    for (size_t phase = 0; phase < sent_.size(); ++phase) {
      sent += sent_[phase];
      stored += Stored(sorted, phase);
      twice += std::count_if(sorted.exact[phase].begin(), sorted.exact[phase].end(), [](int n) { return n > 1; });
      uint64_t missing = 0;
      std::string first;
      for (uint64_t s = 0; s < sent_[phase]; ++s)
        if (fault_phase_ != phase && !sorted.exact[phase][s] && !destroyed_[phase].count(s) && ++missing <= 8)
          first += " " + std::to_string(s);
      EXPECT_EQ(missing, 0u) << "phase " << phase << " lacks " << missing << " samples:" << first;
    }
    EXPECT_EQ(sorted.stray + sorted.inexact.size() + twice, 0u) << "stray, wrong or repeated rows:\n"
                                                                << sorted.examples;
    // What the host says it stored is what can be read back: samples lost to
    // the fault were counted as lost, not as stored.
    const std::string log = ReadTextFile(Log("host"));
    const size_t done = log.rfind("dtl-host: done: ");
    ASSERT_NE(done, std::string::npos) << log.substr(log.size() > 2000 ? log.size() - 2000 : 0);
    const std::string summary = log.substr(done, log.find('\n', done) - done);
    EXPECT_NE(summary.find("; " + std::to_string(stored) + " samples stored;"), std::string::npos) << summary;
    std::printf("[storage fault] %s: sent %llu, stored %llu, %zu files left\n", fault.c_str(),
                static_cast<unsigned long long>(sent), static_cast<unsigned long long>(stored), files.size());
  }

  fs::path mnt_;
  uint16_t source_port_ = 0;
  std::vector<uint64_t> sent_;                 // samples sent, per phase
  std::vector<std::set<uint64_t>> destroyed_;  // per phase, removed from disk by the fault
  size_t fault_phase_ = SIZE_MAX;
  size_t log_offset_ = 0;
  dtl_test::MountStack mounts_;
};

TEST_F(StorageFaults, DiskFullMidStreamLosesOnlyWhileFull) {
  ASSERT_EQ(mounts_.Tmpfs(mnt_, 24 << 20), "");
  // Files of about one page each: the full disk also meets new files.
  Scenario("disk full", {"ipfix-disk-file-size-limit=1048576"},
           [&] { ASSERT_EQ(dtl_test::FillUp(mnt_ / "filler"), ""); },
           [&] { ASSERT_TRUE(fs::remove(mnt_ / "filler")); });
}

TEST_F(StorageFaults, ReadOnlyRootMidStreamLosesOnlyWhileReadOnly) {
  ASSERT_EQ(mounts_.Tmpfs(mnt_, 64 << 20), "");
  // A file per page or so: the session rotates while it cannot create files.
  Scenario("data root read-only", {"ipfix-disk-file-size-limit=262144"},
           [&] {
             ASSERT_EQ(mounts_.ReadOnlyBind(root_.string()), "");
             ASSERT_NE(mkdir((root_ / "probe").c_str(), 0755), 0) << "the root is still writable";
             ASSERT_EQ(errno, EROFS);
           },
           [&] { ASSERT_EQ(mounts_.Pop(), ""); });
}

// The whole root goes while the session writes: what it held is gone, but
// the collector must build it again, schema and metadata included, for the
// samples that follow.
TEST_F(StorageFaults, DataRootRemovedMidStreamIsRebuilt) {
  ASSERT_EQ(mounts_.Tmpfs(mnt_, 64 << 20), "");
  Scenario("data root removed", {},
           [&] {
             ExcuseEverythingOnDisk();
             std::error_code ec;
             for (int attempt = 0; attempt < 3 && (attempt == 0 || ec); ++attempt) fs::remove_all(root_, ec);
             ASSERT_FALSE(ec) << "removing " << root_ << ": " << ec.message();
           },
           [&] { EXPECT_TRUE(WaitForComplaint("")) << "the collector did not notice within 10 s"; }, true);
  for (const char* published : {"schema", "metadata"}) {
    std::error_code ec;
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(root_ / published, ec))
      count += entry.path().extension() == ".json";
    EXPECT_GE(count, 1u) << "no " << published << " file under the rebuilt root";
  }
}

// ramfs refuses O_DIRECT (the default): the collector must see that and
// write through the page cache instead, with a warning, rather than drop
// the samples.
TEST_F(StorageFaults, FileSystemWithoutDirectIoStoresEverySample) {
  ASSERT_EQ(mounts_.Ramfs(mnt_), "");
  ASSERT_NO_FATAL_FAILURE(Start());
  ASSERT_NO_FATAL_FAILURE(RunPhase(20000));
  StopHost();
  Verify("no O_DIRECT (ramfs)");
  std::string log = ReadTextFile(Log("host"));
  std::transform(log.begin(), log.end(), log.begin(), ::tolower);
  bool warned = false;
  for (size_t at = log.find("[warning]"); at != std::string::npos && !warned; at = log.find("[warning]", at + 1))
    warned = log.substr(at, log.find('\n', at) - at).find("direct") != std::string::npos;
  EXPECT_TRUE(warned) << "no warning about writing without O_DIRECT";
}

// A data file damaged from outside while the session writes it: truncated
// to nothing or to half, or deleted. The collector must notice, name the
// file and go on in a new one.
class DamagedDataFile : public StorageFaults, public ::testing::WithParamInterface<const char*> {};

TEST_P(DamagedDataFile, IsNoticedAndTheSessionMovesToANewFile) {
  const std::string damage = GetParam();
  ASSERT_EQ(mounts_.Tmpfs(mnt_, 64 << 20), "");
  fs::path victim;
  const auto harm = [&] {
    uint64_t latest = 0;  // the file the session writes now: the one with the latest first sample
    for (const fs::path& path : DataFiles()) {
      const std::string name = path.filename().string();
      const uint64_t first = std::strtoull(name.c_str() + name.find('_') + 1, nullptr, 10);
      if (victim.empty() || first >= latest) victim = path, latest = first;
    }
    ASSERT_FALSE(victim.empty()) << "no data file to damage";
    std::error_code ec;
    const uint64_t keep = damage == "TruncatedToHalf" ? fs::file_size(victim, ec) / 2 : 0;
    // A cut followed by a later write leaves a hole that starts at the next
    // file system block: the collector cannot tell where in the block before
    // it the cut fell, and gives that block up rather than keep zeros.
    ASSERT_NO_FATAL_FAILURE(ExcuseBlocksPast(victim, keep == 0 ? 0 : (keep - 1) / 4096 * 4096));
    if (damage == "Deleted")
      fs::remove(victim, ec);
    else
      fs::resize_file(victim, keep, ec);
    ASSERT_FALSE(ec) << damage << " " << victim << ": " << ec.message();
  };
  const auto noticed = [&] {
    EXPECT_TRUE(WaitForComplaint(victim.filename().string())) << "no warning naming " << victim << " within 10 s";
  };
  Scenario("data file " + damage, {}, harm, noticed, true);
}

INSTANTIATE_TEST_SUITE_P(FromOutside, DamagedDataFile,
                         ::testing::Values("TruncatedToZero", "TruncatedToHalf", "Deleted"),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

}  // namespace
