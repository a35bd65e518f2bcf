// The fixed 256-byte header that opens every data file, the framework's
// 4-byte magic values ("DTL" plus a type letter) and the format version
// operations that decide whether a reader may trust a file.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "dtl_export.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

#define DTL_MAGIC_SIZE 4
#define DTL_MAGIC_TYPE_FILE 'F'
#define DTL_MAGIC_TYPE_DATA 'D'

#define DTL_DATA_FILE_HEADER_SIZE 256
#define DTL_DATA_FILE_SOURCE_ID_SIZE 64
#define DTL_DATA_FILE_SOURCE_TAG_SIZE 16
#define DTL_DATA_FILE_SCHEMA_ID_SIZE 16
#define DTL_DATA_FILE_EVENT_SCHEMA_COUNT 7

// Format version of the header written by this library.
#define DTL_DATA_FILE_VERSION_MAJOR 1
#define DTL_DATA_FILE_VERSION_MINOR 7
#define DTL_DATA_FILE_VERSION_PATCH 0

// Release version of the framework, used in the incompatibility message.
#define DTL_FRAMEWORK_VERSION_STRING "1.26.5"

DTL_EXTERN_C_BEGIN

// In a file these are bytes 4, 5 and 6-7; read as one little-endian 32-bit
// word they form the packed version (major | minor << 8 | patch << 16).
typedef struct dtl_version {
  uint8_t major;
  uint8_t minor;
  uint16_t patch;
} dtl_version_t;

// All integers are little-endian (byte_order 0); the layout is the on-disk
// format, so every offset is pinned by static assertions.
typedef struct dtl_data_file_header {
  char magic[DTL_MAGIC_SIZE];
  dtl_version_t version;
  uint64_t file_size;
  char source_id[DTL_DATA_FILE_SOURCE_ID_SIZE];
  char source_tag[DTL_DATA_FILE_SOURCE_TAG_SIZE];
  uint64_t first_timestamp;
  uint64_t last_timestamp;
  uint32_t block_size;
  unsigned char counters_schema_id[DTL_DATA_FILE_SCHEMA_ID_SIZE];
  unsigned char event_schema_ids[DTL_DATA_FILE_EVENT_SCHEMA_COUNT][DTL_DATA_FILE_SCHEMA_ID_SIZE];
  uint8_t byte_order;
  uint8_t padding[7];
  char magic_end[DTL_MAGIC_SIZE];
} dtl_data_file_header_t;

// Magic values: "DTL" and a type letter; the lower-case form ends files.
DTL_EXPORT void dtl_magic_value_fill(void* magic, char type);
DTL_EXPORT void dtl_magic_value_fill_lower(void* magic, char type);
DTL_EXPORT void dtl_magic_value_copy(void* destination, const void* source);
DTL_EXPORT bool dtl_magic_value_match_type(const void* magic, char type);
DTL_EXPORT bool dtl_magic_value_match(const void* a, const void* b);

// Versions are packed: lowest byte major, next byte minor, upper 16 bits patch.
DTL_EXPORT uint32_t dtl_version(void);
DTL_EXPORT const char* dtl_version_string(void);
// Static buffer, overwritten by the next call.
DTL_EXPORT const char* dtl_version_to_string(uint32_t version);
// 0 when the text holds fewer than two numbers.
DTL_EXPORT uint32_t dtl_version_from_string(const char* text);
// The reader understands data of the same major and a minor up to its own;
// patches never matter. The reader version holds major and minor only.
DTL_EXPORT bool dtl_versions_are_compatible(uint32_t data_version, uint16_t reader_version);
DTL_EXPORT int dtl_version_compare(uint32_t a, uint32_t b);
DTL_EXPORT bool dtl_version_strings_are_compatible(const char* data_version,
                                                   const char* reader_version);

// Default header: magic, current version, file_size 256, everything else 0.
DTL_EXPORT dtl_data_file_header_t* dtl_create_data_file_header(void);
DTL_EXPORT void dtl_destroy_data_file_header(dtl_data_file_header_t* header);
// Checks magic, version compatibility and file size; logs the first failure.
DTL_EXPORT bool dtl_data_file_header_is_valid(const dtl_data_file_header_t* header);
// Text form of event schema identifier number index (0-6); the caller frees it.
DTL_EXPORT char* dtl_data_file_header_get_schema_id_str(const dtl_data_file_header_t* header,
                                                        unsigned index);
DTL_EXPORT void dtl_data_file_header_print(FILE* stream, const dtl_data_file_header_t* header);
DTL_EXPORT void dtl_data_file_header_print_struct_layout(void);

// Writes the header of a new file into the first min(buffer_length, 256)
// bytes of buffer. Null schema identifiers stay unset (zero); event_schema_ids
// points to seven consecutive 16-byte identifiers. False, with the buffer
// untouched, when the header cannot be allocated.
DTL_EXPORT bool dtl_data_file_header_build(const char* source_id, const char* source_tag,
                                           uint64_t first_timestamp, uint32_t block_size,
                                           const unsigned char* counters_schema_id,
                                           const unsigned char* event_schema_ids, void* buffer,
                                           size_t buffer_length);

DTL_EXTERN_C_END
