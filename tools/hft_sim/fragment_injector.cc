#include "tools/hft_sim/fragment_injector.h"

#include <utility>

namespace dtl::hftsim {

namespace {

// SplitMix64 finaliser: a cheap, well-mixed 64-bit hash.
uint64_t Mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

constexpr uint64_t kLossSalt = 0x6c6f7373;     // "loss"
constexpr uint64_t kReorderSalt = 0x72656f72;  // "reor"

}  // namespace

FragmentInjector::FragmentInjector(double loss_probability, uint64_t loss_every, double reorder_probability,
                                   uint64_t seed)
    : loss_probability_(loss_probability),
      loss_every_(loss_every),
      reorder_probability_(reorder_probability),
      seed_(seed) {}

double FragmentInjector::Uniform(uint64_t salt, uint32_t exporter, uint64_t sample_index, uint64_t position) const {
  uint64_t h = Mix(seed_ ^ salt);
  h = Mix(h ^ exporter);
  h = Mix(h ^ sample_index);
  h = Mix(h ^ position);
  return static_cast<double>(h >> 11) * 0x1.0p-53;
}

bool FragmentInjector::Drop(uint32_t exporter, uint64_t sample_index, size_t fragment,
                            size_t fragments_per_sample) const {
  if (loss_every_ > 0) {
    const uint64_t ordinal = sample_index * fragments_per_sample + fragment + 1;
    if (ordinal % loss_every_ == 0) return true;
  }
  return loss_probability_ > 0 && Uniform(kLossSalt, exporter, sample_index, fragment) < loss_probability_;
}

size_t FragmentInjector::Reorder(uint32_t exporter, uint64_t sample_index, std::vector<size_t>& order) const {
  if (reorder_probability_ <= 0) return 0;
  size_t swaps = 0;
  for (size_t i = 0; i + 1 < order.size();) {
    if (Swaps(exporter, sample_index, i)) {
      std::swap(order[i], order[i + 1]);
      ++swaps;
      i += 2;
    } else {
      ++i;
    }
  }
  return swaps;
}

bool FragmentInjector::Swaps(uint32_t exporter, uint64_t sample_index, size_t position) const {
  return reorder_probability_ > 0 && Uniform(kReorderSalt, exporter, sample_index, position) < reorder_probability_;
}

}  // namespace dtl::hftsim
