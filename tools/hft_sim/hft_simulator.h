// A simulated switch exporting high-frequency counters as IPFIX: builds the
// announcement (templates, switch name, counter names, metadata) and the
// counter samples of each exporter, and sends them over UDP with pacing.
//
// Exporter conventions:
//   template 256: switch name (element 3, variable length)
//   template 257: counter names (element 5 u16 counter element ID,
//                 element 4 name, element 7 u32 revision)
//   template 258: metadata definitions (element 8 u64 definition ID,
//                 element 9 key, element 10 value, element 7 u32 revision)
//   template 259: metadata mappings (element 6 u16 counter template ID,
//                 element 8 u64 definition ID, element 7 u32 revision)
//   templates 300, 301, ...: counters, 8 bytes each; 300 starts with
//                 element 1 (u32 seconds) and element 2 (u32 nanoseconds).
// A sample is one data set with one record (fragment) per counter template,
// 300 first. By default the message sequence number counts the data records
// the exporter produced before the message (lost ones included), as IPFIX
// defines it; SimConfig::sequence_mode can make it count messages or stay
// constant.
//
// Messages: one fragment each, a whole sample each, or fragments_per_message
// fragments each packed across sample boundaries. With interleaving, every
// kInterleavePeriod samples one sample carries the switch name and one
// counter's definitions in the message of its first fragment, and another
// sends the definitions and mappings of one counter template in messages of
// their own right after the message of its first fragment (between two of
// its fragments when they are in different messages).
//
// Injected loss: with one fragment per message, or a whole sample per
// message, a dropped fragment is missing from what is sent (its message, or
// its record in the sample's message). When messages carry several fragments,
// a message is lost when the injector drops any fragment it carries, decided
// by the fragment's position p in its sample's send order:
// FragmentInjector::Drop(exporter, sample, p, fragments of the sample).
// Packing starts afresh after an announcement and after a withdrawal.
//
// Injected reordering acts as the network would: datagrams swap places, each
// keeping its sequence number, and the records of a sample are always
// written in template order. With one fragment per message the fragments'
// datagrams swap (FragmentInjector::Reorder on the sample's surviving
// fragments); with several, the message that ends between positions p and
// p+1 of a sample swaps with the next message when Swaps(exporter, sample,
// p) says so (a swapped message is not swapped again). Only a whole sample
// in one message has its records written in the reordered order.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/hft_sim/counter_layout.h"
#include "tools/hft_sim/descriptive_records.h"
#include "tools/hft_sim/fragment_injector.h"
#include "tools/hft_sim/ipfix_message_builder.h"
#include "tools/hft_sim/sequence_counter.h"
#include "tools/hft_sim/sim_config.h"
#include "tools/hft_sim/udp_sender.h"

namespace dtl::hftsim {

struct SimTotals {
  uint64_t datagrams = 0;
  uint64_t bytes = 0;
  uint64_t samples = 0;        // over all exporters
  uint64_t announcements = 0;  // over all exporters
  uint64_t fragments_sent = 0;
  uint64_t fragments_dropped = 0;  // by injected loss
  uint64_t fragment_swaps = 0;     // by injected reordering
  uint64_t send_errors = 0;
};

struct SimRunResult {
  SimTotals totals;
  double elapsed_sec = 0;
  std::string error;  // empty when the run could start
  bool ok() const { return error.empty(); }
};

class HftSimulator {
 public:
  static constexpr uint16_t kSwitchNameTemplate = DescriptiveRecords::kSwitchNameTemplate;
  static constexpr uint16_t kCounterNameTemplate = DescriptiveRecords::kCounterNameTemplate;
  static constexpr uint16_t kDefinitionTemplate = DescriptiveRecords::kDefinitionTemplate;
  static constexpr uint16_t kMappingTemplate = DescriptiveRecords::kMappingTemplate;
  static constexpr uint32_t kRevision = DescriptiveRecords::kRevision;
  // Interleaving: samples with index % kInterleavePeriod == kInlinePhase
  // carry descriptive records in a fragment's message, those with
  // kOwnPhase send them in messages of their own.
  static constexpr uint64_t kInterleavePeriod = 4;
  static constexpr uint64_t kInlinePhase = 1;
  static constexpr uint64_t kOwnPhase = 3;

  using DatagramSink = std::function<void(uint32_t exporter, const Datagram& datagram)>;

  // The configuration must pass SimConfig::Validate(). A negative start time
  // is replaced by the current wall-clock time.
  explicit HftSimulator(SimConfig config);

  const SimConfig& config() const { return config_; }
  const CounterLayout& layout() const { return layout_; }
  // Sample time of a sample, nanoseconds since the Unix epoch.
  uint64_t SampleTimeNs(uint64_t sample_index) const;

  // Templates, then the switch name, counter names, metadata definitions and
  // mappings, packed into datagrams of at most max_datagram_bytes. A message
  // of packed fragments still open goes first.
  std::vector<Datagram> BuildAnnouncement(uint32_t exporter);
  // The datagrams of one sample after injected loss and reordering (one per
  // fragment, one for the whole sample, or those of packed fragments that
  // are full), with the descriptive records interleaved into it and, at the
  // withdrawal sample, the withdrawal before it.
  std::vector<Datagram> BuildSample(uint32_t exporter, uint64_t sample_index);
  void BuildAnnouncement(uint32_t exporter, std::vector<Datagram>& out);
  void BuildSample(uint32_t exporter, uint64_t sample_index, std::vector<Datagram>& out);
  // What the exporter still holds back at the end of a run: the open message
  // of packed fragments, if any.
  void Finish(uint32_t exporter, std::vector<Datagram>& out);
  // Counter templates the exporter exports now (one fewer once withdrawn).
  size_t ActiveTemplates(uint32_t exporter) const;

  // Run's schedule without sockets: every exporter's announcement, then
  // samples 0 .. sample_count-1 round-robin over the exporters, with
  // re-announcements every announce period of sample time.
  SimTotals Generate(uint64_t sample_count, const DatagramSink& sink);

  // Sends until the sample count or duration is reached or RequestStop() is
  // called. Samples are paced against absolute deadlines when a rate is set;
  // re-announcements follow the wall clock.
  SimRunResult Run();
  // Safe from another thread and from a signal handler.
  void RequestStop() { stop_.store(true, std::memory_order_relaxed); }
  bool stop_requested() const { return stop_.load(std::memory_order_relaxed); }

  // Injection counters accumulated by BuildSample since construction.
  uint64_t fragments_dropped() const { return fragments_dropped_; }
  uint64_t fragment_swaps() const { return fragment_swaps_; }

 private:
  struct ExporterState {
    explicit ExporterState(SequenceMode mode) : sequence(mode) {}
    SequenceCounter sequence;
    uint64_t next_sample = 0;
    bool withdrawn = false;
    // The open message of packed fragments (fragments_per_message > 1).
    IpfixMessageBuilder packed;
    size_t packed_fragments = 0;  // 0: no message open
    bool packed_lost = false;     // the injector dropped a fragment in it
    // A finished message held back to follow the next one (reordering).
    Datagram held;
    bool holding = false;
    // Sample whose own descriptive messages follow the open message, or -1.
    int64_t descriptive_after = -1;
  };
  // A datagram of one sample before reordering; fragment kNoFragment for a
  // descriptive message.
  struct Unit {
    static constexpr size_t kNoFragment = SIZE_MAX;
    Datagram bytes;
    size_t fragment = kNoFragment;
  };

  uint32_t DomainOf(uint32_t exporter) const { return config_.observation_domain + exporter; }
  uint32_t ExportTime(uint64_t sample_index) const;
  size_t ActiveTemplates(const ExporterState& state) const;
  bool InlineAt(uint64_t sample_index) const;
  bool OwnAt(uint64_t sample_index) const;
  void PutCounterRecord(IpfixMessageBuilder& builder, size_t template_index, uint64_t sample_index);
  // The descriptive records of an interleaving sample, into descriptive_.
  void InlineRecords(const ExporterState& state, uint64_t sample_index);
  void OwnRecords(const ExporterState& state, uint64_t sample_index);
  // Sends the own descriptive messages of sample_index.
  void SendOwnRecords(uint32_t exporter, ExporterState& state, uint64_t sample_index, std::vector<Datagram>& out);
  void Withdraw(uint32_t exporter, ExporterState& state, uint64_t sample_index, std::vector<Datagram>& out);
  void BuildSingleFragments(uint32_t exporter, ExporterState& state, uint64_t sample_index, size_t fragments,
                            std::vector<Datagram>& out);
  void BuildWholeSample(uint32_t exporter, ExporterState& state, uint64_t sample_index, size_t fragments,
                        std::vector<Datagram>& out);
  void BuildPacked(uint32_t exporter, ExporterState& state, uint64_t sample_index, size_t fragments,
                   std::vector<Datagram>& out);
  // Sends (or, when lost, drops) the open message of packed fragments, or
  // holds it back to follow the next one, and then the descriptive messages
  // due after it.
  void FlushPacked(uint32_t exporter, ExporterState& state, bool hold, std::vector<Datagram>& out);
  // Flushes the open message and sends a held one: nothing stays behind.
  void DrainPacked(uint32_t exporter, ExporterState& state, std::vector<Datagram>& out);

  SimConfig config_;
  CounterLayout layout_;
  DescriptiveRecords descriptions_;
  FragmentInjector injector_;
  uint64_t start_time_ns_ = 0;
  // Microbursts in samples (see BurstExtra); 0 without.
  uint64_t burst_period_samples_ = 0;
  uint64_t burst_length_samples_ = 0;
  std::vector<ExporterState> exporters_;
  IpfixMessageBuilder builder_;
  std::vector<size_t> order_;
  std::vector<Unit> units_;
  std::vector<size_t> unit_of_fragment_;
  std::vector<SimRecord> descriptive_;
  uint64_t fragments_produced_ = 0;
  uint64_t fragments_dropped_ = 0;
  uint64_t fragment_swaps_ = 0;
  std::atomic<bool> stop_{false};
};

}  // namespace dtl::hftsim
