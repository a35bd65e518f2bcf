// The descriptive records of a session: switch name, counter names, metadata
// definitions and mappings, and the schema built from them.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
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

// A counter template's field that becomes a stored value (and so is what a
// mapping describes); see GetSchemaSnapshot.
bool IsStoredCounter(const ParsedFieldSpecifier& field) {
  return field.element_id != 1 && field.element_id != 2 && field.length != kVariableLength;
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
  descriptive_since_mappings_ = true;
  bool changed = false;
  size_t offset = 0;
  while (NextRecord(tmpl, body, len, offset)) {
    for (const RecordField& field : record_fields_) {
      if (field.element_id != kElementSwitchName) continue;
      if (field.length == switch_name_.size() &&
          std::memcmp(field.data, switch_name_.data(), field.length) == 0)
        continue;
      switch_name_ = FieldText(field);
      ledger_.set_name(switch_name_ + " (" + display_name_ + ")");
      ledger_.account().set_switch_name(switch_name_);
      changed = true;
      DTL_LOG_DEBUG("[IPFIX session] Session %s: switch name = '%s'", display_name_.c_str(),
                   switch_name_.c_str());
    }
  }
  // Only a change is told: a repeated announcement must stay silent.
  if (!changed) return;
  schema_dirty_ = true;
  NotifySchemaChange();
}

void IpfixSession::ProcessCounterNameRecords(const ParsedTemplate& tmpl, const uint8_t* body,
                                             size_t len) {
  descriptive_since_mappings_ = true;
  bool changed = false;
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
    // One line per counter is detail: the session's start line sums them up.
    DTL_LOG_DEBUG("[IPFIX session] Session %s: counter name IE %u = '%s' (revision %u)",
                  display_name_.c_str(), static_cast<unsigned>(element), text.c_str(), revision);
    counter_names_[element] = std::move(text);
    changed = true;
  }
  if (!changed) return;
  schema_dirty_ = true;
  NotifySchemaChange();
}

void IpfixSession::ProcessMetadataDefinitionRecords(const ParsedTemplate& tmpl, const uint8_t* body,
                                                    size_t len, uint32_t /*sequence_number*/) {
  descriptive_since_mappings_ = true;
  bool changed = false;
  uint32_t revision = 0;  // carries over from record to record
  size_t offset = 0;
  while (NextRecord(tmpl, body, len, offset)) {
    uint64_t id = 0;
    const RecordField* key = nullptr;
    const RecordField* value = nullptr;
    for (const RecordField& field : record_fields_) {
      switch (field.element_id) {
        case kElementRevision: ReadNumber(field, revision); break;
        case kElementMetadataId: ReadNumber(field, id); break;
        case kElementMetadataKey: key = &field; break;
        case kElementMetadataValue: value = &field; break;
        default: break;
      }
    }
    if (key == nullptr || key->length == 0) continue;
    std::string key_text = FieldText(*key);
    std::string value_text = value != nullptr ? FieldText(*value) : std::string();
    // One value per key of a definition: a repeat changes nothing, a later
    // value replaces the earlier one in its place, so labels keep their order.
    MetadataPairs& pairs = metadata_definitions_[id];
    auto pair = std::find_if(pairs.begin(), pairs.end(),
                             [&](const auto& p) { return p.first == key_text; });
    if (pair != pairs.end() && pair->second == value_text) continue;
    DTL_LOG_DEBUG("[IPFIX session] Session %s: metadata def ID %lu: %s=%s (revision %u)",
                  display_name_.c_str(), static_cast<unsigned long>(id), key_text.c_str(),
                  value_text.c_str(), revision);
    if (pair != pairs.end())
      pair->second = std::move(value_text);
    else
      pairs.emplace_back(std::move(key_text), std::move(value_text));
    changed = true;
  }
  if (!changed) return;

  schema_dirty_ = true;
  UpdateMetadataComplete();
  NotifySchemaChange();
}

IpfixSession::MappedCounts IpfixSession::MappedFieldCounts() const {
  MappedCounts counts{};
  for (size_t slot = 0; slot < kCounterTemplateSlots; ++slot) {
    if (!counter_templates_[slot].present) continue;
    for (const ParsedFieldSpecifier& field : counter_templates_[slot].tmpl.fields)
      if (IsStoredCounter(field)) ++counts[slot];
  }
  return counts;
}

size_t IpfixSession::MappedFieldCount(const MappedCounts& counts, uint16_t template_id) {
  const size_t slot = static_cast<size_t>(template_id) - kFirstCounterTemplateId;
  return template_id >= kFirstCounterTemplateId && slot < kCounterTemplateSlots ? counts[slot] : 0;
}

bool IpfixSession::MappingsWhole(const Mappings& mappings, const MappedCounts& fields) {
  MappedCounts counts{};
  for (const auto& [template_ref, metadata_id] : mappings) {
    // Mappings of a template that is no longer a counter template do not count.
    if (MappedFieldCount(fields, template_ref) != 0) ++counts[template_ref - kFirstCounterTemplateId];
  }
  return counts == fields && std::any_of(fields.begin(), fields.end(), [](size_t n) { return n != 0; });
}

IpfixSession::Mappings IpfixSession::MappingsInUse(const Mappings& mappings, const MappedCounts& fields) {
  Mappings known;
  known.reserve(mappings.size());
  for (const auto& mapping : mappings)
    if (MappedFieldCount(fields, mapping.first) != 0) known.push_back(mapping);
  std::stable_sort(known.begin(), known.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  return known;
}

bool IpfixSession::StartsNewMappingBlock(const Mappings& set, const MappedCounts& fields) const {
  if (mapping_assembly_.empty()) return false;
  MappedCounts held{};
  for (const auto& mapping : mapping_assembly_) ++held[mapping.first - kFirstCounterTemplateId];
  const uint16_t last = mapping_assembly_.back().first;
  bool first_run = true;
  for (size_t i = 0; i < set.size();) {
    const uint16_t template_ref = set[i].first;
    size_t run = 0;
    for (; i < set.size() && set[i].first == template_ref; ++i) ++run;
    const size_t already = held[template_ref - kFirstCounterTemplateId];
    // Only the set's first run may continue a run of the assembly: the last
    // one, while it has room, and not after other descriptive records
    // (those begin an announcement).
    if (already != 0 && (!first_run || template_ref != last || descriptive_since_mappings_ ||
                         already + run > MappedFieldCount(fields, template_ref)))
      return true;
    first_run = false;
  }
  return false;
}

void IpfixSession::ProcessMetadataMappingRecords(const ParsedTemplate& tmpl, const uint8_t* body,
                                                 size_t len, uint32_t /*sequence_number*/) {
  // The k-th mapping of a template describes its k-th counter, so mappings
  // mean something only as a whole announcement: the sets of one gather in
  // mapping_assembly_ and replace the mappings in use once they cover every
  // counter of every counter template exactly.
  const MappedCounts fields = MappedFieldCounts();
  Mappings set;
  size_t offset = 0;
  while (NextRecord(tmpl, body, len, offset)) {
    uint16_t template_ref = 0;
    uint64_t metadata_id = 0;
    for (const RecordField& field : record_fields_) {
      switch (field.element_id) {
        case kElementTemplateRef: ReadNumber(field, template_ref); break;
        case kElementMetadataId: ReadNumber(field, metadata_id); break;
        default: break;
      }
    }
    // Mappings of a template not (yet) known cannot be placed; the next
    // announcement brings the template first.
    if (MappedFieldCount(fields, template_ref) != 0) set.emplace_back(template_ref, metadata_id);
  }
  if (set.empty()) return;

  if (StartsNewMappingBlock(set, fields)) mapping_assembly_.clear();
  descriptive_since_mappings_ = false;
  mapping_assembly_.insert(mapping_assembly_.end(), set.begin(), set.end());
  if (!MappingsWhole(mapping_assembly_, fields)) return;

  // Exporters that repeat one template's mappings at a time complete the
  // same mappings in another template order: that is no change.
  Mappings whole = MappingsInUse(mapping_assembly_, fields);
  mapping_assembly_.clear();
  if (whole == MappingsInUse(metadata_mappings_, fields)) return;
  metadata_mappings_ = std::move(whole);
  DTL_LOG_DEBUG("[IPFIX session] Session %s: metadata mappings replaced: %zu entries",
                display_name_.c_str(), metadata_mappings_.size());
  schema_dirty_ = true;
  UpdateMetadataComplete();
  NotifySchemaChange();
}

void IpfixSession::UpdateMetadataComplete() {
  metadata_complete_ = false;
  const MappedCounts fields = MappedFieldCounts();
  if (!MappingsWhole(metadata_mappings_, fields)) return;
  for (const auto& [template_ref, metadata_id] : metadata_mappings_) {
    if (MappedFieldCount(fields, template_ref) != 0 && metadata_definitions_.count(metadata_id) == 0)
      return;
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
    DTL_LOG_DEBUG("[IPFIX session] NotifySchemaChange: session=%s NOT complete (switch='%s' names=%zu "
            "meta_complete=%d expected_fields=%zu mappings=%zu definitions=%zu)",
            display_name_.c_str(), switch_name_.c_str(), counter_names_.size(),
            metadata_complete_ ? 1 : 0, static_cast<size_t>(expected_fields_),
            metadata_mappings_.size(), metadata_definitions_.size());
    incomplete_reported_ = true;
    return;
  }
  incomplete_reported_ = false;
  const SchemaSnapshot snapshot = GetSchemaSnapshot();
  DTL_LOG_DEBUG(
      "[IPFIX session] NotifySchemaChange: session=%s COMPLETE -> ProcessSchemaUpdate (flat_fields=%zu "
      "switch='%s')",
      display_name_.c_str(), snapshot.flat_fields.size(), switch_name_.c_str());
  DiscardPending(DiscardCause::kTemplate);
  DiscardParked(DiscardCause::kTemplate);
  sink_->ProcessSchemaUpdate(worker_id_, key_, snapshot);
  schema_dirty_ = false;
}

SchemaSnapshot IpfixSession::GetSchemaSnapshot() const {
  SchemaSnapshot snapshot;
  snapshot.reserved = 0;
  snapshot.switch_name = switch_name_;
  snapshot.display_name = display_name_;
  snapshot.account = ledger_.shared_account();
  if (key_.size() >= 2) {
    uint16_t port_be;
    std::memcpy(&port_be, key_.data(), sizeof(port_be));
    snapshot.exporter_port = ntohs(port_be);
  }
  if (key_.size() >= 6) std::memcpy(&snapshot.observation_domain_id, key_.data() + 2, sizeof(uint32_t));
  snapshot.counter_names = counter_names_;
  snapshot.metadata_definitions = metadata_definitions_;
  snapshot.metadata_mappings = MappingsInUse(metadata_mappings_, MappedFieldCounts());

  std::map<uint16_t, std::vector<uint64_t>> ids_by_template;
  for (const auto& [template_ref, metadata_id] : snapshot.metadata_mappings)
    ids_by_template[template_ref].push_back(metadata_id);

  for (size_t slot = 0; slot < kCounterTemplateSlots; ++slot) {
    if (!counter_templates_[slot].present) continue;
    const auto template_id = static_cast<uint16_t>(kFirstCounterTemplateId + slot);
    const auto group = ids_by_template.find(template_id);
    size_t i = 0;
    // Only fields that become a stored value are described: the sample time
    // goes to the block header, and a variable-length field is no counter
    // (extraction skips it), so the flat list matches the block exactly.
    for (const ParsedFieldSpecifier& field : counter_templates_[slot].tmpl.fields) {
      if (!IsStoredCounter(field)) continue;
      FlatFieldInfo info;
      info.template_id = template_id;
      info.element_id = field.element_id;
      info.length = field.length;
      info.enterprise_number = field.enterprise_number;
      const auto name = counter_names_.find(info.element_id);
      info.name = name != counter_names_.end() ? name->second : "ie_" + std::to_string(info.element_id);
      if (group != ids_by_template.end() && group->second.size() > i) info.metadata_id = group->second[i];
      const auto definition = metadata_definitions_.find(info.metadata_id);
      if (definition != metadata_definitions_.end()) info.metadata = definition->second;
      snapshot.flat_fields.push_back(std::move(info));
      ++i;
    }
  }
  return snapshot;
}

}  // namespace dtl::ipfix
