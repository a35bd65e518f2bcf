// Option dictionary: an open-addressing string table with 2-bit bucket
// states and triangular probing. The table layout and hashing are shared
// with the host's copy of the framework, which builds the dictionaries that
// providers read, so both must place and find keys the same way.
#include "dtl_dict.h"

#include <stdlib.h>
#include <string.h>

#include "dtl_logger.h"

namespace {

// Bucket states, two bits each: bit 1 = empty, bit 0 = deleted, neither =
// in use. A fresh word (0xaaaaaaaa) marks sixteen empty buckets.
constexpr uint32_t kAllEmpty = 0xaaaaaaaaU;
constexpr double kLoadFactor = 0.77;
constexpr uint32_t kMinBuckets = 4;

inline uint32_t FlagWords(uint32_t n_buckets) { return n_buckets < 16 ? 1 : n_buckets >> 4; }
inline uint32_t Shift(uint32_t i) { return (i & 0xfU) << 1; }
inline bool IsEmpty(const uint32_t* flags, uint32_t i) { return (flags[i >> 4] >> Shift(i)) & 2U; }
inline bool IsDeleted(const uint32_t* flags, uint32_t i) { return (flags[i >> 4] >> Shift(i)) & 1U; }
inline bool IsFree(const uint32_t* flags, uint32_t i) { return (flags[i >> 4] >> Shift(i)) & 3U; }
inline void SetInUse(uint32_t* flags, uint32_t i) { flags[i >> 4] &= ~(3U << Shift(i)); }
inline void SetDeleted(uint32_t* flags, uint32_t i) { flags[i >> 4] |= 1U << Shift(i); }

inline uint32_t UpperBound(uint32_t n_buckets) {
  return static_cast<uint32_t>(n_buckets * kLoadFactor + 0.5);
}

// h = first byte, then h * 31 + each further byte, in 32-bit arithmetic.
uint32_t HashKey(const char* key) {
  const auto* p = reinterpret_cast<const unsigned char*>(key);
  uint32_t h = *p;
  if (h != 0) {
    for (++p; *p != 0; ++p) h = h * 31U + *p;
  }
  return h;
}

uint32_t RoundUpPow2(uint32_t v) {
  if (v <= 1) return 1;
  --v;
  v |= v >> 1;
  v |= v >> 2;
  v |= v >> 4;
  v |= v >> 8;
  v |= v >> 16;
  return v + 1;
}

// Index of the key's bucket, or n_buckets when absent.
uint32_t FindBucket(const dtl_dict_table_t* t, const char* key) {
  if (t == nullptr || t->n_buckets == 0) return t == nullptr ? 0 : t->n_buckets;
  const uint32_t mask = t->n_buckets - 1;
  uint32_t i = HashKey(key) & mask;
  const uint32_t last = i;
  uint32_t step = 0;
  while (!IsEmpty(t->flags, i) && (IsDeleted(t->flags, i) || strcmp(t->keys[i], key) != 0)) {
    i = (i + ++step) & mask;
    if (i == last) return t->n_buckets;
  }
  return IsFree(t->flags, i) ? t->n_buckets : i;
}

// Rebuilds the table with new_n buckets (rounded up to a power of two, at
// least 4), dropping deleted buckets. On allocation failure the table is
// left as it was.
bool Rebuild(dtl_dict_table_t* t, uint32_t new_n) {
  new_n = RoundUpPow2(new_n);
  if (new_n < kMinBuckets) new_n = kMinBuckets;
  if (t->size >= UpperBound(new_n)) return true;  // too small to hold the entries

  const uint32_t words = FlagWords(new_n);
  auto* flags = static_cast<uint32_t*>(malloc(words * sizeof(uint32_t)));
  auto* keys = static_cast<char**>(calloc(new_n, sizeof(char*)));
  auto* vals = static_cast<char**>(calloc(new_n, sizeof(char*)));
  if (flags == nullptr || keys == nullptr || vals == nullptr) {
    free(flags);
    free(keys);
    free(vals);
    return false;
  }
  for (uint32_t w = 0; w < words; ++w) flags[w] = kAllEmpty;

  const uint32_t mask = new_n - 1;
  for (uint32_t j = 0; j < t->n_buckets; ++j) {
    if (IsFree(t->flags, j)) continue;
    uint32_t i = HashKey(t->keys[j]) & mask;
    uint32_t step = 0;
    while (!IsEmpty(flags, i)) i = (i + ++step) & mask;
    SetInUse(flags, i);
    keys[i] = t->keys[j];
    vals[i] = t->vals[j];
  }

  free(t->flags);
  free(t->keys);
  free(t->vals);
  t->flags = flags;
  t->keys = keys;
  t->vals = vals;
  t->n_buckets = new_n;
  t->n_occupied = t->size;
  t->upper_bound = UpperBound(new_n);
  return true;
}

// Bucket where the key lives or should be placed; sets *found when it is
// already there. Rebuilds first when the occupancy reached the bound.
// Returns false only when a needed rebuild could not allocate.
bool PrepareInsert(dtl_dict_table_t* t, const char* key, uint32_t* bucket, bool* found) {
  if (t->n_occupied >= t->upper_bound) {
    // Mostly deleted buckets: clean up in place; otherwise grow.
    const uint32_t target = t->n_buckets > (t->size << 1) ? t->n_buckets : t->n_buckets + 1;
    if (!Rebuild(t, target)) return false;
  }
  const uint32_t n = t->n_buckets;
  const uint32_t mask = n - 1;
  uint32_t i = HashKey(key) & mask;
  const uint32_t last = i;
  uint32_t first_deleted = n;
  uint32_t step = 0;
  while (!IsEmpty(t->flags, i)) {
    if (IsDeleted(t->flags, i)) {
      if (first_deleted == n) first_deleted = i;
    } else if (strcmp(t->keys[i], key) == 0) {
      *bucket = i;
      *found = true;
      return true;
    }
    i = (i + ++step) & mask;
    if (i == last) break;  // whole probe cycle seen without an empty bucket
  }
  if (first_deleted == n && !IsEmpty(t->flags, i)) return false;  // unreachable below the bound
  *found = false;
  *bucket = first_deleted != n ? first_deleted : i;
  return true;
}

char* CopyOrNull(const char* text, bool* failed) {
  *failed = false;
  if (text == nullptr) return nullptr;
  char* copy = strdup(text);
  *failed = copy == nullptr;
  return copy;
}

}  // namespace

extern "C" {

DTL_EXPORT char* string_concat_comma_separated_token(const char* first, const char* second) {
  if (second == nullptr) second = "";
  char* result;
  if (first == nullptr || first[0] == '\0') {
    result = strdup(second);
  } else {
    const size_t len1 = strlen(first);
    const size_t len2 = strlen(second);
    result = static_cast<char*>(malloc(len1 + 1 + len2 + 1));
    if (result != nullptr) {
      memcpy(result, first, len1);
      result[len1] = ',';
      memcpy(result + len1 + 1, second, len2 + 1);
    }
  }
  if (result == nullptr) DTL_LOG_ERROR("[%s] Failed in malloc", "string_concat_comma_separated_token");
  return result;
}

DTL_EXPORT dtl_custom_options* dtl_dict_create(void) {
  auto* dict = static_cast<dtl_custom_options*>(calloc(1, sizeof(dtl_custom_options)));
  auto* table = static_cast<dtl_dict_table_t*>(calloc(1, sizeof(dtl_dict_table_t)));
  if (dict == nullptr || table == nullptr) {
    free(dict);
    free(table);
    DTL_LOG_ERROR("[%s] Failed in malloc", "dtl_dict_create");
    return nullptr;
  }
  dict->table = table;
  return dict;
}

DTL_EXPORT bool dtl_dict_add(dtl_custom_options* dict, const char* key, const char* value) {
  if (dict == nullptr || dict->table == nullptr || key == nullptr) {
    DTL_LOG_ERROR("[%s] null dictionary or key", "dtl_dict_add");
    return false;
  }
  bool failed = false;
  char* value_copy = CopyOrNull(value, &failed);
  uint32_t bucket = 0;
  bool found = false;
  if (failed || !PrepareInsert(dict->table, key, &bucket, &found)) {
    free(value_copy);
    DTL_LOG_ERROR("[%s] Failed in malloc", "dtl_dict_add");
    return false;
  }
  dtl_dict_table_t* t = dict->table;
  if (found) {
    free(t->vals[bucket]);
    t->vals[bucket] = value_copy;
    return true;
  }
  char* key_copy = strdup(key);
  if (key_copy == nullptr) {
    free(value_copy);
    DTL_LOG_ERROR("[%s] Failed in malloc", "dtl_dict_add");
    return false;
  }
  if (IsEmpty(t->flags, bucket)) ++t->n_occupied;  // a reused deleted bucket is occupied already
  SetInUse(t->flags, bucket);
  t->keys[bucket] = key_copy;
  t->vals[bucket] = value_copy;
  ++t->size;
  return true;
}

DTL_EXPORT bool dtl_dict_append(dtl_custom_options* dict, const char* key, const char* value) {
  if (dict == nullptr || dict->table == nullptr || key == nullptr || value == nullptr) {
    DTL_LOG_ERROR("[%s] null argument", "dtl_dict_append");
    return false;
  }
  dtl_dict_table_t* t = dict->table;
  const uint32_t bucket = FindBucket(t, key);
  if (bucket == t->n_buckets || t->vals[bucket] == nullptr) return dtl_dict_add(dict, key, value);
  char* joined = string_concat_comma_separated_token(t->vals[bucket], value);
  if (joined == nullptr) return false;
  free(t->vals[bucket]);
  t->vals[bucket] = joined;
  return true;
}

DTL_EXPORT const char* dtl_dict_get(const dtl_custom_options* dict, const char* key) {
  if (dict == nullptr || dict->table == nullptr || key == nullptr) return nullptr;
  const dtl_dict_table_t* t = dict->table;
  const uint32_t bucket = FindBucket(t, key);
  return bucket == t->n_buckets ? nullptr : t->vals[bucket];
}

bool dtl_dict_remove(dtl_custom_options* dict, const char* key) {
  if (dict == nullptr || dict->table == nullptr || key == nullptr) return false;
  dtl_dict_table_t* t = dict->table;
  const uint32_t bucket = FindBucket(t, key);
  if (bucket == t->n_buckets) return false;
  free(t->keys[bucket]);
  free(t->vals[bucket]);
  t->keys[bucket] = nullptr;
  t->vals[bucket] = nullptr;
  SetDeleted(t->flags, bucket);
  --t->size;
  return true;
}

DTL_EXPORT bool dtl_dict_enum(const dtl_custom_options* dict, dtl_dict_enum_func_t func,
                              void* user_data) {
  if (dict == nullptr || dict->table == nullptr || func == nullptr) return true;
  const dtl_dict_table_t* t = dict->table;
  for (uint32_t i = 0; i < t->n_buckets; ++i) {
    if (IsFree(t->flags, i)) continue;
    if (!func(t->keys[i], t->vals[i], user_data)) return false;
  }
  return true;
}

DTL_EXPORT void dtl_dict_dump(const dtl_custom_options* dict, const char* title) {
  if (dict == nullptr) return;
  DTL_LOG_DEBUG("%s map values: ", title != nullptr ? title : "");
  if (!DTL_LOG_ENABLED(DTL_LOG_LEVEL_DEBUG)) return;
  dtl_dict_enum(
      dict,
      [](const char* key, const char* value, void*) {
        DTL_LOG_DEBUG("key=%s  val=%s", key, value != nullptr ? value : "(null)");
        return true;
      },
      nullptr);
}

DTL_EXPORT void dtl_dict_delete(dtl_custom_options* dict) {
  if (dict == nullptr) return;
  dtl_dict_table_t* t = dict->table;
  if (t != nullptr) {
    for (uint32_t i = 0; i < t->n_buckets; ++i) {
      if (IsFree(t->flags, i)) continue;
      free(t->keys[i]);
      free(t->vals[i]);
    }
    free(t->flags);
    free(t->keys);
    free(t->vals);
    free(t);
  }
  free(dict);
}

DTL_EXPORT dtl_custom_options* dtl_dict_dup(const dtl_custom_options* dict) {
  if (dict == nullptr) return nullptr;
  dtl_custom_options* copy = dtl_dict_create();
  if (copy == nullptr) return nullptr;
  const bool complete = dtl_dict_enum(
      dict,
      [](const char* key, const char* value, void* user_data) {
        return dtl_dict_add(static_cast<dtl_custom_options*>(user_data), key, value);
      },
      copy);
  if (!complete) {
    dtl_dict_delete(copy);
    return nullptr;
  }
  return copy;
}

}  // extern "C"
