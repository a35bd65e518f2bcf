// REST transport and revision operations against quil-mock over real TLS.
#include "switchcfg/quil_switch_configurator.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "switchcfg/switchcfg_test_support.h"

namespace dtl::ipfix {
namespace {

using swtest::SwitchcfgTest;
using swtest::MockOptions;
using swtest::WithFaults;
using Config = QuilSwitchConfigurator::Config;

// A local TCP port with nothing listening on it.
uint16_t ClosedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

TEST(QuilSwitchConfiguratorUrl, BaseUrl) {
  Config config;
  config.host = "10.0.0.5";
  EXPECT_EQ(QuilSwitchConfigurator(config).BaseUrl(), "https://10.0.0.5:8765/quil_v1");
  config.host = "fe80::1";
  config.port = 443;
  EXPECT_EQ(QuilSwitchConfigurator(config).BaseUrl(), "https://[fe80::1]:443/quil_v1");
  config.host = "switch-a.example";
  EXPECT_EQ(QuilSwitchConfigurator(config).BaseUrl(), "https://switch-a.example:443/quil_v1");
}

class RevisionTest : public SwitchcfgTest {};

// Every revision operation against one mock; the faults pick out single
// requests by their position among the matching ones.
TEST_F(RevisionTest, RevisionOperations) {
  QuilMock mock(WithFaults({
      // Whatever follows the first JSON value of an answer is not looked at.
      "2:POST ^/quil_v1/revision$ 200 {\"r9\": {}, \"r1\": {}} ]} trailing",
      "3:POST ^/quil_v1/revision$ 200 {}",
      "4:POST ^/quil_v1/revision$ 200 <html>",
      "5:POST ^/quil_v1/revision$ 200 [\"x\"]",
      "6:POST ^/quil_v1/revision$ 503 busy now",
      R"(1:PATCH ^/quil_v1/system/telemetry/hft\?rev= 404 not found)",
      R"(2:PATCH ^/quil_v1/system/telemetry/hft\?rev= 204)",
      R"(GET ^/quil_v1/listed\?rev=applied$ 200 {"b": {}, "a": 1, "": {}}{"c": {}})",
      R"(GET ^/quil_v1/system/telemetry/hft\?rev=applied$ 200 {"export": {"state": "up"}} \u0000x)",
      "PATCH ^/quil_v1/revision/rev-9$ 409 stale",
  }));
  ASSERT_TRUE(mock.ok());
  QuilSwitchConfigurator switch_config(ConfigFor(mock));

  EXPECT_EQ(switch_config.CreateRevision(), "rev-1");
  EXPECT_EQ(switch_config.CreateRevision(), "r9");
  EXPECT_TRUE(switch_config.last_error().empty());
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_INFO, "[quil switch configurator] Created revision: r9"));
  EXPECT_TRUE(
      HasLine(DTL_LOG_LEVEL_DEBUG, "[quil switch configurator] POST " + mock.url() + "/revision → 201"));
  EXPECT_EQ(switch_config.CreateRevision(), "");
  EXPECT_EQ(switch_config.last_error(), "No revision ID in response");
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_ERROR, "[quil switch configurator] No revision ID in response"));
  EXPECT_EQ(switch_config.CreateRevision(), "");
  EXPECT_EQ(switch_config.last_error(), "Failed to parse revision response");
  EXPECT_EQ(switch_config.CreateRevision(), "");
  EXPECT_EQ(switch_config.last_error(), "No revision ID in response");
  EXPECT_EQ(switch_config.CreateRevision(), "");
  EXPECT_EQ(switch_config.last_error(), "Failed to create revision: HTTP 503 busy now");

  EXPECT_FALSE(switch_config.PatchConfig("rev-1", "/system/telemetry/hft", "{}"));
  EXPECT_EQ(switch_config.last_error(), "PATCH /system/telemetry/hft failed: HTTP 404 not found");
  EXPECT_TRUE(switch_config.PatchConfig("rev-1", "/system/telemetry/hft", "{}"));
  // A success leaves the last failure text in place.
  EXPECT_EQ(switch_config.last_error(), "PATCH /system/telemetry/hft failed: HTTP 404 not found");

  const std::string revision = switch_config.CreateRevision();
  ASSERT_EQ(revision, "rev-2");
  const size_t patch_index = Requests(mock).size();
  EXPECT_TRUE(
      switch_config.PatchConfig(revision, "/system/telemetry/export/ipfix", R"({"state":"enabled"})"));
  EXPECT_TRUE(switch_config.ApplyRevision(revision));
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_INFO, "[quil switch configurator] Applied revision: rev-2"));
  EXPECT_EQ(switch_config.GetConfig("/system/telemetry/export/ipfix?rev=applied"), R"({"state": "enabled"})");
  EXPECT_FALSE(switch_config.ApplyRevision("rev-9"));
  EXPECT_EQ(switch_config.last_error(), "Apply revision failed: HTTP 409 stale");

  // Configuration not set reads as empty; a path below a value is refused.
  EXPECT_EQ(switch_config.GetConfig("/nowhere"), "{}");
  EXPECT_EQ(switch_config.GetConfig("/system/telemetry/hft/export/state/x"), "");
  EXPECT_TRUE(HasLine(DTL_LOG_LEVEL_WARNING,
                      "[quil switch configurator] GET /system/telemetry/hft/export/state/x failed: HTTP 404 "
                      "{\"error\": \"path not found: /system/telemetry/hft/export/state/x\"}"));
  EXPECT_EQ(switch_config.last_error(), "Apply revision failed: HTTP 409 stale");

  EXPECT_EQ(switch_config.FetchAppliedKeys("/listed"), (std::vector<std::string>{"b", "a"}));
  EXPECT_TRUE(switch_config.WaitForHftExportState("up"));
  EXPECT_TRUE(switch_config.FetchAppliedKeys("/system/telemetry/hft/export/state").empty());  // a string

  const auto requests = Requests(mock);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].path, "/quil_v1/revision");
  EXPECT_EQ(requests[0].body, "{}");
  EXPECT_EQ(requests[0].user, "velmora");
  ASSERT_GE(requests.size(), patch_index + 2);
  EXPECT_EQ(requests[patch_index].method, "PATCH");
  EXPECT_EQ(requests[patch_index].path, "/quil_v1/system/telemetry/export/ipfix");
  EXPECT_EQ(requests[patch_index].query, "rev=rev-2");
  EXPECT_EQ(requests[patch_index].body, R"({"state":"enabled"})");
  EXPECT_EQ(requests[patch_index + 1].method, "PATCH");
  EXPECT_EQ(requests[patch_index + 1].path, "/quil_v1/revision/rev-2");
  EXPECT_EQ(requests[patch_index + 1].body, R"({"state": "apply", "auto-prompt": {"ays": "ays_yes"}})");
}

TEST_F(RevisionTest, CertificateIsVerifiedOnlyWhenNotInsecure) {
  QuilMock mock(MockOptions());
  ASSERT_TRUE(mock.ok());
  Config config = ConfigFor(mock);
  config.insecure = false;
  QuilSwitchConfigurator strict(config);
  const HttpResponse refused = strict.DoRequest("GET", mock.url() + "/interface", "");
  EXPECT_EQ(refused.status, 0);
  EXPECT_EQ(strict.last_error().rfind("curl error: ", 0), 0u) << strict.last_error();
  EXPECT_TRUE(Requests(mock).empty());

  config.insecure = true;
  QuilSwitchConfigurator lenient(config);
  const HttpResponse accepted = lenient.DoRequest("GET", mock.url() + "/interface", "");
  EXPECT_EQ(accepted.status, 200);
  EXPECT_NE(accepted.body.find("Ethernet1_1"), std::string::npos);
  ASSERT_EQ(Requests(mock).size(), 1u);
}

TEST_F(RevisionTest, CredentialsAndPasswordSecrecy) {
  QuilMock::Options options = MockOptions();
  options.user = "ops";
  options.password = "";
  QuilMock mock(options);
  ASSERT_TRUE(mock.ok());
  Config config = ConfigFor(mock);
  config.username = "ops";
  config.password = "";
  // An empty password still sends "ops:" as the credentials.
  EXPECT_EQ(QuilSwitchConfigurator(config).CreateRevision(), "rev-1");

  config.password = "Wr0ng-Secret";
  QuilSwitchConfigurator wrong(config);
  EXPECT_EQ(wrong.CreateRevision(), "");
  EXPECT_EQ(wrong.last_error(),
            "Failed to create revision: HTTP 401 {\"error\": \"authentication required\"}");
  EXPECT_FALSE(wrong.DisableHftIpfix());
  EXPECT_GT(Lines().size(), 3u);
  EXPECT_EQ(AllLines().find("Wr0ng-Secret"), std::string::npos);
  const auto requests = Requests(mock);
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[1].status, 401);
  EXPECT_EQ(requests[1].user, "ops");
}

TEST_F(RevisionTest, UnreachableSwitch) {
  Config config;
  config.host = "127.0.0.1";
  config.port = ClosedPort();
  QuilSwitchConfigurator switch_config(config);
  const std::string url = switch_config.BaseUrl() + "/revision";
  EXPECT_EQ(switch_config.CreateRevision(), "");
  EXPECT_EQ(switch_config.last_error(), "Failed to create revision: HTTP 0 ");
  EXPECT_EQ(CountContaining("[quil switch configurator] POST " + url + ": curl error: "), 1u) << AllLines();
  EXPECT_TRUE(switch_config.FetchAppliedKeys("/system/telemetry/hft/counter").empty());
  EXPECT_EQ(switch_config.last_error().rfind("curl error: ", 0), 0u) << switch_config.last_error();
  EXPECT_FALSE(switch_config.PatchConfig("r", "/x", "{}"));
  EXPECT_EQ(switch_config.last_error(), "PATCH /x failed: HTTP 0 ");
}

}  // namespace
}  // namespace dtl::ipfix
