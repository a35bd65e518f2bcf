#include "ipfix/ipfix_disk_writer.h"

#include "ipfix/ipfix_session.h"

#include <arpa/inet.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "dtl_counters.h"
#include "dtl_logger.h"

namespace dtl::ipfix {

namespace {

// Drops are counted process-wide per kind; only the 1st, 4097th, ... of a
// kind is logged. Statistics only, hence relaxed.
struct DropCounter {
  std::atomic<unsigned long long> value{0};
  // The new count, and whether this drop is to be logged.
  std::pair<unsigned long long, bool> Next() {
    const unsigned long long n = value.fetch_add(1, std::memory_order_relaxed) + 1;
    return {n, n % 4096 == 1};
  }
};

DropCounter g_acquire_bad_worker;
DropCounter g_acquire_no_state;
DropCounter g_acquire_not_ready;
DropCounter g_acquire_in_flight;
DropCounter g_acquire_too_large;
DropCounter g_record_bad_worker;
DropCounter g_record_no_state;
DropCounter g_record_not_ready;

long long ElapsedUs(std::chrono::steady_clock::time_point since) {
  return static_cast<long long>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - since)
          .count() /
      1000);
}

uint8_t* AlignedAlloc(uint64_t size) {
  void* memory = nullptr;
  if (size == 0 || posix_memalign(&memory, IpfixDiskWriter::kPageAlign, size) != 0) return nullptr;
  return static_cast<uint8_t*>(memory);
}

// Resets a block to an empty sample of the given time.
// The same bytes as a framework reset followed by the sample time, without
// the reset's clock read: this runs once per sample.
void ResetBlock(uint8_t* block, uint64_t ts) {
  auto* data = reinterpret_cast<dtl_counters_data_t*>(block);
  dtl_magic_value_fill(data->header.magic, DTL_MAGIC_TYPE_DATA);
  data->padding = 0;
  data->timestamp = ts;
}

}  // namespace

IpfixDiskWriter::DomainState::~DomainState() {
  data_file.reset();
  free(buf[0]);
  free(buf[1]);
  free(header_page);
}

IpfixDiskWriter::PageSizing IpfixDiskWriter::ComputePageSizing(uint32_t block_size,
                                                               uint32_t batch_count) {
  PageSizing s;
  if (block_size == 0) {
    s.min_batch = 1;
  } else {
    const unsigned shift = std::min(static_cast<unsigned>(__builtin_ctz(block_size)), 12u);
    s.min_batch = static_cast<uint32_t>(kPageAlign >> shift);
  }
  s.bytes_target = block_size == 0 ? 0 : kPageBytesTarget / block_size;
  s.target = std::max(batch_count, s.bytes_target);
  // u32 arithmetic on purpose: a target of 0 wraps to a result of 0.
  s.batch_capacity = ((s.target - 1u + s.min_batch) / s.min_batch) * s.min_batch;
  if (s.batch_capacity == 0) s.batch_capacity = s.min_batch;
  s.buffer_size = static_cast<uint64_t>(block_size) * s.batch_capacity;

  // The header page holds the file header and the fewest blocks that make
  // it a whole number of 4 KiB pages, so that direct I/O can write it.
  s.hdr_blocks = 0;
  if ((static_cast<uint64_t>(block_size) + kHeaderSize) % kPageAlign == 0) {
    s.hdr_blocks = 1;
  } else {
    for (uint32_t k = 2; k <= s.min_batch; ++k) {
      if ((kHeaderSize + static_cast<uint64_t>(k) * block_size) % kPageAlign == 0) {
        s.hdr_blocks = k;
        break;
      }
    }
  }
  s.header_aligned = s.hdr_blocks != 0;
  if (!s.header_aligned) s.hdr_blocks = 1;
  s.header_size = kHeaderSize + static_cast<uint64_t>(s.hdr_blocks) * block_size;
  return s;
}

IpfixDiskWriter::IpfixDiskWriter(const Config& config)
    : config_(config),
      shards_(config.workers == 0 ? 1 : static_cast<size_t>(config.workers)),
      last_lookup_(shards_.size()) {
  for (Shard& shard : shards_) shard.max_load_factor(1.0f);
}

IpfixDiskWriter::~IpfixDiskWriter() {
  Stop();
  last_lookup_.clear();
  shards_.clear();
}

void IpfixDiskWriter::Start() {
  if (config_.root.empty()) {
    DTL_LOG_WARNING("[IPFIX disk writer] Data root not configured, disk writer disabled");
    return;
  }
  if (stopped_.load() || started_.exchange(true)) return;

  writer_.iosqe_async = config_.iosqe_async;
  if (!writer_.Start()) {
    DTL_LOG_ERROR("[IPFIX disk writer] Failed to start shared io_uring writer");
    return;
  }

  const uint64_t slots = 3 * config_.max_sessions + 1;
  bool registered = false;
  {
    std::lock_guard<std::mutex> lock(pool_mutex_);
    // A table the kernel cannot take (or memory cannot hold) is a failed
    // registration: every write then goes unregistered.
    if (slots <= UINT32_MAX) {
      try {
        iovec_pool_.assign(static_cast<size_t>(slots), iovec{nullptr, 0});
        pool_slots_ = slots;
        registered = writer_.RegisterBuffers(iovec_pool_.data(), static_cast<unsigned>(slots));
      } catch (const std::exception&) {
        registered = false;
      }
    }
    if (!registered) {
      pool_slots_ = 0;
      iovec_pool_.clear();
      iovec_pool_.shrink_to_fit();
    }
  }
  if (registered) {
    DTL_LOG_INFO("[IPFIX disk writer] Registered iovec pool: %zu slots (max_sessions=%zu)",
                 static_cast<size_t>(slots), static_cast<size_t>(config_.max_sessions));
  } else {
    DTL_LOG_ERROR("[IPFIX disk writer] Failed to register iovec pool (%zu slots) with io_uring",
                  static_cast<size_t>(slots));
  }

  DTL_LOG_INFO("[IPFIX disk writer] Starting, data_root=%s counters_template='%s'",
               config_.root.c_str(), config_.counters_template.c_str());
  retention_.Start(config_);
}

void IpfixDiskWriter::Stop() {
  if (stopped_.exchange(true)) return;
  // Retention goes first: the last flushes below close no file by rotation.
  retention_.Stop();

  size_t sessions = 0;
  for (const Shard& shard : shards_) sessions += shard.size();
  DTL_LOG_INFO("[IPFIX disk writer] Stop: flushing %zu sessions across %zu shards", sessions,
               shards_.size());
  for (Shard& shard : shards_)
    for (auto& entry : shard) FlushAll(*entry.second);
  for (Shard& shard : shards_)
    for (auto& entry : shard) WaitForInFlight(*entry.second);

  writer_.Stop();
  {
    // The writer dropped its buffer table; later releases have nothing to undo.
    std::lock_guard<std::mutex> lock(pool_mutex_);
    pool_slots_ = 0;
    iovec_pool_.clear();
  }
  DTL_LOG_INFO("[IPFIX disk writer] Stopped");
}

size_t IpfixDiskWriter::session_count() const {
  size_t sessions = 0;
  for (const Shard& shard : shards_) sessions += shard.size();
  return sessions;
}

uint64_t IpfixDiskWriter::pool_slots() const {
  std::lock_guard<std::mutex> lock(pool_mutex_);
  return pool_slots_;
}

const IpfixDiskWriter::DomainState* IpfixDiskWriter::FindSession(size_t worker_id,
                                                                 const std::string& key) const {
  if (worker_id >= shards_.size()) return nullptr;
  auto it = shards_[worker_id].find(key);
  return it == shards_[worker_id].end() ? nullptr : it->second.get();
}

IpfixDiskWriter::DomainState* IpfixDiskWriter::Lookup(size_t worker_id, const std::string& key) {
  if (worker_id >= shards_.size()) return nullptr;
  // Consecutive records nearly always belong to the session of the one
  // before; comparing a short key beats hashing it.
  LastLookup& last = last_lookup_[worker_id];
  if (last.state != nullptr && last.key == key) return last.state;
  auto it = shards_[worker_id].find(key);
  if (it == shards_[worker_id].end()) return nullptr;
  last.key = key;
  last.state = it->second.get();
  return last.state;
}

// A session whose header page could not be allocated counts as not ready:
// its files would otherwise begin without the data file header. The next
// schema update retries the allocation.
bool IpfixDiskWriter::Ready(const DomainState& state) {
  return state.data_file && state.block_size != 0 && state.buf[0] != nullptr &&
         state.header_page != nullptr;
}

bool IpfixDiskWriter::InHeaderMode(const DomainState& state) {
  return state.data_file->written_bytes == 0 && state.header_page != nullptr;
}

uint64_t IpfixDiskWriter::NoteSampleTime(DomainState& state, uint32_t time_sec, uint32_t time_nsec) {
  const uint64_t ts = static_cast<uint64_t>(time_sec) * 1000000u + time_nsec / 1000u;
  if (state.count == 0) state.first_ts = ts;
  state.last_ts = ts;
  return ts;
}

uint8_t* IpfixDiskWriter::AcquireRecordValueSlot(size_t worker_id, const std::string& key,
                                                 uint32_t time_sec, uint32_t time_nsec,
                                                 uint64_t values_size) {
  if (worker_id >= shards_.size()) {
    auto [n, log] = g_acquire_bad_worker.Next();
    if (log)
      DTL_LOG_WARNING(
          "[IPFIX disk writer] AcquireRecordValueSlot: bad worker_id=%zu (shards=%zu) (drop #%llu)",
          worker_id, shards_.size(), n);
    return nullptr;
  }
  DomainState* state = Lookup(worker_id, key);
  if (state == nullptr) {
    auto [n, log] = g_acquire_no_state.Next();
    if (log)
      DTL_LOG_WARNING(
          "[IPFIX disk writer] AcquireRecordValueSlot: no state for session=%s worker=%zu (drop #%llu)",
          SessionDisplayName(key).c_str(), worker_id, n);
    return nullptr;
  }
  DomainState& s = *state;
  if (!Ready(s)) {
    auto [n, log] = g_acquire_not_ready.Next();
    if (log)
      DTL_LOG_WARNING(
          "[IPFIX disk writer] AcquireRecordValueSlot: session=%s not ready (data_file=%d "
          "block_size=%u buf=%d) (drop #%llu)",
          SessionDisplayName(key).c_str(), s.data_file ? 1 : 0, s.block_size,
          (s.buf[0] != nullptr && s.header_page != nullptr) ? 1 : 0, n);
    return nullptr;
  }

  const uint64_t ts = NoteSampleTime(s, time_sec, time_nsec);
  uint8_t* block;
  if (InHeaderMode(s)) {
    if (s.count == 0) std::memset(s.header_page + kHeaderSize, 0, s.header_size - kHeaderSize);
    block = s.header_page + kHeaderSize + static_cast<uint64_t>(s.count) * s.block_size;
  } else {
    if (s.page_in_flight[s.active].load()) {
      auto [n, log] = g_acquire_in_flight.Next();
      if (log)
        DTL_LOG_WARNING(
            "[IPFIX disk writer] AcquireRecordValueSlot: active buffer in flight session=%s (drop #%llu)",
            SessionDisplayName(key).c_str(), n);
      return nullptr;
    }
    block = s.buf[s.active] + static_cast<uint64_t>(s.count) * s.block_size;
  }

  const uint64_t capacity = s.block_size - kBlockHeaderSize;
  ResetBlock(block, ts);
  if (values_size > capacity) {
    auto [n, log] = g_acquire_too_large.Next();
    if (log)
      DTL_LOG_ERROR(
          "[IPFIX disk writer] AcquireRecordValueSlot: values_size=%zu exceeds values_capacity=%zu "
          "(block_size=%u) session=%s (drop #%llu)",
          static_cast<size_t>(values_size), static_cast<size_t>(capacity), s.block_size,
          SessionDisplayName(key).c_str(), n);
    return nullptr;
  }
  std::memset(block + kBlockHeaderSize + values_size, 0, capacity - values_size);
  s.pending = block;
  return block + kBlockHeaderSize;
}

void IpfixDiskWriter::CommitRecord(size_t worker_id, const std::string& key, uint64_t /*values_size*/) {
  DomainState* state = Lookup(worker_id, key);
  if (state == nullptr || state->pending == nullptr) return;
  DomainState& s = *state;
  s.pending = nullptr;
  ++s.count;
  if (InHeaderMode(s)) {
    if (s.count >= s.hdr_blocks) FlushState(s);
  } else if (s.count >= s.batch_capacity) {
    FlushState(s);
  }
}

void IpfixDiskWriter::ProcessRecord(const CounterWriteRecord& record) {
  const size_t worker_id = static_cast<size_t>(record.worker_id);
  const std::string empty;
  const std::string& key = record.session_key != nullptr ? *record.session_key : empty;
  if (worker_id >= shards_.size()) {
    auto [n, log] = g_record_bad_worker.Next();
    if (log)
      DTL_LOG_WARNING("[IPFIX disk writer] ProcessRecord: bad worker_id=%zu (shards=%zu) (drop #%llu)",
                      worker_id, shards_.size(), n);
    return;
  }
  DomainState* state = Lookup(worker_id, key);
  if (state == nullptr) {
    auto [n, log] = g_record_no_state.Next();
    if (log)
      DTL_LOG_WARNING("[IPFIX disk writer] ProcessRecord: no state for session=%s worker=%zu (drop #%llu)",
                      SessionDisplayName(key).c_str(), worker_id, n);
    return;
  }
  DomainState& s = *state;
  if (!Ready(s)) {
    auto [n, log] = g_record_not_ready.Next();
    if (log)
      DTL_LOG_WARNING(
          "[IPFIX disk writer] ProcessRecord: session=%s not ready (data_file=%d block_size=%u "
          "buf=%d) (drop #%llu)",
          SessionDisplayName(key).c_str(), s.data_file ? 1 : 0, s.block_size,
          (s.buf[0] != nullptr && s.header_page != nullptr) ? 1 : 0, n);
    return;
  }

  const uint64_t ts = NoteSampleTime(s, record.time_sec, record.time_nsec);
  uint8_t* block;
  uint32_t limit;
  if (InHeaderMode(s)) {
    if (s.count == 0) std::memset(s.header_page + kHeaderSize, 0, s.header_size - kHeaderSize);
    block = s.header_page + kHeaderSize + static_cast<uint64_t>(s.count) * s.block_size;
    limit = s.hdr_blocks;
  } else {
    block = s.buf[s.active] + static_cast<uint64_t>(s.count) * s.block_size;
    limit = s.batch_capacity;
  }

  ResetBlock(block, ts);
  const uint64_t capacity = s.block_size - kBlockHeaderSize;
  uint8_t* values = block + kBlockHeaderSize;
  uint64_t offset = 0;
  for (uint64_t i = 0; i < record.fragment_count && record.fragments != nullptr; ++i) {
    const CounterWriteRecord::Fragment& fragment = record.fragments[i];
    if (fragment.data == nullptr || fragment.length == 0 || fragment.length > capacity - offset) continue;
    std::memcpy(values + offset, fragment.data, fragment.length);
    offset += fragment.length;
  }
  std::memset(values + offset, 0, capacity - offset);
  s.pending = nullptr;
  ++s.count;
  if (s.count >= limit) FlushState(s);
}

void IpfixDiskWriter::RemoveSession(size_t worker_id, const std::string& key) {
  DTL_LOG_INFO("[IPFIX disk writer] RemoveSession: worker=%zu session=%s", worker_id,
               SessionDisplayName(key).c_str());
  if (worker_id >= shards_.size()) return;
  Shard& shard = shards_[worker_id];
  auto it = shard.find(key);
  if (it == shard.end()) return;
  DomainState& s = *it->second;
  FlushAll(s);
  WaitForInFlight(s);
  ReleaseSessionSlots(s);
  // The slots are free again once the writer has unregistered them.
  writer_.Drain();
  const std::string src = s.src;
  // The file closed here is found by retention's next start-up scan.
  last_lookup_[worker_id] = LastLookup{};
  shard.erase(it);
  DTL_LOG_INFO("[IPFIX disk writer] Removed session %s", src.c_str());
}

void IpfixDiskWriter::FlushPage(size_t worker_id, const std::string& key) {
  DomainState* state = Lookup(worker_id, key);
  if (state != nullptr) FlushState(*state);
}

void IpfixDiskWriter::FlushAll(DomainState& state) {
  // Each pass either empties the page or writes at least one block, so this
  // ends; only a header page that left a remainder needs a second pass.
  uint32_t before = 0;
  while (state.count != 0 && state.data_file && state.count != before) {
    before = state.count;
    FlushState(state);
  }
}

void IpfixDiskWriter::ResetPage(DomainState& state) {
  state.count = 0;
  state.first_ts = 0;
  state.last_ts = 0;
}

void IpfixDiskWriter::FlushState(DomainState& s) {
  if (s.count == 0 || !s.data_file) return;
  AsyncDataFile& file = *s.data_file;
  // Where the committed blocks are: AcquireRecordValueSlot chose the header
  // page exactly while the file had no bytes, and only this function adds
  // bytes.
  const bool blocks_in_header = InHeaderMode(s);
  // Blocks move or buffers switch below; a block handed out before is void.
  s.pending = nullptr;

  // A file closed by a setting change has no current file; its page must
  // start a new one rather than be dropped.
  if (file.NeedRotation(s.first_ts, s.last_ts) || !file.has_file()) {
    WaitForInFlight(s);
    long closed_size = 0;
    const std::string closed = file.Rotate(s.first_ts, &closed_size);
    if (!closed.empty() && closed_size > 0 && retention_.Enabled())
      retention_.RecordClosedFile(boost::filesystem::path(closed), static_cast<uint64_t>(closed_size));
  }

  if (InHeaderMode(s)) {
    FlushHeaderPage(s, blocks_in_header);
  } else {
    FlushDataPage(s, blocks_in_header);
  }
}

void IpfixDiskWriter::FlushHeaderPage(DomainState& s, bool blocks_in_header) {
  AsyncDataFile& file = *s.data_file;
  if (s.header_in_flight.load()) {
    DTL_LOG_WARNING("[IPFIX disk writer] FlushPage: spinning on header_in_flight enter src=%s",
                    s.src.c_str());
    const auto since = std::chrono::steady_clock::now();
    unsigned long long iters = 0;
    while (s.header_in_flight.load()) {
      sched_yield();
      ++iters;
    }
    DTL_LOG_WARNING(
        "[IPFIX disk writer] FlushPage: header_in_flight cleared iters=%llu elapsed_us=%lld src=%s",
        iters, ElapsedUs(since), s.src.c_str());
  }

  const uint32_t n = std::min(s.count, s.hdr_blocks);
  if (!blocks_in_header) {
    // The file was rotated under a data page: its first blocks move into the
    // header page.
    std::memset(s.header_page + kHeaderSize, 0, s.header_size - kHeaderSize);
    std::memcpy(s.header_page + kHeaderSize, s.buf[s.active], static_cast<size_t>(n) * s.block_size);
  }
  file.FillFileHeader(s.header_page, kHeaderSize);
  s.header_in_flight.store(true);
  const size_t write_size = kHeaderSize + static_cast<size_t>(n) * s.block_size;
  DTL_LOG_DEBUG(
      "[IPFIX disk writer] FlushPage: writing header page src=%s write_size=%zu hdr_blocks=%u bidx=%d",
      s.src.c_str(), write_size, n, s.header_buf_index);
  if (write_size % kPageAlign != 0) {
    DTL_LOG_DEBUG("[IPFIX disk writer] FlushPage: header write_size=%zu not 4K-aligned — using WriteSync",
                  write_size);
    s.header_in_flight.store(false);
    // An append must not overtake a write still in flight.
    WaitForInFlight(s);
    file.WriteSync(s.header_page, write_size, s.first_ts, s.last_ts);
  } else {
    file.Write(s.header_page, write_size, s.first_ts, s.last_ts, &s.header_in_flight,
               s.header_buf_index);
  }

  if (s.count > n) {
    const uint32_t rest = s.count - n;
    std::memmove(s.buf[s.active], s.buf[s.active] + static_cast<size_t>(n) * s.block_size,
                 static_cast<size_t>(rest) * s.block_size);
    s.count = rest;
    return;
  }
  ResetPage(s);
}

void IpfixDiskWriter::FlushDataPage(DomainState& s, bool blocks_in_header) {
  AsyncDataFile& file = *s.data_file;
  if (s.buf[0] == nullptr) return;
  if (blocks_in_header) {
    // The file was continued at a non-zero size (its path already existed):
    // the blocks gathered for a header page become a data page. The active
    // buffer is never in flight (FlushPage waits before switching to it).
    std::memcpy(s.buf[s.active], s.header_page + kHeaderSize, static_cast<size_t>(s.count) * s.block_size);
  }
  const size_t len = static_cast<size_t>(s.count) * s.block_size;
  // Direct I/O needs the file offset aligned as well as the length.
  const bool aligned = len % kPageAlign == 0 &&
                       (!file.use_direct_io() || file.written_bytes % static_cast<int64_t>(kPageAlign) == 0);
  if (aligned) {
    const unsigned other = s.active ^ 1u;
    if (s.page_in_flight[other].load()) {
      DTL_LOG_DEBUG("[IPFIX disk writer] FlushPage: spinning on page_in_flight[%u] enter src=%s", other,
                    s.src.c_str());
      const auto since = std::chrono::steady_clock::now();
      unsigned long long iters = 0;
      while (s.page_in_flight[other].load()) {
        sched_yield();
        ++iters;
      }
      DTL_LOG_DEBUG(
          "[IPFIX disk writer] FlushPage: page_in_flight[%u] cleared iters=%llu elapsed_us=%lld src=%s",
          other, iters, ElapsedUs(since), s.src.c_str());
    }
    s.page_in_flight[s.active].store(true);
    DTL_LOG_DEBUG("[IPFIX disk writer] FlushPage: async write buf[%u] len=%zu bidx=%d src=%s",
                  static_cast<unsigned>(s.active), len, s.buf_index[s.active], s.src.c_str());
    file.Write(s.buf[s.active], len, s.first_ts, s.last_ts, &s.page_in_flight[s.active],
               s.buf_index[s.active]);
    s.active = static_cast<uint8_t>(other);
    ResetPage(s);
    return;
  }
  DTL_LOG_DEBUG(
      "[IPFIX disk writer] FlushPage: partial page len=%zu not 4K-aligned — using WriteSync src=%s", len,
      s.src.c_str());
  WaitForInFlight(s);
  file.WriteSync(s.buf[s.active], len, s.first_ts, s.last_ts);
  ResetPage(s);
}

void IpfixDiskWriter::WaitForInFlight(DomainState& s) {
  auto busy = [&s] {
    return s.page_in_flight[0].load() || s.page_in_flight[1].load() || s.header_in_flight.load();
  };
  if (!busy()) return;
  DTL_LOG_WARNING("[IPFIX disk writer] WaitForInFlight: enter page[0]=%d page[1]=%d header=%d src=%s",
                  s.page_in_flight[0].load() ? 1 : 0, s.page_in_flight[1].load() ? 1 : 0,
                  s.header_in_flight.load() ? 1 : 0, s.src.c_str());
  const auto since = std::chrono::steady_clock::now();
  unsigned long long iters = 0;
  while (busy()) {
    sched_yield();
    ++iters;
  }
  DTL_LOG_WARNING("[IPFIX disk writer] WaitForInFlight: done iters=%llu elapsed_us=%lld src=%s", iters,
                  ElapsedUs(since), s.src.c_str());
}

void IpfixDiskWriter::AllocateBuffers(DomainState& s) {
  const PageSizing sizing = ComputePageSizing(s.block_size, config_.batch_count);
  s.batch_capacity = sizing.batch_capacity;
  DTL_LOG_INFO(
      "[IPFIX disk writer] AllocateBuffers: src=%s block_size=%u min_batch=%u bytes_target=%u "
      "target=%u batch_capacity=%u buffer_size=%zu",
      s.src.c_str(), s.block_size, sizing.min_batch, sizing.bytes_target, sizing.target,
      sizing.batch_capacity, static_cast<size_t>(sizing.buffer_size));
  if (!sizing.header_aligned) {
    DTL_LOG_ERROR("[IPFIX disk writer] Session %s: block_size %u has no 4K-aligned header page",
                  s.src.c_str(), s.block_size);
  }

  const bool rebuild_data = s.buf_size != sizing.buffer_size || s.buf[0] == nullptr;
  const bool rebuild_header = s.header_page == nullptr || s.header_size != sizing.header_size;
  if (!rebuild_data && !rebuild_header) {
    s.hdr_blocks = sizing.hdr_blocks;
    return;
  }
  WaitForInFlight(s);
  s.pending = nullptr;

  std::vector<std::pair<int, std::shared_ptr<std::atomic<int>>>> updates;
  bool data_ok = true;
  if (rebuild_data) {
    for (int i = 0; i < 2; ++i) {
      if (s.buf_index[i] != -1) {
        ReleaseSlot(s.buf_index[i]);
        s.buf_index[i] = -1;
      }
      free(s.buf[i]);
      s.buf[i] = nullptr;
    }
    s.buf[0] = AlignedAlloc(sizing.buffer_size);
    s.buf[1] = AlignedAlloc(sizing.buffer_size);
    if (s.buf[0] == nullptr || s.buf[1] == nullptr) {
      free(s.buf[0]);
      free(s.buf[1]);
      s.buf[0] = s.buf[1] = nullptr;
      s.buf_size = 0;
      DTL_LOG_ERROR("[IPFIX disk writer] posix_memalign failed for data buffers (%zu bytes)",
                    static_cast<size_t>(sizing.buffer_size));
      data_ok = false;
    } else {
      s.buf_size = sizing.buffer_size;
      s.active = 0;
      ResetPage(s);
      s.page_in_flight[0].store(false);
      s.page_in_flight[1].store(false);
      for (int i = 0; i < 2; ++i) {
        const int slot = ClaimAndRegister(iovec{s.buf[i], static_cast<size_t>(sizing.buffer_size)}, updates);
        if (slot < 0) {
          DTL_LOG_WARNING(
              "[IPFIX disk writer] iovec pool exhausted for data buf[%d] — falling back to unregistered write",
              i);
        }
        s.buf_index[i] = slot;
      }
    }
  }

  if (data_ok && rebuild_header) {
    if (s.header_buf_index != -1) {
      ReleaseSlot(s.header_buf_index);
      s.header_buf_index = -1;
    }
    free(s.header_page);
    s.header_page = AlignedAlloc(sizing.header_size);
    if (s.header_page == nullptr) {
      s.header_size = 0;
      DTL_LOG_ERROR("[IPFIX disk writer] posix_memalign failed for header page (%zu bytes)",
                    static_cast<size_t>(sizing.header_size));
    } else {
      s.header_size = sizing.header_size;
      s.hdr_blocks = sizing.hdr_blocks;
      s.header_in_flight.store(false);
      std::memset(s.header_page, 0, sizing.header_size);
      const int slot = ClaimAndRegister(iovec{s.header_page, static_cast<size_t>(sizing.header_size)}, updates);
      if (slot < 0) {
        DTL_LOG_WARNING(
            "[IPFIX disk writer] iovec pool exhausted for header page — falling back to unregistered write");
      }
      s.header_buf_index = slot;
    }
  } else if (data_ok) {
    s.hdr_blocks = sizing.hdr_blocks;
  }

  // Every slot update must be in force before a write uses the buffers.
  writer_.Drain();
  for (auto& [slot, result] : updates) {
    if (result->load() >= 0) continue;
    // The kernel refused the buffer (the writer logged why): write from it
    // unregistered and give the slot back.
    ForgetSlot(slot);
    for (int32_t* index : {&s.buf_index[0], &s.buf_index[1], &s.header_buf_index})
      if (*index == slot) *index = -1;
  }
}

int IpfixDiskWriter::ClaimAndRegister(
    const iovec& buffer, std::vector<std::pair<int, std::shared_ptr<std::atomic<int>>>>& updates) {
  const int slot = ClaimSlot(buffer);
  if (slot < 0) return slot;
  // Not yet run counts as refused: a writer that stopped never registers it.
  auto result = std::make_shared<std::atomic<int>>(-1);
  writer_.PostCommand([this, slot, buffer, result] {
    result->store(writer_.UpdateBuffer(static_cast<unsigned>(slot), &buffer));
  });
  updates.emplace_back(slot, std::move(result));
  return slot;
}

int IpfixDiskWriter::ClaimSlot(const iovec& buffer) {
  std::lock_guard<std::mutex> lock(pool_mutex_);
  for (uint64_t i = 0; i < pool_slots_; ++i) {
    if (iovec_pool_[i].iov_base == nullptr) {
      iovec_pool_[i] = buffer;
      return static_cast<int>(i);
    }
  }
  return -1;
}

void IpfixDiskWriter::ReleaseSlot(int slot) {
  if (slot < 0) return;
  {
    std::lock_guard<std::mutex> lock(pool_mutex_);
    if (static_cast<uint64_t>(slot) >= pool_slots_) return;
  }
  // The entry becomes claimable only once the kernel no longer maps it.
  writer_.PostCommand([this, slot] {
    const iovec empty{nullptr, 0};
    writer_.UpdateBuffer(static_cast<unsigned>(slot), &empty);
    std::lock_guard<std::mutex> lock(pool_mutex_);
    if (static_cast<uint64_t>(slot) < pool_slots_) iovec_pool_[slot] = empty;
  });
}

void IpfixDiskWriter::ForgetSlot(int slot) {
  std::lock_guard<std::mutex> lock(pool_mutex_);
  if (slot >= 0 && static_cast<uint64_t>(slot) < pool_slots_) iovec_pool_[slot] = iovec{nullptr, 0};
}

void IpfixDiskWriter::ReleaseSessionSlots(DomainState& s) {
  for (int32_t* index : {&s.buf_index[0], &s.buf_index[1], &s.header_buf_index}) {
    if (*index != -1) {
      ReleaseSlot(*index);
      *index = -1;
    }
  }
}

}  // namespace dtl::ipfix
