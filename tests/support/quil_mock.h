// Test fixture helper: runs tools/quil_mock/quil_mock.py, a stand-in switch
// configuration API over HTTPS, as a child process for the length of one
// object, and reads back the journal of every request it answered.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include <nlohmann/json.hpp>

#include "support/child_process.h"  // spawn, wait and file reading

class QuilMock {
 public:
  struct Options {
    // "[NTH:]METHOD PATH_REGEX STATUS [BODY]", see quil_mock.py --help.
    std::vector<std::string> faults;
    // Passed through unchanged (e.g. "--not-json", "^/quil_v1/interface$").
    std::vector<std::string> extra_args;
    std::string user = "velmora", password = "velmora";
    int ipfix_port = 0;  // 0 = do not pass, hft-sim gets the mock's default
    bool export_never_disabled = false;
  };

  // One request the mock answered, or (event non-empty) an hft-sim start/stop.
  struct JournalEntry {
    std::string method, path, query, body, event;
    int status = 0;
    std::string user;  // basic-auth user name sent, "" when none
  };
  explicit QuilMock(Options options) : options_(std::move(options)) {
    char pattern[] = "/tmp/quil_mock_XXXXXX";
    if (mkdtemp(pattern) == nullptr) return;
    dir_ = pattern;
    Spawn();
    if (pid_ > 0) WaitForPort();
    if (!ok()) std::fprintf(stderr, "quil-mock did not start; its output:\n%s\n", LogText().c_str());
  }
  QuilMock(const QuilMock&) = delete;
  QuilMock& operator=(const QuilMock&) = delete;
  ~QuilMock() {
    Stop();
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }

  bool ok() const { return port_ != 0 && pid_ > 0; }
  uint16_t port() const { return port_; }
  std::string url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/quil_v1"; }
  std::string journal_path() const { return dir_ + "/journal.jsonl"; }
  // What the mock (and the hft-sim it started) wrote to stdout and stderr.
  std::string LogText() const { return dtl_test::ReadTextFile(dir_ + "/mock.log"); }
  std::vector<JournalEntry> Journal() const {
    std::vector<JournalEntry> entries;
    std::istringstream lines(dtl_test::ReadTextFile(journal_path()));
    for (std::string line; std::getline(lines, line);) {
      // A line still being written is incomplete and does not parse: skipped.
      auto json = nlohmann::json::parse(line, nullptr, false);
      if (json.is_discarded() || !json.is_object()) continue;
      entries.push_back({json.value("method", ""), json.value("path", ""), json.value("query", ""),
                         json.value("body", ""), json.value("event", ""), json.value("status", 0),
                         json.value("user", "")});
    }
    return entries;
  }

  // SIGTERM, bounded wait (the mock stops its hft-sim first), then SIGKILL to
  // the mock's own process group. Returns the exit status, -1 if killed.
  int Stop() {
    if (pid_ <= 0) return exit_status_;
    kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) != pid_) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(-pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return exit_status_ = -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    pid_ = -1;
    return exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  void Spawn() {
    // The system interpreter itself: a wrapper script in PATH (pyenv shims)
    // would take our SIGTERM and leave the mock running as an orphan.
    std::vector<std::string> args = {
        access("/usr/bin/python3", X_OK) == 0 ? "/usr/bin/python3" : "python3",
        std::string(DTL_SOURCE_DIR) + "/tools/quil_mock/quil_mock.py", "--exit-with-parent",
        "--port", "0", "--port-file", dir_ + "/port", "--journal", journal_path(),
        "--cert-dir", dir_ + "/certs", "--hft-sim", std::string(DTL_BINARY_DIR) + "/bin/hft-sim",
        "--user", options_.user, "--password", options_.password};
    if (options_.ipfix_port != 0) args.insert(args.end(), {"--ipfix-port", std::to_string(options_.ipfix_port)});
    if (options_.export_never_disabled) args.push_back("--export-never-disabled");
    for (const auto& fault : options_.faults) args.insert(args.end(), {"--fault", fault});
    args.insert(args.end(), options_.extra_args.begin(), options_.extra_args.end());
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const std::string log = dir_ + "/mock.log";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Own process group: a mock that ignores SIGTERM is killed with its hft-sim.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ) == 0) pid_ = pid;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }

  // The mock writes its port to a file (whole, by renaming) once it listens.
  void WaitForPort() {
    for (int i = 0; i < 500; ++i) {  // 10 s
      const int port = std::atoi(dtl_test::ReadTextFile(dir_ + "/port").c_str());
      if (port > 0 && port < 65536) {
        port_ = static_cast<uint16_t>(port);
        return;
      }
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;  // exited before listening
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  Options options_;
  std::string dir_;
  pid_t pid_ = -1;
  uint16_t port_ = 0;
  int exit_status_ = -1;
};
