// dtl-host run as a program with the built plug-in: usage errors, runs
// ended by the duration or a signal, starts it refuses, stand-in switches
// that refuse or hang while it starts or stops, and where it finds the plug-in.
#include <netinet/in.h>
#include <sys/socket.h>

#include <filesystem>
#include <memory>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/free_udp_port.h"
#include "support/quil_mock.h"

namespace {

using dtl_test::FreeUdpPort;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

class DtlHost : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/dtl_host_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    host_.reset();
    std::filesystem::remove_all(dir_);
  }
  // Starts dtl-host with args, its stdout and stderr in files of their own.
  void Start(std::vector<std::string> args) {
    args.insert(args.begin(), DTL_BINARY_DIR "/bin/dtl-host");
    host_ = std::make_unique<dtl_test::ChildProcess>(args, dir_ + "/out", dir_ + "/err");
  }
  int Wait(seconds limit = seconds(30)) { return host_->Wait(limit); }
  bool WaitForOutput(const std::string& text) { return dtl_test::WaitForText(dir_ + "/out", text, seconds(30)); }
  std::string Out() const { return dtl_test::ReadTextFile(dir_ + "/out"); }
  std::string Err() const { return dtl_test::ReadTextFile(dir_ + "/err"); }

  std::string dir_;
  std::unique_ptr<dtl_test::ChildProcess> host_;
};

long long MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A start that cannot succeed ends at once with status 1 and a message
// naming the cause, before any switch is asked to export (a listener stands
// in for the switch's API). The port may be held by another program with or
// without SO_REUSEPORT (a second collector would set it).
TEST_F(DtlHost, RefusedStartEndsAtOnceWithoutContactingTheSwitch) {
  const int api = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(api, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(api, 4), 0);
  ASSERT_EQ(getsockname(api, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const uint16_t port = FreeUdpPort();
  const std::string in_use = "UDP port " + std::to_string(port) + " is already in use";
  enum Holder { kNone, kPlain, kShared };
  const struct {
    const char* what;
    std::vector<std::string> args;
    Holder holder;
    std::vector<std::string> messages;
  } cases[] = {
      {"plug-in missing", {"--plugin", "/nonexistent/libnothing.so"}, kNone,
       {"cannot load /nonexistent/libnothing.so"}},
      {"option value refused", {"-o", "ipfix-disk-data-size-limit=10Q"}, kNone,
       {"ipfix-disk-data-size-limit='10Q'", "could not be constructed"}},
      {"port held", {}, kPlain, {in_use, "dtl-host: the provider failed to start"}},
      {"port held with SO_REUSEPORT", {}, kShared, {in_use, "dtl-host: the provider failed to start"}},
      {"data root under a regular file", {"-o", "ipfix-data-path=/dev/null/data"}, kNone,
       {"/dev/null/data", "dtl-host: the provider failed to start"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const int holder = socket(AF_INET6, SOCK_DGRAM, 0), one = 1;
    if (c.holder == kShared) setsockopt(holder, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
    sockaddr_in6 udp{};
    udp.sin6_family = AF_INET6;
    udp.sin6_port = htons(port);
    ASSERT_TRUE(c.holder == kNone || bind(holder, reinterpret_cast<sockaddr*>(&udp), sizeof udp) == 0);
    std::vector<std::string> args = {"-o", "ipfix-receiver-port=" + std::to_string(port), "-o", "switch-1-ip=127.0.0.1",
                                     "-o", "switch-1-port=" + std::to_string(ntohs(address.sin_port)), "-o",
                                     "switch-1-interfaces=Ethernet1_1", "-o", "collector-ip=127.0.0.1",
                                     "--duration", "30"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const auto begin = Clock::now();
    Start(args);
    EXPECT_EQ(Wait(seconds(10)), 1) << "exit status (-1: still running after 10 s)";
    EXPECT_LT(MsSince(begin), 5000);
    close(holder);
    const std::string log = Out() + Err();
    for (const std::string& message : c.messages) EXPECT_NE(log.find(message), std::string::npos) << log;
    EXPECT_EQ(log.find("dtl-host: running"), std::string::npos) << log;
    const int contacted = accept(api, nullptr, nullptr);
    EXPECT_LT(contacted, 0) << "the switch was contacted although the collector cannot run";
    if (contacted >= 0) close(contacted);
  }
  close(api);
}

// Stand-in switches, their hft-sim streaming to the discard port, and the
// options of a host run against them.
std::unique_ptr<QuilMock> StartSwitch(std::vector<std::string> faults = {}) {
  QuilMock::Options options;
  options.ipfix_port = 9;
  options.faults = std::move(faults);
  return std::make_unique<QuilMock>(options);
}
std::vector<std::string> SwitchArgs(const std::vector<const QuilMock*>& switches, uint16_t port = FreeUdpPort()) {
  std::vector<std::string> args = {"-o", "ipfix-receiver-port=" + std::to_string(port), "-o",
                                   "ipfix-receiver-workers=1", "-o", "collector-ip=127.0.0.1", "-o",
                                   "switch-interfaces=Ethernet1_1"};
  for (size_t i = 0; i < switches.size(); ++i) {
    const std::string prefix = "switch-" + std::to_string(i + 1) + "-";
    const std::string port = std::to_string(switches[i]->port());
    args.insert(args.end(), {"-o", prefix + "ip=127.0.0.1", "-o", prefix + "port=" + port});
  }
  return args;
}
// Whether our IPFIX destination was taken off the switch.
bool Withdrawn(const QuilMock& mock) {
  for (const auto& entry : mock.Journal())
    if (entry.path == "/quil_v1/system/telemetry/export" && entry.status == 200) return true;
  return false;
}
bool WaitForHungRequest(const QuilMock& mock) {
  return dtl_test::WaitForText(mock.journal_path(), "\"status\": -1", seconds(30));
}

TEST_F(DtlHost, StopFailsWhileASwitchStillStreams) {
  auto refusing = StartSwitch({R"(4:PATCH ^/quil_v1/system/telemetry/hft\?rev= 500 refused)"});
  auto healthy = StartSwitch();
  ASSERT_TRUE(refusing->ok() && healthy->ok());
  std::vector<std::string> args = SwitchArgs({refusing.get(), healthy.get()});
  args.insert(args.end(), {"--duration", "1"});
  Start(args);
  ASSERT_TRUE(WaitForOutput("dtl-host: stopping")) << Err();
  EXPECT_EQ(Wait(), 1) << Err();
  for (const char* message : {"failed to disable HFT on switch 1: PATCH /system/telemetry/hft failed: HTTP 500 refused",
                              "HFT export on switch 127.0.0.1 could not be disabled",
                              "dtl-host: the provider failed to stop"})
    EXPECT_NE(Err().find(message), std::string::npos) << Err();
  // The other switch is still restored, and both lose our IPFIX destination.
  EXPECT_TRUE(Withdrawn(*refusing));
  EXPECT_TRUE(Withdrawn(*healthy));
}

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

TEST_F(DtlHost, FirstSignalCutsAHungStartShort) {
  for (const int signo : kStopSignals) {
    SCOPED_TRACE(strsignal(signo));
    auto first = StartSwitch();
    auto hung = StartSwitch({"1:GET ^/quil_v1/interface$ hang"});
    auto third = StartSwitch();
    ASSERT_TRUE(first->ok() && hung->ok() && third->ok());
    Start(SwitchArgs({first.get(), hung.get(), third.get()}));
    ASSERT_TRUE(WaitForHungRequest(*hung)) << Err();
    const auto signalled = Clock::now();
    host_->Signal(signo);
    EXPECT_EQ(Wait(), 1) << Err();
    EXPECT_LT(MsSince(signalled), 5000);
    EXPECT_NE(Err().find("failed to configure switch 2: interrupted"), std::string::npos) << Err();
    EXPECT_NE(Err().find("dtl-host: the provider failed to start (interrupted)"), std::string::npos);
    EXPECT_TRUE(Withdrawn(*first));
    EXPECT_TRUE(third->Journal().empty());
  }
}

// Any stop signal while running runs the whole stop: the switch loses our
// destination, the data file is closed and counted, and the status is 0.
TEST_F(DtlHost, StopSignalWhileRunningStopsCleanly) {
  for (const int signo : kStopSignals) {
    SCOPED_TRACE(strsignal(signo));
    const uint16_t port = FreeUdpPort();
    QuilMock::Options streaming;
    streaming.ipfix_port = port;
    QuilMock mock(streaming);
    ASSERT_TRUE(mock.ok());
    std::vector<std::string> args = SwitchArgs({&mock}, port);
    args.insert(args.end(), {"-o", "ipfix-data-path=" + dir_ + "/data" + std::to_string(signo), "-o",
                             "ipfix-status-interval-sec=1"});
    Start(args);
    ASSERT_TRUE(dtl_test::WaitForText(dir_ + "/err", "collector: 1 session(s) open", seconds(30))) << Err();
    host_->Signal(signo);
    EXPECT_EQ(Wait(), 0) << Err();
    EXPECT_TRUE(Withdrawn(mock));
    EXPECT_NE(Out().find("dtl-host: done: 1 session(s); "), std::string::npos) << Out();
    EXPECT_NE(Out().find("; 1 data file(s) written"), std::string::npos) << Out();
  }
}

TEST_F(DtlHost, SecondSignalExitsAtOnce) {
  auto hung = StartSwitch({R"(4:PATCH ^/quil_v1/system/telemetry/hft\?rev= hang)"});
  ASSERT_TRUE(hung->ok());
  Start(SwitchArgs({hung.get()}));
  ASSERT_TRUE(WaitForOutput("dtl-host: running")) << Err();
  host_->Signal(SIGTERM);
  ASSERT_TRUE(WaitForHungRequest(*hung)) << Err();
  host_->Signal(SIGTERM);
  EXPECT_EQ(Wait(seconds(10)), 128 + SIGTERM);
  EXPECT_NE(Err().find("dtl-host: second signal"), std::string::npos) << Err();
}

// A copy of the program without ../lib beside it, as installed, loads the
// plug-in from the libdir its --help names; with ../lib it takes that one.
TEST_F(DtlHost, PluginBesideTheProgramElseFromTheLibdir) {
  Start({"--help"});
  ASSERT_EQ(Wait(), 0);
  const std::string help = Out(), head = "else the installed one:";
  const size_t at = help.find(head);
  ASSERT_NE(at, std::string::npos) << help;
  const size_t from = help.find_first_not_of(" \n", at + head.size());
  const std::string installed = help.substr(from, help.find(')', from) - from);
  const std::string plugin = "/libipfix_bin_data_provider.so";
  ASSERT_TRUE(installed.starts_with("/") && installed.ends_with(plugin)) << installed;
  const std::string copy = dir_ + "/bin/dtl-host", beside = dir_ + "/bin/../lib" + plugin;
  std::filesystem::create_directories(dir_ + "/bin");
  std::filesystem::copy_file(DTL_BINARY_DIR "/bin/dtl-host", copy);
  for (const bool linked : {true, false}) {
    SCOPED_TRACE(linked ? "../lib present" : "../lib absent");
    std::filesystem::remove_all(dir_ + "/lib");
    if (linked) {
      std::filesystem::create_directories(dir_ + "/lib");
      std::filesystem::create_symlink(DTL_BINARY_DIR "/lib" + plugin, dir_ + "/lib" + plugin);
    }
    host_ = std::make_unique<dtl_test::ChildProcess>(
        std::vector<std::string>{copy, "-o", "ipfix-receiver-port=" + std::to_string(FreeUdpPort()), "--duration",
                                 "0.1"},
        dir_ + "/out", dir_ + "/err");
    EXPECT_NE(Wait(), -1);
    const std::string log = Out() + Err();
    // Installed or not, the libdir's plug-in is the one tried ("loaded" or "cannot load").
    EXPECT_NE(log.find(linked ? "dtl-host: loaded " + beside : " " + installed), std::string::npos) << log;
  }
}

}  // namespace
