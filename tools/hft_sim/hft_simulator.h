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
// A sample is one data set with one record per counter template, 300 first.
// The message sequence number counts the data records the exporter produced
// before the message (lost ones included), as IPFIX defines it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/hft_sim/counter_layout.h"
#include "tools/hft_sim/fragment_injector.h"
#include "tools/hft_sim/ipfix_message_builder.h"
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
  static constexpr uint16_t kSwitchNameTemplate = 256;
  static constexpr uint16_t kCounterNameTemplate = 257;
  static constexpr uint16_t kDefinitionTemplate = 258;
  static constexpr uint16_t kMappingTemplate = 259;
  static constexpr uint32_t kRevision = 1;

  using DatagramSink = std::function<void(uint32_t exporter, const Datagram& datagram)>;

  // The configuration must pass SimConfig::Validate(). A negative start time
  // is replaced by the current wall-clock time.
  explicit HftSimulator(SimConfig config);

  const SimConfig& config() const { return config_; }
  const CounterLayout& layout() const { return layout_; }
  // Sample time of a sample, nanoseconds since the Unix epoch.
  uint64_t SampleTimeNs(uint64_t sample_index) const;

  // Templates, then the switch name, counter names, metadata definitions and
  // mappings, packed into datagrams of at most max_datagram_bytes.
  std::vector<Datagram> BuildAnnouncement(uint32_t exporter);
  // The datagrams of one sample after injected loss and reordering (one per
  // fragment, or one for the whole sample). Advances the exporter's sequence
  // number by the number of counter templates.
  std::vector<Datagram> BuildSample(uint32_t exporter, uint64_t sample_index);
  void BuildAnnouncement(uint32_t exporter, std::vector<Datagram>& out);
  void BuildSample(uint32_t exporter, uint64_t sample_index, std::vector<Datagram>& out);

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
    uint32_t sequence = 0;  // data records produced so far, modulo 2^32
    uint64_t next_sample = 0;
  };

  uint32_t DomainOf(uint32_t exporter) const { return config_.observation_domain + exporter; }
  uint32_t ExportTime(uint64_t sample_index) const;
  void PutCounterRecord(size_t template_index, uint64_t sample_index);

  SimConfig config_;
  CounterLayout layout_;
  FragmentInjector injector_;
  uint64_t start_time_ns_ = 0;
  std::vector<ExporterState> exporters_;
  IpfixMessageBuilder builder_;
  std::vector<size_t> order_;
  uint64_t fragments_dropped_ = 0;
  uint64_t fragment_swaps_ = 0;
  std::atomic<bool> stop_{false};
};

}  // namespace dtl::hftsim
