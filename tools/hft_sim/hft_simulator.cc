#include "tools/hft_sim/hft_simulator.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace dtl::hftsim {

namespace {

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

}  // namespace

HftSimulator::HftSimulator(SimConfig config)
    : config_(std::move(config)),
      layout_(config_),
      descriptions_(config_, layout_),
      injector_(config_.loss_probability, config_.loss_every, config_.reorder_probability, config_.seed),
      exporters_(config_.exporters, ExporterState(config_.sequence_mode)) {
  start_time_ns_ = config_.start_time_ns >= 0 ? static_cast<uint64_t>(config_.start_time_ns) : ClockNs(CLOCK_REALTIME);
  if (config_.burst_period_us != 0) {
    burst_period_samples_ = config_.burst_period_us / config_.sample_interval_us;
    burst_length_samples_ = config_.burst_length_us / config_.sample_interval_us;
  }
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

size_t HftSimulator::ActiveTemplates(uint32_t exporter) const {
  return exporter < exporters_.size() ? ActiveTemplates(exporters_[exporter]) : 0;
}

size_t HftSimulator::ActiveTemplates(const ExporterState& state) const {
  return layout_.templates().size() - (state.withdrawn ? 1 : 0);
}

bool HftSimulator::InlineAt(uint64_t sample_index) const {
  return config_.interleave_descriptive && sample_index % kInterleavePeriod == kInlinePhase;
}

bool HftSimulator::OwnAt(uint64_t sample_index) const {
  return config_.interleave_descriptive && sample_index % kInterleavePeriod == kOwnPhase;
}

void HftSimulator::BuildAnnouncement(uint32_t exporter, std::vector<Datagram>& out) {
  out.clear();
  if (exporter >= exporters_.size()) return;
  ExporterState& state = exporters_[exporter];
  DrainPacked(exporter, state, out);
  descriptive_.clear();
  descriptions_.Announcement(ActiveTemplates(state), descriptive_);
  RecordPacker packer(builder_, out, config_.max_datagram_bytes, ExportTime(state.next_sample), DomainOf(exporter),
                      state.sequence);
  packer.Add(descriptive_);
  packer.Flush();
}

void HftSimulator::PutCounterRecord(IpfixMessageBuilder& builder, size_t template_index, uint64_t sample_index) {
  const CounterTemplateInfo& info = layout_.templates()[template_index];
  builder.BeginSet(info.template_id);
  if (template_index == 0) {
    const uint64_t time_ns = SampleTimeNs(sample_index);
    builder.PutU32(static_cast<uint32_t>(time_ns / 1'000'000'000ull));
    builder.PutU32(static_cast<uint32_t>(time_ns % 1'000'000'000ull));
  }
  for (size_t i = 0; i < info.counter_count; ++i) builder.PutU64(CounterValue(sample_index, info.first_counter + i) + config_.value_base +
                   BurstExtra(sample_index, info.first_counter + i, burst_period_samples_, burst_length_samples_));
  builder.EndSet();
  ++fragments_produced_;
}

// The rotations step once per interleaving period, so over a run every
// counter's definitions and every template's mappings go out again.
void HftSimulator::InlineRecords(const ExporterState& state, uint64_t sample_index) {
  const CounterTemplateInfo& last = layout_.templates()[ActiveTemplates(state) - 1];
  const size_t counters = last.first_counter + last.counter_count;
  descriptive_.clear();
  descriptions_.SwitchName(descriptive_);
  descriptions_.Definitions((sample_index / kInterleavePeriod) % counters, descriptive_);
}

void HftSimulator::OwnRecords(const ExporterState& state, uint64_t sample_index) {
  const size_t template_index = (sample_index / kInterleavePeriod) % ActiveTemplates(state);
  const CounterTemplateInfo& info = layout_.templates()[template_index];
  descriptive_.clear();
  for (size_t i = 0; i < info.counter_count; ++i) descriptions_.Definitions(info.first_counter + i, descriptive_);
  descriptions_.Mappings(template_index, descriptive_);
}

void HftSimulator::SendOwnRecords(uint32_t exporter, ExporterState& state, uint64_t sample_index,
                                  std::vector<Datagram>& out) {
  OwnRecords(state, sample_index);
  RecordPacker packer(builder_, out, config_.max_datagram_bytes, ExportTime(sample_index), DomainOf(exporter),
                      state.sequence);
  packer.Add(descriptive_);
  packer.Flush();
}

void HftSimulator::Withdraw(uint32_t exporter, ExporterState& state, uint64_t sample_index,
                            std::vector<Datagram>& out) {
  DrainPacked(exporter, state, out);
  const uint16_t template_id = layout_.templates()[ActiveTemplates(state) - 1].template_id;
  builder_.Begin(ExportTime(sample_index), state.sequence.BeginMessage(), DomainOf(exporter));
  AppendRecords(builder_, {DescriptiveRecords::Withdrawal(template_id)}, state.sequence);
  out.push_back(builder_.Finish());
  state.withdrawn = true;
}

void HftSimulator::BuildSample(uint32_t exporter, uint64_t sample_index, std::vector<Datagram>& out) {
  out.clear();
  if (exporter >= exporters_.size()) return;
  ExporterState& state = exporters_[exporter];
  if (!state.withdrawn && config_.withdraw_at_sample >= 0 &&
      sample_index >= static_cast<uint64_t>(config_.withdraw_at_sample)) {
    Withdraw(exporter, state, sample_index, out);
  }
  const size_t fragments = ActiveTemplates(state);
  if (config_.sample_per_datagram) {
    BuildWholeSample(exporter, state, sample_index, fragments, out);
  } else if (config_.fragments_per_message > 1) {
    BuildPacked(exporter, state, sample_index, fragments, out);
  } else {
    BuildSingleFragments(exporter, state, sample_index, fragments, out);
  }
  state.next_sample = sample_index + 1;
}

void HftSimulator::BuildSingleFragments(uint32_t exporter, ExporterState& state, uint64_t sample_index,
                                        size_t fragments, std::vector<Datagram>& out) {
  const uint32_t export_time = ExportTime(sample_index);
  units_.clear();
  order_.clear();
  unit_of_fragment_.assign(fragments, Unit::kNoFragment);
  // Messages in the order the exporter produces them, numbered so.
  for (size_t f = 0; f < fragments; ++f) {
    builder_.Begin(export_time, state.sequence.BeginMessage(), DomainOf(exporter));
    PutCounterRecord(builder_, f, sample_index);
    state.sequence.CountRecords(1);
    if (f == 0 && InlineAt(sample_index)) {
      InlineRecords(state, sample_index);
      AppendRecords(builder_, descriptive_, state.sequence);
    }
    if (injector_.Drop(exporter, sample_index, f, fragments)) {
      ++fragments_dropped_;
    } else {
      order_.push_back(f);
      unit_of_fragment_[f] = units_.size();
      units_.push_back({builder_.Finish(), f});
    }
    if (f == 0 && OwnAt(sample_index)) {
      std::vector<Datagram> own;
      SendOwnRecords(exporter, state, sample_index, own);
      for (Datagram& datagram : own) units_.push_back({std::move(datagram), Unit::kNoFragment});
    }
  }
  // Reordering swaps fragment datagrams, each keeping its sequence number as
  // the network would; descriptive messages keep their places.
  fragment_swaps_ += injector_.Reorder(exporter, sample_index, order_);
  size_t next = 0;
  for (Unit& unit : units_) {
    if (unit.fragment == Unit::kNoFragment) {
      out.push_back(std::move(unit.bytes));
    } else {
      out.push_back(std::move(units_[unit_of_fragment_[order_[next++]]].bytes));
    }
  }
}

void HftSimulator::BuildWholeSample(uint32_t exporter, ExporterState& state, uint64_t sample_index,
                                    size_t fragments, std::vector<Datagram>& out) {
  order_.clear();
  for (size_t f = 0; f < fragments; ++f) {
    if (injector_.Drop(exporter, sample_index, f, fragments)) {
      ++fragments_dropped_;
      ++fragments_produced_;
    } else {
      order_.push_back(f);
    }
  }
  fragment_swaps_ += injector_.Reorder(exporter, sample_index, order_);

  builder_.Begin(ExportTime(sample_index), state.sequence.BeginMessage(), DomainOf(exporter));
  const bool inline_records = InlineAt(sample_index);
  if (inline_records) InlineRecords(state, sample_index);
  for (size_t i = 0; i < order_.size(); ++i) {
    PutCounterRecord(builder_, order_[i], sample_index);
    if (i == 0 && inline_records) AppendRecords(builder_, descriptive_, state.sequence);
  }
  // Lost records were produced all the same and count.
  if (order_.empty() && inline_records) state.sequence.CountRecords(static_cast<uint32_t>(descriptive_.size()));
  state.sequence.CountRecords(static_cast<uint32_t>(fragments));
  if (!order_.empty()) out.push_back(builder_.Finish());
  if (OwnAt(sample_index)) SendOwnRecords(exporter, state, sample_index, out);
}

void HftSimulator::BuildPacked(uint32_t exporter, ExporterState& state, uint64_t sample_index, size_t fragments,
                               std::vector<Datagram>& out) {
  for (size_t position = 0; position < fragments; ++position) {
    if (state.packed_fragments == 0) {
      state.packed.Begin(ExportTime(sample_index), state.sequence.BeginMessage(), DomainOf(exporter));
      state.packed_lost = false;
    }
    PutCounterRecord(state.packed, position, sample_index);
    state.sequence.CountRecords(1);
    ++state.packed_fragments;
    if (injector_.Drop(exporter, sample_index, position, fragments)) state.packed_lost = true;
    if (position == 0 && InlineAt(sample_index)) {
      InlineRecords(state, sample_index);
      AppendRecords(state.packed, descriptive_, state.sequence);
    }
    if (position == 0 && OwnAt(sample_index)) state.descriptive_after = static_cast<int64_t>(sample_index);
    if (state.packed_fragments == config_.fragments_per_message) {
      // A message ending inside the sample may swap with the next one.
      const bool swap = position + 1 < fragments && injector_.Swaps(exporter, sample_index, position);
      FlushPacked(exporter, state, swap, out);
    }
  }
}

void HftSimulator::FlushPacked(uint32_t exporter, ExporterState& state, bool hold, std::vector<Datagram>& out) {
  if (state.packed_fragments > 0) {
    if (state.packed_lost) {
      fragments_dropped_ += state.packed_fragments;
    } else if (hold && !state.holding) {
      state.held = state.packed.Finish();
      state.holding = true;
      ++fragment_swaps_;
    } else {
      out.push_back(state.packed.Finish());
      if (state.holding) {
        out.push_back(std::move(state.held));
        state.holding = false;
      }
    }
    state.packed_fragments = 0;
  }
  if (state.descriptive_after >= 0) {
    SendOwnRecords(exporter, state, static_cast<uint64_t>(state.descriptive_after), out);
    state.descriptive_after = -1;
  }
}

void HftSimulator::DrainPacked(uint32_t exporter, ExporterState& state, std::vector<Datagram>& out) {
  FlushPacked(exporter, state, false, out);
  if (state.holding) {
    out.push_back(std::move(state.held));
    state.holding = false;
  }
}

void HftSimulator::Finish(uint32_t exporter, std::vector<Datagram>& out) {
  out.clear();
  if (exporter < exporters_.size()) DrainPacked(exporter, exporters_[exporter], out);
}

SimTotals HftSimulator::Generate(uint64_t sample_count, const DatagramSink& sink) {
  SimTotals totals;
  const uint64_t produced_before = fragments_produced_;
  const uint64_t dropped_before = fragments_dropped_;
  const uint64_t swaps_before = fragment_swaps_;
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
  for (uint32_t e = 0; e < config_.exporters; ++e) {
    Finish(e, datagrams);
    emit(e);
  }
  totals.fragments_dropped = fragments_dropped_ - dropped_before;
  totals.fragment_swaps = fragment_swaps_ - swaps_before;
  totals.fragments_sent = fragments_produced_ - produced_before - totals.fragments_dropped;
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

  const uint64_t produced_before = fragments_produced_;
  const uint64_t dropped_before = fragments_dropped_;
  const uint64_t swaps_before = fragment_swaps_;
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
  for (uint32_t e = 0; e < config_.exporters; ++e) {
    Finish(e, datagrams);
    for (Datagram& datagram : datagrams) pending[e].push_back(std::move(datagram));
  }
  flush_all();
  totals.fragments_dropped = fragments_dropped_ - dropped_before;
  totals.fragment_swaps = fragment_swaps_ - swaps_before;
  totals.fragments_sent = fragments_produced_ - produced_before - totals.fragments_dropped;
  result.elapsed_sec = static_cast<double>(ClockNs(CLOCK_MONOTONIC) - start_ns) / 1e9;
  return result;
}

}  // namespace dtl::hftsim
