#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

// Progress of a library call that reads a file by itself (building a scan file
// map reads it twice, block by block). A background thread samples the read
// position of the descriptor the call opened, from /proc/self/fdinfo: the call
// needs no hook, and the thread touches nothing of the library's.
class ReadPositionWatcher {
 public:
  ReadPositionWatcher(std::string label, const std::string& path, std::uint64_t fileSize, int passes, bool enabled);
  ~ReadPositionWatcher();
  ReadPositionWatcher(const ReadPositionWatcher&) = delete;
  ReadPositionWatcher& operator=(const ReadPositionWatcher&) = delete;

 private:
  void run();

  Progress progress_;
  std::string target_;
  std::vector<int> ignored_;
  std::uint64_t fileSize_;
  int passes_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace kvrscan
