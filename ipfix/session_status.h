// The collector's status report: one line per exporter session (switch,
// exporter, samples stored and their rate, discarded by cause, kernel drops,
// current file) and one line for the whole collector, each with the change
// since the last report and the totals.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "storage/session_account.h"

namespace dtl::ipfix {

class SessionStatusBoard {
 public:
  // What one line reports; the board keeps the last one to print changes.
  struct Figures {
    uint64_t stored = 0;
    std::array<uint64_t, kDiscardCauses> discarded{};
    uint64_t datagrams = 0;
    uint64_t bytes = 0;
    uint64_t kernel_drops = 0;
    uint64_t files = 0;
    uint64_t discarded_total() const;
  };

  // A new session; called by its worker thread.
  void Add(std::shared_ptr<SessionAccount> account);

  // Logs a line for every session and the total line. kernel_drops holds
  // each worker socket's drop count. Sessions that closed get their last
  // line and leave the board. final_report says "final" in the lines.
  void Report(const std::vector<uint64_t>& kernel_drops, bool final_report);

 private:
  struct Entry {
    std::shared_ptr<SessionAccount> account;
    Figures last;
  };
  static Figures Read(const SessionAccount& account, const std::vector<uint64_t>& kernel_drops);

  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  Figures departed_;     // sums of the sessions that left the board
  size_t sessions_seen_ = 0;
  Figures total_last_;   // the total at the last report
  std::chrono::steady_clock::time_point last_report_ = std::chrono::steady_clock::now();
};

}  // namespace dtl::ipfix
