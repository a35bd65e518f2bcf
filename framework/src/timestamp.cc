// Framework clock state and its offset ownership rules.
#include "dtl_timestamp.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

extern "C" {

DTL_EXPORT uint64_t _dtl_timestamp_offset_usec = 0;
DTL_EXPORT uint32_t _dtl_monotonic_timestamps_enabled = 0;
DTL_EXPORT uint64_t _dtl_last_emitted_usec = 0;
}

namespace {
// Party allowed to change the offset; 0 means nobody holds it.
uint32_t offset_owner = 0;
// Owner identifier used when an offset arrives from another process.
constexpr uint32_t kIpcOffsetOwner = 3;
}  // namespace

extern "C" {

uint32_t dtl_timestamp_set_monotonic_timestamps_enabled(uint32_t enabled) {
  __atomic_store_n(&_dtl_monotonic_timestamps_enabled, enabled, __ATOMIC_RELAXED);
  return enabled;
}

bool dtl_timestamp_monotonic_timestamps_enabled(void) {
  return __atomic_load_n(&_dtl_monotonic_timestamps_enabled, __ATOMIC_RELAXED) != 0;
}

void dtl_timestamp_set_offset(uint64_t offset_usec) {
  __atomic_store_n(&_dtl_timestamp_offset_usec, offset_usec, __ATOMIC_RELAXED);
}

uint64_t dtl_timestamp_get_offset(void) {
  return __atomic_load_n(&_dtl_timestamp_offset_usec, __ATOMIC_RELAXED);
}

bool dtl_timestamp_offset_claim(uint32_t owner) {
  if (owner == 0) return false;
  uint32_t current = __atomic_load_n(&offset_owner, __ATOMIC_RELAXED);
  if (current == owner) return true;
  if (current != 0) return false;
  uint32_t expected = 0;
  if (__atomic_compare_exchange_n(&offset_owner, &expected, owner, false, __ATOMIC_RELAXED,
                                  __ATOMIC_RELAXED))
    return true;
  return expected == owner;
}

uint32_t dtl_timestamp_offset_release(uint32_t owner) {
  uint32_t expected = owner;
  __atomic_compare_exchange_n(&offset_owner, &expected, 0, false, __ATOMIC_RELAXED,
                              __ATOMIC_RELAXED);
  return expected;
}

uint32_t dtl_timestamp_offset_get_owner(void) {
  return __atomic_load_n(&offset_owner, __ATOMIC_RELAXED);
}

bool dtl_timestamp_set_offset_monotonic(uint64_t offset_usec, uint32_t owner) {
  if (owner == 0 || __atomic_load_n(&offset_owner, __ATOMIC_RELAXED) != owner) return false;
  uint64_t current = __atomic_load_n(&_dtl_timestamp_offset_usec, __ATOMIC_RELAXED);
  while (offset_usec > current) {
    if (__atomic_compare_exchange_n(&_dtl_timestamp_offset_usec, &current, offset_usec, false,
                                    __ATOMIC_RELAXED, __ATOMIC_RELAXED))
      break;
  }
  return true;
}

bool dtl_timestamp_ipc_apply_offset(uint64_t offset_usec, bool apply) {
  if (!apply || offset_usec == dtl_timestamp_get_offset()) return false;
  if (!dtl_timestamp_offset_claim(kIpcOffsetOwner)) return false;
  if (dtl_timestamp_monotonic_timestamps_enabled())
    return dtl_timestamp_set_offset_monotonic(offset_usec, kIpcOffsetOwner);
  dtl_timestamp_set_offset(offset_usec);
  return true;
}

char* dtl_timestamp_to_string_ex(uint64_t usec, bool with_microseconds) {
  time_t seconds = static_cast<time_t>(usec / 1000000u);
  int fraction = static_cast<int>(usec % 1000000u);
  struct tm tm_local;
  if (localtime_r(&seconds, &tm_local) == nullptr) return nullptr;
  constexpr size_t kSize = 80;  // room for any int field the compiler can imagine
  char* text = static_cast<char*>(malloc(kSize));
  if (text == nullptr) return nullptr;
  if (with_microseconds)
    snprintf(text, kSize, "%04d-%02d-%02d %02d:%02d:%02d.%06d", tm_local.tm_year + 1900,
             tm_local.tm_mon + 1, tm_local.tm_mday, tm_local.tm_hour, tm_local.tm_min,
             tm_local.tm_sec, fraction);
  else
    snprintf(text, kSize, "%04d-%02d-%02d %02d:%02d:%02d.%03d", tm_local.tm_year + 1900,
             tm_local.tm_mon + 1, tm_local.tm_mday, tm_local.tm_hour, tm_local.tm_min,
             tm_local.tm_sec, fraction / 1000);
  return text;
}

char* dtl_timestamp_to_string(uint64_t usec) { return dtl_timestamp_to_string_ex(usec, false); }

}  // extern "C"
