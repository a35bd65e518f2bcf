// The process-wide logger: sinks, registration of a host's logger, lazy
// initialisation from the environment, and the hex dump.
//
// The sink state is read by every logging thread without a lock, so it is
// accessed through relaxed/acquire-release atomics; the host sets it up once
// at start and the lazy initialisation is serialised by a guard.
//
// The initialisers themselves log (refusals, the thread-safety choice), and a
// line logged while the level is still -1 asks for the lazy initialisation
// again. A per-thread flag turns such nested requests into no-ops, so the
// initialisation never waits on its own guard.
#include "dtl_logger.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>

#include <mutex>
#include <string>

extern "C" {
DTL_EXPORT int32_t dtl_log_level = -1;
DTL_EXPORT bool is_registered = false;
}

namespace {

uint32_t logger_kind = DTL_LOGGER_STDERR;
FILE* logger_stream = nullptr;
dtl_log_func_t logger_func = nullptr;
pthread_mutex_t* logger_mutex = nullptr;
pthread_mutex_t logger_mutex_storage = PTHREAD_MUTEX_INITIALIZER;
std::mutex lazy_init_guard;
// Counts completed lazy initialisations (written under lazy_init_guard), so a
// thread that waited on the guard can tell that another one did the work.
uint64_t default_init_count = 0;
// Set while this thread runs the lazy initialisation.
thread_local bool initialising_default = false;

template <typename T>
T load(const T& v) {
  return __atomic_load_n(&v, __ATOMIC_ACQUIRE);
}
template <typename T>
void store(T& v, T value) {
  __atomic_store_n(&v, value, __ATOMIC_RELEASE);
}

bool registered() { return load(is_registered); }

// -1 is reserved for "not initialised"; any negative level handed to the
// logger from outside means that nothing is emitted.
int32_t sanitised_level(int32_t level) { return level < 0 ? 0 : level; }

// Decides whether stream lines are serialised: returns 1 when they will be.
int init_logger_mutex() {
  const char* safe = dtl_getenv("DTL_LOG_THREAD_SAFE");
  if (safe != nullptr && safe[0] != '\0') {
    char first = static_cast<char>(tolower(static_cast<unsigned char>(safe[0])));
    if (first != '1' && first != 't' && first != 'y') {
      DTL_LOG_DEBUG("[logger] [%s] Thread safety is disabled by environment variable "
                    "DTL_LOG_THREAD_SAFE",
                    "_dtl_init_logger_mutex");
      return 0;
    }
  }
  if (registered()) return 1;
  if (load(logger_mutex) != nullptr) return 1;
  store(logger_mutex, &logger_mutex_storage);
  if (pthread_mutex_init(&logger_mutex_storage, nullptr) != 0) {
    DTL_LOG_ERROR("[logger] [%s] failed to initialize logger mutex", "_dtl_init_logger_mutex");
    store(logger_mutex, static_cast<pthread_mutex_t*>(nullptr));
    return 0;
  }
  atexit(dtl_logger_cleanup_mutex_exit_handler);
  return 1;
}

bool refuse_when_registered(const char* who) {
  if (!registered()) return false;
  DTL_LOG_DEBUG("[logger] [%s] registered logger cannot initialize logger", who);
  return true;
}

void after_init(const char* who) {
  if (init_logger_mutex() == 0)
    DTL_LOG_DEBUG("[logger] [%s] Initialized logger without thread-safety", who);
}

}  // namespace

extern "C" {

int dtl_set_log_level(int level) {
  return __atomic_exchange_n(&dtl_log_level, level, __ATOMIC_ACQ_REL);
}

void dtl_set_log_func(dtl_log_func_t func, int level) {
  store(logger_func, func);
  store(logger_kind, static_cast<uint32_t>(DTL_LOGGER_FUNC));
  store(dtl_log_level, static_cast<int32_t>(level));
}

dtl_log_func_t dtl_get_log_func(void) { return load(logger_func); }

dtl_logger_ctx_t* dtl_get_logger_ctx(void) {
  auto* ctx = static_cast<dtl_logger_ctx_t*>(calloc(1, sizeof(dtl_logger_ctx_t)));
  if (ctx == nullptr) return nullptr;
  ctx->kind = load(logger_kind);
  ctx->level = load(dtl_log_level);
  ctx->mutex = load(logger_mutex);
  if (ctx->kind == DTL_LOGGER_STDERR || ctx->kind == DTL_LOGGER_FILE)
    ctx->stream = load(logger_stream);
  else if (ctx->kind == DTL_LOGGER_FUNC)
    ctx->log_func = load(logger_func);
  return ctx;
}

void dtl_destroy_logger_ctx(dtl_logger_ctx_t* ctx) { free(ctx); }

int _dtl_register_logger(const dtl_logger_ctx_t* ctx) {
  if (ctx == nullptr) return 0;
  if (ctx->kind == load(logger_kind) && ctx->level == load(dtl_log_level) &&
      ctx->mutex == load(logger_mutex) && ctx->log_func == load(logger_func) &&
      ctx->stream == load(logger_stream))
    return 1;
  store(logger_mutex, ctx->mutex);
  // A host may hand over a logger it never initialised (level -1). Keeping -1
  // would send every line into the lazy initialisation, which a registered
  // logger refuses, so such a logger is taken as switched off.
  store(dtl_log_level, sanitised_level(ctx->level));
  store(is_registered, true);
  store(logger_kind, ctx->kind);
  if (ctx->kind == DTL_LOGGER_FUNC)
    store(logger_func, ctx->log_func);
  else if (ctx->kind == DTL_LOGGER_STDERR || ctx->kind == DTL_LOGGER_FILE)
    store(logger_stream, ctx->stream);
  return 1;
}

int dtl_init_stderr_logger(int level) {
  if (refuse_when_registered("dtl_init_stderr_logger")) return 0;
  store(logger_stream, stderr);
  store(logger_kind, static_cast<uint32_t>(DTL_LOGGER_STDERR));
  store(dtl_log_level, static_cast<int32_t>(level));
  after_init("dtl_init_stderr_logger");
  return 1;
}

int dtl_init_syslog_logger(const char* ident, int level) {
  if (refuse_when_registered("dtl_init_syslog_logger")) return 0;
  openlog(ident, LOG_PID | LOG_CONS, LOG_DAEMON);
  store(dtl_log_level, static_cast<int32_t>(level));
  store(logger_kind, static_cast<uint32_t>(DTL_LOGGER_SYSLOG));
  after_init("dtl_init_syslog_logger");
  return 1;
}

int dtl_init_file_logger(const char* path, int level) {
  if (refuse_when_registered("dtl_init_file_logger")) return 0;
  dtl_close_logger();
  FILE* file = path != nullptr ? fopen(path, "w") : nullptr;
  if (file == nullptr) {
    dtl_init_stderr_logger(level);
    return 0;
  }
  store(logger_stream, file);
  store(logger_kind, static_cast<uint32_t>(DTL_LOGGER_FILE));
  store(dtl_log_level, static_cast<int32_t>(level));
  after_init("dtl_init_file_logger");
  return 1;
}

void dtl_close_logger(void) {
  if (registered()) {
    DTL_LOG_DEBUG("[logger] [%s] tried closing a registered logger, skipping closure",
                  "dtl_close_logger");
    return;
  }
  uint32_t kind = load(logger_kind);
  if (kind == DTL_LOGGER_SYSLOG) {
    closelog();
  } else if (kind == DTL_LOGGER_FILE) {
    // Swap the stream under the line mutex so no writer holds the old file.
    pthread_mutex_t* mutex = load(logger_mutex);
    if (mutex != nullptr) pthread_mutex_lock(mutex);
    FILE* old = load(logger_stream);
    store(logger_stream, stderr);
    store(logger_kind, static_cast<uint32_t>(DTL_LOGGER_STDERR));
    if (old != nullptr && old != stderr) fclose(old);
    if (mutex != nullptr) pthread_mutex_unlock(mutex);
  }
  dtl_init_stderr_logger(load(dtl_log_level));
}

int __dtl_init_logger_default(void) {
  // A line logged by the initialisation itself: the level is not settled yet,
  // so the line is dropped rather than starting over.
  if (initialising_default) return 0;
  uint64_t seen = __atomic_load_n(&default_init_count, __ATOMIC_ACQUIRE);
  std::lock_guard<std::mutex> guard(lazy_init_guard);
  // Several threads may have seen level -1 at once; the ones that queued
  // behind the first keep its result. A call that did not wait for another
  // initialisation (an explicit one) reads the environment again.
  if (default_init_count != seen && load(dtl_log_level) != -1) return 1;
  initialising_default = true;
  int level = 0;
  const char* text = dtl_getenv("DTL_API_LOG_LEVEL");
  int scanned = 0;
  if (text != nullptr && sscanf(text, "%d", &scanned) == 1) level = sanitised_level(scanned);
  // The default sink is standard error: an explicit call after a file or
  // syslog sink was set up releases that sink instead of leaking it.
  uint32_t kind = load(logger_kind);
  if (!registered() && (kind == DTL_LOGGER_FILE || kind == DTL_LOGGER_SYSLOG)) dtl_close_logger();
  int result = dtl_init_stderr_logger(level);
  // A registered logger refuses, and may have been left at -1 by its host:
  // switch it off instead of retrying on every line.
  if (result == 0 && load(dtl_log_level) == -1) store(dtl_log_level, static_cast<int32_t>(0));
  __atomic_store_n(&default_init_count, default_init_count + 1, __ATOMIC_RELEASE);
  initialising_default = false;
  return result;
}

void _dtl_log(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (load(logger_kind) == DTL_LOGGER_SYSLOG) {
    vsyslog(level, format, args);
    va_end(args);
    return;
  }
  FILE* stream = load(logger_stream);
  if (stream == nullptr) {
    // A registered logger cannot be re-initialised (and the refusal would log
    // through here again); it simply gets standard error.
    if (!registered()) dtl_init_stderr_logger(load(dtl_log_level));
    stream = load(logger_stream);
    // A registered logger without a stream still must not lose the line.
    if (stream == nullptr) stream = stderr;
  }
  pthread_mutex_t* mutex = load(logger_mutex);
  if (mutex != nullptr) pthread_mutex_lock(mutex);
  // The stream may have been swapped while we waited for the lock.
  stream = load(logger_stream) != nullptr ? load(logger_stream) : stream;
  dtl_dump_timestamp_logger(stream);
  fputs(dtl_priority_level_string_logger(level), stream);
  vfprintf(stream, format, args);
  fputc('\n', stream);
  fflush(stream);
  if (mutex != nullptr) pthread_mutex_unlock(mutex);
  va_end(args);
}

void dtl_dump_timestamp_logger(FILE* stream) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  long millis = now.tv_nsec / 1000000;
  time_t seconds = now.tv_sec;
  if (millis > 999) {
    millis -= 1000;
    seconds += 1;
  }
  struct tm local;
  localtime_r(&seconds, &local);
  char text[26];
  strftime(text, sizeof(text), "[%Y-%m-%d %H:%M:%S", &local);
  fprintf(stream, "%s.%03d] ", text, static_cast<int>(millis));
}

const char* dtl_priority_level_string_logger(int level) {
  switch (level) {
    case DTL_LOG_LEVEL_ERROR:
      return "[error] ";
    case DTL_LOG_LEVEL_WARNING:
      return "[warning] ";
    case DTL_LOG_LEVEL_INFO:
      return "[info] ";
    case DTL_LOG_LEVEL_DEBUG:
      return "[debug] ";
    default:
      return "";
  }
}

void log_hex(const void* bytes, size_t length) {
  if (length == 0 || !DTL_LOG_ENABLED(DTL_LOG_LEVEL_DEBUG)) return;
  const auto* data = static_cast<const unsigned char*>(bytes);
  // 16 bytes as "XX " (50 columns with the two group blanks), "|  ", the
  // printable characters and one trailing blank.
  constexpr size_t kHexColumns = 50;
  for (size_t start = 0; start < length; start += 16) {
    size_t count = length - start < 16 ? length - start : 16;
    char line[kHexColumns + 3 + 16 + 2];
    size_t pos = 0;
    for (size_t i = 0; i < count; ++i) {
      pos += static_cast<size_t>(snprintf(line + pos, sizeof(line) - pos, "%02X ", data[start + i]));
      if (i == 7 || i == 15) line[pos++] = ' ';
    }
    while (pos < kHexColumns) line[pos++] = ' ';
    memcpy(line + pos, "|  ", 3);
    pos += 3;
    for (size_t i = 0; i < count; ++i) {
      unsigned char c = data[start + i];
      line[pos++] = (c >= 0x20 && c <= 0x7E) ? static_cast<char>(c) : '.';
    }
    line[pos++] = ' ';
    line[pos] = '\0';
    DTL_LOG_DEBUG("%s", line);
  }
}

void dtl_logger_cleanup_mutex_exit_handler(void) {
  if (registered()) return;
  pthread_mutex_t* mutex = load(logger_mutex);
  if (mutex == nullptr) return;
  store(logger_mutex, static_cast<pthread_mutex_t*>(nullptr));
  pthread_mutex_destroy(mutex);
}

const char* dtl_getenv(const char* name) {
  if (name == nullptr) return nullptr;
  std::string prefixed;
  const char* unprefixed;
  if (strncmp(name, "DTL_", 4) == 0) {
    prefixed = name;
    unprefixed = name + 4;
  } else {
    prefixed = std::string("DTL_") + name;
    unprefixed = name;
  }
  const char* prefixed_value = getenv(prefixed.c_str());
  const char* unprefixed_value = getenv(unprefixed);
  if (prefixed_value != nullptr && unprefixed_value != nullptr &&
      strcmp(prefixed_value, unprefixed_value) != 0 && strcmp(name, "DTL_API_LOG_LEVEL") != 0) {
    DTL_LOG_WARNING("[%s] Environment variables conflict - %s=%s and %s=%s. Using %s", "dtl_getenv",
                    prefixed.c_str(), prefixed_value, unprefixed, unprefixed_value,
                    prefixed.c_str());
  }
  return prefixed_value != nullptr ? prefixed_value : unprefixed_value;
}

}  // extern "C"
