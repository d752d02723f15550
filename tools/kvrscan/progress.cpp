#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <vector>

#include "console.h"

namespace kvrscan {

namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

// The descriptors that have `target` open.
std::vector<int> DescriptorsOf(const std::string& target) {
  namespace fs = std::filesystem;
  std::vector<int> fds;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd", ec)) {
    std::error_code linkError;
    if (fs::read_symlink(entry.path(), linkError) == target && !linkError) {
      fds.push_back(std::atoi(entry.path().filename().c_str()));
    }
  }
  return fds;
}

// The read position of a descriptor that has `target` open and is not one of
// `ignored`, or -1.
long long ReadPositionOf(const std::string& target, const std::vector<int>& ignored, int& cachedFd) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const auto positionOf = [](int fd) -> long long {
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
    std::string word;
    while (info >> word) {
      if (word == "pos:") {
        long long position = -1;
        info >> position;
        return position;
      }
    }
    return -1;
  };
  if (cachedFd >= 0 && fs::read_symlink("/proc/self/fd/" + std::to_string(cachedFd), ec) == target) {
    return positionOf(cachedFd);
  }
  cachedFd = -1;
  for (const int fd : DescriptorsOf(target)) {
    if (std::find(ignored.begin(), ignored.end(), fd) != ignored.end()) continue;
    cachedFd = fd;
    return positionOf(fd);
  }
  return -1;
}

}  // namespace

Progress::Progress(std::string label, bool enabled)
    : label_(std::move(label)), enabled_(enabled), start_(std::chrono::steady_clock::now()) {}

Progress::~Progress() { finish(); }

void Progress::draw(const std::string& text) {
  std::fprintf(stderr, "\r\033[K%s: %s", label_.c_str(), text.c_str());
  std::fflush(stderr);
  drawn_ = true;
}

void Progress::update(std::uint64_t done, std::uint64_t total) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (now - lastDraw_ < kRedrawInterval) return;
  lastDraw_ = now;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double percent = total > 0 ? 100.0 * static_cast<double>(done) / static_cast<double>(total) : 0.0;
  draw(Format("%5.1f%% (%llu of %llu blocks, %.0f s)", percent, static_cast<unsigned long long>(done),
              static_cast<unsigned long long>(total), seconds));
}

void Progress::status(const std::string& text) {
  if (!enabled_) return;
  lastDraw_ = std::chrono::steady_clock::now();
  draw(text);
}

void Progress::finish() {
  if (!drawn_) return;
  std::fprintf(stderr, "\r\033[K");
  std::fflush(stderr);
  drawn_ = false;
}

ReadPositionWatcher::ReadPositionWatcher(std::string label, const std::string& path, std::uint64_t fileSize,
                                         int passes, bool enabled)
    : progress_(std::move(label), enabled), fileSize_(fileSize), passes_(passes) {
  if (!enabled) return;
  std::error_code ec;
  target_ = std::filesystem::canonical(path, ec).string();
  if (ec) return;
  // The caller's own streams on the file are not the call's.
  ignored_ = DescriptorsOf(target_);
  thread_ = std::thread([this] { run(); });
}

ReadPositionWatcher::~ReadPositionWatcher() {
  if (thread_.joinable()) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  progress_.finish();
}

void ReadPositionWatcher::run() {
  const auto start = std::chrono::steady_clock::now();
  int fd = -1;
  int pass = 1;
  long long last = -1;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_for(lock, std::chrono::milliseconds(200), [this] { return stop_; })) {
    const long long position = ReadPositionOf(target_, ignored_, fd);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (position < 0) {
      progress_.status(Format("%.0f s", seconds));
      continue;
    }
    if (last >= 0 && position < last && pass < passes_) ++pass;
    last = position;
    const double percent = fileSize_ > 0 ? 100.0 * static_cast<double>(position) / static_cast<double>(fileSize_) : 0;
    progress_.status(Format("pass %d of %d, %5.1f%% (%.0f s)", pass, passes_, percent, seconds));
  }
}

}  // namespace kvrscan
