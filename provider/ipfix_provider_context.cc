#include "provider/ipfix_provider_context.h"

#include <algorithm>
#include <cstdint>

#include "dtl_logger.h"

namespace dtl::ipfix {

namespace {
// Margin for the switches' own stop after the longest export window.
constexpr uint32_t kAutoStopDeltaSec = 5;
}  // namespace

IpfixProviderContext::~IpfixProviderContext() {
  for (auto& configurator : switches) configurator.reset();
  switches.clear();
  config = CollectorConfig{};  // its strings go before the receiver
  receiver.reset();
}

bool IpfixProviderContext::Start() {
  // No switch is asked to export towards a collector that cannot take the
  // stream (port held by another socket, storage unusable).
  if (receiver && !receiver->Start()) {
    DTL_LOG_ERROR("[ipfix bin data provider] the IPFIX receiver did not start (%s); no switch is "
                  "configured",
                  receiver->last_error().c_str());
    return false;
  }

  for (size_t i = 0; i < switches.size(); ++i) {
    if (switches[i]->EnableHftIpfix()) continue;
    DTL_LOG_ERROR("[ipfix bin data provider] failed to configure switch %zu: %s", i + 1,
                  switches[i]->last_error().c_str());
    for (size_t j = 0; j < i; ++j) switches[j]->DisableHftIpfix();
    if (receiver) receiver->Stop();
    return false;
  }
  return true;
}

bool IpfixProviderContext::Stop() {
  // Every switch is tried; one still exporting makes the stop a failure.
  bool all_disabled = true;
  for (size_t i = 0; i < switches.size(); ++i) {
    if (switches[i]->DisableHftIpfix()) continue;
    all_disabled = false;
    DTL_LOG_ERROR("[ipfix bin data provider] failed to disable HFT on switch %zu: %s", i + 1,
                  switches[i]->last_error().c_str());
  }
  if (receiver) receiver->Stop();
  return all_disabled;
}

std::optional<uint32_t> IpfixProviderContext::AutoStopTimeoutSec() const {
  if (switches.empty()) return std::nullopt;
  uint32_t longest = 0;
  for (const auto& configurator : switches) {
    const uint32_t duration = configurator->config().hft_duration_sec;
    if (duration == 0) return std::nullopt;
    longest = std::max(longest, duration);
  }
  // A duration near the top of the range would wrap round to a timeout of
  // a few seconds; the host gets the largest one it can be told instead.
  const uint32_t timeout = longest > UINT32_MAX - kAutoStopDeltaSec
                               ? UINT32_MAX
                               : longest + kAutoStopDeltaSec;
  DTL_LOG_INFO("[ipfix bin data provider] Auto-stop timeout: %us (max switch duration %us + %us delta)",
               timeout, longest, kAutoStopDeltaSec);
  return timeout;
}

}  // namespace dtl::ipfix
