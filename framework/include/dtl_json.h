// JSON document model of the library (nlohmann's ordered JSON, so members
// keep their insertion order) and the text forms that other Dartel
// components expect byte for byte: the pretty and compact layouts of the
// parson library. Schema identifiers are digests of the pretty text.
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "dtl_export.h"

namespace dtl::json {

using value = nlohmann::ordered_json;

// Pretty text: four-blank indent, "key": value, no trailing newline.
std::string serialize_pretty(const value& v);
// Compact text: no blanks at all.
std::string serialize_compact(const value& v);

// Both forms leave out text that is not valid UTF-8 (see json_serializer.cc);
// this is the test they apply.
bool is_valid_utf8(std::string_view text);

}  // namespace dtl::json

// Opaque JSON value handed across the C interface (for example by
// dtl_counters_schema_jsonify); released with dtl_json_value_free.
struct dtl_json_value {
  dtl::json::value v;
};
typedef struct dtl_json_value dtl_json_value_t;

extern "C" DTL_EXPORT void dtl_json_value_free(dtl_json_value_t* value);
