#include "provider/provider_config.h"

#include <unistd.h>  // environ

#include <cctype>
#include <climits>
#include <cstring>
#include <cstdint>
#include <stdexcept>

#include "dtl_logger.h"
#include "dtl_options.h"
#include "provider/option_text.h"

namespace dtl::ipfix {

namespace {

const std::string kEnvPrefix = "DTL_";

// Most receive workers one collector may run; each holds 16 MiB of slots.
constexpr uint64_t kMaxWorkers = 1024;

}  // namespace

const std::vector<std::string>& SwitchKeySuffixes() {
  static const std::vector<std::string> suffixes = {
      "ip",           "port",       "username", "password",        "insecure",
      "collector-ip", "sample-interval-usec",   "hft-duration",    "vrf",
      "interfaces",   "counters",   "traffic-classes", "priority-groups", "priorities"};
  return suffixes;
}

const std::vector<std::string>& FixedKeys() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> list = {
        "ipfix-receiver-port",
        "ipfix-receiver-max-sessions",
        "ipfix-receiver-receive-buffer-size",
        "ipfix-receiver-workers",
        "ipfix-receiver-busy-poll-us",
        "ipfix-receiver-backoff-min-us",
        "ipfix-receiver-backoff-max-us",
        "ipfix-receiver-bind-device",
        "ipfix-receiver-session-timeout-sec",
        "ipfix-status-interval-sec",
        "ipfix-data-path",
        "ad-hoc-data-root",
        "ipfix-disk-counters-template",
        "ipfix-disk-file-size-limit",
        "ipfix-disk-file-time-limit",
        "ipfix-disk-data-size-limit",
        "ipfix-disk-data-size-low-watermark",
        "ipfix-disk-direct-io",
        "ipfix-iouring-iosqe-async",
        "ipfix-disk-batch-count",
        "ipfix-disk-flush-idle-ms",
        "collector-ip"};
    for (const std::string& suffix : SwitchKeySuffixes()) list.push_back("switch-" + suffix);
    return list;
  }();
  return keys;
}

namespace {

// The key families this provider owns; only their unknown keys are
// reported, as the host's dictionary also carries other providers' options.
bool InProviderFamily(const std::string& key) {
  for (const char* family : {"ipfix-", "switch-", "collector-"})
    if (key.rfind(family, 0) == 0) return true;
  return false;
}

// For "switch-<N>-<rest>" with N a decimal number: N and rest.
bool SplitNumberedSwitchKey(const std::string& key, unsigned long& number, std::string& rest) {
  static const std::string kHead = "switch-";
  if (key.rfind(kHead, 0) != 0) return false;
  const size_t digits_end = key.find_first_not_of("0123456789", kHead.size());
  if (digits_end == kHead.size() || digits_end == std::string::npos || key[digits_end] != '-')
    return false;
  const std::optional<uint64_t> parsed =
      ParseUnsignedText(key.substr(kHead.size(), digits_end - kHead.size()));
  if (!parsed || *parsed == 0 || *parsed > ULONG_MAX) return false;
  number = static_cast<unsigned long>(*parsed);
  rest = key.substr(digits_end + 1);
  return true;
}

}  // namespace

bool IsKnownKey(const std::string& key) {
  for (const std::string& known : FixedKeys())
    if (key == known) return true;
  unsigned long number = 0;
  std::string suffix;
  if (!SplitNumberedSwitchKey(key, number, suffix)) return false;
  // switch-01-ip is never read: the reader writes numbers without zeros.
  if (key != "switch-" + std::to_string(number) + "-" + suffix) return false;
  for (const std::string& known : SwitchKeySuffixes())
    if (suffix == known) return true;
  return false;
}

namespace {

// The known key nearest to key in edit distance; a numbered switch key is
// also compared with the keys of the same switch number.
std::string ClosestKnownKey(const std::string& key) {
  std::vector<std::string> candidates = FixedKeys();
  unsigned long number = 0;
  std::string rest;
  if (SplitNumberedSwitchKey(key, number, rest)) {
    for (const std::string& suffix : SwitchKeySuffixes())
      candidates.push_back("switch-" + std::to_string(number) + "-" + suffix);
  }
  std::string best;
  size_t best_distance = SIZE_MAX;
  for (const std::string& candidate : candidates) {
    const size_t distance = EditDistance(key, candidate);
    if (distance < best_distance) {
      best_distance = distance;
      best = candidate;
    }
  }
  return best;
}

void WarnIfUnknown(const std::string& key, const std::string& source) {
  if (!InProviderFamily(key) || IsKnownKey(key)) return;
  DTL_LOG_WARNING("[ipfix bin data provider] Unknown option '%s'%s is ignored; did you mean '%s'?",
                  key.c_str(), source.c_str(), ClosestKnownKey(key).c_str());
}

// The option's text from the dictionary or the environment (the framework's
// lookup order); nothing when it is not set. An empty text counts as not
// set, as it always has for the typed options.
std::optional<std::string> LookupText(const dtl_custom_options* options, const std::string& key) {
  // No dictionary or environment value can hold a NUL byte.
  static const std::string kUnset("\0", 1);
  std::string text =
      dtl::plugin::get_configuration_option<std::string>(options, key, kUnset, kEnvPrefix);
  if (text == kUnset || text.empty()) return std::nullopt;
  return text;
}

[[noreturn]] void Reject(const std::string& key, const std::string& text,
                         const std::string& accepted) {
  throw std::invalid_argument("option " + key + "='" + text + "' is not accepted: expected " +
                              accepted);
}

// A whole number in [min, max].
uint64_t ReadNumber(const dtl_custom_options* options, const std::string& key,
                    uint64_t default_value, uint64_t min, uint64_t max) {
  const std::optional<std::string> text = LookupText(options, key);
  if (!text) return default_value;
  const std::optional<uint64_t> value = ParseUnsignedText(*text);
  if (!value || *value < min || *value > max)
    Reject(key, *text,
           "a whole number from " + std::to_string(min) + " to " + std::to_string(max));
  return *value;
}

uint32_t ReadU32(const dtl_custom_options* options, const std::string& key,
                 uint32_t default_value) {
  return static_cast<uint32_t>(ReadNumber(options, key, default_value, 0, UINT32_MAX));
}

uint16_t ReadPort(const dtl_custom_options* options, const std::string& key,
                  uint16_t default_value) {
  return static_cast<uint16_t>(ReadNumber(options, key, default_value, 1, UINT16_MAX));
}

// A byte count, with the K/M/G/T suffixes of ParseSizeText.
uint64_t ReadSize(const dtl_custom_options* options, const std::string& key,
                  uint64_t default_value) {
  const std::optional<std::string> text = LookupText(options, key);
  if (!text) return default_value;
  const std::optional<uint64_t> value = ParseSizeText(*text);
  if (!value)
    Reject(key, *text,
           "a size in bytes up to " + std::to_string(UINT64_MAX) +
               ", digits optionally followed by K, M, G or T (powers of 1024; e.g. 512K, 10G, "
               "1TiB)");
  return *value;
}

bool ReadFlag(const dtl_custom_options* options, const std::string& key, bool default_value) {
  const std::optional<std::string> text = LookupText(options, key);
  if (!text) return default_value;
  const std::optional<bool> value = ParseBoolText(*text);
  if (!value) Reject(key, *text, "true/false, yes/no, on/off or 1/0");
  return *value;
}

std::string ReadText(const dtl_custom_options* options, const std::string& key,
                     const std::string& default_value) {
  return dtl::plugin::get_configuration_option<std::string>(options, key, default_value,
                                                            kEnvPrefix);
}

// A per-switch list: its own text when set (even if it splits into
// nothing), else the global list. Returns the text to show in the log.
std::string ReadSwitchList(const dtl_custom_options* options, const std::string& key,
                           const std::vector<std::string>& global_list,
                           const std::string& global_text, std::vector<std::string>& out) {
  const std::string text = ReadText(options, key, "");
  if (text.empty()) {
    out = global_list;
    return global_text;
  }
  out = SplitCommaList(text);
  return text;
}

}  // namespace

CollectorConfig ReadCollectorConfig(const dtl_custom_options* options) {
  CollectorConfig config;
  config.port = ReadPort(options, "ipfix-receiver-port", 4739);
  config.max_sessions = ReadNumber(options, "ipfix-receiver-max-sessions", 256, 1, UINT32_MAX);
  config.recv_buffer_size = ReadSize(options, "ipfix-receiver-receive-buffer-size", 33554432);
  config.workers = ReadNumber(options, "ipfix-receiver-workers", 4, 0, kMaxWorkers);
  if (config.workers == 0) config.workers = 1;
  config.busy_poll_us = ReadU32(options, "ipfix-receiver-busy-poll-us", 80);
  config.backoff_min_us = ReadU32(options, "ipfix-receiver-backoff-min-us", 20);
  config.backoff_max_us = ReadU32(options, "ipfix-receiver-backoff-max-us", 100);
  config.bind_device = ReadText(options, "ipfix-receiver-bind-device", "");
  config.session_timeout_sec = ReadU32(options, "ipfix-receiver-session-timeout-sec", 300);
  config.status_interval_sec = ReadU32(options, "ipfix-status-interval-sec", 10);

  DiskWriterConfig& disk = config.disk;
  disk.root = ReadText(options, "ipfix-data-path", "");
  if (!disk.root.empty()) {
    DTL_LOG_INFO("[ipfix bin data provider] Disk root '%s' taken from %s", disk.root.c_str(),
                 "ipfix-data-path");
  } else {
    disk.root = ReadText(options, "ad-hoc-data-root", "");
    if (!disk.root.empty()) {
      DTL_LOG_INFO("[ipfix bin data provider] Disk root '%s' taken from %s", disk.root.c_str(),
                   "ad-hoc-data-root");
    } else {
      DTL_LOG_INFO("[ipfix bin data provider] No disk root configured (neither ipfix-data-path "
                   "nor ad-hoc-data-root) — disk writer disabled");
    }
  }

  disk.counters_template = ReadText(options, "ipfix-disk-counters-template", "");
  disk.file_size_limit = ReadSize(options, "ipfix-disk-file-size-limit", 134217728);
  disk.file_time_limit_sec = ReadU32(options, "ipfix-disk-file-time-limit", 1800);
  disk.data_size_limit = ReadSize(options, "ipfix-disk-data-size-limit", 0);
  disk.low_watermark = ReadSize(options, "ipfix-disk-data-size-low-watermark", 0);
  disk.direct_io = ReadFlag(options, "ipfix-disk-direct-io", true);
  disk.iosqe_async = ReadFlag(options, "ipfix-iouring-iosqe-async", false);
  disk.batch_count = ReadU32(options, "ipfix-disk-batch-count", 1000);
  disk.flush_idle_ms = ReadU32(options, "ipfix-disk-flush-idle-ms", 1000);
  disk.max_sessions = config.max_sessions;
  disk.workers = config.workers;

  DTL_LOG_INFO("[ipfix bin data provider] Configuration: port=%u max_sessions=%zu workers=%zu "
               "recv_buffer=%zu bind_device='%s' disk_root='%s' counters_template='%s' "
               "direct_io=%d iosqe_async=%d batch_count=%u flush_idle_ms=%u data_size_limit=%zu "
               "low_watermark=%zu session_timeout=%us",
               static_cast<unsigned>(config.port), static_cast<size_t>(config.max_sessions),
               static_cast<size_t>(config.workers), static_cast<size_t>(config.recv_buffer_size),
               config.bind_device.c_str(), disk.root.c_str(), disk.counters_template.c_str(),
               disk.direct_io ? 1 : 0, disk.iosqe_async ? 1 : 0, disk.batch_count,
               disk.flush_idle_ms, static_cast<size_t>(disk.data_size_limit), static_cast<size_t>(disk.low_watermark),
               config.session_timeout_sec);
  return config;
}

SwitchDefaults ReadSwitchDefaults(const dtl_custom_options* options, uint16_t receiver_port) {
  SwitchDefaults defaults;
  defaults.options = options;
  defaults.receiver_port = receiver_port;
  defaults.port = ReadPort(options, "switch-port", 8765);
  defaults.username = ReadText(options, "switch-username", "velmora");
  defaults.password = ReadText(options, "switch-password", "velmora");
  defaults.insecure = ReadFlag(options, "switch-insecure", true);
  defaults.collector_ip = ResolveHostAddress(ReadText(options, "collector-ip", ""));
  defaults.sample_interval_usec = ReadU32(options, "switch-sample-interval-usec", 100);
  defaults.hft_duration_sec = ReadU32(options, "switch-hft-duration", 0);
  defaults.vrf = ReadText(options, "switch-vrf", "");
  defaults.counters_text = ReadText(options, "switch-counters", "tx-byte,rx-byte");
  defaults.traffic_classes_text = ReadText(options, "switch-traffic-classes", "");
  defaults.priority_groups_text = ReadText(options, "switch-priority-groups", "");
  defaults.priorities_text = ReadText(options, "switch-priorities", "");
  defaults.counters = SplitCommaList(defaults.counters_text);
  defaults.traffic_classes = SplitCommaList(defaults.traffic_classes_text);
  defaults.priority_groups = SplitCommaList(defaults.priority_groups_text);
  defaults.priorities = SplitCommaList(defaults.priorities_text);
  return defaults;
}

QuilSwitchConfigurator::Config ParseSwitchConfig(const SwitchDefaults& defaults,
                                                 const std::string& address,
                                                 const std::string& prefix) {
  const dtl_custom_options* options = defaults.options;
  QuilSwitchConfigurator::Config config;
  config.host = ResolveHostAddress(address);
  config.port = ReadPort(options, prefix + "port", defaults.port);
  config.username = ReadText(options, prefix + "username", defaults.username);
  config.password = ReadText(options, prefix + "password", defaults.password);
  config.insecure = ReadFlag(options, prefix + "insecure", defaults.insecure);
  config.collector_ip =
      ResolveHostAddress(ReadText(options, prefix + "collector-ip", defaults.collector_ip));
  config.collector_port = defaults.receiver_port;
  config.sample_interval_usec =
      ReadU32(options, prefix + "sample-interval-usec", defaults.sample_interval_usec);
  config.hft_duration_sec = ReadU32(options, prefix + "hft-duration", defaults.hft_duration_sec);
  config.vrf = ReadText(options, prefix + "vrf", defaults.vrf);
  const std::string interfaces_text = ReadText(options, prefix + "interfaces", "");
  config.interfaces = SplitCommaList(interfaces_text);

  const std::string counters_log = ReadSwitchList(options, prefix + "counters", defaults.counters,
                                                  defaults.counters_text, config.counters);
  const std::string classes_log =
      ReadSwitchList(options, prefix + "traffic-classes", defaults.traffic_classes,
                     defaults.traffic_classes_text, config.traffic_classes);
  const std::string groups_log =
      ReadSwitchList(options, prefix + "priority-groups", defaults.priority_groups,
                     defaults.priority_groups_text, config.priority_groups);
  const std::string priorities_log =
      ReadSwitchList(options, prefix + "priorities", defaults.priorities,
                     defaults.priorities_text, config.priorities);

  DTL_LOG_INFO("[ipfix bin data provider] QUIL switch config: ip=%s port=%u user=%s "
               "collector=%s:%u interfaces=%s counters=%s traffic-class=%s priority-group=%s "
               "switch-priority=%s",
               config.host.c_str(), static_cast<unsigned>(config.port), config.username.c_str(),
               config.collector_ip.c_str(), static_cast<unsigned>(config.collector_port),
               interfaces_text.c_str(), counters_log.c_str(), classes_log.c_str(),
               groups_log.c_str(), priorities_log.c_str());
  return config;
}

std::vector<std::unique_ptr<QuilSwitchConfigurator>> BuildSwitchConfigurators(
    const dtl_custom_options* options, uint16_t receiver_port) {
  const SwitchDefaults defaults = ReadSwitchDefaults(options, receiver_port);
  std::vector<std::unique_ptr<QuilSwitchConfigurator>> switches;

  // Numbered switches end at the first gap.
  for (unsigned long n = 1;; ++n) {
    const std::string prefix = "switch-" + std::to_string(n) + "-";
    const std::string address = ReadText(options, prefix + "ip", "");
    if (address.empty()) break;
    switches.push_back(
        std::make_unique<QuilSwitchConfigurator>(ParseSwitchConfig(defaults, address, prefix)));
  }

  if (switches.empty()) {
    const std::string address = ReadText(options, "switch-ip", "");
    if (!address.empty()) {
      switches.push_back(std::make_unique<QuilSwitchConfigurator>(
          ParseSwitchConfig(defaults, address, "switch-")));
    }
  }
  return switches;
}

void WarnAboutUnknownOptions(const dtl_custom_options* options) {
  dtl_dict_enum(
      options,
      [](const char* key, const char*, void*) {
        if (key != nullptr) WarnIfUnknown(key, "");
        return true;
      },
      nullptr);
  // DTL_SWITCH_2_PORT stands for switch-2-port (environ: unistd.h).
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string variable(*entry, std::strcspn(*entry, "="));
    if (variable.rfind(kEnvPrefix, 0) != 0) continue;
    std::string key = variable.substr(kEnvPrefix.size());
    for (char& c : key)
      c = c == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    WarnIfUnknown(key, " (environment " + variable + ")");
  }
}

}  // namespace dtl::ipfix
