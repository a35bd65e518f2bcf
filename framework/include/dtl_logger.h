// Process-wide framework logger: one level, one sink (standard error,
// syslog, a file or an external function) and an optional line mutex.
// Call sites log through DTL_LOG, which tests the level before any argument
// is formatted.
#pragma once

#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "dtl_export.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

DTL_EXTERN_C_BEGIN

// Syslog priorities used as log levels.
enum {
  DTL_LOG_LEVEL_ERROR = 3,
  DTL_LOG_LEVEL_WARNING = 4,
  DTL_LOG_LEVEL_INFO = 6,
  DTL_LOG_LEVEL_DEBUG = 7,
};

// Sink kinds.
enum {
  DTL_LOGGER_STDERR = 0,
  DTL_LOGGER_SYSLOG = 1,
  DTL_LOGGER_FILE = 2,
  DTL_LOGGER_FUNC = 3,
};

typedef void (*dtl_log_func_t)(int level, const char* format, ...);

// Handed between a host's copy of the framework and this library.
typedef struct dtl_logger_ctx {
  uint32_t kind;
  FILE* stream;             // kinds 0 and 2
  dtl_log_func_t log_func;  // kind 3
  int32_t level;
  pthread_mutex_t* mutex;
} dtl_logger_ctx_t;

// Current threshold; -1 until the logger has been initialised.
DTL_EXPORT extern int32_t dtl_log_level;
// Set once a foreign logger was registered; never cleared.
DTL_EXPORT extern bool is_registered;

DTL_EXPORT int dtl_set_log_level(int level);
DTL_EXPORT void dtl_set_log_func(dtl_log_func_t func, int level);
DTL_EXPORT dtl_log_func_t dtl_get_log_func(void);
DTL_EXPORT dtl_logger_ctx_t* dtl_get_logger_ctx(void);
DTL_EXPORT void dtl_destroy_logger_ctx(dtl_logger_ctx_t* ctx);
DTL_EXPORT int _dtl_register_logger(const dtl_logger_ctx_t* ctx);
DTL_EXPORT int dtl_init_stderr_logger(int level);
DTL_EXPORT int dtl_init_syslog_logger(const char* ident, int level);
DTL_EXPORT int dtl_init_file_logger(const char* path, int level);
DTL_EXPORT void dtl_close_logger(void);
DTL_EXPORT int __dtl_init_logger_default(void);
DTL_EXPORT void _dtl_log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
DTL_EXPORT void dtl_dump_timestamp_logger(FILE* stream);
DTL_EXPORT const char* dtl_priority_level_string_logger(int level);
DTL_EXPORT void log_hex(const void* bytes, size_t length);
DTL_EXPORT void dtl_logger_cleanup_mutex_exit_handler(void);

// Environment lookup with the "DTL_" prefix winning over the bare name.
DTL_EXPORT const char* dtl_getenv(const char* name);

// Names the calling thread (at most 15 characters; longer names are cut
// with a warning).
DTL_EXPORT void dtl_set_thread_name(const char* format, ...) __attribute__((format(printf, 1, 2)));

DTL_EXTERN_C_END

// Relaxed atomic read: the level is a plain exported int that the host may
// change while threads log.
#define DTL_LOG_LEVEL_NOW() __atomic_load_n(&dtl_log_level, __ATOMIC_RELAXED)

// The log call convention: lazy initialisation, level test at the call site,
// then the external function when one is set, else the built-in sink.
#define DTL_LOG(level, ...)                                   \
  do {                                                        \
    if (DTL_LOG_LEVEL_NOW() == -1) __dtl_init_logger_default(); \
    if (DTL_LOG_LEVEL_NOW() >= (level)) {                     \
      dtl_log_func_t dtl_log_fn_ = dtl_get_log_func();        \
      if (dtl_log_fn_ != NULL)                                \
        dtl_log_fn_((level), __VA_ARGS__);                    \
      else                                                    \
        _dtl_log((level), __VA_ARGS__);                       \
    }                                                         \
  } while (0)

#define DTL_LOG_ERROR(...) DTL_LOG(DTL_LOG_LEVEL_ERROR, __VA_ARGS__)
#define DTL_LOG_WARNING(...) DTL_LOG(DTL_LOG_LEVEL_WARNING, __VA_ARGS__)
#define DTL_LOG_INFO(...) DTL_LOG(DTL_LOG_LEVEL_INFO, __VA_ARGS__)
#define DTL_LOG_DEBUG(...) DTL_LOG(DTL_LOG_LEVEL_DEBUG, __VA_ARGS__)
#define DTL_LOG_ENABLED(level) (DTL_LOG_LEVEL_NOW() >= (level))
