#include "support/stdout_capture.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

namespace kvr::test {

StdoutCapture::StdoutCapture() {
  std::cout.flush();
  std::fflush(stdout);
  char name[] = "/tmp/kvr_stdout_XXXXXX";
  const int fd = ::mkstemp(name);
  if (fd < 0) throw std::runtime_error("cannot create a capture file");
  path_ = name;
  savedFd_ = ::dup(STDOUT_FILENO);
  ::dup2(fd, STDOUT_FILENO);
  ::close(fd);
}

StdoutCapture::~StdoutCapture() { stop(); }

void StdoutCapture::stop() {
  if (stopped_) return;
  stopped_ = true;
  std::cout.flush();
  std::fflush(stdout);
  ::dup2(savedFd_, STDOUT_FILENO);
  ::close(savedFd_);
  std::ifstream in(path_, std::ios::binary);
  captured_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  std::error_code ec;
  std::filesystem::remove(path_, ec);
}

std::string StdoutCapture::text() {
  stop();
  return captured_;
}

}  // namespace kvr::test
