// Helpers shared by the provider tests: log capture, scoped environment
// variables, and owners for option dictionaries and provider records.
#pragma once

#include <netinet/in.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "support/free_udp_port.h"
#include "dtl_dict.h"
#include "dtl_event_provider.h"
#include "dtl_logger.h"
#include "provider/ipfix_provider_context.h"

namespace provider_test {

// A UDP port nobody is bound to right now (the kernel picks it).
using dtl_test::FreeUdpPort;

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
    Levels().clear();
  }
  static std::vector<std::string> Snapshot() {
    std::lock_guard<std::mutex> lock(Mutex());
    return Lines();
  }
  static std::vector<std::string> Matching(const std::string& needle) {
    std::vector<std::string> found;
    for (const std::string& line : Snapshot())
      if (line.find(needle) != std::string::npos) found.push_back(line);
    return found;
  }
  static size_t Count(const std::string& needle) { return Matching(needle).size(); }
  // Level of the first line containing needle, -1 when there is none.
  static int LevelOf(const std::string& needle) {
    std::lock_guard<std::mutex> lock(Mutex());
    for (size_t i = 0; i < Lines().size(); ++i)
      if (Lines()[i].find(needle) != std::string::npos) return Levels()[i];
    return -1;
  }

 private:
  static void Append(int level, const char* format, ...) {
    char text[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(Mutex());
    Lines().push_back(text);
    Levels().push_back(level);
  }
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }
  static std::vector<std::string>& Lines() {
    static std::vector<std::string> lines;
    return lines;
  }
  static std::vector<int>& Levels() {
    static std::vector<int> levels;
    return levels;
  }
};

// Sets (or, with nullopt, unsets) environment variables and restores them.
class ScopedEnv {
 public:
  ScopedEnv() = default;
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;
  ~ScopedEnv() {
    for (const auto& [name, old] : saved_) {
      if (old) setenv(name.c_str(), old->c_str(), 1);
      else unsetenv(name.c_str());
    }
  }
  void Set(const std::string& name, const std::optional<std::string>& value) {
    if (!saved_.count(name)) {
      const char* old = getenv(name.c_str());
      saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
    }
    if (value) setenv(name.c_str(), value->c_str(), 1);
    else unsetenv(name.c_str());
  }

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

class Options {
 public:
  Options() : dict_(dtl_dict_create()) {}
  ~Options() { dtl_dict_delete(dict_); }
  Options(const Options&) = delete;
  Options& operator=(const Options&) = delete;
  Options& Add(const char* key, const std::string& value) {
    dtl_dict_add(dict_, key, value.c_str());
    return *this;
  }
  const dtl_custom_options* get() const { return dict_; }

 private:
  dtl_custom_options* dict_;
};

// Owns a record and releases it through its own destroy callback.
class Provider {
 public:
  explicit Provider(const dtl_custom_options* options)
      : record_(construct_event_provider(options)) {}
  ~Provider() {
    if (record_ != nullptr) record_->destroy(record_);
  }
  Provider(const Provider&) = delete;
  Provider& operator=(const Provider&) = delete;
  dtl_event_provider_t* get() const { return record_; }
  dtl_event_provider_t* operator->() const { return record_; }
  dtl::ipfix::IpfixProviderContext& context() const {
    return *static_cast<dtl::ipfix::IpfixProviderContext*>(record_->context);
  }

 private:
  dtl_event_provider_t* record_;
};

}  // namespace provider_test
