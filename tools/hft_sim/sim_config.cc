#include "tools/hft_sim/sim_config.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace dtl::hftsim {

namespace {

// Names travel as variable-length IPFIX fields; keeping them short keeps
// every descriptive record well inside one datagram.
constexpr size_t kMaxNameLength = 1000;

bool ParsePort(const std::string& text, uint16_t& port) {
  if (text.empty() || text.size() > 5) return false;
  unsigned value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value == 0 || value > 65535) return false;
  port = static_cast<uint16_t>(value);
  return true;
}

std::string CheckNames(const std::vector<std::string>& names, const char* what) {
  for (const std::string& name : names) {
    if (name.empty()) return std::string("empty ") + what;
    if (name.size() > kMaxNameLength) return std::string(what) + " longer than 1000 bytes: " + name.substr(0, 32) + "...";
  }
  return {};
}

}  // namespace

bool ParseSimTarget(const std::string& text, SimTarget& target) {
  std::string host;
  std::string port;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') return false;
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    // A bare IPv6 address has more colons; it must be bracketed.
    if (host.find(':') != std::string::npos) return false;
  }
  if (host.empty()) return false;
  uint16_t port_number = 0;
  if (!ParsePort(port, port_number)) return false;
  target.host = host;
  target.port = port_number;
  return true;
}

std::vector<std::string> SimConfig::InterfaceNames() const {
  if (!interfaces.empty()) return interfaces;
  std::vector<std::string> names;
  names.reserve(interface_count);
  for (uint32_t i = 1; i <= interface_count; ++i) names.push_back("Ethernet1/" + std::to_string(i));
  return names;
}

size_t SimConfig::TotalCounters() const {
  const size_t interface_total = interfaces.empty() ? interface_count : interfaces.size();
  const size_t classes = traffic_classes.empty() ? 1 : traffic_classes.size();
  return interface_total * counter_names.size() * classes;
}

size_t SimConfig::CounterTemplateCount() const {
  if (counters_per_template == 0) return 0;
  return (TotalCounters() + counters_per_template - 1) / counters_per_template;
}

std::string SimConfig::Validate() const {
  SimTarget parsed;
  if (!ParseSimTarget(target, parsed)) return "bad target '" + target + "' (expected host:port or [ipv6]:port)";
  if (switch_name.empty()) return "empty switch name";
  if (switch_name.size() > kMaxNameLength) return "switch name longer than 1000 bytes";
  if (exporters == 0) return "at least one exporter is needed";
  if (uint64_t{observation_domain} + exporters - 1 > UINT32_MAX) return "observation domain + exporters exceeds 32 bits";
  if (source_port != 0 && uint64_t{source_port} + exporters - 1 > UINT16_MAX)
    return "source port + exporters exceeds 65535";
  if (interfaces.empty() && interface_count == 0) return "at least one interface is needed";
  if (std::string error = CheckNames(interfaces, "interface name"); !error.empty()) return error;
  if (counter_names.empty()) return "at least one counter name is needed";
  if (std::string error = CheckNames(counter_names, "counter name"); !error.empty()) return error;
  if (std::string error = CheckNames(traffic_classes, "traffic class"); !error.empty()) return error;
  // A counter record (8 bytes per counter plus the time fields) must fit one
  // IPFIX message in one UDP datagram.
  const size_t max_per_template = (kMaxUdpPayload - 16 - 4 - 8) / 8;
  if (counters_per_template == 0 || counters_per_template > max_per_template) {
    return "counters per template must be 1.." + std::to_string(max_per_template);
  }
  const size_t total = TotalCounters();
  const size_t max_elements = 32767 - kFirstCounterElement + 1;
  if (total > max_elements) {
    return std::to_string(total) + " counters exceed the " + std::to_string(max_elements) + " available element IDs";
  }
  if (CounterTemplateCount() > kMaxCounterTemplates) {
    return std::to_string(total) + " counters need " + std::to_string(CounterTemplateCount()) +
           " templates; at most 32 (raise counters per template)";
  }
  if (sample_interval_us == 0) return "sample interval must be at least 1 microsecond";
  if (burst_period_us != 0 &&
      (burst_length_us == 0 || burst_length_us >= burst_period_us || burst_period_us % sample_interval_us != 0 ||
       burst_length_us % sample_interval_us != 0)) {
    return "a burst needs 0 < length < period, both multiples of the sample interval";
  }
  if (!std::isfinite(rate) || rate < 0) return "rate must be 0 or a positive number";
  if (!std::isfinite(duration_sec) || duration_sec < 0) return "duration must be 0 or a positive number";
  if (!std::isfinite(announce_period_sec) || announce_period_sec < 0) {
    return "announce period must be 0 or a positive number";
  }
  if (!(loss_probability >= 0 && loss_probability <= 1)) return "loss probability must be within 0..1";
  if (!(reorder_probability >= 0 && reorder_probability <= 1)) return "reorder probability must be within 0..1";
  if (max_datagram_bytes < 256 || max_datagram_bytes > kMaxUdpPayload) {
    return "max datagram size must be 256.." + std::to_string(kMaxUdpPayload);
  }
  const size_t inline_bytes = interleave_descriptive ? kInlineDescriptiveReserve : 0;
  if (sample_per_datagram) {
    const size_t sample_bytes = 16 + CounterTemplateCount() * 4 + 8 + total * 8;
    if (sample_bytes + inline_bytes > kMaxUdpPayload) {
      return "a whole sample (" + std::to_string(sample_bytes) + " bytes) does not fit one datagram";
    }
    if (fragments_per_message != 1) return "fragments per message need one fragment per datagram";
  }
  if (fragments_per_message == 0) return "fragments per message must be at least 1";
  // The largest fragment is a full template 300 record with its set header.
  const size_t fragment_bytes = 4 + 8 + std::min<size_t>(counters_per_template, total) * 8;
  if (16 + uint64_t{fragments_per_message} * fragment_bytes + inline_bytes > kMaxUdpPayload) {
    return std::to_string(fragments_per_message) + " fragments per message do not fit one datagram";
  }
  if (withdraw_at_sample >= 0 && CounterTemplateCount() < 2) {
    return "withdrawing a template needs at least two counter templates";
  }
  return {};
}

}  // namespace dtl::hftsim
