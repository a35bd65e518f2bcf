// Learning how an exporter numbers its messages (per record, per message or
// constant) from the steps between consecutive sequence numbers.
#include "ipfix/sequence_tracker.h"

namespace dtl::ipfix {

namespace {

// A reordered message breaks a transition or two without making the
// numbering wrong, so misses lower a score instead of resetting it.
constexpr uint8_t kScoreCap = 32;

uint8_t Bump(uint8_t score, bool explained) {
  if (!explained) return score == 0 ? 0 : static_cast<uint8_t>(score - 1);
  return score >= kScoreCap ? kScoreCap : static_cast<uint8_t>(score + 1);
}

}  // namespace

void SequenceTracker::BeginMessage(uint32_t sequence_number) {
  if (in_message_) {
    // Unsigned arithmetic: numbers wrap at 2^32.
    const uint32_t step = sequence_number - sequence_;
    if (informative()) {
      // Records of a message that could not all be counted leave the
      // expected step unknown: taken as a jump.
      const uint32_t expected = numbering_ == Numbering::kPerMessage ? 1 : countable_ ? records_ : 0;
      if (static_cast<int32_t>(step - expected) > 0 || (numbering_ == Numbering::kPerRecord && !countable_))
        ++forward_jumps_;
    }
    per_record_run_ = Bump(per_record_run_, countable_ && step == records_);
    per_message_run_ = Bump(per_message_run_, step == 1);
    constant_run_ = Bump(constant_run_, step == 0);
    // One record per message cannot tell records from messages; both number
    // the records alike then, and records are preferred.
    if (per_record_run_ >= kLearnAfter)
      numbering_ = Numbering::kPerRecord;
    else if (per_message_run_ >= kLearnAfter)
      numbering_ = Numbering::kPerMessage;
    else if (constant_run_ >= kLearnAfter)
      numbering_ = Numbering::kConstant;
  }
  in_message_ = true;
  countable_ = true;
  sequence_ = sequence_number;
  records_ = 0;
}

}  // namespace dtl::ipfix
