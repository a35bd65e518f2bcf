// The logger is process-wide state that can never be un-registered, so the
// tests that change it run in a child process (gtest's death tests) and
// report through their exit code.
#include "dtl_logger.h"

#include <unistd.h>

#include <functional>
#include <regex>
#include <thread>

#include "framework/test_util.h"

namespace {

int g_report_fd = 2;  // the child's real standard error

#define CHILD_CHECK(cond) \
  ((cond) ? void() : (dprintf(g_report_fd, "check failed at line %d: %s\n", __LINE__, #cond), _exit(1)))

std::string TempPath(const char* tag) { return testing::TempDir() + "logger_" + tag + "_" + std::to_string(getpid()); }

// Every child ends within ten seconds: a line that hangs or recurses fails.
[[noreturn]] void RunChild(const std::function<void()>& body, const std::string& path) {
  alarm(10);
  for (const char* name : {"DTL_API_LOG_LEVEL", "API_LOG_LEVEL", "DTL_LOG_THREAD_SAFE"}) unsetenv(name);
  g_report_fd = dup(2);
  CHILD_CHECK(freopen(path.c_str(), "w", stderr) != nullptr);
  body();
  fflush(stderr);
  _exit(0);
}

// Runs body in a fresh process without the logger's variables and returns
// what it wrote to standard error.
std::string InChild(const std::function<void()>& body, const std::string& what = "") {
  const std::string path = TempPath("stderr");
  EXPECT_EXIT(RunChild(body, path), testing::ExitedWithCode(0), "") << what;
  const std::string text = dtl_test::ReadFile(path);
  unlink(path.c_str());
  return text;
}

void Ignore(int, const char*, ...) {}
void RegisterLogger(uint32_t kind, int32_t level, FILE* stream) {
  const dtl_logger_ctx_t ctx{kind, stream, kind == DTL_LOGGER_FUNC ? Ignore : nullptr, level, nullptr};
  CHILD_CHECK(_dtl_register_logger(&ctx) == 1);
}

// The first line initialises the logger from the environment. The rows from
// the negative levels on once made a line re-enter the initialisation or
// recurse.
TEST(Logger, FirstLineInitialisesFromTheEnvironmentWhateverStateTheHostLeft) {
  const struct {
    const char* what;
    void (*set_up)();
    int32_t level_after;
    const char* output;  // "" for none, null when not checked
  } cases[] = {
      {"no variable: silent", [] {}, 0, ""},
      {"unprefixed variable", [] { setenv("API_LOG_LEVEL", "7", 1); }, 7, "[test] probe"},
      {"both variables: the prefixed one, without a warning",
       [] { setenv("DTL_API_LOG_LEVEL", "4", 1), setenv("API_LOG_LEVEL", "7", 1); }, 4, "[test] probe"},
      {"not a number", [] { setenv("DTL_API_LOG_LEVEL", "verbose", 1); }, 0, ""},
      {"negative level, initialisation that logs",
       [] { setenv("DTL_API_LOG_LEVEL", "-1", 1), setenv("DTL_LOG_THREAD_SAFE", "no", 1); }, 0, ""},
      {"negative level in the unprefixed variable", [] { setenv("API_LOG_LEVEL", "-5", 1); }, 0, ""},
      {"host function registered before initialisation", [] { RegisterLogger(DTL_LOGGER_FUNC, -1, nullptr); }, 0, ""},
      {"host stream registered before initialisation", [] { RegisterLogger(DTL_LOGGER_STDERR, -1, stderr); }, 0, ""},
      {"host stream registered, then level reset to -1",
       [] { RegisterLogger(DTL_LOGGER_STDERR, DTL_LOG_LEVEL_INFO, stderr), dtl_set_log_level(-1); }, 0, ""},
      {"host stream missing", [] { RegisterLogger(DTL_LOGGER_STDERR, DTL_LOG_LEVEL_DEBUG, nullptr); }, 7, nullptr},
  };
  for (const auto& c : cases) {
    const std::string out = InChild([&] {
      c.set_up();
      DTL_LOG_ERROR("[test] probe");
      CHILD_CHECK(dtl_log_level == c.level_after);
    }, c.what);
    const bool as_expected = !c.output || (*c.output ? out.find(c.output) != std::string::npos : out.empty());
    EXPECT_TRUE(as_expected) << c.what << ": " << out;
    EXPECT_EQ(out.find("conflict"), std::string::npos) << c.what << ": " << out;
  }
}

TEST(Logger, ExplicitDefaultInitialisationRereadsTheEnvironment) {
  const std::string out = InChild([] {
    setenv("DTL_API_LOG_LEVEL", "6", 1);
    DTL_LOG_DEBUG("[test] first line initialises");
    CHILD_CHECK(dtl_log_level == DTL_LOG_LEVEL_INFO);
    CHILD_CHECK(dtl_init_file_logger("/dev/null", DTL_LOG_LEVEL_DEBUG) == 1);
    DTL_LOG_WARNING("[test] into the file");
    setenv("DTL_API_LOG_LEVEL", "4", 1);
    CHILD_CHECK(__dtl_init_logger_default() == 1 && dtl_log_level == DTL_LOG_LEVEL_WARNING);
    DTL_LOG_INFO("[test] below the new level");
    DTL_LOG_WARNING("[test] back on standard error");
  });
  const std::regex line("\\[[-0-9 :.]{23}\\] \\[warning\\] \\[test\\] back on standard error\n");
  EXPECT_TRUE(std::regex_match(out, line)) << out;
}

TEST(Logger, ConcurrentFileLinesStayWhole) {
  const std::string path = TempPath("threads");
  InChild([&] {
    CHILD_CHECK(dtl_init_file_logger(path.c_str(), DTL_LOG_LEVEL_INFO) == 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([t] {
        for (int i = 0; i < 500; ++i) DTL_LOG_INFO("[test] thread %d line %d %s", t, i, std::string(32, 'x').c_str());
      });
    for (auto& th : threads) th.join();
    dtl_close_logger();
  });
  std::ifstream in(path);
  const std::regex form(
      "\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\] \\[info\\] \\[test\\] thread [0-3] line \\d+ x{32}");
  int lines = 0;
  for (std::string line; std::getline(in, line); ++lines) ASSERT_TRUE(std::regex_match(line, form)) << line;
  EXPECT_EQ(lines, 2000);
  unlink(path.c_str());
}

}  // namespace
