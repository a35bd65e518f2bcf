// dtl-host run as a program: help, usage errors, a timed run against the
// built plug-in, a stop by SIGTERM, and a plug-in that cannot be loaded.
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/free_udp_port.h"

extern char** environ;

namespace {

const std::string kHost = DTL_BINARY_DIR "/bin/dtl-host";

using dtl_test::FreeUdpPort;

// One run of dtl-host with stdout and stderr in separate files.
class HostRun {
 public:
  explicit HostRun(std::vector<std::string> args) {
    char pattern[] = "/tmp/dtl_host_test_XXXXXX";
    if (mkdtemp(pattern) == nullptr) return;
    dir_ = pattern;
    args.insert(args.begin(), kHost);
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, (dir_ + "/out").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, (dir_ + "/err").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&pid_, kHost.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~HostRun() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }
  HostRun(const HostRun&) = delete;
  HostRun& operator=(const HostRun&) = delete;

  // Exit status, or -1 when the program did not end within the limit.
  int Wait(std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (pid_ > 0 && std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
  }

  // Waits until stdout contains text; false when the limit passes first.
  bool WaitForOutput(const std::string& text, std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      if (Out().find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  void Signal(int signo) {
    if (pid_ > 0) kill(pid_, signo);
  }
  std::string Out() const { return Read("/out"); }
  std::string Err() const { return Read("/err"); }

 private:
  std::string Read(const char* name) const {
    std::ifstream in(dir_ + name);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string dir_;
  pid_t pid_ = -1;
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
