// Text templates used to build file names, data paths and messages: a
// key-based form that replaces "{{key}}" placeholders, and a printf-style
// form that returns a newly allocated string.
#pragma once

#include <stdarg.h>

#include "dtl_export.h"

DTL_EXTERN_C_BEGIN

// printf-style expansion into a newly allocated text; null on failure (logged).
// The caller frees the text.
DTL_EXPORT char* dtl_expand_string_template(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
DTL_EXPORT char* dtl_vexpand_string_template(const char* format, va_list args)
    __attribute__((format(printf, 1, 0)));

DTL_EXTERN_C_END

#ifdef __cplusplus
#include <map>
#include <string>

namespace dtl {

// Replaces every "{{key}}" whose key is in values by its value; unknown keys
// are kept with their braces. No escaping, no nesting, values are not
// re-scanned; a "{{" without a later "}}" is copied as it is.
std::string string_template(std::string const& text,
                            std::map<std::string, std::string> const& values);

}  // namespace dtl
#endif
