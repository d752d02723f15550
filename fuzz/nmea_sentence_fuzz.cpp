// The sentence parser on any line a tick file's sentence record can carry (up
// to 1023 bytes, zero-terminated after them), and each of its three parsers on
// the same line whatever its first token says.

#include <cstring>

#include "fuzz_support.h"
#include "nmea/nmea_sentence.h"
#include "nmea/nmea_ticks_manager.h"

namespace {

constexpr std::size_t kLongestSentence = 1023;

template <typename Parse>
void Guarded(Parse parse) {
  try {
    parse();
  } catch (const std::out_of_range& e) {
    kvr::fuzz::ExpectSentenceOutOfRange(e);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::size_t length = size < kLongestSentence ? size : kLongestSentence;
  char text[kLongestSentence + 1];
  std::memcpy(text, data, length);
  text[length] = '\0';
  const auto count = static_cast<unsigned int>(length);

  static NmeaTicksManager manager(nullptr);
  Guarded([&] { manager.ParseNmeaSentence(text, count); });
  double seconds = 0.0;
  int day = 0, month = 0, year = 0;
  Guarded([&] {
    if (kvr::nmea::ParseZda(text, count, &seconds, &day, &month, &year) == 0) kvr::nmea::DayOfWeek(day, month, year);
  });
  Guarded([&] { kvr::nmea::ParsePps(text, count, &seconds); });
  Guarded([&] { kvr::nmea::ParseUtc(text, count, &seconds); });
  return 0;
}
