#include "nmea/nmea_ticks_manager.h"

#include <cstring>
#include <utility>

#include "nmea/checked_access.h"
#include "nmea/nmea_sentence.h"
#include "platform/file_system.h"
#include "platform/little_endian.h"
#include "platform/stream_reader.h"

namespace kvr::nmea {

NmeaTicksManager* CreateTicksManager(const wchar_t* nmeaTicksFilename, int timeOffset) {
  // No log: a failed creation is reported by the null result alone.
  auto manager = std::make_unique<NmeaTicksManager>(nullptr);
  if (manager->Init(nmeaTicksFilename, static_cast<double>(timeOffset)) != 0 || manager->LoadDatFile() != 0) {
    // Destroyed without Close(): a stream left open by a wrong signature stays open.
    return nullptr;
  }
  return manager.release();
}

void DeleteTicksManager(NmeaTicksManager* ticksManager) {
  if (ticksManager == nullptr) return;
  ticksManager->Close();
  delete ticksManager;
}

}  // namespace kvr::nmea

namespace {

using kvr::nmea::CheckedAt;

constexpr std::string_view kInitContext = "int NmeaTicksManager::Init(char *nmeaTicksFilename)";
constexpr std::string_view kLoadDatFileContext = "int NmeaTicksManager::LoadDatFile()";

}  // namespace

NmeaTicksManager::NmeaTicksManager(kvr::ErrorManager* errorManager)
    : errorManager(errorManager), tickTimes(std::make_unique<std::vector<TickTime>>()) {
  tickTimes->reserve(kvr::nmea::kReservedTickTimes);
}

int NmeaTicksManager::Init(const wchar_t* nmeaTicksFilename, double timeOffset) {
  this->timeOffset = timeOffset;
  ticksFile = kvr::platform::OpenFile(nmeaTicksFilename, "rb");
  if (ticksFile == nullptr) {
    LogError(kInitContext, "Could not open nmeaTicksFilename", {kvr::platform::NarrowLowBytes(nmeaTicksFilename)});
    return -1;
  }
  return 0;
}

int NmeaTicksManager::LoadDatFile() {
  if (ticksFile == nullptr) return -1;

  char signature[8] = {};
  kvr::stream::ReadBytes(ticksFile, signature, sizeof signature);
  if (kvr::le::LoadU64(reinterpret_cast<const std::uint8_t*>(signature)) != kvr::nmea::kTickFileSignature) {
    const void* zero = std::memchr(signature, 0, sizeof signature);
    const std::size_t shown = zero != nullptr ? static_cast<const char*>(zero) - signature : sizeof signature;
    LogError(kLoadDatFileContext, "The Serial.dat file exist but the signature is wrong ",
             {std::string(signature, shown)});
    return -1;
  }
  // A file cut inside the version field reads as version 0.
  std::uint32_t version = 0;
  kvr::stream::ReadLe(ticksFile, version);
  if (version == 0) {
    std::fclose(ticksFile);
    ticksFile = nullptr;
    LogError(kLoadDatFileContext, "The Serial.dat file is version 0 which is not supported ");
    return -1;
  }
  std::uint32_t headerWord = 0;
  kvr::stream::ReadLe(ticksFile, headerWord);

  if (std::feof(ticksFile) == 0) {
    kvr::nmea::TickRecordReader reader(ticksFile);
    try {
      do {
        reader.ReadNext();
        const kvr::nmea::TickFileRecord& record = reader.record();
        if (reader.isPulse()) {
          ppsTicks.push_back(record.ticks);
        } else {
          const double time = ParseNmeaSentence(reader.text(), record.length);
          // NaN fails this test too and is dropped with the rejections.
          if (time >= 0.0) sentenceTimes[static_cast<std::int64_t>(record.ticks)] = time + timeOffset;
        }
      } while (!reader.atEnd());
    } catch (...) {
      std::fclose(ticksFile);
      ticksFile = nullptr;
      throw;
    }
  }
  std::fclose(ticksFile);
  ticksFile = nullptr;

  MatchPpsTicks();
  // Each entry is compared with its corrected predecessor, so one wrap carries
  // forward to every later entry.
  std::vector<TickTime>& table = *tickTimes;
  for (std::size_t i = 1; i < table.size(); ++i) {
    if (table[i - 1].time > table[i].time) table[i].time += kvr::nmea::kSecondsPerWeek;
  }
  lowIndex = 0;
  highIndex = 1;
  return 0;
}

int NmeaTicksManager::Close() {
  if (ticksFile != nullptr) {
    std::fclose(ticksFile);
    ticksFile = nullptr;
  }
  tickTimes.reset();
  return 0;
}

void NmeaTicksManager::MatchPpsTicks() {
  if (!tickTimes) tickTimes = std::make_unique<std::vector<TickTime>>();
  tickTimes->clear();
  for (auto pulse = ppsTicks.begin(); pulse != ppsTicks.end();) {
    const std::uint64_t p = *pulse;
    // Signed comparisons; the end of the window wraps like the signed sum would.
    const auto windowStart = static_cast<std::int64_t>(p);
    const auto windowEnd = static_cast<std::int64_t>(p + kvr::nmea::kTicksPerSecond);
    // The first sentence at or after the pulse is the only candidate a walk
    // from the smallest key could take, so a lower bound finds the same pair.
    const auto sentence = sentenceTimes.lower_bound(windowStart);
    if (sentence == sentenceTimes.end() || sentence->first >= windowEnd) {
      ++pulse;
      continue;
    }
    tickTimes->push_back({sentence->second, nextPulseTime ? p + kvr::nmea::kTicksPerSecond : p});
    sentenceTimes.erase(sentence);
    pulse = ppsTicks.erase(pulse);
  }
}

int NmeaTicksManager::FindTickInterval(unsigned long long ticks) {
  const std::vector<TickTime>& table = pairs();
  if (table.empty()) return -1;
  if (ticks < table.front().ticks || ticks > table.back().ticks) return -1;
  // Lookups come in file order: the current bracket, then the next one, and a
  // binary search only after a jump.
  if (IsInInterval(ticks)) return 0;
  NextInterval();
  if (IsInInterval(ticks)) return 0;
  SearchInterval(ticks);
  return 0;
}

double NmeaTicksManager::InterpolateTime(unsigned long long ticks) {
  const TickTime& low = CheckedAt(pairs(), lowIndex);
  const TickTime& high = CheckedAt(pairs(), highIndex);
  return low.time + static_cast<double>(ticks - low.ticks) / static_cast<double>(high.ticks - low.ticks) *
                        (high.time - low.time);
}

bool NmeaTicksManager::IsInInterval(unsigned long long ticks) {
  const std::uint64_t low = CheckedAt(pairs(), lowIndex).ticks;
  const std::uint64_t high = CheckedAt(pairs(), highIndex).ticks;
  return low <= ticks && ticks < high;
}

void NmeaTicksManager::NextInterval() {
  const auto last = static_cast<std::int32_t>(pairs().size()) - 1;
  lowIndex = highIndex;
  highIndex += 1;
  if (highIndex > last) {
    lowIndex = last - 1;
    highIndex = last;
  } else if (lowIndex < 0) {
    lowIndex = 0;
    highIndex = 1;
  }
}

int NmeaTicksManager::SearchInterval(unsigned long long ticks) {
  const std::vector<TickTime>& table = pairs();
  const auto last = static_cast<std::int32_t>(table.size()) - 1;
  std::int32_t a = 0;
  std::int32_t b = last;
  std::int32_t mid = 0;
  while (a <= b) {
    mid = (a + b) / 2;
    const std::uint64_t midTicks = CheckedAt(table, mid).ticks;
    if (ticks == midTicks) {
      // An exact hit on the last pair still needs a pair above it.
      lowIndex = mid < last ? mid : mid - 1;
      highIndex = lowIndex + 1;
      return mid;
    }
    if (ticks < midTicks) {
      b = mid - 1;
    } else {
      a = mid + 1;
    }
  }
  lowIndex = b;
  highIndex = b + 1;
  return mid;
}

double NmeaTicksManager::ParseNmeaSentence(const char* text, unsigned int length) {
  return kvr::nmea::SentenceTimeOfWeek(GetSentenceType(text), text, length);
}

int NmeaTicksManager::GetSentenceType(const char* text) {
  const int type = kvr::nmea::GetSentenceType(text);
  // Set at classification, whatever the UTC parser then makes of the line.
  if (type == kvr::nmea::kUtcLine) nextPulseTime = true;
  return type;
}

const std::vector<NmeaTicksManager::TickTime>& NmeaTicksManager::pairs() const {
  static const std::vector<TickTime> kNoPairs;
  return tickTimes ? *tickTimes : kNoPairs;
}

void NmeaTicksManager::LogError(std::string_view context, std::string message, std::vector<std::string> details) {
  if (errorManager == nullptr) return;
  kvr::LogEntry entry{std::move(message), std::string(context), std::move(details)};
  errorManager->Log(entry);
}
