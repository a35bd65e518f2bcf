#include "provider/provider_config.h"

#include "dtl_logger.h"
#include "dtl_options.h"
#include "provider/option_text.h"

namespace dtl::ipfix {

namespace {

const std::string kEnvPrefix = "DTL_";

template <typename T>
T Read(const dtl_custom_options* options, const std::string& key, const T& default_value) {
  return dtl::plugin::get_configuration_option<T>(options, key, default_value, kEnvPrefix);
}

std::string ReadText(const dtl_custom_options* options, const std::string& key,
                     const std::string& default_value) {
  return Read<std::string>(options, key, default_value);
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

IpfixReceiver::Config ReadReceiverConfig(const dtl_custom_options* options) {
  IpfixReceiver::Config config;
  config.port = static_cast<uint16_t>(Read<int>(options, "ipfix-receiver-port", 4739));
  config.max_sessions = Read<unsigned long>(options, "ipfix-receiver-max-sessions", 256);
  config.recv_buffer_size =
      Read<unsigned long>(options, "ipfix-receiver-receive-buffer-size", 33554432);
  config.workers = Read<unsigned long>(options, "ipfix-receiver-workers", 4);
  if (config.workers == 0) config.workers = 1;
  config.busy_poll_us = Read<unsigned int>(options, "ipfix-receiver-busy-poll-us", 80);
  config.backoff_min_us = Read<unsigned int>(options, "ipfix-receiver-backoff-min-us", 20);
  config.backoff_max_us = Read<unsigned int>(options, "ipfix-receiver-backoff-max-us", 100);
  config.bind_device = ReadText(options, "ipfix-receiver-bind-device", "");
  config.session_timeout_sec =
      Read<unsigned int>(options, "ipfix-receiver-session-timeout-sec", 300);

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
  disk.file_size_limit = Read<unsigned long>(options, "ipfix-disk-file-size-limit", 134217728);
  disk.file_time_limit_sec = Read<unsigned int>(options, "ipfix-disk-file-time-limit", 1800);
  disk.data_size_limit = Read<unsigned long>(options, "ipfix-disk-data-size-limit", 0);
  disk.low_watermark = Read<unsigned long>(options, "ipfix-disk-data-size-low-watermark", 0);
  disk.direct_io = Read<bool>(options, "ipfix-disk-direct-io", true);
  disk.iosqe_async = Read<bool>(options, "ipfix-iouring-iosqe-async", false);
  disk.batch_count = Read<unsigned int>(options, "ipfix-disk-batch-count", 1000);
  disk.flush_idle_ms = Read<unsigned int>(options, "ipfix-disk-flush-idle-ms", 1000);
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
  defaults.port = Read<unsigned short>(options, "switch-port", 8765);
  defaults.username = ReadText(options, "switch-username", "velmora");
  defaults.password = ReadText(options, "switch-password", "velmora");
  defaults.insecure = Read<bool>(options, "switch-insecure", true);
  defaults.collector_ip = ResolveHostAddress(ReadText(options, "collector-ip", ""));
  defaults.sample_interval_usec = Read<unsigned int>(options, "switch-sample-interval-usec", 100);
  defaults.hft_duration_sec = Read<unsigned int>(options, "switch-hft-duration", 0);
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
  config.port = Read<unsigned short>(options, prefix + "port", defaults.port);
  config.username = ReadText(options, prefix + "username", defaults.username);
  config.password = ReadText(options, prefix + "password", defaults.password);
  config.insecure = Read<bool>(options, prefix + "insecure", defaults.insecure);
  config.collector_ip =
      ResolveHostAddress(ReadText(options, prefix + "collector-ip", defaults.collector_ip));
  config.collector_port = defaults.receiver_port;
  config.sample_interval_usec =
      Read<unsigned int>(options, prefix + "sample-interval-usec", defaults.sample_interval_usec);
  config.hft_duration_sec =
      Read<unsigned int>(options, prefix + "hft-duration", defaults.hft_duration_sec);
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

}  // namespace dtl::ipfix
