#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class NmeaTicksManager;

namespace kvrscan {

// The records of a tick file ("Serial.dat") as they lie in it. The library reads
// the file in one call and keeps its pulses and sentences to itself; the tool
// reads the records too, to list them and to refuse, with a message, a file the
// library would stop the process on (a sentence of 1024 bytes or more).
struct TickRecord {
  std::uint64_t offset = 0;  // file offset of the record
  std::uint64_t ticks = 0;
  std::uint32_t type = 0;  // 1: pulse; anything else: sentence
  std::string text;        // sentence text, as received
};

struct TickFileContents {
  std::uint32_t version = 0;
  std::uint32_t headerWord = 0;
  std::vector<TickRecord> records;
  std::uint64_t cutShortBytes = 0;  // bytes of a last record the file ends inside
};

// Reads and checks a tick file; ToolError naming the file and the fault for a
// wrong signature, version 0 or an oversized sentence.
TickFileContents ReadTickFile(const std::string& path);

// The kind of a sentence line the library tells apart, by its first field:
// "ZDA" ($xxZDA), "PPS" ($xxPPS), "UTC", or "other".
std::string_view SentenceKind(std::string_view text);

// A tick manager made by the library from a checked tick file; released on
// destruction. The time offset is added to every time of week.
class TicksManager {
 public:
  TicksManager(const std::string& path, int timeOffset);
  ~TicksManager();
  TicksManager(const TicksManager&) = delete;
  TicksManager& operator=(const TicksManager&) = delete;

  NmeaTicksManager* get() const { return manager_; }
  const TickFileContents& contents() const { return contents_; }

  // The time of week the library gives a block stamped with `ticks` (-1.0 when
  // the tick file does not cover it). Asked the way every block is timed: a
  // one-shot block with that stamp, read through the manager.
  double timeOfWeekAt(std::uint64_t ticks);

 private:
  TickFileContents contents_;
  NmeaTicksManager* manager_ = nullptr;
  std::vector<unsigned char> probeBlock_;
};

// "Tue 14:30:07.250" for a time of week in seconds; "+1w" in front for a time
// past the week's end (after a rollover); "unknown" for a negative time.
std::string FormatTimeOfWeek(double seconds);

}  // namespace kvrscan
