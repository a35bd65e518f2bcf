// The disk writer's sample path: blocks handed to the sessions, pages
// written to the session's data file, partial pages of idle sessions, and
// what happens when a write fails or the file is damaged from outside.
//
// Blocks always gather in buf[active] from block 0, so a page never holds
// more than batch_capacity blocks whatever the disk does. A new file's first
// write is its header unit: the 256-byte header and the first hdr_blocks
// blocks, composed in the header page. Later pages are written at
// page_offset. A partial write (idle session, stop, schema change) writes
// the blocks so far, padded with zeros to whole 4 KiB pages for direct I/O,
// and keeps them: the next write of the page covers them again at the same
// offset, so the file always reads as whole blocks up to its last write.
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "dtl_counters.h"
#include "dtl_logger.h"
#include "storage/ipfix_disk_writer.h"

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
DropCounter g_acquire_page_full;
DropCounter g_record_bad_worker;
DropCounter g_record_no_state;
DropCounter g_record_not_ready;

// Page writes between two looks at the file on disk.
constexpr uint8_t kCheckInterval = 16;

long long ElapsedUs(std::chrono::steady_clock::time_point since) {
  return static_cast<long long>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - since)
          .count() /
      1000);
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

uint64_t BlockTs(const uint8_t* block) {
  uint64_t ts = 0;
  std::memcpy(&ts, block + offsetof(dtl_counters_data_t, timestamp), sizeof ts);
  return ts;
}

uint64_t RoundUpToPage(uint64_t bytes) {
  return (bytes + IpfixDiskWriter::kPageAlign - 1) / IpfixDiskWriter::kPageAlign *
         IpfixDiskWriter::kPageAlign;
}

// A coarse clock is enough for idle detection and costs almost nothing.
uint64_t NowMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
}

void SpinUntilClear(std::atomic<bool>& flag, const char* what, unsigned index, const std::string& src,
                    bool loud) {
  if (!flag.load()) return;
  if (loud)
    DTL_LOG_WARNING("[IPFIX disk writer] Session %s: the disk is slow, waiting for the previous write "
                    "(%s) before the next one", src.c_str(), what);
  else
    DTL_LOG_DEBUG("[IPFIX disk writer] FlushPage: spinning on %s[%u] enter src=%s", what, index,
                  src.c_str());
  const auto since = std::chrono::steady_clock::now();
  unsigned long long iters = 0;
  while (flag.load()) {
    sched_yield();
    ++iters;
  }
  if (loud)
    DTL_LOG_WARNING("[IPFIX disk writer] Session %s: the previous write (%s) finished after %lld us", src.c_str(),
                    what, ElapsedUs(since));
  else
    DTL_LOG_DEBUG("[IPFIX disk writer] FlushPage: %s[%u] cleared iters=%llu elapsed_us=%lld src=%s", what,
                  index, iters, ElapsedUs(since), src.c_str());
}

}  // namespace

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

uint8_t* IpfixDiskWriter::AcquireBlock(DomainState& s, uint64_t ts) {
  // A full page is written at its last commit; one still full here could
  // not be written, and the sample has nowhere to go.
  if (s.count >= s.batch_capacity) FlushState(s);
  if (s.count >= s.batch_capacity) return nullptr;
  uint8_t* block = s.buf[s.active] + static_cast<uint64_t>(s.count) * s.block_size;
  ResetBlock(block, ts);
  return block;
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
      DTL_LOG_DEBUG(
          "[IPFIX disk writer] AcquireRecordValueSlot: a session without schema on worker=%zu (drop #%llu)",
          worker_id, n);
    return nullptr;
  }
  DomainState& s = *state;
  s.pending = nullptr;
  if (!Ready(s)) {
    auto [n, log] = g_acquire_not_ready.Next();
    if (log)
      DTL_LOG_DEBUG(
          "[IPFIX disk writer] AcquireRecordValueSlot: session=%s not ready (data_file=%d "
          "block_size=%u buf=%d) (drop #%llu)",
          s.schema.display_name.c_str(), s.data_file ? 1 : 0, s.block_size,
          (s.buf[0] != nullptr && s.header_page != nullptr) ? 1 : 0, n);
    return nullptr;
  }
  if (s.page_in_flight[s.active].load()) {
    auto [n, log] = g_acquire_in_flight.Next();
    if (log)
      DTL_LOG_DEBUG(
          "[IPFIX disk writer] AcquireRecordValueSlot: active buffer in flight session=%s (drop #%llu)",
          s.schema.display_name.c_str(), n);
    return nullptr;
  }
  const uint64_t capacity = s.block_size - kBlockHeaderSize;
  if (values_size > capacity) {
    auto [n, log] = g_acquire_too_large.Next();
    if (log)
      DTL_LOG_ERROR(
          "[IPFIX disk writer] AcquireRecordValueSlot: values_size=%zu exceeds values_capacity=%zu "
          "(block_size=%u) session=%s (drop #%llu)",
          static_cast<size_t>(values_size), static_cast<size_t>(capacity), s.block_size,
          s.schema.display_name.c_str(), n);
    return nullptr;
  }
  const uint64_t ts = static_cast<uint64_t>(time_sec) * 1000000u + time_nsec / 1000u;
  uint8_t* block = AcquireBlock(s, ts);
  if (block == nullptr) {
    auto [n, log] = g_acquire_page_full.Next();
    if (log)
      DTL_LOG_DEBUG(
          "[IPFIX disk writer] AcquireRecordValueSlot: page full and not writable session=%s (drop #%llu)",
          s.schema.display_name.c_str(), n);
    return nullptr;
  }
  std::memset(block + kBlockHeaderSize + values_size, 0, capacity - values_size);
  s.pending = block;
  return block + kBlockHeaderSize;
}

void IpfixDiskWriter::CommitRecord(size_t worker_id, const std::string& key, uint64_t /*values_size*/) {
  DomainState* state = Lookup(worker_id, key);
  if (state == nullptr || state->pending == nullptr) return;
  Commit(*state);
}

// The page's times come from committed blocks only, so a sample that was
// begun and never completed moves neither the page nor the file header.
void IpfixDiskWriter::Commit(DomainState& s) {
  const uint64_t ts = BlockTs(s.pending);
  s.pending = nullptr;
  if (s.count == 0) s.first_ts = ts;
  s.last_ts = ts;
  ++s.count;
  ++s.committed;
  if (!s.header_written ? s.count >= s.hdr_blocks : s.count >= s.batch_capacity) FlushState(s);
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
      DTL_LOG_DEBUG("[IPFIX disk writer] ProcessRecord: a session without schema on worker=%zu (drop #%llu)",
                      worker_id, n);
    return;
  }
  DomainState& s = *state;
  if (!Ready(s)) {
    auto [n, log] = g_record_not_ready.Next();
    if (log)
      DTL_LOG_DEBUG(
          "[IPFIX disk writer] ProcessRecord: session=%s not ready (data_file=%d block_size=%u "
          "buf=%d) (drop #%llu)",
          s.schema.display_name.c_str(), s.data_file ? 1 : 0, s.block_size,
          (s.buf[0] != nullptr && s.header_page != nullptr) ? 1 : 0, n);
    return;
  }
  const uint64_t ts = static_cast<uint64_t>(record.time_sec) * 1000000u + record.time_nsec / 1000u;
  uint8_t* block = AcquireBlock(s, ts);
  if (block == nullptr) return;
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
  s.pending = block;
  Commit(s);
}

void IpfixDiskWriter::FlushPage(size_t worker_id, const std::string& key) {
  DomainState* state = Lookup(worker_id, key);
  if (state != nullptr) FlushState(*state);
}

uint32_t IpfixDiskWriter::Tick(size_t worker_id) {
  if (config_.flush_idle_ms == 0 || worker_id >= shards_.size()) return 0;
  const uint64_t now = NowMs();
  // A quarter of the idle time between looks: a quiet session's last
  // samples reach the disk within about 1.25 times flush_idle_ms.
  const uint64_t interval = std::max<uint64_t>(config_.flush_idle_ms / 4, 1);
  const uint64_t since = now - last_tick_ms_[worker_id];
  // Not looked at yet: samples may have come since the last look.
  if (since < interval) return static_cast<uint32_t>(interval - since);
  last_tick_ms_[worker_id] = now;
  bool waiting = false;
  for (auto& entry : shards_[worker_id]) {
    DomainState& s = *entry.second;
    if (s.committed != s.committed_at_tick) {
      s.committed_at_tick = s.committed;
      s.idle_since_ms = now;
      waiting = waiting || s.count > s.flushed;
      continue;
    }
    if (s.count > s.flushed && now - s.idle_since_ms >= config_.flush_idle_ms) {
      DTL_LOG_DEBUG("[IPFIX disk writer] Session %s idle for %llu ms: writing its %u pending sample(s)",
                    s.src.c_str(), static_cast<unsigned long long>(now - s.idle_since_ms),
                    s.count - s.flushed);
      // An idle moment is a good one to look at the file, too.
      s.writes_since_check = kCheckInterval;
      FlushState(s);
    }
    waiting = waiting || s.count > s.flushed;
  }
  return waiting ? static_cast<uint32_t>(interval) : 0;
}

void IpfixDiskWriter::FlushAll(DomainState& state) {
  // A header unit may leave blocks behind it, and a fault found on the way
  // costs a pass; every pass writes or gives up blocks, so this ends.
  for (int pass = 0; pass < 16 && state.count > state.flushed && state.data_file; ++pass)
    FlushState(state);
}

void IpfixDiskWriter::ResetPage(DomainState& state) {
  state.count = 0;
  state.flushed = 0;
  state.first_ts = 0;
  state.last_ts = 0;
}

void IpfixDiskWriter::DropWrittenBlocks(DomainState& s) {
  if (s.flushed == 0) return;
  const uint32_t rest = s.count - s.flushed;
  std::memmove(s.buf[s.active], s.buf[s.active] + static_cast<size_t>(s.flushed) * s.block_size,
               static_cast<size_t>(rest) * s.block_size);
  s.count = rest;
  s.flushed = 0;
  if (rest == 0) {
    ResetPage(s);
  } else {
    s.first_ts = BlockTs(s.buf[s.active]);
  }
}

void IpfixDiskWriter::ReportClosedFile(const std::string& path, uint64_t size) {
  if (!path.empty() && size > 0 && retention_.Enabled())
    retention_.RecordClosedFile(boost::filesystem::path(path), size);
}

void IpfixDiskWriter::CountLost(DomainState& s, uint64_t samples) {
  s.lost += samples;
  if (s.account) s.account->Discard(DiscardCause::kStorageError, samples);
}

void IpfixDiskWriter::NoteLoss(DomainState& s, uint64_t samples, const char* what) {
  CountLost(s, samples);
  if (s.in_fault || samples == 0) return;
  s.in_fault = true;
  s.lost_at_fault = s.lost - samples;
  DTL_LOG_ERROR("[IPFIX disk writer] Session %s: %s; %llu sample(s) lost so far. Storage goes on "
                "in a new file as soon as the data root takes writes again",
                s.src.c_str(), what, static_cast<unsigned long long>(samples));
}

void IpfixDiskWriter::NoteHealthy(DomainState& s) {
  if (!s.in_fault) return;
  s.in_fault = false;
  DTL_LOG_WARNING("[IPFIX disk writer] Session %s: storing again in %s; %llu sample(s) lost during the fault",
                  s.src.c_str(), s.data_file->data_file_name().c_str(),
                  static_cast<unsigned long long>(s.lost - s.lost_at_fault));
}

void IpfixDiskWriter::HandleFileFault(DomainState& s, AsyncDataFile::DiskState fault) {
  AsyncDataFile& file = *s.data_file;
  const std::string path = file.data_file_name();
  const uint64_t block = s.block_size;
  const uint64_t written = static_cast<uint64_t>(std::max<int64_t>(file.written_bytes, 0));
  const uint64_t sent = written > kHeaderSize ? (written - kHeaderSize) / block : 0;
  uint64_t kept_size = 0;
  const std::string kept = file.CloseDamaged(fault, &kept_size);
  const uint64_t kept_blocks = kept_size > kHeaderSize ? (kept_size - kHeaderSize) / block : 0;
  ReportClosedFile(kept, kept_size);
  const uint64_t lost = sent > kept_blocks ? sent - kept_blocks : 0;
  using DiskState = AsyncDataFile::DiskState;
  if (fault == DiskState::kDeleted) {
    // Gone by someone else's hand; said every time, it is not a disk fault.
    CountLost(s, lost);
    DTL_LOG_WARNING("[IPFIX disk writer] Session %s: data file %s was deleted from outside; its %llu "
                    "sample(s) are gone; starting a new file",
                    s.src.c_str(), path.c_str(), static_cast<unsigned long long>(sent));
  } else if (fault == DiskState::kTruncated) {
    CountLost(s, lost);
    DTL_LOG_WARNING("[IPFIX disk writer] Session %s: data file %s was cut short from outside; kept "
                    "%llu sample(s), %llu lost; starting a new file",
                    s.src.c_str(), path.c_str(), static_cast<unsigned long long>(kept_blocks),
                    static_cast<unsigned long long>(lost));
  } else {
    const std::string what = "writing " + path + " failed (kept " + std::to_string(kept_blocks) +
                             " sample(s) in it)";
    NoteLoss(s, lost, what.c_str());
  }
}

void IpfixDiskWriter::FlushState(DomainState& s) {
  if (!s.data_file || s.count <= s.flushed) return;
  AsyncDataFile& file = *s.data_file;
  // Blocks move or buffers switch below; a block handed out before is void.
  s.pending = nullptr;
  using DiskState = AsyncDataFile::DiskState;

  // A file closed by a settings change counts against the data size limit.
  uint64_t closed_size = 0;
  const std::string closed = file.TakeClosedFile(&closed_size);
  ReportClosedFile(closed, closed_size);

  // A failed write (or damage from outside) ends the file before this page
  // goes anywhere: nothing may follow a hole.
  if (file.has_file()) {
    DiskState fault = DiskState::kOk;
    if (file.TakeWriteError()) {
      fault = DiskState::kWriteFailed;
    } else if (s.writes_since_check >= kCheckInterval && !Busy(s)) {
      // Only with nothing in flight: a write still landing looks like a hole.
      // Under load the other page's write is normally done by now.
      s.writes_since_check = 0;
      fault = file.CheckOnDisk();
    } else {
      // A deleted file would swallow every page until the full look.
      fault = file.QuickCheckOnDisk();
    }
    if (fault != DiskState::kOk) {
      WaitForInFlight(s);
      file.TakeWriteError();
      HandleFileFault(s, fault);
    } else if (s.in_fault && file.durable_end() > 0) {
      // The last write of this file went through (a failure would be pending).
      NoteHealthy(s);
    }
  }

  const uint64_t next_ts = BlockTs(s.buf[s.active] + static_cast<size_t>(s.flushed) * s.block_size);
  if (!file.has_file() || file.NeedRotation(s.flushed == 0 ? s.first_ts : next_ts, s.last_ts)) {
    WaitForInFlight(s);
    DropWrittenBlocks(s);
    long size = 0;
    const std::string rotated = file.Rotate(s.first_ts, &size);
    ReportClosedFile(rotated, static_cast<uint64_t>(std::max<long>(size, 0)));
    s.header_written = file.written_bytes > 0;  // a continued file has its header
    s.page_offset = static_cast<uint64_t>(std::max<int64_t>(file.written_bytes, 0));
    s.writes_since_check = 0;
    if (file.has_file()) {
      EnsurePublished(s);
      if (s.announce) AnnounceSchema(s);
      if (s.account) {
        s.account->set_file(file.data_file_name());
        if (file.created_file()) SessionAccount::Add(s.account->files, 1);
      }
    }
  }
  if (!file.has_file()) {
    // Nowhere to write (the root is unreachable, read-only or full): these
    // samples are lost, and the page is free for the next ones.
    NoteLoss(s, s.count - s.flushed, ("no data file can be created under " + config_.root).c_str());
    ResetPage(s);
    return;
  }
  if (s.writes_since_check < kCheckInterval) ++s.writes_since_check;
  if (!s.header_written) {
    WriteHeaderUnit(s);
  } else {
    WriteDataPage(s);
  }
}

void IpfixDiskWriter::WriteHeaderUnit(DomainState& s) {
  AsyncDataFile& file = *s.data_file;
  SpinUntilClear(s.header_in_flight, "header_in_flight", 0, s.src, true);
  const uint32_t n = std::min(s.count, s.hdr_blocks);
  const uint64_t logical = kHeaderSize + static_cast<uint64_t>(n) * s.block_size;
  const bool direct = file.OpenForWrite() && file.direct_io_active();
  const uint64_t len = direct ? RoundUpToPage(logical) : logical;
  file.FillFileHeader(s.header_page, kHeaderSize);
  std::memcpy(s.header_page + kHeaderSize, s.buf[s.active], static_cast<size_t>(n) * s.block_size);
  std::memset(s.header_page + logical, 0, len - logical);
  const uint64_t last = BlockTs(s.header_page + kHeaderSize + static_cast<size_t>(n - 1) * s.block_size);
  s.header_in_flight.store(true);
  DTL_LOG_DEBUG(
      "[IPFIX disk writer] FlushPage: writing header page src=%s write_size=%zu hdr_blocks=%u bidx=%d",
      s.src.c_str(), static_cast<size_t>(len), n, s.header_buf_index);
  file.WriteAt(s.header_page, 0, len, logical, last, &s.header_in_flight, s.header_buf_index);
  if (s.account) s.account->file_bytes.store(logical, std::memory_order_relaxed);

  if (n < s.hdr_blocks) {
    // Partial: the next write of the header unit covers these blocks again.
    s.flushed = n;
    return;
  }
  s.header_written = true;
  s.page_offset = logical;
  s.flushed = n;
  // The blocks behind the header unit came with the same page and go to the
  // same file: the page keeps the file's first time, which the rotation
  // test reads as "this file's first page".
  const uint64_t first = s.first_ts;
  DropWrittenBlocks(s);
  if (s.count > 0) s.first_ts = first;
}

void IpfixDiskWriter::WriteDataPage(DomainState& s) {
  AsyncDataFile& file = *s.data_file;
  const unsigned other = s.active ^ 1u;
  // The other buffer's write covers the same or earlier bytes: it must land
  // first, and the buffer must be free before it is filled again.
  SpinUntilClear(s.page_in_flight[other], "page_in_flight", other, s.src, false);
  const uint64_t logical = static_cast<uint64_t>(s.count) * s.block_size;
  const bool direct = file.OpenForWrite() && file.direct_io_active();
  const uint64_t len = direct ? RoundUpToPage(logical) : logical;
  uint8_t* page = s.buf[s.active];
  std::memset(page + logical, 0, len - logical);
  s.page_in_flight[s.active].store(true);
  DTL_LOG_DEBUG("[IPFIX disk writer] FlushPage: async write buf[%u] len=%zu bidx=%d src=%s",
                static_cast<unsigned>(s.active), static_cast<size_t>(len), s.buf_index[s.active],
                s.src.c_str());
  file.WriteAt(page, s.page_offset, len, s.page_offset + logical, s.last_ts, &s.page_in_flight[s.active],
               s.buf_index[s.active]);
  if (s.account) s.account->file_bytes.store(s.page_offset + logical, std::memory_order_relaxed);
  if (s.count == s.batch_capacity) {
    s.page_offset += logical;
    s.active = static_cast<uint8_t>(other);
    ResetPage(s);
    return;
  }
  // Partial: later samples continue in the other buffer, which starts as a
  // copy, so the page being written is never touched while in flight.
  std::memcpy(s.buf[other], page, static_cast<size_t>(logical));
  s.active = static_cast<uint8_t>(other);
  s.flushed = s.count;
}

bool IpfixDiskWriter::Busy(const DomainState& s) {
  return s.page_in_flight[0].load() || s.page_in_flight[1].load() || s.header_in_flight.load();
}

void IpfixDiskWriter::WaitForInFlight(DomainState& s) {
  auto busy = [&s] { return Busy(s); };
  if (!busy()) return;
  DTL_LOG_DEBUG("[IPFIX disk writer] WaitForInFlight: enter page[0]=%d page[1]=%d header=%d src=%s",
                s.page_in_flight[0].load() ? 1 : 0, s.page_in_flight[1].load() ? 1 : 0,
                s.header_in_flight.load() ? 1 : 0, s.src.c_str());
  const auto since = std::chrono::steady_clock::now();
  unsigned long long iters = 0;
  while (busy()) {
    sched_yield();
    ++iters;
  }
  DTL_LOG_DEBUG("[IPFIX disk writer] WaitForInFlight: done iters=%llu elapsed_us=%lld src=%s", iters,
                ElapsedUs(since), s.src.c_str());
}

}  // namespace dtl::ipfix
