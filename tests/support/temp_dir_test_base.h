#pragma once

#include <gtest/gtest.h>

#include "support/log_reader.h"
#include "support/temp_dir.h"

namespace kvr::test {

// Runs each test in a fresh current directory, so the diagnostic log and any
// files the test writes are its own.
class InTempDir : public ::testing::Test {
 protected:
  std::vector<ParsedLogEntry> logEntries() const { return ReadLogEntries(dir_.path()); }
  const std::filesystem::path& dir() const { return dir_.path(); }
  std::filesystem::path path(std::string_view name) const { return dir_ / name; }

 private:
  TempDir dir_;
  ScopedCurrentDir cwd_{dir_.path()};
};

}  // namespace kvr::test
