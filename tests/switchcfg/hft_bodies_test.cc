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

std::map<std::string, std::string> LoadGolden() {
  std::map<std::string, std::string> cases;
  std::ifstream in(DTL_TESTDATA_DIR "/parson/rest_bodies.tsv");
  std::string line;
  while (std::getline(in, line)) {
    const size_t tab = line.find('\t');
    if (tab != std::string::npos) cases[line.substr(0, tab)] = line.substr(tab + 1);
  }
  return cases;
}

// The HFT body as the enable workflow builds it, with the switch's applied
// keys given per path.
std::string HftBody(const Config& config, const std::map<std::string, std::vector<std::string>>& applied) {
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

class HftBodiesGolden : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { golden_ = new std::map<std::string, std::string>(LoadGolden()); }
  static void TearDownTestSuite() { delete golden_; }
  const std::string& Golden(const std::string& name) {
    EXPECT_EQ(golden_->count(name), 1u) << name;
    return (*golden_)[name];
  }
  static std::map<std::string, std::string>* golden_;
};
std::map<std::string, std::string>* HftBodiesGolden::golden_ = nullptr;

TEST_F(HftBodiesGolden, IpfixExport) {
  Config config;
  config.collector_ip = "192.0.2.10";
  EXPECT_EQ(json::serialize_compact(BuildIpfixExportBody(config)), Golden("ipfix_export_no_vrf"));
  config.vrf = "mgmt";
  EXPECT_EQ(json::serialize_compact(BuildIpfixExportBody(config)), Golden("ipfix_export_vrf_mgmt"));
}

TEST_F(HftBodiesGolden, HftTwoCounters) {
  Config config;
  config.counters = {"tx-byte", "rx-byte"};
  EXPECT_EQ(HftBody(config, {}), Golden("hft_two_counters"));
}

TEST_F(HftBodiesGolden, HftAllListsWithStaleEntries) {
  Config config;
  config.counters = {"tx-byte"};
  config.traffic_classes = {"0", "3", "7"};
  config.priority_groups = {"1"};
  config.priorities = {"2", "4"};
  config.sample_interval_usec = 1000;
  config.hft_duration_sec = 30;
  const std::map<std::string, std::vector<std::string>> applied = {
      {"/system/telemetry/hft/counter", {"tx-byte", "rx-pkt"}},
      {"/system/telemetry/hft/egress-buffer/traffic-class", {"3", "5", "6"}},
  };
  EXPECT_EQ(HftBody(config, applied), Golden("hft_all_lists_with_stale"));
}

TEST_F(HftBodiesGolden, Interfaces) {
  EXPECT_EQ(json::serialize_compact(BuildInterfacesBody({"swp1", "swp2", "eth-3_a"})),
            Golden("interfaces_three"));
}

TEST_F(HftBodiesGolden, Cleanup) {
  EXPECT_EQ(json::serialize_compact(BuildCleanupBody({"swp1", "swp2"})), Golden("cleanup_two_interfaces"));
  EXPECT_EQ(json::serialize_compact(BuildCleanupBody({})), Golden("cleanup_no_interfaces"));
}

TEST(HftBodies, KeyedSetCountsStaleKeysAndMergesDuplicates) {
  json::value set = json::value::object();
  EXPECT_EQ(AddKeyedSetMembers(set, {"a", "b", "a"}, {"c", "a", "d"}), 2u);
  EXPECT_EQ(json::serialize_compact(set), R"({"a":{},"b":{},"c":null,"d":null})");
}

TEST(HftBodies, DotSetReusesObjectsAndRefusesNonObjects) {
  json::value body = json::value::object();
  ASSERT_TRUE(DotSet(body, "a.b", 1));
  ASSERT_TRUE(DotSet(body, "a.c", 2));
  ASSERT_TRUE(DotSet(body, "x", "y"));
  EXPECT_FALSE(DotSet(body, "x.z", 3));
  EXPECT_FALSE(DotSet(body, "a.b.c", 3));
  EXPECT_EQ(json::serialize_compact(body), R"({"a":{"b":1,"c":2},"x":"y"})");
}

TEST(HftBodies, InterfaceNames) {
  for (const char* ok : {"swp1", "eth-3_a", "A", "0"}) EXPECT_TRUE(IsValidInterfaceName(ok)) << ok;
  for (const char* bad : {"", "eth1/2", "swp 1", "swp.1", "sw\xc3\xa9"})
    EXPECT_FALSE(IsValidInterfaceName(bad)) << bad;
}

}  // namespace
}  // namespace dtl::ipfix
