// Counter samples: extraction plans, the fragment layout of a sample, the
// assembly of up to 32 fragments into one slot lent by the sink, and the
// byte-swap of the counters straight into that slot.
#include <cstring>

#include "dtl_logger.h"
#include "ipfix/bswap.h"
#include "ipfix/ipfix_session.h"

namespace dtl::ipfix {

namespace {

constexpr uint16_t kElementSeconds = 1;
constexpr uint16_t kElementNanoseconds = 2;

uint32_t LoadBe32(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

// Counters are unsigned big-endian integers of 1, 2, 4 or 8 bytes; any other
// width has no defined value and is stored as 0.
uint64_t LoadCounter(const uint8_t* p, size_t length) {
  if (length != 8 && length != 4 && length != 2 && length != 1) return 0;
  uint64_t value = 0;
  for (size_t i = 0; i < length; ++i) value = (value << 8) | p[i];
  return value;
}

void StoreU64(uint8_t* dest, uint64_t value) { std::memcpy(dest, &value, sizeof(value)); }

}  // namespace

void IpfixSession::BuildExtractionPlan(uint16_t template_id, const ParsedTemplate& tmpl) {
  if (template_id < kFirstCounterTemplateId || template_id >= kFirstCounterTemplateId + kCounterTemplateSlots)
    return;
  const size_t slot = template_id - kFirstCounterTemplateId;
  ExtractionPlan& plan = plans_[slot];
  plan = ExtractionPlan{};
  plan.steps.reserve(tmpl.fields.size());

  uint64_t offset = 0;
  uint64_t counters_end = 0;  // end of the last counter seen
  bool contiguous = true;
  for (const ParsedFieldSpecifier& field : tmpl.fields) {
    if (field.length == kVariableLength) {
      plan.all_u64 = false;
      plan.has_variable_length = true;
      continue;
    }
    ExtractionStep step;
    step.offset = static_cast<uint16_t>(offset);
    step.length = static_cast<uint8_t>(field.length);
    if (field.element_id == kElementSeconds) {
      plan.seconds_offset = static_cast<uint16_t>(offset);
      plan.has_seconds = true;
      step.kind = ExtractionPlan::kSeconds;
    } else if (field.element_id == kElementNanoseconds) {
      plan.nanoseconds_offset = static_cast<uint16_t>(offset);
      plan.has_nanoseconds = true;
      step.kind = ExtractionPlan::kNanoseconds;
    } else {
      if (plan.counter_count == 0) {
        plan.first_counter_offset = static_cast<uint16_t>(offset);
      } else if (offset != counters_end) {
        contiguous = false;
      }
      if (field.length != 8) plan.all_u64 = false;
      ++plan.counter_count;
      counters_end = offset + field.length;
      step.kind = ExtractionPlan::kCounter;
    }
    plan.steps.push_back(step);
    offset += field.length;
  }
  // The fast path swaps one contiguous run of counters; a time field between
  // two counters breaks that run, so such records take the step-wise path.
  if (!contiguous) plan.all_u64 = false;
  plan.record_size = offset;
  plan.counter_bytes = plan.counter_count * 8;
  plan_valid_[slot] = true;
}

void IpfixSession::UpdateCachedFragmentCount() {
  uint64_t running = 0;
  uint64_t fragments = 0;
  uint64_t fields = 0;
  for (size_t slot = 0; slot < kCounterTemplateSlots; ++slot) {
    value_offsets_[slot] = running;
    if (!plan_valid_[slot]) continue;
    running += plans_[slot].counter_bytes;
    ++fragments;
    fields += plans_[slot].counter_count;
  }
  total_value_bytes_ = running;
  fragment_count_ = fragments;
  expected_fields_ = fields;
  UpdateMetadataComplete();
}

size_t IpfixSession::ExtractCounterValues(size_t slot, const uint8_t* data, size_t len, uint8_t* dest,
                                          size_t max_bytes, uint32_t* seconds,
                                          uint32_t* nanoseconds) const {
  const ExtractionPlan& plan = plans_[slot];
  if (plan.has_variable_length)
    return ExtractFieldByField(slot, data, len, dest, max_bytes, seconds, nanoseconds);

  if (plan.all_u64 && plan.record_size <= len) {
    if (seconds != nullptr && plan.has_seconds && plan.seconds_offset + 4u <= len)
      *seconds = LoadBe32(data + plan.seconds_offset);
    if (nanoseconds != nullptr && plan.has_nanoseconds && plan.nanoseconds_offset + 4u <= len)
      *nanoseconds = LoadBe32(data + plan.nanoseconds_offset);
    size_t n = plan.counter_count;
    if (n * 8 > max_bytes) n = max_bytes / 8;
    BswapU64Array(data + plan.first_counter_offset, dest, n);
    return n * 8;
  }

  size_t written = 0;
  for (const ExtractionStep& step : plan.steps) {
    if (static_cast<size_t>(step.offset) + step.length > len) break;
    const uint8_t* field = data + step.offset;
    if (step.kind == ExtractionPlan::kSeconds) {
      if (seconds != nullptr && step.length >= 4) *seconds = LoadBe32(field);
    } else if (step.kind == ExtractionPlan::kNanoseconds) {
      if (nanoseconds != nullptr && step.length >= 4) *nanoseconds = LoadBe32(field);
    } else {
      if (written + 8 > max_bytes) break;
      StoreU64(dest + written, LoadCounter(field, step.length));
      written += 8;
    }
  }
  return written;
}

// Templates with a variable-length field: the plan's offsets do not match the
// record, so the fields are located one by one. Variable-length fields carry
// no counter value, as in the plan. With dest null only the time is read.
size_t IpfixSession::ExtractFieldByField(size_t slot, const uint8_t* data, size_t len, uint8_t* dest,
                                         size_t max_bytes, uint32_t* seconds,
                                         uint32_t* nanoseconds) const {
  size_t offset = 0;
  size_t written = 0;
  for (const ParsedFieldSpecifier& spec : counter_templates_[slot].tmpl.fields) {
    const uint8_t* field = nullptr;
    size_t field_length = 0;
    const size_t consumed = ReadFieldPointer(spec, data, len, offset, &field, &field_length);
    if (consumed == 0 && spec.length != 0) break;
    offset += consumed;
    if (spec.length == kVariableLength) continue;
    if (spec.element_id == kElementSeconds) {
      if (seconds != nullptr && field_length >= 4) *seconds = LoadBe32(field);
    } else if (spec.element_id == kElementNanoseconds) {
      if (nanoseconds != nullptr && field_length >= 4) *nanoseconds = LoadBe32(field);
    } else if (dest != nullptr) {
      if (written + 8 > max_bytes) break;
      StoreU64(dest + written, LoadCounter(field, field_length));
      written += 8;
    }
  }
  return written;
}

void IpfixSession::ProcessCounterDataRecords(uint16_t set_id, const ParsedTemplate& /*tmpl*/,
                                             const uint8_t* body, size_t len, uint32_t /*export_time*/,
                                             uint32_t sequence_number) {
  // Samples that arrive before the schema is published have nowhere to go.
  if (!HasActiveSink() || !IsComplete()) return;

  const size_t slot = static_cast<size_t>(set_id) - kFirstCounterTemplateId;
  if (set_id < kFirstCounterTemplateId || slot >= kCounterTemplateSlots || !plan_valid_[slot]) {
    DTL_LOG_DEBUG("[IPFIX session] Session %s: no extraction plan for template %u", display_name_.c_str(),
                  static_cast<unsigned>(set_id));
    return;
  }
  if (fragment_count_ == 0) return;

  if (set_id != kFirstCounterTemplateId) {
    if (!sample_pending_ || pending_slot_ == nullptr) {
      DTL_LOG_DEBUG("[IPFIX session] Session %s: got template %u with no pending sample, discarding",
                    display_name_.c_str(), static_cast<unsigned>(set_id));
      return;
    }
    // Counting alone would let a late or reordered fragment of the next
    // sample complete this one with foreign values; a template seen twice
    // means the sample cannot be trusted.
    // The fragments of one sample are consecutive data records. A message
    // whose sequence number skips records means fragments were lost, and a
    // continuation of the next sample (whose opening fragment was lost too)
    // could otherwise complete this one. Exporters that leave the sequence
    // number constant simply never trip this check.
    if (sequence_number != pending_message_sequence_) {
      if (sequence_number != pending_message_sequence_ + pending_message_records_) {
        DTL_LOG_DEBUG("[IPFIX session] Session %s: sequence gap before template %u (expected %u, got %u), "
                      "discarding the sample",
                      display_name_.c_str(), static_cast<unsigned>(set_id),
                      static_cast<unsigned>(pending_message_sequence_ + pending_message_records_),
                      static_cast<unsigned>(sequence_number));
        DropPendingSample();
        return;
      }
      pending_message_sequence_ = sequence_number;
      pending_message_records_ = 0;
    }
    ++pending_message_records_;
    const uint32_t bit = 1u << slot;
    if ((received_slots_ & bit) != 0) {
      DTL_LOG_DEBUG("[IPFIX session] Session %s: template %u twice in one sample, discarding the sample",
                    display_name_.c_str(), static_cast<unsigned>(set_id));
      DropPendingSample();
      return;
    }
    received_slots_ |= bit;
    ExtractCounterValues(slot, body, len, pending_slot_ + value_offsets_[slot], plans_[slot].counter_bytes,
                         nullptr, nullptr);
    ++received_fragments_;
  } else {
    if (sample_pending_ && received_fragments_ != expected_fragments_) {
      DTL_LOG_DEBUG("[IPFIX session] Session %s: discarding incomplete sample (%zu/%zu fragments)",
                    display_name_.c_str(), static_cast<size_t>(received_fragments_),
                    static_cast<size_t>(expected_fragments_));
    }
    // The sink is not told: its next slot request hands out the same block.
    DropPendingSample();

    const ExtractionPlan& plan = plans_[0];
    uint32_t seconds = 0;
    uint32_t nanoseconds = 0;
    if (plan.has_variable_length) {
      ExtractFieldByField(0, body, len, nullptr, 0, &seconds, &nanoseconds);
    } else {
      if (plan.has_seconds && len >= plan.seconds_offset + 4u) seconds = LoadBe32(body + plan.seconds_offset);
      if (plan.has_nanoseconds && len >= plan.nanoseconds_offset + 4u)
        nanoseconds = LoadBe32(body + plan.nanoseconds_offset);
    }

    uint8_t* values = sink_->AcquireRecordValueSlot(worker_id_, key_, seconds, nanoseconds, total_value_bytes_);
    if (values == nullptr) return;

    sample_seconds_ = seconds;
    sample_nanoseconds_ = nanoseconds;
    expected_fragments_ = fragment_count_;
    sample_pending_ = true;
    pending_slot_ = values;
    ExtractCounterValues(0, body, len, values + value_offsets_[0], plan.counter_bytes, nullptr, nullptr);
    received_fragments_ = 1;
    received_slots_ = 1;
    pending_message_sequence_ = sequence_number;
    pending_message_records_ = 1;
  }

  if (sample_pending_ && received_fragments_ == expected_fragments_) {
    sink_->CommitRecord(worker_id_, key_, total_value_bytes_);
    ++records_written_;
    if (records_written_ % records_written_log_interval_ == 1) {
      DTL_LOG_INFO("[IPFIX session] ProcessCounterDataRecords: session=%s records_written=%llu",
                   display_name_.c_str(), static_cast<unsigned long long>(records_written_));
    }
    DropPendingSample();
  }
}

void IpfixSession::DropPendingSample() {
  sample_seconds_ = 0;
  sample_nanoseconds_ = 0;
  expected_fragments_ = 0;
  received_fragments_ = 0;
  received_slots_ = 0;
  pending_message_sequence_ = 0;
  pending_message_records_ = 0;
  sample_pending_ = false;
  pending_slot_ = nullptr;
}

}  // namespace dtl::ipfix
