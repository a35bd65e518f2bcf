// State of one exporter session (address, port, observation domain): its
// templates, its switch name, counter names and metadata, and the counter
// sample being reassembled from up to 32 data records. A session is used
// only from the thread of the receive worker that owns it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "storage/ipfix_session_sink.h"
#include "ipfix/message_parser.h"
#include "ipfix/sample_ledger.h"
#include "ipfix/sequence_tracker.h"
#include "storage/schema_snapshot.h"
#include "storage/session_account.h"

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
// bytes), an IPv6 address in brackets: how sessions are named in log lines.
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

  // One decoded field of the current record; data points into the message.
  struct RecordField {
    uint16_t element_id = 0;
    const uint8_t* data = nullptr;
    size_t length = 0;
  };

  // key: the session key's significant bytes; sink may be null.
  IpfixSession(const std::string& key, size_t worker_id, IpfixSessionSink* sink);
  // Closes the session and releases everything; the sink is not told.
  ~IpfixSession();
  // The session ends: a sample still being assembled is discarded (counted)
  // and the account marked closed. Once; later calls do nothing.
  void Close();
  // What became of the session's traffic and samples (shared with storage
  // and the status report).
  const std::shared_ptr<SessionAccount>& account() const { return ledger_.shared_account(); }
  SessionAccount& account_ref() { return ledger_.account(); }

  IpfixSession(const IpfixSession&) = delete;
  IpfixSession& operator=(const IpfixSession&) = delete;

  // A message of the exporter begins (its sets follow); its header carried
  // sequence_number.
  void BeginMessage(uint32_t sequence_number) { sequence_.BeginMessage(sequence_number); }
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
  // The collector's monotonic clock (ns) at the session's latest datagram:
  // inactivity is judged by it, never by the exporter's export times.
  uint64_t last_seen_ns() const { return last_seen_ns_; }
  void set_last_seen_ns(uint64_t now_ns) { last_seen_ns_ = now_ns; }

  const std::vector<RecordField>& record_fields() const { return record_fields_; }
  const std::string& switch_name() const { return switch_name_; }
  const std::map<uint16_t, std::string>& counter_names() const { return counter_names_; }
  uint64_t expected_fields() const { return expected_fields_; }
  // Mappings received but not in use (an announcement still incomplete).
  size_t pending_mapping_count() const { return mapping_assembly_.size(); }
  uint64_t total_value_bytes() const { return total_value_bytes_; }
  uint64_t fragment_count() const { return fragment_count_; }
  uint64_t value_offsets(size_t slot) const { return value_offsets_[slot]; }

  uint64_t data_sets_processed() const { return data_sets_processed_; }
  uint64_t template_sets_processed() const { return template_sets_processed_; }

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
  // (template, metadata ID) in the exporter's order; stored counters per
  // counter template slot, which is what mappings describe.
  using Mappings = std::vector<std::pair<uint16_t, uint64_t>>;
  using MappedCounts = std::array<size_t, kCounterTemplateSlots>;
  MappedCounts MappedFieldCounts() const;
  // 0 for a template that is no known counter template.
  static size_t MappedFieldCount(const MappedCounts& counts, uint16_t template_id);
  // Each known counter template has exactly as many mappings as stored
  // counters (mappings of other templates aside).
  static bool MappingsWhole(const Mappings& mappings, const MappedCounts& fields);
  // The mappings of known counter templates, by template, each template's
  // in the exporter's order: what labels the counters.
  static Mappings MappingsInUse(const Mappings& mappings, const MappedCounts& fields);
  // Whether a mapping set begins another announcement's mappings rather
  // than continuing the ones being gathered.
  bool StartsNewMappingBlock(const Mappings& set, const MappedCounts& fields) const;
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
  // Every record of a counter set, each one fragment of a sample.
  void ProcessCounterSet(size_t slot, const uint8_t* body, size_t len);
  void AcceptFragment(size_t slot, const uint8_t* record, size_t len, RecordNumber number);
  // Opens a sample with a record of the first counter template.
  bool OpenSample(const uint8_t* record, size_t len, RecordNumber number);
  void AddToSample(size_t slot, const uint8_t* record, size_t len, RecordNumber number);
  // Keeps a fragment that came before its sample's first record.
  void Stash(size_t slot, const uint8_t* record, size_t len, RecordNumber number);
  void CompleteIfWhole();
  void Commit();
  void Park(bool older);
  // Brings a parked newer sample back into a new block of the sink.
  void Unpark();
  // Swaps the pending sample's assembly state with the parked one's.
  void ExchangeWithParked();
  // Offers a fragment to a parked older sample; true when it took it.
  bool OfferToParked(size_t slot, const uint8_t* record, size_t len, uint32_t number);
  // The parked older sample is complete: it goes to the sink before the
  // pending newer one, which then continues in a new block.
  void CommitParkedFirst();
  std::vector<uint8_t> scratch_;
  // Checked samples: takes the stashed fragments whose numbers now lie in
  // the sample's unbroken run of records.
  void AbsorbStash();
  void ClearStash();
  bool SeenOwnBefore(size_t slot, uint32_t number) const;
  bool Joinable(size_t slot, uint32_t number) const;
  // Numbers a data record (descriptive ones too) and remembers the number.
  RecordNumber NumberRecord();
  void NumberDescriptiveRecords(const ParsedTemplate& tmpl, const uint8_t* body, size_t len);
  void DropPendingSample();
  // Whether the numbering shows something lost since the last sample opened
  // (true when it cannot tell); moves the mark to now.
  bool LossSinceLastOpen() {
    const uint64_t jumps = sequence_.forward_jumps();
    const bool loss = !sequence_.informative() || jumps != jumps_at_open_;
    jumps_at_open_ = jumps;
    return loss;
  }
  // Drop the sample being assembled, or the one set aside, counting it.
  void DiscardPending(DiscardCause cause);
  void DiscardParked(DiscardCause cause);
  // The time in a sample's first record; false when the record is cut
  // before the time its template announces.
  bool ReadSampleTime(const uint8_t* record, size_t len, uint32_t* seconds, uint32_t* nanoseconds) const;
  bool HasActiveSink() const;

  std::vector<RecordField> record_fields_;
  std::string key_;
  std::string display_name_;
  size_t worker_id_ = 0;
  IpfixSessionSink* sink_ = nullptr;
  SampleLedger ledger_;
  uint64_t jumps_at_open_ = 0;  // the numbering's forward jumps at the last sample opened
  bool closed_ = false;
  std::array<TemplateSlot<ParsedTemplate>, kCounterTemplateSlots> counter_templates_;
  std::array<TemplateSlot<ParsedTemplate>, kMetaTemplateSlots> meta_templates_;

  std::string switch_name_;
  std::map<uint16_t, std::string> counter_names_;
  // Label pairs by definition ID, one value per key, keys in first-seen order.
  std::map<uint64_t, MetadataPairs> metadata_definitions_;
  // The mappings in use: the latest whole announcement's, in its order.
  Mappings metadata_mappings_;
  // Mappings of the announcement being received, until they are whole.
  Mappings mapping_assembly_;
  // Other descriptive records came after the latest mapping set.
  bool descriptive_since_mappings_ = false;
  // The session was reported incomplete since it was last complete.
  bool incomplete_reported_ = false;

  std::array<ExtractionPlan, kCounterTemplateSlots> plans_;
  std::array<bool, kCounterTemplateSlots> plan_valid_{};
  std::array<uint64_t, kCounterTemplateSlots> value_offsets_{};
  uint64_t total_value_bytes_ = 0;
  uint64_t fragment_count_ = 0;
  uint64_t expected_fields_ = 0;

  // The sample being assembled: which counter templates it has (bit i:
  // template 300 + i), which it needs, and the record numbers it spans.
  uint32_t received_slots_ = 0;
  uint32_t expected_slots_ = 0;
  uint32_t layout_slots_ = 0;  // bit i: template 300 + i is in the layout
  bool sample_pending_ = false;
  uint8_t* pending_slot_ = nullptr;
  SequenceTracker sequence_;
  RecordHistory history_;
  // Record number of the pending sample's first record; span_known_ is
  // cleared when one of its fragments could not be numbered.
  uint32_t span_low_ = 0;
  bool span_known_ = false;
  // The numbering was learnt when the pending sample opened: it is checked.
  bool span_checked_ = false;
  // Checked samples: every record number from span_low_ to contiguous_ has
  // been seen; only fragments numbered in that run join the sample.
  uint32_t contiguous_ = 0;

  // Fragments that arrived before the first record of their sample. Two
  // per template: a reordered message can bring the next sample's fragment
  // ahead of the late one of an older sample for the same template.
  struct StashedFragment {
    bool used = false;
    RecordNumber number;
    std::vector<uint8_t> bytes;
  };
  static constexpr size_t kStashDepth = 2;
  std::array<std::array<StashedFragment, kStashDepth>, kCounterTemplateSlots> stash_;
  // A second sample beside the one in the sink's block: either a newer one
  // set aside while an older one, whose first record came late, is
  // assembled in the block (older false), or an older one still waiting for
  // a late fragment while the newer one fills the block (older true). Its
  // values and assembly state.
  struct ParkedSample {
    bool active = false;
    bool older = false;
    uint8_t* slot = nullptr;  // values.data() while parked
    uint32_t seconds = 0, nanoseconds = 0;
    uint32_t received_slots = 0, expected_slots = 0;
    uint32_t span_low = 0, contiguous = 0;
    bool span_known = false;
    std::vector<uint8_t> values;
  };
  ParkedSample parked_;
  uint32_t pending_seconds_ = 0;
  uint32_t pending_nanoseconds_ = 0;
  // Number of the latest fragment seen of each template (bit set: known).
  std::array<uint32_t, kCounterTemplateSlots> last_number_{};
  uint32_t numbered_slots_ = 0;
  uint32_t stashed_slots_ = 0;

  uint64_t data_sets_processed_ = 0;
  uint64_t template_sets_processed_ = 0;
  bool schema_dirty_ = false;
  bool metadata_complete_ = false;
  uint64_t last_seen_ns_ = 0;
};

}  // namespace dtl::ipfix
