// Text of single counter values and cells, written straight into an output
// buffer: unsigned and signed decimals, FP64 as the shortest decimal that
// reads back to the same double, BIT64 as 0x and 16 hex digits, STRING as
// its text up to the first zero byte, anything else (the 128-bit types,
// unusual lengths) as 0x and its bytes in memory order.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/dtl_read/counter_schema.h"
#include "tools/dtl_read/output_buffer.h"

namespace dtl::read {

enum class ValueKind { kUnsigned, kSigned, kReal, kBits, kText, kBytes };

ValueKind KindOf(const CounterColumn& column);
// Most characters AppendValue writes for the column (CSV quoting included).
size_t MaxValueText(const CounterColumn& column);

// The value of `column` (of kind KindOf(column)) in a block's value area,
// quoted as a CSV field needs; returns the end.
char* AppendCsvValue(char* out, ValueKind kind, const CounterColumn& column, const uint8_t* values);
// Shortest decimal that reads back to the same double ("inf", "nan" for
// the others); at most 24 characters.
char* AppendShortest(char* out, double value);
char* AppendUnsigned(char* out, uint64_t value);

// CSV field: as is, or in double quotes (inner ones doubled) when it holds
// a comma, a quote or a line break.
void AppendCsvField(OutputBuffer& out, std::string_view text);
std::string CsvField(std::string_view text);
// JSON string literal as the framework's JSON library writes it: escapes
// for quotes, backslashes and control bytes, invalid UTF-8 replaced.
void AppendJsonString(OutputBuffer& out, std::string_view text);
std::string JsonString(std::string_view text);

// A STRING counter's text: its bytes up to the first zero.
std::string_view TextOf(const CounterColumn& column, const uint8_t* values);
// The value as text, unquoted (the summary's first and last values).
std::string FormatValue(const CounterColumn& column, const uint8_t* values);

}  // namespace dtl::read
