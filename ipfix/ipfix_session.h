// State of one exporter session (address, port, observation domain): its
// templates, its switch name, counter names and metadata, and the counter
// sample being reassembled from up to 32 data records. A session is used
// only from the thread of the receive worker that owns it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ipfix/ipfix_session_sink.h"
#include "ipfix/message_parser.h"
#include "ipfix/schema_snapshot.h"

namespace dtl::ipfix {

// One fixed-length field of a counter record, precomputed from its template.
struct ExtractionStep {
  uint16_t offset = 0;  // byte offset in the record
  uint8_t length = 0;   // field length (low byte)
  uint8_t kind = 0;     // kCounter, kSeconds or kNanoseconds
};
static_assert(sizeof(ExtractionStep) == 4);

// How to pull the counters (and the sample time) out of one counter record.
struct ExtractionPlan {
  static constexpr uint8_t kCounter = 0;
  static constexpr uint8_t kSeconds = 1;
  static constexpr uint8_t kNanoseconds = 2;

  std::vector<ExtractionStep> steps;  // fixed-length fields, wire order
  uint64_t counter_count = 0;
  uint64_t counter_bytes = 0;  // counter_count * 8
  uint64_t record_size = 0;    // sum of the fixed field lengths
  bool all_u64 = true;         // every counter is 8 bytes and nothing is variable
  uint16_t first_counter_offset = 0;
  uint16_t seconds_offset = 0;
  uint16_t nanoseconds_offset = 0;
  bool has_seconds = false;
  bool has_nanoseconds = false;
  // A variable-length field makes the step offsets meaningless: such records
  // are decoded field by field instead.
  bool has_variable_length = false;
};

// "address:port/domain_N" for a session key string (the key's significant
// bytes): how sessions are named in log lines.
std::string SessionDisplayName(const std::string& key);

class IpfixSession {
 public:
  // Template IDs of the exporter's protocol.
  static constexpr uint16_t kSwitchNameTemplateId = 256;
  static constexpr uint16_t kCounterNameTemplateId = 257;
  static constexpr uint16_t kMetadataDefinitionTemplateId = 258;
  static constexpr uint16_t kMetadataMappingTemplateId = 259;
  static constexpr uint16_t kFirstMetaTemplateId = 256;
  static constexpr size_t kMetaTemplateSlots = 4;
  static constexpr uint16_t kFirstCounterTemplateId = 300;
  static constexpr size_t kCounterTemplateSlots = 32;
  static constexpr uint64_t kRecordsWrittenLogInterval = 0x80000;

  // One decoded field of the current record; data points into the message.
  struct RecordField {
    uint16_t element_id = 0;
    const uint8_t* data = nullptr;
    size_t length = 0;
  };

  struct PendingDefinitionEntry {
    uint64_t id = 0;
    std::string key;
    std::string value;
  };

  // key: the session key's significant bytes; sink may be null.
  IpfixSession(const std::string& key, size_t worker_id, IpfixSessionSink* sink);
  // Releases everything; the sink is not told.
  ~IpfixSession();

  IpfixSession(const IpfixSession&) = delete;
  IpfixSession& operator=(const IpfixSession&) = delete;

  // One template set of the exporter.
  void UpdateTemplates(const std::vector<ParsedTemplate>& templates);
  // One data set (set ID >= 256); body/len exclude the set header.
  void ProcessDataSet(uint16_t set_id, const uint8_t* body, size_t len, uint32_t export_time,
                      uint32_t sequence_number);

  // Cuts the record at offset into record_fields() and advances offset.
  // False when a field does not fit (the fields before it are kept).
  bool ReadRecord(const ParsedTemplate& tmpl, const uint8_t* data, size_t len, size_t& offset);
  // Locates one field at offset; returns the bytes consumed, 0 on failure
  // (or for a zero-length fixed field).
  size_t ReadFieldPointer(const ParsedFieldSpecifier& spec, const uint8_t* data, size_t len,
                          size_t offset, const uint8_t** field, size_t* field_length) const;

  // Every cached counter (300-331) and meta (256-259) template by ID.
  std::map<uint16_t, ParsedTemplate> templates() const;

  // Switch name, counter names and complete metadata are all known.
  bool IsComplete() const;
  SchemaSnapshot GetSchemaSnapshot() const;

  const std::string& key() const { return key_; }
  const std::string& display_name() const { return display_name_; }
  size_t worker_id() const { return worker_id_; }
  uint32_t last_export_time() const { return last_export_time_; }
  void set_last_export_time(uint32_t t) { last_export_time_ = t; }

  const std::vector<RecordField>& record_fields() const { return record_fields_; }
  const std::string& switch_name() const { return switch_name_; }
  const std::map<uint16_t, std::string>& counter_names() const { return counter_names_; }
  uint64_t expected_fields() const { return expected_fields_; }
  uint64_t total_value_bytes() const { return total_value_bytes_; }
  uint64_t fragment_count() const { return fragment_count_; }
  uint64_t value_offsets(size_t slot) const { return value_offsets_[slot]; }

  uint64_t data_sets_processed() const { return data_sets_processed_; }
  uint64_t template_sets_processed() const { return template_sets_processed_; }
  uint64_t records_written() const { return records_written_; }

 private:
  template <typename T>
  struct TemplateSlot {
    bool present = false;
    T tmpl;
  };

  // Descriptive records (ipfix_session_metadata.cc).
  void ProcessSwitchNameRecord(const ParsedTemplate& tmpl, const uint8_t* body, size_t len);
  void ProcessCounterNameRecords(const ParsedTemplate& tmpl, const uint8_t* body, size_t len);
  void ProcessMetadataDefinitionRecords(const ParsedTemplate& tmpl, const uint8_t* body, size_t len,
                                        uint32_t sequence_number);
  void ProcessMetadataMappingRecords(const ParsedTemplate& tmpl, const uint8_t* body, size_t len,
                                     uint32_t sequence_number);
  void RebuildMetadataDefinitions();
  void RebuildMetadataMappings();
  void UpdateMetadataComplete();
  void NotifySchemaChange();
  // Next record of a descriptive set; false at the end of the set.
  bool NextRecord(const ParsedTemplate& tmpl, const uint8_t* body, size_t len, size_t& offset);

  // Sample assembly (ipfix_session_samples.cc).
  void BuildExtractionPlan(uint16_t template_id, const ParsedTemplate& tmpl);
  void UpdateCachedFragmentCount();
  size_t ExtractCounterValues(size_t slot, const uint8_t* data, size_t len, uint8_t* dest,
                              size_t max_bytes, uint32_t* seconds, uint32_t* nanoseconds) const;
  size_t ExtractFieldByField(size_t slot, const uint8_t* data, size_t len, uint8_t* dest,
                             size_t max_bytes, uint32_t* seconds, uint32_t* nanoseconds) const;
  void ProcessCounterDataRecords(uint16_t set_id, const ParsedTemplate& tmpl, const uint8_t* body,
                                 size_t len, uint32_t export_time, uint32_t sequence_number);
  void DropPendingSample();
  bool HasActiveSink() const;

  std::vector<RecordField> record_fields_;
  std::string key_;
  std::string display_name_;
  size_t worker_id_ = 0;
  IpfixSessionSink* sink_ = nullptr;
  std::array<TemplateSlot<ParsedTemplate>, kCounterTemplateSlots> counter_templates_;
  std::array<TemplateSlot<ParsedTemplate>, kMetaTemplateSlots> meta_templates_;

  std::string switch_name_;
  std::map<uint16_t, std::string> counter_names_;
  std::map<uint64_t, MetadataPairs> metadata_definitions_;
  std::map<uint32_t, std::vector<PendingDefinitionEntry>> definition_messages_;
  uint32_t definition_revision_ = 0;
  std::map<uint32_t, std::vector<std::pair<uint16_t, uint64_t>>> mapping_messages_;
  uint32_t mapping_revision_ = 0;
  std::vector<std::pair<uint16_t, uint64_t>> metadata_mappings_;

  std::array<ExtractionPlan, kCounterTemplateSlots> plans_;
  std::array<bool, kCounterTemplateSlots> plan_valid_{};
  std::array<uint64_t, kCounterTemplateSlots> value_offsets_{};
  uint64_t total_value_bytes_ = 0;
  uint64_t fragment_count_ = 0;
  uint64_t expected_fields_ = 0;

  uint32_t sample_seconds_ = 0;
  uint32_t sample_nanoseconds_ = 0;
  uint64_t expected_fragments_ = 0;
  uint64_t received_fragments_ = 0;
  uint32_t received_slots_ = 0;  // bit i: template 300 + i is in the pending sample
  // Sequence number of the message holding the pending sample's latest
  // fragment, and how many of its fragments that message carried.
  uint32_t pending_message_sequence_ = 0;
  uint32_t pending_message_records_ = 0;
  bool sample_pending_ = false;
  uint8_t* pending_slot_ = nullptr;

  uint64_t records_written_log_interval_ = kRecordsWrittenLogInterval;
  uint64_t data_sets_processed_ = 0;
  uint64_t template_sets_processed_ = 0;
  uint64_t records_written_ = 0;
  bool schema_dirty_ = false;
  bool metadata_complete_ = false;
  uint32_t last_export_time_ = 0;
};

}  // namespace dtl::ipfix
