#include "console.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace kvrscan {

namespace {
std::FILE* toolOut = nullptr;
}  // namespace

void Console::DivertLibraryOutput() {
  if (toolOut != nullptr) return;
  std::fflush(stdout);
  const int own = ::dup(STDOUT_FILENO);
  const int devnull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (own < 0 || devnull < 0) {
    // Nothing to divert (descriptor 1 closed): report on stdout as it is.
    if (own >= 0) ::close(own);
    if (devnull >= 0) ::close(devnull);
    toolOut = stdout;
    return;
  }
  ::dup2(devnull, STDOUT_FILENO);
  ::close(devnull);
  toolOut = ::fdopen(own, "w");
  if (toolOut == nullptr) toolOut = stdout;
}

std::FILE* Console::out() { return toolOut != nullptr ? toolOut : stdout; }

void Console::write(std::string_view text) { std::fwrite(text.data(), 1, text.size(), out()); }

bool Console::stderrIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

std::string GroupedCount(unsigned long long count) {
  std::string digits = std::to_string(count);
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += ' ';
    out += digits[i];
  }
  return out;
}

std::string ByteSize(unsigned long long bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes) / 1024.0;
  int unit = 0;
  while (value >= 1024.0 && unit < 3) value /= 1024.0, ++unit;
  return Format("%.1f %s", value, kUnits[unit]);
}

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string out;
  if (length > 0) {
    out.resize(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(out.data(), out.size(), format, again);
    out.resize(static_cast<std::size_t>(length));
  }
  va_end(again);
  return out;
}

}  // namespace kvrscan
