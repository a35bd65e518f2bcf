// The log function runs on the plug-in's threads: it formats into a buffer
// of its own and writes whole lines under one mutex.
#include "log_watch.h"

#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "dtl_logger.h"

namespace dtl_host {

namespace {

constexpr const char* kFinalMarker = "[IPFIX status] Final status: collector: ";

struct LogState {
  std::mutex mutex;
  int user_level = 0;
  void (*timestamp)(FILE*) = nullptr;
  const char* (*level_text)(int) = nullptr;
  std::string final_status;
};

LogState& State() {
  static LogState* const state = new LogState;  // used by plug-in threads until exit
  return *state;
}

void HostLog(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  char small[512];
  const int needed = vsnprintf(small, sizeof(small), format, args);
  va_end(args);
  std::string text;
  if (needed < 0) {
    text = format;
  } else if (static_cast<size_t>(needed) < sizeof(small)) {
    text.assign(small, static_cast<size_t>(needed));
  } else {
    std::vector<char> large(static_cast<size_t>(needed) + 1);
    vsnprintf(large.data(), large.size(), format, again);
    text.assign(large.data(), static_cast<size_t>(needed));
  }
  va_end(again);

  LogState& state = State();
  std::lock_guard lock(state.mutex);
  const size_t marker = text.find(kFinalMarker);
  if (marker != std::string::npos) state.final_status = text.substr(marker + std::char_traits<char>::length(kFinalMarker));
  if (level > state.user_level) return;
  state.timestamp(stderr);
  fputs(state.level_text(level), stderr);
  fputs(text.c_str(), stderr);
  fputc('\n', stderr);
  fflush(stderr);
}

}  // namespace

bool WatchPluginLog(void* plugin) {
  auto init = reinterpret_cast<int (*)()>(dlsym(plugin, "__dtl_init_logger_default"));
  auto set_func = reinterpret_cast<void (*)(dtl_log_func_t, int)>(dlsym(plugin, "dtl_set_log_func"));
  auto* level = static_cast<int32_t*>(dlsym(plugin, "dtl_log_level"));
  LogState& state = State();
  state.timestamp = reinterpret_cast<void (*)(FILE*)>(dlsym(plugin, "dtl_dump_timestamp_logger"));
  state.level_text = reinterpret_cast<const char* (*)(int)>(dlsym(plugin, "dtl_priority_level_string_logger"));
  if (init == nullptr || set_func == nullptr || level == nullptr || state.timestamp == nullptr ||
      state.level_text == nullptr)
    return false;
  init();
  state.user_level = __atomic_load_n(level, __ATOMIC_RELAXED);
  // The status lines are info: the plug-in must log them even when the user
  // reads only warnings, so that the summary can be given.
  set_func(&HostLog, state.user_level > DTL_LOG_LEVEL_INFO ? state.user_level : DTL_LOG_LEVEL_INFO);
  return true;
}

std::string FinalCollectorStatus() {
  LogState& state = State();
  std::lock_guard lock(state.mutex);
  return state.final_status;
}

}  // namespace dtl_host
