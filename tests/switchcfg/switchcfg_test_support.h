// Shared by the switch configurator tests: log capture and a configurator
// pointed at a running quil-mock.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "dtl_logger.h"
#include "support/quil_mock.h"
#include "switchcfg/quil_switch_configurator.h"

namespace dtl::ipfix::swtest {

// When a test enables the export, the mock starts hft-sim towards the
// collector; port 9 (discard) keeps that traffic away from any receiver
// another test may be running.
inline QuilMock::Options MockOptions() {
  QuilMock::Options options;
  options.ipfix_port = 9;
  return options;
}

inline QuilMock::Options WithFaults(std::vector<std::string> faults) {
  QuilMock::Options options = MockOptions();
  options.faults = std::move(faults);
  return options;
}

struct CapturedLine {
  int level;
  std::string text;
};

inline std::mutex& CaptureMutex() {
  static std::mutex mutex;
  return mutex;
}
inline std::vector<CapturedLine>& Captured() {
  static std::vector<CapturedLine> lines;
  return lines;
}

inline void CaptureLog(int level, const char* format, ...) {
  char buffer[8192];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  std::lock_guard<std::mutex> lock(CaptureMutex());
  Captured().push_back({level, buffer});
}

// Captures every log line at debug level for the length of one test.
class SwitchcfgTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Captured().clear();
    dtl_set_log_func(CaptureLog, DTL_LOG_LEVEL_DEBUG);
  }
  void TearDown() override { dtl_set_log_func(nullptr, DTL_LOG_LEVEL_ERROR); }

  static std::vector<CapturedLine> Lines() {
    std::lock_guard<std::mutex> lock(CaptureMutex());
    return Captured();
  }
  static bool HasLine(int level, const std::string& text) {
    const auto lines = Lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const CapturedLine& l) { return l.level == level && l.text == text; });
  }
  static size_t CountContaining(const std::string& part) {
    const auto lines = Lines();
    return std::count_if(lines.begin(), lines.end(),
                         [&](const CapturedLine& l) { return l.text.find(part) != std::string::npos; });
  }
  static std::string AllLines() {
    std::string text;
    for (const auto& line : Lines()) text += std::to_string(line.level) + " " + line.text + "\n";
    return text;
  }

  static QuilSwitchConfigurator::Config ConfigFor(const QuilMock& mock) {
    QuilSwitchConfigurator::Config config;
    config.host = "127.0.0.1";
    config.port = mock.port();
    config.collector_ip = "127.0.0.1";
    return config;
  }

  // The requests the mock answered, without hft-sim events.
  static std::vector<QuilMock::JournalEntry> Requests(const QuilMock& mock) {
    std::vector<QuilMock::JournalEntry> requests;
    for (auto& entry : mock.Journal()) {
      if (entry.event.empty()) requests.push_back(std::move(entry));
    }
    return requests;
  }
};

}  // namespace dtl::ipfix::swtest
