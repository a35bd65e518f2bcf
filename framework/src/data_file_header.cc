#include "dtl_data_file_header.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cstddef>

#include "dtl_counters.h"
#include "dtl_logger.h"

// The header is read and written as raw bytes, so its layout must never
// depend on the compiler.
static_assert(sizeof(dtl_version_t) == 4);
static_assert(sizeof(dtl_data_file_header_t) == DTL_DATA_FILE_HEADER_SIZE);
static_assert(offsetof(dtl_data_file_header_t, magic) == 0);
static_assert(offsetof(dtl_data_file_header_t, version) == 4);
static_assert(offsetof(dtl_data_file_header_t, version.major) == 4);
static_assert(offsetof(dtl_data_file_header_t, version.minor) == 5);
static_assert(offsetof(dtl_data_file_header_t, version.patch) == 6);
static_assert(offsetof(dtl_data_file_header_t, file_size) == 8);
static_assert(offsetof(dtl_data_file_header_t, source_id) == 16);
static_assert(offsetof(dtl_data_file_header_t, source_tag) == 80);
static_assert(offsetof(dtl_data_file_header_t, first_timestamp) == 96);
static_assert(offsetof(dtl_data_file_header_t, last_timestamp) == 104);
static_assert(offsetof(dtl_data_file_header_t, block_size) == 112);
static_assert(offsetof(dtl_data_file_header_t, counters_schema_id) == 116);
static_assert(offsetof(dtl_data_file_header_t, event_schema_ids) == 132);
static_assert(offsetof(dtl_data_file_header_t, byte_order) == 244);
static_assert(offsetof(dtl_data_file_header_t, padding) == 245);
static_assert(offsetof(dtl_data_file_header_t, magic_end) == 252);

namespace {

constexpr uint32_t kFrameworkVersion = 1u | (26u << 8) | (5u << 16);
constexpr uint16_t kReaderVersion = DTL_DATA_FILE_VERSION_MAJOR | (DTL_DATA_FILE_VERSION_MINOR << 8);
constexpr const char* kSchemaIdFailure = "Failed to get schema id string";

unsigned version_major(uint32_t v) { return v & 0xFFu; }
unsigned version_minor(uint32_t v) { return (v >> 8) & 0xFFu; }

uint32_t pack_version(const dtl_version_t& v) {
  return uint32_t{v.major} | (uint32_t{v.minor} << 8) | (uint32_t{v.patch} << 16);
}

// Zero-filled copy that always leaves room for the terminating zero.
void copy_text(char* destination, size_t size, const char* source) {
  memset(destination, 0, size);
  if (source != nullptr) memcpy(destination, source, strnlen(source, size - 1));
}

void print_schema_id_line(FILE* stream, const char* label, char* text) {
  fprintf(stream, " %-20s = %s\n", label, text != nullptr ? text : kSchemaIdFailure);
  free(text);
}

}  // namespace

extern "C" {

void dtl_magic_value_fill(void* magic, char type) {
  char* m = static_cast<char*>(magic);
  m[0] = 'D';
  m[1] = 'T';
  m[2] = 'L';
  m[3] = type;
}

void dtl_magic_value_fill_lower(void* magic, char type) {
  dtl_magic_value_fill(magic, type);
  unsigned char* m = static_cast<unsigned char*>(magic);
  for (int i = 0; i < DTL_MAGIC_SIZE; ++i) m[i] = static_cast<unsigned char>(tolower(m[i]));
}

void dtl_magic_value_copy(void* destination, const void* source) {
  memcpy(destination, source, DTL_MAGIC_SIZE);
}

bool dtl_magic_value_match_type(const void* magic, char type) {
  const char* m = static_cast<const char*>(magic);
  return memcmp(m, "DTL", 3) == 0 && m[3] == type;
}

bool dtl_magic_value_match(const void* a, const void* b) {
  const char* x = static_cast<const char*>(a);
  const char* y = static_cast<const char*>(b);
  return strncmp(x, y, 3) == 0 && x[3] == y[3];
}

uint32_t dtl_version(void) { return kFrameworkVersion; }

const char* dtl_version_string(void) { return DTL_FRAMEWORK_VERSION_STRING; }

const char* dtl_version_to_string(uint32_t version) {
  static char buffer[16];
  snprintf(buffer, sizeof buffer, "%u.%u.%u", version_major(version), version_minor(version),
           version >> 16);
  return buffer;
}

uint32_t dtl_version_from_string(const char* text) {
  if (text == nullptr) return 0;
  unsigned char major = 0;
  unsigned char minor = 0;
  unsigned short patch = 0;
  if (sscanf(text, "%hhu.%hhu .%hu", &major, &minor, &patch) < 2) return 0;
  return pack_version(dtl_version_t{major, minor, patch});
}

bool dtl_versions_are_compatible(uint32_t data_version, uint16_t reader_version) {
  return version_major(data_version) == version_major(reader_version) &&
         version_minor(reader_version) >= version_minor(data_version);
}

int dtl_version_compare(uint32_t a, uint32_t b) {
  int major = static_cast<int>(version_major(a)) - static_cast<int>(version_major(b));
  if (major != 0) return major;
  return static_cast<int>(version_minor(a)) - static_cast<int>(version_minor(b));
}

bool dtl_version_strings_are_compatible(const char* data_version, const char* reader_version) {
  uint32_t data = dtl_version_from_string(data_version);
  uint32_t reader = dtl_version_from_string(reader_version);
  if (data == 0 || reader == 0) return false;
  return dtl_versions_are_compatible(data, static_cast<uint16_t>(reader & 0xFFFFu));
}

dtl_data_file_header_t* dtl_create_data_file_header(void) {
  auto* header = static_cast<dtl_data_file_header_t*>(calloc(1, sizeof(dtl_data_file_header_t)));
  if (header == nullptr) {
    DTL_LOG_ERROR("[data] Failed to allocate data file header");
    return nullptr;
  }
  dtl_magic_value_fill(header->magic, DTL_MAGIC_TYPE_FILE);
  header->version.major = DTL_DATA_FILE_VERSION_MAJOR;
  header->version.minor = DTL_DATA_FILE_VERSION_MINOR;
  header->version.patch = DTL_DATA_FILE_VERSION_PATCH;
  header->file_size = DTL_DATA_FILE_HEADER_SIZE;
  header->byte_order = 0;
  dtl_magic_value_fill_lower(header->magic_end, DTL_MAGIC_TYPE_FILE);
  return header;
}

void dtl_destroy_data_file_header(dtl_data_file_header_t* header) { free(header); }

bool dtl_data_file_header_is_valid(const dtl_data_file_header_t* header) {
  if (header == nullptr) {
    DTL_LOG_ERROR("Wrong data page magic number.");
    return false;
  }
  if (!dtl_magic_value_match_type(header->magic, DTL_MAGIC_TYPE_FILE)) {
    DTL_LOG_ERROR("Wrong data page magic number.");
    return false;
  }
  if (!dtl_versions_are_compatible(pack_version(header->version), kReaderVersion)) {
    DTL_LOG_ERROR("Version of data page %u.%u.%u is incompatible with Dartel version %s",
                  unsigned{header->version.major}, unsigned{header->version.minor},
                  unsigned{header->version.patch}, DTL_FRAMEWORK_VERSION_STRING);
    return false;
  }
  if (header->file_size < DTL_DATA_FILE_HEADER_SIZE) {
    DTL_LOG_ERROR("Wrong data file size %ld is less then file header size %zu",
                  static_cast<long>(header->file_size), size_t{DTL_DATA_FILE_HEADER_SIZE});
    return false;
  }
  return true;
}

char* dtl_data_file_header_get_schema_id_str(const dtl_data_file_header_t* header,
                                             unsigned index) {
  if (header == nullptr || index >= DTL_DATA_FILE_EVENT_SCHEMA_COUNT) return nullptr;
  return dtl_schema_id_string(header->event_schema_ids[index]);
}

void dtl_data_file_header_print(FILE* stream, const dtl_data_file_header_t* h) {
  if (stream == nullptr || h == nullptr) return;
  fprintf(stream, "Data file header\n");
  fprintf(stream, " %-20s = %.4s\n", "magic number", h->magic);
  fprintf(stream, " %-20s = %u.%u.%u\n", "version", unsigned{h->version.major},
          unsigned{h->version.minor}, unsigned{h->version.patch});
  fprintf(stream, " %-20s = %lu\n", "file size", static_cast<unsigned long>(h->file_size));
  // Both text fields are printed bounded: a corrupt header may lack the zero.
  fprintf(stream, " %-20s = %.*s\n", "source id", DTL_DATA_FILE_SOURCE_ID_SIZE, h->source_id);
  fprintf(stream, " %-20s = %.*s\n", "source tag", DTL_DATA_FILE_SOURCE_TAG_SIZE, h->source_tag);
  fprintf(stream, " %-20s = %lu\n", "first timestamp",
          static_cast<unsigned long>(h->first_timestamp));
  fprintf(stream, " %-20s = %lu\n", "last timestamp",
          static_cast<unsigned long>(h->last_timestamp));
  fprintf(stream, " %-20s = %u\n", "data block size", unsigned{h->block_size});
  print_schema_id_line(stream, "counters schema id", dtl_schema_id_string(h->counters_schema_id));
  for (unsigned i = 0; i < DTL_DATA_FILE_EVENT_SCHEMA_COUNT; ++i) {
    char label[16];
    snprintf(label, sizeof label, "schema id[%u]", i);
    print_schema_id_line(stream, label, dtl_data_file_header_get_schema_id_str(h, i));
  }
  fprintf(stream, " %-20s = %u (%s)\n", "byte order", unsigned{h->byte_order},
          h->byte_order != 0 ? "BE" : "LE");
  fprintf(stream, " %-20s = %.4s\n", "end magic number", h->magic_end);
}

void dtl_data_file_header_print_struct_layout(void) {
  struct row {
    const char* name;
    size_t offset;
    size_t size;
  };
#define DTL_HEADER_ROW(field) \
  row { #field, offsetof(dtl_data_file_header_t, field), sizeof(dtl_data_file_header_t::field) }
  const row rows[] = {
      DTL_HEADER_ROW(magic),           DTL_HEADER_ROW(version),
      DTL_HEADER_ROW(file_size),       DTL_HEADER_ROW(source_id),
      DTL_HEADER_ROW(source_tag),      DTL_HEADER_ROW(first_timestamp),
      DTL_HEADER_ROW(last_timestamp),  DTL_HEADER_ROW(block_size),
      DTL_HEADER_ROW(counters_schema_id), DTL_HEADER_ROW(event_schema_ids),
      DTL_HEADER_ROW(byte_order),      DTL_HEADER_ROW(padding),
      DTL_HEADER_ROW(magic_end),
  };
#undef DTL_HEADER_ROW
  printf("Field                       Offset    Size\n");
  for (const row& r : rows)
    printf(" %-25s  %-8lu  %-lu\n", r.name, static_cast<unsigned long>(r.offset),
           static_cast<unsigned long>(r.size));
}

bool dtl_data_file_header_build(const char* source_id, const char* source_tag,
                                uint64_t first_timestamp, uint32_t block_size,
                                const unsigned char* counters_schema_id,
                                const unsigned char* event_schema_ids, void* buffer,
                                size_t buffer_length) {
  dtl_data_file_header_t* header = dtl_create_data_file_header();
  if (header == nullptr) return false;
  header->first_timestamp = first_timestamp;
  header->last_timestamp = 0;
  header->block_size = block_size;
  copy_text(header->source_id, sizeof header->source_id, source_id);
  copy_text(header->source_tag, sizeof header->source_tag, source_tag);
  if (counters_schema_id != nullptr)
    memcpy(header->counters_schema_id, counters_schema_id, sizeof header->counters_schema_id);
  if (event_schema_ids != nullptr)
    memcpy(header->event_schema_ids, event_schema_ids, sizeof header->event_schema_ids);
  if (buffer != nullptr)
    memcpy(buffer, header, std::min(buffer_length, sizeof(dtl_data_file_header_t)));
  dtl_destroy_data_file_header(header);
  return true;
}

}  // extern "C"
