#include "nmea/nmea_sentence.h"

#include <cstdint>
#include <cstdlib>
#include <locale>
#include <regex>
#include <string_view>
#include <vector>

#include "nmea/checked_access.h"
#include "platform/number_text.h"

namespace kvr::nmea {

namespace {

// A byte table: the tokenizer tests every byte of a line against its set.
class SeparatorSet {
 public:
  constexpr explicit SeparatorSet(std::string_view separators) {
    for (char c : separators) table_[static_cast<unsigned char>(c)] = true;
  }
  constexpr bool operator()(char c) const { return table_[static_cast<unsigned char>(c)]; }

 private:
  bool table_[256] = {};
};

// Runs of separators make no empty tokens, so an empty NMEA field vanishes and
// shifts the later fields down. A carriage return is not a separator.
constexpr SeparatorSet kGeneralSeparators(", \t\n");
// ZDA adds '*' so that the checksum becomes a token of its own.
constexpr SeparatorSet kZdaSeparators(", *\t\n");

constexpr double kSecondsPerDay = 86400.0;

using Tokens = std::vector<std::string_view>;

Tokens Tokenize(const char* text, const SeparatorSet& isSeparator) {
  Tokens tokens;
  tokens.reserve(16);
  const char* p = text != nullptr ? text : "";
  for (;;) {
    while (*p != '\0' && isSeparator(*p)) ++p;
    if (*p == '\0') return tokens;
    const char* begin = p;
    while (*p != '\0' && !isSeparator(*p)) ++p;
    tokens.emplace_back(begin, static_cast<std::size_t>(p - begin));
  }
}

// Compiled once; the classic locale keeps \w to ASCII letters, digits and '_'
// whatever global locale the host process sets.
std::regex CompilePattern(const char* pattern) {
  std::regex compiled;
  compiled.imbue(std::locale::classic());
  compiled.assign(pattern, std::regex::ECMAScript);
  return compiled;
}

bool Matches(std::string_view token, const std::regex& pattern) {
  return std::regex_match(token.begin(), token.end(), pattern);
}

bool IsZdaName(std::string_view token) {
  static const std::regex pattern = CompilePattern(R"(^\$\w{2}ZDA$)");
  return Matches(token, pattern);
}

bool IsPpsName(std::string_view token) {
  static const std::regex pattern = CompilePattern(R"(^\$\w{2}PPS$)");
  return Matches(token, pattern);
}

bool IsUtcName(std::string_view token) {
  static const std::regex pattern = CompilePattern(R"(^UTC$)");
  return Matches(token, pattern);
}

double Atof(std::string_view field) { return platform::Atof(std::string(field).c_str()); }
int Atoi(std::string_view field) { return std::atoi(std::string(field).c_str()); }

// hhmmss.fff. The fraction is always taken as milliseconds: ".45" is 45 ms.
struct ClockFields {
  double hours;
  double minutes;
  double seconds;
  double milliseconds;
};

ClockFields ReadClock(std::string_view token) {
  return {Atof(CheckedSubstr(token, 0, 2)), Atof(CheckedSubstr(token, 2, 2)), Atof(CheckedSubstr(token, 4, 2)),
          Atof(CheckedSubstr(token, 7, 3))};
}

// Guards the month table of DayOfWeek against a damaged date.
bool IsCalendarMonth(int month) { return month >= 1 && month <= 12; }

}  // namespace

int GetSentenceType(const char* text) {
  const Tokens tokens = Tokenize(text, kGeneralSeparators);
  if (tokens.size() < 4) return kUnknownSentence;
  if (IsZdaName(tokens[0])) return kZdaSentence;
  if (IsPpsName(tokens[0])) return kPpsSentence;
  if (IsUtcName(tokens[0])) return kUtcLine;
  return kUnknownSentence;
}

double SentenceTimeOfWeek(int type, const char* text, unsigned int length) {
  switch (type) {
    case kZdaSentence: {
      double secondsOfDay = 0.0;
      int day = 0, month = 0, year = 0;
      if (ParseZda(text, length, &secondsOfDay, &day, &month, &year) == 0 && IsCalendarMonth(month)) {
        return DayOfWeek(day, month, year) * kSecondsPerDay + secondsOfDay;
      }
      break;
    }
    case kPpsSentence: {
      double timeOfWeek = 0.0;
      if (ParsePps(text, length, &timeOfWeek) == 0) return timeOfWeek;
      break;
    }
    case kUtcLine: {
      double timeOfWeek = 0.0;
      if (ParseUtc(text, length, &timeOfWeek) == 0) return timeOfWeek;
      break;
    }
    default:
      break;
  }
  return -1.0;
}

int ParseZda(const char* text, unsigned int length, double* secondsOfDay, int* day, int* month, int* year) {
  const Tokens tokens = Tokenize(text, kZdaSeparators);
  if (tokens.size() < 7 || !IsZdaName(tokens[0])) return -1;
  // Both zone fields must be present for the checksum to be token 7; with one
  // of them empty the checksum is missing and the access throws.
  if (VerifyChecksum(text, static_cast<int>(length), std::string(CheckedAt(tokens, 7))) != 0) return -1;
  const ClockFields clock = ReadClock(tokens[1]);
  *secondsOfDay = clock.milliseconds / 1000 + clock.seconds + clock.minutes * 60 + clock.hours * 3600;
  *day = Atoi(tokens[2]);
  *month = Atoi(tokens[3]);
  *year = Atoi(tokens[4]);
  return 0;
}

int ParsePps(const char* text, unsigned int /*length*/, double* timeOfWeek) {
  const Tokens tokens = Tokenize(text, kGeneralSeparators);
  if (tokens.size() < 7 || !IsPpsName(tokens[0])) return -1;
  const ClockFields clock = ReadClock(tokens[1]);
  const int day = Atoi(tokens[2]);
  *timeOfWeek =
      day * kSecondsPerDay + clock.hours * 3600 + clock.minutes * 60 + clock.seconds + clock.milliseconds / 1000;
  return 0;
}

int ParseUtc(const char* text, unsigned int /*length*/, double* timeOfWeek) {
  const Tokens tokens = Tokenize(text, kGeneralSeparators);
  if (tokens.size() < 4 || tokens[0] != "UTC") return -1;
  // The receiver prints '?' while it has no valid time.
  if (tokens[3].find('?') != std::string_view::npos) return -1;
  const std::string_view date = tokens[1];
  const std::string yearDigits = CheckedSubstr(date, 0, 2);
  const int month = Atoi(CheckedSubstr(date, 3, 2));
  const int day = Atoi(CheckedSubstr(date, 6, 2));
  // Year 80 is the receiver's clock before its first fix.
  if (yearDigits == "80") return -1;
  const int year = Atoi(yearDigits) + 2000;
  const std::string_view clock = tokens[2];
  const int hours = Atoi(CheckedSubstr(clock, 0, 2));
  const int minutes = Atoi(CheckedSubstr(clock, 3, 2));
  const int seconds = Atoi(CheckedSubstr(clock, 6, 2));
  if (!IsCalendarMonth(month)) return -1;
  *timeOfWeek = DayOfWeek(day, month, year) * 86400 + hours * 3600 + minutes * 60 + seconds;
  return 0;
}

int VerifyChecksum(const char* text, int length, std::string checksumToken) {
  int checksum = 0;
  for (int i = 0; i < length; ++i) {
    const char c = text[i];
    if (c == '$') continue;
    if (c == '*') break;
    // Bytes above 0x7F are sign-extended, so they can never match two hex digits.
    checksum ^= static_cast<int>(static_cast<signed char>(c));
  }
  const int expected = HexPairValue(checksumToken.c_str(), static_cast<int>(checksumToken.size()));
  return checksum == expected ? 0 : -1;
}

int HexPairValue(const char* digits, int count) {
  if (count < 2) return -1;
  const auto digitValue = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 0;
  };
  return digitValue(digits[0]) * 16 + digitValue(digits[1]);
}

int DayOfWeek(int day, int month, int year) {
  static constexpr int kMonthTerms[12] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
  if (!IsCalendarMonth(month)) return -1;
  // Two's-complement 32-bit sums, so a damaged year wraps instead of overflowing.
  const auto wrap = [](long long value) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(value)); };
  const std::int32_t y = month < 3 ? wrap(static_cast<long long>(year) - 1) : year;
  const std::int32_t sum =
      wrap(static_cast<long long>(y) + y / 4 - y / 100 + y / 400 + kMonthTerms[month - 1] + day);
  return sum % 7;
}

}  // namespace kvr::nmea
