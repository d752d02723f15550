#pragma once

#include <string>

namespace kvr::test {

// Captures everything the process writes to its standard output (C stdio and
// std::cout alike) while the object lives.
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;

  // Stops capturing (once) and returns what was written.
  std::string text();

 private:
  void stop();

  int savedFd_ = -1;
  std::string path_;
  std::string captured_;
  bool stopped_ = false;
};

}  // namespace kvr::test
