#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/temp_dir.h"

extern char** environ;

namespace kvr::test {

// What one run of the built kvrscan program left behind.
struct ToolRun {
  int status = -1;  // exit status; 128 + signal number when a signal ended it
  std::string out;
  std::string err;
};

// Runs the kvrscan program in the current directory with the given arguments;
// standard input is empty, standard output and error are captured apart.
inline ToolRun RunKvrscan(const std::vector<std::string>& args) {
  const TempDir capture;
  const std::string outPath = (capture / "out").string();
  const std::string errPath = (capture / "err").string();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<std::string> words{KVRSCAN_PATH};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  ToolRun run;
  pid_t pid = 0;
  if (posix_spawn(&pid, KVRSCAN_PATH, &actions, nullptr, argv.data(), environ) == 0) {
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  }
  posix_spawn_file_actions_destroy(&actions);
  run.out = ReadFileText(outPath);
  run.err = ReadFileText(errPath);
  return run;
}

}  // namespace kvr::test
