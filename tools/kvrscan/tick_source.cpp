#include "tick_source.h"

#include <cmath>
#include <regex>

#include "console.h"

namespace kvrscan {

std::string_view SentenceKind(std::string_view text) {
  static const std::regex kZda(R"(^\$\w{2}ZDA$)", std::regex::ECMAScript);
  static const std::regex kPps(R"(^\$\w{2}PPS$)", std::regex::ECMAScript);
  const std::size_t start = text.find_first_not_of(", \t\n");
  if (start == std::string_view::npos) return "other";
  const std::size_t end = text.find_first_of(", \t\n", start);
  const std::string first(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
  if (std::regex_match(first, kZda)) return "ZDA";
  if (std::regex_match(first, kPps)) return "PPS";
  if (first == "UTC") return "UTC";
  return "other";
}

std::string FormatTimeOfWeek(double seconds) {
  if (!(seconds >= 0.0)) return "unknown";
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  const double week = 604800.0;
  const double weeks = std::floor(seconds / week);
  const double inWeek = seconds - weeks * week;
  const int day = static_cast<int>(inWeek / 86400.0);
  const double inDay = inWeek - day * 86400.0;
  const int hour = static_cast<int>(inDay / 3600.0);
  const int minute = static_cast<int>((inDay - hour * 3600.0) / 60.0);
  const double second = inDay - hour * 3600.0 - minute * 60.0;
  std::string text = weeks >= 1.0 ? Format("+%.0fw ", weeks) : "";
  return text + Format("%s %02d:%02d:%06.3f", kDays[day % 7], hour, minute, second);
}

}  // namespace kvrscan
