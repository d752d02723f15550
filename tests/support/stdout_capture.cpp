#include "support/stdout_capture.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include <fcntl.h>
#if defined(_WIN32)
#  include <io.h>
#  include <process.h>
#else
#  include <unistd.h>
#endif


namespace kvr::test {

namespace {
#if defined(_WIN32)
constexpr int kStdoutFd = 1;
int Dup(int fd) { return _dup(fd); }
int Dup2(int from, int to) { return _dup2(from, to); }
int Close(int fd) { return _close(fd); }
// Binary, so the text reads back as the program wrote it, without "\r\n".
int OpenCaptureFile(std::string& path) {
  static int counter = 0;
  path = (std::filesystem::temp_directory_path() /
          ("kvr_stdout_" + std::to_string(_getpid()) + "_" + std::to_string(counter++)))
             .string();
  return _open(path.c_str(), _O_CREAT | _O_TRUNC | _O_WRONLY | _O_BINARY, 0600);
}
#else
constexpr int kStdoutFd = STDOUT_FILENO;
int Dup(int fd) { return ::dup(fd); }
int Dup2(int from, int to) { return ::dup2(from, to); }
int Close(int fd) { return ::close(fd); }
int OpenCaptureFile(std::string& path) {
  char name[] = "/tmp/kvr_stdout_XXXXXX";
  const int fd = ::mkstemp(name);
  path = name;
  return fd;
}
#endif
}  // namespace

StdoutCapture::StdoutCapture() {
  std::cout.flush();
  std::fflush(stdout);
  const int fd = OpenCaptureFile(path_);
  if (fd < 0) throw std::runtime_error("cannot create a capture file");
  savedFd_ = Dup(kStdoutFd);
  Dup2(fd, kStdoutFd);
  Close(fd);
}

StdoutCapture::~StdoutCapture() { stop(); }

void StdoutCapture::stop() {
  if (stopped_) return;
  stopped_ = true;
  std::cout.flush();
  std::fflush(stdout);
  Dup2(savedFd_, kStdoutFd);
  Close(savedFd_);
  std::ifstream in(path_, std::ios::binary);
  captured_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  in.close();
  std::error_code ec;
  std::filesystem::remove(path_, ec);
}

std::string StdoutCapture::text() {
  stop();
  return captured_;
}

}  // namespace kvr::test
