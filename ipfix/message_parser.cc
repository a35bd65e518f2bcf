// Bounds-checked reading of the message header and of template sets.
#include "ipfix/message_parser.h"

#include "dtl_logger.h"

namespace dtl::ipfix {

namespace {

uint16_t ReadU16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

uint32_t ReadU32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

}  // namespace

size_t ParsedTemplate::FixedRecordSize() const {
  size_t size = 0;
  for (const ParsedFieldSpecifier& field : fields) {
    if (field.length == kVariableLength) return 0;
    size += field.length;
  }
  return size;
}

bool ParsedTemplate::HasVariableLengthFields() const {
  for (const ParsedFieldSpecifier& field : fields) {
    if (field.length == kVariableLength) return true;
  }
  return false;
}

ParsedHeader MessageParser::ParseHeader(const uint8_t* data, size_t len) {
  if (data == nullptr || len < kHeaderSize) return {};
  const uint16_t version = ReadU16(data);
  const uint16_t length = ReadU16(data + 2);
  if (version != 10 || length < kHeaderSize || length > len) return {};
  ParsedHeader header;
  header.export_time = ReadU32(data + 4);
  header.sequence_number = ReadU32(data + 8);
  header.observation_domain_id = ReadU32(data + 12);
  header.length = length;
  header.valid = true;
  return header;
}

std::vector<ParsedTemplate> MessageParser::ParseTemplateSet(const uint8_t* body, size_t len) {
  std::vector<ParsedTemplate> result;
  if (body == nullptr || len < 4) return result;
  size_t record = 0;
  for (;;) {
    ParsedTemplate tmpl;
    tmpl.template_id = ReadU16(body + record);
    const uint16_t field_count = ReadU16(body + record + 2);
    size_t cursor = record + 4;
    // The count comes from the network: a specifier takes at least 4 bytes,
    // so a count the set cannot hold is refused before anything is reserved.
    const size_t room = len - cursor;
    if (size_t{field_count} * 4 > room) {
      DTL_LOG_ERROR("[IPFIX parser] Template %u: %u field specifiers claimed, room for %zu",
                    tmpl.template_id, static_cast<unsigned>(field_count), room / 4);
      return result;
    }
    tmpl.fields.reserve(field_count);
    for (unsigned i = 0; i < field_count; ++i) {
      if (cursor + 4 > len) {
        DTL_LOG_ERROR("[IPFIX parser] Template %u: truncated field specifier at index %u",
                      tmpl.template_id, i);
        return result;
      }
      ParsedFieldSpecifier field;
      const uint16_t first = ReadU16(body + cursor);
      field.element_id = first & 0x7FFF;
      field.length = ReadU16(body + cursor + 2);
      field.enterprise_bit = (first & 0x8000) != 0;
      if (field.enterprise_bit) {
        if (cursor + 8 > len) {
          DTL_LOG_ERROR("[IPFIX parser] Template %u: truncated enterprise number at field %u",
                        tmpl.template_id, i);
          return result;
        }
        field.enterprise_number = ReadU32(body + cursor + 4);
        cursor += 8;
      } else {
        cursor += 4;
      }
      tmpl.fields.push_back(field);
    }
    result.push_back(std::move(tmpl));
    record = cursor;
    if (record + 4 > len) return result;
  }
}

}  // namespace dtl::ipfix
