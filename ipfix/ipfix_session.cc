// A session's templates and the walk over a message's sets and records;
// metadata records are in _metadata.cc, counter samples in _samples.cc.
#include "ipfix/ipfix_session.h"

#include <arpa/inet.h>

#include <cstring>

#include "dtl_logger.h"

namespace dtl::ipfix {

namespace {

bool SameFields(const ParsedTemplate& a, const ParsedTemplate& b) {
  return a.template_id == b.template_id && a.fields == b.fields;
}

}  // namespace

// Key layout: bytes 0-1 port (network order), 2-5 domain (host order), then
// the 4- or 16-byte address.
std::string SessionDisplayName(const std::string& key) {
  if (key.size() < 10) return "<invalid:size=" + std::to_string(key.size()) + ">";
  const size_t ip_len = key.size() - 6;
  if (ip_len != 4 && ip_len != 16) return "<invalid:ip_len=" + std::to_string(ip_len) + ">";

  const auto* bytes = reinterpret_cast<const uint8_t*>(key.data());
  char address[INET6_ADDRSTRLEN] = {};
  if (inet_ntop(ip_len == 4 ? AF_INET : AF_INET6, bytes + 6, address, sizeof(address)) == nullptr)
    return "<invalid:inet_ntop_failed>";
  uint16_t port_be;
  uint32_t domain;
  std::memcpy(&port_be, bytes, sizeof(port_be));
  std::memcpy(&domain, bytes + 2, sizeof(domain));
  // An IPv6 address goes in brackets, so that its port reads as a port.
  std::string name;
  if (ip_len == 4) {
    name = address;
  } else {
    name.append("[").append(address).append("]");
  }
  name.append(":").append(std::to_string(ntohs(port_be))).append("/domain_").append(std::to_string(domain));
  return name;
}

IpfixSession::IpfixSession(const std::string& key, size_t worker_id, IpfixSessionSink* sink)
    : key_(key),
      display_name_(SessionDisplayName(key)),
      worker_id_(worker_id),
      sink_(sink),
      ledger_(std::make_shared<SessionAccount>(worker_id, display_name_)) {
  // Sized once so that reading records never allocates.
  record_fields_.reserve(64);
}

IpfixSession::~IpfixSession() { Close(); }

void IpfixSession::UpdateTemplates(const std::vector<ParsedTemplate>& templates) {
  if (templates.empty()) {
    ++template_sets_processed_;
    return;
  }
  bool counter_changed = false;
  for (const ParsedTemplate& tmpl : templates) {
    const uint16_t id = tmpl.template_id;
    if (id >= kFirstMetaTemplateId && id < kFirstMetaTemplateId + kMetaTemplateSlots) {
      auto& slot = meta_templates_[id - kFirstMetaTemplateId];
      if (tmpl.fields.empty()) {
        slot.present = false;
        continue;
      }
      if (slot.present && SameFields(slot.tmpl, tmpl)) continue;
      slot.tmpl = tmpl;
      slot.present = true;
      DTL_LOG_DEBUG("[IPFIX session] Session %s: cached metadata template ID %u with %zu fields",
                   display_name_.c_str(), static_cast<unsigned>(id), tmpl.fields.size());
    } else if (id >= kFirstCounterTemplateId && id < kFirstCounterTemplateId + kCounterTemplateSlots) {
      auto& slot = counter_templates_[id - kFirstCounterTemplateId];
      if (tmpl.fields.empty()) {
        // A withdrawal: the template leaves the sample layout, which is a
        // schema change like any other template change.
        if (!slot.present) continue;
        slot.present = false;
        plan_valid_[id - kFirstCounterTemplateId] = false;
        DTL_LOG_INFO("[IPFIX session] Session %s: the exporter withdrew counter template %u; its counters "
                     "leave the stored samples", display_name_.c_str(), static_cast<unsigned>(id));
        counter_changed = true;
        continue;
      }
      if (slot.present && SameFields(slot.tmpl, tmpl)) continue;
      slot.tmpl = tmpl;
      slot.present = true;
      DTL_LOG_DEBUG("[IPFIX session] Session %s: cached counter template ID %u with %zu fields",
                   display_name_.c_str(), static_cast<unsigned>(id), tmpl.fields.size());
      BuildExtractionPlan(id, tmpl);
      counter_changed = true;
    } else if (id < kFirstCounterTemplateId) {
      DTL_LOG_DEBUG("[IPFIX session] Session %s: unknown template ID %u — skipping",
                    display_name_.c_str(), static_cast<unsigned>(id));
    }
    // IDs above the counter range are not part of the exporter's protocol.
  }
  ++template_sets_processed_;

  if (counter_changed) {
    schema_dirty_ = true;
    UpdateCachedFragmentCount();
    DiscardPending(DiscardCause::kTemplate);
    DiscardParked(DiscardCause::kTemplate);
    NotifySchemaChange();
  }
}

void IpfixSession::ProcessDataSet(uint16_t set_id, const uint8_t* body, size_t len,
                                  uint32_t /*export_time*/, uint32_t sequence_number) {
  ++data_sets_processed_;
  if (set_id >= kFirstMetaTemplateId && set_id < kFirstMetaTemplateId + kMetaTemplateSlots) {
    const auto& slot = meta_templates_[set_id - kFirstMetaTemplateId];
    if (!slot.present) {
      sequence_.SkipUncountable();
      DTL_LOG_DEBUG("[IPFIX session] Session %s: no template for meta set ID %u, skipping",
                    display_name_.c_str(), static_cast<unsigned>(set_id));
      return;
    }
    // Descriptive records take record numbers like any data record.
    NumberDescriptiveRecords(slot.tmpl, body, len);
    switch (set_id) {
      case kSwitchNameTemplateId:
        ProcessSwitchNameRecord(slot.tmpl, body, len);
        break;
      case kCounterNameTemplateId:
        ProcessCounterNameRecords(slot.tmpl, body, len);
        break;
      case kMetadataDefinitionTemplateId:
        ProcessMetadataDefinitionRecords(slot.tmpl, body, len, sequence_number);
        break;
      default:
        ProcessMetadataMappingRecords(slot.tmpl, body, len, sequence_number);
        break;
    }
    return;
  }
  if (set_id < kFirstCounterTemplateId) {
    sequence_.SkipUncountable();
    DTL_LOG_DEBUG("[IPFIX session] Session %s: unknown data set ID %u", display_name_.c_str(),
                  static_cast<unsigned>(set_id));
    return;
  }
  if (set_id < kFirstCounterTemplateId + kCounterTemplateSlots) {
    const size_t slot = set_id - kFirstCounterTemplateId;
    if (counter_templates_[slot].present) {
      ProcessCounterSet(slot, body, len);
      return;
    }
  }
  // Records of unknown length: the ones after them cannot be numbered.
  sequence_.SkipUncountable();
  DTL_LOG_DEBUG("[IPFIX session] Session %s: no template for counter set ID %u, skipping",
                display_name_.c_str(), static_cast<unsigned>(set_id));
}

size_t IpfixSession::ReadFieldPointer(const ParsedFieldSpecifier& spec, const uint8_t* data,
                                      size_t len, size_t offset, const uint8_t** field,
                                      size_t* field_length) const {
  if (spec.length != kVariableLength) {
    if (offset > len || spec.length > len - offset) return 0;
    *field = data + offset;
    *field_length = spec.length;
    return spec.length;
  }
  if (offset >= len) return 0;
  size_t length = data[offset];
  size_t start = offset + 1;
  if (length == 255) {
    if (offset + 3 > len) return 0;
    length = (static_cast<size_t>(data[offset + 1]) << 8) | data[offset + 2];
    start = offset + 3;
  }
  if (length > len - start) return 0;
  *field = data + start;
  *field_length = length;
  return start + length - offset;
}

bool IpfixSession::ReadRecord(const ParsedTemplate& tmpl, const uint8_t* data, size_t len,
                              size_t& offset) {
  record_fields_.clear();
  for (const ParsedFieldSpecifier& spec : tmpl.fields) {
    const uint8_t* field = nullptr;
    size_t field_length = 0;
    const size_t consumed = ReadFieldPointer(spec, data, len, offset, &field, &field_length);
    if (consumed == 0 && spec.length != 0) return false;
    offset += consumed;
    record_fields_.push_back({spec.element_id, field, field_length});
  }
  return true;
}

std::map<uint16_t, ParsedTemplate> IpfixSession::templates() const {
  std::map<uint16_t, ParsedTemplate> result;
  for (size_t i = 0; i < kCounterTemplateSlots; ++i) {
    if (counter_templates_[i].present)
      result.emplace(static_cast<uint16_t>(kFirstCounterTemplateId + i), counter_templates_[i].tmpl);
  }
  for (size_t i = 0; i < kMetaTemplateSlots; ++i) {
    if (meta_templates_[i].present)
      result.emplace(static_cast<uint16_t>(kFirstMetaTemplateId + i), meta_templates_[i].tmpl);
  }
  return result;
}

bool IpfixSession::HasActiveSink() const { return sink_ != nullptr && !sink_->root().empty(); }

}  // namespace dtl::ipfix
