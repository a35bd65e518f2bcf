// dtl-read run as a program on data files and schema files laid out the way
// the collector lays them out under a data root.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <numeric>
#include <filesystem>
#include <fstream>

#include "dtl_counters.h"
#include "dtl_data_file_header.h"
#include "dtl_json.h"
#include "dtl_schema_writer.h"
#include "support/child_process.h"

namespace {

namespace fs = std::filesystem;
using Id = std::vector<unsigned char>;
using Args = std::vector<std::string>;
// A counter's data type and length in bytes; counter i sits at offset 8 i.
using Type = std::pair<uint32_t, uint32_t>;

struct Sample {
  uint64_t ts;
  std::vector<uint64_t> values;
};
struct Result {
  int exit_code = -1;
  std::string out, err;
};

const std::vector<std::string> kNames = {"interface=eth1:rx_bytes", "interface=eth1:tx_bytes", "drops"};
const std::vector<Sample> kSamples = {{1700000000000000, {100, 7, 0}},
                                      {1700000000100000, {110, 9, 0}},
                                      {1700000000200000, {18446744073709551615ull, 12, 3}}};
const std::string kHeading = "timestamp_us,interface=eth1:rx_bytes,interface=eth1:tx_bytes,drops\n";
const std::string kRows[] = {"1700000000000000,100,7,0\n", "1700000000100000,110,9,0\n",
                             "1700000000200000,18446744073709551615,12,3\n"};

std::string IdText(const Id& id) {
  char text[DTL_SCHEMA_ID_STRING_SIZE];
  dtl_schema_id_to_schema_string(id.data(), text);
  return text;
}

class DtlReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/dtl_read_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
  }
  void TearDown() override { fs::remove_all(root_); }

  // Publishes a schema of counters (UINT64 of 8 bytes unless types says
  // otherwise) into dir the way the collector does and returns its identifier.
  Id Schema(const std::vector<std::string>& names, const fs::path& dir, const std::vector<Type>& types = {}) {
    dtl_counters_schema_t* schema = dtl_create_counters_schema();
    dtl_counter_group_t* group = dtl_create_counter_group_no_provider("ipfix", "test");
    for (size_t i = 0; i < names.size(); ++i) {
      dtl_counter_info_t info{};
      info.name = const_cast<char*>(names[i].c_str());
      info.description = info.units = const_cast<char*>("");
      info.data_type = static_cast<decltype(info.data_type)>(i < types.size() ? types[i].first : uint32_t{DTL_DATA_TYPE_UINT64});
      info.counting_type = DTL_COUNTING_TYPE_RUNNING_SUM;
      info.offset = static_cast<uint32_t>(8 * i);
      info.length = i < types.size() ? types[i].second : 8;
      EXPECT_TRUE(dtl_add_counter_to_group(group, &info));
    }
    EXPECT_TRUE(dtl_counters_schema_append_group(schema, group));
    Id id(DTL_SCHEMA_ID_SIZE);
    EXPECT_TRUE(dtl_calc_counters_schema_id(id.data(), schema));
    dtl_json_value_t* json = dtl_counters_schema_jsonify(schema);
    dtl::SchemaWriter{.schema_dir = dir.string()}.onSchema(json->v);
    dtl_json_value_free(json);
    dtl_destroy_counters_schema(schema);
    return id;
  }

  // Header plus one block per sample, then `extra`; a finalised header
  // carries the size and last time, as after a clean close.
  static std::string Bytes(const Id& id, const std::vector<Sample>& samples, const std::string& extra = "",
                           bool finalised = true, const char* source = "leaf1") {
    const uint32_t block_size = static_cast<uint32_t>(16 + 8 * (samples.empty() ? 1 : samples[0].values.size()));
    std::string bytes(DTL_DATA_FILE_HEADER_SIZE, '\0');
    EXPECT_TRUE(dtl_data_file_header_build(source, "ipfix", samples.empty() ? 0 : samples[0].ts, block_size,
                                           id.data(), nullptr, bytes.data(), bytes.size()));
    if (finalised) {
      auto* h = reinterpret_cast<dtl_data_file_header_t*>(bytes.data());
      h->file_size = DTL_DATA_FILE_HEADER_SIZE + samples.size() * block_size;
      h->last_timestamp = samples.empty() ? 0 : samples.back().ts;
    }
    for (const Sample& s : samples) {
      std::string block(block_size, '\0');
      dtl_counters_data_reset(reinterpret_cast<dtl_counters_data_t*>(block.data()));
      reinterpret_cast<dtl_counters_data_t*>(block.data())->timestamp = s.ts;
      std::memcpy(block.data() + 16, s.values.data(), s.values.size() * 8);
      bytes += block;
    }
    return bytes + extra;
  }
  fs::path Write(const fs::path& path, const std::string& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  // A data file where the collector puts one, a few levels below the root
  // and its schema directory.
  fs::path File(const std::string& name, const std::vector<Sample>& samples = kSamples,
                const std::vector<std::string>& names = kNames, const std::string& extra = "",
                const std::vector<Type>& types = {}, const char* source = "leaf1", bool finalised = true) {
    const Id id = Schema(names, root_ / "d" / "schema", types);
    return Write(root_ / "d" / "2024" / "0315" / "leaf1" / name, Bytes(id, samples, extra, finalised, source));
  }
  static fs::path Patch(const fs::path& path, size_t offset, const std::string& bytes) {
    std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
    f.seekp(static_cast<std::streamoff>(offset));
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path;
  }

  Result Run(std::vector<std::string> args) {
    args.insert(args.begin(), DTL_BINARY_DIR "/bin/dtl-read");
    dtl_test::ChildProcess reader(args, (root_ / "out").string(), (root_ / "err").string());
    return {reader.Wait(std::chrono::seconds(60)), dtl_test::ReadTextFile(root_ / "out"),
            dtl_test::ReadTextFile(root_ / "err")};
  }

  fs::path root_;
};

// Rows, JSON lines, headers and summaries, byte for byte; the schema is
// found in the "schema" directory above the file, or where --schema-dir says.
TEST_F(DtlReadTest, OutputIsExact) {
  const std::string a = File("a.bin"), b = File("b.bin", {kSamples[1]}),
                    odd = File("odd.bin", {{5, {1, 2, 3}}}, {"x", "a,b", "x"}),
                    sum4 = File("sum4.bin", {{1000000, {100, 50}}, {1100000, {110, 70}}, {1200000, {130, 3}},
                                             {1300000, {135, 4}}}, {"rx", "tx"}),
                    sum1 = File("sum1.bin", {{1000000, {7, 7}}}, {"rx", "tx"});
  const std::string far = Write(root_ / "data" / "f.bin", Bytes(Schema(kNames, root_ / "published"), kSamples));
  char* dump = nullptr;
  size_t dump_size = 0;
  FILE* mem = open_memstream(&dump, &dump_size);
  dtl_data_file_header_print(mem, reinterpret_cast<const dtl_data_file_header_t*>(Bytes(Id(16, 7), {}).data()));
  fclose(mem);
  const std::string header_dump(dump, dump_size);
  free(dump);
  const std::string counters = "counter  first  last  max_increase\n";
  const struct {
    const char* what;
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {"csv", {a}, kHeading + kRows[0] + kRows[1] + kRows[2]},
      {"several files share one heading", {a, b}, kHeading + kRows[0] + kRows[1] + kRows[2] + kRows[1]},
      {"repeated names get their position, odd names are quoted", {odd}, "timestamp_us,x#0,\"a,b\",x#2\n5,1,2,3\n"},
      {"json lines", {"--json", a},
       "{\"timestamp_us\":1700000000000000,\"interface=eth1:rx_bytes\":100,\"interface=eth1:tx_bytes\":7,\"drops\":0}\n"
       "{\"timestamp_us\":1700000000100000,\"interface=eth1:rx_bytes\":110,\"interface=eth1:tx_bytes\":9,\"drops\":0}\n"
       "{\"timestamp_us\":1700000000200000,\"interface=eth1:rx_bytes\":18446744073709551615,"
       "\"interface=eth1:tx_bytes\":12,\"drops\":3}\n"},
      {"schema dir given", {"--schema-dir", root_ / "published", far}, kHeading + kRows[0] + kRows[1] + kRows[2]},
      {"header without its schema", {"--header", Write(root_ / "h.bin", Bytes(Id(16, 7), {}))}, header_dump},
      // rx grows by 10, 20, 5; tx is reset midway, which is no increase.
      {"summary", {"--summary", sum4},
       "file:        " + sum4 + "\nsource:      leaf1 (tag ipfix)\ntime span:   1000000 .. 1300000 us (0.300000 s)\n"
       "samples:     4\nsample rate: 10.000 /s\n" + counters + "rx         100   135  20\ntx          50     4  20\n"},
      {"source and ISO time", {"--source", "--iso-time", a},
       "source,time,interface=eth1:rx_bytes,interface=eth1:tx_bytes,drops\n"
       "leaf1,2023-11-14T22:13:20.000000Z,100,7,0\nleaf1,2023-11-14T22:13:20.100000Z,110,9,0\n"
       "leaf1,2023-11-14T22:13:20.200000Z,18446744073709551615,12,3\n"},
      {"json lines with source and ISO time", {"--json", "--source", "--iso-time", b},
       "{\"source\":\"leaf1\",\"time\":\"2023-11-14T22:13:20.100000Z\",\"interface=eth1:rx_bytes\":110,"
       "\"interface=eth1:tx_bytes\":9,\"drops\":0}\n"},
      {"summary of one sample", {"--summary", sum1},
       "file:        " + sum1 + "\nsource:      leaf1 (tag ipfix)\ntime span:   1000000 .. 1000000 us (0.000000 s)\n"
       "samples:     1\nsample rate: n/a\n" + counters + "rx           7     7  0\ntx           7     7  0\n"},
  };
  for (const auto& c : cases) {
    const Result r = Run(c.args);
    EXPECT_EQ(r.exit_code, 0) << c.what << ": " << r.err;
    EXPECT_EQ(r.out, c.out) << c.what;
    EXPECT_EQ(r.err, "") << c.what;
  }
}

// A writer killed mid-write leaves half a block or zeros that never got
// their data; a file being written ends in the zero padding of its last
// 4096-byte write, which is skipped without a word. Either is read to its
// last whole block.
TEST_F(DtlReadTest, FilesCutShortOrStillBeingWrittenAreReadToTheirLastBlock) {
  const struct {
    const char* what;
    size_t counters, samples;
    std::string extra;
    uint64_t pad_to;  // zeros appended up to this file size (0: none)
    bool finalised;
    std::vector<std::string> warnings;
  } cases[] = {
      {"cut inside a block", 3, 3, std::string(13, '\x5a'), 0, true, {"file cut short: 13 bytes after block 3"}},
      {"zeros from a dead writer", 3, 2, std::string(2 * 40, '\0'), 0, false,
       {"header not finalised", "file cut short: zero-filled from block 2 (offset 336)"}},
      {"padding after whole blocks", 3, 3, "", 4096, false, {"header not finalised"}},
      {"padding over a partial block", 5, 3, "", 4096, false, {"header not finalised"}},
      {"padding of a finalised file", 3, 3, "", 4096, true, {}},
      {"zeros longer than one write", 3, 3, "", 8192, false,
       {"file cut short: 16 bytes after block 198", "header not finalised",
        "file cut short: zero-filled from block 3 (offset 376)"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::string> names;
    for (size_t i = 0; i < c.counters; ++i) names.push_back("c" + std::to_string(i));
    std::vector<Sample> samples;
    for (uint64_t i = 0; i < c.samples; ++i)
      samples.push_back({1700000000000000 + i * 100, std::vector<uint64_t>(c.counters, i + 1)});
    const uint64_t size = DTL_DATA_FILE_HEADER_SIZE + c.samples * (16 + 8 * c.counters) + c.extra.size();
    const std::string file = Write(root_ / "d" / "f.bin", Bytes(Schema(names, root_ / "schema"), samples,
                                   c.extra + std::string(c.pad_to > size ? c.pad_to - size : 0, '\0'), c.finalised));
    ASSERT_TRUE(c.pad_to == 0 || fs::file_size(file) == c.pad_to);
    const Result r = Run({file});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), static_cast<long>(c.samples + 1)) << r.out;
    EXPECT_NE(r.out.find("1700000000000000,1"), std::string::npos) << r.out;
    size_t warnings = 0;
    for (size_t at = r.err.find("warning: "); at != std::string::npos; at = r.err.find("warning: ", at + 1)) ++warnings;
    EXPECT_EQ(warnings, c.warnings.size()) << r.err;
    for (const std::string& warning : c.warnings)
      EXPECT_NE(r.err.find("warning: " + file + ": " + warning), std::string::npos) << r.err;
  }
}

// Corrupt, foreign and incomplete input: a clear error naming the file, exit
// status 1, and the rows before the fault (or of the other files) still out.
TEST_F(DtlReadTest, BadInputIsAClearErrorNamingTheFile) {
  const std::string id = IdText(Schema(kNames, root_ / "published"));
  const std::string far = Write(root_ / "data" / "f.bin", Bytes(Schema(kNames, root_ / "published"), kSamples));
  const auto patched = [&](const std::string& name, size_t offset, const std::string& bytes) {
    return Patch(File(name), offset, bytes).string();
  };
  const std::string all = kHeading + kRows[0] + kRows[1] + kRows[2];
  const struct {
    const char* what;
    std::vector<std::string> args;
    std::string out, error;
  } cases[] = {
      {"bad magic", {patched("m.bin", 0, "dtlf")}, "", "m.bin: not a data file (bad header magic)"},
      {"minor version", {patched("v1.bin", 5, "\x08")}, "", "v1.bin: unsupported format version 1.8.0"},
      {"major version", {patched("v2.bin", 4, "\x02\x07")}, "", "v2.bin: unsupported format version 2.7.0"},
      {"file size", {patched("fs.bin", 8, std::string("\xff\x00", 2))}, "",
       "fs.bin: bad header: file size 255 is below the header size"},
      {"block size", {patched("bs.bin", 112, std::string("\x08\x00", 2))}, "",
       "bs.bin: bad header: block size 8 is below 16"},
      {"bad block magic", {patched("bm.bin", 256 + 40, "DTLX")}, kHeading + kRows[0],
       "bm.bin: corrupt block 1 at offset 296 (bad block magic)"},
      {"shorter than a header", {Write(root_ / "t.bin", "DTLF")}, "",
       "t.bin: file too short for a data file header (4 bytes)"},
      {"no such file", {root_ / "missing.bin"}, "", "missing.bin: cannot open"},
      {"a bad file before a good one", {Write(root_ / "x.bin", std::string(300, 'x')), File("a.bin")}, all, "x.bin"},
      {"schema that does not fit the blocks",
       {Write(root_ / "f4.bin", Bytes(Schema({"a", "b", "c", "d"}, root_ / "schema"), kSamples))}, "",
       "needs 32 value bytes, the blocks hold 24"},
      {"schema missing", {far}, "", "schema file schema_" + id + ".json not found"},
      {"schema dir without it", {"--schema-dir", root_ / "data", far}, "",
       "schema file schema_" + id + ".json not found"},
      {"unset schema id", {Write(root_ / "f0.bin", Bytes(Id(16, 0), kSamples))}, "", "names no counters schema"},
  };
  for (const auto& c : cases) {
    const Result r = Run(c.args);
    EXPECT_EQ(r.exit_code, 1) << c.what << ": " << r.err;
    EXPECT_EQ(r.out, c.out) << c.what;
    EXPECT_NE(r.err.find("error: "), std::string::npos) << c.what << ": " << r.err;
    EXPECT_NE(r.err.find(c.error), std::string::npos) << c.what << ": " << r.err;
  }
}

constexpr uint64_t kT0 = 1700000000000000;  // 2023-11-14T22:13:20Z

// Samples i of 0..n-1 at kT0 + 1000 i with the values i and i.
std::vector<Sample> Ramp(uint64_t n) {
  std::vector<Sample> samples;
  for (uint64_t i = 0; i < n; ++i) samples.push_back({kT0 + 1000 * i, {i, i}});
  return samples;
}
std::vector<uint64_t> Range(uint64_t from, uint64_t to) {
  std::vector<uint64_t> v(to - from);
  std::iota(v.begin(), v.end(), from);
  return v;
}
// The first value of each CSV row: the sample index in Ramp files.
std::vector<uint64_t> Indices(const std::string& csv) {
  std::vector<uint64_t> indices;
  std::istringstream lines(csv);
  std::string line;
  for (std::getline(lines, line); std::getline(lines, line);) indices.push_back(std::stoull(line.substr(line.find(',') + 1)));
  return indices;
}

// --from is inclusive, --to exclusive, in microseconds or ISO 8601. The
// range is found by bisection and widened by 64 blocks, so a sample stored
// 10 blocks late is still found, and a corrupt block far from the window
// is never read.
TEST_F(DtlReadTest, TimeWindowsSelectExactlyTheirRows) {
  std::vector<Sample> samples = Ramp(300);
  samples[200].ts = kT0 + 190500;
  const std::string file = File("w.bin", samples, {"rx", "tx"});
  const std::string far = Patch(File("far.bin", Ramp(300), {"rx", "tx"}), 256 + 10 * 32, "DTLX").string();
  std::vector<uint64_t> all = Range(0, 300), late = {190, 200};
  const struct {
    const char* what;
    Args args;
    std::vector<uint64_t> rows;
  } cases[] = {
      {"from the first block", {"--from", "1700000000000000", file}, all},
      {"to a block's time is exclusive", {"--to", "1700000000100000", file}, Range(0, 100)},
      {"between blocks", {"--from", "1700000000150500", "--to", "1700000000152500", file}, {151, 152}},
      {"before the file", {"--to", "1700000000000000", file}, {}},
      {"after the file", {"--from", "1700000000300000", file}, {}},
      {"a late sample", {"--from", "1700000000190000", "--to=1700000000191000", file}, late},
      {"ISO in UTC", {"--from=2023-11-14T22:13:20.15Z", "--to", "2023-11-14T22:13:20.152Z", file}, {150, 151}},
      {"ISO with zones and a space", {"--from", "2023-11-15 00:13:20.150+02:00", "--to", "2023-11-14T17:13:20.152-05:00", file},
       {150, 151}},
      {"ISO without a zone is UTC", {"--from", "2023-11-14T22:13:20.298", file}, {298, 299}},
      {"date only", {"--to", "2023-11-15", file}, all},
      {"date only, after the file", {"--from", "2023-11-15", file}, {}},
      {"nanoseconds are cut off", {"--to", "2023-11-14T22:13:20.100000999Z", file}, Range(0, 100)},
      {"a corrupt block outside the range", {"--from", "1700000000250000", far}, Range(250, 300)},
  };
  for (const auto& c : cases) {
    const Result r = Run(c.args);
    EXPECT_EQ(r.exit_code, 0) << c.what << ": " << r.err;
    EXPECT_EQ(r.err, "") << c.what;
    EXPECT_EQ(r.out.substr(0, r.out.find('\n')), "timestamp_us,rx,tx") << c.what;
    EXPECT_EQ(Indices(r.out), c.rows) << c.what;
  }
  // The summary takes the window and the counters too.
  const Result r = Run({"--summary", "--from", "1700000000010000", "--to", "1700000000020000", "--counters", "^tx", file});
  EXPECT_NE(r.out.find("time span:   1700000000010000 .. 1700000000019000 us"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("samples:     10\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\ntx  "), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("\nrx  "), std::string::npos) << r.out;
}

// Counters are picked by a regular expression searched in their schema
// names (not the name#i headings); bad options are usage errors (2), a file
// where nothing matches is a file error (1).
TEST_F(DtlReadTest, CountersAndBadOptions) {
  const std::string file = File("c.bin", {{kT0, {1, 2, 3, 4}}}, {"interface=eth1:rx_bytes", "interface=eth1:tx_bytes", "drops", "drops"});
  const struct {
    const char* what;
    Args args;
    int exit_code;
    std::string out_or_error;
  } cases[] = {
      {"a substring", {"--counters", "rx", file}, 0, "timestamp_us,interface=eth1:rx_bytes\n1700000000000000,1\n"},
      {"alternatives", {"--counters=eth1:(rx|tx)_bytes$", file}, 0,
       "timestamp_us,interface=eth1:rx_bytes,interface=eth1:tx_bytes\n1700000000000000,1,2\n"},
      {"repeated names keep their headings", {"--counters", "^drops$", file}, 0, "timestamp_us,drops#2,drops#3\n1700000000000000,3,4\n"},
      {"headings are not searched", {"--counters", "#2", file}, 1, "error: " + file + ": no counter matches --counters '#2'"},
      {"bad expression", {"--counters", "(", file}, 2, "--counters: bad regular expression '('"},
      {"bad month", {"--from", "2023-13-01", file}, 2, "--from: bad time '2023-13-01'"},
      {"hour 24", {"--to", "2023-11-14T24:00", file}, 2, "--to: bad time"},
      {"a word", {"--from", "yesterday", file}, 2, "--from: bad time"},
      {"fraction of a microsecond", {"--from", "17.5", file}, 2, "--from: bad time"},
      {"zone without a time", {"--from", "2023-11-14Z", file}, 2, "--from: bad time"},
      {"rate and summary", {"--rate", "--summary", file}, 2, "--rate prints rows"},
      {"rate and header", {"--rate", "--header", file}, 2, "--rate prints rows"},
  };
  for (const auto& c : cases) {
    const Result r = Run(c.args);
    EXPECT_EQ(r.exit_code, c.exit_code) << c.what << ": " << r.err;
    const std::string& where = c.exit_code == 0 ? r.out : r.err;
    EXPECT_NE(where.find(c.out_or_error), std::string::npos) << c.what << ": " << r.out << r.err;
    if (c.exit_code == 0) {
      EXPECT_EQ(r.out, c.out_or_error) << c.what;
    }
  }
}

// Unsigned counters wrap at their width (64 bits, or 32 for 4 bytes) and
// give no rate when reset; INT64 and FP64 give signed changes; bit fields
// get no column. A repeated or late sample is left out, a gap averages,
// and the rate is delta * 1e6 / dt in that order (3 per 7 us).
TEST_F(DtlReadTest, RatesFollowTheCounterTypes) {
  const std::vector<Type> types = {{DTL_DATA_TYPE_UINT64, 8}, {DTL_DATA_TYPE_UINT64, 4}, {DTL_DATA_TYPE_INT64, 8},
                                   {DTL_DATA_TYPE_FP64, 8}, {DTL_DATA_TYPE_BIT64, 8}};
  const auto real = [](double d) { return std::bit_cast<uint64_t>(d); };
  const uint64_t minus = ~uint64_t{0};  // -1
  const std::string file = File("r.bin",
                                {{1000000, {minus - 99, 4294967200, minus - 4, real(1.5), 1}},
                                 {1001000, {50, 100, 10, real(2.25), 2}},
                                 {1001000, {999, 999, 999, real(9), 3}},
                                 {1000500, {999, 999, 999, real(9), 4}},
                                 {1004000, {30, 40, minus - 19, real(2.25), 5}},
                                 {1004007, {33, 41, minus - 19, real(1.25), 6}}},
                                {"u64", "u32", "i64", "f64", "bits"}, "", types);
  const struct {
    const char* what;
    Args args;
    std::string out;
  } cases[] = {
      {"csv", {"--rate", file},
       "timestamp_us,u64,u32,i64,f64\n1001000,150000,196000,15000,750\n1004000,,,-10000,0\n"
       "1004007,428571.4285714286,142857.14285714287,0,-142857.14285714287\n"},
      {"json", {"--rate", "--json", "--counters", "^u", file},
       "{\"timestamp_us\":1001000,\"u64\":150000,\"u32\":196000}\n{\"timestamp_us\":1004000,\"u64\":null,\"u32\":null}\n"
       "{\"timestamp_us\":1004007,\"u64\":428571.4285714286,\"u32\":142857.14285714287}\n"},
      {"window", {"--rate", "--from", "1001000", file}, "timestamp_us,u64,u32,i64,f64\n1004000,,,-10000,0\n"
       "1004007,428571.4285714286,142857.14285714287,0,-142857.14285714287\n"},
  };
  for (const auto& c : cases) {
    const Result r = Run(c.args);
    EXPECT_EQ(r.exit_code, 0) << c.what << ": " << r.err;
    EXPECT_EQ(r.out, c.out) << c.what;
  }
}

// A run of rates goes on into the next file of the same source and
// columns (its first row then has a rate, and a file of earlier times is
// all late); another source or other columns start a new run.
TEST_F(DtlReadTest, RateRunsGoOnAcrossFilesOfOneSource) {
  const std::string a1 = File("a1.bin", {{1000000, {0}}, {1001000, {10}}}, {"rx"}),
                    a2 = File("a2.bin", {{1002000, {30}}, {1003000, {60}}}, {"rx"}),
                    b2 = File("b2.bin", {{1002000, {30}}, {1003000, {60}}}, {"rx"}, "", {}, "leaf2"),
                    c2 = File("c2.bin", {{1002000, {30}}, {1003000, {60}}}, {"tx"});
  const struct {
    const char* what;
    Args args;
    std::string out;
  } cases[] = {
      {"same source", {"--rate", a1, a2}, "timestamp_us,rx\n1001000,10000\n1002000,20000\n1003000,30000\n"},
      {"other source", {"--rate", "--source", a1, b2}, "source,timestamp_us,rx\nleaf1,1001000,10000\nleaf2,1003000,30000\n"},
      {"other columns", {"--rate", a1, c2}, "timestamp_us,rx\n1001000,10000\ntimestamp_us,tx\n1003000,30000\n"},
      {"earlier file second", {"--rate", a2, a1}, "timestamp_us,rx\n1003000,30000\n"},
  };
  for (const auto& c : cases) {
    const Result r = Run(c.args);
    EXPECT_EQ(r.exit_code, 0) << c.what << ": " << r.err;
    EXPECT_EQ(r.out, c.out) << c.what;
  }
}

// A window reaching into the tail of a torn file ends at its last whole
// data block with the same warning as a full read.
TEST_F(DtlReadTest, WindowsIntoATornTail) {
  const std::string zeros = File("z.bin", Ramp(200), {"rx", "tx"}, std::string(400 * 32, '\0'), {}, "leaf1", false),
                    partial = File("p.bin", Ramp(200), {"rx", "tx"}, std::string(13, '\x5a'));
  const std::string zero_tail = "file cut short: zero-filled from block 200 (offset 6656)";
  const struct {
    const char* what;
    Args args;
    std::vector<uint64_t> rows;
    std::string warning;
  } cases[] = {
      {"zero tail, window into it", {"--from", "1700000000150000", zeros}, Range(150, 200), zero_tail},
      {"zero tail, window beyond the data", {"--from", "1700000000260000", zeros}, {}, zero_tail},
      {"zero tail, window before it", {"--to", "1700000000010000", zeros}, Range(0, 10), zero_tail},
      {"zero tail, no window", {zeros}, Range(0, 200), zero_tail},
      {"partial block, window into it", {"--from", "1700000000190000", "--to", "1700000000900000", partial},
       Range(190, 200), "file cut short: 13 bytes after block 200"},
  };
  for (const auto& c : cases) {
    const Result r = Run(c.args);
    EXPECT_EQ(r.exit_code, 0) << c.what << ": " << r.err;
    EXPECT_EQ(Indices(r.out), c.rows) << c.what;
    EXPECT_NE(r.err.find(c.warning), std::string::npos) << c.what << ": " << r.err;
    EXPECT_EQ(r.err.find(c.warning), r.err.rfind(c.warning)) << c.what << ": warned twice: " << r.err;
  }
}

}  // namespace
