// Publication of schema documents as files named after their identifier, so
// that a reader who finds an identifier in a data file header can open
// "schema_<identifier>.json" in the schema directory.
#pragma once

#include <string>

#include <boost/filesystem/path.hpp>

#include "dtl_json.h"

namespace dtl {

// A small value object, built on the spot for each publication:
//   dtl::SchemaWriter writer{.schema_dir = dir, .root_dir = "."};
// Classification and format errors are logged at error level and thrown as
// std::runtime_error; directory and write failures are only logged, once
// until the next successful write.
struct SchemaWriter {
  // Failures are logged only while set; a failure clears it, a write sets it.
  bool report = true;
  // Directory for schema files; when empty, root_dir's "schema" subdirectory.
  std::string schema_dir{};
  std::string root_dir = ".";

  // Saves what a schema document contains: a single event schema (member
  // "provider_version"), a "counters_schema" member, a counters-schema
  // document itself, and/or each element of a "schemas" array.
  void onSchema(json::value const& schema);
  // Parses the text first; a text that is not JSON is logged and ignored.
  void onSchema(std::string const& text);
  // Writes the pretty text of one schema to schemaFilePath(md5 of the text),
  // replacing the file in one step: a failed write leaves an earlier file as
  // it was.
  void SaveSchema(json::value const& schema);
  // Absolute path of the file for a hexadecimal identifier.
  std::string schemaFilePath(std::string const& id) const;
  // Creates the parent directory when missing; throws std::runtime_error
  // "Inaccessible data path <dir>" when it is not a directory afterwards.
  std::string ensureFilePathExists(boost::filesystem::path const& path) const;
};

// Whether a counters schema without counters may be published: computed once
// per process from DTL_ALLOW_EMPTY_COUNTER_SCHEMA (or ALLOW_EMPTY_COUNTER_SCHEMA).
bool schema_writer_allow_empty_counter_schema();

namespace detail {
// Forgets the computed allow-empty flag so that the next use reads the
// environment again. For tests only; not exported from the plug-in.
void reset_schema_writer_allow_empty_flag();
}  // namespace detail

}  // namespace dtl
