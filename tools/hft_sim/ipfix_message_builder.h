// Builds IPFIX (version 10) messages byte by byte: header, template sets and
// data sets with big-endian fields. Used by the simulator and by tests that
// need exact (also deliberately broken) datagrams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace dtl::hftsim {

struct FieldSpec {
  uint16_t element_id = 0;
  uint16_t length = 0;             // 65535 = variable length
  uint32_t enterprise_number = 0;  // non-zero sets the enterprise bit
};

class IpfixMessageBuilder {
 public:
  // Starts a new message; the previous content is discarded.
  void Begin(uint32_t export_time, uint32_t sequence_number, uint32_t domain_id);

  // Opens a set; the set's length is filled in by EndSet.
  void BeginSet(uint16_t set_id);
  void EndSet();

  // One template record inside an open template set (set ID 2).
  void AddTemplate(uint16_t template_id, const std::vector<FieldSpec>& fields);

  void PutU8(uint8_t v);
  void PutU16(uint16_t v);
  void PutU32(uint32_t v);
  void PutU64(uint64_t v);
  // Big-endian unsigned integer of 1 to 8 bytes (the low bytes of v).
  void PutUint(uint64_t v, size_t width);
  void PutBytes(const void* data, size_t len);
  // Variable-length encoding: one length byte below 255, else 255 + u16.
  void PutVarLength(std::string_view text);

  // Writes the message length into the header and returns the message.
  const std::vector<uint8_t>& Finish();

  size_t size() const { return buffer_.size(); }
  const std::vector<uint8_t>& bytes() const { return buffer_; }

 private:
  void PatchU16(size_t at, uint16_t v);

  std::vector<uint8_t> buffer_;
  size_t set_start_ = 0;
  bool set_open_ = false;
};

}  // namespace dtl::hftsim
