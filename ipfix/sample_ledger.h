// The books of one session's samples: every sample whose first record came
// ends either handed to storage or discarded with a cause, and samples that
// never showed up are found as holes in the exporter's regular run of sample
// times. The first discard of each cause is logged as a warning.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "storage/session_account.h"

namespace dtl::ipfix {

class SampleLedger {
 public:
  // A gap in sample time longer than this is the exporter pausing (export
  // stopped and restarted), not samples lost, whatever the numbering says.
  static constexpr uint64_t kPauseNs = 60ull * 1000000000ull;

  explicit SampleLedger(std::shared_ptr<SessionAccount> account);

  // A sample's first record arrived with its time: the sample will be
  // committed or discarded. Also finds the samples missing before it.
  // loss_possible: the exporter's numbering shows something lost since the
  // last sample opened (or cannot tell); without it a gap in sample time is
  // the exporter pausing, not samples lost.
  void Opened(uint32_t seconds, uint32_t nanoseconds, bool loss_possible) {
    const uint64_t t = uint64_t{seconds} * 1000000000ull + nanoseconds;
    // The usual case, inline: one interval after the previous sample.
    if (t > last_ns_ && t - last_ns_ == interval_ns_ && started_) {
      last_ns_ = t;
      ++opened_;
      return;
    }
    OpenedAt(t, loss_possible);
  }
  void Committed() { SessionAccount::Add(account_->committed, 1); }
  void Discarded(DiscardCause cause, uint32_t seconds, uint32_t nanoseconds);

  SessionAccount& account() { return *account_; }
  const std::shared_ptr<SessionAccount>& shared_account() const { return account_; }
  // The name log lines use: switch name (once known) and exporter.
  void set_name(const std::string& name) { name_ = name; }

 private:
  void OpenedAt(uint64_t t, bool loss_possible);
  // Missing samples of the current run of sample times, from its span, the
  // interval and the samples that opened in it.
  void Recount();
  void Warn(const char* what, uint64_t time_ns);

  std::shared_ptr<SessionAccount> account_;
  std::string name_;
  std::array<bool, kDiscardCauses> warned_{};
  bool warned_missing_ = false;
  bool started_ = false;
  uint64_t first_ns_ = 0;
  uint64_t last_ns_ = 0;
  uint64_t interval_ns_ = 0;  // smallest step seen between sample times
  uint64_t opened_ = 0;       // samples opened in the current run
  int64_t missing_ = 0;       // what the current run adds to the account
};

// "2026-11-24T09:30:52.123456Z" for a sample time.
std::string SampleTimeText(uint64_t time_ns);

}  // namespace dtl::ipfix
