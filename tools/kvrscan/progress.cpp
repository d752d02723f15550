#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "console.h"

namespace kvrscan {


constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

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

}  // namespace kvrscan
