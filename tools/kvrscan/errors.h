#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "kvr_cli/arguments.h"

namespace kvrscan {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;  // damaged or unreadable input, unwritable output
inline constexpr int kExitUsage = 2;    // a malformed command line

// A problem with an input or output file. The message names the file and what is
// wrong; it is printed as one line and the tool exits with kExitFailure.
class ToolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A malformed command line; printed with a pointer to --help, exit kExitUsage.
using UsageError = kvr::cli::UsageError;

// "path: what" — the one shape of every file error.
inline ToolError FileError(std::string_view path, std::string_view what) {
  std::string message(path);
  message += ": ";
  message += what;
  return ToolError(message);
}

}  // namespace kvrscan
