// Counters schemas (groups of counter descriptions with their sizes and
// offsets inside a sample), their JSON form, the 16-byte schema identifiers
// that name them (MD5 of the pretty JSON text), the MD5 helpers, and the
// counters data block that stores one sample in a data file.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "dtl_export.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

#define DTL_SCHEMA_ID_SIZE 16
// Text form: two lower-case hex characters per byte and a terminating zero.
#define DTL_SCHEMA_ID_STRING_SIZE 33
#define DTL_MD5_DIGEST_SIZE 16
#define DTL_MD5_HEX_SIZE 33

// Returned by the name-to-number lookups for a name outside the vocabulary.
#define DTL_VOCABULARY_UNKNOWN 0xFFFFFFFFu

DTL_EXTERN_C_BEGIN

// A schema identifier; decays to the unsigned char* taken by the operations.
typedef unsigned char dtl_schema_id_t[DTL_SCHEMA_ID_SIZE];

// JSON document handed out by dtl_counters_schema_jsonify (see dtl_json.h).
typedef struct dtl_json_value dtl_json_value_t;

enum {
  DTL_DATA_TYPE_UNDEFINED = 0,
  DTL_DATA_TYPE_UINT64 = 1,
  DTL_DATA_TYPE_FP64 = 2,
  DTL_DATA_TYPE_BIT64 = 3,
  DTL_DATA_TYPE_INT64 = 4,
  DTL_DATA_TYPE_STRING = 5,
  DTL_DATA_TYPE_UINT128 = 6,
  DTL_DATA_TYPE_INT128 = 7,
};

enum {
  DTL_COUNTING_TYPE_ABSOLUTE = 0,
  DTL_COUNTING_TYPE_RUNNING_SUM = 1,
  DTL_COUNTING_TYPE_DELTA = 2,
};

enum {
  DTL_STRING_FORMAT_DEFAULT = 0,
  DTL_STRING_FORMAT_DECIMAL = 1,
  DTL_STRING_FORMAT_HEXADECIMAL = 2,
  DTL_STRING_FORMAT_UUID = 3,
  DTL_STRING_FORMAT_BINARY = 4,
};

enum {
  DTL_GRANULARITY_NODE = 0,
  DTL_GRANULARITY_CPU = 1,
  DTL_GRANULARITY_PACKAGE = 2,
};

// One counter. Strings are owned by the record.
typedef struct dtl_counter_info {
  uint32_t identifier;  // copied along, never part of the JSON form
  char* name;
  char* description;
  char* units;
  uint32_t data_type;
  uint32_t counting_type;
  uint32_t offset;    // byte offset inside a sample's value area
  uint32_t length;    // byte length of the value
  uint32_t reserved;  // not part of the JSON form
  uint8_t hidden;
  uint8_t mandatory;
  uint8_t index;
  uint32_t string_format;
} dtl_counter_info_t;

typedef struct dtl_counter_group dtl_counter_group_t;

// A source of counters that may veto counters added to its groups.
typedef struct dtl_counter_provider {
  const char* name;
  // Null accepts every counter.
  bool (*accept_counter)(struct dtl_counter_provider* provider, dtl_counter_group_t* group,
                         const dtl_counter_info_t* counter);
  void* context;
} dtl_counter_provider_t;

struct dtl_counter_group {
  dtl_counter_provider_t* provider;  // null for a group without provider
  void* counter_set;                 // null for a group without provider
  uint32_t identifier;               // taken from the provider / counter set
  uint64_t value;                    // taken from the provider / counter set
  uint32_t granularity;
  uint32_t num_counter_sets;
  uint32_t num_counters;
  dtl_counter_info_t** counters;  // owned records
  char* name;
  char* provider_name;
};

typedef struct dtl_counters_schema {
  uint32_t size_of_counters;  // bytes of all values; kept by dtl_counters_schema_add_counter
  uint32_t num_groups;
  dtl_counter_group_t** groups;  // owned
} dtl_counters_schema_t;

// One stored sample: "DTLD", 4 zero bytes, the time in microseconds, then
// the values as the schema's offsets lay them out.
typedef struct dtl_counters_data {
  struct {
    char magic[4];
  } header;
  uint32_t padding;
  uint64_t timestamp;
  uint64_t values[];
} dtl_counters_data_t;

#ifdef __cplusplus
static_assert(offsetof(dtl_counters_data_t, header.magic) == 0, "block layout");
static_assert(offsetof(dtl_counters_data_t, padding) == 4, "block layout");
static_assert(offsetof(dtl_counters_data_t, timestamp) == 8, "block layout");
static_assert(offsetof(dtl_counters_data_t, values) == 16, "block layout");
static_assert(sizeof(dtl_counters_data_t) == 16, "block layout");
#else
_Static_assert(offsetof(dtl_counters_data_t, header.magic) == 0, "block layout");
_Static_assert(offsetof(dtl_counters_data_t, padding) == 4, "block layout");
_Static_assert(offsetof(dtl_counters_data_t, timestamp) == 8, "block layout");
_Static_assert(offsetof(dtl_counters_data_t, values) == 16, "block layout");
_Static_assert(sizeof(dtl_counters_data_t) == 16, "block layout");
#endif

// ---- Schema identifiers (16 bytes; all zero = unset) ----

DTL_EXPORT bool dtl_schema_id_is_unset(const unsigned char* id);
DTL_EXPORT void dtl_copy_schema_id(unsigned char* dst, const unsigned char* src);
DTL_EXPORT void dtl_reset_schema_id(unsigned char* id);
// memcmp of the 16 bytes.
DTL_EXPORT int dtl_compare_schema_id(const unsigned char* a, const unsigned char* b);
// Newly allocated 32 hex characters; null on failure. The caller frees it.
DTL_EXPORT char* dtl_schema_id_string(const unsigned char* id);
// Writes 33 bytes (32 hex characters and a zero) into buffer.
DTL_EXPORT void dtl_schema_id_to_schema_string(const unsigned char* id, char* buffer);
// Exactly 32 hex digits of either case; id is untouched on failure.
DTL_EXPORT bool dtl_schema_from_id_string(const char* text, unsigned char* id);
// The identifier whose bytes are the text "BLOB_DATA_SCHEMA" marks blob data.
DTL_EXPORT bool dtl_schema_id_is_blob(const unsigned char* id);
DTL_EXPORT void dtl_schema_id_set_blob(unsigned char* id);

// ---- MD5 ----

// 16-byte digest into out; returns out.
DTL_EXPORT unsigned char* dtl_MD5(const void* data, size_t length, unsigned char* out);
// 32 lower-case hex characters and a zero into out (33 bytes); returns out.
DTL_EXPORT char* dtl_HexMD5(const void* data, size_t length, char* out);
// Hex digest of the whole file into out (33 bytes); false with out empty
// when the file cannot be opened or read, is empty, or cannot be buffered.
DTL_EXPORT bool dtl_compute_file_md5(const char* path, char* out);
// The schema identifier of a pretty JSON text: MD5 of its bytes.
DTL_EXPORT bool dtl_get_schema_id_from_pretty_json_string(const char* text, unsigned char* id);
// Serialises json pretty-printed and takes the identifier of that text.
DTL_EXPORT bool dtl_type_system_get_json_schema_id(unsigned char* id, const dtl_json_value_t* json);

// ---- Vocabularies ----
// Name of a number, or null when the number is not in the vocabulary
// (granularity: "unknown"). Number of a name (exact match), or
// DTL_VOCABULARY_UNKNOWN; dtl_string_format_from_string(NULL) is 0.

DTL_EXPORT const char* dtl_data_type_to_string(uint32_t data_type);
DTL_EXPORT uint32_t dtl_data_type_from_string(const char* name);
DTL_EXPORT const char* dtl_counting_type_to_string(uint32_t counting_type);
DTL_EXPORT uint32_t dtl_counting_type_from_string(const char* name);
DTL_EXPORT const char* dtl_string_format_to_string(uint32_t string_format);
DTL_EXPORT uint32_t dtl_string_format_from_string(const char* name);
DTL_EXPORT const char* dtl_granularity_to_string(uint32_t granularity);
DTL_EXPORT uint32_t dtl_granularity_from_string(const char* name);

// ---- Counter info records ----

// Copies every field into dst with the strings duplicated (null stays
// null); dst's previous strings are not freed.
DTL_EXPORT bool dtl_counter_info_deep_copy(dtl_counter_info_t* dst, const dtl_counter_info_t* src);
// Frees the three strings and nulls them; the record itself stays.
DTL_EXPORT void dtl_destroy_counter_info(dtl_counter_info_t* info);
// Fills out from a counter's JSON object ("name", "description", "units",
// "data_type" and "counting_type" required as strings; the rest optional).
// On success out owns its strings (release with dtl_destroy_counter_info).
DTL_EXPORT bool dtl_counter_info_from_json(const dtl_json_value_t* json, dtl_counter_info_t* out);

// ---- Groups ----

// Null names are taken as empty texts; granularity NODE, one counter set.
DTL_EXPORT dtl_counter_group_t* dtl_create_counter_group_no_provider(const char* name,
                                                                     const char* provider_name);
DTL_EXPORT void dtl_destroy_counter_group(dtl_counter_group_t* group);
// Appends a deep copy of counter.
DTL_EXPORT bool dtl_add_counter_to_group(dtl_counter_group_t* group,
                                         const dtl_counter_info_t* counter);

// ---- Schemas ----

DTL_EXPORT dtl_counters_schema_t* dtl_create_counters_schema(void);
DTL_EXPORT void dtl_destroy_counters_schema(dtl_counters_schema_t* schema);
// The schema takes ownership of group on success.
DTL_EXPORT bool dtl_counters_schema_append_group(dtl_counters_schema_t* schema,
                                                 dtl_counter_group_t* group);
// Adds count counters to the first group (created with group_name when the
// schema has none), then recomputes size_of_counters.
DTL_EXPORT bool dtl_counters_schema_add_counter(dtl_counters_schema_t* schema,
                                                const dtl_counter_info_t* counters, size_t count,
                                                const char* group_name);
DTL_EXPORT uint32_t dtl_counters_schema_size_of_counters(const dtl_counters_schema_t* schema);
DTL_EXPORT uint32_t dtl_counters_schema_number_of_counters(const dtl_counters_schema_t* schema);
DTL_EXPORT uint32_t
dtl_counters_schema_total_number_of_counters(const dtl_counters_schema_t* schema);
// Lays the counters out one after the other in schema order.
DTL_EXPORT void dtl_counters_schema_update_counter_offsets(dtl_counters_schema_t* schema);
DTL_EXPORT dtl_counter_info_t* dtl_counters_schema_get_counter_by_name(
    const dtl_counters_schema_t* schema, const char* name);
// The schema's JSON document; release with dtl_json_value_free.
DTL_EXPORT dtl_json_value_t* dtl_counters_schema_jsonify(const dtl_counters_schema_t* schema);
// Pretty JSON text (malloc'd; the caller frees it) or null.
DTL_EXPORT char* dtl_counters_schema_serialize(const dtl_counters_schema_t* schema);
DTL_EXPORT void dtl_counters_schema_print(const dtl_counters_schema_t* schema, FILE* stream);
// MD5 of the pretty JSON text.
DTL_EXPORT bool dtl_calc_counters_schema_id(unsigned char* id, const dtl_counters_schema_t* schema);

// ---- Counters data block ----

// Magic "DTLD", padding 0, timestamp now.
DTL_EXPORT void dtl_counters_data_reset(dtl_counters_data_t* data);
// Prints the block layout (field, offset, size) to standard output.
DTL_EXPORT void dtl_counters_data_print_struct_layout(void);

DTL_EXTERN_C_END
