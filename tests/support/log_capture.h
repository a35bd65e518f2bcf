// Captures the library's log lines, from any thread, for tests to assert on.
// Each line is kept as "<level> <text>", so a needle can pin the level too
// ("3 [IPFIX recv worker] ...") or match the text alone.
#pragma once

#include <stdarg.h>
#include <stdio.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "dtl_logger.h"

namespace dtl_test {

class LogCapture {
 public:
  LogCapture() {
    Clear();
    dtl_set_log_func(&LogCapture::Append, DTL_LOG_LEVEL_DEBUG);
  }
  ~LogCapture() { dtl_set_log_func(nullptr, DTL_LOG_LEVEL_ERROR); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  static void Clear() {
    std::lock_guard<std::mutex> lock(Mutex());
    Lines().clear();
  }
  static std::vector<std::string> Snapshot() {
    std::lock_guard<std::mutex> lock(Mutex());
    return Lines();
  }
  // Lines that contain needle.
  static std::vector<std::string> Matching(const std::string& needle) {
    std::vector<std::string> found;
    for (const std::string& line : Snapshot())
      if (line.find(needle) != std::string::npos) found.push_back(line);
    return found;
  }
  static size_t Count(const std::string& needle) { return Matching(needle).size(); }
  // Level of the first line containing needle, -1 when there is none.
  static int LevelOf(const std::string& needle) {
    const std::vector<std::string> found = Matching(needle);
    return found.empty() ? -1 : std::atoi(found.front().c_str());
  }

 private:
  static void Append(int level, const char* format, ...) {
    char text[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(Mutex());
    Lines().push_back(std::to_string(level) + " " + text);
  }
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }
  static std::vector<std::string>& Lines() {
    static std::vector<std::string> lines;
    return lines;
  }
};

}  // namespace dtl_test
