// The logger is process-wide state that can never be un-registered, so the
// tests that change it run in a child process (gtest's exit tests) and report
// failures through their exit code and standard error.
#include "dtl_logger.h"
#include "dtl_timestamp.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> captured;

void capture(int level, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  captured.push_back(std::to_string(level) + " " + text);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string temp_path(const char* tag) {
  return testing::TempDir() + "logger_" + tag + "_" + std::to_string(getpid());
}

// Ends the child: exit code 0 when every check held.
#define CHILD_CHECK(cond)                                          \
  do {                                                             \
    if (!(cond)) {                                                 \
      fprintf(stderr, "check failed at line %d: %s\n", __LINE__, #cond); \
      _exit(1);                                                    \
    }                                                              \
  } while (0)

void clear_env() {
  for (const char* name : {"DTL_API_LOG_LEVEL", "API_LOG_LEVEL", "DTL_LOG_THREAD_SAFE",
                           "LOG_THREAD_SAFE"})
    unsetenv(name);
}

// Runs body in a fresh process whose standard error goes to a file, then
// returns what it wrote there.
std::string stderr_of(void (*body)()) {
  std::string path = temp_path("stderr");
  EXPECT_EXIT(
      {
        clear_env();
        CHILD_CHECK(freopen(path.c_str(), "w", stderr) != nullptr);
        body();
        fflush(stderr);
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
  std::string text = read_file(path);
  unlink(path.c_str());
  return text;
}

TEST(Logger, FirstCallWithoutEnvironmentInitialisesSilently) {
  std::string out = stderr_of([] {
    CHILD_CHECK(dtl_log_level == -1);
    DTL_LOG_ERROR("[test] error %d", 3);
    CHILD_CHECK(dtl_log_level == 0);
    DTL_LOG_WARNING("[test] warning");
    DTL_LOG_INFO("[test] info");
    DTL_LOG_DEBUG("[test] debug");
  });
  EXPECT_EQ(out, "");
}

TEST(Logger, LevelComesFromEitherVariableAndPrefixWinsSilently) {
  EXPECT_EXIT(
      {
        clear_env();
        setenv("API_LOG_LEVEL", "7", 1);
        __dtl_init_logger_default();
        CHILD_CHECK(dtl_log_level == 7);
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
  std::string out = stderr_of([] {
    setenv("DTL_API_LOG_LEVEL", "4", 1);
    setenv("API_LOG_LEVEL", "7", 1);
    __dtl_init_logger_default();
    CHILD_CHECK(dtl_log_level == 4);
  });
  EXPECT_EQ(out.find("conflict"), std::string::npos) << out;
  EXPECT_EXIT(
      {
        clear_env();
        setenv("DTL_API_LOG_LEVEL", "verbose", 1);
        __dtl_init_logger_default();
        CHILD_CHECK(dtl_log_level == 0);
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
}

// Logs one error line on another thread; false when the call has not
// returned within five seconds (the caller is a child process that exits).
bool log_call_returns() {
  std::promise<void> done;
  std::future<void> returned = done.get_future();
  std::thread logging([&done] {
    DTL_LOG_ERROR("[test] probe");
    done.set_value();
  });
  if (returned.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
    logging.detach();
    return false;
  }
  logging.join();
  return true;
}

void register_logger(uint32_t kind, int32_t level, FILE* stream) {
  dtl_logger_ctx_t ctx{};
  ctx.kind = kind;
  ctx.level = level;
  ctx.stream = stream;
  ctx.log_func = kind == DTL_LOGGER_FUNC ? capture : nullptr;
  CHILD_CHECK(_dtl_register_logger(&ctx) == 1);
}

// States in which a line used to re-enter the logger's own initialisation.
TEST(Logger, LogCallsReturnWhateverStateTheHostLeft) {
  struct Case {
    const char* what;
    void (*set_up)();
    int32_t level_after;
  };
  const Case cases[] = {
      {"host function registered before initialisation",
       [] { register_logger(DTL_LOGGER_FUNC, -1, nullptr); }, 0},
      {"host stream registered before initialisation",
       [] { register_logger(DTL_LOGGER_STDERR, -1, stderr); }, 0},
      {"registered, then level reset to -1",
       [] {
         register_logger(DTL_LOGGER_STDERR, DTL_LOG_LEVEL_INFO, stderr);
         dtl_set_log_level(-1);
       },
       0},
      {"registered stream missing",
       [] { register_logger(DTL_LOGGER_STDERR, DTL_LOG_LEVEL_DEBUG, nullptr); },
       DTL_LOG_LEVEL_DEBUG},
      {"negative level in the environment, initialisation that logs",
       [] {
         setenv("DTL_API_LOG_LEVEL", "-1", 1);
         setenv("DTL_LOG_THREAD_SAFE", "no", 1);
       },
       0},
      {"negative level in the unprefixed variable", [] { setenv("API_LOG_LEVEL", "-5", 1); }, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EXIT(
        {
          clear_env();
          c.set_up();
          CHILD_CHECK(log_call_returns());
          CHILD_CHECK(dtl_log_level == c.level_after);
          _exit(0);
        },
        testing::ExitedWithCode(0), "")
        << c.what;
  }
}

TEST(Logger, ExplicitDefaultInitialisationRereadsTheEnvironment) {
  std::string out = stderr_of([] {
    setenv("DTL_API_LOG_LEVEL", "6", 1);
    DTL_LOG_DEBUG("[test] first line initialises");
    CHILD_CHECK(dtl_log_level == DTL_LOG_LEVEL_INFO);
    CHILD_CHECK(dtl_init_file_logger("/dev/null", DTL_LOG_LEVEL_DEBUG) == 1);
    DTL_LOG_WARNING("[test] into the file");
    setenv("DTL_API_LOG_LEVEL", "4", 1);
    CHILD_CHECK(__dtl_init_logger_default() == 1);
    CHILD_CHECK(dtl_log_level == DTL_LOG_LEVEL_WARNING);
    DTL_LOG_INFO("[test] below the new level");
    DTL_LOG_WARNING("[test] back on standard error");
  });
  EXPECT_TRUE(std::regex_match(out, std::regex("\\[[-0-9 :.]{23}\\] \\[warning\\] "
                                               "\\[test\\] back on standard error\n")))
      << out;
}

TEST(Logger, FileLinesHaveTimeLevelAndMessage) {
  std::string path = temp_path("file");
  EXPECT_EXIT(
      {
        clear_env();
        CHILD_CHECK(dtl_init_file_logger(path.c_str(), DTL_LOG_LEVEL_INFO) == 1);
        DTL_LOG_INFO("[test] hello %d", 5);
        DTL_LOG_DEBUG("[test] suppressed");
        DTL_LOG(5, "[test] odd level");
        DTL_LOG_ERROR("[test] bad %s", "thing");
        dtl_close_logger();
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
  std::string text = read_file(path);
  unlink(path.c_str());
  std::regex expected(
      "\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\] \\[info\\] \\[test\\] hello 5\n"
      "\\[[-0-9 :.]{23}\\] \\[test\\] odd level\n"
      "\\[[-0-9 :.]{23}\\] \\[error\\] \\[test\\] bad thing\n");
  EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST(Logger, UnopenableFileFallsBackToStandardError) {
  std::string out = stderr_of([] {
    CHILD_CHECK(dtl_init_file_logger("/nonexistent-dir/x.log", DTL_LOG_LEVEL_WARNING) == 0);
    CHILD_CHECK(dtl_log_level == DTL_LOG_LEVEL_WARNING);
    DTL_LOG_WARNING("[test] still here");
  });
  EXPECT_NE(out.find("[warning] [test] still here\n"), std::string::npos) << out;
}

TEST(Logger, ThreadSafetyVariableControlsTheMutex) {
  struct Case {
    const char* value;
    bool mutex;
  };
  for (Case c : {Case{"no", false}, Case{"0", false}, Case{"false", false}, Case{"", true},
                 Case{"1", true}, Case{"True", true}, Case{"Yes", true}}) {
    EXPECT_EXIT(
        {
          clear_env();
          setenv("DTL_LOG_THREAD_SAFE", c.value, 1);
          dtl_init_stderr_logger(0);
          dtl_logger_ctx_t* ctx = dtl_get_logger_ctx();
          CHILD_CHECK(ctx != nullptr);
          CHILD_CHECK((ctx->mutex != nullptr) == c.mutex);
          dtl_destroy_logger_ctx(ctx);
          _exit(0);
        },
        testing::ExitedWithCode(0), "")
        << "DTL_LOG_THREAD_SAFE=" << c.value;
  }
}

TEST(Logger, RegisteredLoggerIsFinal) {
  std::string path = temp_path("registered");
  EXPECT_EXIT(
      {
        clear_env();
        dtl_logger_ctx_t ctx{};
        ctx.kind = DTL_LOGGER_FUNC;
        ctx.log_func = capture;
        ctx.level = DTL_LOG_LEVEL_INFO;
        CHILD_CHECK(_dtl_register_logger(nullptr) == 0);
        CHILD_CHECK(_dtl_register_logger(&ctx) == 1);
        CHILD_CHECK(is_registered);
        CHILD_CHECK(dtl_init_file_logger(path.c_str(), 7) == 0);
        CHILD_CHECK(access(path.c_str(), F_OK) != 0);
        CHILD_CHECK(dtl_init_stderr_logger(7) == 0);
        dtl_close_logger();
        CHILD_CHECK(dtl_log_level == DTL_LOG_LEVEL_INFO);
        DTL_LOG_INFO("[test] to host %d", 1);
        CHILD_CHECK(captured.size() == 1 && captured[0] == "6 [test] to host 1");
        // Registering the same logger again changes nothing.
        CHILD_CHECK(_dtl_register_logger(&ctx) == 1);
        dtl_logger_ctx_t* mine = dtl_get_logger_ctx();
        CHILD_CHECK(mine->kind == DTL_LOGGER_FUNC && mine->log_func == capture &&
                    mine->stream == nullptr);
        dtl_destroy_logger_ctx(mine);
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Logger, ConcurrentLinesStayWhole) {
  std::string path = temp_path("threads");
  EXPECT_EXIT(
      {
        clear_env();
        CHILD_CHECK(dtl_init_file_logger(path.c_str(), DTL_LOG_LEVEL_INFO) == 1);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
          threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i)
              DTL_LOG_INFO("[test] thread %d line %d %s", t, i, "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx");
          });
        for (auto& th : threads) th.join();
        dtl_close_logger();
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
  std::ifstream in(path);
  std::regex line_form(
      "\\[[-0-9 :.]{23}\\] \\[info\\] \\[test\\] thread [0-3] line \\d+ x{32}");
  std::string line;
  int lines = 0;
  while (std::getline(in, line)) {
    ++lines;
    ASSERT_TRUE(std::regex_match(line, line_form)) << line;
  }
  EXPECT_EQ(lines, 2000);
  unlink(path.c_str());
}

TEST(Logger, GetenvPrefersPrefixedAndWarnsOnConflict) {
  captured.clear();
  dtl_set_log_func(capture, DTL_LOG_LEVEL_DEBUG);
  setenv("DTL_SWITCH_PORT", "8443", 1);
  setenv("SWITCH_PORT", "443", 1);
  EXPECT_STREQ(dtl_getenv("SWITCH_PORT"), "8443");
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0],
            "4 [dtl_getenv] Environment variables conflict - DTL_SWITCH_PORT=8443 and "
            "SWITCH_PORT=443. Using DTL_SWITCH_PORT");
  unsetenv("DTL_SWITCH_PORT");
  EXPECT_STREQ(dtl_getenv("DTL_SWITCH_PORT"), "443");
  unsetenv("SWITCH_PORT");
  EXPECT_EQ(dtl_getenv("SWITCH_PORT"), nullptr);
  EXPECT_EQ(captured.size(), 1u);
  dtl_set_log_func(nullptr, 0);
}

TEST(Logger, LongThreadNameIsTruncatedWithWarning) {
  captured.clear();
  dtl_set_log_func(capture, DTL_LOG_LEVEL_INFO);
  char name[32] = {};
  std::thread([&] {
    dtl_set_thread_name("ipfix_recv_%zu", static_cast<size_t>(123456));
    pthread_getname_np(pthread_self(), name, sizeof(name));
  }).join();
  EXPECT_STREQ(name, "ipfix_recv_1234");
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0], "4 dtl_set_thread_name: thread name truncated to 'ipfix_recv_1234'");
  dtl_set_log_func(nullptr, 0);
}

TEST(Logger, HexDumpLinesUpShortLastLine) {
  captured.clear();
  dtl_set_log_func(capture, DTL_LOG_LEVEL_DEBUG);
  unsigned char bytes[20];
  for (int i = 0; i < 20; ++i) bytes[i] = static_cast<unsigned char>(0x3E + i);
  bytes[1] = 0x00;
  log_hex(bytes, sizeof(bytes));
  ASSERT_EQ(captured.size(), 2u);
  EXPECT_EQ(captured[0],
            "7 3E 00 40 41 42 43 44 45  46 47 48 49 4A 4B 4C 4D  |  >.@ABCDEFGHIJKLM ");
  EXPECT_EQ(captured[1], "7 4E 4F 50 51" + std::string(50 - 11, ' ') + "|  NOPQ ");
  EXPECT_EQ(captured[0].find('|'), captured[1].find('|'));
  captured.clear();
  dtl_set_log_func(capture, DTL_LOG_LEVEL_INFO);
  log_hex(bytes, sizeof(bytes));
  EXPECT_TRUE(captured.empty());
  dtl_set_log_func(nullptr, 0);
}

TEST(Clock, MonotonicRuleHoldsWhenWallClockStepsBack) {
  uint64_t now = dtl_timestamp_now();
  EXPECT_NEAR(static_cast<double>(now), static_cast<double>(time(nullptr)) * 1e6, 2e6);
  dtl_timestamp_set_monotonic_timestamps_enabled(1);
  // A reading handed out "in the future" stands for a clock stepped back.
  uint64_t future = now + 3600ull * 1000000ull;
  __atomic_store_n(&_dtl_last_emitted_usec, future, __ATOMIC_RELAXED);
  EXPECT_EQ(dtl_timestamp_now(), future);
  EXPECT_EQ(dtl_timestamp_now(), future);
  dtl_timestamp_set_monotonic_timestamps_enabled(0);
  EXPECT_LT(dtl_timestamp_now(), future);
  _dtl_last_emitted_usec = 0;
}

TEST(Clock, OffsetOwnershipRules) {
  EXPECT_FALSE(dtl_timestamp_offset_claim(0));
  EXPECT_TRUE(dtl_timestamp_offset_claim(5));
  EXPECT_TRUE(dtl_timestamp_offset_claim(5));
  EXPECT_FALSE(dtl_timestamp_offset_claim(6));
  EXPECT_FALSE(dtl_timestamp_set_offset_monotonic(100, 6));
  EXPECT_TRUE(dtl_timestamp_set_offset_monotonic(100, 5));
  EXPECT_TRUE(dtl_timestamp_set_offset_monotonic(50, 5));
  EXPECT_EQ(dtl_timestamp_get_offset(), 100u);
  EXPECT_EQ(dtl_timestamp_offset_release(6), 5u);
  EXPECT_EQ(dtl_timestamp_offset_get_owner(), 5u);
  EXPECT_EQ(dtl_timestamp_offset_release(5), 5u);
  EXPECT_EQ(dtl_timestamp_offset_get_owner(), 0u);

  // An offset from another process claims the offset for that party.
  EXPECT_FALSE(dtl_timestamp_ipc_apply_offset(200, false));
  EXPECT_FALSE(dtl_timestamp_ipc_apply_offset(100, true));
  EXPECT_TRUE(dtl_timestamp_ipc_apply_offset(40, true));
  EXPECT_EQ(dtl_timestamp_get_offset(), 40u);
  EXPECT_EQ(dtl_timestamp_offset_get_owner(), 3u);
  dtl_timestamp_offset_release(3);
  dtl_timestamp_set_offset(0);
}

TEST(Clock, TextForms) {
  setenv("TZ", "UTC", 1);
  tzset();
  char* ms = dtl_timestamp_to_string(1700000000123456ull);
  char* us = dtl_timestamp_to_string_ex(1700000000123456ull, true);
  EXPECT_STREQ(ms, "2023-11-14 22:13:20.123");
  EXPECT_STREQ(us, "2023-11-14 22:13:20.123456");
  free(ms);
  free(us);
}

}  // namespace
