// dtl-ls: lists the data files under a data root per switch, with their
// time spans, samples, sizes and schemas, without reading the samples.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "dtl_json.h"
#include "tools/dtl_read/data_file_listing.h"
#include "tools/dtl_read/time_text.h"
#include "tools/dtl_read/time_window.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitDataError = 1;
constexpr int kExitUsage = 2;

constexpr const char kUsage[] =
    "usage: dtl-ls DATA_ROOT [--from T] [--to T] [--json]\n"
    "\n"
    "Lists the data files (*.bin) below DATA_ROOT per switch, without reading\n"
    "their samples: each file's header, its number of whole blocks and at most\n"
    "its first and last block are read.\n"
    "\n"
    "Per switch (the source id of the file headers, in name order) one line:\n"
    "  SWITCH: N files, FIRST .. LAST, S samples, B bytes, schema ID[, ID...]\n"
    "then one line per file, in path order:\n"
    "  PATH  FIRST  LAST  SAMPLES  BYTES  SCHEMA_ID\n"
    "PATH is relative to DATA_ROOT; FIRST and LAST are the times of the first\n"
    "and last sample (UTC, YYYY-MM-DDTHH:MM:SS.ffffffZ; \"-\" for a file without\n"
    "samples); SAMPLES counts whole data blocks (without a zero-filled tail\n"
    "left by a writer that died); BYTES is the file's size. The times come\n"
    "from the header when it was finalised at close, else from the first and\n"
    "last block.\n"
    "\n"
    "  --from T    only files holding samples at or after T\n"
    "  --to T      only files holding samples before T (exclusive)\n"
    "              A file is listed when first <= to - 1 and last >= from;\n"
    "              the switch lines count the listed files only. T is an\n"
    "              integer of microseconds since the Unix epoch or ISO 8601\n"
    "              as in dtl-read: YYYY-MM-DD or YYYY-MM-DDTHH:MM[:SS[.f]]\n"
    "              with an optional Z, +HH:MM or -HH:MM (none means UTC).\n"
    "  --json      one JSON object per switch and line instead: source, files,\n"
    "              first, last (ISO text, null without samples), first_us,\n"
    "              last_us, samples, bytes, schemas, and file_list with per\n"
    "              file path, first, last, first_us, last_us, samples, bytes,\n"
    "              schema; then one object {path, error} per unreadable file\n"
    "  -h, --help  this text\n"
    "\n"
    "Files that cannot be read (bad header, a corrupt last block, an\n"
    "unreadable directory) are listed at the end with the reason (\"cannot\n"
    "list PATH: REASON\") and reported on standard error; the others are still\n"
    "listed.\n"
    "Exit status: 0 ok, 1 a file or directory could not be read or DATA_ROOT is\n"
    "missing, 2 usage error.\n";

using dtl::read::ListedFile;

struct Options {
  std::string root;
  dtl::read::TimeWindow window;
  bool json = false;
};

std::optional<Options> ParseArgs(int argc, char** argv, bool* help) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      *help = true;
      return o;
    }
    if (arg == "--json") {
      o.json = true;
    } else if (arg == "--from" || arg == "--to" || arg.rfind("--from=", 0) == 0 || arg.rfind("--to=", 0) == 0) {
      const std::string name = arg.substr(0, arg.find('='));
      std::string value, error;
      if (arg.size() > name.size()) {
        value = arg.substr(name.size() + 1);
      } else if (i + 1 < argc) {
        value = argv[++i];
      } else {
        fprintf(stderr, "dtl-ls: %s needs a value\n", name.c_str());
        return std::nullopt;
      }
      std::optional<int64_t>& bound = name == "--from" ? o.window.from : o.window.to;
      if (!(bound = dtl::read::ParseTime(value, &error))) {
        fprintf(stderr, "dtl-ls: %s: %s\n", name.c_str(), error.c_str());
        return std::nullopt;
      }
    } else if (arg.size() > 1 && arg[0] == '-') {
      fprintf(stderr, "dtl-ls: unknown option %s\n", arg.c_str());
      return std::nullopt;
    } else if (o.root.empty()) {
      o.root = arg;
    } else {
      fprintf(stderr, "dtl-ls: one data root only (%s and %s given)\n", o.root.c_str(), arg.c_str());
      return std::nullopt;
    }
  }
  if (o.root.empty()) {
    fprintf(stderr, "dtl-ls: no data root given\n");
    return std::nullopt;
  }
  return o;
}

// The listed files of one switch and their totals.
struct Switch {
  std::vector<ListedFile> files;
  uint64_t samples = 0, bytes = 0;
  uint64_t first_us = UINT64_MAX, last_us = 0;
  std::vector<std::string> schemas;  // in order of first use

  void Add(ListedFile file) {
    samples += file.samples;
    bytes += file.bytes;
    if (file.samples > 0) {
      first_us = std::min(first_us, file.first_us);
      last_us = std::max(last_us, file.last_us);
    }
    if (std::find(schemas.begin(), schemas.end(), file.schema_id) == schemas.end())
      schemas.push_back(file.schema_id);
    files.push_back(std::move(file));
  }
};

std::string Time(bool has, uint64_t us) { return has ? dtl::read::IsoTime(us) : "-"; }

void PrintText(const std::map<std::string, Switch>& switches) {
  for (const auto& [name, s] : switches) {
    std::string schemas;
    for (const std::string& id : s.schemas) {
      if (!schemas.empty()) schemas += ", ";
      schemas += id;
    }
    const bool any = s.samples > 0;
    printf("%s: %zu file%s, %s .. %s, %llu samples, %llu bytes, schema %s\n", name.c_str(), s.files.size(),
           s.files.size() == 1 ? "" : "s", Time(any, s.first_us).c_str(), Time(any, s.last_us).c_str(),
           static_cast<unsigned long long>(s.samples), static_cast<unsigned long long>(s.bytes), schemas.c_str());
    for (const ListedFile& f : s.files) {
      printf("  %s  %s  %s  %llu  %llu  %s\n", f.path.c_str(), Time(f.samples > 0, f.first_us).c_str(),
             Time(f.samples > 0, f.last_us).c_str(), static_cast<unsigned long long>(f.samples),
             static_cast<unsigned long long>(f.bytes), f.schema_id.c_str());
    }
  }
}

void SetTimes(dtl::json::value& object, bool has, uint64_t first_us, uint64_t last_us) {
  object["first"] = has ? dtl::json::value(dtl::read::IsoTime(first_us)) : dtl::json::value();
  object["last"] = has ? dtl::json::value(dtl::read::IsoTime(last_us)) : dtl::json::value();
  object["first_us"] = has ? dtl::json::value(first_us) : dtl::json::value();
  object["last_us"] = has ? dtl::json::value(last_us) : dtl::json::value();
}

std::string JsonLine(const dtl::json::value& object) {
  return object.dump(-1, ' ', false, dtl::json::value::error_handler_t::replace);
}

void PrintJson(const std::map<std::string, Switch>& switches) {
  for (const auto& [name, s] : switches) {
    dtl::json::value line = dtl::json::value::object();
    line["source"] = name;
    line["files"] = s.files.size();
    SetTimes(line, s.samples > 0, s.first_us, s.last_us);
    line["samples"] = s.samples;
    line["bytes"] = s.bytes;
    line["schemas"] = s.schemas;
    dtl::json::value& list = line["file_list"] = dtl::json::value::array();
    for (const ListedFile& f : s.files) {
      dtl::json::value file = dtl::json::value::object();
      file["path"] = f.path;
      SetTimes(file, f.samples > 0, f.first_us, f.last_us);
      file["samples"] = f.samples;
      file["bytes"] = f.bytes;
      file["schema"] = f.schema_id;
      list.push_back(std::move(file));
    }
    printf("%s\n", JsonLine(line).c_str());
  }
}

int List(const Options& o) {
  std::vector<std::string> paths;
  std::vector<ListedFile> bad;
  std::string error;
  if (!dtl::read::FindDataFiles(o.root, &paths, &bad, &error)) {
    fprintf(stderr, "dtl-ls: error: %s: %s\n", o.root.c_str(), error.c_str());
    return kExitDataError;
  }
  for (ListedFile& f : bad) f.path = std::filesystem::path(f.path).lexically_relative(o.root).string();
  std::map<std::string, Switch> switches;
  for (const std::string& path : paths) {
    ListedFile file = dtl::read::ProbeDataFile(path);
    file.path = std::filesystem::path(path).lexically_relative(o.root).string();
    if (!file.error.empty()) {
      bad.push_back(std::move(file));
    } else if (!o.window.bounded() || (file.samples > 0 && o.window.Overlaps(file.first_us, file.last_us))) {
      switches[file.source].Add(std::move(file));
    }
  }
  if (o.json) {
    PrintJson(switches);
  } else {
    PrintText(switches);
  }
  for (const ListedFile& f : bad) {
    if (o.json) {
      dtl::json::value line = dtl::json::value::object();
      line["path"] = f.path;
      line["error"] = f.error;
      printf("%s\n", JsonLine(line).c_str());
    } else {
      printf("cannot list %s: %s\n", f.path.c_str(), f.error.c_str());
    }
    fflush(stdout);
    fprintf(stderr, "dtl-ls: error: %s: %s\n", f.path.c_str(), f.error.c_str());
  }
  return bad.empty() ? kExitOk : kExitDataError;
}

}  // namespace

int main(int argc, char** argv) {
  try {
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
    return List(*options);
  } catch (const std::exception& e) {
    fprintf(stderr, "dtl-ls: error: %s\n", e.what());
    return kExitDataError;
  }
}
