// Text forms of dtl::json::value in the layout other Dartel components
// expect byte for byte. Every number is written as a double with 17
// significant digits ("%1.17g"), because that is how those components store
// and print numbers; schema identifiers are digests of this text, so any
// change in layout changes every identifier.
//
// Values the reference layout cannot hold are written as:
//   - NaN and infinities: null (the text stays valid JSON);
//   - binary values: an array of the byte values;
//   - discarded values: null;
//   - text that is not valid UTF-8: the reference library cannot hold such
//     a string at all (creating it fails), so an object member whose key or
//     string value is invalid, and an array element that is an invalid
//     string, are left out; an invalid string on its own is written as null.
//     The output is therefore always valid JSON in UTF-8.
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>

#include "dtl_json.h"

namespace dtl::json {
namespace {

constexpr std::string_view kIndent = "    ";

// Escape text per byte; an empty entry means the byte is copied as it is.
struct EscapeTable {
  char text[256][7] = {};
  unsigned char length[256] = {};

  constexpr EscapeTable() {
    constexpr char hex[] = "0123456789abcdef";
    for (int c = 0; c < 0x20; ++c) {
      char* t = text[c];
      t[0] = '\\';
      t[1] = 'u';
      t[2] = '0';
      t[3] = '0';
      t[4] = hex[c >> 4];
      t[5] = hex[c & 0xF];
      length[c] = 6;
    }
    Short('"', '"');
    Short('\\', '\\');
    Short('/', '/');
    Short('\b', 'b');
    Short('\f', 'f');
    Short('\n', 'n');
    Short('\r', 'r');
    Short('\t', 't');
  }

  constexpr void Short(unsigned char c, char letter) {
    text[c][0] = '\\';
    text[c][1] = letter;
    length[c] = 2;
  }
};

constexpr EscapeTable kEscapes;

bool IsContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Whether the value would reach the text: invalid strings are left out.
bool Writable(const value& v) {
  return !v.is_string() || is_valid_utf8(v.get_ref<const value::string_t&>());
}

void AppendString(std::string& out, std::string_view s) {
  out.push_back('"');
  const char* run = s.data();
  const char* const end = s.data() + s.size();
  for (const char* p = run; p != end; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (kEscapes.length[c] == 0) continue;
    // Copy the plain run before the escaped byte in one piece.
    out.append(run, static_cast<size_t>(p - run));
    out.append(kEscapes.text[c], kEscapes.length[c]);
    run = p + 1;
  }
  out.append(run, static_cast<size_t>(end - run));
  out.push_back('"');
}

void AppendNumber(std::string& out, double d) {
  if (!std::isfinite(d)) {
    out.append("null");
    return;
  }
  char buffer[40];
  std::to_chars_result result;
  // "%.17g" writes a whole number below 1e17 as its plain digits; counts and
  // offsets are nearly all such numbers, and integer formatting is far
  // cheaper than the general double path.
  if (d == 0) {
    out.append(std::signbit(d) ? "-0" : "0");
    return;
  }
  if (std::fabs(d) < 1e17 && std::trunc(d) == d) {
    result = std::to_chars(buffer, buffer + sizeof(buffer), static_cast<std::int64_t>(d));
  } else {
    // to_chars with a precision writes what printf's "%.17g" writes in the C
    // locale, so the decimal point never depends on the process locale.
    result = std::to_chars(buffer, buffer + sizeof(buffer), d, std::chars_format::general, 17);
  }
  out.append(buffer, result.ptr);
}

template <bool kPretty>
void AppendIndent(std::string& out, int level) {
  if constexpr (kPretty) {
    for (int i = 0; i < level; ++i) out.append(kIndent);
  }
}

template <bool kPretty>
void AppendValue(std::string& out, const value& v, int level);

// Arrays and objects share the layout: opening bracket, members one per
// line in the pretty form, "," between them, closing bracket on its own line;
// a container whose members are all left out is written empty.
template <bool kPretty, typename Range, typename Keep, typename Member>
void AppendContainer(std::string& out, const Range& range, char open, char close, int level,
                     Keep&& keep, Member&& member) {
  out.push_back(open);
  bool first = true;
  for (auto it = range.begin(); it != range.end(); ++it) {
    if (!keep(it)) continue;
    if (!first) out.push_back(',');
    first = false;
    if constexpr (kPretty) out.push_back('\n');
    AppendIndent<kPretty>(out, level + 1);
    member(it);
  }
  if (!first) {
    if constexpr (kPretty) out.push_back('\n');
    AppendIndent<kPretty>(out, level);
  }
  out.push_back(close);
}

template <bool kPretty>
void AppendValue(std::string& out, const value& v, int level) {
  switch (v.type()) {
    case value::value_t::object: {
      const auto& object = v.get_ref<const value::object_t&>();
      AppendContainer<kPretty>(
          out, object, '{', '}', level,
          [](auto it) { return is_valid_utf8(it->first) && Writable(it->second); },
          [&](auto it) {
            AppendString(out, it->first);
            out.push_back(':');
            if constexpr (kPretty) out.push_back(' ');
            AppendValue<kPretty>(out, it->second, level + 1);
          });
      break;
    }
    case value::value_t::array: {
      const auto& array = v.get_ref<const value::array_t&>();
      AppendContainer<kPretty>(
          out, array, '[', ']', level, [](auto it) { return Writable(*it); },
          [&](auto it) { AppendValue<kPretty>(out, *it, level + 1); });
      break;
    }
    case value::value_t::string:
      AppendString(out, v.get_ref<const value::string_t&>());
      break;
    case value::value_t::boolean:
      out.append(v.get<bool>() ? "true" : "false");
      break;
    case value::value_t::number_integer:
      AppendNumber(out, static_cast<double>(v.get<std::int64_t>()));
      break;
    case value::value_t::number_unsigned:
      AppendNumber(out, static_cast<double>(v.get<std::uint64_t>()));
      break;
    case value::value_t::number_float:
      AppendNumber(out, v.get<double>());
      break;
    case value::value_t::binary: {
      const auto& bytes = v.get_binary();
      AppendContainer<kPretty>(
          out, bytes, '[', ']', level, [](auto) { return true; },
          [&](auto it) { AppendNumber(out, static_cast<double>(*it)); });
      break;
    }
    case value::value_t::null:
    case value::value_t::discarded:
    default:
      out.append("null");
      break;
  }
}

template <bool kPretty>
std::string Serialize(const value& v) {
  std::string out;
  // Most documents (REST bodies, schemas of a few hundred counters) fit
  // without a regrowth; larger ones grow geometrically.
  out.reserve(4096);
  if (Writable(v))
    AppendValue<kPretty>(out, v, 0);
  else
    out.append("null");
  return out;
}

}  // namespace

// Strict UTF-8: no overlong forms, no surrogate halves, nothing above
// U+10FFFF, no stray continuation bytes, no cut-off sequences.
bool is_valid_utf8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = p + text.size();
  while (p != end) {
    const unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    size_t length;
    uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      cp = c & 0x07;
    } else {
      return false;  // continuation byte, 0xC0/0xC1 (always overlong), 0xF5..0xFF
    }
    if (static_cast<size_t>(end - p) < length) return false;
    for (size_t i = 1; i < length; ++i) {
      if (!IsContinuation(p[i])) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    if ((length == 3 && cp < 0x800) || (length == 4 && cp < 0x10000) || cp > 0x10FFFF ||
        (cp >= 0xD800 && cp <= 0xDFFF))
      return false;
    p += length;
  }
  return true;
}

std::string serialize_pretty(const value& v) { return Serialize<true>(v); }

std::string serialize_compact(const value& v) { return Serialize<false>(v); }

}  // namespace dtl::json

extern "C" DTL_EXPORT void dtl_json_value_free(dtl_json_value_t* value) {
  // Releasing a document cannot throw; the boundary owns the raw delete.
  delete value;
}
