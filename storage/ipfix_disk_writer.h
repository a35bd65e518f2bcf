// Turns decoded IPFIX samples into bytes on disk. Every session gets a
// DomainState: its rotating data file, two page buffers that receive
// fixed-size sample blocks (double buffering) and a header page in which the
// 256-byte data file header and the first blocks of each new file are put
// together. Pages go to the shared io_uring writer as asynchronous writes
// from 4 KiB aligned, optionally kernel-registered memory; a quiet session's
// partial page is written too. Each schema update also publishes the
// counters-schema file and the metadata file of the session.
//
// Threads: receive worker i alone uses shard i (its sessions) and takes no
// lock; the io_uring writer thread clears the in-flight flags and runs the
// registered-buffer updates; Start, Stop and the destructor run while no
// worker does.
#pragma once

#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "storage/async_data_file.h"
#include "storage/disk_retention.h"
#include "storage/disk_writer_config.h"
#include "storage/io_uring_writer.h"
#include "storage/ipfix_session_sink.h"
#include "storage/schema_snapshot.h"

namespace dtl::ipfix {

// Hash of session key strings: 64-bit FNV-1a over the key bytes.
struct StringCrc32cHash {
  size_t operator()(std::string_view key) const noexcept {
    uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char byte : key) {
      hash ^= byte;
      hash *= 0x100000001b3ull;
    }
    return static_cast<size_t>(hash);
  }
};

// One sample for the copying write path: its value bytes in fragments.
struct CounterWriteRecord {
  struct Fragment {
    const uint8_t* data = nullptr;
    uint64_t length = 0;
  };

  const std::string* session_key = nullptr;
  uint32_t unused = 0;
  uint32_t time_sec = 0;
  uint32_t time_nsec = 0;
  uint64_t worker_id = 0;
  const Fragment* fragments = nullptr;
  uint64_t fragment_count = 0;
};

class IpfixDiskWriter final : public IpfixSessionSink {
 public:
  using Config = DiskWriterConfig;

  static constexpr uint64_t kPageAlign = 4096;
  static constexpr uint64_t kHeaderSize = 256;
  // Block header: magic, padding and timestamp.
  static constexpr uint32_t kBlockHeaderSize = 16;
  // A data page aims at about this many bytes.
  static constexpr uint32_t kPageBytesTarget = 1048576;
  // Host name of the client id that names every data file's node.
  static constexpr const char* kClientHostName = "ipfix-receiver";
  static constexpr const char* kDataTag = "ipfix";

  // Per-session state; owns its buffers (freed with free) and its data file.
  struct DomainState {
    DomainState() = default;
    ~DomainState();
    DomainState(const DomainState&) = delete;
    DomainState& operator=(const DomainState&) = delete;

    SchemaSnapshot schema;  // last applied snapshot
    std::shared_ptr<SessionAccount> account;  // the session's counters, if kept
    bool announce = false;  // a new schema: say what is stored once its file exists
    std::string src;        // switch name or "unknown"
    std::unique_ptr<AsyncDataFile> data_file;
    uint32_t block_size = 0;
    unsigned char schema_id[16] = {};
    uint8_t* buf[2] = {nullptr, nullptr};
    uint64_t buf_size = 0;
    uint8_t active = 0;
    int32_t buf_index[2] = {-1, -1};
    std::atomic<bool> page_in_flight[2] = {false, false};
    uint8_t* header_page = nullptr;
    uint64_t header_size = 0;
    uint32_t hdr_blocks = 0;
    int32_t header_buf_index = -1;
    std::atomic<bool> header_in_flight{false};
    uint32_t batch_capacity = 0;
    uint32_t count = 0;  // blocks committed in the page being filled
    uint64_t first_ts = 0;  // time of the page's first committed block
    uint64_t last_ts = 0;   // time of its latest committed block
    uint8_t* pending = nullptr;  // block handed out and not yet committed

    // Blocks always gather in buf[active] from block 0. Until the current
    // file has its header unit (the 256-byte header and hdr_blocks blocks)
    // a flush writes them through the header page; afterwards the page is
    // written at page_offset. A partial flush (idle session, stop) writes
    // the blocks so far and keeps them: the next flush writes the page again
    // at the same offset with the blocks that followed.
    bool header_written = false;
    uint64_t page_offset = 0;
    uint32_t flushed = 0;  // blocks of the page already on their way to disk

    uint64_t committed = 0;          // samples committed over the session's life
    uint64_t committed_at_tick = 0;  // `committed` at the last worker tick
    uint64_t idle_since_ms = 0;      // when `committed` last changed, by the ticks
    uint64_t lost = 0;               // samples lost to storage faults
    uint64_t lost_at_fault = 0;      // `lost` when the current fault began
    bool in_fault = false;           // storage is failing; logged once until it works
    uint8_t writes_since_check = 0;  // page writes since the file was last checked

    // The published files, byte for byte, so that they can be checked and
    // written again when they go missing or are damaged.
    std::string schema_text;
    std::string metadata_text;
  };

  // How a block size turns into page and header-page sizes.
  struct PageSizing {
    uint32_t min_batch = 0;     // fewest blocks whose total is a 4096 multiple
    uint32_t bytes_target = 0;  // blocks in about 1 MiB
    uint32_t target = 0;
    uint32_t batch_capacity = 0;
    uint64_t buffer_size = 0;
    uint32_t hdr_blocks = 0;
    uint64_t header_size = 0;
    bool header_aligned = false;  // header + hdr_blocks blocks is a 4096 multiple
  };
  static PageSizing ComputePageSizing(uint32_t block_size, uint32_t batch_count);

  // One counter as named in the schema and described in the metadata file.
  struct CounterEntry {
    std::string name;                 // label prefix + field name
    std::vector<std::string> keys;    // sorted metadata keys
    std::vector<std::string> values;  // their values, then the field name
  };
  // Names the counters; text that is not valid UTF-8 has its bad bytes
  // replaced, so that both JSON files stay valid and agree on the names.
  static std::vector<CounterEntry> BuildCounterEntries(const std::vector<FlatFieldInfo>& flat_fields);


  explicit IpfixDiskWriter(const Config& config);
  ~IpfixDiskWriter() override;

  IpfixDiskWriter(const IpfixDiskWriter&) = delete;
  IpfixDiskWriter& operator=(const IpfixDiskWriter&) = delete;

  // Checks that the data root can be created and written (choosing buffered
  // writes where the file system refuses direct I/O), starts the io_uring
  // writer and registers the buffer pool. False when the root is unusable
  // or the writer cannot start; nothing starts when the root is empty.
  bool Start() override;
  // Flushes and drains every session, then stops the io_uring writer. Once.
  void Stop() override;
  const std::string& root() const override { return config_.root; }

  void ProcessSchemaUpdate(size_t worker_id, const std::string& key, const SchemaSnapshot& snapshot) override;
  uint8_t* AcquireRecordValueSlot(size_t worker_id, const std::string& key, uint32_t time_sec,
                                  uint32_t time_nsec, uint64_t values_size) override;
  void CommitRecord(size_t worker_id, const std::string& key, uint64_t values_size) override;
  void RemoveSession(size_t worker_id, const std::string& key) override;
  // Flushes the partial page of every session of the worker that has had no
  // new sample for flush_idle_ms; asks for the next call while any of them
  // still holds samples not yet written.
  uint32_t Tick(size_t worker_id) override;

  // Copying variant of AcquireRecordValueSlot + CommitRecord.
  void ProcessRecord(const CounterWriteRecord& record);
  // Writes what has been committed in the page being filled.
  void FlushPage(size_t worker_id, const std::string& key);

  const Config& config() const { return config_; }
  size_t shard_count() const { return shards_.size(); }
  size_t session_count() const;
  // Slots registered with the kernel (0 when registration failed).
  uint64_t pool_slots() const;
  // The state of a session, for inspection; null when there is none.
  const DomainState* FindSession(size_t worker_id, const std::string& key) const;

 private:
  using Shard = std::unordered_map<std::string, std::unique_ptr<DomainState>, StringCrc32cHash>;

  DomainState* Lookup(size_t worker_id, const std::string& key);
  static bool Ready(const DomainState& state);
  // Where the next block goes while the file has no bytes yet.
  static bool InHeaderMode(const DomainState& state);
  // Timestamp bookkeeping of a new sample; returns its time in µs.
  static uint64_t NoteSampleTime(DomainState& state, uint32_t time_sec, uint32_t time_nsec);

  // Where the next sample of a ready session goes; null when its page is
  // full and cannot be written.
  uint8_t* AcquireBlock(DomainState& state, uint64_t ts);
  void Commit(DomainState& state);
  // Writes the committed blocks not yet written (a full page, or the page so
  // far as a partial write), after handling write faults, outside damage
  // and rotation of the session's file.
  void FlushState(DomainState& state);
  // Flushes until every committed block is on its way to disk.
  void FlushAll(DomainState& state);
  void WriteHeaderUnit(DomainState& state);
  void WriteDataPage(DomainState& state);
  // A write failed or the file was damaged from outside: close it keeping
  // what is good, count what is lost, and say so once per fault.
  void HandleFileFault(DomainState& state, AsyncDataFile::DiskState fault);
  // Starting the next file: the page's blocks already written belong to the
  // file being closed and leave the page.
  static void DropWrittenBlocks(DomainState& state);
  // Samples written once and lost since: every loss counts here, so that the
  // session's account sees it too.
  void CountLost(DomainState& state, uint64_t samples);
  void NoteLoss(DomainState& state, uint64_t samples, const char* what);
  void NoteHealthy(DomainState& state);
  void ReportClosedFile(const std::string& path, uint64_t size);
  static void WaitForInFlight(DomainState& state);
  // Whether a write of the session is outstanding.
  static bool Busy(const DomainState& state);
  static void ResetPage(DomainState& state);
  // Creates the data root and writes a probe file there (choosing buffered
  // writes where direct I/O is refused). False with a log line when unusable.
  bool CheckDataRoot();

  void AllocateBuffers(DomainState& state);
  // Claims a slot for buffer and queues its registration; -1 when none.
  int ClaimAndRegister(const iovec& buffer, std::vector<std::pair<int, std::shared_ptr<std::atomic<int>>>>& updates);
  int ClaimSlot(const iovec& buffer);
  void ReleaseSlot(int slot);
  // Pool entry back to free without touching the kernel (its update failed).
  void ForgetSlot(int slot);
  void ReleaseSessionSlots(DomainState& state);

  void ApplySchemaUpdate(size_t worker_id, const std::string& key, const SchemaSnapshot& snapshot);
  void CreateDataFile(DomainState& state);
  void WriteSchemaJson(DomainState& state, const SchemaSnapshot& snapshot);
  void WriteMetadataJson(DomainState& state, const SchemaSnapshot& snapshot);
  // Makes sure the schema and metadata files of the session are on disk with
  // exactly the published text; writes them again when they are missing or
  // differ (a data root removed, a file cut short by a full disk).
  void EnsurePublished(DomainState& state);
  // The one line a new or changed session schema gets: switch, exporter,
  // counters, interfaces, schema identifier and data file.
  void AnnounceSchema(DomainState& state);
  std::string SchemaDir() const { return config_.root + "/schema"; }
  std::string MetadataDir() const { return config_.root + "/metadata"; }

  Config config_;
  std::atomic<bool> stopped_{false};
  std::atomic<bool> started_{false};
  IoUringWriter writer_;
  // Keeps the data under data_size_limit; fed with every file closed by rotation.
  DiskRetention retention_;
  std::vector<iovec> iovec_pool_;
  uint64_t pool_slots_ = 0;
  mutable std::mutex pool_mutex_;
  std::vector<Shard> shards_;
  // Per worker: the state found last, so a run of records of one session
  // skips the hash lookup. Reset whenever that worker's shard loses an entry.
  struct alignas(64) LastLookup {
    std::string key;
    DomainState* state = nullptr;
  };
  std::vector<LastLookup> last_lookup_;
  // Per worker: when its sessions were last looked at for idle pages (ms).
  std::vector<uint64_t> last_tick_ms_;
};

}  // namespace dtl::ipfix
