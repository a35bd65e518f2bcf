#include "tools/dtl_read/counter_schema.h"

#include <algorithm>
#include <boost/filesystem.hpp>
#include <exception>
#include <fstream>
#include <map>
#include <sstream>

#include "dtl_counters.h"
#include "dtl_json.h"

namespace dtl::read {

namespace fs = boost::filesystem;

namespace {

// Values without a length in the schema take the size the framework lays
// them out with.
uint32_t DefaultLength(uint32_t data_type) {
  return data_type == DTL_DATA_TYPE_UINT128 || data_type == DTL_DATA_TYPE_INT128 ? 16 : 8;
}

bool ReadCounter(const json::value& object, CounterColumn* out, std::string* error) {
  // The framework's own reader validates the required members.
  dtl_json_value_t wrapper{object};
  dtl_counter_info_t info{};
  if (!dtl_counter_info_from_json(&wrapper, &info)) {
    *error = "counter entry lacks name, description, units, data_type or counting_type";
    return false;
  }
  out->name = info.name != nullptr ? info.name : "";
  out->data_type = info.data_type;
  out->offset = info.offset;
  out->length = info.length != 0 ? info.length : DefaultLength(info.data_type);
  dtl_destroy_counter_info(&info);
  if (out->data_type == DTL_VOCABULARY_UNKNOWN) out->data_type = DTL_DATA_TYPE_UNDEFINED;
  return true;
}

}  // namespace

std::optional<CounterSchema> CounterSchema::Load(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot open schema file " + path;
    return std::nullopt;
  }
  std::stringstream text;
  text << in.rdbuf();
  CounterSchema schema;
  try {
    const json::value doc = json::value::parse(text.str());
    const json::value* groups = nullptr;
    if (doc.is_object() && doc.contains("counter_groups")) groups = &doc["counter_groups"];
    if (groups == nullptr || !groups->is_array()) {
      *error = "schema file " + path + " has no counter_groups array";
      return std::nullopt;
    }
    for (const json::value& group : *groups) {
      if (!group.is_object() || !group.contains("counters")) continue;
      const json::value& counters = group["counters"];
      if (!counters.is_array()) {
        *error = "schema file " + path + ": a group's counters member is not an array";
        return std::nullopt;
      }
      for (const json::value& counter : counters) {
        CounterColumn column;
        if (!ReadCounter(counter, &column, error)) {
          *error = "schema file " + path + ": " + *error;
          return std::nullopt;
        }
        schema.columns_.push_back(std::move(column));
      }
    }
  } catch (const std::exception& e) {
    *error = "schema file " + path + " is not valid JSON: " + e.what();
    return std::nullopt;
  }
  AssignColumnNames(&schema.columns_);
  return schema;
}

uint64_t CounterSchema::ValueAreaSize() const {
  uint64_t size = 0;
  for (const CounterColumn& c : columns_)
    size = std::max<uint64_t>(size, uint64_t{c.offset} + c.length);
  return size;
}

void AssignColumnNames(std::vector<CounterColumn>* columns) {
  std::map<std::string, size_t> uses;
  for (const CounterColumn& c : *columns) ++uses[c.name];
  for (size_t i = 0; i < columns->size(); ++i) {
    CounterColumn& c = (*columns)[i];
    c.column = uses[c.name] > 1 ? c.name + "#" + std::to_string(i) : c.name;
  }
}

std::vector<CounterColumn> SelectColumns(const std::vector<CounterColumn>& columns, const std::regex& pattern) {
  std::vector<CounterColumn> selected;
  for (const CounterColumn& c : columns)
    if (std::regex_search(c.name, pattern)) selected.push_back(c);
  return selected;
}

std::string FindSchemaFile(const std::string& data_file, const std::string& schema_dir,
                           const std::string& schema_id, std::string* error) {
  const std::string name = "schema_" + schema_id + ".json";
  boost::system::error_code ec;
  if (!schema_dir.empty()) {
    const fs::path candidate = fs::path(schema_dir) / name;
    if (fs::is_regular_file(candidate, ec)) return candidate.string();
    *error = "schema file " + name + " not found in " + schema_dir;
    return {};
  }
  // Data files sit some levels below the data root (date and source
  // directories), and the root holds the schema directory.
  fs::path dir = fs::absolute(fs::path(data_file), ec).parent_path();
  for (; !dir.empty(); dir = dir.parent_path()) {
    const fs::path candidate = dir / "schema" / name;
    if (fs::is_regular_file(candidate, ec)) return candidate.string();
    if (dir == dir.root_path()) break;
  }
  *error = "schema file " + name + " not found in any schema directory above " + data_file +
           " (use --schema-dir)";
  return {};
}

}  // namespace dtl::read
