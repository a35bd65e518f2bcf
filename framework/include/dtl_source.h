// Data sources (where data comes from: an identifier, by default the host
// name, and a short tag), arrays of them, and the client identifier that
// names the collecting node.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "dtl_export.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

#define DTL_SOURCE_ID_SIZE 64
#define DTL_SOURCE_TAG_SIZE 16
// Largest number of sources in an array; the index after it means "not found".
#define DTL_SOURCE_ARRAY_MAX 65534
#define DTL_SOURCE_INDEX_NOT_FOUND 0xFFFF

#define DTL_CLIENT_ID_HOST_NAME_SIZE 64

DTL_EXTERN_C_BEGIN

// Plain data: both fields are zero-terminated and zero-filled.
typedef struct dtl_source {
  char identifier[DTL_SOURCE_ID_SIZE];
  char tag[DTL_SOURCE_TAG_SIZE];
} dtl_source_t;

// Owns the pointer array and every source in it.
typedef struct dtl_source_array {
  uint16_t count;
  dtl_source_t** sources;
} dtl_source_array_t;

// Plain data, 66 bytes with no tail padding so that it can be copied as is.
typedef struct __attribute__((packed)) dtl_client_id {
  char host_name[DTL_CLIENT_ID_HOST_NAME_SIZE];
  uint16_t port;
} dtl_client_id_t;

// Null identifier or tag count as empty text.
DTL_EXPORT dtl_source_t* dtl_create_source(const char* identifier, const char* tag);
// Identifier from DTL_SOURCE_ID, else the host name.
DTL_EXPORT dtl_source_t* dtl_create_default_source(const char* tag);
DTL_EXPORT void dtl_destroy_source(dtl_source_t* source);
DTL_EXPORT dtl_source_t* dtl_source_copy(dtl_source_t* destination, const dtl_source_t* source);
DTL_EXPORT int dtl_source_compare(const dtl_source_t* a, const dtl_source_t* b);
// The identifier alone; the caller frees it.
DTL_EXPORT char* dtl_source_string(const dtl_source_t* source);
// "identifier:tag"; false when it does not fit into size bytes.
DTL_EXPORT bool dtl_source_full_string(const dtl_source_t* source, char* buffer, size_t size);

DTL_EXPORT dtl_source_array_t* dtl_create_source_array(void);
// Takes ownership of source on success only.
DTL_EXPORT bool dtl_source_array_append(dtl_source_array_t* array, dtl_source_t* source);
// Index of that very pointer, or DTL_SOURCE_INDEX_NOT_FOUND.
DTL_EXPORT uint16_t dtl_source_array_find_source(const dtl_source_array_t* array,
                                                 const dtl_source_t* source);
DTL_EXPORT void dtl_destroy_source_array(dtl_source_array_t* array);
DTL_EXPORT dtl_source_array_t* dtl_create_default_source_array(const char* tag);
// One debug line per source; returns the number of sources.
DTL_EXPORT size_t dtl_source_array_log(const dtl_source_array_t* array, const char* prefix);
// "N" (sources 1 to N), "A-B" or "prefix[A-B]"; identifiers are base "_" number.
DTL_EXPORT dtl_source_array_t* dtl_create_source_array_from_string(const char* text);
// An existing file lists the sources; any other text is a range form.
DTL_EXPORT dtl_source_array_t* dtl_create_source_array_from_input(const char* text);

// DTL_HOST_NAME, else the system host name up to its first dot.
DTL_EXPORT char* dtl_get_hostname(char* buffer, size_t size);
DTL_EXPORT dtl_client_id_t* dtl_client_id_allocate(void);
DTL_EXPORT dtl_client_id_t* dtl_client_id_copy(dtl_client_id_t* destination,
                                               const dtl_client_id_t* source);
DTL_EXPORT dtl_client_id_t* dtl_client_id_print(dtl_client_id_t* client_id);
DTL_EXPORT void dtl_client_id_print_struct_layout(void);

DTL_EXTERN_C_END
