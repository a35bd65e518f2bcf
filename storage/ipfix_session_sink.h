// The seam between reception and storage: what the receive path hands decoded
// samples and schemas to. The disk writer is the production implementation;
// tests and benchmarks plug in recorders. Every call carries the
// worker index so an implementation can keep per-worker state without locks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "storage/schema_snapshot.h"

namespace dtl::ipfix {

class IpfixSessionSink {
 public:
  virtual ~IpfixSessionSink() = default;

  // False when storage cannot work (for example an unusable data root); the
  // receiver then does not start.
  virtual bool Start() = 0;
  virtual void Stop() = 0;

  // Data root; sessions hand nothing to a sink whose root is empty.
  virtual const std::string& root() const = 0;

  // A session's schema became complete or changed. Called from the worker's
  // thread; the snapshot is only borrowed for the call.
  virtual void ProcessSchemaUpdate(size_t worker_id, const std::string& key,
                                   const SchemaSnapshot& snapshot) = 0;

  // Memory for one sample's values (values_size bytes), or null when the
  // sample is to be dropped. Asking again before a commit returns the same
  // block: an abandoned sample is simply never committed.
  virtual uint8_t* AcquireRecordValueSlot(size_t worker_id, const std::string& key,
                                          uint32_t time_sec, uint32_t time_nsec,
                                          uint64_t values_size) = 0;
  virtual void CommitRecord(size_t worker_id, const std::string& key, uint64_t values_size) = 0;

  // The session is going away: flush and forget it.
  virtual void RemoveSession(size_t worker_id, const std::string& key) = 0;

  // Called by worker worker_id on its own thread after every batch and while
  // it waits for traffic, so that time-driven work (flushing the pages of
  // sessions that went quiet) needs no thread of its own. Returns within how
  // many ms it wants the next call at the latest; 0 when nothing waits, and
  // an idle worker may then sleep until the next datagram.
  virtual uint32_t Tick(size_t /*worker_id*/) { return 0; }
};

}  // namespace dtl::ipfix
