#include "dtl_string_template.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dtl_logger.h"

namespace dtl {

std::string string_template(std::string const& text,
                            std::map<std::string, std::string> const& values) {
  static constexpr std::string_view kOpen = "{{";
  static constexpr std::string_view kClose = "}}";
  std::string out;
  out.reserve(text.size());
  size_t pos = 0;
  while (pos < text.size()) {
    size_t open = text.find(kOpen, pos);
    size_t close = open == std::string::npos ? open : text.find(kClose, open + kOpen.size());
    if (close == std::string::npos) break;
    out.append(text, pos, open - pos);
    std::string key = text.substr(open + kOpen.size(), close - open - kOpen.size());
    auto it = values.find(key);
    if (it != values.end()) {
      out += it->second;
    } else {
      out.append(kOpen).append(key).append(kClose);
    }
    pos = close + kClose.size();
  }
  if (pos < text.size()) out.append(text, pos, std::string::npos);
  return out;
}

}  // namespace dtl

extern "C" char* dtl_vexpand_string_template(const char* format, va_list args) {
  // Two passes over the arguments: one to measure, one to format.
  if (format == nullptr) {
    DTL_LOG_ERROR("Failed to calculate length of expanded string template");
    return nullptr;
  }
  va_list measure;
  va_copy(measure, args);
  int length = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length < 0) {
    DTL_LOG_ERROR("Failed to calculate length of expanded string template");
    return nullptr;
  }
  char* buffer = static_cast<char*>(malloc(static_cast<size_t>(length) + 1));
  if (buffer == nullptr) {
    DTL_LOG_ERROR("Failed to allocate buffer for expanded string of size %d: %s", length + 1,
                  strerror(errno));
    return nullptr;
  }
  int written = vsnprintf(buffer, static_cast<size_t>(length) + 1, format, args);
  if (written != length) {
    DTL_LOG_ERROR("Failed to expand file string template");
    free(buffer);
    return nullptr;
  }
  return buffer;
}

extern "C" char* dtl_expand_string_template(const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* text = dtl_vexpand_string_template(format, args);
  va_end(args);
  return text;
}
