// Option lookup in the dictionary and the environment, and the text
// conversions behind it. The typed lookup is strict (the whole text must
// convert) while the flat C forms scan leniently with sscanf.
#include "dtl_options.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <optional>
#include <type_traits>
#include <typeinfo>

#include "dtl_logger.h"

namespace {

constexpr const char* kEnvPrefix = "DTL_";

struct FreeDeleter {
  void operator()(char* p) const { free(p); }
};
using CText = std::unique_ptr<char, FreeDeleter>;

[[noreturn]] void ThrowBadCast(const std::type_info& target) {
  throw boost::bad_lexical_cast(typeid(std::string), target);
}

// An optional single "+" or "-" followed by one or more decimal digits.
// Checked before lexical_cast so that no locale (digit grouping) can make
// other text acceptable.
bool IsPlainInteger(const std::string& text) {
  size_t i = 0;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  if (i == text.size()) return false;
  for (; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

template <typename T>
T ConvertOptionText(const std::string& text) {
  if constexpr (std::is_same_v<T, std::string>) {
    return text;
  } else if constexpr (std::is_same_v<T, bool>) {
    return dtl::detail::string_to_bool(text);
  } else {
    static_assert(std::is_integral_v<T>);
    if (!IsPlainInteger(text)) ThrowBadCast(typeid(T));
    // lexical_cast rejects magnitudes that do not fit and negates unsigned
    // values modulo the type's width ("-1" → max).
    return boost::lexical_cast<T>(text);
  }
}

// The dictionary value when the key is there, else the environment value.
std::optional<std::string> LookupOptionText(const dtl_custom_options* options,
                                            const std::string& name, const std::string& prefix) {
  if (options != nullptr) {
    const char* value = dtl_dict_get(options, name.c_str());
    if (value != nullptr) return std::string(value);
  }
  CText env_name(dtl_option_name_to_environment_key(name.c_str(), prefix.c_str()));
  if (!env_name) return std::nullopt;
  const char* value = dtl_getenv(env_name.get());
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

}  // namespace

namespace dtl::detail {

bool string_to_bool(const std::string& text) {
  if (text == "1" || text == "T" || text == "true" || text == "True") return true;
  if (text == "0" || text == "F" || text == "false" || text == "False") return false;
  ThrowBadCast(typeid(bool));
}

}  // namespace dtl::detail

namespace boost {

template <>
bool lexical_cast<bool, std::string>(const std::string& arg) {
  return dtl::detail::string_to_bool(arg);
}

}  // namespace boost

namespace dtl::plugin {

template <typename T>
T get_configuration_option(const dtl_custom_options* options, const std::string& name,
                           const T& default_value, const std::string& prefix) {
  const std::optional<std::string> text = LookupOptionText(options, name, prefix);
  if (!text) return default_value;
  try {
    return ConvertOptionText<T>(*text);
  } catch (const boost::bad_lexical_cast&) {
    return default_value;
  }
}

template bool get_configuration_option<bool>(const dtl_custom_options*, const std::string&,
                                             const bool&, const std::string&);
template int get_configuration_option<int>(const dtl_custom_options*, const std::string&,
                                           const int&, const std::string&);
template unsigned int get_configuration_option<unsigned int>(const dtl_custom_options*,
                                                             const std::string&,
                                                             const unsigned int&,
                                                             const std::string&);
template unsigned long get_configuration_option<unsigned long>(const dtl_custom_options*,
                                                               const std::string&,
                                                               const unsigned long&,
                                                               const std::string&);
template unsigned short get_configuration_option<unsigned short>(const dtl_custom_options*,
                                                                 const std::string&,
                                                                 const unsigned short&,
                                                                 const std::string&);
template std::string get_configuration_option<std::string>(const dtl_custom_options*,
                                                           const std::string&, const std::string&,
                                                           const std::string&);

}  // namespace dtl::plugin

extern "C" {

DTL_EXPORT char* dtl_option_name_to_environment_key(const char* name, const char* prefix) {
  if (name == nullptr || prefix == nullptr) return nullptr;
  const size_t prefix_len = strlen(prefix);
  const size_t name_len = strlen(name);
  auto* key = static_cast<char*>(malloc(prefix_len + name_len + 1));
  if (key == nullptr) return nullptr;
  memcpy(key, prefix, prefix_len);
  for (size_t i = 0; i < name_len; ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    key[prefix_len + i] = c == '-' ? '_' : static_cast<char>(toupper(c));
  }
  key[prefix_len + name_len] = '\0';
  return key;
}

DTL_EXPORT char* dtl_option_to_env_name(const char* name) {
  return dtl_option_name_to_environment_key(name, kEnvPrefix);
}

DTL_EXPORT const char* dtl_get_configuration_option_string(const dtl_custom_options* options,
                                                           const char* name,
                                                           const char* default_value) {
  if (name == nullptr) return default_value;
  const char* value = dtl_dict_get(options, name);
  if (value != nullptr) return value;
  CText env_name(dtl_option_to_env_name(name));
  if (!env_name) return default_value;
  value = getenv(env_name.get());
  return value != nullptr ? value : default_value;
}

DTL_EXPORT int dtl_get_configuration_option_int(const dtl_custom_options* options,
                                                const char* name, int default_value) {
  if (name == nullptr) return default_value;
  const char* value = dtl_dict_get(options, name);
  if (value == nullptr) {
    CText env_name(dtl_option_to_env_name(name));
    if (!env_name) return default_value;
    value = dtl_getenv(env_name.get());
  }
  int result = 0;
  if (value == nullptr || sscanf(value, "%d", &result) != 1) return default_value;
  return result;
}

DTL_EXPORT uint64_t dtl_get_configuration_option_uint64(const dtl_custom_options* options,
                                                        const char* name,
                                                        uint64_t default_value) {
  static_assert(sizeof(unsigned long) == sizeof(uint64_t), "%lu must scan 64 bits");
  if (name == nullptr) return default_value;
  const char* value = dtl_dict_get(options, name);
  if (value == nullptr) {
    CText env_name(dtl_option_to_env_name(name));
    if (!env_name) return default_value;
    value = getenv(env_name.get());
  }
  unsigned long result = 0;
  if (value == nullptr || sscanf(value, "%lu", &result) != 1) return default_value;
  return result;
}

}  // extern "C"
