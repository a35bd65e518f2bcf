// dtl-host run as a program: help, usage errors, a timed run against the
// built plug-in, a stop by SIGTERM, a plug-in that cannot be loaded, and
// the refusals (port held by another socket, option value not accepted).
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/free_udp_port.h"
#include "support/quil_mock.h"

namespace {

const std::string kHost = DTL_BINARY_DIR "/bin/dtl-host";

using dtl_test::FreeUdpPort;

// One run of dtl-host with stdout and stderr in separate files.
class HostRun {
 public:
  explicit HostRun(std::vector<std::string> args) : dir_(MakeDir()) {
    args.insert(args.begin(), kHost);
    if (!dir_.empty()) child_ = std::make_unique<dtl_test::ChildProcess>(args, dir_ + "/out", dir_ + "/err");
  }
  ~HostRun() {
    child_.reset();
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }
  HostRun(const HostRun&) = delete;
  HostRun& operator=(const HostRun&) = delete;

  // Exit status, or -1 when the program did not end within the limit.
  int Wait(std::chrono::seconds limit = std::chrono::seconds(30)) {
    return child_ ? child_->Wait(limit) : -1;
  }
  // Waits until stdout contains text; false when the limit passes first.
  bool WaitForOutput(const std::string& text, std::chrono::seconds limit = std::chrono::seconds(30)) {
    return dtl_test::WaitForText(dir_ + "/out", text, limit);
  }
  void Signal(int signo) {
    if (child_) child_->Signal(signo);
  }
  std::string Out() const { return dtl_test::ReadTextFile(dir_ + "/out"); }
  std::string Err() const { return dtl_test::ReadTextFile(dir_ + "/err"); }

 private:
  static std::string MakeDir() {
    char pattern[] = "/tmp/dtl_host_test_XXXXXX";
    return mkdtemp(pattern) == nullptr ? std::string() : std::string(pattern);
  }

  std::string dir_;
  std::unique_ptr<dtl_test::ChildProcess> child_;
};

}  // namespace

TEST(DtlHost, HelpNamesTheMainOptions) {
  HostRun run({"--help"});
  ASSERT_EQ(run.Wait(), 0);
  const std::string out = run.Out();
  for (const char* key : {"--plugin", "--duration", "ipfix-receiver-port", "ipfix-receiver-workers",
                          "ipfix-data-path", "switch-1-ip", "switch-ip", "switch-username",
                          "switch-password", "collector-ip", "DTL_API_LOG_LEVEL"})
    EXPECT_NE(out.find(key), std::string::npos) << key;
}

TEST(DtlHost, UsageErrorsExitWithTwo) {
  const std::vector<std::vector<std::string>> cases = {
      {"--bogus"}, {"-o", "no-equals-sign"}, {"-o"}, {"--duration", "soon"}, {"--duration", "-1"},
      {"--duration", "0"}};
  for (const auto& args : cases) {
    HostRun run(args);
    EXPECT_EQ(run.Wait(), 2) << args[0];
    EXPECT_NE(run.Err().find("dtl-host --help"), std::string::npos);
  }
}

TEST(DtlHost, TimedRunPrintsTheSourceAndStopsCleanly) {
  const uint16_t port = FreeUdpPort();
  ASSERT_NE(port, 0);
  HostRun run({"-o", "ipfix-receiver-port=" + std::to_string(port), "-o",
               "ipfix-receiver-workers=1", "--duration", "1"});
  ASSERT_EQ(run.Wait(), 0) << run.Err();
  const std::string out = run.Out();
  EXPECT_NE(out.find("dtl-host: provider ipfix_bin_data_provider"), std::string::npos) << out;
  EXPECT_NE(out.find("dtl-host: source 0: ipfix:ipfix"), std::string::npos) << out;
  EXPECT_NE(out.find("dtl-host: no auto-stop timeout"), std::string::npos) << out;
  EXPECT_NE(out.find("dtl-host: stopping (duration elapsed)"), std::string::npos) << out;
  // The plug-in logs at info level by default, through its own stderr sink.
  const std::string err = run.Err();
  EXPECT_NE(err.find("on UDP port " + std::to_string(port)), std::string::npos) << err;
  EXPECT_NE(err.find("[IPFIX receiver] IPFIX receiver stopped"), std::string::npos) << err;
}

TEST(DtlHost, SigtermStopsTheProvider) {
  const uint16_t port = FreeUdpPort();
  ASSERT_NE(port, 0);
  HostRun run({"-o", "ipfix-receiver-port=" + std::to_string(port), "-o",
               "ipfix-receiver-workers=1"});
  ASSERT_TRUE(run.WaitForOutput("dtl-host: running")) << run.Err();
  run.Signal(SIGTERM);
  ASSERT_EQ(run.Wait(), 0) << run.Err();
  EXPECT_NE(run.Out().find("dtl-host: stopping (signal"), std::string::npos) << run.Out();
  EXPECT_NE(run.Err().find("[IPFIX receiver] IPFIX receiver stopped"), std::string::npos);
}

TEST(DtlHost, MissingPluginExitsWithOne) {
  HostRun run({"--plugin", "/nonexistent/libnothing.so", "--duration", "1"});
  EXPECT_EQ(run.Wait(), 1);
  EXPECT_NE(run.Err().find("cannot load /nonexistent/libnothing.so"), std::string::npos);
}

// Another program on the collector's port, with or without SO_REUSEPORT (a
// second collector would set it): dtl-host gives up at once, names the port,
// and never contacts the configured switch.
TEST(DtlHost, PortHeldByAnotherSocketFailsTheStart) {
  for (const bool shares : {false, true}) {
    SCOPED_TRACE(shares ? "SO_REUSEPORT holder" : "plain holder");
    const uint16_t port = FreeUdpPort();
    ASSERT_NE(port, 0);
    const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
    const int one = 1;
    if (shares) setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

    HostRun run({"-o", "ipfix-receiver-port=" + std::to_string(port), "-o",
                 "switch-1-ip=127.0.0.1", "-o", "switch-1-port=1", "--duration", "30"});
    EXPECT_EQ(run.Wait(std::chrono::seconds(10)), 1);
    close(fd);
    const std::string err = run.Err();
    EXPECT_NE(err.find("UDP port " + std::to_string(port) + " is already in use"),
              std::string::npos) << err;
    EXPECT_NE(err.find("dtl-host: the provider failed to start"), std::string::npos) << err;
    EXPECT_EQ(err.find("failed to configure switch"), std::string::npos) << err;
  }
}

TEST(DtlHost, OptionValueNotAcceptedFailsTheConstruction) {
  HostRun run({"-o", "ipfix-disk-data-size-limit=10Q", "--duration", "30"});
  EXPECT_EQ(run.Wait(std::chrono::seconds(10)), 1);
  const std::string err = run.Err();
  EXPECT_NE(err.find("ipfix-disk-data-size-limit='10Q'"), std::string::npos) << err;
  EXPECT_NE(err.find("could not be constructed"), std::string::npos) << err;
}

namespace {

using Clock = std::chrono::steady_clock;

// Stand-in switches for one host run; their hft-sim streams to the discard port.
std::unique_ptr<QuilMock> StartSwitch(std::vector<std::string> faults = {}) {
  QuilMock::Options options;
  options.ipfix_port = 9;
  options.faults = std::move(faults);
  return std::make_unique<QuilMock>(options);
}

std::vector<std::string> SwitchArgs(const std::vector<const QuilMock*>& switches) {
  const uint16_t port = FreeUdpPort();
  std::vector<std::string> args = {"-o", "ipfix-receiver-port=" + std::to_string(port), "-o",
                                   "ipfix-receiver-workers=1", "-o", "collector-ip=127.0.0.1", "-o",
                                   "switch-interfaces=Ethernet1_1"};
  for (size_t i = 0; i < switches.size(); ++i) {
    const std::string prefix = "switch-" + std::to_string(i + 1) + "-";
    args.insert(args.end(), {"-o", prefix + "ip=127.0.0.1", "-o",
                             prefix + "port=" + std::to_string(switches[i]->port())});
  }
  return args;
}

bool Withdrawn(const QuilMock& mock) {
  for (const auto& entry : mock.Journal())
    if (entry.path == "/quil_v1/system/telemetry/export" && entry.status == 200) return true;
  return false;
}

bool WaitForHungRequest(const QuilMock& mock) {
  return dtl_test::WaitForText(mock.journal_path(), "\"status\": -1", std::chrono::seconds(30));
}

long long MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

}  // namespace

TEST(DtlHost, StopFailsWhileASwitchStillStreams) {
  auto refusing = StartSwitch({R"(4:PATCH ^/quil_v1/system/telemetry/hft\?rev= 500 refused)"});
  auto healthy = StartSwitch();
  ASSERT_TRUE(refusing->ok() && healthy->ok());
  std::vector<std::string> args = SwitchArgs({refusing.get(), healthy.get()});
  args.insert(args.end(), {"--duration", "1"});
  HostRun run(args);
  ASSERT_TRUE(run.WaitForOutput("dtl-host: stopping")) << run.Err();
  const auto stopping = Clock::now();
  EXPECT_EQ(run.Wait(), 1) << run.Err();
  std::printf("stop with a refusing switch took %lld ms\n", MsSince(stopping));
  const std::string err = run.Err();
  EXPECT_NE(err.find("failed to disable HFT on switch 1: PATCH /system/telemetry/hft failed: HTTP 500 refused"),
            std::string::npos) << err;
  EXPECT_NE(err.find("HFT export on switch 127.0.0.1 could not be disabled"), std::string::npos);
  EXPECT_NE(err.find("dtl-host: the provider failed to stop"), std::string::npos);
  // The other switch is still restored, and both lose our IPFIX destination.
  EXPECT_TRUE(Withdrawn(*refusing));
  EXPECT_TRUE(Withdrawn(*healthy));
}

TEST(DtlHost, FirstSignalCutsAHungStartShort) {
  auto first = StartSwitch();
  auto hung = StartSwitch({"1:GET ^/quil_v1/interface$ hang"});
  auto third = StartSwitch();
  ASSERT_TRUE(first->ok() && hung->ok() && third->ok());
  HostRun run(SwitchArgs({first.get(), hung.get(), third.get()}));
  ASSERT_TRUE(WaitForHungRequest(*hung)) << run.Err();
  const auto signalled = Clock::now();
  run.Signal(SIGINT);
  EXPECT_EQ(run.Wait(), 1) << run.Err();
  const long long ms = MsSince(signalled);
  std::printf("SIGINT during a hung request: exit after %lld ms\n", ms);
  EXPECT_LT(ms, 5000);
  EXPECT_NE(run.Err().find("failed to configure switch 2: interrupted"), std::string::npos) << run.Err();
  EXPECT_NE(run.Err().find("dtl-host: the provider failed to start (interrupted)"), std::string::npos);
  EXPECT_TRUE(Withdrawn(*first));
  EXPECT_TRUE(third->Journal().empty());
}

TEST(DtlHost, SecondSignalExitsAtOnce) {
  auto hung = StartSwitch({R"(4:PATCH ^/quil_v1/system/telemetry/hft\?rev= hang)"});
  ASSERT_TRUE(hung->ok());
  HostRun run(SwitchArgs({hung.get()}));
  ASSERT_TRUE(run.WaitForOutput("dtl-host: running")) << run.Err();
  run.Signal(SIGTERM);
  ASSERT_TRUE(WaitForHungRequest(*hung)) << run.Err();
  const auto signalled = Clock::now();
  run.Signal(SIGTERM);
  EXPECT_EQ(run.Wait(std::chrono::seconds(10)), 128 + SIGTERM);
  std::printf("second signal during a hung stop: exit after %lld ms\n", MsSince(signalled));
  EXPECT_NE(run.Err().find("dtl-host: second signal"), std::string::npos) << run.Err();
}
