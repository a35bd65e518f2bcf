#include "tools/dtl_read/row_output.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "dtl_counters.h"
#include "dtl_json.h"

namespace dtl::read {

namespace {

template <typename T>
T Load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof(v));
  return v;
}

std::string HexBytes(const uint8_t* p, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string s = "0x";
  for (size_t i = 0; i < n; ++i) {
    s += kDigits[p[i] >> 4];
    s += kDigits[p[i] & 15];
  }
  return s;
}

std::string FormatDouble(double d) {
  char buf[32];
  snprintf(buf, sizeof buf, "%.17g", d);
  return buf;
}

bool IsEightByteNumber(const CounterColumn& c) {
  return c.length == 8 &&
         (c.data_type == DTL_DATA_TYPE_UNDEFINED || c.data_type == DTL_DATA_TYPE_UINT64 ||
          c.data_type == DTL_DATA_TYPE_INT64 || c.data_type == DTL_DATA_TYPE_FP64);
}

std::string CsvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char ch : text) {
    if (ch == '"') quoted += '"';
    quoted += ch;
  }
  return quoted + "\"";
}

}  // namespace

std::string FormatValue(const CounterColumn& column, const uint8_t* values) {
  const uint8_t* p = values + column.offset;
  if (column.data_type == DTL_DATA_TYPE_STRING) {
    const void* end = std::memchr(p, 0, column.length);
    return std::string(reinterpret_cast<const char*>(p),
                       end ? static_cast<const uint8_t*>(end) - p : column.length);
  }
  if (column.length != 8) return HexBytes(p, column.length);
  switch (column.data_type) {
    case DTL_DATA_TYPE_INT64:
      return std::to_string(Load<int64_t>(p));
    case DTL_DATA_TYPE_FP64:
      return FormatDouble(Load<double>(p));
    case DTL_DATA_TYPE_BIT64: {
      char buf[24];
      snprintf(buf, sizeof buf, "0x%016llx", static_cast<unsigned long long>(Load<uint64_t>(p)));
      return buf;
    }
    case DTL_DATA_TYPE_UNDEFINED:
    case DTL_DATA_TYPE_UINT64:
      return std::to_string(Load<uint64_t>(p));
    default:
      return HexBytes(p, column.length);
  }
}

std::string CsvHeading(const std::vector<CounterColumn>& columns) {
  std::string line = "timestamp_us";
  for (const CounterColumn& c : columns) line += "," + CsvField(c.column);
  return line;
}

std::string CsvRow(uint64_t timestamp_us, const std::vector<CounterColumn>& columns,
                   const uint8_t* values) {
  std::string line = std::to_string(timestamp_us);
  for (const CounterColumn& c : columns) line += "," + CsvField(FormatValue(c, values));
  return line;
}

std::string JsonRow(uint64_t timestamp_us, const std::vector<CounterColumn>& columns,
                    const uint8_t* values) {
  json::value row = json::value::object();
  row["timestamp_us"] = timestamp_us;
  for (const CounterColumn& c : columns) {
    json::value& cell = row[c.column];
    if (!IsEightByteNumber(c)) {
      cell = FormatValue(c, values);
    } else if (c.data_type == DTL_DATA_TYPE_INT64) {
      cell = Load<int64_t>(values + c.offset);
    } else if (c.data_type == DTL_DATA_TYPE_FP64) {
      const double d = Load<double>(values + c.offset);
      if (std::isfinite(d)) cell = d;
    } else {
      cell = Load<uint64_t>(values + c.offset);
    }
  }
  // Replacement keeps odd bytes of STRING counters from aborting the line.
  return row.dump(-1, ' ', false, json::value::error_handler_t::replace);
}

}  // namespace dtl::read
