// Selections, rates and listings through the real programs (see store_run.h):
// two switches stream into one data root with a small file size limit, so
// each switch's samples span several files, and dtl-read and dtl-ls answer
// from those files. Switch B's values start 10^9 below 2^64, so its counter
// 0 wraps between samples 998 and 999.
#include <map>
#include <set>

#include "tests/tools/store_run.h"

namespace {

using namespace store_run;

constexpr uint64_t kSamples = 2000;
constexpr size_t kCounters = 180;  // 30 interfaces x 6 counters: 1 MiB holds ~700 samples
const std::string kRate = "10000030000";  // 1000003 per 100 us, every counter
uint64_t SampleTime(uint64_t i) { return kStartUs + i * kIntervalUs; }

struct Output {
  int exit_code = -1;
  std::string out, err;
  std::vector<std::string> lines;
};

class DtlReadSelection : public StoreRun {
 protected:
  Output Tool(const std::string& program, std::vector<std::string> args) {
    args.insert(args.begin(), kBin + program);
    ChildProcess tool(args, (dir_ / "tool.out").string(), (dir_ / "tool.err").string());
    Output o;
    o.exit_code = tool.Wait(seconds(60));
    o.out = ReadTextFile((dir_ / "tool.out").string());
    o.err = ReadTextFile((dir_ / "tool.err").string());
    std::istringstream lines(o.out);
    for (std::string line; std::getline(lines, line);) o.lines.push_back(line);
    return o;
  }
  // The data files of a switch, in path (and time) order.
  std::vector<std::string> FilesOf(const std::string& name) const {
    std::vector<std::string> files;
    for (const fs::path& path : DataFiles())
      if (path.parent_path().filename() == name) files.push_back(path.string());
    return files;
  }
};

// Every answer is checked against the simulator's formula: sample i at
// kStartUs + 100 i, every counter growing by 1000003 per sample.
TEST_F(DtlReadSelection, TwoSwitchesThroughTheRealPrograms) {
  ASSERT_NO_FATAL_FAILURE(StartHost({"ipfix-disk-file-size-limit=1048576"}));
  const std::string port = std::to_string(dtl_test::FreeUdpPort());
  const std::vector<std::string> stream = {"--interfaces", "30", "--samples", std::to_string(kSamples), "--rate", "10000"};
  std::vector<std::string> a = {"--switch-name", "A", "--domain", "1"}, b = {"--switch-name", "B", "--domain", "2",
      "--source-port", port, "--value-base", "18446744072709551616"};
  a.insert(a.end(), stream.begin(), stream.end());
  b.insert(b.end(), stream.begin(), stream.end());
  ASSERT_NO_FATAL_FAILURE(RunSim(a, "simA"));
  ASSERT_NO_FATAL_FAILURE(RunSim(b, "simB"));
  ASSERT_NO_FATAL_FAILURE(StopHost());
  const std::vector<std::string> files_a = FilesOf("A"), files_b = FilesOf("B");
  ASSERT_GE(files_a.size(), 2u) << "the file limit should split each switch's samples";
  ASSERT_EQ(files_b.size(), files_a.size());

  // Rates: exact for every counter and sample after the first, across the
  // wrap of B's counter 0 and across the files of one switch.
  for (const auto& files : {files_a, files_b}) {
    std::vector<std::string> args = {"--rate"};
    args.insert(args.end(), files.begin(), files.end());
    const Output rates = Tool("dtl-read", args);
    EXPECT_EQ(rates.exit_code, 0) << rates.err;
    ASSERT_EQ(rates.lines.size(), kSamples) << files[0];
    for (uint64_t i = 1; i < kSamples; ++i) {
      std::string expected = std::to_string(SampleTime(i));
      for (size_t k = 0; k < kCounters; ++k) expected += "," + kRate;
      ASSERT_EQ(rates.lines[i], expected) << files[0] << " sample " << i;
    }
  }

  // Windows at the first and last sample of a file and in its middle give
  // exactly those samples, with the simulator's values.
  const StoredFile whole = Read(files_a[1]);
  ASSERT_GT(whole.timestamps.size(), 100u);
  const uint64_t first = (whole.timestamps.front() - kStartUs) / kIntervalUs;
  const uint64_t last = (whole.timestamps.back() - kStartUs) / kIntervalUs, mid = (first + last) / 2;
  const auto t = [](uint64_t i) { return std::to_string(SampleTime(i)); };
  const struct {
    std::vector<std::string> args;
    uint64_t from, to;  // sample indices [from, to)
  } windows[] = {
      {{"--from", t(first)}, first, last + 1},
      {{"--from", t(first), "--to", t(first + 1)}, first, first + 1},
      {{"--to", t(last)}, first, last},
      {{"--from", t(last)}, last, last + 1},
      {{"--from", t(mid), "--to", t(mid + 10)}, mid, mid + 10},
      {{"--from", "2023-11-14T22:13:20.1Z", "--to", "2023-11-15T00:13:20.1005+02:00"}, 1000, 1005},
  };
  for (const auto& w : windows) {
    const StoredFile file = Read(files_a[1], w.args);
    EXPECT_EQ(file.exit_code, 0) << file.errors;
    std::vector<uint64_t> indices, expected;
    for (size_t r = 0; r < file.rows.size(); ++r) {
      indices.push_back((file.timestamps[r] - kStartUs) / kIntervalUs);
      EXPECT_TRUE(Exact(file.rows[r], indices.back(), kCounters)) << "sample " << indices.back();
    }
    for (uint64_t i = std::max(w.from, first); i < std::min(w.to, last + 1); ++i) expected.push_back(i);
    EXPECT_EQ(indices, expected) << w.args[0] << " " << w.args[1];
  }

  // Counters by pattern: the two octet counters of the second interface,
  // counters 6 and 7.
  const StoredFile octets = Read(files_a[0], {"--counters", "Ethernet1/2\\b.*octets"});
  EXPECT_EQ(octets.exit_code, 0) << octets.errors;
  const Output heading = Tool("dtl-read", {"--counters", "Ethernet1/2\\b.*octets", files_a[0]});
  ASSERT_FALSE(heading.lines.empty());
  EXPECT_EQ(heading.lines[0], "timestamp_us,interface=Ethernet1/2:in-octets,interface=Ethernet1/2:out-octets");
  for (size_t r = 0; r < octets.rows.size(); ++r) {
    const uint64_t i = (octets.timestamps[r] - kStartUs) / kIntervalUs;
    ASSERT_EQ(octets.rows[r], (std::vector<uint64_t>{dtl::hftsim::CounterValue(i, 6), dtl::hftsim::CounterValue(i, 7)}));
  }

  // --source names each row's switch.
  const Output sources = Tool("dtl-read", {"--source", "--counters", "in-octets", files_a[0], files_b[0]});
  std::map<std::string, size_t> rows_of;
  for (size_t l = 1; l < sources.lines.size(); ++l) ++rows_of[sources.lines[l].substr(0, sources.lines[l].find(','))];
  EXPECT_EQ(rows_of.size(), 2u);
  EXPECT_EQ(rows_of["A"], Read(files_a[0]).rows.size());
  EXPECT_EQ(rows_of["B"], Read(files_b[0]).rows.size());

  // dtl-ls: both switches with all their samples and their span, then
  // each file; with a window only the files holding it.
  const std::string span = "2023-11-14T22:13:20.000000Z .. 2023-11-14T22:13:20.199900Z, 2000 samples";
  const Output listing = Tool("dtl-ls", {root_.string()});
  EXPECT_EQ(listing.exit_code, 0) << listing.err;
  ASSERT_EQ(listing.lines.size(), 2 + files_a.size() + files_b.size()) << listing.out;
  EXPECT_EQ(listing.lines[0].rfind("A: " + std::to_string(files_a.size()) + " files, " + span, 0), 0u) << listing.out;
  EXPECT_EQ(listing.lines[1 + files_a.size()].rfind("B: " + std::to_string(files_b.size()) + " files, " + span, 0), 0u)
      << listing.out;
  for (size_t f = 0; f < files_a.size(); ++f) {
    const std::string relative = fs::relative(files_a[f], root_).string();
    EXPECT_EQ(listing.lines[1 + f].rfind("  " + relative + "  ", 0), 0u) << listing.out;
  }
  const Output windowed = Tool("dtl-ls", {root_.string(), "--from", t(mid), "--to", t(mid + 1)});
  EXPECT_EQ(windowed.exit_code, 0) << windowed.err;
  const std::string holder = "  " + fs::relative(files_a[1], root_).string() + "  ";
  ASSERT_EQ(windowed.lines.size(), 4u) << windowed.out;
  EXPECT_EQ(windowed.lines[0].rfind("A: 1 file, ", 0), 0u) << windowed.out;
  EXPECT_EQ(windowed.lines[1].rfind(holder, 0), 0u) << windowed.out;
  EXPECT_NE(windowed.lines[1].find("  " + std::to_string(whole.rows.size()) + "  "), std::string::npos);

  // A file that is no data file is listed with the reason beside the others.
  std::ofstream(fs::path(files_a[0]).parent_path() / "junk.bin") << "junk";
  const Output bad = Tool("dtl-ls", {root_.string()});
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_EQ(bad.lines.size(), listing.lines.size() + 1) << bad.out;
  EXPECT_NE(bad.out.find("junk.bin: file too short for a data file header (4 bytes)"), std::string::npos) << bad.out;
  const Output missing = Tool("dtl-ls", {(dir_ / "nowhere").string()});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("nowhere: no such directory"), std::string::npos) << missing.err;
}

}  // namespace
