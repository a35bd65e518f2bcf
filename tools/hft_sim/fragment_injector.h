// Injected network faults on counter fragments: loss (random and/or every
// Nth fragment) and reordering inside a sample. Every decision is a pure
// function of (seed, exporter, sample, fragment), so a run can be rebuilt
// exactly and samples can be generated in any order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace dtl::hftsim {

class FragmentInjector {
 public:
  FragmentInjector(double loss_probability, uint64_t loss_every, double reorder_probability, uint64_t seed);

  // Whether the fragment is lost. `fragment` is the template index, or the
  // position in the sample's send order where messages carry several
  // fragments (see HftSimulator). The every-Nth rule counts the exporter's
  // fragments from 1 over the whole run (sample_index * fragments_per_sample
  // + fragment + 1; after a template withdrawal fragments_per_sample is the
  // smaller count, and the rule goes on from that formula).
  bool Drop(uint32_t exporter, uint64_t sample_index, size_t fragment, size_t fragments_per_sample) const;

  // Swaps neighbouring entries of one sample's fragment order, each pair with
  // the reorder probability (a swapped entry is not swapped again). Returns
  // the number of swaps.
  size_t Reorder(uint32_t exporter, uint64_t sample_index, std::vector<size_t>& order) const;
  // The decision Reorder takes for the entry at `position`: whether it swaps
  // with the next one.
  bool Swaps(uint32_t exporter, uint64_t sample_index, size_t position) const;

  bool active() const { return loss_probability_ > 0 || loss_every_ > 0 || reorder_probability_ > 0; }

 private:
  // Uniform number in [0, 1) from the seed and the given coordinates.
  double Uniform(uint64_t salt, uint32_t exporter, uint64_t sample_index, uint64_t position) const;

  double loss_probability_;
  uint64_t loss_every_;
  double reorder_probability_;
  uint64_t seed_;
};

}  // namespace dtl::hftsim
