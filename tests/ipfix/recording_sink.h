// A session sink that records every call instead of writing files. Safe to
// share between receive worker threads.
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
 public:
  struct SchemaUpdate {
    size_t worker_id = 0;
    std::string key;
    std::string display_name;
    uint32_t domain_id = 0;
    dtl::ipfix::SchemaSnapshot snapshot;
  };
  struct SlotRequest {
    size_t worker_id = 0;
    std::string key;
    uint32_t time_sec = 0;
    uint32_t time_nsec = 0;
    uint64_t values_size = 0;
  };
  struct Commit {
    size_t worker_id = 0;
    std::string key;
    uint64_t values_size = 0;
    std::vector<uint8_t> values;  // the slot's bytes at commit time
  };

  explicit RecordingSink(std::string root = "/nonexistent/recording-sink") : root_(std::move(root)) {}

  bool Start() override {
    std::lock_guard lock(mutex_);
    ++starts_;
    return true;
  }
  void Stop() override {
    std::lock_guard lock(mutex_);
    ++stops_;
  }
  const std::string& root() const override { return root_; }

  void ProcessSchemaUpdate(size_t worker_id, const std::string& key,
                           const dtl::ipfix::SchemaSnapshot& snapshot) override {
    std::lock_guard lock(mutex_);
    schema_updates_.push_back({worker_id, key, snapshot.display_name, snapshot.observation_domain_id, snapshot});
  }

  uint8_t* AcquireRecordValueSlot(size_t worker_id, const std::string& key, uint32_t time_sec,
                                  uint32_t time_nsec, uint64_t values_size) override {
    std::lock_guard lock(mutex_);
    slot_requests_.push_back({worker_id, key, time_sec, time_nsec, values_size});
    if (drop_samples_) return nullptr;
    std::vector<uint8_t>& buffer = buffers_[key];
    buffer.assign(values_size, 0);
    return buffer.data();
  }

  void CommitRecord(size_t worker_id, const std::string& key, uint64_t values_size) override {
    std::lock_guard lock(mutex_);
    const auto it = buffers_.find(key);
    commits_.push_back({worker_id, key, values_size, it != buffers_.end() ? it->second : std::vector<uint8_t>{}});
  }

  void RemoveSession(size_t worker_id, const std::string& key) override {
    std::lock_guard lock(mutex_);
    removals_.emplace_back(worker_id, key);
  }

  // While set, every slot request is answered with null (sample dropped).
  void set_drop_samples(bool drop) {
    std::lock_guard lock(mutex_);
    drop_samples_ = drop;
  }

  std::vector<SchemaUpdate> schema_updates() const {
    std::lock_guard lock(mutex_);
    return schema_updates_;
  }
  std::vector<SlotRequest> slot_requests() const {
    std::lock_guard lock(mutex_);
    return slot_requests_;
  }
  std::vector<Commit> commits() const {
    std::lock_guard lock(mutex_);
    return commits_;
  }
  std::vector<std::pair<size_t, std::string>> removals() const {
    std::lock_guard lock(mutex_);
    return removals_;
  }
  int starts() const {
    std::lock_guard lock(mutex_);
    return starts_;
  }
  int stops() const {
    std::lock_guard lock(mutex_);
    return stops_;
  }

 private:
  const std::string root_;
  mutable std::mutex mutex_;
  bool drop_samples_ = false;
  int starts_ = 0;
  int stops_ = 0;
  std::vector<SchemaUpdate> schema_updates_;
  std::vector<SlotRequest> slot_requests_;
  std::vector<Commit> commits_;
  std::vector<std::pair<size_t, std::string>> removals_;
  std::map<std::string, std::vector<uint8_t>> buffers_;
};
