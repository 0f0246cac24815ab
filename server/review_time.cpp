#include "review_time.h"

#include <fmt/format.h>

#include <chrono>

namespace lumo::server::detail {
namespace {

// A cursor over the text that reads fixed-width numbers and separators.
class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  std::optional<int> digits(std::size_t count) {
    if (text_.size() < count) {
      return std::nullopt;
    }
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
      if (text_[i] < '0' || text_[i] > '9') {
        return std::nullopt;
      }
      value = value * 10 + (text_[i] - '0');
    }
    text_.remove_prefix(count);
    return value;
  }
  bool skip(char c) {
    if (!text_.empty() && text_.front() == c) {
      text_.remove_prefix(1);
      return true;
    }
    return false;
  }
  bool skipDigits() {
    const auto end = text_.find_first_not_of("0123456789");
    const bool any = end != 0;
    text_.remove_prefix(end == std::string_view::npos ? text_.size() : end);
    return any;
  }

 private:
  std::string_view text_;
};

std::string format(std::chrono::sys_seconds when) {
  const auto day = std::chrono::floor<std::chrono::days>(when);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss time(when - day);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} UTC", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     time.hours().count(), time.minutes().count(), time.seconds().count());
}

}  // namespace

std::optional<std::string> readableTime(std::string_view text) {
  using namespace std::chrono;
  Reader r(text);
  const auto y = r.digits(4);
  const bool dash1 = r.skip('-');
  const auto mo = r.digits(2);
  const bool dash2 = r.skip('-');
  const auto d = r.digits(2);
  if (!y || !dash1 || !mo || !dash2 || !d || !(r.skip('T') || r.skip(' '))) {
    return std::nullopt;
  }
  const auto h = r.digits(2);
  const bool colon = r.skip(':');
  const auto mi = r.digits(2);
  if (!h || !colon || !mi) {
    return std::nullopt;
  }
  int s = 0;
  if (r.skip(':')) {
    const auto sec = r.digits(2);
    if (!sec) {
      return std::nullopt;
    }
    s = *sec;
    if (r.skip('.') && !r.skipDigits()) {
      return std::nullopt;
    }
  }
  const year_month_day date{year(*y), month(static_cast<unsigned>(*mo)),
                            day(static_cast<unsigned>(*d))};
  // 24:00 and leap seconds are not written by any client we serve; refuse them as invalid.
  if (!date.ok() || *h > 23 || *mi > 59 || s > 59) {
    return std::nullopt;
  }
  int offsetMinutes = 0;
  const bool plus = r.skip('+');
  if (plus || r.skip('-')) {
    const auto oh = r.digits(2);
    r.skip(':');
    const auto om = r.digits(2);
    if (!oh || !om || *oh > 23 || *om > 59) {
      return std::nullopt;
    }
    offsetMinutes = (plus ? 1 : -1) * (*oh * 60 + *om);
  }
  const sys_seconds local = sys_days(date) + hours(*h) + minutes(*mi) + seconds(s);
  return format(local - minutes(offsetMinutes));
}

std::string readableTime(std::int64_t unixMs) {
  return format(std::chrono::floor<std::chrono::seconds>(
      std::chrono::sys_time<std::chrono::milliseconds>(std::chrono::milliseconds(unixMs))));
}

}  // namespace lumo::server::detail
