// Legal exporter behaviours through the real programs: hft-sim exports over
// loopback UDP in one way or another (what the sequence number counts,
// descriptive records between the fragments of samples, fragments packed
// across sample boundaries, reordered fragments, a template withdrawn
// mid-stream, stray datagrams from elsewhere), dtl-host stores, dtl-read
// reads back, and every stored value is checked against the simulator's
// formula. With injected loss the samples that must be stored are computed
// from the simulator's own FragmentInjector.
//
// Each case prints one line: samples sent, stored, wrongly stored (stored
// although a fragment was lost, stored twice, or with a wrong value) and
// wrongly discarded (whole but not stored).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
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

#include "dtl_data_file_header.h"
#include "support/child_process.h"
#include "support/free_udp_port.h"
#include "support/udp_port_sockets.h"
#include "tools/hft_sim/counter_layout.h"
#include "tools/hft_sim/fragment_injector.h"

namespace {

namespace fs = std::filesystem;
using dtl::hftsim::CounterValue;
using dtl::hftsim::FragmentInjector;
using dtl_test::ChildProcess;
using dtl_test::ReadTextFile;
using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kBin = DTL_BINARY_DIR "/bin/";
constexpr uint64_t kStartSec = 1700000000;
constexpr uint64_t kStartUs = kStartSec * 1000000;
constexpr uint64_t kIntervalUs = 100;
// 30 interfaces x 6 counters in counter templates of 60: three fragments.
constexpr size_t kCounters = 180;
constexpr size_t kFragments = 3;
constexpr uint64_t kSamples = 3000;
constexpr double kLoss = 0.01;
constexpr uint64_t kLossEvery = 97;
constexpr uint64_t kSeed = 7;

// The rows of one data file as dtl-read prints them.
struct StoredFile {
  fs::path path;
  dtl_data_file_header_t header{};
  size_t columns = 0;  // counter columns
  std::vector<uint64_t> timestamps;
  std::vector<std::vector<uint64_t>> rows;
  std::string errors;
  int exit_code = -1;
};

// What a run stored against what it should have stored.
struct Tally {
  uint64_t sent = 0;
  uint64_t stored = 0;
  uint64_t wrongly_stored = 0;
  uint64_t wrongly_discarded = 0;
  uint64_t undecidable = 0;  // stored or not, either is right (constant sequence numbers)
  std::string examples;      // the first wrong ones, for the failure message

  void Wrong(const char* what, uint64_t sample) {
    if (wrongly_stored + wrongly_discarded <= 8) examples += std::string(" ") + what + " " + std::to_string(sample);
  }
};

void PrintTally(const std::string& behaviour, const Tally& t) {
  std::printf("[ behaviour ] %-40s sent %5llu  stored %5llu  wrongly stored %4llu  wrongly discarded %4llu%s\n",
              behaviour.c_str(), static_cast<unsigned long long>(t.sent), static_cast<unsigned long long>(t.stored),
              static_cast<unsigned long long>(t.wrongly_stored), static_cast<unsigned long long>(t.wrongly_discarded),
              t.undecidable > 0 ? ("  undecidable " + std::to_string(t.undecidable)).c_str() : "");
  std::fflush(stdout);
}

// Which samples lose a fragment. With one fragment per message that is any
// fragment the injector drops; with several, a dropped fragment takes its
// whole message along, the messages carrying the exporter's fragments
// `per_message` at a time from the start of the run.
std::vector<bool> SamplesLosingAFragment(const FragmentInjector& injector, uint64_t samples, size_t per_message) {
  std::vector<bool> lost(samples, false);
  const uint64_t total = samples * kFragments;
  const uint64_t step = std::max<size_t>(per_message, 1);
  for (uint64_t first = 0; first < total; first += step) {
    const uint64_t end = std::min(total, first + step);
    bool message_lost = false;
    for (uint64_t g = first; g < end; ++g)
      message_lost = message_lost || injector.Drop(0, g / kFragments, g % kFragments, kFragments);
    if (message_lost) {
      for (uint64_t g = first; g < end; ++g) lost[g / kFragments] = true;
    }
  }
  return lost;
}

// With a constant sequence number a lost fragment shows only through the
// templates. A sample starts with template 300 (the one with the time); the
// exporter conventions fix no order for the others. So a sample is known to
// be incomplete when the next template 300 comes before it is complete, or
// when a template repeats, but not when the fragments it lost are made up,
// template for template and without a repeat, by the fragments that follow
// it from later samples whose template 300 was lost too: those look exactly
// like the rest of the sample. A collector may store such a sample (with
// foreign values) or not. These are they, for fragments sent one per
// message in order; every other sample is decidable, so the whole ones must
// be stored with exact values and no other.
std::set<uint64_t> UndecidableWithoutSequence(const FragmentInjector& injector, uint64_t samples) {
  std::set<uint64_t> undecidable;
  bool pending = false;
  uint64_t pending_sample = 0;
  std::vector<bool> have(kFragments);
  size_t count = 0;
  bool foreign = false;
  for (uint64_t s = 0; s < samples; ++s) {
    for (size_t f = 0; f < kFragments; ++f) {
      if (injector.Drop(0, s, f, kFragments)) continue;
      if (f == 0) {
        pending = true;
        pending_sample = s;
        have.assign(kFragments, false);
        count = 0;
        foreign = false;
      } else if (!pending) {
        continue;
      } else if (have[f]) {
        pending = false;
        continue;
      }
      have[f] = true;
      ++count;
      foreign = foreign || s != pending_sample;
      if (count == kFragments) {
        if (foreign) undecidable.insert(pending_sample);
        pending = false;
      }
    }
  }
  return undecidable;
}

class ExporterBehaviours : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* program : {"dtl-host", "hft-sim", "dtl-read"})
      ASSERT_EQ(access((kBin + program).c_str(), X_OK), 0) << program << " is not built";
    char pattern[] = "/tmp/exporter_behaviours_XXXXXX";
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
      std::printf("kept %s for inspection\n", dir_.c_str());
    }
  }

  // Starts dtl-host storing under root_; returns once it listens.
  void StartHost(int workers = 2) {
    port_ = dtl_test::FreeUdpPort();
    ASSERT_NE(port_, 0);
    host_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{kBin + "dtl-host", "-o", "ipfix-receiver-port=" + std::to_string(port_), "-o",
                                 "ipfix-receiver-workers=" + std::to_string(workers), "-o",
                                 "ipfix-data-path=" + root_.string(), "--duration", "120"},
        HostLog());
    ASSERT_TRUE(dtl_test::WaitForText(HostLog(), "dtl-host: running", seconds(30))) << ReadTextFile(HostLog());
  }

  // hft-sim towards the host: a fixed start time (sample s has the time
  // kStartUs + s * 100), one announcement, then the given options.
  std::unique_ptr<ChildProcess> StartSim(const std::vector<std::string>& options) {
    std::vector<std::string> args = {kBin + "hft-sim", "--target", "127.0.0.1:" + std::to_string(port_)};
    args.insert(args.end(), {"--start-time", std::to_string(kStartSec), "--announce-period", "0"});
    args.insert(args.end(), {"--interfaces", "30", "--samples", std::to_string(kSamples), "--rate", "10000"});
    args.insert(args.end(), options.begin(), options.end());
    return std::make_unique<ChildProcess>(args, SimLog());
  }

  void RunSim(const std::vector<std::string>& options) {
    std::unique_ptr<ChildProcess> sim = StartSim(options);
    ASSERT_EQ(sim->Wait(seconds(30)), 0) << ReadTextFile(SimLog());
  }

  // Waits until the host has read every queued datagram, then stops it; the
  // stop writes out every partial page.
  void StopHost() {
    const auto deadline = std::chrono::steady_clock::now() + seconds(30);
    dtl_test::PortSockets queue = dtl_test::ReadPortSockets(port_);
    while (queue.rx_queue != 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(milliseconds(10));
      queue = dtl_test::ReadPortSockets(port_);
    }
    EXPECT_EQ(queue.rx_queue, 0u) << "the host did not drain its sockets";
    EXPECT_EQ(queue.drops, 0u) << "the kernel dropped datagrams; the checks below would be moot";
    host_->Signal(SIGTERM);
    EXPECT_EQ(host_->Wait(seconds(60)), 0) << ReadTextFile(HostLog());
    host_.reset();
  }

  std::vector<StoredFile> ReadAll() {
    std::vector<fs::path> paths;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root_, ec), end; !ec && it != end; it.increment(ec))
      if (it->path().extension() == ".bin") paths.push_back(it->path());
    std::sort(paths.begin(), paths.end());
    std::vector<StoredFile> files;
    for (const fs::path& path : paths) files.push_back(Read(path));
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
    file.errors = ReadTextFile(err);
    std::istringstream lines(ReadTextFile(out));
    std::string line;
    bool first = true;
    while (std::getline(lines, line)) {
      std::vector<std::string> cells;
      std::stringstream in(line);
      for (std::string cell; std::getline(in, cell, ',');) cells.push_back(cell);
      if (cells.empty()) continue;
      if (first) {
        file.columns = cells.size() - 1;
        first = false;
        continue;
      }
      file.timestamps.push_back(std::stoull(cells[0]));
      std::vector<uint64_t> values;
      for (size_t i = 1; i < cells.size(); ++i) values.push_back(std::stoull(cells[i]));
      file.rows.push_back(std::move(values));
    }
    return file;
  }

  // Compares the stored rows with the samples that must be stored (whole),
  // the ones that may be (undecidable) and the formula. Reports the first
  // wrong value of each file.
  Tally Check(const std::vector<StoredFile>& files, const std::vector<bool>& whole,
              const std::set<uint64_t>& undecidable = {}) {
    Tally tally;
    tally.sent = whole.size();
    std::vector<bool> seen(whole.size(), false);
    for (const StoredFile& file : files) {
      EXPECT_EQ(file.exit_code, 0) << file.path << ": " << file.errors;
      bool reported = false;
      for (size_t r = 0; r < file.rows.size(); ++r) {
        ++tally.stored;
        const uint64_t ts = file.timestamps[r];
        const uint64_t sample = (ts - kStartUs) / kIntervalUs;
        if (ts < kStartUs || (ts - kStartUs) % kIntervalUs != 0 || sample >= whole.size() || seen[sample]) {
          ++tally.wrongly_stored;
          tally.Wrong("stray/twice", sample);
          continue;
        }
        seen[sample] = true;
        if (undecidable.count(sample) != 0) {
          ++tally.undecidable;
          continue;
        }
        bool exact = whole[sample] && file.rows[r].size() == file.columns;
        for (size_t f = 0; exact && f < file.rows[r].size(); ++f) exact = file.rows[r][f] == CounterValue(sample, f);
        if (!exact) {
          ++tally.wrongly_stored;
          tally.Wrong(whole[sample] ? "wrong-value" : "lost-a-fragment", sample);
          if (!reported && whole[sample])
            ADD_FAILURE() << file.path << ": sample " << sample << " stored with a wrong value";
          reported = reported || whole[sample];
        }
      }
    }
    for (uint64_t s = 0; s < whole.size(); ++s) {
      if (!whole[s] || seen[s]) continue;
      ++tally.wrongly_discarded;
      tally.Wrong("discarded", s);
    }
    return tally;
  }

  std::string HostLog() const { return (dir_ / "host.log").string(); }
  std::string SimLog() const { return (dir_ / "sim.log").string(); }

  fs::path dir_;
  fs::path root_;
  uint16_t port_ = 0;
  std::unique_ptr<ChildProcess> host_;
};

// One exporter behaviour, with or without injected loss.
struct BehaviourCase {
  const char* name;
  std::vector<std::string> options;  // hft-sim options of the behaviour
  size_t fragments_per_message;
  bool loss;
};

void PrintTo(const BehaviourCase& c, std::ostream* out) { *out << c.name; }

class Behaviours : public ExporterBehaviours, public ::testing::WithParamInterface<BehaviourCase> {};

// Every sample that lost nothing is stored exactly once with exact values
// in one file, and no sample that lost a fragment is stored. For a constant
// sequence number the samples UndecidableWithoutSequence names are exempt.
TEST_P(Behaviours, StoresExactlyTheWholeSamples) {
  const BehaviourCase& c = GetParam();
  std::vector<std::string> options = c.options;
  if (c.loss) {
    options.insert(options.end(), {"--loss", std::to_string(kLoss), "--loss-every", std::to_string(kLossEvery),
                                   "--seed", std::to_string(kSeed)});
  }
  ASSERT_NO_FATAL_FAILURE(StartHost());
  ASSERT_NO_FATAL_FAILURE(RunSim(options));
  ASSERT_NO_FATAL_FAILURE(StopHost());

  const FragmentInjector injector(c.loss ? kLoss : 0, c.loss ? kLossEvery : 0, 0, kSeed);
  std::vector<bool> whole = SamplesLosingAFragment(injector, kSamples, c.fragments_per_message);
  whole.flip();
  if (c.loss) {
    ASSERT_LT(std::count(whole.begin(), whole.end(), true), kSamples - 100) << "too little loss";
  }
  const bool constant = std::find(options.begin(), options.end(), "constant") != options.end();
  const std::set<uint64_t> undecidable =
      constant ? UndecidableWithoutSequence(injector, kSamples) : std::set<uint64_t>{};

  const std::vector<StoredFile> files = ReadAll();
  const Tally tally = Check(files, whole, undecidable);
  PrintTally(c.name, tally);
  EXPECT_EQ(files.size(), 1u) << "one session, one schema: one file";
  for (const StoredFile& file : files) EXPECT_EQ(file.columns, kCounters) << file.path;
  EXPECT_EQ(tally.wrongly_stored, 0u) << tally.examples;
  EXPECT_EQ(tally.wrongly_discarded, 0u) << tally.examples;
}

const std::vector<std::string> kRecordNumbers = {"--sequence", "record"};
const std::vector<std::string> kMessageNumbers = {"--sequence", "message"};
const std::vector<std::string> kConstantNumber = {"--sequence", "constant"};
const std::vector<std::string> kInterleaved = {"--interleave"};
const std::vector<std::string> kTwoPerMessage = {"--fragments-per-message", "2"};
const std::vector<std::string> kReordered = {"--reorder", "0.2"};
const std::vector<std::string> kPackedInterleavedMessageNumbers = {"--sequence", "message", "--interleave",
                                                                   "--fragments-per-message", "2"};
const std::vector<std::string> kEverything = {"--sequence", "message",   "--interleave", "--fragments-per-message",
                                              "2",          "--reorder", "0.2"};

INSTANTIATE_TEST_SUITE_P(Loopback, Behaviours,
                         ::testing::Values(BehaviourCase{"RecordNumbers", kRecordNumbers, 1, false},
                                           BehaviourCase{"MessageNumbers", kMessageNumbers, 1, false},
                                           BehaviourCase{"ConstantNumber", kConstantNumber, 1, false},
                                           BehaviourCase{"InterleavedDescriptions", kInterleaved, 1, false},
                                           BehaviourCase{"TwoFragmentsPerMessage", kTwoPerMessage, 2, false},
                                           BehaviourCase{"ReorderedFragments", kReordered, 1, false},
                                           BehaviourCase{"AllTogether", kEverything, 2, false},
                                           BehaviourCase{"RecordNumbersWithLoss", kRecordNumbers, 1, true},
                                           BehaviourCase{"MessageNumbersWithLoss", kMessageNumbers, 1, true},
                                           BehaviourCase{"ConstantNumberWithLoss", kConstantNumber, 1, true},
                                           BehaviourCase{"InterleavedDescriptionsWithLoss", kInterleaved, 1, true},
                                           BehaviourCase{"TwoFragmentsPerMessageWithLoss", kTwoPerMessage, 2, true},
                                           BehaviourCase{"ReorderedFragmentsWithLoss", kReordered, 1, true},
                                           BehaviourCase{"PackedInterleavedMessageNumbersWithLoss",
                                                         kPackedInterleavedMessageNumbers, 2, true},
                                           BehaviourCase{"AllTogetherWithLoss", kEverything, 2, true}),
                         [](const ::testing::TestParamInfo<BehaviourCase>& info) { return info.param.name; });

// The highest counter template withdrawn mid-stream: the samples before it
// are stored with every counter, those after it without the withdrawn ones,
// in a second file under a second schema.
TEST_F(ExporterBehaviours, TemplateWithdrawalStartsANewFileWithTheRemainingCounters) {
  constexpr uint64_t kWithdrawAt = kSamples / 2;
  ASSERT_NO_FATAL_FAILURE(StartHost());
  ASSERT_NO_FATAL_FAILURE(RunSim({"--withdraw-at", std::to_string(kWithdrawAt)}));
  ASSERT_NO_FATAL_FAILURE(StopHost());

  const std::vector<StoredFile> files = ReadAll();
  const Tally tally = Check(files, std::vector<bool>(kSamples, true));
  PrintTally("TemplateWithdrawal", tally);
  EXPECT_EQ(tally.wrongly_stored, 0u) << tally.examples;
  EXPECT_EQ(tally.wrongly_discarded, 0u) << tally.examples;
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0].columns, kCounters);
  EXPECT_EQ(files[0].rows.size(), kWithdrawAt);
  EXPECT_EQ(files[1].columns, kCounters - 60);
  EXPECT_EQ(files[1].rows.size(), kSamples - kWithdrawAt);
  EXPECT_NE(std::memcmp(files[0].header.counters_schema_id, files[1].header.counters_schema_id,
                        sizeof files[0].header.counters_schema_id),
            0);
}

// Datagrams from another socket while an exporter streams: a bare message
// header with a far-future export time, the same followed by junk, and junk
// alone. They concern another session, or none: the live one stores every
// sample. One receive worker, so the strays meet the live session there.
TEST_F(ExporterBehaviours, StrayDatagramsLeaveTheLiveSessionAlone) {
  ASSERT_NO_FATAL_FAILURE(StartHost(1));
  std::unique_ptr<ChildProcess> sim = StartSim({});
  ASSERT_TRUE(dtl_test::WaitForText(HostLog(), "created session", seconds(10))) << ReadTextFile(HostLog());

  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port_);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // Version 10, the length, an export time in 2106, sequence number 0, domain 1.
  const auto header = [](uint16_t length) {
    std::vector<uint8_t> bytes;
    for (const uint32_t word : {(10u << 16) | length, 0xfffffff0u, 0u, 1u}) {
      for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(word >> shift));
    }
    return bytes;
  };
  std::vector<uint8_t> with_junk = header(16 + 48);
  for (uint8_t i = 0; i < 48; ++i) with_junk.push_back(static_cast<uint8_t>(i * 37 + 11));
  const std::vector<uint8_t> junk(with_junk.begin() + 16, with_junk.end());
  for (const std::vector<uint8_t>& datagram : {header(16), with_junk, junk}) {
    EXPECT_EQ(sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(datagram.size()));
  }
  close(fd);
  EXPECT_TRUE(sim->Running()) << "the strays came after the stream; the case proves nothing";
  ASSERT_EQ(sim->Wait(seconds(30)), 0) << ReadTextFile(SimLog());
  ASSERT_NO_FATAL_FAILURE(StopHost());

  const std::vector<StoredFile> files = ReadAll();
  const Tally tally = Check(files, std::vector<bool>(kSamples, true));
  PrintTally("StrayDatagrams", tally);
  EXPECT_EQ(tally.wrongly_stored, 0u) << tally.examples;
  EXPECT_EQ(tally.wrongly_discarded, 0u) << tally.examples;
  EXPECT_EQ(files.size(), 1u);
}

}  // namespace
