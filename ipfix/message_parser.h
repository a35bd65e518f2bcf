// IPFIX (version 10) message header validation and template-set decoding.
// Stateless: every operation is a pure function of a byte range.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace dtl::ipfix {

// The 16-byte message header, numbers in host byte order. An invalid header
// has every field zero.
struct ParsedHeader {
  uint32_t export_time = 0;
  uint32_t sequence_number = 0;
  uint32_t observation_domain_id = 0;
  uint16_t length = 0;
  bool valid = false;
};

struct ParsedFieldSpecifier {
  uint16_t element_id = 0;  // enterprise bit removed
  uint16_t length = 0;      // 65535 = variable length
  bool enterprise_bit = false;
  uint32_t enterprise_number = 0;  // 0 when the bit is clear

  bool operator==(const ParsedFieldSpecifier&) const = default;
};

inline constexpr uint16_t kVariableLength = 65535;

struct ParsedTemplate {
  uint16_t template_id = 0;
  std::vector<ParsedFieldSpecifier> fields;  // wire order

  // Sum of the field lengths; 0 without fields or with a variable-length one.
  size_t FixedRecordSize() const;
  bool HasVariableLengthFields() const;
};

class MessageParser {
 public:
  static constexpr size_t kHeaderSize = 16;
  static constexpr size_t kSetHeaderSize = 4;
  static constexpr uint16_t kTemplateSetId = 2;
  static constexpr uint16_t kOptionsTemplateSetId = 3;
  static constexpr uint16_t kFirstDataSetId = 256;

  // Version must be 10 and the Length field between 16 and len.
  static ParsedHeader ParseHeader(const uint8_t* data, size_t len);

  // body/len: a template set's content after its set header. Templates
  // before a truncated one are returned; nothing after it is read. A
  // template claiming more field specifiers than the rest of the set can
  // hold counts as truncated.
  static std::vector<ParsedTemplate> ParseTemplateSet(const uint8_t* body, size_t len);
};

}  // namespace dtl::ipfix
