// What an exporter's message sequence numbers say about loss. Exporters
// number legally in different ways: every data record of the domain (the
// IPFIX rule), every message, or not at all (a constant). SequenceTracker
// learns which one a session's exporter uses from consecutive messages and
// numbers each data record accordingly; RecordHistory remembers the recent
// numbers, so that a fragment can be checked for a missing number between
// its sample's first record and itself: the evidence that a lost record may
// have let another sample's fragment in.
#pragma once

#include <cstdint>

namespace dtl::ipfix {

// A data record's number, or none when the numbering gives records none.
// One 64-bit word: it is passed along every record, and an optional's value
// and flag, stored apart and read back as one word, stall the store buffer.
class RecordNumber {
 public:
  constexpr RecordNumber() = default;
  constexpr explicit RecordNumber(uint32_t number) : bits_(number) {}
  constexpr explicit operator bool() const { return bits_ != kNone; }
  constexpr bool has_value() const { return bits_ != kNone; }
  constexpr uint32_t operator*() const { return static_cast<uint32_t>(bits_); }

 private:
  static constexpr uint64_t kNone = UINT64_MAX;
  uint64_t bits_ = kNone;
};

class SequenceTracker {
 public:
  enum class Numbering : uint8_t { kUnknown, kPerRecord, kPerMessage, kConstant };

  // Score (transitions explained minus transitions not explained) one way
  // of numbering must reach before it is believed; a numbering once learnt
  // stays until another one scores as well.
  static constexpr uint8_t kLearnAfter = 4;

  // A message begins; its header carried sequence_number.
  void BeginMessage(uint32_t sequence_number);
  // A data record of the current message whose length is unknown (no
  // template yet): the records after it in the message cannot be numbered.
  void SkipUncountable() { countable_ = false; }
  // The number of the current message's next data record, when the learnt
  // numbering gives records numbers (record numbering: message number +
  // position; message numbering: the message's number). Advances.
  RecordNumber NextRecord() {
    const uint32_t position = records_++;
    if (numbering_ == Numbering::kPerRecord && countable_ && in_message_) return RecordNumber(sequence_ + position);
    if (numbering_ == Numbering::kPerMessage && in_message_) return RecordNumber(sequence_);
    return RecordNumber();
  }

  Numbering numbering() const { return numbering_; }
  bool informative() const {
    return numbering_ == Numbering::kPerRecord || numbering_ == Numbering::kPerMessage;
  }
  // Messages whose number was further on than the learnt numbering expects:
  // something in between was lost (or is late). A number that goes back, as
  // an exporter's does when it restarts, is no jump.
  uint64_t forward_jumps() const { return forward_jumps_; }

 private:
  Numbering numbering_ = Numbering::kUnknown;
  bool in_message_ = false;
  bool countable_ = true;
  uint32_t sequence_ = 0;  // current message's number
  uint32_t records_ = 0;   // data records of the current message so far
  // Scores of the ways of numbering over the transitions seen.
  uint8_t per_record_run_ = 0;
  uint8_t per_message_run_ = 0;
  uint8_t constant_run_ = 0;
  uint64_t forward_jumps_ = 0;
};

class RecordHistory {
 public:
  // How many of the most recent numbers are remembered.
  static constexpr uint32_t kSize = 128;

  void Note(uint32_t number) { seen_[number % kSize] = number; }
  bool Seen(uint32_t number) const { return seen_[number % kSize] == number; }

 private:
  // seen_[n % kSize] == n when n was noted; the initial values match nothing.
  uint32_t seen_[kSize] = {};

 public:
  RecordHistory() {
    for (uint32_t i = 0; i < kSize; ++i) seen_[i] = i + 1;
  }
};

}  // namespace dtl::ipfix
