// The request bodies must match, byte for byte, what the switches' other
// clients send; the reference texts are in parson/rest_bodies.tsv.
#include "switchcfg/hft_bodies.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>

namespace dtl::ipfix {
namespace {

using Config = QuilSwitchConfigurator::Config;
using Applied = std::map<std::string, std::vector<std::string>>;

// The HFT body as the enable workflow builds it, with the switch's applied
// keys given per path.
std::string HftBody(const Config& config, const Applied& applied) {
  json::value body = BuildHftBody(config);
  for (const KeyedSetSpec& spec : kKeyedSets) {
    const std::vector<std::string>& wanted = config.*spec.list;
    if (wanted.empty()) continue;
    json::value set = json::value::object();
    const auto it = applied.find(spec.applied_path);
    AddKeyedSetMembers(set, wanted, it == applied.end() ? std::vector<std::string>{} : it->second);
    EXPECT_TRUE(DotSet(body, spec.dotted_key, std::move(set)));
  }
  return json::serialize_compact(body);
}

TEST(HftBodies, MatchTheReferenceTexts) {
  std::map<std::string, std::string> golden;
  std::ifstream in(DTL_TESTDATA_DIR "/parson/rest_bodies.tsv");
  for (std::string line; std::getline(in, line);) {
    const size_t tab = line.find('\t');
    if (tab != std::string::npos) golden[line.substr(0, tab)] = line.substr(tab + 1);
  }
  Config plain, vrf, two, all;
  plain.collector_ip = vrf.collector_ip = "192.0.2.10";
  vrf.vrf = "mgmt";
  two.counters = {"tx-byte", "rx-byte"};
  all.counters = {"tx-byte"};
  all.traffic_classes = {"0", "3", "7"};
  all.priority_groups = {"1"};
  all.priorities = {"2", "4"};
  all.sample_interval_usec = 1000;
  all.hft_duration_sec = 30;
  const Applied stale = {{"/system/telemetry/hft/counter", {"tx-byte", "rx-pkt"}},
                         {"/system/telemetry/hft/egress-buffer/traffic-class", {"3", "5", "6"}}};
  const struct {
    const char* name;
    std::string body;
  } rows[] = {
      {"ipfix_export_no_vrf", json::serialize_compact(BuildIpfixExportBody(plain))},
      {"ipfix_export_vrf_mgmt", json::serialize_compact(BuildIpfixExportBody(vrf))},
      {"hft_two_counters", HftBody(two, {})},
      {"hft_all_lists_with_stale", HftBody(all, stale)},
      {"interfaces_three", json::serialize_compact(BuildInterfacesBody({"swp1", "swp2", "eth-3_a"}))},
      {"cleanup_two_interfaces", json::serialize_compact(BuildCleanupBody({"swp1", "swp2"}))},
      {"cleanup_no_interfaces", json::serialize_compact(BuildCleanupBody({}))},
  };
  for (const auto& row : rows) {
    ASSERT_EQ(golden.count(row.name), 1u) << row.name;
    EXPECT_EQ(row.body, golden[row.name]) << row.name;
  }
}

// Interface names become keys of the request bodies: none may address another path.
TEST(HftBodies, InterfaceNames) {
  for (const char* ok : {"swp1", "eth-3_a", "A", "0"}) EXPECT_TRUE(IsValidInterfaceName(ok)) << ok;
  for (const char* bad : {"", "eth1/2", "swp 1", "swp.1", "sw\xc3\xa9"})
    EXPECT_FALSE(IsValidInterfaceName(bad)) << bad;
}

}  // namespace
}  // namespace dtl::ipfix
