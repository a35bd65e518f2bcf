// Configuration option lookup: an option is taken from the host's option
// dictionary, else from the environment ("DTL_" + the key upper-cased with
// "-" as "_", the bare name as fallback), else the caller's default.
#pragma once

#include <stdint.h>

#include "dtl_dict.h"
#include "dtl_export.h"

DTL_EXTERN_C_BEGIN

// prefix + name with "-" turned into "_" and every other byte upper-cased;
// null when allocation fails. Free with free().
DTL_EXPORT char* dtl_option_name_to_environment_key(const char* name, const char* prefix);

// dtl_option_name_to_environment_key with the prefix "DTL_".
DTL_EXPORT char* dtl_option_to_env_name(const char* name);

// The dictionary value as is, else the "DTL_" variable (no bare-name
// fallback), else default_value. The result is not owned by the caller.
DTL_EXPORT const char* dtl_get_configuration_option_string(const dtl_custom_options* options,
                                                           const char* name,
                                                           const char* default_value);

// The dictionary value, else the "DTL_" variable with the bare-name
// fallback, scanned leniently as "%d" (leading blanks and trailing text
// ignored); default_value when nothing is set or no number is found.
DTL_EXPORT int dtl_get_configuration_option_int(const dtl_custom_options* options,
                                                const char* name, int default_value);

// The dictionary value, else the "DTL_" variable only, scanned as "%lu".
DTL_EXPORT uint64_t dtl_get_configuration_option_uint64(const dtl_custom_options* options,
                                                        const char* name,
                                                        uint64_t default_value);

DTL_EXTERN_C_END

#ifdef __cplusplus

#include <string>

#include <boost/lexical_cast.hpp>

namespace dtl::detail {

// "1", "T", "true", "True" → true; "0", "F", "false", "False" → false;
// anything else throws boost::bad_lexical_cast.
bool string_to_bool(const std::string& text);

}  // namespace dtl::detail

// Every boolean conversion from text in the program goes through
// dtl::detail::string_to_bool. Include this header wherever
// boost::lexical_cast<bool>(std::string) is used, so that the
// specialisation is seen before any use.
namespace boost {
template <>
bool lexical_cast<bool, std::string>(const std::string& arg);
}  // namespace boost

namespace dtl::plugin {

// Typed option lookup: the dictionary value when the key is there (even
// when empty), else the environment name built from prefix and name (see
// dtl_getenv for the bare-name fallback), else default_value. Integers must
// be an optional sign and digits only and fit the type (a leading "-" on an
// unsigned type negates modulo its width); text that does not convert gives
// default_value. Available for bool, int, unsigned int, unsigned long,
// unsigned short and std::string; options may be null.
template <typename T>
T get_configuration_option(const dtl_custom_options* options, const std::string& name,
                           const T& default_value, const std::string& prefix);

extern template bool get_configuration_option<bool>(const dtl_custom_options*, const std::string&,
                                                    const bool&, const std::string&);
extern template int get_configuration_option<int>(const dtl_custom_options*, const std::string&,
                                                  const int&, const std::string&);
extern template unsigned int get_configuration_option<unsigned int>(const dtl_custom_options*,
                                                                    const std::string&,
                                                                    const unsigned int&,
                                                                    const std::string&);
extern template unsigned long get_configuration_option<unsigned long>(const dtl_custom_options*,
                                                                      const std::string&,
                                                                      const unsigned long&,
                                                                      const std::string&);
extern template unsigned short get_configuration_option<unsigned short>(const dtl_custom_options*,
                                                                        const std::string&,
                                                                        const unsigned short&,
                                                                        const std::string&);
extern template std::string get_configuration_option<std::string>(const dtl_custom_options*,
                                                                  const std::string&,
                                                                  const std::string&,
                                                                  const std::string&);

// Lets a string option take a literal default.
inline std::string get_configuration_option(const dtl_custom_options* options,
                                            const std::string& name, const char* default_value,
                                            const std::string& prefix) {
  return get_configuration_option<std::string>(options, name, std::string(default_value), prefix);
}

}  // namespace dtl::plugin

#endif  // __cplusplus
