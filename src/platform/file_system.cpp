#include "platform/file_system.h"

#include <chrono>
#include <cstring>
#include <ctime>
#include <string_view>

#if defined(_WIN32)
#  include <windows.h>
#endif

namespace kvr::platform {

namespace {

void AppendUtf8(std::string& out, std::uint32_t cp) {
  if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

std::string WideToUtf8(const wchar_t* name) {
  std::string out;
  if (name == nullptr) return out;
  for (const wchar_t* p = name; *p != 0; ++p) {
    std::uint32_t cp = static_cast<std::uint32_t>(*p);
    if constexpr (sizeof(wchar_t) == 2) {
      // UTF-16 surrogate pairs.
      cp &= 0xFFFF;
      if (cp >= 0xD800 && cp <= 0xDBFF && p[1] != 0) {
        const std::uint32_t low = static_cast<std::uint32_t>(p[1]) & 0xFFFF;
        if (low >= 0xDC00 && low <= 0xDFFF) {
          cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          ++p;
        }
      }
    }
    AppendUtf8(out, cp);
  }
  return out;
}

std::string NarrowLowBytes(const wchar_t* name) {
  std::string out;
  if (name == nullptr) return out;
  for (const wchar_t* p = name; *p != 0; ++p) {
    out.push_back(static_cast<char>(static_cast<std::uint32_t>(*p) & 0xFF));
  }
  return out;
}

std::string NarrowStorageBytes(const wchar_t* name) {
  std::string out;
  if (name == nullptr) return out;
  // The terminating wide zero is all zero bytes, so the scan stops inside the name.
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(name);
  for (std::size_t i = 0; bytes[i] != 0; ++i) out.push_back(static_cast<char>(bytes[i]));
  return out;
}

std::FILE* OpenFile(const wchar_t* name, const char* mode) {
  if (name == nullptr || mode == nullptr) return nullptr;
#if defined(_WIN32)
  std::wstring wideMode(mode, mode + std::strlen(mode));
  std::FILE* stream = nullptr;
  if (_wfopen_s(&stream, name, wideMode.c_str()) != 0) return nullptr;
  return stream;
#else
  const std::string path = WideToUtf8(name);
  // POSIX has no text mode; "t" is dropped so the modes read the same on both systems.
  std::string posixMode;
  for (const char* m = mode; *m != 0; ++m) {
    if (*m != 't') posixMode.push_back(*m);
  }
  return std::fopen(path.c_str(), posixMode.c_str());
#endif
}

std::FILE* OpenFileNarrow(const char* path, const char* mode) {
  if (path == nullptr || mode == nullptr) return nullptr;
#if defined(_WIN32)
  std::FILE* stream = nullptr;
  if (fopen_s(&stream, path, mode) != 0) return nullptr;
  return stream;
#else
  std::string posixMode;
  for (const char* m = mode; *m != 0; ++m) {
    if (*m != 't') posixMode.push_back(*m);
  }
  return std::fopen(path, posixMode.c_str());
#endif
}

bool SeekAbsolute(std::FILE* stream, std::uint64_t offset) {
  if (stream == nullptr) return false;
#if defined(_WIN32)
  return _fseeki64(stream, static_cast<__int64>(offset), SEEK_SET) == 0;
#else
  if (offset > static_cast<std::uint64_t>(INT64_MAX)) return false;
  return fseeko(stream, static_cast<off_t>(offset), SEEK_SET) == 0;
#endif
}

std::int64_t Tell(std::FILE* stream) {
  if (stream == nullptr) return -1;
#if defined(_WIN32)
  return _ftelli64(stream);
#else
  return static_cast<std::int64_t>(ftello(stream));
#endif
}

LocalTime CurrentLocalTime() {
  LocalTime out;
#if defined(_WIN32)
  SYSTEMTIME st;
  GetLocalTime(&st);
  out.year = st.wYear;
  out.month = st.wMonth;
  out.day = st.wDay;
  out.hour = st.wHour;
  out.minute = st.wMinute;
  out.second = st.wSecond;
  out.millisecond = st.wMilliseconds;
#else
  const auto now = std::chrono::system_clock::now();
  const auto sinceEpoch = now.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
  const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - seconds);
  const std::time_t t = static_cast<std::time_t>(seconds.count());
  std::tm parts{};
  localtime_r(&t, &parts);
  out.year = parts.tm_year + 1900;
  out.month = parts.tm_mon + 1;
  out.day = parts.tm_mday;
  out.hour = parts.tm_hour;
  out.minute = parts.tm_min;
  out.second = parts.tm_sec;
  out.millisecond = static_cast<int>(millis.count());
#endif
  return out;
}

}  // namespace kvr::platform
