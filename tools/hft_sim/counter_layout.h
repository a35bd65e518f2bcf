// Which counters a simulated switch exports and how they are spread over the
// counter templates 300, 301, ...; also the values they take in each sample.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/hft_sim/sim_config.h"

namespace dtl::hftsim {

// The value of one counter in one sample, so a receiver can check every
// stored value without knowing anything else about the run:
//   value = (sample_index + 1) * 1000003 + field_index * 7919 + (field_index << 40)
// computed modulo 2^64. field_index is the counter's position over all
// counter templates (0 = the first counter of template 300).
uint64_t CounterValue(uint64_t sample_index, uint64_t field_index);

// What microbursts add to that value: in every period of period_samples
// samples the first length_samples are burst samples, and each burst sample
// after sample 0 adds (field_index % 4 + 1) * 1000003 more, so during a burst
// counter k grows k % 4 + 2 times as fast as between bursts. 0 without bursts
// (period_samples 0).
uint64_t BurstExtra(uint64_t sample_index, uint64_t field_index, uint64_t period_samples,
                    uint64_t length_samples);

// One exported counter, in field order.
struct CounterInfo {
  uint16_t element_id = 0;      // counter field element ID, distinct per counter
  uint64_t definition_id = 0;   // its metadata definition, starting at 1
  std::string name;             // counter name, e.g. "in-octets"
  std::string interface_name;   // metadata "interface"
  std::string traffic_class;    // metadata "traffic_class"; empty without classes
};

// One counter template: counters [first_counter, first_counter + counter_count).
struct CounterTemplateInfo {
  uint16_t template_id = 0;
  size_t first_counter = 0;
  size_t counter_count = 0;
};

class CounterLayout {
 public:
  static constexpr uint16_t kFirstCounterTemplate = 300;

  // Counters are ordered by interface, then counter name, then traffic class;
  // templates are filled in that order, counters_per_template each.
  explicit CounterLayout(const SimConfig& config);

  const std::vector<CounterInfo>& counters() const { return counters_; }
  const std::vector<CounterTemplateInfo>& templates() const { return templates_; }

 private:
  std::vector<CounterInfo> counters_;
  std::vector<CounterTemplateInfo> templates_;
};

}  // namespace dtl::hftsim
