#include "switchcfg/hft_bodies.h"

#include <algorithm>

namespace dtl::ipfix {

using dtl::json::value;

bool DotSet(value& object, std::string_view dotted_key, value v) {
  if (!object.is_object()) return false;
  const size_t dot = dotted_key.find('.');
  if (dot == std::string_view::npos) {
    object[std::string(dotted_key)] = std::move(v);
    return true;
  }
  const std::string head(dotted_key.substr(0, dot));
  auto it = object.find(head);
  if (it != object.end()) return DotSet(*it, dotted_key.substr(dot + 1), std::move(v));
  // Built aside and attached only when complete, so a failure leaves the
  // object as it was.
  value child = value::object();
  if (!DotSet(child, dotted_key.substr(dot + 1), std::move(v))) return false;
  object[head] = std::move(child);
  return true;
}

value BuildIpfixExportBody(const QuilSwitchConfigurator::Config& config) {
  value body = value::object();
  body["state"] = "enabled";
  body["destination"] = config.collector_ip;
  if (!config.vrf.empty()) body["vrf"] = config.vrf;
  return body;
}

value BuildHftBody(const QuilSwitchConfigurator::Config& config) {
  value body = value::object();
  DotSet(body, "export.state", "enabled");
  body["export-type"] = "ipfix";
  body["sample-interval-usec"] = config.sample_interval_usec;
  body["duration"] = config.hft_duration_sec;
  return body;
}

size_t AddKeyedSetMembers(value& set, const std::vector<std::string>& wanted,
                          const std::vector<std::string>& applied) {
  for (const std::string& name : wanted) set[name] = value::object();
  size_t stale = 0;
  for (const std::string& name : applied) {
    if (std::find(wanted.begin(), wanted.end(), name) != wanted.end()) continue;
    set[name] = nullptr;
    ++stale;
  }
  return stale;
}

value BuildInterfacesBody(const std::vector<std::string>& interfaces) {
  value body = value::object();
  for (const std::string& name : interfaces) {
    body[name] = {{"telemetry", {{"hft", {{"state", "enabled"}}}}}};
  }
  return body;
}

value BuildCleanupBody(const std::vector<std::string>& interfaces) {
  value body = value::object();
  DotSet(body, "system.telemetry.hft", nullptr);
  if (!interfaces.empty()) {
    value unset = value::object();
    for (const std::string& name : interfaces) unset[name] = {{"telemetry", {{"hft", nullptr}}}};
    body["interface"] = std::move(unset);
  }
  return body;
}

std::optional<value> OwnIpfixExport(const value& applied, const QuilSwitchConfigurator::Config& config) {
  if (!applied.is_object() || applied.empty()) return std::nullopt;
  // Pointing at this collector, it is what an earlier run of ours left.
  const auto destination = applied.find("destination");
  if (destination != applied.end() && destination->is_string() &&
      destination->get_ref<const std::string&>() == config.collector_ip) {
    return std::nullopt;
  }
  return applied;
}

value BuildIpfixExportRestoreBody(const value& own, const QuilSwitchConfigurator::Config& config) {
  value body = own;
  const value ours = BuildIpfixExportBody(config);
  for (const auto& member : ours.items()) {
    if (!body.contains(member.key())) body[member.key()] = nullptr;
  }
  return body;
}

bool IsValidInterfaceName(const std::string& name) {
  if (name.empty()) return false;
  return std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
  });
}

}  // namespace dtl::ipfix
