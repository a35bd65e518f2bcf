// What became of one exporter session's traffic and samples: counted by
// reception and by storage on the session's worker thread, read at any time
// by the status report. Part of the seam between reception and storage.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace dtl::ipfix {

// Why a sample was not stored.
enum class DiscardCause : uint8_t {
  kFragmentLost,   // a record of the sample never came (or the whole sample)
  kTemplate,       // its template was missing, withdrawn or changed meanwhile
  kNoSlot,         // storage had no room for it (no schema yet, pages busy)
  kStorageError,   // storage took it but could not write it
};
inline constexpr size_t kDiscardCauses = 4;

inline const char* DiscardCauseText(DiscardCause cause) {
  switch (cause) {
    case DiscardCause::kFragmentLost: return "fragment lost";
    case DiscardCause::kTemplate: return "template missing or changed";
    case DiscardCause::kNoSlot: return "no room in storage";
    case DiscardCause::kStorageError: return "storage error";
  }
  return "unknown";
}

class SessionAccount {
 public:
  // One writer per counter (the session's worker thread): a relaxed load
  // and store, without the locked read-modify-write of fetch_add.
  static void Add(std::atomic<uint64_t>& counter, uint64_t n) {
    counter.store(counter.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
  }
  static uint64_t Get(const std::atomic<uint64_t>& counter) { return counter.load(std::memory_order_relaxed); }

  SessionAccount(size_t worker, std::string exporter) : worker_(worker), exporter_(std::move(exporter)) {}

  std::atomic<uint64_t> datagrams{0};
  std::atomic<uint64_t> bytes{0};
  std::atomic<uint64_t> committed{0};  // samples handed to storage whole
  std::array<std::atomic<uint64_t>, kDiscardCauses> discarded{};
  // Samples absent from the exporter's regular run of sample times (their
  // first record was lost, or all of them); may shrink when a late one comes.
  std::atomic<int64_t> missing{0};
  std::atomic<uint64_t> files{0};       // data files started
  std::atomic<uint64_t> file_bytes{0};  // size of the current data file
  std::atomic<bool> closed{false};      // the session is gone

  void Discard(DiscardCause cause, uint64_t n = 1) { Add(discarded[static_cast<size_t>(cause)], n); }
  uint64_t discarded_by(DiscardCause cause) const { return Get(discarded[static_cast<size_t>(cause)]); }
  // Samples on their way to disk: whole, minus those storage failed to write.
  uint64_t stored() const {
    const uint64_t lost = discarded_by(DiscardCause::kStorageError);
    const uint64_t whole = Get(committed);
    return whole > lost ? whole - lost : 0;
  }

  size_t worker() const { return worker_; }
  // "[2001:db8::1]:4739 domain 7": fixed for the session's life.
  const std::string& exporter() const { return exporter_; }

  void set_switch_name(const std::string& name) {
    std::lock_guard lock(mutex_);
    switch_name_ = name;
  }
  std::string switch_name() const {
    std::lock_guard lock(mutex_);
    return switch_name_;
  }
  void set_file(const std::string& path) {
    std::lock_guard lock(mutex_);
    file_ = path;
  }
  std::string file() const {
    std::lock_guard lock(mutex_);
    return file_;
  }

 private:
  const size_t worker_;
  const std::string exporter_;
  mutable std::mutex mutex_;
  std::string switch_name_;
  std::string file_;
};

}  // namespace dtl::ipfix
