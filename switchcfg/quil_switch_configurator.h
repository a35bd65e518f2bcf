// Configures one switch over its HTTPS REST configuration API (revisions:
// create, patch paths, apply) so that it exports HFT counters as IPFIX to
// this collector, and withdraws that configuration again.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "dtl_json.h"

namespace dtl::ipfix {

struct HttpResponse {
  int64_t status = 0;  // 0 when no response was received
  std::string body;
};

class QuilSwitchConfigurator {
 public:
  struct Config {
    std::string host;
    uint16_t port = 8765;
    std::string username = "velmora";
    std::string password = "velmora";
    bool insecure = true;  // true: no TLS peer or host-name verification
    std::string collector_ip;
    uint16_t collector_port = 4739;
    uint32_t sample_interval_usec = 100;
    uint32_t hft_duration_sec = 0;
    std::string vrf;
    std::vector<std::string> interfaces;
    std::vector<std::string> counters = {"tx-byte", "rx-byte"};
    std::vector<std::string> traffic_classes;
    std::vector<std::string> priority_groups;
    std::vector<std::string> priorities;
  };

  explicit QuilSwitchConfigurator(const Config& config);
  // Sends nothing to the switch.
  ~QuilSwitchConfigurator();

  QuilSwitchConfigurator(const QuilSwitchConfigurator&) = delete;
  QuilSwitchConfigurator& operator=(const QuilSwitchConfigurator&) = delete;

  // Workflows; on false, last_error() and the log say why.
  bool EnableHftIpfix();
  bool DisableHftIpfix();
  bool CleanupHftConfig();

  const Config& config() const { return config_; }
  const std::string& last_error() const { return last_error_; }

  // REST operations the workflows are made of.
  std::string BaseUrl() const;
  HttpResponse DoRequest(const std::string& method, const std::string& url, const std::string& body);
  std::string CreateRevision();
  bool PatchConfig(const std::string& revision, const std::string& path, const std::string& body);
  std::string GetConfig(const std::string& path);
  bool ApplyRevision(const std::string& revision);
  bool WaitForHftExportState(const std::string& expected);
  std::vector<std::string> FetchAppliedKeys(const std::string& path);

  // Pause between two polls of WaitForHftExportState (250 ms). Only tests
  // shorten it, to exercise the time-out without waiting ten seconds.
  static void SetPollIntervalForTesting(std::chrono::milliseconds interval);

 private:
  bool BuildKeyedSet(dtl::json::value& body, const std::string& dotted_key,
                     const std::vector<std::string>& wanted, const std::string& path);

  Config config_;
  std::string last_error_;
};

}  // namespace dtl::ipfix
