// Naming of schema files: a schema published beside the data files is found
// by its identifier, as "<dir>/schema_<32 hex characters>.json".
#pragma once

#include <string>

namespace dtl {

// 32 lower-case hexadecimal characters of the MD5 digest of the bytes.
std::string md5(std::string const& text);

namespace data_file {

// dir + "/schema_" + the identifier's text + ".json"; empty when the
// identifier text cannot be made.
std::string get_schema_file_path(std::string const& dir, unsigned char const* id);

}  // namespace data_file
}  // namespace dtl
