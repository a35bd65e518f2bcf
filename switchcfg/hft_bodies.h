// Request bodies of the HFT workflows. The fixed texts are sent byte for
// byte; the others are JSON objects whose members keep the order in which
// they are added, serialised compactly by dtl::json::serialize_compact.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dtl_json.h"
#include "switchcfg/quil_switch_configurator.h"

namespace dtl::ipfix {

// Body of a PATCH to /system/telemetry/hft that stops the export.
inline constexpr std::string_view kDisableHftBody = R"({"export": {"state": "disabled"}})";
// Body of a PATCH to /revision/<id> that applies the revision.
inline constexpr std::string_view kApplyRevisionBody =
    R"({"state": "apply", "auto-prompt": {"ays": "ays_yes"}})";

// One keyed set of the HFT body: where it goes in the body, which
// configured list fills it and where the switch reports its applied keys.
struct KeyedSetSpec {
  const char* dotted_key;
  std::vector<std::string> QuilSwitchConfigurator::Config::*list;
  const char* applied_path;
};
// In the order in which they are added to the HFT body.
inline constexpr KeyedSetSpec kKeyedSets[] = {
    {"counter", &QuilSwitchConfigurator::Config::counters, "/system/telemetry/hft/counter"},
    {"egress-buffer.traffic-class", &QuilSwitchConfigurator::Config::traffic_classes,
     "/system/telemetry/hft/egress-buffer/traffic-class"},
    {"ingress-buffer.priority-group", &QuilSwitchConfigurator::Config::priority_groups,
     "/system/telemetry/hft/ingress-buffer/priority-group"},
    {"switch-priority", &QuilSwitchConfigurator::Config::priorities, "/system/telemetry/hft/switch-priority"},
};

// Sets `v` under a dotted key ("a.b.c"), creating or reusing the nested
// objects on the way. False (object unchanged) when a member on the way
// exists and is not an object.
bool DotSet(dtl::json::value& object, std::string_view dotted_key, dtl::json::value v);

// {"state": "enabled", "destination": collector_ip[, "vrf": vrf]}
dtl::json::value BuildIpfixExportBody(const QuilSwitchConfigurator::Config& config);
// The four fixed members of the HFT body; the keyed sets are added after them.
dtl::json::value BuildHftBody(const QuilSwitchConfigurator::Config& config);
// Adds every wanted value as {} and then every applied key that is not
// wanted as null (which removes it on the switch). Returns the null count.
size_t AddKeyedSetMembers(dtl::json::value& set, const std::vector<std::string>& wanted,
                          const std::vector<std::string>& applied);
// name -> {"telemetry": {"hft": {"state": "enabled"}}} per interface.
dtl::json::value BuildInterfacesBody(const std::vector<std::string>& interfaces);
// Unsets the HFT configuration and, per listed interface, its HFT settings.
dtl::json::value BuildCleanupBody(const std::vector<std::string>& interfaces);

// The applied IPFIX export settings when they are the switch's own (a
// non-empty object whose destination is not this collector), else none.
std::optional<dtl::json::value> OwnIpfixExport(const dtl::json::value& applied,
                                               const QuilSwitchConfigurator::Config& config);
// Puts `own` back over our export settings: its members as they were, and
// null for each member we set that it did not have.
dtl::json::value BuildIpfixExportRestoreBody(const dtl::json::value& own,
                                             const QuilSwitchConfigurator::Config& config);

// Non-empty, only ASCII letters, digits, '-' and '_'.
bool IsValidInterfaceName(const std::string& name);

}  // namespace dtl::ipfix
