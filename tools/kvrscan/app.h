#pragma once

#include <span>
#include <string>
#include <string_view>

#include "library_log.h"

namespace kvrscan {

// What every subcommand gets besides its arguments.
struct Context {
  std::string command;        // "info", for messages
  bool json = false;          // --json: one JSON document on standard output
  bool showProgress = false;  // standard error is a terminal
  LibraryLog log;

  // Reports damage found in an input after the command's output was made (the
  // output covers what could be read): one line on standard error. Returns the
  // exit status the command then ends with.
  int damaged(const std::string& message) const;
};

// The whole program: parses the subcommand, runs it, and turns every error into
// one line on standard error and an exit status.
int RunTool(int argc, char** argv);

// A report for people: headings, aligned "label  value" lines.
class TextReport {
 public:
  void heading(std::string_view title);
  void field(std::string_view label, std::string_view value);
  void line(std::string_view text);
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

}  // namespace kvrscan
