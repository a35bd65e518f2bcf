// Writes fuzz seeds made by the simulator into a folder: each seed is one
// fuzz input (sender byte, big-endian u16 length, datagram) holding an
// exporter's announcement followed by a few samples, in several shapes.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tools/hft_sim/hft_simulator.h"

namespace {

using dtl::hftsim::Datagram;
using dtl::hftsim::HftSimulator;
using dtl::hftsim::SimConfig;

void AppendFramed(std::vector<uint8_t>& input, uint8_t sender, const Datagram& datagram) {
  input.push_back(sender);
  input.push_back(static_cast<uint8_t>(datagram.size() >> 8));
  input.push_back(static_cast<uint8_t>(datagram.size()));
  input.insert(input.end(), datagram.begin(), datagram.end());
}

bool WriteSeed(const std::filesystem::path& dir, const std::string& name, SimConfig config,
               uint8_t sender) {
  config.start_time_ns = 1700000000ll * 1000000000ll;
  HftSimulator sim(config);
  std::vector<uint8_t> input;
  for (const Datagram& d : sim.BuildAnnouncement(0)) AppendFramed(input, sender, d);
  for (uint64_t sample = 0; sample < 3; ++sample)
    for (const Datagram& d : sim.BuildSample(0, sample)) AppendFramed(input, sender, d);
  std::ofstream out(dir / name, std::ios::binary);
  out.write(reinterpret_cast<const char*>(input.data()), static_cast<std::streamsize>(input.size()));
  return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUTPUT_DIR\n", argv[0]);
    return 2;
  }
  const std::filesystem::path dir = argv[1];
  std::filesystem::create_directories(dir);

  SimConfig small;
  small.interface_count = 2;
  small.counter_names = {"in-octets", "out-octets"};
  small.counters_per_template = 2;
  small.max_datagram_bytes = 512;

  SimConfig classes = small;
  classes.traffic_classes = {"tc0", "tc1"};
  classes.sample_per_datagram = true;

  SimConfig wide;
  wide.interface_count = 8;
  wide.counters_per_template = 16;

  bool ok = WriteSeed(dir, "small_ipv4", small, 0) && WriteSeed(dir, "classes_ipv6", classes, 2) &&
            WriteSeed(dir, "wide_ipv4", wide, 1);
  std::printf("%s\n", ok ? "seeds written" : "cannot write seeds");
  return ok ? 0 : 1;
}
