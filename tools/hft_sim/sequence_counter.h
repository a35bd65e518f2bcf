// The sequence numbers one exporter (observation domain) puts in its message
// headers. Every message and data record the exporter produces is counted,
// also those the network loses later.
#pragma once

#include <cstdint>

#include "tools/hft_sim/sim_config.h"

namespace dtl::hftsim {

class SequenceCounter {
 public:
  explicit SequenceCounter(SequenceMode mode = SequenceMode::kRecords) : mode_(mode) {}

  // The number for the header of a message started now; counts the message.
  uint32_t BeginMessage() {
    const uint32_t number = mode_ == SequenceMode::kRecords    ? records_
                            : mode_ == SequenceMode::kMessages ? messages_
                                                               : SimConfig::kConstantSequence;
    ++messages_;
    return number;
  }

  // Data records written into the message begun last (modulo 2^32).
  void CountRecords(uint32_t records) { records_ += records; }

 private:
  SequenceMode mode_;
  uint32_t records_ = 0;
  uint32_t messages_ = 0;
};

}  // namespace dtl::hftsim
