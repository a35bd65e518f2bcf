// Counting discards and finding missing samples. The fast path (a sample one
// interval after the previous one) is inline in the header; only gaps, late
// samples and a smaller interval recount the run with a division.
#include "ipfix/sample_ledger.h"

#include <time.h>

#include <cstdio>
#include <utility>

#include "dtl_logger.h"

namespace dtl::ipfix {

std::string SampleTimeText(uint64_t time_ns) {
  const time_t seconds = static_cast<time_t>(time_ns / 1000000000ull);
  tm parts{};
  gmtime_r(&seconds, &parts);
  char text[48];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%06uZ", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                static_cast<unsigned>(time_ns % 1000000000ull / 1000));
  return text;
}

SampleLedger::SampleLedger(std::shared_ptr<SessionAccount> account)
    : account_(std::move(account)), name_(account_->exporter()) {}

void SampleLedger::OpenedAt(uint64_t t, bool loss_possible) {
  const bool gap = interval_ns_ != 0 && t > last_ns_ && t - last_ns_ > interval_ns_;
  if (!started_ || (gap && !loss_possible) || (t > last_ns_ && t - last_ns_ > kPauseNs) ||
      (t < first_ns_ && first_ns_ - t > kPauseNs)) {
    // A new run of sample times: what the last one missed stays counted.
    started_ = true;
    first_ns_ = last_ns_ = t;
    opened_ = 1;
    missing_ = 0;
    return;
  }
  if (t == last_ns_) return;  // the same sample again: no new one opened
  ++opened_;
  if (t > last_ns_) {
    const uint64_t step = t - last_ns_;
    last_ns_ = t;
    // The usual case: one interval on, nothing missing in between.
    if (step == interval_ns_) return;
    if (interval_ns_ == 0 || step < interval_ns_) interval_ns_ = step;
  } else if (t < first_ns_) {
    first_ns_ = t;
  }
  Recount();
}

void SampleLedger::Recount() {
  if (interval_ns_ == 0) return;
  const uint64_t expected = (last_ns_ - first_ns_ + interval_ns_ / 2) / interval_ns_ + 1;
  const int64_t missing = expected > opened_ ? static_cast<int64_t>(expected - opened_) : 0;
  if (missing == missing_) return;
  const int64_t total = account_->missing.load(std::memory_order_relaxed) + (missing - missing_);
  account_->missing.store(total, std::memory_order_relaxed);
  if (missing > missing_ && !warned_missing_) {
    warned_missing_ = true;
    Warn("samples missing (their first record or the whole sample was lost), the first before", last_ns_);
  }
  missing_ = missing;
}

void SampleLedger::Discarded(DiscardCause cause, uint32_t seconds, uint32_t nanoseconds) {
  account_->Discard(cause);
  bool& warned = warned_[static_cast<size_t>(cause)];
  if (warned) return;
  warned = true;
  const std::string what = std::string("sample discarded (") + DiscardCauseText(cause) + ") at";
  Warn(what.c_str(), uint64_t{seconds} * 1000000000ull + nanoseconds);
}

void SampleLedger::Warn(const char* what, uint64_t time_ns) {
  DTL_LOG_WARNING("[IPFIX session] %s: first %s sample time %s; later ones are counted in the status lines",
                  name_.c_str(), what, SampleTimeText(time_ns).c_str());
}

}  // namespace dtl::ipfix
