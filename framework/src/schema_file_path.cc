#include "dtl_schema_file.h"

#include "dtl_counters.h"

namespace dtl {

std::string md5(std::string const& text) {
  static constexpr char kHex[] = "0123456789abcdef";
  unsigned char digest[16];
  dtl_MD5(text.data(), text.size(), digest);
  std::string out(32, '0');
  for (size_t i = 0; i < sizeof(digest); ++i) {
    out[2 * i] = kHex[digest[i] >> 4];
    out[2 * i + 1] = kHex[digest[i] & 0x0F];
  }
  return out;
}

namespace data_file {

std::string get_schema_file_path(std::string const& dir, unsigned char const* id) {
  if (id == nullptr) return {};
  char text[33] = {0};
  dtl_schema_id_to_schema_string(id, text);
  if (text[0] == '\0') return {};
  return dir + "/schema_" + text + ".json";
}

}  // namespace data_file
}  // namespace dtl
