#include "tools/hft_sim/hft_simulator.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace dtl::hftsim {

namespace {

constexpr uint16_t kVariable = 65535;
constexpr uint16_t kTemplateSetId = 2;
// Pacing sleeps in slices of at most this long so a stop request is seen soon.
constexpr int64_t kMaxSleepNs = 20'000'000;

uint64_t ClockNs(clockid_t clock) {
  timespec ts{};
  clock_gettime(clock, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// Sleeps until the monotonic deadline or until a stop is requested.
void SleepUntil(uint64_t deadline_ns, const std::atomic<bool>& stop) {
  while (!stop.load(std::memory_order_relaxed)) {
    const uint64_t now = ClockNs(CLOCK_MONOTONIC);
    if (now >= deadline_ns) return;
    const uint64_t wake = std::min<uint64_t>(deadline_ns, now + kMaxSleepNs);
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(wake / 1'000'000'000ull);
    ts.tv_nsec = static_cast<long>(wake % 1'000'000'000ull);
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr);
  }
}

// Big-endian encoding of the descriptive records, one record at a time, so
// that the packer knows a record's size before placing it.
class RecordBytes {
 public:
  void Clear() { bytes_.clear(); }
  void U16(uint16_t v) { Uint(v, 2); }
  void U32(uint32_t v) { Uint(v, 4); }
  void U64(uint64_t v) { Uint(v, 8); }
  void Text(const std::string& text) {
    if (text.size() < 255) {
      bytes_.push_back(static_cast<uint8_t>(text.size()));
    } else {
      bytes_.push_back(255);
      U16(static_cast<uint16_t>(text.size()));
    }
    bytes_.insert(bytes_.end(), text.begin(), text.end());
  }
  void Template(uint16_t template_id, const std::vector<FieldSpec>& fields) {
    U16(template_id);
    U16(static_cast<uint16_t>(fields.size()));
    for (const FieldSpec& field : fields) {
      U16(field.element_id);
      U16(field.length);
    }
  }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  void Uint(uint64_t v, size_t width) {
    for (size_t i = width; i-- > 0;) bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  std::vector<uint8_t> bytes_;
};

// Packs records into messages of at most `limit` bytes, opening a new set
// whenever the set ID changes and a new message when the next record does
// not fit. Each message's sequence number counts the data records before it.
class AnnouncementPacker {
 public:
  AnnouncementPacker(IpfixMessageBuilder& builder, std::vector<Datagram>& out, size_t limit, uint32_t export_time,
                     uint32_t domain, uint32_t& sequence)
      : builder_(builder), out_(out), limit_(limit), export_time_(export_time), domain_(domain), sequence_(sequence) {}

  void Add(uint16_t set_id, const std::vector<uint8_t>& record, bool data_record) {
    const size_t added = record.size() + (set_id == set_id_ ? 0 : 4);
    if (open_ && builder_.size() + added > limit_) Flush();
    if (!open_) {
      builder_.Begin(export_time_, sequence_, domain_);
      open_ = true;
      set_id_ = 0;
    }
    if (set_id != set_id_) {
      builder_.BeginSet(set_id);
      set_id_ = set_id;
    }
    builder_.PutBytes(record.data(), record.size());
    if (data_record) ++sequence_;
  }

  void Flush() {
    if (!open_) return;
    out_.push_back(builder_.Finish());
    open_ = false;
    set_id_ = 0;
  }

 private:
  IpfixMessageBuilder& builder_;
  std::vector<Datagram>& out_;
  size_t limit_;
  uint32_t export_time_;
  uint32_t domain_;
  uint32_t& sequence_;
  bool open_ = false;
  uint16_t set_id_ = 0;
};

}  // namespace

HftSimulator::HftSimulator(SimConfig config)
    : config_(std::move(config)),
      layout_(config_),
      injector_(config_.loss_probability, config_.loss_every, config_.reorder_probability, config_.seed),
      exporters_(config_.exporters) {
  start_time_ns_ = config_.start_time_ns >= 0 ? static_cast<uint64_t>(config_.start_time_ns) : ClockNs(CLOCK_REALTIME);
}

uint64_t HftSimulator::SampleTimeNs(uint64_t sample_index) const {
  return start_time_ns_ + sample_index * config_.sample_interval_us * 1000;
}

uint32_t HftSimulator::ExportTime(uint64_t sample_index) const {
  const uint64_t ns = config_.wall_clock_export_time ? ClockNs(CLOCK_REALTIME) : SampleTimeNs(sample_index);
  return static_cast<uint32_t>(ns / 1'000'000'000ull);
}

std::vector<Datagram> HftSimulator::BuildAnnouncement(uint32_t exporter) {
  std::vector<Datagram> out;
  BuildAnnouncement(exporter, out);
  return out;
}

std::vector<Datagram> HftSimulator::BuildSample(uint32_t exporter, uint64_t sample_index) {
  std::vector<Datagram> out;
  BuildSample(exporter, sample_index, out);
  return out;
}

void HftSimulator::BuildAnnouncement(uint32_t exporter, std::vector<Datagram>& out) {
  out.clear();
  if (exporter >= exporters_.size()) return;
  ExporterState& state = exporters_[exporter];
  AnnouncementPacker packer(builder_, out, config_.max_datagram_bytes, ExportTime(state.next_sample),
                            DomainOf(exporter), state.sequence);
  RecordBytes record;
  const auto add_template = [&](uint16_t id, const std::vector<FieldSpec>& fields) {
    record.Clear();
    record.Template(id, fields);
    packer.Add(kTemplateSetId, record.bytes(), false);
  };
  add_template(kSwitchNameTemplate, {{3, kVariable}});
  add_template(kCounterNameTemplate, {{5, 2}, {4, kVariable}, {7, 4}});
  add_template(kDefinitionTemplate, {{8, 8}, {9, kVariable}, {10, kVariable}, {7, 4}});
  add_template(kMappingTemplate, {{6, 2}, {8, 8}, {7, 4}});
  const std::vector<CounterInfo>& counters = layout_.counters();
  std::vector<FieldSpec> fields;
  for (const CounterTemplateInfo& info : layout_.templates()) {
    fields.clear();
    if (info.template_id == CounterLayout::kFirstCounterTemplate) {
      fields.push_back({1, 4});
      fields.push_back({2, 4});
    }
    for (size_t i = 0; i < info.counter_count; ++i) fields.push_back({counters[info.first_counter + i].element_id, 8});
    add_template(info.template_id, fields);
  }

  record.Clear();
  record.Text(config_.switch_name);
  packer.Add(kSwitchNameTemplate, record.bytes(), true);

  for (const CounterInfo& counter : counters) {
    record.Clear();
    record.U16(counter.element_id);
    record.Text(counter.name);
    record.U32(kRevision);
    packer.Add(kCounterNameTemplate, record.bytes(), true);
  }

  const auto add_definition = [&](uint64_t id, const char* key, const std::string& value) {
    record.Clear();
    record.U64(id);
    record.Text(key);
    record.Text(value);
    record.U32(kRevision);
    packer.Add(kDefinitionTemplate, record.bytes(), true);
  };
  for (const CounterInfo& counter : counters) {
    add_definition(counter.definition_id, "interface", counter.interface_name);
    if (!counter.traffic_class.empty()) add_definition(counter.definition_id, "traffic_class", counter.traffic_class);
  }

  // Mappings of each template in the order of its counter fields: the k-th
  // mapping of a template describes its k-th counter.
  for (const CounterTemplateInfo& info : layout_.templates()) {
    for (size_t i = 0; i < info.counter_count; ++i) {
      record.Clear();
      record.U16(info.template_id);
      record.U64(counters[info.first_counter + i].definition_id);
      record.U32(kRevision);
      packer.Add(kMappingTemplate, record.bytes(), true);
    }
  }
  packer.Flush();
}

void HftSimulator::PutCounterRecord(size_t template_index, uint64_t sample_index) {
  const CounterTemplateInfo& info = layout_.templates()[template_index];
  builder_.BeginSet(info.template_id);
  if (template_index == 0) {
    const uint64_t time_ns = SampleTimeNs(sample_index);
    builder_.PutU32(static_cast<uint32_t>(time_ns / 1'000'000'000ull));
    builder_.PutU32(static_cast<uint32_t>(time_ns % 1'000'000'000ull));
  }
  for (size_t i = 0; i < info.counter_count; ++i) builder_.PutU64(CounterValue(sample_index, info.first_counter + i));
  builder_.EndSet();
}

void HftSimulator::BuildSample(uint32_t exporter, uint64_t sample_index, std::vector<Datagram>& out) {
  out.clear();
  if (exporter >= exporters_.size()) return;
  ExporterState& state = exporters_[exporter];
  const size_t fragments = layout_.templates().size();
  order_.clear();
  for (size_t f = 0; f < fragments; ++f) {
    if (injector_.Drop(exporter, sample_index, f, fragments)) {
      ++fragments_dropped_;
    } else {
      order_.push_back(f);
    }
  }
  fragment_swaps_ += injector_.Reorder(exporter, sample_index, order_);

  const uint32_t export_time = ExportTime(sample_index);
  const uint32_t base = state.sequence;
  if (config_.sample_per_datagram) {
    if (!order_.empty()) {
      builder_.Begin(export_time, base, DomainOf(exporter));
      for (size_t f : order_) PutCounterRecord(f, sample_index);
      out.push_back(builder_.Finish());
    }
  } else {
    // Each fragment keeps the sequence number of its place in the sample, so
    // reordered fragments also arrive with out-of-order sequence numbers.
    for (size_t f : order_) {
      builder_.Begin(export_time, base + static_cast<uint32_t>(f), DomainOf(exporter));
      PutCounterRecord(f, sample_index);
      out.push_back(builder_.Finish());
    }
  }
  state.sequence = base + static_cast<uint32_t>(fragments);
  state.next_sample = sample_index + 1;
}

SimTotals HftSimulator::Generate(uint64_t sample_count, const DatagramSink& sink) {
  SimTotals totals;
  const uint64_t dropped_before = fragments_dropped_;
  const uint64_t swaps_before = fragment_swaps_;
  const size_t fragments = layout_.templates().size();
  std::vector<Datagram> datagrams;
  const auto emit = [&](uint32_t exporter) {
    for (const Datagram& datagram : datagrams) {
      ++totals.datagrams;
      totals.bytes += datagram.size();
      if (sink) sink(exporter, datagram);
    }
  };
  const auto announce = [&]() {
    for (uint32_t e = 0; e < config_.exporters; ++e) {
      BuildAnnouncement(e, datagrams);
      ++totals.announcements;
      emit(e);
    }
  };
  announce();
  const uint64_t period_ns = static_cast<uint64_t>(std::llround(config_.announce_period_sec * 1e9));
  uint64_t next_announce_ns = SampleTimeNs(0) + period_ns;
  for (uint64_t s = 0; s < sample_count; ++s) {
    if (period_ns > 0 && SampleTimeNs(s) >= next_announce_ns) {
      announce();
      next_announce_ns += period_ns;
    }
    for (uint32_t e = 0; e < config_.exporters; ++e) {
      BuildSample(e, s, datagrams);
      ++totals.samples;
      emit(e);
    }
  }
  totals.fragments_dropped = fragments_dropped_ - dropped_before;
  totals.fragment_swaps = fragment_swaps_ - swaps_before;
  totals.fragments_sent = totals.samples * fragments - totals.fragments_dropped;
  return totals;
}

SimRunResult HftSimulator::Run() {
  SimRunResult result;
  SimTotals& totals = result.totals;
  SimTarget target;
  if (!ParseSimTarget(config_.target, target)) {
    result.error = "bad target '" + config_.target + "'";
    return result;
  }
  UdpSender sender;
  if (!sender.Open(target.host, target.port, config_.exporters, config_.source_port, result.error)) return result;

  const uint64_t dropped_before = fragments_dropped_;
  const uint64_t swaps_before = fragment_swaps_;
  const size_t fragments = layout_.templates().size();
  const uint64_t start_ns = ClockNs(CLOCK_MONOTONIC);
  const uint64_t duration_ns = static_cast<uint64_t>(std::llround(config_.duration_sec * 1e9));
  const uint64_t period_ns = static_cast<uint64_t>(std::llround(config_.announce_period_sec * 1e9));
  const double sample_period_ns = config_.rate > 0 ? 1e9 / config_.rate : 0;
  uint64_t next_announce_ns = start_ns;
  bool announced = false;

  // Datagrams waiting per exporter: flushed after every sample when paced,
  // else once a batch is full, so sendmmsg carries many at a time.
  std::vector<std::vector<Datagram>> pending(config_.exporters);
  std::vector<Datagram> datagrams;
  const auto flush = [&](uint32_t e) {
    if (pending[e].empty()) return;
    const SendStats stats = sender.Send(e, pending[e], stop_);
    totals.datagrams += stats.datagrams;
    totals.bytes += stats.bytes;
    totals.send_errors += stats.errors;
    pending[e].clear();
  };
  const auto flush_all = [&]() {
    for (uint32_t e = 0; e < config_.exporters; ++e) flush(e);
  };

  for (uint64_t s = 0;; ++s) {
    if (stop_requested()) break;
    if (config_.sample_count > 0 && s >= config_.sample_count) break;
    if (sample_period_ns > 0) {
      // Absolute deadlines: a late sample does not push back the ones after it.
      SleepUntil(start_ns + static_cast<uint64_t>(static_cast<double>(s) * sample_period_ns), stop_);
      if (stop_requested()) break;
    }
    const uint64_t now = ClockNs(CLOCK_MONOTONIC);
    if (duration_ns > 0 && now - start_ns >= duration_ns) break;
    if (!announced || (period_ns > 0 && now >= next_announce_ns)) {
      flush_all();
      for (uint32_t e = 0; e < config_.exporters; ++e) {
        BuildAnnouncement(e, datagrams);
        ++totals.announcements;
        const SendStats stats = sender.Send(e, datagrams, stop_);
        totals.datagrams += stats.datagrams;
        totals.bytes += stats.bytes;
        totals.send_errors += stats.errors;
      }
      announced = true;
      next_announce_ns += period_ns;
      if (next_announce_ns <= now) next_announce_ns = now + period_ns;
    }
    // When paced and on time, a sample leaves at once; when behind schedule
    // the samples due pile up into full sendmmsg batches so the sender
    // catches up instead of paying one system call per sample.
    const bool on_time =
        sample_period_ns > 0 &&
        ClockNs(CLOCK_MONOTONIC) < start_ns + static_cast<uint64_t>(static_cast<double>(s + 1) * sample_period_ns);
    for (uint32_t e = 0; e < config_.exporters; ++e) {
      BuildSample(e, s, datagrams);
      ++totals.samples;
      for (Datagram& datagram : datagrams) pending[e].push_back(std::move(datagram));
      if (on_time || pending[e].size() >= UdpSender::kBatch) flush(e);
    }
  }
  flush_all();
  totals.fragments_dropped = fragments_dropped_ - dropped_before;
  totals.fragment_swaps = fragment_swaps_ - swaps_before;
  totals.fragments_sent = totals.samples * fragments - totals.fragments_dropped;
  result.elapsed_sec = static_cast<double>(ClockNs(CLOCK_MONOTONIC) - start_ns) / 1e9;
  return result;
}

}  // namespace dtl::hftsim
