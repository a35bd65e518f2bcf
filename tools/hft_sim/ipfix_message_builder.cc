#include "tools/hft_sim/ipfix_message_builder.h"

namespace dtl::hftsim {

void IpfixMessageBuilder::Begin(uint32_t export_time, uint32_t sequence_number, uint32_t domain_id) {
  buffer_.clear();
  set_open_ = false;
  PutU16(10);
  PutU16(0);  // length, patched by Finish
  PutU32(export_time);
  PutU32(sequence_number);
  PutU32(domain_id);
}

void IpfixMessageBuilder::BeginSet(uint16_t set_id) {
  if (set_open_) EndSet();
  set_start_ = buffer_.size();
  set_open_ = true;
  PutU16(set_id);
  PutU16(0);
}

void IpfixMessageBuilder::EndSet() {
  if (!set_open_) return;
  PatchU16(set_start_ + 2, static_cast<uint16_t>(buffer_.size() - set_start_));
  set_open_ = false;
}

void IpfixMessageBuilder::AddTemplate(uint16_t template_id, const std::vector<FieldSpec>& fields) {
  PutU16(template_id);
  PutU16(static_cast<uint16_t>(fields.size()));
  for (const FieldSpec& field : fields) {
    const bool enterprise = field.enterprise_number != 0;
    PutU16(static_cast<uint16_t>(field.element_id | (enterprise ? 0x8000 : 0)));
    PutU16(field.length);
    if (enterprise) PutU32(field.enterprise_number);
  }
}

void IpfixMessageBuilder::PutU8(uint8_t v) { buffer_.push_back(v); }
void IpfixMessageBuilder::PutU16(uint16_t v) { PutUint(v, 2); }
void IpfixMessageBuilder::PutU32(uint32_t v) { PutUint(v, 4); }
void IpfixMessageBuilder::PutU64(uint64_t v) { PutUint(v, 8); }

void IpfixMessageBuilder::PutUint(uint64_t v, size_t width) {
  for (size_t i = width; i-- > 0;) buffer_.push_back(static_cast<uint8_t>(i < 8 ? v >> (8 * i) : 0));
}

void IpfixMessageBuilder::PutBytes(const void* data, size_t len) {
  const auto* p = static_cast<const uint8_t*>(data);
  buffer_.insert(buffer_.end(), p, p + len);
}

void IpfixMessageBuilder::PutVarLength(std::string_view text) {
  if (text.size() < 255) {
    PutU8(static_cast<uint8_t>(text.size()));
  } else {
    PutU8(255);
    PutU16(static_cast<uint16_t>(text.size()));
  }
  PutBytes(text.data(), text.size());
}

const std::vector<uint8_t>& IpfixMessageBuilder::Finish() {
  EndSet();
  PatchU16(2, static_cast<uint16_t>(buffer_.size()));
  return buffer_;
}

void IpfixMessageBuilder::PatchU16(size_t at, uint16_t v) {
  buffer_[at] = static_cast<uint8_t>(v >> 8);
  buffer_[at + 1] = static_cast<uint8_t>(v);
}

}  // namespace dtl::hftsim
