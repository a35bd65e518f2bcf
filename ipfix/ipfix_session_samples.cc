// Counter samples: the assembly of up to 32 fragments into one slot lent by
// the sink, with samples set aside while a late one completes, and the
// account of every sample stored or discarded.
#include <algorithm>
#include <cstring>
#include <utility>

#include "dtl_logger.h"
#include "ipfix/ipfix_session.h"

namespace dtl::ipfix {

// How a sample is put together. The exporter splits each sample over the
// records of its counter templates (300, 301, ...); only template 300 carries
// the sample's time, and each template appears once per sample. A fragment
// is placed by its template, so the order in which a sample's fragments
// arrive does not matter: one that arrives before its sample's first record
// waits in a stash.
//
// Counting templates alone would let a later sample's fragment complete a
// sample whose own fragment was lost (when the later sample's first record
// was lost too). Sequence numbers are the evidence against that. Once the
// session has learnt how its exporter numbers (per data record, per message,
// or not at all), a sample is checked: a fragment joins it only when every
// record number from the sample's first record up to the fragment's has
// been seen. A fragment behind a gap waits in the stash: the gap may be a
// reordered record that fills it a moment later (then the fragment joins),
// or a loss (then it is left for the sample it belongs to, or dropped).
//
// While the numbering is not known, or when it says nothing (a constant),
// nothing tells an early fragment of the next sample from a leftover of one
// whose first record was lost: fragments are then taken only while their
// sample is open, a template seen twice ends the sample, and a lost last
// fragment followed by a lost first record of the next sample in the same
// slots cannot be told from a whole sample.
RecordNumber IpfixSession::NumberRecord() {
  const RecordNumber number = sequence_.NextRecord();
  if (!number) return number;
  history_.Note(*number);
  // Waiting fragments join only after this record itself was placed: it
  // may be the sample's own fragment for their slot.
  if (sample_pending_ && span_checked_ && span_known_)
    while (history_.Seen(contiguous_ + 1)) ++contiguous_;
  return number;
}

void IpfixSession::NumberDescriptiveRecords(const ParsedTemplate& tmpl, const uint8_t* body, size_t len) {
  size_t offset = 0;
  while (offset < len) {
    const size_t before = offset;
    if (!ReadRecord(tmpl, body, len, offset) || offset == before) break;
    NumberRecord();
  }
  // A descriptive record that filled a gap lets waiting fragments join.
  if (stashed_slots_ != 0) {
    AbsorbStash();
    CompleteIfWhole();
  }
}

void IpfixSession::ProcessCounterSet(size_t slot, const uint8_t* body, size_t len) {
  const ExtractionPlan& plan = plans_[slot];
  // Samples that arrive before the schema is published have nowhere to go,
  // but their records still count for the numbering.
  const bool store = HasActiveSink() && IsComplete() && fragment_count_ != 0 && plan_valid_[slot];
  size_t offset = 0;
  bool first = true;
  while (offset < len) {
    size_t record_length = 0;
    if (plan.has_variable_length) {
      size_t end = offset;
      if (ReadRecord(counter_templates_[slot].tmpl, body, len, end) && end > offset)
        record_length = end - offset;
      else if (first)
        record_length = len - offset;
    } else if (plan.record_size != 0) {
      record_length = plan.record_size <= len - offset ? plan.record_size : first ? len - offset : 0;
    }
    // What is left after whole records is the set's padding.
    if (record_length == 0) break;
    const RecordNumber number = NumberRecord();
    if (store) {
      AcceptFragment(slot, body + offset, record_length, number);
    } else if (slot == 0 && plan_valid_[0] && HasActiveSink()) {
      // A sample before the exporter's names and metadata are all known has
      // nowhere to go; it is counted, not silently lost.
      uint32_t seconds = 0;
      uint32_t nanoseconds = 0;
      if (ReadSampleTime(body + offset, record_length, &seconds, &nanoseconds)) {
        ledger_.Opened(seconds, nanoseconds, LossSinceLastOpen());
        ledger_.Discarded(DiscardCause::kTemplate, seconds, nanoseconds);
      }
    }
    if (number) {
      last_number_[slot] = *number;
      numbered_slots_ |= 1u << slot;
    }
    offset += record_length;
    first = false;
  }
}

void IpfixSession::AcceptFragment(size_t slot, const uint8_t* record, size_t len,
                                  RecordNumber number) {
  if (slot == 0) {
    if (OpenSample(record, len, number)) CompleteIfWhole();
    return;
  }
  const uint32_t bit = 1u << slot;
  if (sample_pending_ && span_checked_) {
    if ((received_slots_ & bit) == 0 && number && Joinable(slot, *number)) {
      AddToSample(slot, record, len, number);
      AbsorbStash();
      CompleteIfWhole();
    } else if (!number || !OfferToParked(slot, record, len, *number)) {
      Stash(slot, record, len, number);
    }
    return;
  }
  if (sample_pending_ && (received_slots_ & bit) == 0) {
    AddToSample(slot, record, len, number);
    CompleteIfWhole();
    return;
  }
  if (sample_pending_) {
    DTL_LOG_DEBUG("[IPFIX session] Session %s: template %u again before the sample was complete, "
                  "discarding the sample",
                  display_name_.c_str(), static_cast<unsigned>(kFirstCounterTemplateId + slot));
    DiscardPending(DiscardCause::kFragmentLost);
  }
  // With numbers that can place it, a fragment waits for its sample.
  if (sequence_.informative()) Stash(slot, record, len, number);
}

bool IpfixSession::OpenSample(const uint8_t* record, size_t len, RecordNumber number) {
  // The first record of an older sample, late behind a newer one: the newer
  // one steps aside until the older one is complete or given up, so that
  // blocks stay in time order and neither is lost to the reordering.
  // An older sample that waited beside the pending one had its chance.
  if (parked_.older) DiscardParked(DiscardCause::kFragmentLost);
  // A late older sample in the block had its chance: the newer one set
  // aside comes back, and is judged below like any pending sample.
  if (sample_pending_ && parked_.active) {
    DiscardPending(DiscardCause::kFragmentLost);
    Unpark();
  }
  const bool checkable = sample_pending_ && span_checked_ && span_known_ && number;
  const bool older = checkable && static_cast<int32_t>(*number - span_low_) < 0;
  // A newer sample while records before it are still missing: the pending
  // one may yet get its late fragment, and waits beside.
  const bool waiting = checkable && !older && static_cast<int32_t>(*number - (contiguous_ + 1)) > 0;
  if (older) {
    Park(false);
  } else if (waiting) {
    Park(true);
  }
  if (sample_pending_) {
    DTL_LOG_DEBUG("[IPFIX session] Session %s: discarding incomplete sample (%d of %d fragments)",
                  display_name_.c_str(), __builtin_popcount(received_slots_),
                  __builtin_popcount(expected_slots_));
    // The sink is not told: its next slot request hands out the same block.
    DiscardPending(DiscardCause::kFragmentLost);
  }
  uint32_t seconds = 0;
  uint32_t nanoseconds = 0;
  if (!ReadSampleTime(record, len, &seconds, &nanoseconds)) {
    DTL_LOG_DEBUG("[IPFIX session] Session %s: first record of a sample without its time, discarding it",
                  display_name_.c_str());
    return false;
  }

  ledger_.Opened(seconds, nanoseconds, LossSinceLastOpen());
  uint8_t* values = sink_->AcquireRecordValueSlot(worker_id_, key_, seconds, nanoseconds, total_value_bytes_);
  if (values == nullptr) {
    ledger_.Discarded(DiscardCause::kNoSlot, seconds, nanoseconds);
    Unpark();
    return false;
  }
  pending_seconds_ = seconds;
  pending_nanoseconds_ = nanoseconds;
  sample_pending_ = true;
  pending_slot_ = values;
  received_slots_ = 0;
  expected_slots_ = layout_slots_;
  span_checked_ = sequence_.informative();
  span_known_ = number.has_value();
  if (number) span_low_ = contiguous_ = *number;
  AddToSample(0, record, len, number);

  if (span_checked_) {
    // Records after this one may have come first (reordered).
    while (span_known_ && history_.Seen(contiguous_ + 1)) ++contiguous_;
    AbsorbStash();
  } else {
    ClearStash();
  }
  return sample_pending_;
}

void IpfixSession::ClearStash() { stashed_slots_ = 0; }

// Whether a fragment numbered number can join the pending sample: sent
// after its first record (records of one message share a message number,
// and a message keeps the order the exporter wrote), no fragment of the same
// template seen in between, and the records in between all seen. With
// record numbers one record in between may be missing: a foreign fragment
// needs the sample's own fragment and the next sample's first record lost,
// two numbers. A message number may stand for several records: none may
// be missing there.
bool IpfixSession::Joinable(size_t slot, uint32_t number) const {
  if (!span_known_) return false;
  const bool per_message = sequence_.numbering() == SequenceTracker::Numbering::kPerMessage;
  if (static_cast<int32_t>(number - span_low_) < (per_message ? 0 : 1)) return false;
  if (SeenOwnBefore(slot, number)) return false;
  if (static_cast<int32_t>(number - contiguous_) <= 0) return true;
  const uint32_t allowed = per_message ? 0 : 1;
  uint32_t missing = 0;
  for (uint32_t n = contiguous_ + 1; n != number; ++n) {
    if (n - contiguous_ > RecordHistory::kSize) return false;
    if (!history_.Seen(n) && ++missing > allowed) return false;
  }
  return true;
}

// Whether a fragment of template slot, numbered after this sample's first
// record and before number, was seen already: then that one was the
// sample's own (even if it could not join), and a later one is not.
bool IpfixSession::SeenOwnBefore(size_t slot, uint32_t number) const {
  if ((numbered_slots_ & (1u << slot)) == 0) return false;
  const uint32_t last = last_number_[slot];
  return static_cast<int32_t>(last - span_low_) > 0 && static_cast<int32_t>(last - number) < 0;
}

void IpfixSession::AbsorbStash() {
  if (!sample_pending_ || !span_checked_ || !span_known_) return;
  for (size_t slot = 1; slot < kCounterTemplateSlots && stashed_slots_ != 0; ++slot) {
    const uint32_t bit = 1u << slot;
    if ((stashed_slots_ & bit) == 0) continue;
    // Of the fragments waiting for this template, the first one sent after
    // this sample's first record is the sample's own.
    StashedFragment* best = nullptr;
    int32_t best_after = 0;
    bool left = false;
    for (StashedFragment& entry : stash_[slot]) {
      if (!entry.used) continue;
      const int32_t after_first = entry.number ? static_cast<int32_t>(*entry.number - span_low_) : 0;
      if (!entry.number || after_first < -static_cast<int32_t>(RecordHistory::kSize)) {
        // Far older than this sample: its own sample is gone.
        entry.used = false;
        continue;
      }
      left = true;
      // Sent before this sample's first record (it may be for a sample whose
      // first record is late), behind a gap, or after this sample's own.
      // A stashed fragment with the first record's own message number came
      // before that record in the message: an earlier sample's.
      if (after_first <= 0 || (received_slots_ & bit) != 0 || !Joinable(slot, *entry.number)) continue;
      if (best == nullptr || after_first < best_after) {
        best = &entry;
        best_after = after_first;
      }
    }
    if (best != nullptr) {
      AddToSample(slot, best->bytes.data(), best->bytes.size(), best->number);
      best->used = false;
      left = std::any_of(stash_[slot].begin(), stash_[slot].end(), [](const StashedFragment& e) { return e.used; });
    }
    if (!left) stashed_slots_ &= ~bit;
  }
}

void IpfixSession::AddToSample(size_t slot, const uint8_t* record, size_t len, RecordNumber number) {
  if (!number) span_known_ = false;
  received_slots_ |= 1u << slot;
  const uint64_t bytes = plans_[slot].counter_bytes;
  uint8_t* dest = pending_slot_ + value_offsets_[slot];
  const size_t written = ExtractCounterValues(slot, record, len, dest, bytes, nullptr, nullptr);
  // A value the record did not carry is 0, never what the slot held before.
  if (written < bytes) std::memset(dest + written, 0, bytes - written);
}

void IpfixSession::Stash(size_t slot, const uint8_t* record, size_t len, RecordNumber number) {
  // A free entry, else the one sent earliest gives way.
  std::array<StashedFragment, kStashDepth>& entries = stash_[slot];
  if ((stashed_slots_ & (1u << slot)) == 0)
    for (StashedFragment& e : entries) e.used = false;
  StashedFragment* target = &entries[0];
  for (StashedFragment& e : entries) {
    if (!e.used) {
      target = &e;
      break;
    }
    if (!target->number || (e.number && static_cast<int32_t>(*e.number - *target->number) < 0)) target = &e;
  }
  StashedFragment& entry = *target;
  entry.used = true;
  entry.number = number;
  entry.bytes.assign(record, record + len);
  stashed_slots_ |= 1u << slot;
}

void IpfixSession::CompleteIfWhole() {
  if (!sample_pending_ || received_slots_ != expected_slots_) return;
  if (span_checked_ && !span_known_) {
    DTL_LOG_DEBUG("[IPFIX session] Session %s: a fragment of the sample could not be numbered, discarding it",
                  display_name_.c_str());
    DiscardPending(DiscardCause::kFragmentLost);
    return;
  }
  Commit();
}

void IpfixSession::Commit() {
  // Blocks go out in time order: an older sample still waiting is given up.
  if (parked_.older) DiscardParked(DiscardCause::kFragmentLost);
  sink_->CommitRecord(worker_id_, key_, total_value_bytes_);
  ledger_.Committed();
  DropPendingSample();
  Unpark();
}

void IpfixSession::Park(bool older) {
  parked_.active = true;
  parked_.older = older;
  parked_.seconds = pending_seconds_;
  parked_.nanoseconds = pending_nanoseconds_;
  parked_.received_slots = received_slots_;
  parked_.expected_slots = expected_slots_;
  parked_.span_low = span_low_;
  parked_.contiguous = contiguous_;
  parked_.span_known = span_known_;
  parked_.values.assign(pending_slot_, pending_slot_ + total_value_bytes_);
  parked_.slot = parked_.values.data();
  // The sink's block is taken over by the older sample.
  sample_pending_ = false;
  pending_slot_ = nullptr;
}

void IpfixSession::ExchangeWithParked() {
  std::swap(received_slots_, parked_.received_slots);
  std::swap(expected_slots_, parked_.expected_slots);
  std::swap(span_low_, parked_.span_low);
  std::swap(contiguous_, parked_.contiguous);
  std::swap(span_known_, parked_.span_known);
  std::swap(pending_seconds_, parked_.seconds);
  std::swap(pending_nanoseconds_, parked_.nanoseconds);
  std::swap(pending_slot_, parked_.slot);
}

bool IpfixSession::OfferToParked(size_t slot, const uint8_t* record, size_t len, uint32_t number) {
  if (!parked_.active || !parked_.older) return false;
  const bool pending = sample_pending_;
  ExchangeWithParked();
  sample_pending_ = true;
  while (span_known_ && history_.Seen(contiguous_ + 1)) ++contiguous_;
  const bool took = (received_slots_ & (1u << slot)) == 0 && Joinable(slot, number);
  if (took) AddToSample(slot, record, len, RecordNumber(number));
  const bool whole = took && span_known_ && received_slots_ == expected_slots_;
  ExchangeWithParked();
  sample_pending_ = pending;
  if (whole) CommitParkedFirst();
  return took;
}

void IpfixSession::CommitParkedFirst() {
  if (parked_.values.size() != total_value_bytes_) {
    DiscardParked(DiscardCause::kTemplate);
    return;
  }
  if (sample_pending_) scratch_.assign(pending_slot_, pending_slot_ + total_value_bytes_);
  // The sink hands out the block not yet committed again, now for the
  // older sample's time.
  uint8_t* block = sink_->AcquireRecordValueSlot(worker_id_, key_, parked_.seconds, parked_.nanoseconds,
                                                 total_value_bytes_);
  if (block == nullptr) {
    DiscardParked(DiscardCause::kNoSlot);
    DiscardPending(DiscardCause::kNoSlot);
    return;
  }
  parked_.active = false;
  std::memcpy(block, parked_.values.data(), total_value_bytes_);
  sink_->CommitRecord(worker_id_, key_, total_value_bytes_);
  ledger_.Committed();
  if (!sample_pending_) return;
  uint8_t* again =
      sink_->AcquireRecordValueSlot(worker_id_, key_, pending_seconds_, pending_nanoseconds_, total_value_bytes_);
  if (again == nullptr) {
    DiscardPending(DiscardCause::kNoSlot);
    return;
  }
  std::memcpy(again, scratch_.data(), total_value_bytes_);
  pending_slot_ = again;
}

void IpfixSession::Unpark() {
  if (!parked_.active || parked_.older) return;
  if (sample_pending_ || parked_.values.size() != total_value_bytes_) {
    DiscardParked(sample_pending_ ? DiscardCause::kFragmentLost : DiscardCause::kTemplate);
    return;
  }
  uint8_t* values = sink_->AcquireRecordValueSlot(worker_id_, key_, parked_.seconds, parked_.nanoseconds,
                                                  total_value_bytes_);
  if (values == nullptr) {
    DiscardParked(DiscardCause::kNoSlot);
    return;
  }
  parked_.active = false;
  std::memcpy(values, parked_.values.data(), parked_.values.size());
  pending_slot_ = values;
  pending_seconds_ = parked_.seconds;
  pending_nanoseconds_ = parked_.nanoseconds;
  sample_pending_ = true;
  span_checked_ = true;
  received_slots_ = parked_.received_slots;
  expected_slots_ = parked_.expected_slots;
  span_low_ = parked_.span_low;
  contiguous_ = parked_.contiguous;
  span_known_ = parked_.span_known;
  while (span_known_ && history_.Seen(contiguous_ + 1)) ++contiguous_;
  // Its fragments that came meanwhile wait in the stash.
  AbsorbStash();
  CompleteIfWhole();
}

void IpfixSession::DiscardPending(DiscardCause cause) {
  if (sample_pending_) ledger_.Discarded(cause, pending_seconds_, pending_nanoseconds_);
  DropPendingSample();
}

void IpfixSession::DiscardParked(DiscardCause cause) {
  if (!parked_.active) return;
  parked_.active = false;
  ledger_.Discarded(cause, parked_.seconds, parked_.nanoseconds);
}

void IpfixSession::Close() {
  if (closed_) return;
  closed_ = true;
  // What is still being assembled when the session ends will not complete.
  DiscardPending(DiscardCause::kFragmentLost);
  DiscardParked(DiscardCause::kFragmentLost);
  ledger_.account().closed.store(true, std::memory_order_relaxed);
}

void IpfixSession::DropPendingSample() {
  received_slots_ = 0;
  expected_slots_ = 0;
  span_known_ = false;
  span_checked_ = false;
  sample_pending_ = false;
  pending_slot_ = nullptr;
}

}  // namespace dtl::ipfix
