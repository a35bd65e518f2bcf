// Everything behind one provider record: the IPFIX receiver, the
// configuration it was built from, and one configurator per switch.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "ipfix/ipfix_receiver.h"
#include "provider/provider_config.h"
#include "switchcfg/quil_switch_configurator.h"

namespace dtl::ipfix {

struct IpfixProviderContext {
  std::unique_ptr<IpfixReceiver> receiver;
  CollectorConfig config;
  std::vector<std::unique_ptr<QuilSwitchConfigurator>> switches;

  IpfixProviderContext() = default;
  // Releases the switch configurators in order, then the receiver (which
  // stops itself first). Nothing is sent to the switches.
  ~IpfixProviderContext();

  IpfixProviderContext(const IpfixProviderContext&) = delete;
  IpfixProviderContext& operator=(const IpfixProviderContext&) = delete;

  // Starts the receiver, then enables HFT export on each switch in order.
  // When the receiver cannot start, false is returned before any switch is
  // contacted. When a switch refuses, the switches before it are disabled
  // again, the receiver is stopped and false is returned. Exceptions pass
  // through.
  bool Start();

  // Disables HFT export on every switch (a refusal is logged and the next
  // switch tried), then stops the receiver. False when any switch refused.
  // Exceptions pass through.
  bool Stop();

  // Largest switch HFT duration + 5 s; none without switches or when any
  // switch exports without a time limit (duration 0).
  std::optional<uint32_t> AutoStopTimeoutSec() const;
};

}  // namespace dtl::ipfix
