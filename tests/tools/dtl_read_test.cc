// dtl-read is run as a program on data files and schema files laid out the
// way the collector lays them out under a data root.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "dtl_counters.h"
#include "dtl_data_file_header.h"
#include "dtl_json.h"
#include "dtl_schema_writer.h"

namespace {

namespace fs = boost::filesystem;

const std::string kProgram = std::string(DTL_BINARY_DIR) + "/bin/dtl-read";

struct Sample {
  uint64_t ts;
  std::vector<uint64_t> values;
};

struct RunResult {
  int exit_code = -1;
  std::string out;
  std::string err;
};

std::string Slurp(const fs::path& path) {
  std::ifstream in(path.string(), std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string IdText(const unsigned char* id) {
  char text[DTL_SCHEMA_ID_STRING_SIZE];
  dtl_schema_id_to_schema_string(id, text);
  return text;
}

class DtlReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::exists(kProgram)) << kProgram << " is not built";
    root_ = fs::temp_directory_path() / fs::unique_path("dtl_read_%%%%%%%%");
    fs::create_directories(root_);
  }
  void TearDown() override { fs::remove_all(root_); }

  // Publishes a schema of UINT64 counters (8 bytes each, in order) into dir
  // the way the collector does and returns its identifier.
  std::vector<unsigned char> WriteSchema(const std::vector<std::string>& names,
                                         const fs::path& dir) {
    dtl_counters_schema_t* schema = dtl_create_counters_schema();
    dtl_counter_group_t* group = dtl_create_counter_group_no_provider("ipfix", "test");
    for (size_t i = 0; i < names.size(); ++i) {
      dtl_counter_info_t info{};
      info.name = const_cast<char*>(names[i].c_str());
      info.description = const_cast<char*>("");
      info.units = const_cast<char*>("");
      info.data_type = DTL_DATA_TYPE_UINT64;
      info.counting_type = DTL_COUNTING_TYPE_RUNNING_SUM;
      info.offset = static_cast<uint32_t>(8 * i);
      info.length = 8;
      EXPECT_TRUE(dtl_add_counter_to_group(group, &info));
    }
    EXPECT_TRUE(dtl_counters_schema_append_group(schema, group));
    std::vector<unsigned char> id(DTL_SCHEMA_ID_SIZE);
    EXPECT_TRUE(dtl_calc_counters_schema_id(id.data(), schema));
    dtl_json_value_t* json = dtl_counters_schema_jsonify(schema);
    dtl::SchemaWriter{.schema_dir = dir.string()}.onSchema(json->v);
    dtl_json_value_free(json);
    dtl_destroy_counters_schema(schema);
    return id;
  }

  // Header plus one block per sample; a finalised header carries the size
  // and last time, as after a clean close.
  std::string HeaderBytes(const std::vector<unsigned char>& id, const std::vector<Sample>& samples,
                          uint32_t block_size, bool finalised) {
    std::string header(DTL_DATA_FILE_HEADER_SIZE, '\0');
    const uint64_t first = samples.empty() ? 0 : samples.front().ts;
    EXPECT_TRUE(dtl_data_file_header_build("leaf1", "ipfix", first, block_size, id.data(), nullptr,
                                           header.data(), header.size()));
    if (finalised) {
      auto* h = reinterpret_cast<dtl_data_file_header_t*>(header.data());
      h->file_size = DTL_DATA_FILE_HEADER_SIZE + samples.size() * block_size;
      h->last_timestamp = samples.empty() ? 0 : samples.back().ts;
    }
    return header;
  }

  static std::string BlockBytes(const Sample& s, uint32_t block_size) {
    std::string block(block_size, '\0');
    auto* data = reinterpret_cast<dtl_counters_data_t*>(block.data());
    dtl_counters_data_reset(data);
    data->timestamp = s.ts;
    std::memcpy(block.data() + 16, s.values.data(), s.values.size() * 8);
    return block;
  }

  fs::path WriteDataFile(const fs::path& path, const std::vector<unsigned char>& id,
                         const std::vector<Sample>& samples, const std::string& extra = "",
                         bool finalised = true) {
    const uint32_t block_size =
        static_cast<uint32_t>(16 + 8 * (samples.empty() ? 1 : samples[0].values.size()));
    std::string bytes = HeaderBytes(id, samples, block_size, finalised);
    for (const Sample& s : samples) bytes += BlockBytes(s, block_size);
    bytes += extra;
    fs::create_directories(path.parent_path());
    std::ofstream(path.string(), std::ios::binary) << bytes;
    return path;
  }

  // A data file where the collector puts one: a few levels below the root.
  fs::path StandardFile(const std::vector<std::string>& names, const std::vector<Sample>& samples,
                        const std::string& extra = "") {
    const std::vector<unsigned char> id = WriteSchema(names, root_ / "schema");
    return WriteDataFile(root_ / "2024" / "0315" / "leaf1" / "ipfix0001.bin", id, samples, extra);
  }

  static void Patch(const fs::path& path, size_t offset, const std::string& bytes) {
    std::fstream f(path.string(), std::ios::binary | std::ios::in | std::ios::out);
    f.seekp(static_cast<std::streamoff>(offset));
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

  RunResult Run(const std::vector<std::string>& args) {
    std::string command = "timeout 60 '" + kProgram + "'";
    for (const std::string& a : args) command += " '" + a + "'";
    const fs::path out = root_ / "stdout.txt";
    const fs::path err = root_ / "stderr.txt";
    command += " >'" + out.string() + "' 2>'" + err.string() + "'";
    const int status = std::system(command.c_str());
    RunResult r;
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = Slurp(out);
    r.err = Slurp(err);
    return r;
  }

  fs::path root_;
};

const std::vector<std::string> kNames = {"interface=eth1:rx_bytes", "interface=eth1:tx_bytes",
                                         "drops"};
const std::vector<Sample> kSamples = {
    {1700000000000000, {100, 7, 0}},
    {1700000000100000, {110, 9, 0}},
    {1700000000200000, {18446744073709551615ull, 12, 3}},
};

// ---- Rows ----

TEST_F(DtlReadTest, CsvRowsAreExactAndTheSchemaIsFoundAboveTheFile) {
  const fs::path file = StandardFile(kNames, kSamples);
  const RunResult r = Run({file.string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out,
            "timestamp_us,interface=eth1:rx_bytes,interface=eth1:tx_bytes,drops\n"
            "1700000000000000,100,7,0\n"
            "1700000000100000,110,9,0\n"
            "1700000000200000,18446744073709551615,12,3\n");
  EXPECT_EQ(r.err, "");
}

TEST_F(DtlReadTest, JsonLinesAreExact) {
  const fs::path file = StandardFile(kNames, {kSamples[0], kSamples[2]});
  const RunResult r = Run({"--json", file.string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out,
            "{\"timestamp_us\":1700000000000000,\"interface=eth1:rx_bytes\":100,"
            "\"interface=eth1:tx_bytes\":7,\"drops\":0}\n"
            "{\"timestamp_us\":1700000000200000,\"interface=eth1:rx_bytes\":18446744073709551615,"
            "\"interface=eth1:tx_bytes\":12,\"drops\":3}\n");
}

TEST_F(DtlReadTest, RepeatedNamesGetTheirPositionAndOddNamesAreQuoted) {
  const fs::path file = StandardFile({"x", "a,b", "x"}, {{5, {1, 2, 3}}});
  const RunResult r = Run({file.string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "timestamp_us,x#0,\"a,b\",x#2\n5,1,2,3\n");
}

TEST_F(DtlReadTest, SeveralFilesShareOneHeadingRow) {
  const fs::path a = StandardFile(kNames, {kSamples[0]});
  const fs::path b = WriteDataFile(root_ / "2024" / "0315" / "leaf1" / "ipfix0002.bin",
                                   WriteSchema(kNames, root_ / "schema"), {kSamples[1]});
  const RunResult r = Run({a.string(), b.string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out,
            "timestamp_us,interface=eth1:rx_bytes,interface=eth1:tx_bytes,drops\n"
            "1700000000000000,100,7,0\n"
            "1700000000100000,110,9,0\n");
}

// ---- Header and summary ----

TEST_F(DtlReadTest, HeaderIsPrintedInTheFrameworkDumpWithoutNeedingTheSchema) {
  const std::vector<unsigned char> id = WriteSchema(kNames, root_ / "elsewhere");
  const fs::path file = WriteDataFile(root_ / "f.bin", id, kSamples);
  const std::string header = HeaderBytes(id, kSamples, 40, true);
  char* expected = nullptr;
  size_t expected_size = 0;
  FILE* mem = open_memstream(&expected, &expected_size);
  dtl_data_file_header_print(mem, reinterpret_cast<const dtl_data_file_header_t*>(header.data()));
  fclose(mem);
  const RunResult r = Run({"--header", file.string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, std::string(expected, expected_size));
  EXPECT_NE(r.out.find(IdText(id.data())), std::string::npos);
  free(expected);
}

TEST_F(DtlReadTest, SummaryReportsSpanRateAndLargestIncrease) {
  // rx grows by 10, 20, 5; tx is reset midway, which is no increase.
  const fs::path file = StandardFile(
      {"rx", "tx"},
      {{1000000, {100, 50}}, {1100000, {110, 70}}, {1200000, {130, 3}}, {1300000, {135, 4}}});
  const RunResult r = Run({"--summary", file.string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("source:      leaf1 (tag ipfix)\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("time span:   1000000 .. 1300000 us (0.300000 s)\n"), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("samples:     4\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("sample rate: 10.000 /s\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("counter  first  last  max_increase\n"
                       "rx         100   135  20\n"
                       "tx          50     4  20\n"),
            std::string::npos)
      << r.out;
}

TEST_F(DtlReadTest, SummaryOfOneSampleHasNoRate) {
  const fs::path file = StandardFile({"rx"}, {{1000000, {7}}});
  const RunResult r = Run({"--summary", file.string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("sample rate: n/a\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("rx           7     7  0\n"), std::string::npos) << r.out;
}

// ---- Files cut short ----

TEST_F(DtlReadTest, FilesCutShortOrStillBeingWrittenAreReadToTheirLastBlock) {
  // A writer killed mid-write leaves part of a block or zeros that never got
  // their data; a file being written ends in the zero padding of its last
  // 4096-byte write, which is skipped without a word.
  struct Case {
    const char* what;
    size_t counters;
    size_t samples;
    std::string extra;
    uint64_t pad_to;  // zeros appended up to this file size (0: none)
    bool finalised;
    std::vector<std::string> warnings;
  };
  const std::vector<Case> cases = {
      {"cut inside a block", 3, 3, std::string(13, '\x5a'), 0, true,
       {"file cut short: 13 bytes after block 3"}},
      {"zeros from a dead writer", 3, 2, std::string(2 * 40, '\0'), 0, false,
       {"header not finalised", "file cut short: zero-filled from block 2 (offset 336)"}},
      {"padding after whole blocks", 3, 3, "", 4096, false, {"header not finalised"}},
      {"padding over a partial block", 5, 3, "", 4096, false, {"header not finalised"}},
      {"padding of a finalised file", 3, 3, "", 4096, true, {}},
      {"zeros longer than one write", 3, 3, "", 8192, false,
       {"file cut short: 16 bytes after block 198", "header not finalised",
        "file cut short: zero-filled from block 3 (offset 376)"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::string> names;
    for (size_t i = 0; i < c.counters; ++i) names.push_back("c" + std::to_string(i));
    std::vector<Sample> samples;
    for (uint64_t i = 0; i < c.samples; ++i)
      samples.push_back({1700000000000000 + i * 100, std::vector<uint64_t>(c.counters, i + 1)});
    const uint64_t size = DTL_DATA_FILE_HEADER_SIZE + c.samples * (16 + 8 * c.counters) + c.extra.size();
    const std::string extra = c.extra + std::string(c.pad_to > size ? c.pad_to - size : 0, '\0');
    const fs::path file = WriteDataFile(root_ / "d" / "f.bin", WriteSchema(names, root_ / "schema"), samples,
                                        extra, c.finalised);
    ASSERT_EQ(c.pad_to == 0 || fs::file_size(file) == c.pad_to, true);

    const RunResult r = Run({file.string()});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), static_cast<long>(c.samples + 1)) << r.out;
    EXPECT_NE(r.out.find("1700000000000000,1"), std::string::npos) << r.out;
    size_t warnings = 0;
    for (size_t at = r.err.find("warning: "); at != std::string::npos; at = r.err.find("warning: ", at + 1))
      ++warnings;
    EXPECT_EQ(warnings, c.warnings.size()) << r.err;
    for (const std::string& warning : c.warnings)
      EXPECT_NE(r.err.find("warning: " + file.string() + ": " + warning), std::string::npos) << r.err;
  }
}

// ---- Corrupt files ----

TEST_F(DtlReadTest, CorruptHeadersAreClearErrors) {
  struct Case {
    size_t offset;
    std::string bytes;
    std::string message;
  };
  const std::vector<Case> cases = {
      {0, "dtlf", "not a data file (bad header magic)"},
      {5, "\x08", "unsupported format version 1.8.0"},
      {4, "\x02\x07", "unsupported format version 2.7.0"},
      {8, std::string("\xff\x00", 2), "bad header: file size 255 is below the header size"},
      {112, std::string("\x08\x00", 2), "bad header: block size 8 is below 16"},
  };
  for (const Case& c : cases) {
    const fs::path file = StandardFile(kNames, kSamples);
    Patch(file, c.offset, c.bytes);
    const RunResult r = Run({file.string()});
    EXPECT_EQ(r.exit_code, 1) << c.message;
    EXPECT_EQ(r.out, "") << c.message;
    EXPECT_NE(r.err.find("error: " + file.string() + ": " + c.message), std::string::npos) << r.err;
  }
}

TEST_F(DtlReadTest, ShortFileAndNonDataFileAreErrors) {
  const fs::path tiny = root_ / "tiny.bin";
  std::ofstream(tiny.string()) << "DTLF";
  RunResult r = Run({tiny.string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("file too short for a data file header (4 bytes)"), std::string::npos);

  r = Run({(root_ / "missing.bin").string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("cannot open"), std::string::npos) << r.err;
}

TEST_F(DtlReadTest, BadBlockMagicStopsTheFileWithAnError) {
  const fs::path file = StandardFile(kNames, kSamples);
  Patch(file, 256 + 40, "DTLX");
  const RunResult r = Run({file.string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("1700000000000000,100,7,0\n"), std::string::npos);
  EXPECT_EQ(r.out.find("1700000000100000"), std::string::npos);
  EXPECT_NE(r.err.find("corrupt block 1 at offset 296 (bad block magic)"), std::string::npos)
      << r.err;
}

TEST_F(DtlReadTest, OneBadFileDoesNotStopTheOthers) {
  const fs::path good = StandardFile(kNames, {kSamples[0]});
  const fs::path bad = root_ / "bad.bin";
  std::ofstream(bad.string()) << std::string(300, 'x');
  const RunResult r = Run({bad.string(), good.string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("1700000000000000,100,7,0\n"), std::string::npos);
}

// ---- Schema lookup ----

TEST_F(DtlReadTest, MissingSchemaIsAnErrorUntilSchemaDirPointsAtIt) {
  const std::vector<unsigned char> id = WriteSchema(kNames, root_ / "published");
  const fs::path file = WriteDataFile(root_ / "data" / "f.bin", id, {kSamples[0]});
  RunResult r = Run({file.string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("schema file schema_" + IdText(id.data()) + ".json not found"),
            std::string::npos)
      << r.err;

  r = Run({"--schema-dir", (root_ / "published").string(), file.string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("1700000000000000,100,7,0\n"), std::string::npos);

  r = Run({"--schema-dir", (root_ / "data").string(), file.string()});
  EXPECT_EQ(r.exit_code, 1);
}

TEST_F(DtlReadTest, SchemaThatDoesNotFitTheBlocksIsAnError) {
  // Four counters published, blocks sized for three.
  const std::vector<unsigned char> id = WriteSchema({"a", "b", "c", "d"}, root_ / "schema");
  const fs::path file = WriteDataFile(root_ / "f.bin", id, kSamples);
  const RunResult r = Run({file.string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("needs 32 value bytes, the blocks hold 24"), std::string::npos) << r.err;
}

TEST_F(DtlReadTest, UnsetSchemaIdIsAnError) {
  const fs::path file = WriteDataFile(root_ / "f.bin", std::vector<unsigned char>(16, 0), kSamples);
  const RunResult r = Run({file.string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("the header names no counters schema"), std::string::npos) << r.err;
}

// ---- Usage ----

TEST_F(DtlReadTest, UsageErrorsExitWithTwo) {
  EXPECT_EQ(Run({}).exit_code, 2);
  EXPECT_EQ(Run({"--bogus", "f.bin"}).exit_code, 2);
  EXPECT_EQ(Run({"--schema-dir"}).exit_code, 2);
  EXPECT_EQ(Run({"--json", "--summary", "f.bin"}).exit_code, 2);
  const RunResult help = Run({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("name#i"), std::string::npos);
}

}  // namespace
