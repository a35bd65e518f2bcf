// Reading of the provider's options (host dictionary, then environment,
// then defaults) into the receiver's and the switch configurators' records.
// Every option is read once, while the provider is constructed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dtl_dict.h"
#include "ipfix/ipfix_receiver.h"
#include "storage/disk_writer_config.h"
#include "switchcfg/quil_switch_configurator.h"

namespace dtl::ipfix {

// The receiver's settings plus where and how its samples are stored.
struct CollectorConfig : IpfixReceiver::Config {
  DiskWriterConfig disk;  // an empty root means nothing is stored
};

// The global switch options, the defaults of every per-switch key.
struct SwitchDefaults {
  const dtl_custom_options* options = nullptr;
  uint16_t port = 8765;
  std::string username;
  std::string password;
  bool insecure = true;
  std::string collector_ip;  // already resolved
  uint16_t receiver_port = 4739;
  uint32_t sample_interval_usec = 100;
  uint32_t hft_duration_sec = 0;
  std::string vrf;
  std::vector<std::string> counters;
  std::vector<std::string> traffic_classes;
  std::vector<std::string> priority_groups;
  std::vector<std::string> priorities;
  // The four list options as read, for the per-switch log line.
  std::string counters_text;
  std::string traffic_classes_text;
  std::string priority_groups_text;
  std::string priorities_text;
};

// Every reader below throws std::invalid_argument, naming the key, its value
// and what the key accepts, when a value does not convert to the option's
// type (strictly: "12abc" is no number, "no" is false, "10G" is 10 GiB
// where a size is meant) or lies outside its range. An empty value means
// the default.

// The suffixes of the per-switch keys: switch-N-<suffix>, and switch-<suffix>
// for the single switch and the global defaults.
const std::vector<std::string>& SwitchKeySuffixes();

// Every key outside the numbered switch keys that this provider reads
// (switch-<suffix> included); the service's environment file documents each.
const std::vector<std::string>& FixedKeys();

// Whether a reader looks at key: one of FixedKeys() or switch-N-<suffix>.
bool IsKnownKey(const std::string& key);

// One warning line for each key of this provider's families (ipfix-*,
// switch-*, collector-*), in the dictionary or as a DTL_ environment
// variable, that no reader would look at, naming the nearest known key.
void WarnAboutUnknownOptions(const dtl_custom_options* options);

// Receiver and disk options, with the disk-root and configuration log lines.
CollectorConfig ReadCollectorConfig(const dtl_custom_options* options);

// The global switch options; receiver_port becomes every collector port.
SwitchDefaults ReadSwitchDefaults(const dtl_custom_options* options, uint16_t receiver_port);

// One switch's configuration from the keys prefix + suffix ("switch-2-port"),
// falling back to the global values.
QuilSwitchConfigurator::Config ParseSwitchConfig(const SwitchDefaults& defaults,
                                                 const std::string& address,
                                                 const std::string& prefix);

// Configurators for switch-1-ip, switch-2-ip, ... up to the first one that
// is not set, or for switch-ip alone when switch-1-ip is not set.
std::vector<std::unique_ptr<QuilSwitchConfigurator>> BuildSwitchConfigurators(
    const dtl_custom_options* options, uint16_t receiver_port);

}  // namespace dtl::ipfix
