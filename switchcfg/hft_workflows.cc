// The HFT enable, disable and clean-up workflows. Every change goes through
// a revision; a revision that was created but not applied stays on the
// switch and is reported as orphaned, never deleted.
#include <exception>
#include <limits>
#include <string>
#include <vector>

#include "dtl_logger.h"
#include "switchcfg/hft_bodies.h"
#include "switchcfg/switch_answers.h"
#include "switchcfg/quil_switch_configurator.h"

namespace dtl::ipfix {

namespace {

constexpr const char* kHftPath = "/system/telemetry/hft";
constexpr const char* kIpfixExportPath = "/system/telemetry/export/ipfix";
constexpr const char* kInterruptedText = "interrupted: the collector is stopping";

std::string Join(const std::vector<std::string>& items, size_t limit) {
  std::string text;
  for (size_t i = 0; i < items.size() && i < limit; ++i) {
    if (i != 0) text += ",";
    text += items[i];
  }
  if (items.size() > limit) text += ",...";
  return text;
}

}  // namespace

void QuilSwitchConfigurator::FailWith(const char* workflow, const char* what) {
  last_error_ = what;
  DTL_LOG_ERROR("[quil switch configurator] %s on switch %s failed: %s", workflow, config_.host.c_str(),
                what);
}

bool QuilSwitchConfigurator::EnableHftIpfix() {
  enabling_ = true;
  if (Interrupted()) {  // a stop came before this switch was touched
    enabling_ = false;
    FailWith("Enabling HFT IPFIX", kInterruptedText);
    return false;
  }
  bool enabled = false;
  try {
    enabled = EnableSteps();
  } catch (const std::exception& e) {
    enabling_ = false;
    FailWith("Enabling HFT IPFIX", e.what());
    return false;
  }
  const bool interrupted = Interrupted();
  enabling_ = false;
  if (!enabled && interrupted) FailWith("Enabling HFT IPFIX", kInterruptedText);
  return enabled;
}

bool QuilSwitchConfigurator::DisableHftIpfix() {
  try {
    return DisableSteps();
  } catch (const std::exception& e) {
    FailWith("Disabling HFT", e.what());
    return false;
  }
}

bool QuilSwitchConfigurator::EnableSteps() {
  const std::string& host = config_.host;
  DTL_LOG_INFO("[quil switch configurator] Enabling HFT IPFIX on switch %s → collector %s:%u", host.c_str(),
               config_.collector_ip.c_str(), static_cast<unsigned>(config_.collector_port));

  // Quiesce the export first, so that the clean-up below does not pull the
  // configuration from under a running export.
  const std::string quiesce = CreateRevision();
  if (quiesce.empty()) return false;
  if (!PatchConfig(quiesce, kHftPath, std::string(kDisableHftBody))) return false;
  if (!ApplyRevision(quiesce)) return false;
  if (!WaitForHftExportState("disabled")) return false;

  if (!CleanupHftConfig()) return false;

  // Settings of the switch's own that ours replace are put back when the
  // export is withdrawn; a second enable keeps what the first one found.
  if (!export_configured_) {
    own_export_ = OwnIpfixExport(ParseSwitchAnswer(GetConfig(std::string(kIpfixExportPath) + "?rev=applied")),
                                 config_);
  }

  const std::string revision = CreateRevision();
  if (revision.empty()) return false;

  if (!PatchConfig(revision, kIpfixExportPath,
                   dtl::json::serialize_compact(BuildIpfixExportBody(config_)))) {
    DTL_LOG_WARNING(
        "[quil switch configurator] Orphaned QUIL revision %s on switch %s (IPFIX export patch failed)",
        revision.c_str(), host.c_str());
    return false;
  }

  dtl::json::value hft = BuildHftBody(config_);
  for (const KeyedSetSpec& spec : kKeyedSets) {
    if (!BuildKeyedSet(hft, spec.dotted_key, config_.*spec.list, spec.applied_path)) {
      DTL_LOG_WARNING(
          "[quil switch configurator] Orphaned QUIL revision %s on switch %s (HFT body build failed)",
          revision.c_str(), host.c_str());
      return false;
    }
  }
  if (!PatchConfig(revision, kHftPath, dtl::json::serialize_compact(hft))) {
    DTL_LOG_WARNING("[quil switch configurator] Orphaned QUIL revision %s on switch %s (HFT patch failed)",
                    revision.c_str(), host.c_str());
    return false;
  }

  for (const std::string& name : config_.interfaces) {
    if (!IsValidInterfaceName(name)) {
      last_error_ = "Invalid interface name: " + name;
      DTL_LOG_ERROR("[quil switch configurator] %s", last_error_.c_str());
      DTL_LOG_WARNING(
          "[quil switch configurator] Orphaned QUIL revision %s on switch %s (invalid interface name)",
          revision.c_str(), host.c_str());
      return false;
    }
  }
  if (!config_.interfaces.empty() &&
      !PatchConfig(revision, "/interface",
                   dtl::json::serialize_compact(BuildInterfacesBody(config_.interfaces)))) {
    DTL_LOG_WARNING(
        "[quil switch configurator] Orphaned QUIL revision %s on switch %s (bulk interface patch failed)",
        revision.c_str(), host.c_str());
    return false;
  }

  if (!ApplyRevision(revision)) {
    DTL_LOG_WARNING("[quil switch configurator] Orphaned QUIL revision %s on switch %s (apply failed)",
                    revision.c_str(), host.c_str());
    // An apply cut short by a stop may have reached the switch: withdraw it
    // as if it had, with no interruption of its own.
    if (Interrupted()) {
      enabling_ = false;
      export_configured_ = true;
      DisableSteps();
      enabling_ = true;
    }
    return false;
  }
  export_configured_ = true;

  constexpr size_t all = std::numeric_limits<size_t>::max();
  const std::string traffic_classes = Join(config_.traffic_classes, all);
  const std::string priority_groups = Join(config_.priority_groups, all);
  const std::string priorities = Join(config_.priorities, all);
  DTL_LOG_INFO(
      "[quil switch configurator] HFT IPFIX enabled on switch %s for %zu interfaces (duration=%us, "
      "traffic-class=[%s], priority-group=[%s], switch-priority=[%s])",
      host.c_str(), config_.interfaces.size(), config_.hft_duration_sec, traffic_classes.c_str(),
      priority_groups.c_str(), priorities.c_str());
  return true;
}

bool QuilSwitchConfigurator::BuildKeyedSet(dtl::json::value& body, const std::string& dotted_key,
                                           const std::vector<std::string>& wanted, const std::string& path) {
  if (wanted.empty()) return true;
  const std::vector<std::string> applied = FetchAppliedKeys(path);
  // Allocation failures of the JSON model surface as exceptions, which the
  // provider's callbacks catch; only the attachment can fail here.
  dtl::json::value set = dtl::json::value::object();
  const size_t stale = AddKeyedSetMembers(set, wanted, applied);
  if (stale != 0) {
    DTL_LOG_INFO("[quil switch configurator] %s: unsetting %zu stale entr%s from previous run on switch %s",
                 dotted_key.c_str(), stale, stale == 1 ? "y" : "ies", config_.host.c_str());
  }
  if (!DotSet(body, dotted_key, std::move(set))) {
    DTL_LOG_ERROR("[quil switch configurator] json_object_dotset_value failed for %s on switch %s",
                  dotted_key.c_str(), config_.host.c_str());
    return false;
  }
  return true;
}

bool QuilSwitchConfigurator::DisableSteps() {
  const std::string& host = config_.host;
  DTL_LOG_INFO("[quil switch configurator] Disabling HFT on switch %s", host.c_str());
  bool stopped = false;
  const std::string revision = CreateRevision();
  if (!revision.empty()) {
    if (!PatchConfig(revision, kHftPath, std::string(kDisableHftBody))) {
      DTL_LOG_WARNING(
          "[quil switch configurator] Orphaned QUIL revision %s on switch %s (disable HFT patch failed)",
          revision.c_str(), host.c_str());
    } else if (!ApplyRevision(revision)) {
      DTL_LOG_WARNING(
          "[quil switch configurator] Orphaned QUIL revision %s on switch %s (disable apply failed)",
          revision.c_str(), host.c_str());
    } else {
      DTL_LOG_INFO("[quil switch configurator] HFT disabled on switch %s", host.c_str());
      stopped = true;
    }
  }
  // Tried even when the HFT export could not be stopped: without an IPFIX
  // destination the switch has nowhere to stream to.
  const std::string error = last_error_;
  const bool withdrawn = WithdrawIpfixExport();
  if (!stopped) {
    last_error_ = error;  // the refusal to stop is the failure to report
    DTL_LOG_ERROR("[quil switch configurator] HFT export on switch %s could not be disabled and may still run",
                  host.c_str());
    return false;
  }
  // The export is stopped; configuration left behind is repaired by the
  // clean-up of the next enable, so this does not fail the disable.
  if (!CleanupHftConfig()) {
    DTL_LOG_WARNING(
        "[quil switch configurator] CleanupHftConfig failed on switch %s after disable — stale config may "
        "remain",
        host.c_str());
  }
  return withdrawn;
}

bool QuilSwitchConfigurator::WithdrawIpfixExport() {
  if (!export_configured_) return true;
  const std::string& host = config_.host;
  const std::string revision = CreateRevision();
  if (revision.empty()) return false;
  const bool restore = own_export_.has_value();
  const bool patched =
      restore ? PatchConfig(revision, kIpfixExportPath,
                            dtl::json::serialize_compact(BuildIpfixExportRestoreBody(*own_export_, config_)))
              : PatchConfig(revision, "/system/telemetry/export", R"({"ipfix":null})");
  if (!patched || !ApplyRevision(revision)) {
    DTL_LOG_WARNING(
        "[quil switch configurator] Orphaned QUIL revision %s on switch %s (IPFIX export withdrawal failed)",
        revision.c_str(), host.c_str());
    DTL_LOG_ERROR("[quil switch configurator] IPFIX export to %s is still configured on switch %s",
                  config_.collector_ip.c_str(), host.c_str());
    return false;
  }
  export_configured_ = false;
  own_export_.reset();
  DTL_LOG_INFO("[quil switch configurator] IPFIX export to %s withdrawn on switch %s%s",
               config_.collector_ip.c_str(), host.c_str(), restore ? " (its own export settings restored)" : "");
  return true;
}

bool QuilSwitchConfigurator::CleanupHftConfig() {
  const std::string& host = config_.host;
  DTL_LOG_INFO("[quil switch configurator] Cleaning up stale HFT config on switch %s", host.c_str());
  const std::string listing = GetConfig("/interface");
  DTL_LOG_DEBUG("[quil switch configurator] Cleanup: GET /interface returned %zu bytes", listing.size());

  // Every interface the switch knows is unset, not only the configured
  // ones: an earlier run may have enabled HFT on others.
  std::vector<std::string> interfaces;
  if (listing.empty()) {
    DTL_LOG_WARNING(
        "[quil switch configurator] Cleanup: failed to list interfaces on switch %s — falling back to "
        "configured "
        "list (%zu interfaces)",
        host.c_str(), config_.interfaces.size());
    interfaces = config_.interfaces;
  } else {
    const dtl::json::value answer = ParseSwitchAnswer(listing);
    if (!answer.is_object()) {
      DTL_LOG_WARNING(
          "[quil switch configurator] Cleanup: failed to parse /interface response as JSON object: %s",
          listing.c_str());
    }
    interfaces = MemberNames(answer);
    DTL_LOG_INFO("[quil switch configurator] Cleanup: discovered %zu interfaces on switch %s",
                 interfaces.size(), host.c_str());
    const std::string shown = Join(interfaces, 5);
    DTL_LOG_INFO("[quil switch configurator] Cleanup: interfaces=[%s]", shown.c_str());
  }

  const std::string revision = CreateRevision();
  if (revision.empty()) return false;
  const std::string body = dtl::json::serialize_compact(BuildCleanupBody(interfaces));
  DTL_LOG_INFO(
      "[quil switch configurator] Cleanup: PATCH / body_len=%zu unsetting system.telemetry.hft + "
      "interface.telemetry.hft on %zu interfaces",
      body.size(), interfaces.size());
  if (!PatchConfig(revision, "/", body)) {
    DTL_LOG_WARNING(
        "[quil switch configurator] Orphaned QUIL revision %s on switch %s (cleanup PATCH failed)",
        revision.c_str(), host.c_str());
    return false;
  }
  if (!ApplyRevision(revision)) {
    DTL_LOG_WARNING(
        "[quil switch configurator] Orphaned QUIL revision %s on switch %s (cleanup apply failed)",
        revision.c_str(), host.c_str());
    return false;
  }

  const std::string disable = CreateRevision();
  if (disable.empty()) return false;
  if (!PatchConfig(disable, kHftPath, std::string(kDisableHftBody))) {
    DTL_LOG_WARNING(
        "[quil switch configurator] Orphaned QUIL revision %s on switch %s (disable HFT patch failed)",
        disable.c_str(), host.c_str());
    return false;
  }
  if (!ApplyRevision(disable)) {
    DTL_LOG_WARNING(
        "[quil switch configurator] Orphaned QUIL revision %s on switch %s (disable apply failed)",
        disable.c_str(), host.c_str());
    return false;
  }
  DTL_LOG_INFO("[quil switch configurator] Stale HFT config cleared on switch %s (%zu interfaces unset)",
               host.c_str(), interfaces.size());
  return true;
}

}  // namespace dtl::ipfix
