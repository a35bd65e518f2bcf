#include "tools/hft_sim/descriptive_records.h"

#include <string>
#include <utility>

namespace dtl::hftsim {

namespace {

constexpr uint16_t kVariable = 65535;

// Big-endian encoding of one record at a time.
class RecordBytes {
 public:
  explicit RecordBytes(std::vector<uint8_t>& bytes) : bytes_(bytes) {}
  void U16(uint16_t v) { Uint(v, 2); }
  void U32(uint32_t v) { Uint(v, 4); }
  void U64(uint64_t v) { Uint(v, 8); }
  void Text(const std::string& text) {
    if (text.size() < 255) {
      bytes_.push_back(static_cast<uint8_t>(text.size()));
    } else {
      bytes_.push_back(255);
      U16(static_cast<uint16_t>(text.size()));
    }
    bytes_.insert(bytes_.end(), text.begin(), text.end());
  }
  void Template(uint16_t template_id, const std::vector<FieldSpec>& fields) {
    U16(template_id);
    U16(static_cast<uint16_t>(fields.size()));
    for (const FieldSpec& field : fields) {
      U16(field.element_id);
      U16(field.length);
    }
  }

 private:
  void Uint(uint64_t v, size_t width) {
    for (size_t i = width; i-- > 0;) bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  std::vector<uint8_t>& bytes_;
};

// Appends an empty record of the given set and returns its encoder.
RecordBytes NewRecord(uint16_t set_id, std::vector<SimRecord>& out) {
  out.emplace_back();
  out.back().set_id = set_id;
  return RecordBytes(out.back().bytes);
}

}  // namespace

void DescriptiveRecords::Announcement(size_t counter_templates, std::vector<SimRecord>& out) const {
  const auto add_template = [&](uint16_t id, const std::vector<FieldSpec>& fields) {
    NewRecord(SimRecord::kTemplateSet, out).Template(id, fields);
  };
  add_template(kSwitchNameTemplate, {{3, kVariable}});
  add_template(kCounterNameTemplate, {{5, 2}, {4, kVariable}, {7, 4}});
  add_template(kDefinitionTemplate, {{8, 8}, {9, kVariable}, {10, kVariable}, {7, 4}});
  add_template(kMappingTemplate, {{6, 2}, {8, 8}, {7, 4}});
  const std::vector<CounterInfo>& counters = layout_.counters();
  size_t counter_end = 0;
  std::vector<FieldSpec> fields;
  for (size_t t = 0; t < counter_templates && t < layout_.templates().size(); ++t) {
    const CounterTemplateInfo& info = layout_.templates()[t];
    fields.clear();
    if (info.template_id == CounterLayout::kFirstCounterTemplate) {
      fields.push_back({1, 4});
      fields.push_back({2, 4});
    }
    for (size_t i = 0; i < info.counter_count; ++i) fields.push_back({counters[info.first_counter + i].element_id, 8});
    add_template(info.template_id, fields);
    counter_end = info.first_counter + info.counter_count;
  }

  SwitchName(out);
  for (size_t k = 0; k < counter_end; ++k) {
    RecordBytes record = NewRecord(kCounterNameTemplate, out);
    record.U16(counters[k].element_id);
    record.Text(counters[k].name);
    record.U32(kRevision);
  }
  for (size_t k = 0; k < counter_end; ++k) Definitions(k, out);
  for (size_t t = 0; t < counter_templates && t < layout_.templates().size(); ++t) Mappings(t, out);
}

void DescriptiveRecords::SwitchName(std::vector<SimRecord>& out) const {
  NewRecord(kSwitchNameTemplate, out).Text(config_.switch_name);
}

void DescriptiveRecords::Definitions(size_t counter, std::vector<SimRecord>& out) const {
  const CounterInfo& info = layout_.counters().at(counter);
  const auto add = [&](const char* key, const std::string& value) {
    RecordBytes record = NewRecord(kDefinitionTemplate, out);
    record.U64(info.definition_id);
    record.Text(key);
    record.Text(value);
    record.U32(kRevision);
  };
  add("interface", info.interface_name);
  if (!info.traffic_class.empty()) add("traffic_class", info.traffic_class);
}

void DescriptiveRecords::Mappings(size_t template_index, std::vector<SimRecord>& out) const {
  const CounterTemplateInfo& info = layout_.templates().at(template_index);
  for (size_t i = 0; i < info.counter_count; ++i) {
    RecordBytes record = NewRecord(kMappingTemplate, out);
    record.U16(info.template_id);
    record.U64(layout_.counters()[info.first_counter + i].definition_id);
    record.U32(kRevision);
  }
}

SimRecord DescriptiveRecords::Withdrawal(uint16_t template_id) {
  std::vector<SimRecord> out;
  NewRecord(SimRecord::kTemplateSet, out).Template(template_id, {});
  return std::move(out.front());
}

void RecordPacker::Add(const SimRecord& record) {
  const size_t added = record.bytes.size() + (record.set_id == set_id_ ? 0 : 4);
  if (open_ && builder_.size() + added > limit_) Flush();
  if (!open_) {
    builder_.Begin(export_time_, sequence_.BeginMessage(), domain_);
    open_ = true;
    set_id_ = 0;
  }
  if (record.set_id != set_id_) {
    builder_.BeginSet(record.set_id);
    set_id_ = record.set_id;
  }
  builder_.PutBytes(record.bytes.data(), record.bytes.size());
  if (record.data()) sequence_.CountRecords(1);
}

void RecordPacker::Flush() {
  if (!open_) return;
  out_.push_back(builder_.Finish());
  open_ = false;
  set_id_ = 0;
}

void AppendRecords(IpfixMessageBuilder& builder, const std::vector<SimRecord>& records, SequenceCounter& sequence) {
  uint16_t set_id = 0;
  for (const SimRecord& record : records) {
    if (record.set_id != set_id) {
      builder.BeginSet(record.set_id);
      set_id = record.set_id;
    }
    builder.PutBytes(record.bytes.data(), record.bytes.size());
    if (record.data()) sequence.CountRecords(1);
  }
  builder.EndSet();
}

}  // namespace dtl::hftsim
