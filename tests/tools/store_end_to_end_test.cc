// The whole storage path through the real programs (see store_run.h): legal
// exporter behaviours with and without injected loss, counter set changes,
// hostile input, a collector killed outright, and retention under load.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <numeric>
#include <set>

#include "tests/tools/store_run.h"
#include "tools/hft_sim/fragment_injector.h"

namespace {

using namespace store_run;
using dtl::hftsim::FragmentInjector;

// 30 interfaces x 6 counters in counter templates of 60: three fragments.
constexpr size_t kCounters = 180, kFragments = 3;
constexpr uint64_t kSamples = 3000;
const std::vector<std::string> kStream = {"--interfaces", "30", "--samples", "3000", "--rate", "10000"};

using StoreEndToEnd = StoreRun;

// What each sample must be: with one fragment per message it is lost when
// the injector drops any of its fragments; with several, a dropped fragment
// takes its whole message along, messages carrying the fragments
// `per_message` at a time from the start of the run.
enum Want { kLost, kWhole, kEither };  // kEither: stored or not, both are right
std::vector<Want> Wanted(const FragmentInjector& injector, size_t per_message) {
  std::vector<Want> want(kSamples, kWhole);
  for (uint64_t first = 0, total = kSamples * kFragments; first < total; first += per_message) {
    const uint64_t end = std::min(total, first + per_message);
    bool message_lost = false;
    for (uint64_t g = first; g < end; ++g) message_lost |= injector.Drop(0, g / kFragments, g % kFragments, kFragments);
    for (uint64_t g = first; message_lost && g < end; ++g) want[g / kFragments] = kLost;
  }
  return want;
}

// With a constant sequence number a lost fragment shows only through the
// templates: a sample starts with template 300 (the one with the time), and
// is known incomplete when the next template 300 comes first or a template
// repeats. Not so when the fragments it lost are made up, template for
// template, by fragments of later samples whose template 300 was lost too:
// a collector may store such a sample (with foreign values) or not. These
// are they, for fragments sent one per message in order.
std::set<uint64_t> UndecidableWithoutSequence(const FragmentInjector& injector) {
  std::set<uint64_t> undecidable;
  bool pending = false, foreign = false;
  uint64_t pending_sample = 0;
  std::vector<bool> have(kFragments);
  size_t count = 0;
  for (uint64_t s = 0; s < kSamples; ++s) {
    for (size_t f = 0; f < kFragments; ++f) {
      if (injector.Drop(0, s, f, kFragments)) continue;
      if (f == 0) {
        pending = true, pending_sample = s, foreign = false, count = 0;
        have.assign(kFragments, false);
      } else if (!pending || have[f]) {
        pending = false;
        continue;
      }
      have[f] = true;
      foreign = foreign || s != pending_sample;
      if (++count < kFragments) continue;
      if (foreign) undecidable.insert(pending_sample);
      pending = false;
    }
  }
  return undecidable;
}

// One file against what each sample must be, kWhole meaning stored exactly
// once with exact values. Prints one line for the record.
void Check(const std::string& name, const StoredFile& file, const std::vector<Want>& want) {
  const Sorted sorted = Sort({file}, {kSamples}, kCounters);
  uint64_t stored = sorted.stray + sorted.inexact.size(), wrongly_stored = sorted.stray, wrongly_discarded = 0;
  for (const auto& [run, s] : sorted.inexact) wrongly_stored += want[s] != kEither;
  std::string examples = sorted.examples;
  for (uint64_t s = 0; s < kSamples; ++s) {
    const int n = sorted.exact[0][s];
    const bool wrong = n > 1 || (n == 1 && want[s] == kLost), discarded = n == 0 && want[s] == kWhole;
    stored += n, wrongly_stored += wrong, wrongly_discarded += discarded;
    if ((wrong || discarded) && examples.size() < 200) examples += (wrong ? " stored " : " lost ") + std::to_string(s);
  }
  std::printf("[ behaviour ] %-36s sent %llu  stored %llu  wrongly stored %llu  wrongly discarded %llu\n", name.c_str(),
              1ull * kSamples, 1ull * stored, 1ull * wrongly_stored, 1ull * wrongly_discarded);
  EXPECT_EQ(wrongly_stored + wrongly_discarded, 0u) << file.path << ":" << examples;
}

// One legal exporter behaviour, with or without injected loss.
struct BehaviourCase {
  std::string name;
  std::vector<std::string> options;  // of hft-sim
  bool loss = false;
  std::string from = "127.0.0.1";
  std::vector<std::string> host_options = {};
};
void PrintTo(const BehaviourCase& c, std::ostream* out) { *out << c.name; }

std::vector<BehaviourCase> BehaviourCases() {
  const std::vector<std::string> direct = {"ipfix-disk-direct-io=true", "ipfix-disk-batch-count=64"};
  const std::vector<std::string> buffered = {"ipfix-disk-direct-io=false", "ipfix-disk-batch-count=64"};
  // Three exporters (one switch, three observation domains) at once, over
  // IPv4 and IPv6, a record or a sample per datagram, with and without O_DIRECT.
  std::vector<BehaviourCase> cases = {
      {"ThreeExportersIpv4Direct", {"--exporters", "3"}, false, "127.0.0.1", direct},
      {"ThreeExportersIpv4SamplesBuffered", {"--exporters", "3", "--datagram", "sample"}, false, "127.0.0.1", buffered},
      {"ThreeExportersIpv6Buffered", {"--exporters", "3"}, false, "::1", buffered},
      {"ThreeExportersIpv6SamplesDirect", {"--exporters", "3", "--datagram", "sample"}, false, "::1", direct}};
  const std::pair<const char*, std::vector<std::string>> behaviours[] = {
      {"RecordNumbers", {"--sequence", "record"}},
      {"MessageNumbers", {"--sequence", "message"}},
      {"ConstantNumber", {"--sequence", "constant"}},
      {"InterleavedDescriptions", {"--interleave"}},
      {"TwoFragmentsPerMessage", {"--fragments-per-message", "2"}},
      {"ReorderedFragments", {"--reorder", "0.2"}},
      {"PackedInterleavedMessageNumbers", {"--sequence", "message", "--interleave", "--fragments-per-message", "2"}},
      {"AllTogether", {"--sequence", "message", "--interleave", "--fragments-per-message", "2", "--reorder", "0.2"}}};
  for (const bool loss : {false, true})
    for (const auto& [name, options] : behaviours)
      cases.push_back({name + std::string(loss ? "WithLoss" : ""), options, loss});
  return cases;
}

class Behaviours : public StoreRun, public ::testing::WithParamInterface<BehaviourCase> {};

// Each exporter's samples that lost nothing are stored exactly once with
// exact values in one file, and none that lost a fragment is.
TEST_P(Behaviours, StoresExactlyTheWholeSamples) {
  const BehaviourCase& c = GetParam();
  std::vector<std::string> options = kStream;
  options.insert(options.end(), c.options.begin(), c.options.end());
  if (c.loss) options.insert(options.end(), {"--loss", "0.01", "--loss-every", "97", "--seed", "7"});
  ASSERT_NO_FATAL_FAILURE(StartHost(c.host_options));
  ASSERT_NO_FATAL_FAILURE(RunSim(options, "sim", c.from));
  ASSERT_NO_FATAL_FAILURE(StopHost());

  const FragmentInjector injector(c.loss ? 0.01 : 0, c.loss ? 97 : 0, 0, 7);
  const auto packed = std::find(options.begin(), options.end(), "--fragments-per-message");
  std::vector<Want> want = Wanted(injector, packed == options.end() ? 1 : std::stoul(packed[1]));
  if (std::find(options.begin(), options.end(), "constant") != options.end())
    for (uint64_t s : UndecidableWithoutSequence(injector)) want[s] = kEither;
  if (c.loss) {
    ASSERT_LT(std::count(want.begin(), want.end(), kWhole), kSamples - 100) << "too little loss";
  }
  const std::vector<StoredFile> files = ReadAll();
  EXPECT_EQ(files.size(), c.options[0] == "--exporters" ? 3u : 1u) << "one file per session";
  for (const StoredFile& file : files) {
    EXPECT_EQ(file.path.parent_path().filename(), "hft-sim");
    ExpectWellFormed(file);
    EXPECT_EQ(file.columns, kCounters) << file.path;
    Check(c.name, file, want);
  }
}

INSTANTIATE_TEST_SUITE_P(Loopback, Behaviours, ::testing::ValuesIn(BehaviourCases()),
                         [](const ::testing::TestParamInfo<BehaviourCase>& info) { return info.param.name; });

// A session whose counters change mid-stream, by a counter template being
// withdrawn or by the switch coming back (same address, port and domain)
// with more counters: one session, the new blocks in a second file under a
// second published schema, every sample in the file of its schema.
TEST_F(StoreEndToEnd, CounterSetChangeStartsANewFileWithANewSchema) {
  const std::string port = std::to_string(dtl_test::FreeUdpPort());
  struct Expected {
    size_t counters;
    uint64_t first, count, start_us;
  };
  const struct {
    const char* what;
    std::vector<std::vector<std::string>> runs;
    Expected before, after;
  } cases[] = {
      {"highest template withdrawn", {{"--interfaces", "30", "--samples", "3000", "--withdraw-at", "1500"}},
       {180, 0, 1500, kStartUs}, {120, 1500, 1500, kStartUs}},
      {"restarted with more counters",
       {{"--source-port", port, "--interfaces", "4", "--samples", "500"},
        {"--source-port", port, "--interfaces", "6", "--samples", "500", "--start-time",
         std::to_string(kStartSec + 1)}},
       {24, 0, 500, kStartUs}, {36, 0, 500, kStartUs + 1000000}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fs::remove_all(root_);
    ASSERT_NO_FATAL_FAILURE(StartHost({}, 1));
    for (const std::vector<std::string>& run : c.runs) ASSERT_NO_FATAL_FAILURE(RunSim(run));
    ASSERT_NO_FATAL_FAILURE(StopHost());
    EXPECT_EQ(SessionsCreated(), 1u);
    const std::vector<StoredFile> files = ReadAll();
    ASSERT_EQ(files.size(), 2u);
    EXPECT_NE(std::memcmp(files[0].header.counters_schema_id, files[1].header.counters_schema_id,
                          sizeof files[0].header.counters_schema_id), 0);
    for (const auto& [file, expected] : {std::pair{&files[0], c.before}, std::pair{&files[1], c.after}}) {
      ExpectWellFormed(*file);
      EXPECT_EQ(file->columns, expected.counters);
      std::vector<uint64_t> samples(expected.count), stored;
      std::iota(samples.begin(), samples.end(), expected.first);
      for (size_t r = 0; r < file->rows.size(); ++r) {
        stored.push_back((file->timestamps[r] - expected.start_us) / kIntervalUs);
        EXPECT_TRUE(Exact(file->rows[r], stored.back(), expected.counters)) << file->path << " row " << r;
      }
      EXPECT_EQ(stored, samples) << file->path;
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "schema"), fs::directory_iterator()), 2);
  }
}

// Datagrams from another socket while an exporter streams: a bare message
// header with a far-future export time, the same followed by junk, and junk
// alone. They concern another session, or none: the live one stores every
// sample. One receive worker, so the strays meet the live session there.
TEST_F(StoreEndToEnd, StrayDatagramsLeaveTheLiveSessionAlone) {
  ASSERT_NO_FATAL_FAILURE(StartHost({}, 1));
  std::unique_ptr<ChildProcess> sim = StartSim(kStream);
  ASSERT_TRUE(dtl_test::WaitFor([&] { return SessionsCreated() > 0; }, seconds(10))) << ReadTextFile(Log("host"));
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{AF_INET, htons(port_), {htonl(INADDR_LOOPBACK)}, {}};
  // Version 10, the length, an export time in 2106, sequence number 0, domain 1.
  const auto header = [](uint16_t length) {
    std::vector<uint8_t> bytes;
    for (const uint32_t word : {(10u << 16) | length, 0xfffffff0u, 0u, 1u})
      for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(word >> shift));
    return bytes;
  };
  std::vector<uint8_t> with_junk = header(16 + 48);
  for (uint8_t i = 0; i < 48; ++i) with_junk.push_back(static_cast<uint8_t>(i * 37 + 11));
  for (const std::vector<uint8_t>& datagram : {header(16), with_junk, {with_junk.begin() + 16, with_junk.end()}})
    EXPECT_EQ(sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(datagram.size()));
  close(fd);
  EXPECT_TRUE(sim->Running()) << "the strays came after the stream; the case proves nothing";
  ASSERT_EQ(sim->Wait(seconds(30)), 0) << ReadTextFile(Log("sim"));
  ASSERT_NO_FATAL_FAILURE(StopHost());
  const std::vector<StoredFile> files = ReadAll();
  ASSERT_EQ(files.size(), 1u);
  Check("StrayDatagrams", files[0], std::vector<Want>(kSamples, kWhole));
}

// A collector killed without warning leaves files the reader takes up to the
// last whole block, every block intact.
TEST_F(StoreEndToEnd, KilledHostLeavesFilesReadableUpToTheLastWholeBlock) {
  ASSERT_NO_FATAL_FAILURE(StartHost({"ipfix-disk-batch-count=64"}));
  std::unique_ptr<ChildProcess> sim = StartSim({"--interfaces", "8", "--rate", "2000", "--duration", "60"});
  ASSERT_TRUE(dtl_test::WaitFor([&] { return DataBytes() >= 64 * 1024; }, seconds(30))) << ReadTextFile(Log("host"));
  host_->Signal(SIGKILL);
  EXPECT_EQ(host_->Wait(seconds(10)), 128 + SIGKILL);
  sim.reset();
  const std::vector<StoredFile> files = ReadAll();
  ASSERT_EQ(files.size(), 1u);
  const StoredFile& file = files[0];
  EXPECT_EQ(file.exit_code, 0) << file.errors;
  ASSERT_GT(file.header.block_size, 0u);
  ASSERT_FALSE(file.rows.empty());
  EXPECT_EQ(file.rows.size(), (fs::file_size(file.path) - sizeof(dtl_data_file_header_t)) / file.header.block_size);
  for (size_t i = 0; i < file.rows.size(); ++i) {
    ASSERT_EQ(file.timestamps[i], kStartUs + i * kIntervalUs) << "a gap or a repeat";
    ASSERT_TRUE(Exact(file.rows[i], i, 48)) << "sample " << i;
  }
}

// Switch names are path components: whatever a switch calls itself, its
// files stay one directory level under the date directories of the root,
// and the header keeps the name as sent.
TEST_F(StoreEndToEnd, HostileSwitchNamesStayUnderTheDataRoot) {
  ASSERT_NO_FATAL_FAILURE(StartHost());
  const std::vector<std::string> names = {"../escape", "a/b/../../c", "..", "%Y%m/x", "tab\there"};
  for (size_t i = 0; i < names.size(); ++i)
    ASSERT_NO_FATAL_FAILURE(RunSim({"--switch-name", names[i], "--samples", "50"}, "sim" + std::to_string(i)));
  ASSERT_NO_FATAL_FAILURE(StopHost());
  // Nothing outside the data root besides this test's logs.
  for (const auto& entry : fs::directory_iterator(dir_))
    EXPECT_TRUE(entry.path() == root_ || entry.path().extension() == ".log") << entry.path();
  std::set<std::string> sources;
  for (const StoredFile& file : ReadAll()) {
    const fs::path relative = fs::relative(file.path, root_);
    EXPECT_EQ(std::distance(relative.begin(), relative.end()), 4) << relative;  // year/mmdd/source/file
    ExpectWellFormed(file, file.header.source_id);
    const Sorted sorted = Sort({file}, {50}, 24);
    EXPECT_EQ(sorted.exact[0], std::vector<int>(50, 1)) << file.path << "\n" << sorted.examples;
    sources.insert(file.header.source_id);
  }
  EXPECT_EQ(sources, std::set<std::string>(names.begin(), names.end()));
}

// Two switches stream about 6 MB/s for 30 s into a root with a 1 MiB file
// limit and an 8 MiB data limit. Sampled every 100 ms, the data never
// exceeds the limit by more than a few files, and what is not a data file
// is never deleted.
TEST_F(StoreEndToEnd, RetentionKeepsTheDataUnderItsLimitWhileStreaming) {
  constexpr uint64_t kFileLimit = 1 << 20, kDataLimit = 8 << 20, kSessions = 2;
  fs::create_directories(root_ / "notes");
  std::ofstream(root_ / "README.txt") << "keep";
  std::ofstream(root_ / "notes" / "old.csv") << "keep";
  ASSERT_NO_FATAL_FAILURE(StartHost({"ipfix-disk-file-size-limit=" + std::to_string(kFileLimit),
                                     "ipfix-disk-data-size-limit=" + std::to_string(kDataLimit),
                                     "ipfix-disk-batch-count=64"}));
  std::unique_ptr<ChildProcess> sims[kSessions];
  for (size_t i = 0; i < kSessions; ++i) {
    const std::string name = "leaf-" + std::to_string(i + 1);
    sims[i] = StartSim({"--switch-name", name, "--interfaces", "16", "--rate", "4000", "--duration", "30"}, name);
  }
  uint64_t largest = 0, largest_file = 0;
  const auto stop_by = Clock::now() + seconds(45);
  while ((sims[0]->Running() || sims[1]->Running()) && Clock::now() < stop_by) {
    largest = std::max(largest, DataBytes(&largest_file));
    std::this_thread::sleep_for(milliseconds(100));
  }
  for (size_t i = 0; i < kSessions; ++i) ASSERT_EQ(sims[i]->Wait(seconds(5)), 0) << i;
  host_->Signal(SIGTERM);
  EXPECT_EQ(host_->Wait(seconds(30)), 0) << ReadTextFile(Log("host"));
  largest = std::max(largest, DataBytes(&largest_file));
  std::printf("retention: largest data total %llu bytes (limit %llu), largest file %llu\n", 1ull * largest,
              1ull * kDataLimit, 1ull * largest_file);
  EXPECT_NE(ReadTextFile(Log("host")).find("Retention enabled"), std::string::npos);
  EXPECT_GT(largest, kDataLimit / 2) << "the stream never filled the data root";
  // A file ends at the first page that reaches the file limit.
  EXPECT_LE(largest_file, 2 * kFileLimit);
  // Above the limit: each session's open file, plus the closed file whose
  // arrival starts the sweep, plus one more for what arrives before the
  // retention thread (polling every 100 ms) has its unlinks done.
  EXPECT_LE(largest, kDataLimit + (kSessions + 2) * largest_file);
  EXPECT_TRUE(fs::exists(root_ / "README.txt"));
  EXPECT_TRUE(fs::exists(root_ / "notes" / "old.csv"));
}

}  // namespace
