#include "dtl_source.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dtl_logger.h"

namespace {

std::vector<std::string> g_lines;

void capture_line(int, const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  g_lines.emplace_back(buffer);
}

struct ArrayDeleter {
  void operator()(dtl_source_array_t* a) const { dtl_destroy_source_array(a); }
};
using ArrayPtr = std::unique_ptr<dtl_source_array_t, ArrayDeleter>;
struct SourceDeleter {
  void operator()(dtl_source_t* s) const { dtl_destroy_source(s); }
};
using SourcePtr = std::unique_ptr<dtl_source_t, SourceDeleter>;

// Captures the log and gives every test a known environment for the
// identifier defaults; the previous values come back afterwards.
class SourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : kVariables) {
      const char* value = getenv(name);
      saved_.push_back(value != nullptr ? std::optional<std::string>(value) : std::nullopt);
      unsetenv(name);
    }
    g_lines.clear();
    dtl_set_log_func(capture_line, DTL_LOG_LEVEL_DEBUG);
  }
  void TearDown() override {
    dtl_set_log_func(nullptr, 0);
    for (size_t i = 0; i < std::size(kVariables); ++i) {
      if (saved_[i])
        setenv(kVariables[i], saved_[i]->c_str(), 1);
      else
        unsetenv(kVariables[i]);
    }
  }

  static std::vector<std::string> identifiers(const dtl_source_array_t* array) {
    std::vector<std::string> result;
    for (uint16_t i = 0; i < array->count; ++i) {
      result.emplace_back(array->sources[i]->identifier);
      EXPECT_STREQ(array->sources[i]->tag, "");
    }
    return result;
  }

  static constexpr const char* kVariables[] = {"DTL_SOURCE_ID", "SOURCE_ID", "DTL_HOST_NAME"};
  std::vector<std::optional<std::string>> saved_;
};

}  // namespace

TEST_F(SourceTest, CreateTruncatesAndZeroFills) {
  std::string id(70, 'x');
  SourcePtr s(dtl_create_source(id.c_str(), "a-very-long-tag-name"));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(std::string(s->identifier), std::string(63, 'x'));
  EXPECT_EQ(std::string(s->tag), "a-very-long-tag");

  std::unique_ptr<char, decltype(&free)> text(dtl_source_string(s.get()), free);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(std::string(text.get()), std::string(63, 'x'));
}

TEST_F(SourceTest, FullStringNeedsRoomForColonAndZero) {
  SourcePtr s(dtl_create_source("ipfix", "ipfix"));
  char buffer[12];
  EXPECT_TRUE(dtl_source_full_string(s.get(), buffer, 12));
  EXPECT_STREQ(buffer, "ipfix:ipfix");
  EXPECT_TRUE(g_lines.empty());
  EXPECT_FALSE(dtl_source_full_string(s.get(), buffer, 11));
  EXPECT_EQ(g_lines,
            std::vector<std::string>{"[source] buffer too small for source ipfix:ipfix (got 11)"});
}

TEST_F(SourceTest, DefaultSourcePrefersSourceIdVariable) {
  setenv("DTL_SOURCE_ID", std::string(80, 's').c_str(), 1);
  setenv("SOURCE_ID", "bare", 1);
  SourcePtr s(dtl_create_default_source("tag"));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(std::string(s->identifier), std::string(63, 's'));
  EXPECT_STREQ(s->tag, "tag");
  EXPECT_TRUE(g_lines.empty()) << "the bare name is no alternative, so no conflict";

  // The bare SOURCE_ID alone is ignored: the host name is used.
  unsetenv("DTL_SOURCE_ID");
  setenv("DTL_HOST_NAME", "collector", 1);
  ArrayPtr array(dtl_create_default_source_array("t"));
  ASSERT_NE(array, nullptr);
  ASSERT_EQ(array->count, 1);
  EXPECT_STREQ(array->sources[0]->identifier, "collector");
  EXPECT_STREQ(array->sources[0]->tag, "t");
}

TEST_F(SourceTest, FindSourceUsesIdentity) {
  ArrayPtr array(dtl_create_source_array());
  ASSERT_NE(array, nullptr);
  dtl_source_t* first = dtl_create_source("ipfix", "ipfix");
  dtl_source_t* second = dtl_create_source("other", "");
  ASSERT_TRUE(dtl_source_array_append(array.get(), first));
  ASSERT_TRUE(dtl_source_array_append(array.get(), second));
  EXPECT_FALSE(dtl_source_array_append(array.get(), nullptr));
  EXPECT_EQ(dtl_source_array_find_source(array.get(), first), 0);
  EXPECT_EQ(dtl_source_array_find_source(array.get(), second), 1);
  SourcePtr twin(dtl_create_source("ipfix", "ipfix"));
  EXPECT_EQ(dtl_source_array_find_source(array.get(), twin.get()), 65535);
}

TEST_F(SourceTest, ArrayHoldsAtMost65534Sources) {
  ArrayPtr array(dtl_create_source_array());
  for (int i = 0; i < DTL_SOURCE_ARRAY_MAX; ++i)
    ASSERT_TRUE(dtl_source_array_append(array.get(), dtl_create_source(std::to_string(i).c_str(), "")));
  EXPECT_EQ(array->count, 65534);
  SourcePtr extra(dtl_create_source("extra", ""));
  EXPECT_FALSE(dtl_source_array_append(array.get(), extra.get()));  // still ours to free
  EXPECT_EQ(array->count, 65534);
  EXPECT_STREQ(array->sources[65533]->identifier, "65533");
  EXPECT_EQ(dtl_source_array_find_source(array.get(), array->sources[40000]), 40000);
}

TEST_F(SourceTest, RangeForms) {
  setenv("DTL_SOURCE_ID", "node", 1);
  ArrayPtr count(dtl_create_source_array_from_string("3"));
  ASSERT_NE(count, nullptr);
  EXPECT_EQ(identifiers(count.get()), (std::vector<std::string>{"node_1", "node_2", "node_3"}));

  ArrayPtr bracketed(dtl_create_source_array_from_string("rack[2-4]"));
  ASSERT_NE(bracketed, nullptr);
  EXPECT_EQ(identifiers(bracketed.get()),
            (std::vector<std::string>{"rack_2", "rack_3", "rack_4"}));

  ArrayPtr plain(dtl_create_source_array_from_string("7-8"));
  ASSERT_NE(plain, nullptr);
  EXPECT_EQ(identifiers(plain.get()), (std::vector<std::string>{"node_7", "node_8"}));

  EXPECT_TRUE(g_lines.empty());
}

TEST_F(SourceTest, RangeBaseFallsBackToHostName) {
  setenv("DTL_HOST_NAME", "hostA", 1);
  ArrayPtr array(dtl_create_source_array_from_string("2"));
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(identifiers(array.get()), (std::vector<std::string>{"hostA_1", "hostA_2"}));
}

TEST_F(SourceTest, InvalidRangeForms) {
  for (const char* text : {"5-2", "-3", "3-", "0", "", "abc", "1-x", "rack[4-2]", "rack[2]",
                           "rack[a-3]", "rack[1-2]x", "99999"}) {
    g_lines.clear();
    EXPECT_EQ(dtl_create_source_array_from_string(text), nullptr) << text;
    EXPECT_EQ(g_lines, std::vector<std::string>{std::string("[source] Invalid source format: ") +
                                                text})
        << text;
  }
}

TEST_F(SourceTest, InputReadsListedFiles) {
  std::filesystem::path dir = std::filesystem::path(testing::TempDir()) / "source_test_input";
  std::filesystem::create_directories(dir);
  std::filesystem::path list = dir / "hosts.txt";
  std::ofstream(list) << "alpha\r\n\nbeta\ngamma";
  std::filesystem::path report = dir / "fabric.txt";
  std::ofstream(report) << "# discovered nodes\n"
                        << "H-0002c903000e0b72 port 1 (node01)\n"
                        << "S-0002c90300a1b2c3 port 17 (spine-1)\n"
                        << "link without a name\n";

  ArrayPtr from_list(dtl_create_source_array_from_input(list.c_str()));
  ASSERT_NE(from_list, nullptr);
  EXPECT_EQ(identifiers(from_list.get()), (std::vector<std::string>{"alpha", "beta", "gamma"}));

  ArrayPtr from_report(dtl_create_source_array_from_input(report.c_str()));
  ASSERT_NE(from_report, nullptr);
  EXPECT_EQ(identifiers(from_report.get()), (std::vector<std::string>{"node01", "spine-1"}));

  // A text that names no file falls back to the range forms.
  ArrayPtr range(dtl_create_source_array_from_input("rack[1-1]"));
  ASSERT_NE(range, nullptr);
  EXPECT_EQ(identifiers(range.get()), std::vector<std::string>{"rack_1"});

  g_lines.clear();
  EXPECT_EQ(dtl_create_source_array_from_input(dir.c_str()), nullptr);
  EXPECT_EQ(g_lines, std::vector<std::string>{"[source] Failed to open file: " + dir.string()});
  std::filesystem::remove_all(dir);
}

TEST_F(SourceTest, HostNameFromVariableIsCutToBuffer) {
  setenv("DTL_HOST_NAME", "collector.example.com", 1);
  char buffer[10];
  ASSERT_EQ(dtl_get_hostname(buffer, sizeof buffer), buffer);
  EXPECT_STREQ(buffer, "collector");  // 9 characters: the variable is not cut at dots
  char wide[64];
  ASSERT_NE(dtl_get_hostname(wide, sizeof wide), nullptr);
  EXPECT_STREQ(wide, "collector.example.com");
}

TEST_F(SourceTest, ClientIdTakesFirstLabelOfSystemHostName) {
  // A private UTS namespace in a child lets the test choose a fully
  // qualified host name without touching the machine's.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (unshare(CLONE_NEWUTS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWUTS) != 0) _exit(77);
    const char fqdn[] = "node7.rack2.example.com";
    if (sethostname(fqdn, sizeof fqdn - 1) != 0) _exit(77);
    dtl_client_id_t* id = dtl_client_id_allocate();
    bool ok = id != nullptr && strcmp(id->host_name, "node7") == 0 && id->port == 0;
    free(id);
    _exit(ok ? 0 : 1);
  }
  // Called through syscall(): the C library's header lacks C++ linkage.
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
  ASSERT_GE(pidfd, 0);
  pollfd pfd{pidfd, POLLIN, 0};
  bool exited = poll(&pfd, 1, 10000) == 1;
  close(pidfd);
  if (!exited) kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(exited) << "child did not finish within 10 s";
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private UTS namespace available";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}
