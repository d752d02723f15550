#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace kvr {

// One entry of the diagnostic log: where (the reporting function's signature
// text), what, and the values that explain it.
struct LogEntry {
  std::string message;
  std::string context;
  std::vector<std::string> details;
};

// Owns the log's path; opens, appends, flushes and closes the file for every
// write, so no handle is held between calls and a change of the current
// directory moves later entries with it.
class ErrorManager {
 public:
  explicit ErrorManager(std::string path);

  // 0 when written, 1 when the file could not be opened.
  int Log(LogEntry& entry);

  const std::string& path() const { return path_; }

 private:
  int WriteStartMarker();

  std::string path_;
};

// The library-wide log, constructed when the library is loaded.
extern ErrorManager errorManagerDcod;

inline constexpr const char* kLogFileName = "KVR_Decode.log";

// Builds one entry at the failure site and hands it to errorManagerDcod.
void Log(std::string_view context, std::string message, std::initializer_list<std::string> details = {});
void Log(std::string_view context, std::string message, std::vector<std::string> details);

// "label" followed by the number in decimal, as the log's detail lines are written.
std::string Detail(std::string_view label, long long value);

// The 26-character time stamp "hh:mm:ss.mmm   yyyy-mm-dd ".
std::string LogTimeStamp();

}  // namespace kvr
