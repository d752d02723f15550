#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <csignal>
#include <optional>
#include <stdexcept>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/temp_dir.h"

namespace kvr::test {

// What one run of the built kvrscan program left behind.
struct ToolRun {
  int status = -1;  // exit status; 128 + signal number when a signal ended it
  std::string out;
  std::string err;
};

// A kvrscan child in the current directory: standard input empty, standard
// output to a file, standard error through a pipe. With a size limit, every
// regular file it writes stops there (standard output is discarded then);
// SIGXFSZ is ignored, so the write fails with EFBIG instead.
class Child {
 public:
  explicit Child(const std::vector<std::string>& args, std::optional<rlim_t> sizeLimit = std::nullopt) {
    std::vector<std::string> words{KVRSCAN_PATH};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const std::string outPath = sizeLimit ? std::string("/dev/null") : out();
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      // Only async-signal-safe calls between fork and exec.
      if (sizeLimit) {
        const rlimit limit{*sizeLimit, *sizeLimit};
        setrlimit(RLIMIT_FSIZE, &limit);
      }
      signal(SIGXFSZ, SIG_IGN);
      dup2(open("/dev/null", O_RDONLY), 0);
      dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      dup2(pipeEnds[1], 2);
      execv(KVRSCAN_PATH, argv.data());
      _exit(127);
    }
    close(pipeEnds[1]);
    errors_ = pipeEnds[0];
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid_ > 0) wait();
  }

  void kill(int signal) const { ::kill(pid_, signal); }

  // The status as a shell gives it (128 + the signal that ended it) and what was printed.
  ToolRun wait() {
    ToolRun run;
    char buffer[4096];
    for (ssize_t n; (n = read(errors_, buffer, sizeof buffer)) > 0;) run.err.append(buffer, static_cast<std::size_t>(n));
    close(errors_);
    int status = 0;
    if (waitpid(pid_, &status, 0) == pid_) run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    pid_ = -1;
    if (std::filesystem::exists(out())) run.out = ReadFileText(out());
    return run;
  }

 private:
  std::string out() const { return (capture_ / "out").string(); }

  TempDir capture_;
  pid_t pid_ = -1;
  int errors_ = -1;
};

inline ToolRun RunKvrscan(const std::vector<std::string>& args) { return Child(args).wait(); }

}  // namespace kvr::test
