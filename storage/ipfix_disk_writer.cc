// The disk writer's life and memory: start (data root checks), stop, page
// sizing, and the pool of registered page buffers the sessions take from.
#include "storage/ipfix_disk_writer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "dtl_counters.h"
#include "dtl_logger.h"

namespace dtl::ipfix {

namespace {

uint8_t* AlignedAlloc(uint64_t size) {
  void* memory = nullptr;
  if (size == 0 || posix_memalign(&memory, IpfixDiskWriter::kPageAlign, size) != 0) return nullptr;
  return static_cast<uint8_t*>(memory);
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
      last_lookup_(shards_.size()),
      last_tick_ms_(shards_.size(), 0) {
  for (Shard& shard : shards_) shard.max_load_factor(1.0f);
}

bool IpfixDiskWriter::CheckDataRoot() {
  namespace fs = boost::filesystem;
  const char* root = config_.root.c_str();
  boost::system::error_code ec;
  fs::create_directories(config_.root, ec);
  if (!fs::is_directory(config_.root)) {
    DTL_LOG_ERROR("[IPFIX disk writer] Data root %s cannot be created: %s", root,
                  ec ? ec.message().c_str() : "not a directory");
    return false;
  }
  // A small file written the way data files are shows a read-only or full
  // file system, missing permissions, or one that refuses direct I/O.
  std::string probe = config_.root + "/.dtl-write-check-XXXXXX";
  const int created = mkstemp(probe.data());
  if (created < 0) {
    const int error = errno;
    DTL_LOG_ERROR("[IPFIX disk writer] Data root %s cannot be written: %s", root, strerror(error));
    return false;
  }
  close(created);
  struct Cleanup {
    const std::string& path;
    uint8_t* page;
    ~Cleanup() {
      unlink(path.c_str());
      free(page);
    }
  } cleanup{probe, AlignedAlloc(kPageAlign)};
  if (cleanup.page == nullptr) return false;
  std::memset(cleanup.page, 0, kPageAlign);
  int fd = -1;
  if (config_.direct_io) {
    fd = open(probe.c_str(), O_WRONLY | O_DIRECT);
    if (fd < 0 && errno == EINVAL) {
      DTL_LOG_WARNING("[IPFIX disk writer] The file system of data root %s refuses direct I/O (O_DIRECT); "
                      "data files are written through the page cache instead",
                      root);
      config_.direct_io = false;
    }
  }
  if (fd < 0) fd = open(probe.c_str(), O_WRONLY);
  const ssize_t written = fd < 0 ? -1 : pwrite(fd, cleanup.page, kPageAlign, 0);
  const int error = errno;
  if (fd >= 0) close(fd);
  if (written != static_cast<ssize_t>(kPageAlign)) {
    DTL_LOG_ERROR("[IPFIX disk writer] Data root %s cannot be written: %s", root,
                  written < 0 ? strerror(error) : "short write");
    return false;
  }
  return true;
}

IpfixDiskWriter::~IpfixDiskWriter() {
  Stop();
  last_lookup_.clear();
  shards_.clear();
}

bool IpfixDiskWriter::Start() {
  if (config_.root.empty()) {
    DTL_LOG_WARNING("[IPFIX disk writer] Data root not configured, disk writer disabled");
    return true;
  }
  if (stopped_.load()) return false;
  if (started_.exchange(true)) return true;
  if (!CheckDataRoot()) {
    started_.store(false);
    return false;
  }

  writer_.iosqe_async = config_.iosqe_async;
  if (!writer_.Start()) {
    DTL_LOG_ERROR("[IPFIX disk writer] Failed to start shared io_uring writer");
    return false;
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
    DTL_LOG_DEBUG("[IPFIX disk writer] Registered iovec pool: %zu slots (max_sessions=%zu)",
                 static_cast<size_t>(slots), static_cast<size_t>(config_.max_sessions));
  } else {
    DTL_LOG_ERROR("[IPFIX disk writer] Failed to register iovec pool (%zu slots) with io_uring",
                  static_cast<size_t>(slots));
  }

  DTL_LOG_INFO("[IPFIX disk writer] Storing under %s (data file paths: %s)", config_.root.c_str(),
               config_.counters_template.empty() ? "the default template" : config_.counters_template.c_str());
  retention_.Start(config_);
  return true;
}

void IpfixDiskWriter::Stop() {
  if (stopped_.exchange(true)) return;
  // Retention goes first: the last flushes below close no file by rotation.
  retention_.Stop();

  size_t sessions = 0;
  for (const Shard& shard : shards_) sessions += shard.size();
  DTL_LOG_DEBUG("[IPFIX disk writer] Stop: flushing %zu sessions across %zu shards", sessions,
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
  DTL_LOG_DEBUG("[IPFIX disk writer] Stopped");
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


void IpfixDiskWriter::RemoveSession(size_t worker_id, const std::string& key) {
  if (worker_id >= shards_.size()) return;
  Shard& shard = shards_[worker_id];
  auto it = shard.find(key);
  if (it == shard.end()) return;
  DomainState& s = *it->second;
  DTL_LOG_DEBUG("[IPFIX disk writer] RemoveSession: worker=%zu session=%s", worker_id,
               s.schema.display_name.c_str());
  FlushAll(s);
  WaitForInFlight(s);
  ReleaseSessionSlots(s);
  // The slots are free again once the writer has unregistered them.
  writer_.Drain();
  const std::string src = s.src;
  // The file closed here is found by retention's next start-up scan.
  last_lookup_[worker_id] = LastLookup{};
  shard.erase(it);
  DTL_LOG_DEBUG("[IPFIX disk writer] Removed session %s", src.c_str());
}

void IpfixDiskWriter::AllocateBuffers(DomainState& s) {
  const PageSizing sizing = ComputePageSizing(s.block_size, config_.batch_count);
  s.batch_capacity = sizing.batch_capacity;
  // Without an aligned header page the data pages start at unaligned
  // offsets, which direct I/O cannot write: such files are buffered.
  if (s.data_file) s.data_file->direct_io_blocked = !sizing.header_aligned;
  DTL_LOG_DEBUG(
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
