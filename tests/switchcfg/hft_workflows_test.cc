// The HFT enable, disable and clean-up workflows against quil-mock: the
// requests they send (from the mock's journal), their results and the
// orphaned revisions they report.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "switchcfg/hft_bodies.h"
#include "switchcfg/quil_switch_configurator.h"
#include "switchcfg/switchcfg_test_support.h"

// The replaced operators pair malloc with free; g++ cannot see that through
// the inlined replacements and would warn at every delete in this file.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

// While armed, any allocation of at least this many bytes fails, as it
// would on a host short of memory.
static std::atomic<size_t> g_failing_allocation_size{SIZE_MAX};

void* operator new(size_t size) {
  if (size >= g_failing_allocation_size.load()) throw std::bad_alloc();
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace dtl::ipfix {
namespace {

using swtest::SwitchcfgTest;
using swtest::MockOptions;
using swtest::WithFaults;
using Entry = QuilMock::JournalEntry;

const std::string kDisable(kDisableHftBody);
const std::string kApply(kApplyRevisionBody);

struct Expected {
  std::string method, path, query, body;
};

void ExpectRequests(const std::vector<Entry>& actual, const std::vector<Expected>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE("request " + std::to_string(i + 1));
    EXPECT_EQ(actual[i].method, expected[i].method);
    EXPECT_EQ(actual[i].path, expected[i].path);
    EXPECT_EQ(actual[i].query, expected[i].query);
    EXPECT_EQ(actual[i].body, expected[i].body);
  }
}

std::vector<Entry> Matching(const std::vector<Entry>& entries, const std::string& method,
                            const std::string& path) {
  std::vector<Entry> found;
  for (const Entry& entry : entries) {
    if (entry.method == method && entry.path == path) found.push_back(entry);
  }
  return found;
}

std::string Orphaned(const std::string& revision, const std::string& reason) {
  return "[quil switch configurator] Orphaned QUIL revision " + revision + " on switch 127.0.0.1 (" + reason +
         ")";
}

class HftWorkflowTest : public SwitchcfgTest {
 protected:
  void TearDown() override {
    QuilSwitchConfigurator::ResumeEnables();
    QuilSwitchConfigurator::SetPollIntervalForTesting(std::chrono::milliseconds(250));
    SwitchcfgTest::TearDown();
  }
};

TEST_F(HftWorkflowTest, EnableSendsTheWholeSequence) {
  QuilMock mock(MockOptions());
  ASSERT_TRUE(mock.ok());
  auto config = ConfigFor(mock);
  config.interfaces = {"swp1", "swp2"};
  config.traffic_classes = {"3"};
  QuilSwitchConfigurator switch_config(config);
  ASSERT_TRUE(switch_config.EnableHftIpfix()) << switch_config.last_error();

  const std::string cleanup =
      json::serialize_compact(BuildCleanupBody({"Ethernet1_1", "Ethernet1_2", "Ethernet1_3", "Ethernet1_4"}));
  const std::string hft =
      R"({"export":{"state":"enabled"},"export-type":"ipfix","sample-interval-usec":100,"duration":0,)"
      R"("counter":{"tx-byte":{},"rx-byte":{}},"egress-buffer":{"traffic-class":{"3":{}}}})";
  ExpectRequests(Requests(mock),
                 {
                     {"POST", "/quil_v1/revision", "", "{}"},
                     {"PATCH", "/quil_v1/system/telemetry/hft", "rev=rev-1", kDisable},
                     {"PATCH", "/quil_v1/revision/rev-1", "", kApply},
                     {"GET", "/quil_v1/system/telemetry/hft", "rev=applied", ""},
                     {"GET", "/quil_v1/interface", "", ""},
                     {"POST", "/quil_v1/revision", "", "{}"},
                     {"PATCH", "/quil_v1/", "rev=rev-2", cleanup},
                     {"PATCH", "/quil_v1/revision/rev-2", "", kApply},
                     {"POST", "/quil_v1/revision", "", "{}"},
                     {"PATCH", "/quil_v1/system/telemetry/hft", "rev=rev-3", kDisable},
                     {"PATCH", "/quil_v1/revision/rev-3", "", kApply},
                     {"GET", "/quil_v1/system/telemetry/export/ipfix", "rev=applied", ""},
                     {"POST", "/quil_v1/revision", "", "{}"},
                     {"PATCH", "/quil_v1/system/telemetry/export/ipfix", "rev=rev-4",
                      R"({"state":"enabled","destination":"127.0.0.1"})"},
                     {"GET", "/quil_v1/system/telemetry/hft/counter", "rev=applied", ""},
                     {"GET", "/quil_v1/system/telemetry/hft/egress-buffer/traffic-class", "rev=applied", ""},
                     {"PATCH", "/quil_v1/system/telemetry/hft", "rev=rev-4", hft},
                     {"PATCH", "/quil_v1/interface", "rev=rev-4",
                      json::serialize_compact(BuildInterfacesBody({"swp1", "swp2"}))},
                     {"PATCH", "/quil_v1/revision/rev-4", "", kApply},
                 });
  EXPECT_TRUE(HasLine(
      DTL_LOG_LEVEL_INFO,
      "[quil switch configurator] Enabling HFT IPFIX on switch 127.0.0.1 → collector 127.0.0.1:4739"));
  EXPECT_TRUE(HasLine(
      DTL_LOG_LEVEL_INFO,
      "[quil switch configurator] Cleanup: interfaces=[Ethernet1_1,Ethernet1_2,Ethernet1_3,Ethernet1_4]"));
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_INFO,
                      "[quil switch configurator] HFT IPFIX enabled on switch 127.0.0.1 for 2 interfaces "
                      "(duration=0s, traffic-class=[3], priority-group=[], switch-priority=[])"));
  EXPECT_EQ(CountContaining("Orphaned"), 0u);
  // The switch now reports the export as enabled.
  EXPECT_TRUE(switch_config.WaitForHftExportState("enabled"));
}

TEST_F(HftWorkflowTest, EnableUnsetsStaleEntriesAndChecksInterfaceNames) {
  QuilMock mock(WithFaults({
      R"(GET ^/quil_v1/system/telemetry/hft/counter\?rev=applied$ 200 {"rx-pkt": {}, "tx-byte": {}, "old": {}})",
      R"(GET ^/quil_v1/system/telemetry/hft/switch-priority\?rev=applied$ 200 {"2": {}, "5": {}})",
  }));
  ASSERT_TRUE(mock.ok());
  auto config = ConfigFor(mock);
  config.counters = {"tx-byte"};
  config.priorities = {"2", "4"};
  config.priority_groups = {"1"};
  config.hft_duration_sec = 30;
  QuilSwitchConfigurator switch_config(config);
  ASSERT_TRUE(switch_config.EnableHftIpfix()) << switch_config.last_error();

  const auto requests = Requests(mock);
  const auto hft_patches = Matching(requests, "PATCH", "/quil_v1/system/telemetry/hft");
  ASSERT_EQ(hft_patches.size(), 3u);
  EXPECT_EQ(
      hft_patches[2].body,
      R"({"export":{"state":"enabled"},"export-type":"ipfix","sample-interval-usec":100,"duration":30,)"
      R"("counter":{"tx-byte":{},"rx-pkt":null,"old":null},"ingress-buffer":{"priority-group":{"1":{}}},)"
      R"("switch-priority":{"2":{},"4":{},"5":null}})");
  EXPECT_TRUE(
      HasLine(DTL_LOG_LEVEL_INFO,
              "[quil switch configurator] counter: unsetting 2 stale entries from previous run on switch "
              "127.0.0.1"));
  EXPECT_TRUE(
      HasLine(DTL_LOG_LEVEL_INFO,
              "[quil switch configurator] switch-priority: unsetting 1 stale entry from previous run on "
              "switch 127.0.0.1"));
  // Only the non-empty lists are asked for, and no interface is patched.
  EXPECT_EQ(Matching(requests, "GET", "/quil_v1/system/telemetry/hft/egress-buffer/traffic-class").size(),
            0u);
  EXPECT_EQ(Matching(requests, "GET", "/quil_v1/system/telemetry/hft/ingress-buffer/priority-group").size(),
            1u);
  EXPECT_EQ(Matching(requests, "PATCH", "/quil_v1/interface").size(), 0u);
  EXPECT_EQ(requests.back().path, "/quil_v1/revision/rev-4");
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_INFO,
                      "[quil switch configurator] HFT IPFIX enabled on switch 127.0.0.1 for 0 interfaces "
                      "(duration=30s, traffic-class=[], priority-group=[1], switch-priority=[2,4])"));

  // An invalid interface name fails after the HFT patch and leaves that
  // revision unapplied.
  config.interfaces = {"swp1", "eth1/2", "swp 3"};
  QuilSwitchConfigurator invalid(config);
  EXPECT_FALSE(invalid.EnableHftIpfix());
  EXPECT_EQ(invalid.last_error(), "Invalid interface name: eth1/2");
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_ERROR, "[quil switch configurator] Invalid interface name: eth1/2"));
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_WARNING, Orphaned("rev-8", "invalid interface name")));
  const auto after = Requests(mock);
  EXPECT_EQ(after.back().path, "/quil_v1/system/telemetry/hft");
  EXPECT_EQ(after.back().query, "rev=rev-8");
  EXPECT_EQ(Matching(after, "PATCH", "/quil_v1/revision/rev-8").size(), 0u);
  EXPECT_EQ(Matching(after, "PATCH", "/quil_v1/interface").size(), 0u);
}

TEST_F(HftWorkflowTest, EnableStepFailures) {
  // First enable: the quiesce patch fails (nothing orphaned, nothing more
  // sent). Second: the final apply fails.
  QuilMock mock(WithFaults(
      {R"(1:PATCH ^/quil_v1/system/telemetry/hft\?rev= 500 down)", "4:PATCH ^/quil_v1/revision/ 500 nope"}));
  ASSERT_TRUE(mock.ok());
  QuilSwitchConfigurator switch_config(ConfigFor(mock));
  EXPECT_FALSE(switch_config.EnableHftIpfix());
  EXPECT_EQ(switch_config.last_error(), "PATCH /system/telemetry/hft failed: HTTP 500 down");
  EXPECT_EQ(Requests(mock).size(), 2u);
  EXPECT_EQ(CountContaining("Orphaned"), 0u);

  EXPECT_FALSE(switch_config.EnableHftIpfix());
  EXPECT_EQ(switch_config.last_error(), "Apply revision failed: HTTP 500 nope");
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_WARNING, Orphaned("rev-5", "apply failed")));
  EXPECT_EQ(CountContaining("Orphaned"), 1u);
}

TEST_F(HftWorkflowTest, ExportNeverDisabledFailsBeforeAnyCleanup) {
  QuilMock::Options options = MockOptions();
  options.export_never_disabled = true;
  QuilMock mock(options);
  ASSERT_TRUE(mock.ok());
  QuilSwitchConfigurator::SetPollIntervalForTesting(std::chrono::milliseconds(1));
  QuilSwitchConfigurator switch_config(ConfigFor(mock));
  EXPECT_FALSE(switch_config.EnableHftIpfix());
  EXPECT_EQ(switch_config.last_error(),
            "Timed out waiting for HFT export.state=disabled on switch 127.0.0.1");
  const auto requests = Requests(mock);
  EXPECT_EQ(requests.size(), 3u + 40u);
  EXPECT_EQ(Matching(requests, "GET", "/quil_v1/system/telemetry/hft").size(), 40u);
  EXPECT_EQ(Matching(requests, "GET", "/quil_v1/interface").size(), 0u);
  EXPECT_TRUE(switch_config.WaitForHftExportState("enabled"));
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_INFO,
                      "[quil switch configurator] HFT export.state reached 'enabled' on switch 127.0.0.1"));
}

TEST_F(HftWorkflowTest, DisableResults) {
  QuilMock mock(WithFaults({
      R"(1:PATCH ^/quil_v1/\?rev= 500 cleanup refused)",         // first disable: its clean-up
      R"(2:PATCH ^/quil_v1/system/telemetry/hft\?rev= 500 no)",  // second disable: its patch
      "2:PATCH ^/quil_v1/revision/ 500 late",                    // third disable: its apply
  }));
  ASSERT_TRUE(mock.ok());
  QuilSwitchConfigurator switch_config(ConfigFor(mock));

  EXPECT_TRUE(switch_config.DisableHftIpfix());
  EXPECT_EQ(switch_config.last_error(), "PATCH / failed: HTTP 500 cleanup refused");
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_WARNING, Orphaned("rev-2", "cleanup PATCH failed")));
  EXPECT_TRUE(
      HasLine(DTL_LOG_LEVEL_WARNING,
              "[quil switch configurator] CleanupHftConfig failed on switch 127.0.0.1 after disable — "
              "stale config may remain"));

  EXPECT_FALSE(switch_config.DisableHftIpfix());
  EXPECT_EQ(switch_config.last_error(), "PATCH /system/telemetry/hft failed: HTTP 500 no");
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_WARNING, Orphaned("rev-3", "disable HFT patch failed")));
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_ERROR,
                      "[quil switch configurator] HFT export on switch 127.0.0.1 could not be disabled and "
                      "may still run"));

  EXPECT_FALSE(switch_config.DisableHftIpfix());
  EXPECT_EQ(switch_config.last_error(), "Apply revision failed: HTTP 500 late");
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_WARNING, Orphaned("rev-4", "disable apply failed")));

  const size_t before = Requests(mock).size();
  EXPECT_TRUE(switch_config.DisableHftIpfix());
  EXPECT_EQ(Requests(mock).size() - before, 3u + 7u);
  EXPECT_TRUE(HasLine(
      DTL_LOG_LEVEL_INFO,
      "[quil switch configurator] Stale HFT config cleared on switch 127.0.0.1 (4 interfaces unset)"));
  EXPECT_EQ(CountContaining("Orphaned"), 3u);
}

TEST_F(HftWorkflowTest, CleanupChoosesItsInterfaceList) {
  // First clean-up: listing refused; second: not JSON; third: seven interfaces.
  QuilMock::Options options = WithFaults({
      "1:GET ^/quil_v1/interface$ 503 busy",
      R"(3:GET ^/quil_v1/interface$ 200 {"a1": {}, "a2": {}, "a3": {}, "a4": {}, "a5": {}, "a6": {}, "": {}, "a7": {}})",
  });
  options.extra_args = {"--not-json", "^/quil_v1/interface$"};
  QuilMock mock(options);
  ASSERT_TRUE(mock.ok());
  auto config = ConfigFor(mock);
  config.interfaces = {"swp1", "swp2"};
  QuilSwitchConfigurator switch_config(config);
  ASSERT_TRUE(switch_config.CleanupHftConfig());
  ASSERT_TRUE(switch_config.CleanupHftConfig());
  ASSERT_TRUE(switch_config.CleanupHftConfig());

  const auto bodies = Matching(Requests(mock), "PATCH", "/quil_v1/");
  ASSERT_EQ(bodies.size(), 3u);
  EXPECT_EQ(bodies[0].body, json::serialize_compact(BuildCleanupBody({"swp1", "swp2"})));
  EXPECT_EQ(bodies[1].body, R"({"system":{"telemetry":{"hft":null}}})");
  EXPECT_EQ(bodies[2].body,
            json::serialize_compact(BuildCleanupBody({"a1", "a2", "a3", "a4", "a5", "a6", "a7"})));

  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_WARNING,
                      "[quil switch configurator] Cleanup: failed to list interfaces on switch 127.0.0.1 — "
                      "falling back to configured list (2 interfaces)"));
  EXPECT_EQ(CountContaining("Cleanup: failed to parse /interface response as JSON object: <html>"), 1u);
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_INFO,
                      "[quil switch configurator] Cleanup: discovered 0 interfaces on switch 127.0.0.1"));
  EXPECT_TRUE(
      HasLine(DTL_LOG_LEVEL_INFO, "[quil switch configurator] Cleanup: interfaces=[a1,a2,a3,a4,a5,...]"));
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_INFO,
                      "[quil switch configurator] Cleanup: discovered 7 interfaces on switch 127.0.0.1"));
  EXPECT_EQ(CountContaining("Cleanup: interfaces=["), 2u);  // not after the failed listing
  EXPECT_TRUE(HasLine(
      DTL_LOG_LEVEL_INFO,
      "[quil switch configurator] Cleanup: PATCH / body_len=" + std::to_string(bodies[1].body.size()) +
          " unsetting system.telemetry.hft + interface.telemetry.hft on 0 interfaces"));
}

std::string LastEvent(const QuilMock& mock) {
  std::string last;
  for (const Entry& entry : mock.Journal()) {
    if (!entry.event.empty()) last = entry.event;
  }
  return last;
}

// What a disable leaves in the switch's IPFIX export settings, given what
// the enable found there.
TEST_F(HftWorkflowTest, DisableLeavesTheIpfixExportAsEnableFoundIt) {
  const std::string own = R"({"state": "enabled", "destination": "10.9.9.9", "template-refresh": 30})";
  const std::string ours = R"({"state": "enabled", "destination": "127.0.0.1"})";
  struct Case {
    const char* name;
    std::string before;  // applied before the enable; empty: nothing
    std::vector<std::string> faults;
    bool disabled;
    std::string after;
  };
  const std::vector<Case> cases = {
      {"nothing before", "", {}, true, "{}"},
      {"the switch's own settings", own, {}, true, own},
      {"left by an earlier run", ours, {}, true, "{}"},
      {"HFT disable refused", "", {R"(4:PATCH ^/quil_v1/system/telemetry/hft\?rev= 500 refused)"}, false, "{}"},
      {"withdrawal refused", "", {R"(PATCH ^/quil_v1/system/telemetry/export\?rev= 500 refused)"}, false, ours},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    QuilMock mock(WithFaults(c.faults));
    ASSERT_TRUE(mock.ok());
    QuilSwitchConfigurator switch_config(ConfigFor(mock));
    if (!c.before.empty()) {
      const std::string revision = switch_config.CreateRevision();
      ASSERT_TRUE(switch_config.PatchConfig(revision, "/system/telemetry/export/ipfix", c.before));
      ASSERT_TRUE(switch_config.ApplyRevision(revision));
    }
    ASSERT_TRUE(switch_config.EnableHftIpfix()) << switch_config.last_error();
    EXPECT_EQ(switch_config.DisableHftIpfix(), c.disabled);
    const std::string after = switch_config.GetConfig("/system/telemetry/export/ipfix?rev=applied");
    EXPECT_EQ(nlohmann::json::parse(after, nullptr, false), nlohmann::json::parse(c.after));
    // Either way the switch streams no more.
    EXPECT_EQ(LastEvent(mock), "hft-sim stopped");
  }
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_ERROR,
                      "[quil switch configurator] IPFIX export to 127.0.0.1 is still configured on switch "
                      "127.0.0.1"));
}

TEST_F(HftWorkflowTest, AllocationFailureFailsTheEnableLikeARefusal) {
  QuilMock mock(MockOptions());
  ASSERT_TRUE(mock.ok());
  auto config = ConfigFor(mock);
  config.counters = {std::string(size_t{1} << 20, 'c')};
  QuilSwitchConfigurator switch_config(config);
  g_failing_allocation_size.store(size_t{1} << 20);
  const bool enabled = switch_config.EnableHftIpfix();
  g_failing_allocation_size.store(SIZE_MAX);
  EXPECT_FALSE(enabled);
  EXPECT_EQ(switch_config.last_error(), "std::bad_alloc");
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_ERROR,
                      "[quil switch configurator] Enabling HFT IPFIX on switch 127.0.0.1 failed: std::bad_alloc"));
  // Failed while the HFT body was built: nothing of it reached the switch.
  EXPECT_EQ(Matching(Requests(mock), "PATCH", "/quil_v1/system/telemetry/hft").size(), 2u);
}

TEST_F(HftWorkflowTest, StopRequestCutsAnEnableShortButNoDisable) {
  QuilMock mock(WithFaults({"1:GET ^/quil_v1/interface$ hang"}));
  ASSERT_TRUE(mock.ok());
  QuilSwitchConfigurator switch_config(ConfigFor(mock));
  std::chrono::steady_clock::time_point interrupted{};
  std::thread stopper([&] {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (bool hung = false; !hung && std::chrono::steady_clock::now() < limit;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      for (const Entry& entry : Requests(mock)) hung = hung || entry.status == -1;
    }
    interrupted = std::chrono::steady_clock::now();
    QuilSwitchConfigurator::InterruptEnables();
  });
  const bool enabled = switch_config.EnableHftIpfix();
  const auto returned = std::chrono::steady_clock::now();
  stopper.join();
  EXPECT_FALSE(enabled);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(returned - interrupted).count();
  std::printf("enable returned %lld ms after the stop request\n", static_cast<long long>(ms));
  EXPECT_LT(ms, 1500);
  EXPECT_EQ(switch_config.last_error(), "interrupted: the collector is stopping");
  ASSERT_EQ(Requests(mock).back().status, -1);  // nothing after the hung request

  // No further enable touches a switch; a disable runs in full.
  const size_t before = Requests(mock).size();
  EXPECT_FALSE(switch_config.EnableHftIpfix());
  EXPECT_EQ(Requests(mock).size(), before);
  EXPECT_TRUE(switch_config.DisableHftIpfix()) << switch_config.last_error();
  EXPECT_EQ(Requests(mock).size(), before + 3 + 7);
}

}  // namespace
}  // namespace dtl::ipfix
