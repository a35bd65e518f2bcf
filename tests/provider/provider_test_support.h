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
#include "support/log_capture.h"
#include "dtl_dict.h"
#include "dtl_event_provider.h"
#include "dtl_logger.h"
#include "provider/ipfix_provider_context.h"

namespace provider_test {

// A UDP port nobody is bound to right now (the kernel picks it).
using dtl_test::FreeUdpPort;

using dtl_test::LogCapture;

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
