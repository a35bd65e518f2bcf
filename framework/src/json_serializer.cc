// Text forms of dtl::json::value in the layout other Dartel components
// expect byte for byte. Every number is written as a double with 17
// significant digits ("%1.17g"), because that is how those components store
// and print numbers; schema identifiers are digests of this text, so any
// change in layout changes every identifier.
//
// Values the reference layout cannot hold are written as:
//   - NaN and infinities: null (the text stays valid JSON);
//   - binary values: an array of the byte values;
//   - discarded values: null.
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
// line in the pretty form, "," between them, closing bracket on its own line.
template <bool kPretty, typename Range, typename Member>
void AppendContainer(std::string& out, const Range& range, size_t count, char open, char close,
                     int level, Member&& member) {
  out.push_back(open);
  if (count == 0) {
    out.push_back(close);
    return;
  }
  if constexpr (kPretty) out.push_back('\n');
  size_t i = 0;
  for (auto it = range.begin(); it != range.end(); ++it, ++i) {
    AppendIndent<kPretty>(out, level + 1);
    member(it);
    if (i + 1 < count) out.push_back(',');
    if constexpr (kPretty) out.push_back('\n');
  }
  AppendIndent<kPretty>(out, level);
  out.push_back(close);
}

template <bool kPretty>
void AppendValue(std::string& out, const value& v, int level) {
  switch (v.type()) {
    case value::value_t::object: {
      const auto& object = v.get_ref<const value::object_t&>();
      AppendContainer<kPretty>(out, object, object.size(), '{', '}', level, [&](auto it) {
        AppendString(out, it->first);
        out.push_back(':');
        if constexpr (kPretty) out.push_back(' ');
        AppendValue<kPretty>(out, it->second, level + 1);
      });
      break;
    }
    case value::value_t::array: {
      const auto& array = v.get_ref<const value::array_t&>();
      AppendContainer<kPretty>(out, array, array.size(), '[', ']', level,
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
      AppendContainer<kPretty>(out, bytes, bytes.size(), '[', ']', level,
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
  AppendValue<kPretty>(out, v, 0);
  return out;
}

}  // namespace

std::string serialize_pretty(const value& v) { return Serialize<true>(v); }

std::string serialize_compact(const value& v) { return Serialize<false>(v); }

}  // namespace dtl::json

extern "C" DTL_EXPORT void dtl_json_value_free(dtl_json_value_t* value) {
  // Releasing a document cannot throw; the boundary owns the raw delete.
  delete value;
}
