// What the simulated switch exports, where to, how fast, and which network
// faults to inject. Plain values with working defaults; Validate() says
// whether a combination can be exported at all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace dtl::hftsim {

// Collector address split into host and port; the host keeps no brackets.
struct SimTarget {
  std::string host;
  uint16_t port = 0;
};

// Parses "host:port", "a.b.c.d:port" or "[v6]:port". False on bad syntax or
// a port outside 1-65535.
bool ParseSimTarget(const std::string& text, SimTarget& target);

// What the sequence number of a message header counts.
enum class SequenceMode {
  kRecords,   // data records the exporter produced before the message, as IPFIX defines it
  kMessages,  // messages the exporter produced before this one
  kConstant,  // nothing: every message carries SimConfig::kConstantSequence
};

struct SimConfig {
  // Largest UDP payload that can be sent over IPv4.
  static constexpr size_t kMaxUdpPayload = 65507;
  // Counter element IDs are 15 bits; counters take IDs from this one upward.
  static constexpr uint16_t kFirstCounterElement = 1000;
  static constexpr size_t kMaxCounterTemplates = 32;
  // The sequence number of every message in SequenceMode::kConstant.
  static constexpr uint32_t kConstantSequence = 1000;
  // Room kept in a counter message for descriptive records interleaved into
  // it (a switch name and one counter's definitions, names of at most 1000
  // bytes each).
  static constexpr size_t kInlineDescriptiveReserve = 4096;

  std::string target = "127.0.0.1:4739";
  std::string switch_name = "hft-sim";
  uint32_t observation_domain = 1;
  // Each exporter has its own source socket and domain observation_domain + index.
  uint32_t exporters = 1;
  // Local UDP port of the first exporter (the next ones count up from it);
  // 0 lets the kernel choose. A fixed port lets a later run continue the
  // same session at the collector, as a switch that restarts does.
  uint16_t source_port = 0;
  // Interface names; when empty, interface_count names Ethernet1/1..Ethernet1/N.
  std::vector<std::string> interfaces;
  uint32_t interface_count = 4;
  std::vector<std::string> counter_names = {"in-octets",  "out-octets", "in-packets",
                                            "out-packets", "in-discards", "out-errors"};
  // When set, every counter exists once per interface and traffic class.
  std::vector<std::string> traffic_classes;
  uint32_t counters_per_template = 60;
  uint64_t sample_interval_us = 100;
  // Added to every counter value (modulo 2^64): a base close to 2^64 makes
  // the counters wrap during a run.
  uint64_t value_base = 0;
  // Microbursts: in the first burst_length_us of every burst_period_us of
  // sample time the counters grow faster (see BurstExtra); 0 = none.
  uint64_t burst_period_us = 0;
  uint64_t burst_length_us = 0;
  // Samples per second per exporter; 0 sends as fast as possible.
  double rate = 0;
  // Stop after this many samples per exporter (0 = no limit) or this many
  // seconds (0 = no limit); both 0 runs until stopped.
  uint64_t sample_count = 0;
  double duration_sec = 0;
  // false: one fragment (data record) per datagram; true: a whole sample per datagram.
  bool sample_per_datagram = false;
  // With fragments per datagram: counter fragments per message. More than one
  // packs the exporter's fragments that many to a message regardless of
  // sample boundaries (a message may end one sample and start the next).
  uint32_t fragments_per_message = 1;
  // What message sequence numbers count.
  SequenceMode sequence_mode = SequenceMode::kRecords;
  // Descriptive records (switch name, metadata definitions and mappings, the
  // same content as announced) also go out between the fragments of samples:
  // some in the message of a fragment, some in messages of their own.
  bool interleave_descriptive = false;
  // Before this sample (negative: never) the highest counter template is
  // withdrawn, and later samples and announcements go without it.
  int64_t withdraw_at_sample = -1;
  // Templates, names and metadata are sent at start and then every this many
  // seconds; 0 sends them once.
  double announce_period_sec = 5;
  // Fragment loss: dropped with this probability, and/or every Nth fragment.
  double loss_probability = 0;
  uint64_t loss_every = 0;
  // Probability that a fragment swaps places with the next one of its sample.
  double reorder_probability = 0;
  uint64_t seed = 1;
  // Sample time of sample 0 in nanoseconds since the Unix epoch; negative = now.
  int64_t start_time_ns = -1;
  // Announcement messages are packed up to this size (a single larger
  // template or record still goes alone).
  size_t max_datagram_bytes = 1400;
  // Export time of every message: wall clock instead of the sample time.
  bool wall_clock_export_time = false;

  // The interface names in use (explicit list or generated from the count).
  std::vector<std::string> InterfaceNames() const;
  // interfaces × counter names × traffic classes (at least one class).
  size_t TotalCounters() const;
  // Number of counter templates (300, 301, ...) the counters need.
  size_t CounterTemplateCount() const;
  // Empty when the configuration can run, else what is wrong with it.
  std::string Validate() const;
};

}  // namespace dtl::hftsim
