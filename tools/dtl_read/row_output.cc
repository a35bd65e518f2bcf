#include "tools/dtl_read/row_output.h"

#include <cmath>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/dtl_read/time_text.h"

namespace dtl::read {

namespace {

char* Copy(char* p, std::string_view text) {
  std::memcpy(p, text.data(), text.size());
  return p + text.size();
}

template <typename T>
T Load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof(v));
  return v;
}

// The framework's JSON library prints doubles its own way (100.0, not 100);
// its formatter keeps JSON lines identical to what the library would dump.
char* AppendJsonReal(char* p, double value) { return nlohmann::detail::to_chars(p, p + 32, value); }

}  // namespace

RowOutput::RowOutput(std::vector<CounterColumn> columns, RowLayout layout, std::string_view source)
    : columns_(std::move(columns)), layout_(layout) {
  for (const CounterColumn& c : columns_) kinds_.push_back(KindOf(c));
  const char* time_name = layout_.iso_time ? "time" : "timestamp_us";
  std::vector<std::pair<std::string, int>> cells;
  if (layout_.source) cells.emplace_back("source", kSourceCell);
  cells.emplace_back(time_name, kTimeCell);
  for (size_t i = 0; i < columns_.size(); ++i) cells.emplace_back(columns_[i].column, static_cast<int>(i));

  row_bound_ = 64;
  for (const CounterColumn& c : columns_) row_bound_ += MaxValueText(c) + 3;
  if (!layout_.json) {
    source_text_ = CsvField(source);
    for (const auto& [name, cell] : cells) {
      if (!heading_.empty()) heading_ += ',';
      heading_ += CsvField(name);
    }
    heading_ += '\n';
    row_bound_ += source_text_.size();
    return;
  }
  source_text_ = JsonString(source);
  std::map<std::string, size_t> member_of;
  for (const auto& [name, cell] : cells) {
    const auto [it, added] = member_of.emplace(name, members_.size());
    if (added) {
      std::string key(members_.empty() ? "{" : ",");
      key += JsonString(name);
      key += ':';
      row_bound_ += key.size();
      members_.push_back({std::move(key), {}});
    }
    members_[it->second].cells.push_back(cell);
  }
  row_bound_ += source_text_.size();
}

char* RowOutput::AppendTime(char* p, uint64_t timestamp_us) const {
  return layout_.iso_time ? AppendIsoTime(p, timestamp_us) : AppendUnsigned(p, timestamp_us);
}

char* RowOutput::AppendCsvStart(char* p, uint64_t timestamp_us) const {
  if (layout_.source) {
    p = Copy(p, source_text_);
    *p++ = ',';
  }
  return AppendTime(p, timestamp_us);
}

void RowOutput::AppendRow(OutputBuffer& out, uint64_t timestamp_us, const uint8_t* values) const {
  char* p = out.Reserve(row_bound_);
  if (!layout_.json) {
    p = AppendCsvStart(p, timestamp_us);
    for (size_t i = 0; i < columns_.size(); ++i) {
      *p++ = ',';
      p = AppendCsvValue(p, kinds_[i], columns_[i], values);
    }
    *p++ = '\n';
    out.Commit(p);
    return;
  }
  for (const Member& m : members_) {
    p = Copy(p, m.key);
    int cell = m.cells.back();
    // Of several cells with one key, the last that assigns a value wins; a
    // non-finite FP64 assigns none.
    for (auto it = m.cells.rbegin(); m.cells.size() > 1 && it != m.cells.rend(); ++it) {
      cell = *it;
      if (cell < 0 || kinds_[cell] != ValueKind::kReal ||
          std::isfinite(Load<double>(values + columns_[cell].offset)))
        break;
    }
    p = AppendJsonCell(out, p, cell, timestamp_us, values);
  }
  *p++ = '}';
  *p++ = '\n';
  out.Commit(p);
}

char* RowOutput::AppendJsonCell(OutputBuffer& out, char* p, int cell, uint64_t timestamp_us,
                                const uint8_t* values) const {
  if (cell == kSourceCell) return Copy(p, source_text_);
  if (cell == kTimeCell) {
    if (!layout_.iso_time) return AppendUnsigned(p, timestamp_us);
    *p++ = '"';
    p = AppendIsoTime(p, timestamp_us);
    *p++ = '"';
    return p;
  }
  const CounterColumn& c = columns_[cell];
  switch (kinds_[cell]) {
    case ValueKind::kUnsigned:
    case ValueKind::kSigned:
      return AppendCsvValue(p, kinds_[cell], c, values);
    case ValueKind::kReal: {
      const double d = Load<double>(values + c.offset);
      return std::isfinite(d) ? AppendJsonReal(p, d) : Copy(p, "null");
    }
    case ValueKind::kText:
      out.Commit(p);
      AppendJsonString(out, TextOf(c, values));
      return out.Reserve(row_bound_);
    case ValueKind::kBits:
    case ValueKind::kBytes:
      break;
  }
  // Hex text needs no escapes.
  *p++ = '"';
  p = AppendCsvValue(p, kinds_[cell], c, values);
  *p++ = '"';
  return p;
}

void RowOutput::AppendRates(OutputBuffer& out, uint64_t timestamp_us, const double* rates) const {
  char* p = out.Reserve(row_bound_);
  if (!layout_.json) {
    p = AppendCsvStart(p, timestamp_us);
    for (size_t i = 0; i < columns_.size(); ++i) {
      *p++ = ',';
      if (!std::isnan(rates[i])) p = AppendShortest(p, rates[i]);
    }
    *p++ = '\n';
    out.Commit(p);
    return;
  }
  for (const Member& m : members_) {
    p = Copy(p, m.key);
    int cell = m.cells.back();
    for (auto it = m.cells.rbegin(); m.cells.size() > 1 && it != m.cells.rend(); ++it)
      if ((cell = *it) < 0 || std::isfinite(rates[cell])) break;
    p = cell < 0 ? AppendJsonCell(out, p, cell, timestamp_us, nullptr) : AppendJsonRate(p, rates[cell]);
  }
  *p++ = '}';
  *p++ = '\n';
  out.Commit(p);
}

char* RowOutput::AppendJsonRate(char* p, double rate) const {
  return std::isfinite(rate) ? AppendShortest(p, rate) : Copy(p, "null");
}

}  // namespace dtl::read
