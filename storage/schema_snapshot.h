// A session's complete schema as handed to storage: names, metadata and the
// flat list of counter fields whose order is the order of the values in every
// stored sample. Plain data, so that storage needs nothing of the decoder.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "storage/session_account.h"

namespace dtl::ipfix {

using MetadataPairs = std::vector<std::pair<std::string, std::string>>;

struct FlatFieldInfo {
  uint16_t template_id = 0;
  uint16_t element_id = 0;
  std::string name;          // counter name, or "ie_<element>" when none is known
  uint64_t metadata_id = 0;  // 0 when no mapping covers this field
  MetadataPairs metadata;    // empty when metadata_id is not defined
  uint16_t length = 0;       // bytes of the value in the exporter's record
  uint32_t enterprise_number = 0;  // 0 for an IANA element

  bool operator==(const FlatFieldInfo&) const = default;
};

struct SchemaSnapshot {
  uint32_t reserved = 0;
  std::string switch_name;
  std::string display_name;    // exporter address, port and domain, for log lines
  uint32_t observation_domain_id = 0;
  uint16_t exporter_port = 0;  // host order
  std::map<uint16_t, std::string> counter_names;
  std::map<uint64_t, MetadataPairs> metadata_definitions;
  std::vector<std::pair<uint16_t, uint64_t>> metadata_mappings;  // (template, metadata id)
  std::vector<FlatFieldInfo> flat_fields;
  // The session's counters, which storage adds to (samples it failed to
  // write, the current file and its size); null when nobody keeps them.
  std::shared_ptr<SessionAccount> account;
};

}  // namespace dtl::ipfix
