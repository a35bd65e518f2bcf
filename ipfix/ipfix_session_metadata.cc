// The descriptive records of a session: switch name, counter names, metadata
// definitions and mappings, and the schema built from them.
#include <arpa/inet.h>

#include <cstring>

#include "dtl_logger.h"
#include "ipfix/ipfix_session.h"

namespace dtl::ipfix {

namespace {

// Elements of the descriptive records.
constexpr uint16_t kElementSwitchName = 3;
constexpr uint16_t kElementCounterName = 4;
constexpr uint16_t kElementCounterElementId = 5;
constexpr uint16_t kElementTemplateRef = 6;
constexpr uint16_t kElementRevision = 7;
constexpr uint16_t kElementMetadataId = 8;
constexpr uint16_t kElementMetadataKey = 9;
constexpr uint16_t kElementMetadataValue = 10;

// Big-endian number from the first `width` bytes; a shorter field leaves
// value untouched.
template <typename T>
void ReadNumber(const IpfixSession::RecordField& field, T& value) {
  constexpr size_t width = sizeof(T);
  if (field.length < width) return;
  uint64_t v = 0;
  for (size_t i = 0; i < width; ++i) v = (v << 8) | field.data[i];
  value = static_cast<T>(v);
}

std::string FieldText(const IpfixSession::RecordField& field) {
  return std::string(reinterpret_cast<const char*>(field.data), field.length);
}

}  // namespace

bool IpfixSession::NextRecord(const ParsedTemplate& tmpl, const uint8_t* body, size_t len,
                              size_t& offset) {
  if (offset >= len) return false;
  const size_t start = offset;
  if (!ReadRecord(tmpl, body, len, offset)) return false;
  // A template whose records consume nothing would never reach the end of
  // the set: such a record ends it.
  return offset != start;
}

void IpfixSession::ProcessSwitchNameRecord(const ParsedTemplate& tmpl, const uint8_t* body,
                                           size_t len) {
  size_t offset = 0;
  while (NextRecord(tmpl, body, len, offset)) {
    for (const RecordField& field : record_fields_) {
      if (field.element_id != kElementSwitchName) continue;
      if (field.length == switch_name_.size() &&
          std::memcmp(field.data, switch_name_.data(), field.length) == 0)
        continue;
      switch_name_ = FieldText(field);
      schema_dirty_ = true;
      DTL_LOG_INFO("[IPFIX session] Session %s: switch name = '%s'", display_name_.c_str(),
                   switch_name_.c_str());
    }
  }
  if (schema_dirty_) NotifySchemaChange();
}

void IpfixSession::ProcessCounterNameRecords(const ParsedTemplate& tmpl, const uint8_t* body,
                                             size_t len) {
  size_t offset = 0;
  while (NextRecord(tmpl, body, len, offset)) {
    uint16_t element = 0;
    uint32_t revision = 0;
    const RecordField* name = nullptr;
    for (const RecordField& field : record_fields_) {
      if (field.element_id == kElementCounterElementId) {
        ReadNumber(field, element);
        element &= 0x7fff;
      } else if (field.element_id == kElementRevision) {
        ReadNumber(field, revision);
      } else if (field.element_id == kElementCounterName) {
        name = &field;
      }
    }
    if (name == nullptr || name->length == 0) continue;
    std::string text = FieldText(*name);
    auto it = counter_names_.find(element);
    if (it != counter_names_.end() && it->second == text) continue;
    DTL_LOG_INFO("[IPFIX session] Session %s: counter name IE %u = '%s' (revision %u)",
                 display_name_.c_str(), static_cast<unsigned>(element), text.c_str(), revision);
    counter_names_[element] = std::move(text);
    schema_dirty_ = true;
  }
  if (schema_dirty_) NotifySchemaChange();
}

void IpfixSession::ProcessMetadataDefinitionRecords(const ParsedTemplate& tmpl, const uint8_t* body,
                                                    size_t len, uint32_t sequence_number) {
  // Definitions are frozen once the metadata is complete.
  if (metadata_complete_ || len == 0) return;

  std::vector<PendingDefinitionEntry> entries;
  uint32_t revision = 0;  // carries over from record to record
  size_t offset = 0;
  while (NextRecord(tmpl, body, len, offset)) {
    PendingDefinitionEntry entry;
    for (const RecordField& field : record_fields_) {
      switch (field.element_id) {
        case kElementRevision: ReadNumber(field, revision); break;
        case kElementMetadataId: ReadNumber(field, entry.id); break;
        case kElementMetadataKey: entry.key = FieldText(field); break;
        case kElementMetadataValue: entry.value = FieldText(field); break;
        default: break;
      }
    }
    if (entry.key.empty()) continue;
    DTL_LOG_DEBUG("[IPFIX session] Session %s: metadata def ID %lu: %s=%s (revision %u)",
                  display_name_.c_str(), static_cast<unsigned long>(entry.id), entry.key.c_str(),
                  entry.value.c_str(), revision);
    entries.push_back(std::move(entry));
  }
  if (entries.empty()) return;

  definition_revision_ = revision;
  definition_messages_[sequence_number] = std::move(entries);
  const auto previous = metadata_definitions_;
  RebuildMetadataDefinitions();
  if (previous == metadata_definitions_) return;

  schema_dirty_ = true;
  UpdateMetadataComplete();
  NotifySchemaChange();
}

void IpfixSession::ProcessMetadataMappingRecords(const ParsedTemplate& tmpl, const uint8_t* body,
                                                 size_t len, uint32_t sequence_number) {
  if (metadata_complete_ || len == 0) return;

  std::vector<std::pair<uint16_t, uint64_t>> entries;
  uint32_t revision = 0;
  size_t offset = 0;
  while (NextRecord(tmpl, body, len, offset)) {
    uint16_t template_ref = 0;
    uint64_t metadata_id = 0;
    for (const RecordField& field : record_fields_) {
      switch (field.element_id) {
        case kElementRevision: ReadNumber(field, revision); break;
        case kElementTemplateRef: ReadNumber(field, template_ref); break;
        case kElementMetadataId: ReadNumber(field, metadata_id); break;
        default: break;
      }
    }
    // Kept even when elements are missing: the k-th mapping describes the
    // k-th counter of its template.
    entries.emplace_back(template_ref, metadata_id);
    DTL_LOG_DEBUG(
        "[IPFIX session] Session %s: metadata mapping template_ref=%u metadata_id=%lu (revision %u, "
        "seq %u)",
        display_name_.c_str(), static_cast<unsigned>(template_ref),
        static_cast<unsigned long>(metadata_id), revision, sequence_number);
  }
  if (entries.empty()) return;

  mapping_revision_ = revision;
  mapping_messages_[sequence_number] = std::move(entries);
  const auto previous = metadata_mappings_;
  RebuildMetadataMappings();
  if (previous == metadata_mappings_) return;

  schema_dirty_ = true;
  UpdateMetadataComplete();
  NotifySchemaChange();
}

void IpfixSession::RebuildMetadataDefinitions() {
  metadata_definitions_.clear();
  for (const auto& [sequence, entries] : definition_messages_) {
    for (const PendingDefinitionEntry& entry : entries)
      metadata_definitions_[entry.id].emplace_back(entry.key, entry.value);
  }
  DTL_LOG_DEBUG("[IPFIX session] Session %s: rebuilt metadata definitions: %zu entries from %zu messages",
                display_name_.c_str(), metadata_definitions_.size(), definition_messages_.size());
}

void IpfixSession::RebuildMetadataMappings() {
  metadata_mappings_.clear();
  for (const auto& [sequence, entries] : mapping_messages_)
    metadata_mappings_.insert(metadata_mappings_.end(), entries.begin(), entries.end());
  DTL_LOG_DEBUG("[IPFIX session] Session %s: rebuilt metadata mappings: %zu entries from %zu messages",
                display_name_.c_str(), metadata_mappings_.size(), mapping_messages_.size());
}

void IpfixSession::UpdateMetadataComplete() {
  metadata_complete_ = false;
  if (expected_fields_ == 0 || metadata_mappings_.size() < expected_fields_) return;
  for (const auto& mapping : metadata_mappings_) {
    if (metadata_definitions_.count(mapping.second) == 0) return;
  }
  metadata_complete_ = true;
}

bool IpfixSession::IsComplete() const {
  return !switch_name_.empty() && !counter_names_.empty() && metadata_complete_;
}

void IpfixSession::NotifySchemaChange() {
  if (!HasActiveSink()) {
    schema_dirty_ = false;
    return;
  }
  if (!schema_dirty_) return;
  if (!IsComplete()) {
    DTL_LOG_INFO(
        "[IPFIX session] NotifySchemaChange: session=%s NOT complete (switch='%s' names=%zu "
        "meta_complete=%d expected_fields=%zu mappings=%zu definitions=%zu)",
        display_name_.c_str(), switch_name_.c_str(), counter_names_.size(),
        metadata_complete_ ? 1 : 0, static_cast<size_t>(expected_fields_), metadata_mappings_.size(),
        metadata_definitions_.size());
    return;
  }
  const SchemaSnapshot snapshot = GetSchemaSnapshot();
  DTL_LOG_INFO(
      "[IPFIX session] NotifySchemaChange: session=%s COMPLETE -> ProcessSchemaUpdate (flat_fields=%zu "
      "switch='%s')",
      display_name_.c_str(), snapshot.flat_fields.size(), switch_name_.c_str());
  DropPendingSample();
  uint32_t domain = 0;
  if (key_.size() >= 6) std::memcpy(&domain, key_.data() + 2, sizeof(domain));
  sink_->ProcessSchemaUpdate(worker_id_, key_, display_name_, domain, snapshot);
  schema_dirty_ = false;
}

SchemaSnapshot IpfixSession::GetSchemaSnapshot() const {
  SchemaSnapshot snapshot;
  snapshot.reserved = 0;
  snapshot.switch_name = switch_name_;
  if (key_.size() >= 2) {
    uint16_t port_be;
    std::memcpy(&port_be, key_.data(), sizeof(port_be));
    snapshot.exporter_port = ntohs(port_be);
  }
  snapshot.counter_names = counter_names_;
  snapshot.metadata_definitions = metadata_definitions_;
  snapshot.metadata_mappings = metadata_mappings_;

  for (size_t i = 0; i < kCounterTemplateSlots; ++i) {
    if (!counter_templates_[i].present) continue;
    ParsedTemplate copy = counter_templates_[i].tmpl;
    // Only fields that become a stored value are described: the sample time
    // goes to the block header, and a variable-length field is no counter
    // (extraction skips it), so the flat list matches the block exactly.
    std::erase_if(copy.fields, [](const ParsedFieldSpecifier& f) {
      return f.element_id == 1 || f.element_id == 2 || f.length == kVariableLength;
    });
    snapshot.counter_templates.emplace(static_cast<uint16_t>(kFirstCounterTemplateId + i), std::move(copy));
  }

  std::map<uint16_t, std::vector<uint64_t>> ids_by_template;
  for (const auto& [template_ref, metadata_id] : metadata_mappings_)
    ids_by_template[template_ref].push_back(metadata_id);

  for (const auto& [template_id, tmpl] : snapshot.counter_templates) {
    const auto group = ids_by_template.find(template_id);
    for (size_t i = 0; i < tmpl.fields.size(); ++i) {
      FlatFieldInfo info;
      info.template_id = template_id;
      info.element_id = tmpl.fields[i].element_id;
      const auto name = counter_names_.find(info.element_id);
      info.name = name != counter_names_.end() ? name->second : "ie_" + std::to_string(info.element_id);
      if (group != ids_by_template.end() && group->second.size() > i) info.metadata_id = group->second[i];
      const auto definition = metadata_definitions_.find(info.metadata_id);
      if (definition != metadata_definitions_.end()) info.metadata = definition->second;
      snapshot.flat_fields.push_back(std::move(info));
    }
  }
  return snapshot;
}

}  // namespace dtl::ipfix
