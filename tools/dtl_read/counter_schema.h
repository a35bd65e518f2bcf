// The counters schema of a data file as the reader needs it: where each
// counter's value sits in a block, how to print it, and under which unique
// column name; plus the search for the schema file named in a file header.
#pragma once

#include <cstdint>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace dtl::read {

// One counter of the schema, in schema order (groups, then counters).
struct CounterColumn {
  std::string name;    // the counter's name in the schema
  std::string column;  // unique heading: name, or name#position when the name repeats
  uint32_t data_type = 0;
  uint32_t offset = 0;  // inside a block's value area
  uint32_t length = 0;  // bytes
};

class CounterSchema {
 public:
  // Reads a counters-schema JSON file; nullopt with the reason in error.
  static std::optional<CounterSchema> Load(const std::string& path, std::string* error);

  const std::vector<CounterColumn>& columns() const { return columns_; }
  // Bytes of the value area that the counters need.
  uint64_t ValueAreaSize() const;

 private:
  std::vector<CounterColumn> columns_;
};

// Every counter whose name occurs more than once in the schema is headed
// name#i, i being its 0-based position among all counters; the rest keep
// their names.
void AssignColumnNames(std::vector<CounterColumn>* columns);

// The columns whose counter name (not its heading) contains a match of
// pattern, in schema order.
std::vector<CounterColumn> SelectColumns(const std::vector<CounterColumn>& columns, const std::regex& pattern);

// Path of "schema_<id>.json": in schema_dir when given, otherwise in the
// "schema" directory of the nearest directory above data_file that has it.
// Empty with the reason in error when there is none.
std::string FindSchemaFile(const std::string& data_file, const std::string& schema_dir,
                           const std::string& schema_id, std::string* error);

}  // namespace dtl::read
