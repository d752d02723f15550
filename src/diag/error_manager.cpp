#include "diag/error_manager.h"

#include <cstdio>
#include <utility>

#include "platform/file_system.h"

namespace kvr {

namespace {
// The time stamp (26 characters) and "  : " (4) make the indentation of every
// line after the first, so message and details stand under the context.
constexpr std::string_view kIndent = "                              ";
static_assert(kIndent.size() == 30);
constexpr std::string_view kStartMarker = "API started";

void WriteLine(std::FILE* out, const std::string& text) { std::fprintf(out, "%s\n", text.c_str()); }
}  // namespace

ErrorManager errorManagerDcod{kLogFileName};

std::string LogTimeStamp() {
  const platform::LocalTime t = platform::CurrentLocalTime();
  char text[64];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d   %d-%02d-%02d ", t.hour, t.minute, t.second,
                t.millisecond, t.year, t.month, t.day);
  return text;
}

ErrorManager::ErrorManager(std::string path) : path_(std::move(path)) { WriteStartMarker(); }

int ErrorManager::WriteStartMarker() {
  std::FILE* out = platform::OpenFileNarrow(path_.c_str(), "at");
  if (out == nullptr) return 1;
  std::fputs("\n\n", out);
  WriteLine(out, LogTimeStamp() + "  : " + std::string(kStartMarker));
  std::fputs("\n", out);
  std::fflush(out);
  std::fclose(out);
  return 0;
}

int ErrorManager::Log(LogEntry& entry) {
  std::FILE* out = platform::OpenFileNarrow(path_.c_str(), "at");
  if (out == nullptr) return 1;
  WriteLine(out, LogTimeStamp() + "  : " + entry.context);
  WriteLine(out, std::string(kIndent) + entry.message);
  for (const std::string& detail : entry.details) WriteLine(out, std::string(kIndent) + detail);
  std::fputs("\n", out);
  std::fflush(out);
  std::fclose(out);
  return 0;
}

void Log(std::string_view context, std::string message, std::vector<std::string> details) {
  LogEntry entry{std::move(message), std::string(context), std::move(details)};
  errorManagerDcod.Log(entry);
}

void Log(std::string_view context, std::string message, std::initializer_list<std::string> details) {
  Log(context, std::move(message), std::vector<std::string>(details));
}

std::string Detail(std::string_view label, long long value) {
  return std::string(label) + std::to_string(value);
}

}  // namespace kvr
