// The host's option dictionary: text keys mapped to text values (a value
// may be null), kept in an open-addressing hash table.
//
// `dtl_custom_options` is the handle struct itself; a dictionary is always
// used through a pointer to it (`dtl_custom_options*`), which is what
// dtl_dict_create returns and what the host hands to a provider as
// `const dtl_custom_options*`. The layout below is shared with the host's
// copy of the framework, so the fields and their order are fixed.
#pragma once

#include <stdint.h>

#include "dtl_export.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

DTL_EXTERN_C_BEGIN

// Open-addressing string table. The bucket count is a power of two (or 0
// for a table that was never filled); each bucket has a 2-bit state packed
// sixteen to a word in `flags`.
typedef struct dtl_dict_table {
  uint32_t n_buckets;
  uint32_t size;         // entries in use
  uint32_t n_occupied;   // buckets in use or deleted
  uint32_t upper_bound;  // occupancy that triggers a rebuild
  uint32_t* flags;
  char** keys;
  char** vals;
} dtl_dict_table_t;

typedef struct dtl_custom_options {
  dtl_dict_table_t* table;
} dtl_custom_options;

// Called for each entry; returning false stops the walk.
typedef bool (*dtl_dict_enum_func_t)(const char* key, const char* value, void* user_data);

// New empty dictionary, or null when allocation fails.
DTL_EXPORT dtl_custom_options* dtl_dict_create(void);

// Stores copies of key and value (value may be null); an existing key gets
// the new value. False for a null handle or key, or when allocation fails
// (the dictionary is then unchanged).
DTL_EXPORT bool dtl_dict_add(dtl_custom_options* dict, const char* key, const char* value);

// Appends value to the key's current value as "old,value"; behaves as
// dtl_dict_add when the key has no value yet. False when any argument is
// null or allocation fails.
DTL_EXPORT bool dtl_dict_append(dtl_custom_options* dict, const char* key, const char* value);

// The key's value (owned by the dictionary), or null when the handle is
// null, the key is absent or its value is null.
DTL_EXPORT const char* dtl_dict_get(const dtl_custom_options* dict, const char* key);

// Visits the entries in bucket order. False when a callback stopped the
// walk, true otherwise (also for a null handle).
DTL_EXPORT bool dtl_dict_enum(const dtl_custom_options* dict, dtl_dict_enum_func_t func,
                              void* user_data);

// Logs every entry at debug level under the given title.
DTL_EXPORT void dtl_dict_dump(const dtl_custom_options* dict, const char* title);

// Frees every key, value, the table and the handle. Null is ignored.
DTL_EXPORT void dtl_dict_delete(dtl_custom_options* dict);

// Deep copy, or null for a null handle or when allocation fails.
DTL_EXPORT dtl_custom_options* dtl_dict_dup(const dtl_custom_options* dict);

// Removes one key; true when it was there. Library-internal (not exported
// from the plug-in): the host owns the dictionaries providers read.
bool dtl_dict_remove(dtl_custom_options* dict, const char* key);

// New text "first,second", or a copy of second when first is null or empty;
// null (with an error line) when allocation fails. Free with free().
DTL_EXPORT char* string_concat_comma_separated_token(const char* first, const char* second);

DTL_EXTERN_C_END
