#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "kvr_writers/byte_writer.h"
#include "nmea/tick_layout.h"

// Builders for tick files ("Serial.dat") and the receiver lines they carry.
namespace kvr::writers {

// A UTC instant as a GNSS receiver reports it.
using UtcTime = std::chrono::sys_time<std::chrono::milliseconds>;
UtcTime Utc(int year, unsigned month, unsigned day, int hour, int minute, int second, int millisecond = 0);

inline constexpr std::uint64_t kTicksPerSecond = 50000000;  // 20 ns scanner ticks

// The NMEA checksum of the characters between '$' and '*', as two upper-case hex digits.
std::string NmeaChecksum(std::string_view body);
// "$" + body + "*" + checksum + CR LF, as a receiver prints a sentence.
std::string NmeaSentence(std::string_view body);

// "$GPZDA,143007.00,28,01,2020,00,00*6C\r\n": centiseconds, zone fields 00,00.
std::string ZdaSentence(UtcTime time, std::string_view talker = "GP");
// "$GPPPS,143007.250,2,1,0,0,0*hh\r\n": time of day with milliseconds, then the
// day of the week (0 = Sunday) and four status fields.
std::string PpsSentence(UtcTime time, std::string_view talker = "GP");
// "UTC 20/01/28 14:30:07 1\r\n": date, whole seconds and a status ("?" while
// the receiver has no time).
std::string UtcLine(UtcTime time, std::string_view status = "1");

// Makes the line a receiver prints for the pulse at a given time.
using SentenceMaker = std::function<std::string(UtcTime)>;

class TickFileBuilder {
 public:
  explicit TickFileBuilder(std::uint32_t version = 1, std::string_view signature = nmea::layout::kSignature,
                           std::uint32_t headerWord = 0);

  TickFileBuilder& pulse(std::uint64_t ticks);
  // A sentence record; any type other than 1 makes one.
  TickFileBuilder& sentence(std::uint64_t ticks, std::string_view text, std::uint32_t type = 2);
  // A sentence record whose length field says declaredLength, followed by text
  // (which may be shorter, for a damaged file).
  TickFileBuilder& sentenceWithLength(std::uint64_t ticks, std::uint32_t declaredLength, std::string_view text);
  // One pulse per second for `seconds` seconds from firstPulse, each followed
  // `delay` ticks later by the line `make` prints for that pulse's time.
  TickFileBuilder& everySecond(std::uint64_t firstPulse, UtcTime firstTime, int seconds, const SentenceMaker& make,
                               std::uint64_t delay = kTicksPerSecond / 10);

  const std::vector<std::uint8_t>& bytes() const { return out_.bytes(); }
  void writeTo(const std::filesystem::path& path) const;

 private:
  ByteWriter out_;
};

}  // namespace kvr::writers
