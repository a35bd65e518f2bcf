// dtl-read: prints the samples of data files as CSV or JSON lines, their
// headers, or a summary per file.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "dtl_logger.h"
#include "tools/dtl_read/counter_schema.h"
#include "tools/dtl_read/data_file_reader.h"
#include "tools/dtl_read/file_summary.h"
#include "tools/dtl_read/row_output.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitDataError = 1;
constexpr int kExitUsage = 2;

constexpr const char kUsage[] =
    "usage: dtl-read [--json | --header | --summary] [--schema-dir DIR] FILE...\n"
    "\n"
    "Prints the samples stored in data files, one row per block.\n"
    "\n"
    "  (default)         CSV: a heading row \"timestamp_us\" plus one column per\n"
    "                    counter, then one row per block. The heading is repeated\n"
    "                    only when a later file has other columns.\n"
    "  --json            one JSON object per block instead of CSV rows\n"
    "  --header          print each file's header instead of its rows\n"
    "  --summary         print per file the source, time span, number of samples,\n"
    "                    sample rate and, per counter, the first and last value and\n"
    "                    the largest increase between two consecutive samples\n"
    "                    (--header and --summary may be combined)\n"
    "  --schema-dir DIR  directory of the schema_<id>.json files; by default the\n"
    "                    \"schema\" directory of the nearest directory above each\n"
    "                    file that has the file's schema\n"
    "  -h, --help        this text\n"
    "\n"
    "Columns are named by the counter names of the schema; their labels are part\n"
    "of the name (e.g. interface=Ethernet1/1:traffic_class=tc0:in-octets). A name\n"
    "that occurs more than once in a schema is written name#i for each of its\n"
    "counters, i being the counter's position (from 0) in the schema.\n"
    "\n"
    "A file cut short is read up to its last whole block, with a warning.\n"
    "Exit status: 0 ok, 1 a file could not be read (bad header, bad block,\n"
    "schema missing), 2 usage error.\n";

struct Options {
  bool json = false;
  bool header = false;
  bool summary = false;
  std::string schema_dir;
  std::vector<std::string> files;
};

void Error(const std::string& path, const std::string& message) {
  fflush(stdout);
  fprintf(stderr, "dtl-read: error: %s: %s\n", path.c_str(), message.c_str());
}

void Warn(const std::string& path, const std::string& message) {
  fflush(stdout);
  fprintf(stderr, "dtl-read: warning: %s: %s\n", path.c_str(), message.c_str());
}

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

std::optional<Options> ParseArgs(int argc, char** argv, bool* help) {
  Options o;
  bool options_done = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (options_done || arg.empty() || arg[0] != '-' || arg == "-") {
      o.files.push_back(arg);
    } else if (arg == "--") {
      options_done = true;
    } else if (arg == "--json") {
      o.json = true;
    } else if (arg == "--header") {
      o.header = true;
    } else if (arg == "--summary") {
      o.summary = true;
    } else if (arg == "--schema-dir") {
      if (i + 1 >= argc) {
        fprintf(stderr, "dtl-read: --schema-dir needs a directory\n");
        return std::nullopt;
      }
      o.schema_dir = argv[++i];
    } else if (arg.rfind("--schema-dir=", 0) == 0) {
      o.schema_dir = arg.substr(strlen("--schema-dir="));
    } else if (arg == "-h" || arg == "--help") {
      *help = true;
      return o;
    } else {
      fprintf(stderr, "dtl-read: unknown option %s\n", arg.c_str());
      return std::nullopt;
    }
  }
  if (o.files.empty()) {
    fprintf(stderr, "dtl-read: no data file given\n");
    return std::nullopt;
  }
  if (o.json && (o.header || o.summary)) {
    fprintf(stderr, "dtl-read: --json prints rows; it does not go with --header or --summary\n");
    return std::nullopt;
  }
  return o;
}

class Program {
 public:
  explicit Program(Options options) : o_(std::move(options)) {}

  int Run() {
    bool ok = true;
    for (const std::string& path : o_.files) ok = ReadFile(path) && ok;
    fflush(stdout);
    return ok ? kExitOk : kExitDataError;
  }

 private:
  void FlushWarnings(const std::string& path, const dtl::read::DataFileReader& reader) {
    for (; warned_ < reader.warnings().size(); ++warned_) Warn(path, reader.warnings()[warned_]);
  }

  bool ReadFile(const std::string& path) {
    dtl::read::DataFileReader reader;
    warned_ = 0;
    std::string error;
    if (!reader.Open(path, &error)) {
      Error(path, error);
      return false;
    }
    FlushWarnings(path, reader);
    if (o_.header) {
      if (o_.files.size() > 1) printf("==> %s <==\n", path.c_str());
      dtl_data_file_header_print(stdout, &reader.header());
    }
    if (o_.header && !o_.summary) return true;

    if (!reader.HasSchemaId()) {
      Error(path, "the header names no counters schema");
      return false;
    }
    const std::string schema_path =
        dtl::read::FindSchemaFile(path, o_.schema_dir, reader.SchemaId(), &error);
    if (schema_path.empty()) {
      Error(path, error);
      return false;
    }
    std::optional<dtl::read::CounterSchema> schema =
        dtl::read::CounterSchema::Load(schema_path, &error);
    if (!schema) {
      Error(path, error);
      return false;
    }
    const uint64_t capacity = reader.header().block_size - dtl::read::kBlockValuesOffset;
    if (schema->ValueAreaSize() > capacity) {
      Error(path, "schema " + schema_path + " needs " + std::to_string(schema->ValueAreaSize()) +
                      " value bytes, the blocks hold " + std::to_string(capacity));
      return false;
    }
    const std::vector<dtl::read::CounterColumn>& columns = schema->columns();

    std::optional<dtl::read::FileSummary> summary;
    if (o_.summary) {
      summary.emplace(columns);
    } else if (!o_.json) {
      std::string heading = dtl::read::CsvHeading(columns);
      if (heading != last_heading_) {
        printf("%s\n", heading.c_str());
        last_heading_ = std::move(heading);
      }
    }

    bool ok = true;
    for (;;) {
      const auto result = reader.ReadNext(&error);
      if (result == dtl::read::DataFileReader::Result::kEnd) break;
      if (result == dtl::read::DataFileReader::Result::kError) {
        Error(path, error);
        ok = false;
        break;
      }
      const uint8_t* values = reader.block() + dtl::read::kBlockValuesOffset;
      if (summary) {
        summary->Add(reader.timestamp_us(), values);
      } else if (o_.json) {
        printf("%s\n", dtl::read::JsonRow(reader.timestamp_us(), columns, values).c_str());
      } else {
        printf("%s\n", dtl::read::CsvRow(reader.timestamp_us(), columns, values).c_str());
      }
    }
    FlushWarnings(path, reader);
    if (ok && summary) summary->Print(stdout, path, reader.header());
    return ok;
  }

  Options o_;
  std::string last_heading_;
  size_t warned_ = 0;
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
