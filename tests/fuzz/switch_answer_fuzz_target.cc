// Feeds arbitrary text to everything the switch configurator reads from a
// switch's answers: the first JSON value with whatever follows, a new
// revision's identifier, the HFT export state, the applied keys and the
// interface list, and the switch's own IPFIX export settings, which are put
// back on stop and so are serialised into a request body.
#include <cstddef>
#include <cstdint>
#include <string>

#include "switchcfg/hft_bodies.h"
#include "switchcfg/switch_answers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace dtl::ipfix;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const dtl::json::value answer = ParseSwitchAnswer(text);
  size_t seen = RevisionOf(answer).size();
  seen += ExportStateIs(answer, "enabled") ? 1 : 0;
  for (const std::string& name : MemberNames(answer)) seen += name.size();

  QuilSwitchConfigurator::Config config;
  config.host = "192.0.2.1";
  config.collector_ip = "192.0.2.2";
  config.interfaces = {"swp1"};
  const std::optional<dtl::json::value> own = OwnIpfixExport(answer, config);
  if (own) seen += dtl::json::serialize_compact(BuildIpfixExportRestoreBody(*own, config)).size();
  return seen == SIZE_MAX ? 1 : 0;
}
