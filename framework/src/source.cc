#include "dtl_source.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <bit>
#include <charconv>
#include <cstddef>
#include <exception>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dtl_logger.h"

static_assert(sizeof(dtl_source_t) == 80);
static_assert(offsetof(dtl_source_t, identifier) == 0);
static_assert(offsetof(dtl_source_t, tag) == 64);

namespace {

struct SourceArrayDeleter {
  void operator()(dtl_source_array_t* array) const { dtl_destroy_source_array(array); }
};
struct SourceDeleter {
  void operator()(dtl_source_t* source) const { dtl_destroy_source(source); }
};
using SourceArrayPtr = std::unique_ptr<dtl_source_array_t, SourceArrayDeleter>;
using SourcePtr = std::unique_ptr<dtl_source_t, SourceDeleter>;

// Zero-filled copy that always leaves room for the terminating zero.
void copy_text(char* destination, size_t size, const char* source) {
  memset(destination, 0, size);
  if (source != nullptr) memcpy(destination, source, strnlen(source, size - 1));
}

// DTL_SOURCE_ID wins over the host name. Only the prefixed name counts: a
// bare SOURCE_ID is too generic a name to belong to this framework.
bool default_identifier(char (&identifier)[DTL_SOURCE_ID_SIZE]) {
  memset(identifier, 0, sizeof identifier);
  if (const char* env = getenv("DTL_SOURCE_ID"); env != nullptr) {
    copy_text(identifier, sizeof identifier, env);
    return true;
  }
  if (dtl_get_hostname(identifier, sizeof identifier) == nullptr) {
    DTL_LOG_ERROR("[source] Failed to get host name: %s", strerror(errno));
    return false;
  }
  return true;
}

void log_invalid(const char* text) {
  DTL_LOG_ERROR("[source] Invalid source format: %s", text != nullptr ? text : "(null)");
}

// Non-negative decimal number that uses the whole text.
bool parse_number(std::string_view text, int& value) {
  if (text.empty() || text.front() < '0' || text.front() > '9') return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc{} && end == text.data() + text.size();
}

struct Range {
  std::string base;
  bool default_base = true;
  int first = 0;
  int last = 0;
};

bool parse_range(std::string_view text, Range& range) {
  size_t dash = text.find('-');
  if (dash == std::string_view::npos) {
    range.first = 1;
    return parse_number(text, range.last) && range.last >= 1;
  }
  size_t open = text.find('[');
  size_t close = text.find(']');
  if (open != std::string_view::npos && close != std::string_view::npos) {
    if (close < open || close + 1 != text.size()) return false;
    std::string_view inner = text.substr(open + 1, close - open - 1);
    size_t inner_dash = inner.find('-');
    if (inner_dash == std::string_view::npos) return false;
    range.base = std::string(text.substr(0, open));
    range.default_base = false;
    return parse_number(inner.substr(0, inner_dash), range.first) &&
           parse_number(inner.substr(inner_dash + 1), range.last) && range.first <= range.last;
  }
  if (dash == 0 || dash + 1 == text.size()) return false;
  return parse_number(text.substr(0, dash), range.first) &&
         parse_number(text.substr(dash + 1), range.last) && range.first <= range.last;
}

bool append_owned(dtl_source_array_t* array, SourcePtr source) {
  if (!dtl_source_array_append(array, source.get())) return false;
  source.release();
  return true;
}

dtl_source_array_t* array_from_range(const char* text) {
  Range range;
  if (text == nullptr || !parse_range(text, range) ||
      static_cast<long>(range.last) - range.first + 1 > DTL_SOURCE_ARRAY_MAX) {
    log_invalid(text);
    return nullptr;
  }
  if (range.default_base) {
    char identifier[DTL_SOURCE_ID_SIZE];
    if (!default_identifier(identifier)) return nullptr;
    range.base = identifier;
  }
  SourceArrayPtr array(dtl_create_source_array());
  if (!array) return nullptr;
  char identifier[DTL_SOURCE_ID_SIZE];
  for (long n = range.first; n <= range.last; ++n) {
    snprintf(identifier, sizeof identifier, "%s_%d", range.base.c_str(), static_cast<int>(n));
    SourcePtr source(dtl_create_source(identifier, ""));
    if (!source || !append_owned(array.get(), std::move(source))) return nullptr;
  }
  return array.release();
}

dtl_source_array_t* array_from_identifiers(const std::vector<std::string>& identifiers) {
  SourceArrayPtr array(dtl_create_source_array());
  if (!array) return nullptr;
  for (const std::string& identifier : identifiers) {
    SourcePtr source(dtl_create_source(identifier.c_str(), ""));
    if (!source || !append_owned(array.get(), std::move(source))) return nullptr;
  }
  return array.release();
}

// Host ("H-") and switch ("S-") lines of a fabric discovery report name
// their node in parentheses.
bool is_fabric_report(const char* path) {
  std::ifstream in(path);
  if (!in) {
    DTL_LOG_ERROR("[source] Failed to open file: %s", path);
    return false;
  }
  std::string line;
  while (std::getline(in, line))
    if (line.find("H-") != std::string::npos || line.find("S-") != std::string::npos) return true;
  return false;
}

dtl_source_array_t* array_from_fabric_report(const char* path) {
  std::ifstream in(path);
  if (!in) {
    DTL_LOG_ERROR("[source] Failed to open fabric report file: %s", path);
    return nullptr;
  }
  std::vector<std::string> identifiers;
  std::string line;
  while (std::getline(in, line)) {
    size_t open = line.find('(');
    if (open == std::string::npos) continue;
    size_t close = line.find(')', open + 1);
    if (close == std::string::npos || close == open + 1) continue;
    identifiers.push_back(line.substr(open + 1, close - open - 1));
  }
  return array_from_identifiers(identifiers);
}

dtl_source_array_t* array_from_text_file(const char* path) {
  std::ifstream in(path);
  if (!in) {
    DTL_LOG_ERROR("[source] Failed to open text file: %s", path);
    return nullptr;
  }
  std::vector<std::string> identifiers;
  std::string line;
  while (std::getline(in, line)) {
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
    if (!line.empty()) identifiers.push_back(line);
  }
  return array_from_identifiers(identifiers);
}

dtl_source_array_t* array_from_file(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
    DTL_LOG_ERROR("[source] Failed to open file: %s", path);
    return nullptr;
  }
  std::ifstream probe(path);
  if (!probe) {
    DTL_LOG_ERROR("[source] Failed to open file: %s", path);
    return nullptr;
  }
  probe.close();
  return is_fabric_report(path) ? array_from_fabric_report(path) : array_from_text_file(path);
}

}  // namespace

extern "C" {

dtl_source_t* dtl_create_source(const char* identifier, const char* tag) {
  auto* source = static_cast<dtl_source_t*>(calloc(1, sizeof(dtl_source_t)));
  if (source == nullptr) {
    DTL_LOG_ERROR("[source] Failed to allocate source");
    return nullptr;
  }
  copy_text(source->identifier, sizeof source->identifier, identifier);
  copy_text(source->tag, sizeof source->tag, tag);
  return source;
}

dtl_source_t* dtl_create_default_source(const char* tag) {
  char identifier[DTL_SOURCE_ID_SIZE];
  if (!default_identifier(identifier)) return nullptr;
  return dtl_create_source(identifier, tag);
}

void dtl_destroy_source(dtl_source_t* source) { free(source); }

dtl_source_t* dtl_source_copy(dtl_source_t* destination, const dtl_source_t* source) {
  if (destination != nullptr && source != nullptr)
    memcpy(destination, source, sizeof(dtl_source_t));
  return destination;
}

int dtl_source_compare(const dtl_source_t* a, const dtl_source_t* b) {
  if (a == nullptr || b == nullptr) return (a != nullptr) - (b != nullptr);
  int result = strncmp(a->identifier, b->identifier, DTL_SOURCE_ID_SIZE);
  if (result != 0) return result;
  return strncmp(a->tag, b->tag, DTL_SOURCE_TAG_SIZE);
}

char* dtl_source_string(const dtl_source_t* source) {
  if (source == nullptr) return nullptr;
  auto* text = static_cast<char*>(malloc(DTL_SOURCE_ID_SIZE + 1));
  if (text == nullptr) {
    DTL_LOG_ERROR("[source] Failed to allocate source string");
    return nullptr;
  }
  memcpy(text, source->identifier, DTL_SOURCE_ID_SIZE);
  text[DTL_SOURCE_ID_SIZE] = '\0';
  return text;
}

bool dtl_source_full_string(const dtl_source_t* source, char* buffer, size_t size) {
  if (source == nullptr || buffer == nullptr) return false;
  size_t id_length = strnlen(source->identifier, DTL_SOURCE_ID_SIZE);
  size_t tag_length = strnlen(source->tag, DTL_SOURCE_TAG_SIZE);
  if (id_length + tag_length + 2 > size) {
    DTL_LOG_DEBUG("[source] buffer too small for source %.*s:%.*s (got %zu)",
                  static_cast<int>(id_length), source->identifier, static_cast<int>(tag_length),
                  source->tag, size);
    return false;
  }
  snprintf(buffer, size, "%.*s:%.*s", static_cast<int>(id_length), source->identifier,
           static_cast<int>(tag_length), source->tag);
  return true;
}

dtl_source_array_t* dtl_create_source_array(void) {
  auto* array = static_cast<dtl_source_array_t*>(calloc(1, sizeof(dtl_source_array_t)));
  if (array == nullptr) DTL_LOG_ERROR("[source] Failed to allocate source array");
  return array;
}

bool dtl_source_array_append(dtl_source_array_t* array, dtl_source_t* source) {
  if (array == nullptr || source == nullptr || array->count >= DTL_SOURCE_ARRAY_MAX) return false;
  // The record has no capacity field: the pointer array doubles whenever the
  // count reaches a power of two, so its capacity follows from the count.
  size_t count = array->count;
  if (count == 0 || std::has_single_bit(count)) {
    size_t capacity = count == 0 ? 1 : count * 2;
    auto* grown =
        static_cast<dtl_source_t**>(realloc(array->sources, capacity * sizeof(dtl_source_t*)));
    if (grown == nullptr) {
      DTL_LOG_ERROR("[source] Failed to grow source array to %zu entries", capacity);
      return false;
    }
    array->sources = grown;
  }
  array->sources[count] = source;
  array->count = static_cast<uint16_t>(count + 1);
  return true;
}

uint16_t dtl_source_array_find_source(const dtl_source_array_t* array,
                                      const dtl_source_t* source) {
  if (array == nullptr || source == nullptr) return DTL_SOURCE_INDEX_NOT_FOUND;
  for (uint16_t i = 0; i < array->count; ++i)
    if (array->sources[i] == source) return i;
  return DTL_SOURCE_INDEX_NOT_FOUND;
}

void dtl_destroy_source_array(dtl_source_array_t* array) {
  if (array == nullptr) return;
  for (uint16_t i = 0; i < array->count; ++i) dtl_destroy_source(array->sources[i]);
  free(array->sources);
  free(array);
}

dtl_source_array_t* dtl_create_default_source_array(const char* tag) {
  SourceArrayPtr array(dtl_create_source_array());
  if (!array) return nullptr;
  SourcePtr source(dtl_create_default_source(tag));
  if (!source || !append_owned(array.get(), std::move(source))) return nullptr;
  return array.release();
}

size_t dtl_source_array_log(const dtl_source_array_t* array, const char* prefix) {
  if (array == nullptr) return 0;
  for (size_t i = 0; i < array->count; ++i)
    DTL_LOG_DEBUG("%s[%zu] = %.*s", prefix != nullptr ? prefix : "", i, DTL_SOURCE_ID_SIZE,
                  array->sources[i]->identifier);
  return array->count;
}

dtl_source_array_t* dtl_create_source_array_from_string(const char* text) {
  try {
    return array_from_range(text);
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[source] Failed to create sources from '%s': %s", text, e.what());
    return nullptr;
  }
}

dtl_source_array_t* dtl_create_source_array_from_input(const char* text) {
  if (text == nullptr) {
    log_invalid(text);
    return nullptr;
  }
  try {
    struct stat st;
    if (stat(text, &st) != 0) return array_from_range(text);
    return array_from_file(text);
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[source] Failed to create sources from '%s': %s", text, e.what());
    return nullptr;
  }
}

}  // extern "C"
