// Reading the sessions' counters (relaxed atomics: a line may be a moment
// behind a worker, never torn in a way that loses counts) and writing the
// status lines.
#include "ipfix/session_status.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

#include "dtl_logger.h"

namespace dtl::ipfix {

namespace {

// "+12" or "-3": the change of a counter that may shrink (missing samples
// found late).
std::string Change(uint64_t now, uint64_t last) {
  char text[32];
  if (now >= last)
    std::snprintf(text, sizeof(text), "+%" PRIu64, now - last);
  else
    std::snprintf(text, sizeof(text), "-%" PRIu64, last - now);
  return text;
}

std::string Discards(const SessionStatusBoard::Figures& now, const SessionStatusBoard::Figures& last) {
  const uint64_t total = now.discarded_total();
  if (total == 0) return "nothing discarded";
  std::string text = "discarded " + std::to_string(total) + " (" + Change(total, last.discarded_total()) + "):";
  const char* separator = " ";
  for (size_t i = 0; i < kDiscardCauses; ++i) {
    if (now.discarded[i] == 0) continue;
    text += separator + std::to_string(now.discarded[i]) + " " + DiscardCauseText(static_cast<DiscardCause>(i)) +
            " (" + Change(now.discarded[i], last.discarded[i]) + ")";
    separator = ", ";
  }
  return text;
}

std::string Stored(const SessionStatusBoard::Figures& now, const SessionStatusBoard::Figures& last,
                   double seconds) {
  const uint64_t added = now.stored >= last.stored ? now.stored - last.stored : 0;
  char rate[32];
  std::snprintf(rate, sizeof(rate), "%.0f/s", seconds > 0 ? static_cast<double>(added) / seconds : 0.0);
  return std::to_string(now.stored) + " samples stored (" + Change(now.stored, last.stored) + ", " + rate + ")";
}

std::string Size(uint64_t bytes) {
  char text[32];
  if (bytes >= (1ull << 30))
    std::snprintf(text, sizeof(text), "%.1f GiB", static_cast<double>(bytes) / (1ull << 30));
  else if (bytes >= (1ull << 20))
    std::snprintf(text, sizeof(text), "%.1f MiB", static_cast<double>(bytes) / (1ull << 20));
  else
    std::snprintf(text, sizeof(text), "%.1f KiB", static_cast<double>(bytes) / 1024);
  return text;
}

// "leaf1 (192.0.2.1:4739/domain_7): 2897 samples stored (+1939, 1939/s); ..."
std::string SessionLine(const std::string& switch_name, const std::string& exporter,
                        const SessionStatusBoard::Figures& now, const SessionStatusBoard::Figures& last,
                        double seconds, const std::string& file, uint64_t file_bytes) {
  std::string line = (switch_name.empty() ? std::string("unnamed switch") : switch_name) + " (" + exporter +
                     "): " + Stored(now, last, seconds) + "; " + Discards(now, last) + "; " +
                     std::to_string(now.datagrams) + " datagrams (" + Change(now.datagrams, last.datagrams) +
                     "); kernel drops on its socket " + std::to_string(now.kernel_drops) + " (" +
                     Change(now.kernel_drops, last.kernel_drops) + ")";
  if (!file.empty()) line += "; file " + file + " (" + Size(file_bytes) + ")";
  return line;
}

void AddUp(SessionStatusBoard::Figures& sum, const SessionStatusBoard::Figures& f) {
  sum.stored += f.stored;
  for (size_t i = 0; i < kDiscardCauses; ++i) sum.discarded[i] += f.discarded[i];
  sum.datagrams += f.datagrams;
  sum.bytes += f.bytes;
  sum.files += f.files;
}

}  // namespace

uint64_t SessionStatusBoard::Figures::discarded_total() const {
  uint64_t total = 0;
  for (uint64_t n : discarded) total += n;
  return total;
}

void SessionStatusBoard::Add(std::shared_ptr<SessionAccount> account) {
  std::lock_guard lock(mutex_);
  entries_.push_back(Entry{std::move(account), Figures{}});
  ++sessions_seen_;
}

SessionStatusBoard::Figures SessionStatusBoard::Read(const SessionAccount& account,
                                                     const std::vector<uint64_t>& kernel_drops) {
  Figures f;
  f.stored = account.stored();
  for (size_t i = 0; i < kDiscardCauses; ++i) f.discarded[i] = SessionAccount::Get(account.discarded[i]);
  // Samples that never showed up were lost on the way like a fragment.
  const int64_t missing = account.missing.load(std::memory_order_relaxed);
  if (missing > 0) f.discarded[static_cast<size_t>(DiscardCause::kFragmentLost)] += static_cast<uint64_t>(missing);
  f.datagrams = SessionAccount::Get(account.datagrams);
  f.bytes = SessionAccount::Get(account.bytes);
  f.files = SessionAccount::Get(account.files);
  if (account.worker() < kernel_drops.size()) f.kernel_drops = kernel_drops[account.worker()];
  return f;
}

void SessionStatusBoard::Report(const std::vector<uint64_t>& kernel_drops, bool final_report) {
  std::lock_guard lock(mutex_);
  const auto now_time = std::chrono::steady_clock::now();
  const double seconds = std::chrono::duration<double>(now_time - last_report_).count();
  last_report_ = now_time;
  const char* heading = final_report ? "Final status" : "Status";

  Figures total = departed_;
  for (auto it = entries_.begin(); it != entries_.end();) {
    const SessionAccount& account = *it->account;
    // Read closed first: a session that closes meanwhile is read once more.
    const bool closed = account.closed.load(std::memory_order_relaxed);
    const Figures now = Read(account, kernel_drops);
    DTL_LOG_INFO("[IPFIX status] %s: %s%s", heading,
                 SessionLine(account.switch_name(), account.exporter(), now, it->last, seconds, account.file(),
                             SessionAccount::Get(account.file_bytes))
                     .c_str(),
                 closed && !final_report ? " (session ended)" : "");
    AddUp(total, now);
    if (closed) {
      AddUp(departed_, now);
      it = entries_.erase(it);
    } else {
      it->last = now;
      ++it;
    }
  }
  for (uint64_t drops : kernel_drops) total.kernel_drops += drops;

  char rate[32];
  const uint64_t added = total.stored >= total_last_.stored ? total.stored - total_last_.stored : 0;
  std::snprintf(rate, sizeof(rate), "%.0f/s", seconds > 0 ? static_cast<double>(added) / seconds : 0.0);
  DTL_LOG_INFO("[IPFIX status] %s: collector: %zu session(s) open, %zu seen; %" PRIu64 " samples stored (%s, %s); %s; %" PRIu64
               " datagrams (%s); kernel drops %" PRIu64 " (%s); %" PRIu64 " data file(s) written",
               heading, entries_.size(), sessions_seen_, total.stored, Change(total.stored, total_last_.stored).c_str(), rate,
               Discards(total, total_last_).c_str(), total.datagrams,
               Change(total.datagrams, total_last_.datagrams).c_str(), total.kernel_drops,
               Change(total.kernel_drops, total_last_.kernel_drops).c_str(), total.files);
  total_last_ = total;
}

}  // namespace dtl::ipfix
