#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "kvr_decode/cloud/export.h"

class NmeaTicksManager;

namespace kvr::cloud {

// The records of a tick file ("Serial.dat") as they lie in it. The decoder reads
// the file in one call and keeps its pulses and sentences to itself; the records
// are read here too, to list them and to refuse, with a message, a file the
// decoder would stop the process on (a sentence of 1024 bytes or more).
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

// Reads and checks a tick file; InputError naming the file and the fault for a
// wrong signature, version 0 or an oversized sentence.
KVR_CLOUD_API TickFileContents ReadTickFile(const std::filesystem::path& path);

// A tick manager made by the decoder from a checked tick file; released on
// destruction. The time offset is added to every time of week. A manager keeps
// the pulse pair it found last: one per thread.
class KVR_CLOUD_API TicksManager {
 public:
  TicksManager(const std::filesystem::path& path, int timeOffset);
  ~TicksManager();
  TicksManager(const TicksManager&) = delete;
  TicksManager& operator=(const TicksManager&) = delete;

  NmeaTicksManager* get() const { return manager_; }
  const TickFileContents& contents() const { return contents_; }

  // The time of week the decoder gives a block stamped with `ticks` (-1.0 when
  // the tick file does not cover it). Asked the way every block is timed: a
  // one-shot block with that stamp, read through the manager.
  double timeOfWeekAt(std::uint64_t ticks);

 private:
  TickFileContents contents_;
  NmeaTicksManager* manager_ = nullptr;
  std::vector<unsigned char> probeBlock_;
};

}  // namespace kvr::cloud
