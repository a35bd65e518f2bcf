// Counter groups and counters schemas: building them, their sizes and
// offsets, their JSON document, and the schema identifiers derived from it.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <exception>
#include <memory>
#include <new>
#include <string>

#include "dtl_counters.h"
#include "dtl_json.h"
#include "dtl_logger.h"

namespace {

constexpr const char* kSchemaTitle = "Dartel performance counters collector";
constexpr const char* kSchemaVersion = "1.5.0";
// The blob identifier is this text's 16 bytes, without a terminating zero.
constexpr char kBlobSchemaId[] = "BLOB_DATA_SCHEMA";
static_assert(sizeof(kBlobSchemaId) - 1 == DTL_SCHEMA_ID_SIZE);

int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Bytes a counter's value occupies in a sample.
uint32_t ValueSize(const dtl_counter_info_t* c) {
  switch (c->data_type) {
    case DTL_DATA_TYPE_STRING:
      return c->length;
    case DTL_DATA_TYPE_UINT128:
    case DTL_DATA_TYPE_INT128:
      return 16;
    default:
      return 8;
  }
}

const char* ProviderName(const dtl_counter_group_t* group) {
  if (group->provider_name != nullptr) return group->provider_name;
  if (group->provider != nullptr) return group->provider->name;
  return nullptr;
}

// Members whose text is missing (a null string, a number outside its
// vocabulary) or not valid UTF-8 are left out, as the reference JSON library
// leaves out a string it refuses to create; the document stays valid JSON.
void SetString(dtl::json::value& object, const char* key, const char* text) {
  if (text != nullptr && dtl::json::is_valid_utf8(text)) object[key] = text;
}

bool ValidText(const char* text) { return text == nullptr || dtl::json::is_valid_utf8(text); }

dtl::json::value CounterJson(const dtl_counter_info_t* c) {
  dtl::json::value object = dtl::json::value::object();
  SetString(object, "name", c->name);
  SetString(object, "description", c->description);
  SetString(object, "units", c->units);
  SetString(object, "data_type", dtl_data_type_to_string(c->data_type));
  object["length"] = c->length;
  object["offset"] = c->offset;
  object["hidden"] = c->hidden ? 1 : 0;
  object["mandatory"] = c->mandatory ? 1 : 0;
  SetString(object, "counting_type", dtl_counting_type_to_string(c->counting_type));
  SetString(object, "string_format", dtl_string_format_to_string(c->string_format));
  object["index"] = c->index;
  return object;
}

dtl::json::value GroupJson(const dtl_counter_group_t* group) {
  dtl::json::value object = dtl::json::value::object();
  object["granularity"] = dtl_granularity_to_string(group->granularity);
  SetString(object, "name", group->name != nullptr ? group->name : ProviderName(group));
  SetString(object, "provider", ProviderName(group));
  object["num_counter_sets"] = group->num_counter_sets;
  object["num_counters"] = group->num_counters;
  dtl::json::value counters = dtl::json::value::array();
  for (uint32_t i = 0; i < group->num_counters; ++i)
    counters.push_back(CounterJson(group->counters[i]));
  object["counters"] = std::move(counters);
  return object;
}

// The schema's JSON document; false (logged) when it cannot be built.
bool BuildSchemaJson(const dtl_counters_schema_t* schema, dtl::json::value& out) {
  if (schema == nullptr) {
    DTL_LOG_ERROR("[%s] json_value_get_object() failed", "dtl_counters_schema_jsonify");
    return false;
  }
  dtl::json::value root;
  try {
    root = dtl::json::value::object();
    root["title"] = kSchemaTitle;
    root["version"] = kSchemaVersion;
    root["counter_groups"] = dtl::json::value::array();
  } catch (const std::exception&) {
    DTL_LOG_ERROR("[%s] json_value_init_object() failed", "dtl_counters_schema_jsonify");
    return false;
  }
  dtl::json::value& groups = root["counter_groups"];
  for (uint32_t i = 0; i < schema->num_groups; ++i) {
    dtl::json::value group;
    try {
      group = GroupJson(schema->groups[i]);
    } catch (const std::exception&) {
      DTL_LOG_ERROR("Failed to JSONify counter group #%d", static_cast<int>(i));
      return false;
    }
    try {
      groups.push_back(std::move(group));
    } catch (const std::exception&) {
      DTL_LOG_ERROR("Failed to append JSON array with counter group #%d", static_cast<int>(i));
      return false;
    }
  }
  out = std::move(root);
  return true;
}

bool SchemaIdOfText(const std::string& text, unsigned char* id) {
  dtl_MD5(text.data(), text.size(), id);
  return true;
}

}  // namespace

extern "C" {

// ---- Schema identifiers ----

DTL_EXPORT bool dtl_schema_id_is_unset(const unsigned char* id) {
  if (id == nullptr) return true;
  for (int i = 0; i < DTL_SCHEMA_ID_SIZE; ++i)
    if (id[i] != 0) return false;
  return true;
}

DTL_EXPORT void dtl_copy_schema_id(unsigned char* dst, const unsigned char* src) {
  if (dst == nullptr || src == nullptr) return;
  memmove(dst, src, DTL_SCHEMA_ID_SIZE);
}

DTL_EXPORT void dtl_reset_schema_id(unsigned char* id) {
  if (id != nullptr) memset(id, 0, DTL_SCHEMA_ID_SIZE);
}

DTL_EXPORT int dtl_compare_schema_id(const unsigned char* a, const unsigned char* b) {
  return memcmp(a, b, DTL_SCHEMA_ID_SIZE);
}

DTL_EXPORT void dtl_schema_id_to_schema_string(const unsigned char* id, char* buffer) {
  if (id == nullptr || buffer == nullptr) return;
  static const char kHex[] = "0123456789abcdef";
  for (int i = 0; i < DTL_SCHEMA_ID_SIZE; ++i) {
    buffer[2 * i] = kHex[id[i] >> 4];
    buffer[2 * i + 1] = kHex[id[i] & 0xF];
  }
  buffer[2 * DTL_SCHEMA_ID_SIZE] = '\0';
}

DTL_EXPORT char* dtl_schema_id_string(const unsigned char* id) {
  if (id == nullptr) {
    DTL_LOG_ERROR("[schema] %s: null schema identifier", __func__);
    return nullptr;
  }
  char* text = static_cast<char*>(malloc(DTL_SCHEMA_ID_STRING_SIZE));
  if (text == nullptr) {
    DTL_LOG_ERROR("[schema] %s: out of memory", __func__);
    return nullptr;
  }
  dtl_schema_id_to_schema_string(id, text);
  return text;
}

DTL_EXPORT bool dtl_schema_from_id_string(const char* text, unsigned char* id) {
  if (text == nullptr || id == nullptr) {
    DTL_LOG_ERROR("[schema] %s: null argument", __func__);
    return false;
  }
  if (strlen(text) != 2 * DTL_SCHEMA_ID_SIZE) {
    DTL_LOG_ERROR("[schema] %s: '%s' is not 32 characters long", __func__, text);
    return false;
  }
  unsigned char bytes[DTL_SCHEMA_ID_SIZE];
  for (int i = 0; i < DTL_SCHEMA_ID_SIZE; ++i) {
    const int high = HexDigitValue(text[2 * i]);
    const int low = HexDigitValue(text[2 * i + 1]);
    if (high < 0 || low < 0) {
      DTL_LOG_ERROR("[schema] %s: '%s' is not hexadecimal", __func__, text);
      return false;
    }
    bytes[i] = static_cast<unsigned char>(high << 4 | low);
  }
  memcpy(id, bytes, DTL_SCHEMA_ID_SIZE);
  return true;
}

DTL_EXPORT bool dtl_schema_id_is_blob(const unsigned char* id) {
  return id != nullptr && memcmp(id, kBlobSchemaId, DTL_SCHEMA_ID_SIZE) == 0;
}

DTL_EXPORT void dtl_schema_id_set_blob(unsigned char* id) {
  if (id != nullptr) memcpy(id, kBlobSchemaId, DTL_SCHEMA_ID_SIZE);
}

DTL_EXPORT bool dtl_get_schema_id_from_pretty_json_string(const char* text, unsigned char* id) {
  if (text == nullptr || id == nullptr) {
    DTL_LOG_ERROR("[schema] %s: null argument", __func__);
    return false;
  }
  dtl_MD5(text, strlen(text), id);
  return true;
}

DTL_EXPORT bool dtl_type_system_get_json_schema_id(unsigned char* id,
                                                   const dtl_json_value_t* json) {
  if (id == nullptr || json == nullptr) {
    DTL_LOG_ERROR("[schema] %s: null argument", __func__);
    return false;
  }
  try {
    return SchemaIdOfText(dtl::json::serialize_pretty(json->v), id);
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[schema] %s: %s", __func__, e.what());
    return false;
  }
}

// ---- Groups ----

DTL_EXPORT dtl_counter_group_t* dtl_create_counter_group_no_provider(const char* name,
                                                                     const char* provider_name) {
  // Both names go into the schema's JSON document, which must be UTF-8.
  if (!ValidText(name) || !ValidText(provider_name)) {
    DTL_LOG_ERROR("[schema] %s: group name or provider name is not valid UTF-8", __func__);
    return nullptr;
  }
  auto* group = static_cast<dtl_counter_group_t*>(calloc(1, sizeof(dtl_counter_group_t)));
  if (group != nullptr) {
    group->name = strdup(name != nullptr ? name : "");
    group->provider_name = strdup(provider_name != nullptr ? provider_name : "");
  }
  if (group == nullptr || group->name == nullptr || group->provider_name == nullptr) {
    DTL_LOG_ERROR("[schema] %s: failed to allocate counter group", __func__);
    dtl_destroy_counter_group(group);
    return nullptr;
  }
  group->granularity = DTL_GRANULARITY_NODE;
  group->num_counter_sets = 1;
  return group;
}

DTL_EXPORT void dtl_destroy_counter_group(dtl_counter_group_t* group) {
  if (group == nullptr) return;
  for (uint32_t i = 0; i < group->num_counters; ++i) {
    dtl_destroy_counter_info(group->counters[i]);
    free(group->counters[i]);
  }
  free(group->counters);
  free(group->name);
  free(group->provider_name);
  free(group);
}

DTL_EXPORT bool dtl_add_counter_to_group(dtl_counter_group_t* group,
                                         const dtl_counter_info_t* counter) {
  if (group == nullptr || counter == nullptr) {
    DTL_LOG_ERROR("[schema] %s: null argument", __func__);
    return false;
  }
  // The counter's texts go into the schema's JSON document, which must be
  // UTF-8; the name itself is not logged, as it is not printable text.
  if (!ValidText(counter->name) || !ValidText(counter->description) ||
      !ValidText(counter->units)) {
    DTL_LOG_ERROR("[schema] %s: counter #%u refused: name, description or units is not valid UTF-8",
                  __func__, static_cast<unsigned>(group->num_counters));
    return false;
  }
  dtl_counter_provider_t* provider = group->provider;
  if (provider != nullptr && provider->accept_counter != nullptr &&
      !provider->accept_counter(provider, group, counter)) {
    DTL_LOG_ERROR("[schema] provider %s refused counter %s",
                  provider->name != nullptr ? provider->name : "",
                  counter->name != nullptr ? counter->name : "");
    return false;
  }
  const uint32_t count = group->num_counters + 1;
  auto* counters = static_cast<dtl_counter_info_t**>(
      realloc(group->counters, count * sizeof(dtl_counter_info_t*)));
  if (counters == nullptr) {
    DTL_LOG_ERROR("Failed to allocate array of %d counter pointers", static_cast<int>(count));
    return false;
  }
  // The array may have moved even if the copy below fails.
  group->counters = counters;
  auto* copy = static_cast<dtl_counter_info_t*>(calloc(1, sizeof(dtl_counter_info_t)));
  if (copy == nullptr || !dtl_counter_info_deep_copy(copy, counter)) {
    free(copy);
    DTL_LOG_ERROR("Deep copy of the counter failed");
    return false;
  }
  counters[group->num_counters] = copy;
  group->num_counters = count;
  return true;
}

// ---- Schemas ----

DTL_EXPORT dtl_counters_schema_t* dtl_create_counters_schema(void) {
  auto* schema = static_cast<dtl_counters_schema_t*>(calloc(1, sizeof(dtl_counters_schema_t)));
  if (schema == nullptr) DTL_LOG_ERROR("failed to allocate schema");
  return schema;
}

DTL_EXPORT void dtl_destroy_counters_schema(dtl_counters_schema_t* schema) {
  if (schema == nullptr) return;
  for (uint32_t i = 0; i < schema->num_groups; ++i) dtl_destroy_counter_group(schema->groups[i]);
  free(schema->groups);
  free(schema);
}

DTL_EXPORT bool dtl_counters_schema_append_group(dtl_counters_schema_t* schema,
                                                 dtl_counter_group_t* group) {
  if (schema == nullptr || group == nullptr) {
    DTL_LOG_ERROR("[schema] %s: null argument", __func__);
    return false;
  }
  const uint32_t count = schema->num_groups + 1;
  auto* groups = static_cast<dtl_counter_group_t**>(
      realloc(schema->groups, count * sizeof(dtl_counter_group_t*)));
  if (groups == nullptr) {
    DTL_LOG_ERROR("Failed allocating memory for %d's group: %s", static_cast<int>(count),
                  strerror(errno));
    return false;
  }
  groups[schema->num_groups] = group;
  schema->groups = groups;
  schema->num_groups = count;
  return true;
}

DTL_EXPORT bool dtl_counters_schema_add_counter(dtl_counters_schema_t* schema,
                                                const dtl_counter_info_t* counters, size_t count,
                                                const char* group_name) {
  if (schema == nullptr || (counters == nullptr && count > 0)) {
    DTL_LOG_ERROR("[schema] %s: null argument", __func__);
    return false;
  }
  if (schema->num_groups == 0) {
    dtl_counter_group_t* group = dtl_create_counter_group_no_provider(group_name, nullptr);
    if (group == nullptr) {
      DTL_LOG_ERROR("Failed to create default counter group");
      return false;
    }
    if (!dtl_counters_schema_append_group(schema, group)) {
      dtl_destroy_counter_group(group);
      DTL_LOG_ERROR("Failed to append default counter group to schema");
      return false;
    }
  }
  bool ok = true;
  for (size_t i = 0; i < count; ++i) {
    if (!dtl_add_counter_to_group(schema->groups[0], &counters[i])) {
      DTL_LOG_ERROR("Failed to add counter %zu to group", i);
      ok = false;
      break;
    }
  }
  schema->size_of_counters = dtl_counters_schema_size_of_counters(schema);
  return ok;
}

DTL_EXPORT uint32_t dtl_counters_schema_size_of_counters(const dtl_counters_schema_t* schema) {
  if (schema == nullptr) return 0;
  uint32_t size = 0;
  for (uint32_t g = 0; g < schema->num_groups; ++g) {
    const dtl_counter_group_t* group = schema->groups[g];
    for (uint32_t i = 0; i < group->num_counters; ++i) size += ValueSize(group->counters[i]);
  }
  return size;
}

DTL_EXPORT uint32_t dtl_counters_schema_number_of_counters(const dtl_counters_schema_t* schema) {
  if (schema == nullptr) return 0;
  uint32_t count = 0;
  for (uint32_t g = 0; g < schema->num_groups; ++g) {
    const dtl_counter_group_t* group = schema->groups[g];
    if (group->num_counter_sets != 1) {
      DTL_LOG_ERROR("[%s] num_counter_sets should be 1, not %d", __func__,
                    static_cast<int>(group->num_counter_sets));
      return 0;
    }
    count += group->num_counters;
  }
  return count;
}

DTL_EXPORT uint32_t
dtl_counters_schema_total_number_of_counters(const dtl_counters_schema_t* schema) {
  if (schema == nullptr) return 0;
  uint32_t count = 0;
  for (uint32_t g = 0; g < schema->num_groups; ++g)
    count += schema->groups[g]->num_counter_sets * schema->groups[g]->num_counters;
  return count;
}

DTL_EXPORT void dtl_counters_schema_update_counter_offsets(dtl_counters_schema_t* schema) {
  if (schema == nullptr) return;
  uint32_t offset = 0;
  for (uint32_t g = 0; g < schema->num_groups; ++g) {
    dtl_counter_group_t* group = schema->groups[g];
    for (uint32_t i = 0; i < group->num_counters; ++i) {
      dtl_counter_info_t* c = group->counters[i];
      c->offset = offset;
      uint32_t size;
      if (c->data_type == DTL_DATA_TYPE_STRING) {
        if (c->length == 0) {
          DTL_LOG_ERROR("[%s] Fail: received 0 length string counter %s", __func__,
                        c->name != nullptr ? c->name : "");
          return;
        }
        size = c->length;
      } else if (c->data_type == DTL_DATA_TYPE_UINT128 || c->data_type == DTL_DATA_TYPE_INT128) {
        size = 16;
      } else {
        size = c->length != 0 ? c->length : 8;
      }
      DTL_LOG_DEBUG("[schema] Set up counter %s  size=%d  offset=%d",
                    c->name != nullptr ? c->name : "", static_cast<int>(size),
                    static_cast<int>(offset));
      offset += size;
    }
  }
}

DTL_EXPORT dtl_counter_info_t* dtl_counters_schema_get_counter_by_name(
    const dtl_counters_schema_t* schema, const char* name) {
  if (schema == nullptr || name == nullptr) return nullptr;
  for (uint32_t g = 0; g < schema->num_groups; ++g) {
    const dtl_counter_group_t* group = schema->groups[g];
    for (uint32_t i = 0; i < group->num_counters; ++i) {
      dtl_counter_info_t* c = group->counters[i];
      if (c->name != nullptr && strcmp(c->name, name) == 0) return c;
    }
  }
  return nullptr;
}

DTL_EXPORT dtl_json_value_t* dtl_counters_schema_jsonify(const dtl_counters_schema_t* schema) {
  try {
    auto result = std::make_unique<dtl_json_value_t>();
    if (!BuildSchemaJson(schema, result->v)) return nullptr;
    return result.release();
  } catch (const std::exception&) {
    DTL_LOG_ERROR("[%s] json_value_init_object() failed", __func__);
    return nullptr;
  }
}

DTL_EXPORT char* dtl_counters_schema_serialize(const dtl_counters_schema_t* schema) {
  dtl::json::value json;
  if (!BuildSchemaJson(schema, json)) {
    DTL_LOG_ERROR("Failed to JSONify counters schemaector schema");
    return nullptr;
  }
  try {
    const std::string text = dtl::json::serialize_pretty(json);
    char* result = static_cast<char*>(malloc(text.size() + 1));
    if (result == nullptr) throw std::bad_alloc();
    memcpy(result, text.c_str(), text.size() + 1);
    return result;
  } catch (const std::exception&) {
    DTL_LOG_ERROR("Failed to serialize JSON counters schemaector schema");
    return nullptr;
  }
}

DTL_EXPORT void dtl_counters_schema_print(const dtl_counters_schema_t* schema, FILE* stream) {
  if (stream == nullptr) return;
  char* text = dtl_counters_schema_serialize(schema);
  if (text == nullptr) return;
  fprintf(stream, "%s\n", text);
  free(text);
}

DTL_EXPORT bool dtl_calc_counters_schema_id(unsigned char* id,
                                            const dtl_counters_schema_t* schema) {
  if (id == nullptr) {
    DTL_LOG_ERROR("[schema] %s: null identifier", __func__);
    return false;
  }
  dtl::json::value json;
  if (!BuildSchemaJson(schema, json)) return false;
  try {
    return SchemaIdOfText(dtl::json::serialize_pretty(json), id);
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[schema] %s: %s", __func__, e.what());
    return false;
  }
}

}  // extern "C"
