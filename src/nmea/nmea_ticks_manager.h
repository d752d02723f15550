#pragma once

#include <cstdint>
#include <cstdio>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "diag/error_manager.h"
#include "kvr_decode/nmea_ticks_manager.h"
#include "nmea/tick_file.h"

namespace kvr::nmea {

inline constexpr std::uint64_t kTicksPerSecond = 50000000;  // 20 ns ticks
inline constexpr double kSecondsPerWeek = 604800.0;
// Five hours of one pulse per second.
inline constexpr std::size_t kReservedTickTimes = 18000;

// One entry of the pair table.
struct TickTime {
  double time;          // seconds of the week, time offset included
  std::uint64_t ticks;  // the pulse this time belongs to
};

NmeaTicksManager* CreateTicksManager(const wchar_t* nmeaTicksFilename, int timeOffset);
void DeleteTicksManager(NmeaTicksManager* ticksManager);

}  // namespace kvr::nmea

// Reads a tick file once, pairs every pulse with the sentence that names its
// time, then turns tick counts inside the recorded span into time of week by
// linear interpolation. The class never leaves the library except as an opaque
// pointer, so its members are open to the library's own code and tests.
class NmeaTicksManager {
 public:
  using TickTime = kvr::nmea::TickTime;

  explicit NmeaTicksManager(kvr::ErrorManager* errorManager);
  // Does not close ticksFile: a manager given up after a failed load keeps the
  // stream that a wrong signature left open. Close() releases it.
  ~NmeaTicksManager() = default;
  NmeaTicksManager(const NmeaTicksManager&) = delete;
  NmeaTicksManager& operator=(const NmeaTicksManager&) = delete;

  // 0 when the file is open for reading, -1 (logged) when not.
  int Init(const wchar_t* nmeaTicksFilename, double timeOffset);
  // Reads the whole file, closes it and builds tickTimes; 0 or -1.
  int LoadDatFile();
  int Close();

  // 0 when ticks lies within the pair table and its bracket is selected; -1
  // when the table is empty or ticks lies outside it.
  int FindTickInterval(unsigned long long ticks);
  // Time of week of ticks within the bracket FindTickInterval selected.
  double InterpolateTime(unsigned long long ticks);

  void MatchPpsTicks();
  bool IsInInterval(unsigned long long ticks);
  void NextInterval();
  int SearchInterval(unsigned long long ticks);

  // Time of week of one sentence record's text, or -1.0.
  double ParseNmeaSentence(const char* text, unsigned int length);
  // 1 ZDA, 2 PPS, 3 UTC, -1 other; a "UTC" line sets nextPulseTime for good.
  int GetSentenceType(const char* text);

  // The bracket of the last lookup; (0, 1) after a load.
  std::int32_t lowIndex = 0;
  std::int32_t highIndex = 1;
  kvr::ErrorManager* errorManager;  // not owned; null writes no log entries
  std::list<std::uint64_t> ppsTicks;
  std::map<std::int64_t, double> sentenceTimes;
  std::unique_ptr<std::vector<TickTime>> tickTimes;
  std::FILE* ticksFile = nullptr;
  std::vector<kvr::nmea::TickFileRecord> records;  // never filled
  double timeOffset = 0.0;
  // Receivers that print "UTC" lines announce the time of the next pulse.
  bool nextPulseTime = false;

 private:
  const std::vector<TickTime>& pairs() const;
  void LogError(std::string_view context, std::string message, std::vector<std::string> details = {});
};
