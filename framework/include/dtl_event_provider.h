// The event-provider record a host receives from a plug-in's
// construct_event_provider, and the info record the provider fills for the
// host. Both are plain C layouts shared with hosts written in C, so every
// slot keeps its byte offset.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "dtl_dict.h"
#include "dtl_export.h"
#include "dtl_source.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

DTL_EXTERN_C_BEGIN

struct dtl_event_provider;
struct dtl_provider_info;

typedef bool (*dtl_provider_initialize_fn)(struct dtl_event_provider* provider, void* arg);
typedef bool (*dtl_provider_start_fn)(struct dtl_event_provider* provider);
typedef bool (*dtl_provider_aux_query_fn)(struct dtl_event_provider* provider, void* arg);
typedef bool (*dtl_provider_stop_fn)(struct dtl_event_provider* provider);
typedef void (*dtl_provider_destroy_fn)(struct dtl_event_provider* provider);
// The returned array belongs to the caller (dtl_destroy_source_array).
typedef dtl_source_array_t* (*dtl_provider_get_sources_fn)(struct dtl_event_provider* provider);
typedef bool (*dtl_provider_fill_info_fn)(struct dtl_event_provider* provider, void* arg,
                                          struct dtl_provider_info* info);
typedef void (*dtl_provider_aux_hook_fn)(struct dtl_event_provider* provider, void* arg);

// 19 eight-byte slots; allocated by the plug-in and released only by its
// own destroy callback. Unnamed slots are null.
typedef struct dtl_event_provider {
  uint32_t header;  // record version, 1
  uint32_t header_reserved;
  const char* name;
  const char* description;
  void* reserved3;
  void* context;  // the plug-in's own state
  dtl_provider_initialize_fn initialize;
  void* reserved6;
  dtl_provider_start_fn start;
  dtl_provider_aux_query_fn aux_query;
  dtl_provider_stop_fn stop;
  dtl_provider_destroy_fn destroy;
  dtl_provider_get_sources_fn get_sources;
  dtl_provider_fill_info_fn fill_info;
  dtl_provider_aux_hook_fn aux_hook;
  void* reserved14;
  void* reserved15;
  void* reserved16;
  void* reserved17;
  void* reserved18;
} dtl_event_provider_t;

// Bits of dtl_provider_info_t::mask.
#define DTL_PROVIDER_INFO_BASE_MASK 0x0D
#define DTL_PROVIDER_INFO_AUTO_STOP 0x10

// Owned by the host and filled by the provider's fill_info callback.
typedef struct dtl_provider_info {
  uint64_t mask;
  uint32_t value_u32;
  uint16_t value_u16;
  uint8_t value_u8;
  uint32_t auto_stop_timeout_sec;  // valid only with DTL_PROVIDER_INFO_AUTO_STOP
} dtl_provider_info_t;

// The plug-in entry point: reads the options and builds a provider that is
// not yet running; null on failure.
typedef dtl_event_provider_t* (*dtl_construct_event_provider_fn)(const dtl_custom_options* options);
DTL_EXPORT dtl_event_provider_t* construct_event_provider(const dtl_custom_options* options);

// The layout is fixed towards the host: check it wherever the header is used.
#ifdef __cplusplus
#define DTL_EVENT_PROVIDER_ASSERT(cond, text) static_assert(cond, text)
#else
#define DTL_EVENT_PROVIDER_ASSERT(cond, text) _Static_assert(cond, text)
#endif
#define DTL_EVENT_PROVIDER_CHECK_OFFSET(field, offset) \
  DTL_EVENT_PROVIDER_ASSERT(offsetof(dtl_event_provider_t, field) == (offset), "slot " #field " moved")

DTL_EVENT_PROVIDER_CHECK_OFFSET(header, 0);
DTL_EVENT_PROVIDER_CHECK_OFFSET(name, 8);
DTL_EVENT_PROVIDER_CHECK_OFFSET(description, 16);
DTL_EVENT_PROVIDER_CHECK_OFFSET(reserved3, 24);
DTL_EVENT_PROVIDER_CHECK_OFFSET(context, 32);
DTL_EVENT_PROVIDER_CHECK_OFFSET(initialize, 40);
DTL_EVENT_PROVIDER_CHECK_OFFSET(reserved6, 48);
DTL_EVENT_PROVIDER_CHECK_OFFSET(start, 56);
DTL_EVENT_PROVIDER_CHECK_OFFSET(aux_query, 64);
DTL_EVENT_PROVIDER_CHECK_OFFSET(stop, 72);
DTL_EVENT_PROVIDER_CHECK_OFFSET(destroy, 80);
DTL_EVENT_PROVIDER_CHECK_OFFSET(get_sources, 88);
DTL_EVENT_PROVIDER_CHECK_OFFSET(fill_info, 96);
DTL_EVENT_PROVIDER_CHECK_OFFSET(aux_hook, 104);
DTL_EVENT_PROVIDER_CHECK_OFFSET(reserved14, 112);
DTL_EVENT_PROVIDER_CHECK_OFFSET(reserved18, 144);
DTL_EVENT_PROVIDER_ASSERT(sizeof(dtl_event_provider_t) == 152, "the record is 19 slots");
DTL_EVENT_PROVIDER_ASSERT(offsetof(dtl_provider_info_t, value_u32) == 8, "info layout");
DTL_EVENT_PROVIDER_ASSERT(offsetof(dtl_provider_info_t, value_u16) == 12, "info layout");
DTL_EVENT_PROVIDER_ASSERT(offsetof(dtl_provider_info_t, value_u8) == 14, "info layout");
DTL_EVENT_PROVIDER_ASSERT(offsetof(dtl_provider_info_t, auto_stop_timeout_sec) == 16,
                          "info layout");
#undef DTL_EVENT_PROVIDER_CHECK_OFFSET
#undef DTL_EVENT_PROVIDER_ASSERT

DTL_EXTERN_C_END
