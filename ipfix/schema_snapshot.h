// A session's complete schema as handed to the disk writer: names, metadata,
// counter templates and the flat list of counter fields whose order is the
// order of the values in every stored sample.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ipfix/message_parser.h"

namespace dtl::ipfix {

using MetadataPairs = std::vector<std::pair<std::string, std::string>>;

struct FlatFieldInfo {
  uint16_t template_id = 0;
  uint16_t element_id = 0;
  std::string name;          // counter name, or "ie_<element>" when none is known
  uint64_t metadata_id = 0;  // 0 when no mapping covers this field
  MetadataPairs metadata;    // empty when metadata_id is not defined

  bool operator==(const FlatFieldInfo&) const = default;
};

struct SchemaSnapshot {
  uint32_t reserved = 0;
  std::string switch_name;
  uint16_t exporter_port = 0;  // host order
  std::map<uint16_t, std::string> counter_names;
  std::map<uint64_t, MetadataPairs> metadata_definitions;
  std::vector<std::pair<uint16_t, uint64_t>> metadata_mappings;  // (template, metadata id)
  std::map<uint16_t, ParsedTemplate> counter_templates;          // time fields removed
  std::vector<FlatFieldInfo> flat_fields;
};

}  // namespace dtl::ipfix
