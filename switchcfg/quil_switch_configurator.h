// Configures one switch over its HTTPS REST configuration API (revisions:
// create, patch paths, apply) so that it exports HFT counters as IPFIX to
// this collector, and withdraws that configuration again.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
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

  // Workflows; on false, last_error() and the log say why. An exception
  // while building a request (allocation failure) fails the workflow like
  // a refused request. DisableHftIpfix also withdraws the IPFIX export that
  // EnableHftIpfix configured, restoring the switch's own export settings
  // when it had some; it fails when the HFT export could not be stopped or
  // the IPFIX export could not be withdrawn.
  bool EnableHftIpfix();
  bool DisableHftIpfix();
  bool CleanupHftConfig();

  // Process-wide stop request (safe to call from a signal handler): an
  // enable in progress ends at once, its request in flight aborted, and no
  // further enable starts until ResumeEnables. Disables and clean-ups are
  // not affected, so whatever was configured can still be withdrawn.
  static void InterruptEnables();
  static void ResumeEnables();

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
  bool EnableSteps();
  bool DisableSteps();
  bool WithdrawIpfixExport();
  // True while an enable runs and a stop has been requested.
  bool Interrupted() const;
  void FailWith(const char* workflow, const char* what);

  Config config_;
  std::string last_error_;
  bool enabling_ = false;
  // Set once an enable has applied our IPFIX export, until it is withdrawn.
  bool export_configured_ = false;
  // The switch's own IPFIX export settings found before ours replaced them.
  std::optional<dtl::json::value> own_export_;
};

}  // namespace dtl::ipfix

// The plug-in's hook for its host: QuilSwitchConfigurator::InterruptEnables,
// for a host that wants a stop signal to cut a start short. Signal-safe.
extern "C" void dtl_ipfix_interrupt_switch_enables(void);
