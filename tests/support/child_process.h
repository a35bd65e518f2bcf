// A program run as a child process with its output in files; killed at the
// end of the test if it is still running.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace dtl_test {

class ChildProcess {
 public:
  // args[0] is the program's path. Standard input is /dev/null; standard
  // error goes to err_path, or joins standard output when err_path is empty.
  ChildProcess(std::vector<std::string> args, const std::string& out_path, const std::string& err_path = "") {
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (err_path.empty())
      posix_spawn_file_actions_adddup2(&actions, 1, 2);
    else
      posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~ChildProcess() {
    if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Running() {
    int status = 0;
    if (pid_ <= 0 || waitpid(pid_, &status, WNOHANG) != pid_) return pid_ > 0;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    pid_ = -1;
    return false;
  }
  // Exit status (128 + signal number for a killed child), or -1 when it did
  // not end within the limit.
  int Wait(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (Running() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return pid_ > 0 ? -1 : status_;
  }
  void Signal(int signo) {
    if (pid_ > 0) kill(pid_, signo);
  }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

inline std::string ReadTextFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// Polls until the file at path contains text; false when the limit passes.
inline bool WaitForText(const std::string& path, const std::string& text, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  bool found = false;
  while (!(found = ReadTextFile(path).find(text) != std::string::npos) && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return found;
}

}  // namespace dtl_test
