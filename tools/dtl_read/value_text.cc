#include "tools/dtl_read/value_text.h"

#include <charconv>
#include <cstring>

#include "dtl_counters.h"
#include "dtl_json.h"

namespace dtl::read {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

template <typename T>
T Load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof(v));
  return v;
}

char* AppendHex(char* out, const uint8_t* p, size_t n) {
  *out++ = '0';
  *out++ = 'x';
  for (size_t i = 0; i < n; ++i) {
    *out++ = kHexDigits[p[i] >> 4];
    *out++ = kHexDigits[p[i] & 15];
  }
  return out;
}

char* AppendBits(char* out, uint64_t v) {
  *out++ = '0';
  *out++ = 'x';
  for (int shift = 60; shift >= 0; shift -= 4) *out++ = kHexDigits[(v >> shift) & 15];
  return out;
}

bool NeedsCsvQuotes(std::string_view text) { return text.find_first_of(",\"\r\n") != std::string_view::npos; }

char* AppendCsvText(char* out, std::string_view text) {
  if (!NeedsCsvQuotes(text)) {
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
  }
  *out++ = '"';
  for (char ch : text) {
    if (ch == '"') *out++ = '"';
    *out++ = ch;
  }
  *out++ = '"';
  return out;
}

// Plain printable ASCII needs no escape and no UTF-8 check.
bool PlainJsonText(std::string_view text) {
  for (unsigned char ch : text)
    if (ch < 0x20 || ch >= 0x7f || ch == '"' || ch == '\\') return false;
  return true;
}

}  // namespace

ValueKind KindOf(const CounterColumn& column) {
  if (column.data_type == DTL_DATA_TYPE_STRING) return ValueKind::kText;
  if (column.length != 8) return ValueKind::kBytes;
  switch (column.data_type) {
    case DTL_DATA_TYPE_UNDEFINED:
    case DTL_DATA_TYPE_UINT64:
      return ValueKind::kUnsigned;
    case DTL_DATA_TYPE_INT64:
      return ValueKind::kSigned;
    case DTL_DATA_TYPE_FP64:
      return ValueKind::kReal;
    case DTL_DATA_TYPE_BIT64:
      return ValueKind::kBits;
    default:
      return ValueKind::kBytes;
  }
}

size_t MaxValueText(const CounterColumn& column) {
  switch (KindOf(column)) {
    case ValueKind::kText:
      return 2 * size_t{column.length} + 2;
    case ValueKind::kBytes:
      return 2 * size_t{column.length} + 2;
    default:
      return 32;
  }
}

char* AppendUnsigned(char* out, uint64_t value) { return std::to_chars(out, out + 20, value).ptr; }

char* AppendShortest(char* out, double value) { return std::to_chars(out, out + 32, value).ptr; }

char* AppendCsvValue(char* out, ValueKind kind, const CounterColumn& column, const uint8_t* values) {
  const uint8_t* p = values + column.offset;
  switch (kind) {
    case ValueKind::kUnsigned:
      return AppendUnsigned(out, Load<uint64_t>(p));
    case ValueKind::kSigned:
      return std::to_chars(out, out + 20, Load<int64_t>(p)).ptr;
    case ValueKind::kReal:
      return AppendShortest(out, Load<double>(p));
    case ValueKind::kBits:
      return AppendBits(out, Load<uint64_t>(p));
    case ValueKind::kText:
      return AppendCsvText(out, TextOf(column, values));
    case ValueKind::kBytes:
      break;
  }
  return AppendHex(out, p, column.length);
}

void AppendCsvField(OutputBuffer& out, std::string_view text) {
  char* at = out.Reserve(2 * text.size() + 2);
  out.Commit(AppendCsvText(at, text));
}

std::string CsvField(std::string_view text) {
  std::string field(2 * text.size() + 2, '\0');
  field.resize(static_cast<size_t>(AppendCsvText(field.data(), text) - field.data()));
  return field;
}

void AppendJsonString(OutputBuffer& out, std::string_view text) {
  if (!PlainJsonText(text)) {
    out.Append(JsonString(text));
    return;
  }
  char* at = out.Reserve(text.size() + 2);
  *at++ = '"';
  std::memcpy(at, text.data(), text.size());
  at += text.size();
  *at++ = '"';
  out.Commit(at);
}

std::string JsonString(std::string_view text) {
  // Rare texts take the library's own escaping, which stays the reference.
  return json::value(std::string(text)).dump(-1, ' ', false, json::value::error_handler_t::replace);
}

std::string_view TextOf(const CounterColumn& column, const uint8_t* values) {
  const char* p = reinterpret_cast<const char*>(values + column.offset);
  const void* end = std::memchr(p, 0, column.length);
  return std::string_view(p, end != nullptr ? static_cast<const char*>(end) - p : column.length);
}

std::string FormatValue(const CounterColumn& column, const uint8_t* values) {
  if (KindOf(column) == ValueKind::kText) return std::string(TextOf(column, values));
  std::string text(MaxValueText(column), '\0');
  text.resize(static_cast<size_t>(AppendCsvValue(text.data(), KindOf(column), column, values) - text.data()));
  return text;
}

}  // namespace dtl::read
