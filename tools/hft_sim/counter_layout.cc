#include "tools/hft_sim/counter_layout.h"

#include <algorithm>

namespace dtl::hftsim {

uint64_t CounterValue(uint64_t sample_index, uint64_t field_index) {
  return (sample_index + 1) * 1000003ull + field_index * 7919ull + (field_index << 40);
}

uint64_t BurstExtra(uint64_t sample_index, uint64_t field_index, uint64_t period_samples,
                    uint64_t length_samples) {
  if (period_samples == 0) return 0;
  // Burst samples among 0..sample_index, less sample 0 (a burst sample too):
  // a value grows by what the samples after the first added.
  const uint64_t n = sample_index + 1;
  const uint64_t bursts = n / period_samples * length_samples + std::min(n % period_samples, length_samples);
  return (bursts - 1) * (field_index % 4 + 1) * 1000003ull;
}

CounterLayout::CounterLayout(const SimConfig& config) {
  const std::vector<std::string> interfaces = config.InterfaceNames();
  // Without classes every counter is per interface only: one empty class.
  const std::vector<std::string> classes =
      config.traffic_classes.empty() ? std::vector<std::string>{std::string()} : config.traffic_classes;
  counters_.reserve(interfaces.size() * config.counter_names.size() * classes.size());
  for (const std::string& interface_name : interfaces) {
    for (const std::string& name : config.counter_names) {
      for (const std::string& traffic_class : classes) {
        CounterInfo info;
        const size_t index = counters_.size();
        info.element_id = static_cast<uint16_t>(SimConfig::kFirstCounterElement + index);
        info.definition_id = index + 1;
        info.name = name;
        info.interface_name = interface_name;
        info.traffic_class = traffic_class;
        counters_.push_back(std::move(info));
      }
    }
  }
  const size_t per_template = std::max<size_t>(config.counters_per_template, 1);
  for (size_t first = 0; first < counters_.size(); first += per_template) {
    CounterTemplateInfo info;
    info.template_id = static_cast<uint16_t>(kFirstCounterTemplate + templates_.size());
    info.first_counter = first;
    info.counter_count = std::min(per_template, counters_.size() - first);
    templates_.push_back(info);
  }
}

}  // namespace dtl::hftsim
