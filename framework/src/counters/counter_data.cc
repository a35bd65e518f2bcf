// Counter info records, the value vocabularies of their fields, and the
// counters data block that stores one sample.
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>

#include "dtl_counters.h"
#include "dtl_data_file_header.h"
#include "dtl_json.h"
#include "dtl_logger.h"
#include "dtl_timestamp.h"

namespace {

// The path this file is known by in log lines about released records.
constexpr const char* kSourcePath = "src/counters/counter_data.cc";

// Each table ends with the number DTL_VOCABULARY_UNKNOWN and no name.
struct VocabularyEntry {
  uint32_t number;
  const char* name;
};

constexpr VocabularyEntry kDataTypes[] = {
    {DTL_DATA_TYPE_UNDEFINED, "Undefined"}, {DTL_DATA_TYPE_UINT64, "UINT64"},
    {DTL_DATA_TYPE_FP64, "FP64"},           {DTL_DATA_TYPE_BIT64, "BIT64"},
    {DTL_DATA_TYPE_INT64, "INT64"},         {DTL_DATA_TYPE_STRING, "STRING"},
    {DTL_DATA_TYPE_UINT128, "UINT128"},     {DTL_DATA_TYPE_INT128, "INT128"},
    {DTL_VOCABULARY_UNKNOWN, nullptr},
};

constexpr VocabularyEntry kCountingTypes[] = {
    {DTL_COUNTING_TYPE_ABSOLUTE, "ABSOLUTE"},
    {DTL_COUNTING_TYPE_RUNNING_SUM, "RUNNING_SUM"},
    {DTL_COUNTING_TYPE_DELTA, "DELTA"},
    {DTL_VOCABULARY_UNKNOWN, nullptr},
};

constexpr VocabularyEntry kStringFormats[] = {
    {DTL_STRING_FORMAT_DEFAULT, "DEFAULT"},         {DTL_STRING_FORMAT_DECIMAL, "DECIMAL"},
    {DTL_STRING_FORMAT_HEXADECIMAL, "HEXADECIMAL"}, {DTL_STRING_FORMAT_UUID, "UUID"},
    {DTL_STRING_FORMAT_BINARY, "BINARY"},           {DTL_VOCABULARY_UNKNOWN, nullptr},
};

constexpr VocabularyEntry kGranularities[] = {
    {DTL_GRANULARITY_NODE, "NODE"},
    {DTL_GRANULARITY_CPU, "CPU"},
    {DTL_GRANULARITY_PACKAGE, "PACKAGE"},
    {DTL_VOCABULARY_UNKNOWN, nullptr},
};

const char* NameOf(const VocabularyEntry* table, uint32_t number) {
  for (; table->name != nullptr; ++table)
    if (table->number == number) return table->name;
  return nullptr;
}

uint32_t NumberOf(const VocabularyEntry* table, const char* name) {
  if (name == nullptr) return DTL_VOCABULARY_UNKNOWN;
  for (; table->name != nullptr; ++table)
    if (strcmp(table->name, name) == 0) return table->number;
  return DTL_VOCABULARY_UNKNOWN;
}

// strdup that keeps a missing string missing; false only when a present
// string could not be copied.
bool DuplicateString(const char* src, char** dst) {
  *dst = nullptr;
  if (src == nullptr) return true;
  *dst = strdup(src);
  return *dst != nullptr;
}

// Numbers in JSON are doubles; out-of-range values saturate rather than
// hitting an undefined conversion.
template <typename T>
T NumberMember(const dtl::json::value& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_number()) return 0;
  const double d = it->get<double>();
  if (!(d > 0)) return 0;
  if (d >= static_cast<double>(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
  return static_cast<T>(d);
}

const char* StringMember(const dtl::json::value& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return nullptr;
  return it->get_ref<const std::string&>().c_str();
}

// The members a counter's JSON object must carry as strings.
constexpr const char* kRequiredStrings[] = {"name", "description", "units", "data_type",
                                            "counting_type"};
constexpr const char* kCounterTemplate =
    "{\"name\":\"\",\"description\":\"\",\"units\":\"\",\"data_type\":\"\",\"counting_type\":\"\"}";

bool MatchesCounterTemplate(const dtl::json::value& object) {
  if (!object.is_object()) return false;
  for (const char* key : kRequiredStrings)
    if (StringMember(object, key) == nullptr) return false;
  return true;
}

}  // namespace

extern "C" {

DTL_EXPORT const char* dtl_data_type_to_string(uint32_t data_type) {
  return NameOf(kDataTypes, data_type);
}

DTL_EXPORT uint32_t dtl_data_type_from_string(const char* name) {
  return NumberOf(kDataTypes, name);
}

DTL_EXPORT const char* dtl_counting_type_to_string(uint32_t counting_type) {
  return NameOf(kCountingTypes, counting_type);
}

DTL_EXPORT uint32_t dtl_counting_type_from_string(const char* name) {
  return NumberOf(kCountingTypes, name);
}

DTL_EXPORT const char* dtl_string_format_to_string(uint32_t string_format) {
  return NameOf(kStringFormats, string_format);
}

DTL_EXPORT uint32_t dtl_string_format_from_string(const char* name) {
  // Readers take a missing format as the default one.
  if (name == nullptr) return DTL_STRING_FORMAT_DEFAULT;
  return NumberOf(kStringFormats, name);
}

DTL_EXPORT const char* dtl_granularity_to_string(uint32_t granularity) {
  const char* name = NameOf(kGranularities, granularity);
  return name != nullptr ? name : "unknown";
}

DTL_EXPORT uint32_t dtl_granularity_from_string(const char* name) {
  return NumberOf(kGranularities, name);
}

DTL_EXPORT bool dtl_counter_info_deep_copy(dtl_counter_info_t* dst, const dtl_counter_info_t* src) {
  if (dst == nullptr || src == nullptr) {
    DTL_LOG_ERROR("[schema] %s: null counter record", __func__);
    return false;
  }
  dtl_counter_info_t copy = *src;
  if (!DuplicateString(src->name, &copy.name) ||
      !DuplicateString(src->description, &copy.description) ||
      !DuplicateString(src->units, &copy.units)) {
    free(copy.name);
    free(copy.description);
    free(copy.units);
    DTL_LOG_ERROR("[schema] %s: failed to copy the strings of counter %s", __func__,
                  src->name != nullptr ? src->name : "");
    return false;
  }
  *dst = copy;
  return true;
}

DTL_EXPORT void dtl_destroy_counter_info(dtl_counter_info_t* info) {
  if (info == nullptr) return;
  char** strings[] = {&info->name, &info->description, &info->units};
  for (char** s : strings) {
    if (*s == nullptr) {
      DTL_LOG_WARNING("on %s, %s %d attempted to free NULL ptr", kSourcePath, __func__, __LINE__);
      continue;
    }
    free(*s);
    *s = nullptr;
  }
}

DTL_EXPORT bool dtl_counter_info_from_json(const dtl_json_value_t* json, dtl_counter_info_t* out) {
  if (out == nullptr) return false;
  try {
    if (json == nullptr || !MatchesCounterTemplate(json->v)) {
      DTL_LOG_ERROR("JSON does not match schema '%s'", kCounterTemplate);
      return false;
    }
    const dtl::json::value& object = json->v;
    dtl_counter_info_t info;
    memset(&info, 0, sizeof(info));
    if (!DuplicateString(StringMember(object, "name"), &info.name) ||
        !DuplicateString(StringMember(object, "description"), &info.description) ||
        !DuplicateString(StringMember(object, "units"), &info.units)) {
      free(info.name);
      free(info.description);
      free(info.units);
      DTL_LOG_ERROR("[schema] %s: failed to copy the counter's strings", __func__);
      return false;
    }
    info.data_type = dtl_data_type_from_string(StringMember(object, "data_type"));
    info.counting_type = dtl_counting_type_from_string(StringMember(object, "counting_type"));
    info.offset = NumberMember<uint32_t>(object, "offset");
    info.length = NumberMember<uint32_t>(object, "length");
    info.hidden = NumberMember<uint8_t>(object, "hidden");
    info.mandatory = NumberMember<uint8_t>(object, "mandatory");
    info.index = NumberMember<uint8_t>(object, "index");
    if (object.contains("string_format"))
      info.string_format = dtl_string_format_from_string(StringMember(object, "string_format"));
    *out = info;
    return true;
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[schema] %s: %s", __func__, e.what());
    return false;
  }
}

DTL_EXPORT void dtl_counters_data_reset(dtl_counters_data_t* data) {
  if (data == nullptr) return;
  dtl_magic_value_fill(data->header.magic, DTL_MAGIC_TYPE_DATA);
  data->padding = 0;
  data->timestamp = dtl_timestamp_now();
}

DTL_EXPORT void dtl_counters_data_print_struct_layout(void) {
  // Only inside sizeof: member sizes without a block at hand.
  constexpr const dtl_counters_data_t* kBlock = nullptr;
  printf("%-28s%-10s%s\n", "Field", "Offset", "Size");
  printf("%-28s%-10zu%zu\n", "header.magic", offsetof(dtl_counters_data_t, header.magic),
         sizeof(kBlock->header.magic));
  printf("%-28s%-10zu%zu\n", "padding", offsetof(dtl_counters_data_t, padding),
         sizeof(kBlock->padding));
  printf("%-28s%-10zu%zu\n", "timestamp", offsetof(dtl_counters_data_t, timestamp),
         sizeof(kBlock->timestamp));
  // The values run to the end of the block; the size shown is one value's.
  printf("%-28s%-10zu%zu\n", "values[]", offsetof(dtl_counters_data_t, values), sizeof(uint64_t));
}

}  // extern "C"
