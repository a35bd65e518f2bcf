// Naming of the library's threads (visible in top, gdb and /proc).
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "dtl_logger.h"

extern "C" void dtl_set_thread_name(const char* format, ...) {
  // The kernel keeps at most 15 characters and the terminating zero.
  char name[16];
  va_list args;
  va_start(args, format);
  int length = vsnprintf(name, sizeof(name), format, args);
  va_end(args);
  if (length < 0) return;
  if (length > 15)
    DTL_LOG_WARNING("dtl_set_thread_name: thread name truncated to '%s'", name);
  int rc = pthread_setname_np(pthread_self(), name);
  if (rc != 0)
    DTL_LOG_WARNING("dtl_set_thread_name: failed to set thread name '%s': %s", name, strerror(rc));
}
