// The records an exporter describes itself with (templates, switch name,
// counter names, metadata definitions and mappings) and the packing of such
// records into messages of bounded size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/hft_sim/counter_layout.h"
#include "tools/hft_sim/ipfix_message_builder.h"
#include "tools/hft_sim/sequence_counter.h"
#include "tools/hft_sim/sim_config.h"
#include "tools/hft_sim/udp_sender.h"

namespace dtl::hftsim {

// One record in wire form, without its set header.
struct SimRecord {
  static constexpr uint16_t kTemplateSet = 2;

  uint16_t set_id = 0;  // kTemplateSet for a template record, else the data record's template
  std::vector<uint8_t> bytes;

  bool data() const { return set_id >= 256; }
};

// The descriptive records of one simulated switch. Keeps references to the
// configuration and layout, which must outlive it.
class DescriptiveRecords {
 public:
  static constexpr uint16_t kSwitchNameTemplate = 256;
  static constexpr uint16_t kCounterNameTemplate = 257;
  static constexpr uint16_t kDefinitionTemplate = 258;
  static constexpr uint16_t kMappingTemplate = 259;
  static constexpr uint32_t kRevision = 1;

  DescriptiveRecords(const SimConfig& config, const CounterLayout& layout) : config_(config), layout_(layout) {}

  // What an exporter exporting the first `counter_templates` counter
  // templates announces: templates 256-259 and its counter templates, the
  // switch name, then names, definitions and mappings of its counters.
  void Announcement(size_t counter_templates, std::vector<SimRecord>& out) const;
  void SwitchName(std::vector<SimRecord>& out) const;
  // Definitions of one counter: "interface", and "traffic_class" with classes.
  void Definitions(size_t counter, std::vector<SimRecord>& out) const;
  // Mappings of one counter template in the order of its counter fields: the
  // k-th mapping describes its k-th counter.
  void Mappings(size_t template_index, std::vector<SimRecord>& out) const;
  // A template withdrawal: the template's record with a field count of 0.
  static SimRecord Withdrawal(uint16_t template_id);

 private:
  const SimConfig& config_;
  const CounterLayout& layout_;
};

// Packs records into messages of at most `limit` bytes (a larger record goes
// alone), opening a new set whenever the set ID changes and a new message
// when the next record does not fit. Numbers the messages with `sequence`.
class RecordPacker {
 public:
  RecordPacker(IpfixMessageBuilder& builder, std::vector<Datagram>& out, size_t limit, uint32_t export_time,
               uint32_t domain, SequenceCounter& sequence)
      : builder_(builder), out_(out), limit_(limit), export_time_(export_time), domain_(domain), sequence_(sequence) {}

  void Add(const SimRecord& record);
  void Add(const std::vector<SimRecord>& records) {
    for (const SimRecord& record : records) Add(record);
  }
  // Sends the open message, if any.
  void Flush();

 private:
  IpfixMessageBuilder& builder_;
  std::vector<Datagram>& out_;
  size_t limit_;
  uint32_t export_time_;
  uint32_t domain_;
  SequenceCounter& sequence_;
  bool open_ = false;
  uint16_t set_id_ = 0;
};

// Appends records to the open message of `builder`, each in a set of its
// own template (consecutive records of one template share a set). Counts
// the data records in `sequence`.
void AppendRecords(IpfixMessageBuilder& builder, const std::vector<SimRecord>& records, SequenceCounter& sequence);

}  // namespace dtl::hftsim
