// Framework clock: wall-clock microseconds since the epoch, plus an optional
// offset and an optional rule that readings never go backwards.
#pragma once

#include <stdint.h>
#include <time.h>

#include "dtl_export.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

DTL_EXTERN_C_BEGIN

DTL_EXPORT extern uint64_t _dtl_timestamp_offset_usec;
DTL_EXPORT extern uint32_t _dtl_monotonic_timestamps_enabled;
DTL_EXPORT extern uint64_t _dtl_last_emitted_usec;

DTL_EXPORT uint32_t dtl_timestamp_set_monotonic_timestamps_enabled(uint32_t enabled);
DTL_EXPORT bool dtl_timestamp_monotonic_timestamps_enabled(void);
DTL_EXPORT void dtl_timestamp_set_offset(uint64_t offset_usec);
DTL_EXPORT uint64_t dtl_timestamp_get_offset(void);
DTL_EXPORT bool dtl_timestamp_offset_claim(uint32_t owner);
DTL_EXPORT uint32_t dtl_timestamp_offset_release(uint32_t owner);
DTL_EXPORT uint32_t dtl_timestamp_offset_get_owner(void);
DTL_EXPORT bool dtl_timestamp_set_offset_monotonic(uint64_t offset_usec, uint32_t owner);
DTL_EXPORT bool dtl_timestamp_ipc_apply_offset(uint64_t offset_usec, bool apply);
// Local time text with microseconds or milliseconds; the caller frees it.
DTL_EXPORT char* dtl_timestamp_to_string_ex(uint64_t usec, bool with_microseconds);
DTL_EXPORT char* dtl_timestamp_to_string(uint64_t usec);

DTL_EXTERN_C_END

// Expanded where it is used so that the hot path pays one clock read.
static inline uint64_t dtl_timestamp_now(void) {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  uint64_t sec = (uint64_t)ts.tv_sec;
  uint64_t nsec = (uint64_t)ts.tv_nsec;
  if (nsec > 999999999u) {
    sec += 1;
    nsec -= 1000000000u;
  }
  uint64_t now = sec * 1000000u + nsec / 1000u +
                 __atomic_load_n(&_dtl_timestamp_offset_usec, __ATOMIC_RELAXED);
  if (__atomic_load_n(&_dtl_monotonic_timestamps_enabled, __ATOMIC_RELAXED) == 0) return now;
  uint64_t last = __atomic_load_n(&_dtl_last_emitted_usec, __ATOMIC_RELAXED);
  while (now > last) {
    if (__atomic_compare_exchange_n(&_dtl_last_emitted_usec, &last, now, false, __ATOMIC_RELAXED,
                                    __ATOMIC_RELAXED))
      return now;
  }
  return last;
}
