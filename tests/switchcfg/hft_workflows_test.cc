// The switch configurator against quil-mock over real HTTPS: the REST
// operations and what they make of the switch's answers, then the HFT
// enable, disable and clean-up workflows: the requests they send (from the
// mock's journal), their results and the orphaned revisions they report.
// An interrupted enable is tested through dtl-host, with signals.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <new>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/log_capture.h"
#include "support/quil_mock.h"
#include "switchcfg/hft_bodies.h"
#include "switchcfg/quil_switch_configurator.h"

// While armed, any allocation of at least this many bytes fails, as on a
// host short of memory. (g++ cannot see that the replacements pair malloc
// with free and would warn at every delete.)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
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

using dtl_test::LogCapture;
using Config = QuilSwitchConfigurator::Config;
using Entry = QuilMock::JournalEntry;

// The texts the switches' other clients send, byte for byte.
const std::string kDisable = R"({"export": {"state": "disabled"}})";
const std::string kApply = R"({"state": "apply", "auto-prompt": {"ays": "ays_yes"}})";

// An enabled export makes the mock start hft-sim towards the collector;
// port 9 (discard) keeps that traffic away from other tests' receivers.
QuilMock::Options WithFaults(std::vector<std::string> faults, std::vector<std::string> extra_args = {}) {
  QuilMock::Options options;
  options.ipfix_port = 9;
  options.faults = std::move(faults);
  options.extra_args = std::move(extra_args);
  return options;
}

std::string Orphaned(const std::string& revision, const std::string& reason) {
  return "[quil switch configurator] Orphaned QUIL revision " + revision + " on switch 127.0.0.1 (" + reason + ")";
}

// "METHOD PATH[?QUERY] [BODY]" of each request.
std::vector<std::string> Texts(const std::vector<Entry>& requests) {
  std::vector<std::string> texts;
  for (const Entry& r : requests)
    texts.push_back(r.method + " " + r.path + (r.query.empty() ? "" : "?" + r.query) +
                    (r.body.empty() ? "" : " " + r.body));
  return texts;
}

// Captures every log line for the length of one test.
class SwitchcfgTest : public ::testing::Test {
 protected:
  static Config ConfigFor(const QuilMock& mock) {
    Config config;
    config.host = "127.0.0.1";
    config.port = mock.port();
    config.collector_ip = "127.0.0.1";
    return config;
  }
  // The requests the mock answered (no hft-sim events), of one method and
  // path when given.
  static std::vector<Entry> Requests(const QuilMock& mock, const std::string& method = "",
                                     const std::string& path = "") {
    std::vector<Entry> found;
    for (Entry& entry : mock.Journal()) {
      if (entry.event.empty() && (method.empty() || entry.method == method) && (path.empty() || entry.path == path))
        found.push_back(std::move(entry));
    }
    return found;
  }
  LogCapture log_;
};

// The REST operations, and what they make of the switch's answers,
// hostile ones included, in the order the mock gives them.
TEST_F(SwitchcfgTest, RevisionPatchApplyAndAnswers) {
  const struct {
    const char *answer, *revision, *error;  // answer "": the mock's own
  } rows[] = {
      {"", "rev-1", ""},
      // Whatever follows the first JSON value of an answer is not looked at.
      {R"(200 {"r9": {}, "r1": {}} ]} trailing)", "r9", ""},
      {"200 {}", "", "No revision ID in response"},
      {"200 <html>", "", "Failed to parse revision response"},
      {R"(200 ["x"])", "", "No revision ID in response"},
      {"503 busy now", "", "Failed to create revision: HTTP 503 busy now"},
  };
  std::vector<std::string> faults = {
      R"(1:PATCH ^/quil_v1/system/telemetry/hft\?rev= 404 not found)",
      R"(2:PATCH ^/quil_v1/system/telemetry/hft\?rev= 204)",
      R"(GET ^/quil_v1/listed\?rev=applied$ 200 {"b": {}, "a": 1, "": {}}{"c": {}})",
      R"(GET ^/quil_v1/system/telemetry/hft\?rev=applied$ 200 {"export": {"state": "up"}} \u0000x)",
      "PATCH ^/quil_v1/revision/rev-9$ 409 stale"};
  for (size_t i = 0; i < std::size(rows); ++i) {
    if (*rows[i].answer) faults.push_back(std::to_string(i + 1) + ":POST ^/quil_v1/revision$ " + rows[i].answer);
  }
  QuilMock mock(WithFaults(faults));
  ASSERT_TRUE(mock.ok());
  QuilSwitchConfigurator switch_config(ConfigFor(mock));
  for (const auto& row : rows) {
    EXPECT_EQ(switch_config.CreateRevision(), row.revision) << row.answer;
    EXPECT_EQ(switch_config.last_error(), row.error) << row.answer;
  }
  const std::string revision = switch_config.CreateRevision();
  ASSERT_EQ(revision, "rev-2");
  const std::string refused = "PATCH /system/telemetry/hft failed: HTTP 404 not found";
  EXPECT_FALSE(switch_config.PatchConfig(revision, "/system/telemetry/hft", "{}"));
  EXPECT_EQ(switch_config.last_error(), refused);
  EXPECT_TRUE(switch_config.PatchConfig(revision, "/system/telemetry/hft", "{}"));
  EXPECT_TRUE(switch_config.PatchConfig(revision, "/system/telemetry/export/ipfix", R"({"state":"enabled"})"));
  EXPECT_EQ(switch_config.last_error(), refused);  // a success leaves the last failure text in place
  EXPECT_TRUE(switch_config.ApplyRevision(revision));
  EXPECT_EQ(switch_config.GetConfig("/system/telemetry/export/ipfix?rev=applied"), R"({"state": "enabled"})");
  EXPECT_FALSE(switch_config.ApplyRevision("rev-9"));
  EXPECT_EQ(switch_config.last_error(), "Apply revision failed: HTTP 409 stale");
  // Configuration not set reads as empty; a path below a value is refused.
  EXPECT_EQ(switch_config.GetConfig("/nowhere"), "{}");
  EXPECT_EQ(switch_config.GetConfig("/system/telemetry/hft/export/state/x"), "");
  EXPECT_EQ(switch_config.FetchAppliedKeys("/listed"), (std::vector<std::string>{"b", "a"}));
  EXPECT_TRUE(switch_config.WaitForHftExportState("up"));
  EXPECT_TRUE(switch_config.FetchAppliedKeys("/system/telemetry/hft/export/state").empty());  // a string
}

TEST_F(SwitchcfgTest, CertificateCredentialsAndPasswordSecrecy) {
  QuilMock::Options options = WithFaults({});
  options.user = "ops";
  options.password = "";
  QuilMock mock(options);
  ASSERT_TRUE(mock.ok());
  Config config = ConfigFor(mock);
  config.username = "ops";
  config.password = "";
  config.insecure = false;  // the mock's certificate is its own
  QuilSwitchConfigurator strict(config);
  EXPECT_EQ(strict.DoRequest("GET", mock.url() + "/interface", "").status, 0);
  EXPECT_EQ(strict.last_error().rfind("curl error: ", 0), 0u) << strict.last_error();
  EXPECT_TRUE(Requests(mock).empty());

  // An empty password still sends "ops:" as the credentials.
  config.insecure = true;
  EXPECT_EQ(QuilSwitchConfigurator(config).CreateRevision(), "rev-1");
  config.password = "Wr0ng-Secret";
  QuilSwitchConfigurator wrong(config);
  EXPECT_EQ(wrong.CreateRevision(), "");
  EXPECT_EQ(wrong.last_error(), "Failed to create revision: HTTP 401 {\"error\": \"authentication required\"}");
  EXPECT_FALSE(wrong.DisableHftIpfix());
  EXPECT_GT(LogCapture::Snapshot().size(), 3u);
  EXPECT_EQ(LogCapture::Count("Wr0ng-Secret"), 0u);
  const auto requests = Requests(mock);
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[1].status, 401);
  EXPECT_EQ(requests[1].user, "ops");
}

TEST_F(SwitchcfgTest, BaseUrlAndDeadSwitch) {
  Config config;
  config.host = "fe80::1";
  EXPECT_EQ(QuilSwitchConfigurator(config).BaseUrl(), "https://[fe80::1]:8765/quil_v1");
  config.host = "127.0.0.1";
  config.port = 1;  // nothing listens there
  QuilSwitchConfigurator switch_config(config);
  EXPECT_EQ(switch_config.BaseUrl(), "https://127.0.0.1:1/quil_v1");
  EXPECT_EQ(switch_config.CreateRevision(), "");
  EXPECT_EQ(switch_config.last_error(), "Failed to create revision: HTTP 0 ");
  EXPECT_EQ(LogCapture::Count("[quil switch configurator] POST " + switch_config.BaseUrl() + "/revision: curl error: "),
            1u);
  EXPECT_FALSE(switch_config.EnableHftIpfix());
}

TEST_F(SwitchcfgTest, EnableSendsTheWholeSequence) {
  QuilMock mock(WithFaults({}));
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
  const std::string hft_path = "PATCH /quil_v1/system/telemetry/hft?rev=rev-";
  const std::string export_body = R"({"state":"enabled","destination":"127.0.0.1"})";
  EXPECT_EQ(Texts(Requests(mock)),
            (std::vector<std::string>{
                "POST /quil_v1/revision {}",
                hft_path + "1 " + kDisable,
                "PATCH /quil_v1/revision/rev-1 " + kApply,
                "GET /quil_v1/system/telemetry/hft?rev=applied",
                "GET /quil_v1/interface",
                "POST /quil_v1/revision {}",
                "PATCH /quil_v1/?rev=rev-2 " + cleanup,
                "PATCH /quil_v1/revision/rev-2 " + kApply,
                "POST /quil_v1/revision {}",
                hft_path + "3 " + kDisable,
                "PATCH /quil_v1/revision/rev-3 " + kApply,
                "GET /quil_v1/system/telemetry/export/ipfix?rev=applied",
                "POST /quil_v1/revision {}",
                "PATCH /quil_v1/system/telemetry/export/ipfix?rev=rev-4 " + export_body,
                "GET /quil_v1/system/telemetry/hft/counter?rev=applied",
                "GET /quil_v1/system/telemetry/hft/egress-buffer/traffic-class?rev=applied",
                hft_path + "4 " + hft,
                "PATCH /quil_v1/interface?rev=rev-4 " + json::serialize_compact(BuildInterfacesBody({"swp1", "swp2"})),
                "PATCH /quil_v1/revision/rev-4 " + kApply,
            }));
  EXPECT_EQ(LogCapture::Count("Orphaned"), 0u);
  EXPECT_TRUE(switch_config.WaitForHftExportState("enabled"));
  EXPECT_EQ(mock.Stop(), 0);  // with its hft-sim running, the mock still ends cleanly
}

TEST_F(SwitchcfgTest, EnableUnsetsStaleEntriesAndChecksInterfaceNames) {
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
  const auto hft_patches = Requests(mock, "PATCH", "/quil_v1/system/telemetry/hft");
  ASSERT_EQ(hft_patches.size(), 3u);
  EXPECT_EQ(hft_patches[2].body,
            R"({"export":{"state":"enabled"},"export-type":"ipfix","sample-interval-usec":100,"duration":30,)"
            R"("counter":{"tx-byte":{},"rx-pkt":null,"old":null},"ingress-buffer":{"priority-group":{"1":{}}},)"
            R"("switch-priority":{"2":{},"4":{},"5":null}})");
  // Only the non-empty lists are asked for; no interface is patched.
  EXPECT_EQ(Requests(mock, "GET", "/quil_v1/system/telemetry/hft/egress-buffer/traffic-class").size(), 0u);
  EXPECT_EQ(Requests(mock).back().path, "/quil_v1/revision/rev-4");

  // An invalid interface name fails after the HFT patch and leaves that
  // revision unapplied.
  config.interfaces = {"swp1", "eth1/2", "swp 3"};
  QuilSwitchConfigurator invalid(config);
  EXPECT_FALSE(invalid.EnableHftIpfix());
  EXPECT_EQ(invalid.last_error(), "Invalid interface name: eth1/2");
  EXPECT_EQ(LogCapture::LevelOf(Orphaned("rev-8", "invalid interface name")), DTL_LOG_LEVEL_WARNING);
  EXPECT_EQ(Texts({Requests(mock).back()})[0].rfind("PATCH /quil_v1/system/telemetry/hft?rev=rev-8 ", 0), 0u);
  EXPECT_EQ(Requests(mock, "PATCH", "/quil_v1/interface").size(), 0u);
}

// A switch whose export never stops: the enable gives up before any clean-up.
TEST_F(SwitchcfgTest, ExportNeverDisabledFailsBeforeAnyCleanup) {
  QuilMock::Options options = WithFaults({});
  options.export_never_disabled = true;
  QuilMock mock(options);
  ASSERT_TRUE(mock.ok());
  QuilSwitchConfigurator::SetPollIntervalForTesting(std::chrono::milliseconds(1));
  QuilSwitchConfigurator switch_config(ConfigFor(mock));
  EXPECT_FALSE(switch_config.EnableHftIpfix());
  EXPECT_EQ(switch_config.last_error(), "Timed out waiting for HFT export.state=disabled on switch 127.0.0.1");
  EXPECT_EQ(Requests(mock).size(), 3u + 40u);
  EXPECT_EQ(Requests(mock, "GET", "/quil_v1/system/telemetry/hft").size(), 40u);
  QuilSwitchConfigurator::SetPollIntervalForTesting(std::chrono::milliseconds(250));
}

// One refused step: what the workflow returns, the failure it reports, the
// revision it leaves unapplied; only a disable that could not stop the
// export says it may still run.
TEST_F(SwitchcfgTest, RefusedSteps) {
  const struct {
    const char* fault;
    bool enable, result;  // enable: else a disable
    const char *error, *revision, *reason;  // revision left unapplied, "" for none
    size_t requests;                        // sent in all, 0: not checked
  } rows[] = {
      {R"(1:PATCH ^/quil_v1/system/telemetry/hft\?rev= 500 down)", true, false,
       "PATCH /system/telemetry/hft failed: HTTP 500 down", "", "", 2},
      {"4:PATCH ^/quil_v1/revision/ 500 nope", true, false, "Apply revision failed: HTTP 500 nope",
       "rev-4", "apply failed", 0},
      {R"(1:PATCH ^/quil_v1/\?rev= 500 cleanup refused)", false, true, "PATCH / failed: HTTP 500 cleanup refused",
       "rev-2", "cleanup PATCH failed", 0},
      {R"(1:PATCH ^/quil_v1/system/telemetry/hft\?rev= 500 no)", false, false,
       "PATCH /system/telemetry/hft failed: HTTP 500 no", "rev-1", "disable HFT patch failed", 0},
      {"1:PATCH ^/quil_v1/revision/ 500 late", false, false, "Apply revision failed: HTTP 500 late",
       "rev-1", "disable apply failed", 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fault);
    LogCapture::Clear();
    QuilMock mock(WithFaults({row.fault}));
    ASSERT_TRUE(mock.ok());
    QuilSwitchConfigurator switch_config(ConfigFor(mock));
    EXPECT_EQ(row.enable ? switch_config.EnableHftIpfix() : switch_config.DisableHftIpfix(), row.result);
    EXPECT_EQ(switch_config.last_error(), row.error);
    EXPECT_EQ(LogCapture::Count("Orphaned"), *row.revision ? 1u : 0u);
    EXPECT_TRUE(!*row.revision || LogCapture::LevelOf(Orphaned(row.revision, row.reason)) == DTL_LOG_LEVEL_WARNING);
    EXPECT_EQ(LogCapture::Count("could not be disabled and may still run"), !row.enable && !row.result ? 1u : 0u);
    EXPECT_TRUE(row.requests == 0 || Requests(mock).size() == row.requests);
  }
}

TEST_F(SwitchcfgTest, CleanupChoosesItsInterfaceList) {
  // First clean-up: listing refused; second: not JSON; third: seven
  // interfaces and an empty name.
  QuilMock mock(WithFaults(
      {"1:GET ^/quil_v1/interface$ 503 busy",
       R"(3:GET ^/quil_v1/interface$ 200 {"a1": {}, "a2": {}, "a3": {}, "a4": {}, "a5": {}, "a6": {}, "": {},)"
       R"( "a7": {}})"},
      {"--not-json", "^/quil_v1/interface$"}));
  ASSERT_TRUE(mock.ok());
  auto config = ConfigFor(mock);
  config.interfaces = {"swp1", "swp2"};
  QuilSwitchConfigurator switch_config(config);
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(switch_config.CleanupHftConfig()) << i;
  const auto bodies = Requests(mock, "PATCH", "/quil_v1/");
  ASSERT_EQ(bodies.size(), 3u);
  EXPECT_EQ(bodies[0].body, json::serialize_compact(BuildCleanupBody({"swp1", "swp2"})));
  EXPECT_EQ(bodies[1].body, R"({"system":{"telemetry":{"hft":null}}})");
  EXPECT_EQ(bodies[2].body, json::serialize_compact(BuildCleanupBody({"a1", "a2", "a3", "a4", "a5", "a6", "a7"})));
  EXPECT_EQ(LogCapture::Count("Cleanup: failed to parse /interface response as JSON object: <html>"), 1u);
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
TEST_F(SwitchcfgTest, DisableLeavesTheIpfixExportAsEnableFoundIt) {
  const std::string own = R"({"state": "enabled", "destination": "10.9.9.9", "template-refresh": 30})";
  const std::string ours = R"({"state": "enabled", "destination": "127.0.0.1"})";
  const struct {
    const char* name;
    std::string before;  // applied before the enable; empty: nothing
    std::vector<std::string> faults;
    bool disabled;
    std::string after;
  } cases[] = {
      {"nothing before", "", {}, true, "{}"},
      {"the switch's own settings", own, {}, true, own},
      {"left by an earlier run", ours, {}, true, "{}"},
      {"HFT disable refused", "", {R"(4:PATCH ^/quil_v1/system/telemetry/hft\?rev= 500 refused)"}, false, "{}"},
      {"withdrawal refused", "", {R"(PATCH ^/quil_v1/system/telemetry/export\?rev= 500 refused)"}, false, ours},
  };
  for (const auto& c : cases) {
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
  EXPECT_EQ(LogCapture::LevelOf("IPFIX export to 127.0.0.1 is still configured on switch 127.0.0.1"),
            DTL_LOG_LEVEL_ERROR);
}

TEST_F(SwitchcfgTest, AllocationFailureFailsTheEnableLikeARefusal) {
  QuilMock mock(WithFaults({}));
  ASSERT_TRUE(mock.ok());
  auto config = ConfigFor(mock);
  config.counters = {std::string(size_t{1} << 20, 'c')};
  QuilSwitchConfigurator switch_config(config);
  g_failing_allocation_size.store(size_t{1} << 20);
  const bool enabled = switch_config.EnableHftIpfix();
  g_failing_allocation_size.store(SIZE_MAX);
  EXPECT_FALSE(enabled);
  EXPECT_EQ(switch_config.last_error(), "std::bad_alloc");
  EXPECT_EQ(LogCapture::LevelOf("Enabling HFT IPFIX on switch 127.0.0.1 failed: std::bad_alloc"), DTL_LOG_LEVEL_ERROR);
  // Failed while the HFT body was built: nothing of it reached the switch.
  EXPECT_EQ(Requests(mock, "PATCH", "/quil_v1/system/telemetry/hft").size(), 2u);
}

}  // namespace
}  // namespace dtl::ipfix
