#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kvrscan {

// One progress line on standard error, redrawn at most ten times a second and
// cleared when done. Disabled, it costs one branch per update.
class Progress {
 public:
  Progress(std::string label, bool enabled);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void update(std::uint64_t done, std::uint64_t total);
  void status(const std::string& text);
  void finish();

 private:
  void draw(const std::string& text);

  std::string label_;
  bool enabled_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_{};
};

}  // namespace kvrscan
