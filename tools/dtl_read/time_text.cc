#include "tools/dtl_read/time_text.h"

#include <charconv>
#include <limits>

namespace dtl::read {

namespace {

constexpr int64_t kUsPerSecond = 1000000;
constexpr int64_t kUsPerDay = 86400 * kUsPerSecond;

// Days since 1970-01-01 of a proleptic Gregorian date and back, by eras of
// 400 years, so that no calendar table or time zone library is involved.
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void CivilFromDays(int64_t z, int64_t* y, unsigned* m, unsigned* d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *d = doy - (153 * mp + 2) / 5 + 1;
  *m = mp < 10 ? mp + 3 : mp - 9;
  *y = static_cast<int64_t>(yoe) + era * 400 + (*m <= 2);
}

bool LeapYear(int64_t y) { return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0); }

unsigned DaysInMonth(int64_t y, unsigned m) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && LeapYear(y) ? 29 : kDays[m - 1];
}

char* Digits(char* out, uint64_t value, int width) {
  for (int i = width - 1; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
  return out + width;
}

// A cursor over the text that reads fixed-width digit fields.
struct Cursor {
  std::string_view text;
  size_t at = 0;

  bool Number(int width, unsigned* value) {
    if (text.size() - at < static_cast<size_t>(width)) return false;
    unsigned v = 0;
    for (int i = 0; i < width; ++i) {
      const char c = text[at + i];
      if (c < '0' || c > '9') return false;
      v = v * 10 + static_cast<unsigned>(c - '0');
    }
    at += static_cast<size_t>(width);
    *value = v;
    return true;
  }
  bool Skip(char c) {
    if (at >= text.size() || text[at] != c) return false;
    ++at;
    return true;
  }
  bool Done() const { return at == text.size(); }
};

std::optional<int64_t> ParseInteger(std::string_view text) {
  const bool negative = text[0] == '-';
  const std::string_view digits = negative ? text.substr(1) : text;
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
  uint64_t value = 0;
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  // Bounds beyond what a signed count of microseconds holds still order
  // right against every stored time.
  constexpr uint64_t kMax = std::numeric_limits<int64_t>::max();
  const int64_t magnitude = static_cast<int64_t>(value > kMax ? kMax : value);
  return negative ? -magnitude : magnitude;
}

std::optional<int64_t> ParseIso(std::string_view text) {
  Cursor c{text};
  unsigned year = 0, month = 0, day = 0;
  if (!c.Number(4, &year) || !c.Skip('-') || !c.Number(2, &month) || !c.Skip('-') || !c.Number(2, &day))
    return std::nullopt;
  if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month)) return std::nullopt;
  int64_t us = DaysFromCivil(year, month, day) * kUsPerDay;
  if (c.Done()) return us;

  unsigned hour = 0, minute = 0, second = 0;
  if (!(c.Skip('T') || c.Skip(' ')) || !c.Number(2, &hour) || !c.Skip(':') || !c.Number(2, &minute))
    return std::nullopt;
  if (c.Skip(':')) {
    if (!c.Number(2, &second)) return std::nullopt;
    if (c.Skip('.')) {
      int digits = 0;
      int64_t fraction = 0;
      for (unsigned d = 0; digits < 9 && c.Number(1, &d); ++digits)
        if (digits < 6) fraction = fraction * 10 + d;
      if (digits == 0) return std::nullopt;
      for (int i = digits; i < 6; ++i) fraction *= 10;
      us += fraction;
    }
  }
  if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
  us += ((static_cast<int64_t>(hour) * 60 + minute) * 60 + second) * kUsPerSecond;
  if (c.Skip('Z')) return c.Done() ? std::optional<int64_t>(us) : std::nullopt;
  const bool east = c.Skip('+');
  if (!east && !c.Skip('-')) return c.Done() ? std::optional<int64_t>(us) : std::nullopt;
  unsigned zone_hour = 0, zone_minute = 0;
  if (!c.Number(2, &zone_hour) || !c.Skip(':') || !c.Number(2, &zone_minute) || !c.Done()) return std::nullopt;
  if (zone_hour > 23 || zone_minute > 59) return std::nullopt;
  // Local time is UTC plus the offset.
  const int64_t offset = (static_cast<int64_t>(zone_hour) * 60 + zone_minute) * 60 * kUsPerSecond;
  return east ? us - offset : us + offset;
}

}  // namespace

char* AppendIsoTime(char* out, uint64_t us) {
  const uint64_t days = us / kUsPerDay, in_day = us % kUsPerDay;
  int64_t year = 0;
  unsigned month = 0, day = 0;
  CivilFromDays(static_cast<int64_t>(days), &year, &month, &day);
  out = year > 9999 ? std::to_chars(out, out + 20, year).ptr : Digits(out, static_cast<uint64_t>(year), 4);
  *out++ = '-';
  out = Digits(out, month, 2);
  *out++ = '-';
  out = Digits(out, day, 2);
  *out++ = 'T';
  const uint64_t seconds = in_day / kUsPerSecond;
  out = Digits(out, seconds / 3600, 2);
  *out++ = ':';
  out = Digits(out, seconds / 60 % 60, 2);
  *out++ = ':';
  out = Digits(out, seconds % 60, 2);
  *out++ = '.';
  out = Digits(out, in_day % kUsPerSecond, 6);
  *out++ = 'Z';
  return out;
}

std::string IsoTime(uint64_t us) {
  char text[48];
  return std::string(text, AppendIsoTime(text, us));
}

std::optional<int64_t> ParseTime(std::string_view text, std::string* error) {
  std::optional<int64_t> us;
  if (!text.empty()) us = text.find('-', 1) == std::string_view::npos ? ParseInteger(text) : ParseIso(text);
  if (!us) {
    error->assign("bad time '").append(text).append(
        "' (microseconds since the epoch, or YYYY-MM-DD[THH:MM[:SS[.ffffff]]][Z|+HH:MM|-HH:MM])");
  }
  return us;
}

}  // namespace dtl::read
