// A session sink that records every call instead of storing anything. Safe
// to share between receive worker threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "storage/ipfix_session_sink.h"

class RecordingSink : public dtl::ipfix::IpfixSessionSink {
  template <typename F>
  auto Locked(F f) const {
    std::lock_guard lock(mutex_);
    return f();
  }

 public:
  struct SchemaUpdate { size_t worker_id; std::string key; dtl::ipfix::SchemaSnapshot snapshot; };
  // A sample: its session, its time and the slot's bytes at commit time.
  struct Commit { std::string key; uint32_t time_sec, time_nsec; std::vector<uint8_t> values; };

  bool Start() override { return true; }
  void Stop() override {}
  const std::string& root() const override { return root_; }
  void ProcessSchemaUpdate(size_t worker_id, const std::string& key,
                           const dtl::ipfix::SchemaSnapshot& snapshot) override {
    Locked([&] { schema_updates_.push_back({worker_id, key, snapshot}); });
  }
  uint8_t* AcquireRecordValueSlot(size_t, const std::string& key, uint32_t time_sec, uint32_t time_nsec,
                                  uint64_t values_size) override {
    return Locked([&]() -> uint8_t* {
      ++slot_requests_;
      slots_[key] = {key, time_sec, time_nsec, std::vector<uint8_t>(values_size)};
      return slots_[key].values.data();
    });
  }
  void CommitRecord(size_t, const std::string& key, uint64_t) override {
    Locked([&] { commits_.push_back(slots_[key]); });
  }
  void RemoveSession(size_t worker_id, const std::string& key) override {
    Locked([&] { removals_.emplace_back(worker_id, key); });
  }

  std::vector<SchemaUpdate> schema_updates() const { return Locked([&] { return schema_updates_; }); }
  size_t slot_requests() const { return Locked([&] { return slot_requests_; }); }
  std::vector<Commit> commits() const { return Locked([&] { return commits_; }); }
  std::vector<std::pair<size_t, std::string>> removals() const { return Locked([&] { return removals_; }); }

 private:
  // Sessions hand nothing to a sink without a root; nothing is written here.
  const std::string root_ = "/nonexistent/recording-sink";
  mutable std::mutex mutex_;
  size_t slot_requests_ = 0;
  std::vector<SchemaUpdate> schema_updates_;
  std::vector<Commit> commits_;
  std::vector<std::pair<size_t, std::string>> removals_;
  std::map<std::string, Commit> slots_;  // the block of each session
};
