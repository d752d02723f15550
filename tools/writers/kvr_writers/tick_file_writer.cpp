#include "kvr_writers/tick_file_writer.h"

#include <cstdio>

#include "kvr_writers/file_output.h"

namespace kvr::writers {

namespace {

struct Fields {
  int year, month, day, hour, minute, second, millisecond;
  unsigned weekday;  // 0 = Sunday
};

Fields Split(UtcTime time) {
  using namespace std::chrono;
  const sys_days day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  return {static_cast<int>(date.year()), static_cast<int>(unsigned(date.month())),
          static_cast<int>(unsigned(date.day())), static_cast<int>(clock.hours().count()),
          static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()),
          static_cast<int>(clock.subseconds().count()), weekday(day).c_encoding()};
}

}  // namespace

UtcTime Utc(int year, unsigned month, unsigned day, int hour, int minute, int second, int millisecond) {
  using namespace std::chrono;
  return sys_days(std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day)) + hours(hour) +
         minutes(minute) + std::chrono::seconds(second) + milliseconds(millisecond);
}

std::string NmeaChecksum(std::string_view body) {
  unsigned value = 0;
  for (char c : body) value ^= static_cast<unsigned char>(c);
  char hex[3];
  std::snprintf(hex, sizeof hex, "%02X", value);
  return hex;
}

std::string NmeaSentence(std::string_view body) {
  return "$" + std::string(body) + "*" + NmeaChecksum(body) + "\r\n";
}

std::string ZdaSentence(UtcTime time, std::string_view talker) {
  const Fields f = Split(time);
  char body[64];
  std::snprintf(body, sizeof body, "%.2sZDA,%02d%02d%02d.%02d,%02d,%02d,%04d,00,00", talker.data(), f.hour, f.minute,
                f.second, f.millisecond / 10, f.day, f.month, f.year);
  return NmeaSentence(body);
}

std::string PpsSentence(UtcTime time, std::string_view talker) {
  const Fields f = Split(time);
  char body[64];
  std::snprintf(body, sizeof body, "%.2sPPS,%02d%02d%02d.%03d,%u,1,0,0,0", talker.data(), f.hour, f.minute, f.second,
                f.millisecond, f.weekday);
  return NmeaSentence(body);
}

std::string UtcLine(UtcTime time, std::string_view status) {
  const Fields f = Split(time);
  char line[64];
  std::snprintf(line, sizeof line, "UTC %02d/%02d/%02d %02d:%02d:%02d %.*s\r\n", f.year % 100, f.month, f.day, f.hour,
                f.minute, f.second, static_cast<int>(status.size()), status.data());
  return line;
}

TickFileBuilder::TickFileBuilder(std::uint32_t version, std::string_view signature, std::uint32_t headerWord) {
  out_.fixed(signature, nmea::layout::kSignatureSize).u32(version).u32(headerWord);
}

TickFileBuilder& TickFileBuilder::pulse(std::uint64_t ticks) {
  out_.u64(ticks).u32(nmea::layout::kPulseRecordType);
  return *this;
}

TickFileBuilder& TickFileBuilder::sentence(std::uint64_t ticks, std::string_view text, std::uint32_t type) {
  out_.u64(ticks).u32(type).u32(0).u32(0).u32(static_cast<std::uint32_t>(text.size())).text(text);
  return *this;
}

TickFileBuilder& TickFileBuilder::sentenceWithLength(std::uint64_t ticks, std::uint32_t declaredLength,
                                                     std::string_view text) {
  out_.u64(ticks).u32(2).u32(0).u32(0).u32(declaredLength).text(text);
  return *this;
}

TickFileBuilder& TickFileBuilder::everySecond(std::uint64_t firstPulse, UtcTime firstTime, int seconds,
                                              const SentenceMaker& make, std::uint64_t delay) {
  for (int i = 0; i < seconds; ++i) {
    const std::uint64_t pulseTicks = firstPulse + static_cast<std::uint64_t>(i) * kTicksPerSecond;
    pulse(pulseTicks);
    sentence(pulseTicks + delay, make(firstTime + std::chrono::seconds(i)));
  }
  return *this;
}

void TickFileBuilder::writeTo(const std::filesystem::path& path) const { WriteBinaryFile(path, out_.bytes()); }

}  // namespace kvr::writers
