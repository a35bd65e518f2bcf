// dtl-read: prints the samples of data files as CSV or JSON lines, their
// per-second rates, their headers, or a summary per file.
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "dtl_logger.h"
#include "tools/dtl_read/counter_schema.h"
#include "tools/dtl_read/data_file_reader.h"
#include "tools/dtl_read/file_summary.h"
#include "tools/dtl_read/output_buffer.h"
#include "tools/dtl_read/rate_calculator.h"
#include "tools/dtl_read/row_output.h"
#include "tools/dtl_read/time_text.h"
#include "tools/dtl_read/time_window.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitDataError = 1;
constexpr int kExitUsage = 2;

constexpr const char kUsage[] =
    "usage: dtl-read [--json | --header | --summary] [--from T] [--to T]\n"
    "                [--counters REGEX] [--source] [--iso-time] [--rate]\n"
    "                [--schema-dir DIR] FILE...\n"
    "\n"
    "Prints the samples stored in data files, one row per block, in file order.\n"
    "\n"
    "Output:\n"
    "  (default)         CSV: a heading row \"timestamp_us\" plus one column per\n"
    "                    counter, then one row per block. The heading is repeated\n"
    "                    only when a later file has other columns.\n"
    "  --json            one JSON object per block instead of CSV rows: numbers\n"
    "                    for 8-byte UINT64, UNDEFINED, INT64 and FP64 counters\n"
    "                    (null for an FP64 that is not finite), strings for the\n"
    "                    others\n"
    "  --header          print each file's header instead of its rows\n"
    "  --summary         print per file the source, time span, number of samples,\n"
    "                    sample rate and, per counter, the first and last value and\n"
    "                    the largest increase between two consecutive samples\n"
    "                    (--header and --summary may be combined)\n"
    "  --source          a first column \"source\" (JSON key \"source\"): the\n"
    "                    file header's source id, the switch name\n"
    "  --iso-time        the time column is \"time\" with the UTC time as\n"
    "                    YYYY-MM-DDTHH:MM:SS.ffffffZ instead of \"timestamp_us\"\n"
    "\n"
    "Selection (also for --summary):\n"
    "  --from T          only samples at or after T (inclusive)\n"
    "  --to T            only samples before T (exclusive)\n"
    "  --counters REGEX  only the counters whose schema name contains a match of\n"
    "                    the regular expression (ECMAScript syntax, searched, not\n"
    "                    anchored: use ^...$ for whole names), in schema order; a\n"
    "                    file where no counter matches is an error\n"
    "\n"
    "  A time T is an integer of microseconds since the Unix epoch, or ISO 8601:\n"
    "  YYYY-MM-DD, or YYYY-MM-DDTHH:MM[:SS[.fraction]] with up to 9 fraction\n"
    "  digits (finer than 1 us cut off), a space allowed instead of the T, and\n"
    "  an optional zone Z, +HH:MM or -HH:MM (none means UTC). Examples:\n"
    "  1700000000000000, 2023-11-14, 2023-11-14T22:13:20.5Z,\n"
    "  \"2023-11-15 00:13:20+02:00\".\n"
    "\n"
    "  A window does not read the whole file: the blocks are assumed to be in\n"
    "  time order and found by bisection over their times, the first block at\n"
    "  or after --from and the first at or after --to; the range between them\n"
    "  is widened by 64 blocks on each side (for samples stored slightly out of\n"
    "  order), and each row in it is kept when from <= time < to. Rows keep\n"
    "  their file order. A file with no sample in the window gives no rows and\n"
    "  is no error.\n"
    "\n"
    "Rates:\n"
    "  --rate            per-second rates instead of values (CSV or JSON), from\n"
    "                    the selected rows in file order:\n"
    "    - A row is used only when its time is later than that of every earlier\n"
    "      row; a late or repeated sample is left out.\n"
    "    - Each used row but the first of a run gives one output row: its time,\n"
    "      then per counter  rate = delta * 1e6 / dt  in double precision, in\n"
    "      this order, dt being the microseconds since the previous used row (a\n"
    "      gap of missing samples gives the average over it).\n"
    "    - UINT64 and UNDEFINED counters of 1, 2, 4 or 8 bytes are unsigned of\n"
    "      width w = 8 * length bits: delta = (value - previous) mod 2^w, so a\n"
    "      counter wrapping at its width keeps counting; a delta above 2^(w-1)\n"
    "      means the counter was reset and gives no value.\n"
    "    - INT64: delta = value - previous, each taken as a double; FP64:\n"
    "      delta = value - previous.\n"
    "    - Other counters (BIT64, STRING, 128-bit, other lengths) get no rate\n"
    "      and are left out of the columns.\n"
    "    - No value is an empty CSV cell or a JSON null (so is a rate that is\n"
    "      not a number; infinities are null in JSON). Rates are printed as the\n"
    "      shortest decimal that reads back to the same double.\n"
    "    - A run goes on from one file to the next when both have the same\n"
    "      source id and the same rated columns (so a file rotation loses no\n"
    "      interval); otherwise, or after a file that failed, a new run starts.\n"
    "  --rate does not go with --header or --summary.\n"
    "\n"
    "Other:\n"
    "  --schema-dir DIR  directory of the schema_<id>.json files; by default the\n"
    "                    \"schema\" directory of the nearest directory above each\n"
    "                    file that has the file's schema\n"
    "  -h, --help        this text\n"
    "Options taking a value also accept --option=VALUE.\n"
    "\n"
    "Columns are named by the counter names of the schema; their labels are part\n"
    "of the name (e.g. interface=Ethernet1/1:traffic_class=tc0:in-octets). A name\n"
    "that occurs more than once in a schema is written name#i for each of its\n"
    "counters, i being the counter's position (from 0) in the schema. Values:\n"
    "decimal integers, FP64 as the shortest decimal that reads back exactly,\n"
    "BIT64 as 0x and 16 hex digits, STRING as its text, other types and lengths\n"
    "as 0x and their bytes in memory order.\n"
    "\n"
    "A file cut short is read up to its last whole block, with a warning; so is\n"
    "a file whose writer died leaving a zero-filled tail. A block without its\n"
    "magic before that is corrupt: the file stops there with an error.\n"
    "Exit status: 0 ok, 1 a file could not be read (bad header, bad block,\n"
    "schema missing, no counter matching --counters) or output failed,\n"
    "2 usage error.\n";

struct Options {
  bool json = false;
  bool header = false;
  bool summary = false;
  bool rate = false;
  dtl::read::RowLayout layout;
  dtl::read::TimeWindow window;
  std::string counters;  // the pattern as given; empty: all counters
  std::optional<std::regex> counter_pattern;
  std::string schema_dir;
  std::vector<std::string> files;
};

// Framework messages (its own header checks, schema parsing) go to stderr
// beside ours.
void LogToStderr(int, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  fputs("dtl-read: ", stderr);
  vfprintf(stderr, fmt, args);
  fputc('\n', stderr);
  va_end(args);
}

bool UsageError(const std::string& message) {
  fprintf(stderr, "dtl-read: %s\n", message.c_str());
  return false;
}

// An option's value: the text after '=' or the next argument.
bool TakeValue(int argc, char** argv, int* i, const std::string& name, std::string* value) {
  const std::string arg = argv[*i];
  if (arg.size() > name.size()) {
    *value = arg.substr(name.size() + 1);
    return true;
  }
  if (*i + 1 >= argc) return UsageError(name + " needs a value");
  *value = argv[++*i];
  return true;
}

bool ParseTimeOption(const std::string& name, const std::string& text, std::optional<int64_t>* bound) {
  std::string error;
  *bound = dtl::read::ParseTime(text, &error);
  return bound->has_value() || UsageError(name + ": " + error);
}

bool CheckCombinations(const Options& o) {
  if (o.files.empty()) return UsageError("no data file given");
  if (o.json && (o.header || o.summary))
    return UsageError("--json prints rows; it does not go with --header or --summary");
  if (o.rate && (o.header || o.summary))
    return UsageError("--rate prints rows; it does not go with --header or --summary");
  if ((o.layout.source || o.layout.iso_time) && (o.header || o.summary))
    return UsageError("--source and --iso-time shape rows; they do not go with --header or --summary");
  return true;
}

std::optional<Options> ParseArgs(int argc, char** argv, bool* help) {
  Options o;
  bool options_done = false;
  const auto is = [](const std::string& arg, const std::string& name) {
    return arg == name || arg.rfind(name + "=", 0) == 0;
  };
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    std::string value;
    if (options_done || arg.empty() || arg[0] != '-' || arg == "-") {
      o.files.push_back(arg);
    } else if (arg == "--") {
      options_done = true;
    } else if (arg == "--json") {
      o.json = o.layout.json = true;
    } else if (arg == "--header") {
      o.header = true;
    } else if (arg == "--summary") {
      o.summary = true;
    } else if (arg == "--rate") {
      o.rate = true;
    } else if (arg == "--source") {
      o.layout.source = true;
    } else if (arg == "--iso-time") {
      o.layout.iso_time = true;
    } else if (is(arg, "--schema-dir")) {
      if (!TakeValue(argc, argv, &i, "--schema-dir", &o.schema_dir)) return std::nullopt;
    } else if (is(arg, "--from") || is(arg, "--to")) {
      const std::string name = arg.substr(0, arg.find('='));
      if (!TakeValue(argc, argv, &i, name, &value) ||
          !ParseTimeOption(name, value, name == "--from" ? &o.window.from : &o.window.to))
        return std::nullopt;
    } else if (is(arg, "--counters")) {
      if (!TakeValue(argc, argv, &i, "--counters", &o.counters)) return std::nullopt;
      try {
        o.counter_pattern.emplace(o.counters, std::regex::ECMAScript);
      } catch (const std::regex_error& e) {
        UsageError("--counters: bad regular expression '" + o.counters + "': " + e.what());
        return std::nullopt;
      }
    } else if (arg == "-h" || arg == "--help") {
      *help = true;
      return o;
    } else {
      UsageError("unknown option " + arg);
      return std::nullopt;
    }
  }
  if (!CheckCombinations(o)) return std::nullopt;
  return o;
}

class Program {
 public:
  explicit Program(Options options) : o_(std::move(options)), out_(STDOUT_FILENO) {}

  int Run() {
    bool ok = true;
    for (const std::string& path : o_.files) ok = ReadFile(path) && ok;
    if (!out_.Flush()) {
      fprintf(stderr, "dtl-read: error: writing the output: %s\n", std::strerror(errno));
      ok = false;
    }
    return ok ? kExitOk : kExitDataError;
  }

 private:
  void Report(const char* what, const std::string& path, const std::string& message) {
    out_.Flush();
    fprintf(stderr, "dtl-read: %s: %s: %s\n", what, path.c_str(), message.c_str());
  }
  void Error(const std::string& path, const std::string& message) { Report("error", path, message); }
  void FlushWarnings(const std::string& path, const dtl::read::DataFileReader& reader) {
    for (; warned_ < reader.warnings().size(); ++warned_) Report("warning", path, reader.warnings()[warned_]);
  }
  void Heading(const std::string& heading) {
    if (o_.json || heading == last_heading_) return;
    out_.Append(heading);
    last_heading_ = heading;
  }

  // The file's columns: of its schema, as many as --counters selects.
  std::optional<std::vector<dtl::read::CounterColumn>> Columns(const std::string& path,
                                                               const dtl::read::DataFileReader& reader) {
    std::string error;
    if (!reader.HasSchemaId()) {
      Error(path, "the header names no counters schema");
      return std::nullopt;
    }
    const std::string schema_path = dtl::read::FindSchemaFile(path, o_.schema_dir, reader.SchemaId(), &error);
    std::optional<dtl::read::CounterSchema> schema;
    if (schema_path.empty() || !(schema = dtl::read::CounterSchema::Load(schema_path, &error))) {
      Error(path, error);
      return std::nullopt;
    }
    const uint64_t capacity = reader.header().block_size - dtl::read::kBlockValuesOffset;
    if (schema->ValueAreaSize() > capacity) {
      Error(path, "schema " + schema_path + " needs " + std::to_string(schema->ValueAreaSize()) +
                      " value bytes, the blocks hold " + std::to_string(capacity));
      return std::nullopt;
    }
    if (!o_.counter_pattern) return schema->columns();
    std::vector<dtl::read::CounterColumn> selected = dtl::read::SelectColumns(schema->columns(), *o_.counter_pattern);
    if (selected.empty()) {
      Error(path, "no counter matches --counters '" + o_.counters + "'");
      return std::nullopt;
    }
    return selected;
  }

  bool ReadFile(const std::string& path) {
    // A run of rates only goes on through files read without a fault.
    const bool run_goes_on = run_intact_;
    run_intact_ = false;
    dtl::read::DataFileReader reader;
    warned_ = 0;
    std::string error;
    if (!reader.Open(path, &error)) {
      Error(path, error);
      return false;
    }
    FlushWarnings(path, reader);
    if (o_.header) {
      out_.Flush();
      if (o_.files.size() > 1) printf("==> %s <==\n", path.c_str());
      dtl_data_file_header_print(stdout, &reader.header());
      fflush(stdout);
    }
    if (o_.header && !o_.summary) return true;

    std::optional<std::vector<dtl::read::CounterColumn>> columns = Columns(path, reader);
    if (!columns) return false;
    if (o_.window.bounded()) {
      uint64_t first = 0, end = 0;
      if (!dtl::read::FindBlockRange(reader, o_.window, &first, &end, &error)) {
        Error(path, error);
        return false;
      }
      reader.LimitTo(first, end);
      FlushWarnings(path, reader);
    }
    const dtl_data_file_header_t& h = reader.header();
    const std::string source(h.source_id, strnlen(h.source_id, sizeof h.source_id));

    std::optional<dtl::read::FileSummary> summary;
    std::optional<dtl::read::RowOutput> rows;
    if (o_.summary) {
      summary.emplace(*columns);
    } else if (o_.rate) {
      std::vector<dtl::read::CounterColumn> rated = dtl::read::RateCalculator::RatedColumns(*columns);
      const bool same = dtl::read::RateCalculator::SameColumns(rated, rates_.columns());
      rates_.SetColumns(rated);
      if (!run_goes_on || !same || source != run_source_) rates_.Restart();
      run_source_ = source;
      rows.emplace(std::move(rated), o_.layout, source);
    } else {
      rows.emplace(std::move(*columns), o_.layout, source);
    }
    if (rows) Heading(rows->heading());

    bool ok = true;
    for (;;) {
      const auto result = reader.ReadNext(&error);
      if (result == dtl::read::DataFileReader::Result::kEnd) break;
      if (result == dtl::read::DataFileReader::Result::kError) {
        Error(path, error);
        ok = false;
        break;
      }
      const uint64_t ts = reader.timestamp_us();
      if (!o_.window.Contains(ts)) continue;
      const uint8_t* values = reader.block() + dtl::read::kBlockValuesOffset;
      if (summary) {
        summary->Add(ts, values);
      } else if (!o_.rate) {
        rows->AppendRow(out_, ts, values);
      } else if (rates_.Add(ts, values)) {
        rows->AppendRates(out_, ts, rates_.rates());
      }
    }
    FlushWarnings(path, reader);
    if (ok && summary) {
      out_.Flush();
      summary->Print(stdout, path, reader.header());
      fflush(stdout);
    }
    run_intact_ = ok;
    return ok;
  }

  Options o_;
  dtl::read::OutputBuffer out_;
  std::string last_heading_;
  size_t warned_ = 0;
  dtl::read::RateCalculator rates_;
  std::string run_source_;
  bool run_intact_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  try {
    dtl_set_log_func(&LogToStderr, DTL_LOG_LEVEL_WARNING);
    bool help = false;
    std::optional<Options> options = ParseArgs(argc, argv, &help);
    if (help) {
      fputs(kUsage, stdout);
      return kExitOk;
    }
    if (!options) {
      fputs(kUsage, stderr);
      return kExitUsage;
    }
    return Program(std::move(*options)).Run();
  } catch (const std::exception& e) {
    fprintf(stderr, "dtl-read: error: %s\n", e.what());
    return kExitDataError;
  }
}
