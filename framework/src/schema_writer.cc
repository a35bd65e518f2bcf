#include "dtl_schema_writer.h"

#include <ctype.h>
#include <stdarg.h>
#include <stdlib.h>

#include <atomic>
#include <mutex>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>

#include "dtl_atomic_file.h"
#include "dtl_data_file_header.h"
#include "dtl_logger.h"
#include "dtl_schema_file.h"
#include "dtl_string_template.h"

namespace fs = boost::filesystem;

namespace dtl {
namespace {

// Oldest schema layout the serializer understands: 1.4.0 packed.
constexpr uint32_t kMinimalSchemaVersion = 1025;
constexpr const char* kMinimalSchemaVersionText = "1.4.0";

// -1 until computed, then 0 or 1.
std::atomic<int> g_allow_empty{-1};
std::mutex g_allow_empty_mutex;

// Major and minor of a packed version, comparable as one number.
uint32_t MajorMinor(uint32_t packed) { return ((packed & 0xFFu) << 8) | ((packed >> 8) & 0xFFu); }

// Classification errors are logged and then thrown with the same text.
[[noreturn]] __attribute__((format(printf, 1, 2))) void Raise(const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* text = dtl_vexpand_string_template(format, args);
  va_end(args);
  std::string message = text != nullptr ? text : "Unknown error (failed to format message)";
  free(text);
  DTL_LOG_ERROR("%s", message.c_str());
  throw std::runtime_error(message);
}

const json::value* Member(json::value const& doc, const char* name) {
  if (!doc.is_object()) return nullptr;
  auto it = doc.find(name);
  return it == doc.end() ? nullptr : &*it;
}

bool HasCounterGroups(json::value const& doc) {
  const json::value* groups = Member(doc, "counter_groups");
  return groups != nullptr && groups->is_array() && !groups->empty();
}

}  // namespace

bool schema_writer_allow_empty_counter_schema() {
  int flag = g_allow_empty.load(std::memory_order_acquire);
  if (flag >= 0) return flag != 0;
  std::lock_guard<std::mutex> lock(g_allow_empty_mutex);
  flag = g_allow_empty.load(std::memory_order_acquire);
  if (flag >= 0) return flag != 0;
  // The prefixed variable wins; a conflict between the two is reported there.
  const char* value = dtl_getenv("ALLOW_EMPTY_COUNTER_SCHEMA");
  bool allow = false;
  if (value != nullptr) {
    int c = tolower(static_cast<unsigned char>(value[0]));
    allow = c == '1' || c == 't' || c == 'y';
  }
  g_allow_empty.store(allow ? 1 : 0, std::memory_order_release);
  return allow;
}

namespace detail {
void reset_schema_writer_allow_empty_flag() {
  std::lock_guard<std::mutex> lock(g_allow_empty_mutex);
  g_allow_empty.store(-1, std::memory_order_release);
}
}  // namespace detail

void SchemaWriter::onSchema(std::string const& text) {
  json::value doc = json::value::parse(text, nullptr, false);
  if (doc.is_discarded()) {
    DTL_LOG_WARNING("[schema writer] Could not deserialize schema JSON");
    return;
  }
  onSchema(doc);
}

void SchemaWriter::onSchema(json::value const& schema) {
  const json::value* provider_version = Member(schema, "provider_version");
  if (provider_version != nullptr && provider_version->is_string()) {
    DTL_LOG_INFO("dtl::SchemaWriter::onSchema() identified single event schema.");
    SaveSchema(schema);
    return;
  }

  const json::value* version = Member(schema, "version");
  if (version == nullptr || !version->is_string())
    Raise("[schema writer] missing Dartel schema version");
  const std::string& version_text = version->get_ref<const std::string&>();
  // Only major.minor decide; any patch and any later major are accepted.
  if (MajorMinor(dtl_version_from_string(version_text.c_str())) <
      MajorMinor(kMinimalSchemaVersion))
    Raise("[schema writer] schema version %s is incompatible with the serializer, the minimal "
          "supported version is %s",
          version_text.c_str(), kMinimalSchemaVersionText);

  bool allow_empty = schema_writer_allow_empty_counter_schema();

  const json::value* counters = Member(schema, "counters_schema");
  if (counters != nullptr && !counters->is_object()) counters = nullptr;
  const json::value* schemas = Member(schema, "schemas");
  if (schemas != nullptr && !schemas->is_array()) schemas = nullptr;

  if (counters != nullptr) {
    if (allow_empty || HasCounterGroups(*counters))
      SaveSchema(*counters);
    else
      DTL_LOG_INFO("[schema writer] Skipping empty counters_schema.");
  } else if (schemas == nullptr) {
    // A bare counters-schema document.
    if (!allow_empty && !HasCounterGroups(schema))
      Raise("[schema writer] schema was not recognized neither as type system nor as counters "
            "schema");
    SaveSchema(schema);
    return;
  }

  if (schemas != nullptr) {
    for (auto const& element : *schemas) SaveSchema(element);
  }
}

void SchemaWriter::SaveSchema(json::value const& schema) {
  std::string text;
  try {
    text = json::serialize_pretty(schema);
  } catch (std::exception const&) {
    Raise("[data] Failed to serialize JSON schema");
  }

  std::string path = schemaFilePath(md5(text));
  try {
    ensureFilePathExists(path);
  } catch (std::runtime_error const& e) {
    if (report) {
      DTL_LOG_WARNING("[data] Could not create schema file '%s': %s", path.c_str(), e.what());
      report = false;
    }
    return;
  }

  std::string error;
  if (!WriteFileAtomically(path, text, &error)) {
    if (report) {
      DTL_LOG_WARNING("[data] Could not write schema file '%s': %s", path.c_str(), error.c_str());
      report = false;
    }
    return;
  }
  report = true;
}

std::string SchemaWriter::schemaFilePath(std::string const& id) const {
  std::string name = string_template("schema_{{id}}.json", {{"id", id}});
  fs::path dir = !schema_dir.empty() ? fs::absolute(schema_dir) : fs::absolute(root_dir) / "schema";
  return (dir / name).string();
}

std::string SchemaWriter::ensureFilePathExists(fs::path const& path) const {
  fs::path dir = path.parent_path();
  if (!dir.empty()) {
    boost::system::error_code ec;
    if (!fs::exists(dir, ec)) fs::create_directories(dir, ec);
    if (!fs::is_directory(dir, ec)) throw std::runtime_error("Inaccessible data path " + dir.string());
  }
  return path.string();
}

}  // namespace dtl
