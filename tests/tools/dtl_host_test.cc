// dtl-host run as a program: help, usage errors, a timed run against the
// built plug-in, a stop by SIGTERM, and a plug-in that cannot be loaded.
#include <signal.h>
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
