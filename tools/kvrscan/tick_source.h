#pragma once

#include <string>
#include <string_view>

#include "kvr_decode/cloud/tick_file.h"
#include "scan_source.h"

namespace kvrscan {

using kvr::cloud::TickFileContents;
using kvr::cloud::TickRecord;

// The point layer's tick file reader and manager, refusing with the tool's errors.
inline TickFileContents ReadTickFile(const std::string& path) {
  return Checked([&] { return kvr::cloud::ReadTickFile(path); });
}

class TicksManager : public kvr::cloud::TicksManager {
 public:
  TicksManager(const std::string& path, int timeOffset) try : kvr::cloud::TicksManager(path, timeOffset) {
  } catch (const kvr::cloud::Error& error) {
    throw ToolError(error.what());
  }
};

// The kind of a sentence line the library tells apart, by its first field:
// "ZDA" ($xxZDA), "PPS" ($xxPPS), "UTC", or "other".
std::string_view SentenceKind(std::string_view text);

// "Tue 14:30:07.250" for a time of week in seconds; "+1w" in front for a time
// past the week's end (after a rollover); "unknown" for a negative time.
std::string FormatTimeOfWeek(double seconds);

}  // namespace kvrscan
