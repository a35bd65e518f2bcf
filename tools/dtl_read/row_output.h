// Text forms of the samples of a data file: CSV rows (one heading row, then
// one row per block) and JSON lines (one object per block).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/dtl_read/counter_schema.h"

namespace dtl::read {

// A counter's value in a block's value area, printed by its data type:
// unsigned and signed decimals, FP64 as the shortest exact decimal, BIT64 as
// 0x and 16 hex digits, STRING as text up to its first zero byte, the 128-bit
// types and anything else of an unusual length as 0x and hex bytes in memory order.
std::string FormatValue(const CounterColumn& column, const uint8_t* values);

// "timestamp_us" and the column names, comma-separated and quoted as CSV needs.
std::string CsvHeading(const std::vector<CounterColumn>& columns);
std::string CsvRow(uint64_t timestamp_us, const std::vector<CounterColumn>& columns,
                   const uint8_t* values);
// {"timestamp_us":..., "<column>":value, ...} on one line; numbers as JSON
// numbers (a non-finite FP64 as null), everything else as strings.
std::string JsonRow(uint64_t timestamp_us, const std::vector<CounterColumn>& columns,
                    const uint8_t* values);

}  // namespace dtl::read
