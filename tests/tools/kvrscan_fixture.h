#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>
#include <vector>

#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "kvr_writers/scan_file_writer.h"
#include "support/temp_dir_test_base.h"
#include "tools/kvrscan_runner.h"

namespace kvr::test {

using Json = nlohmann::json;

// Each test runs the built tool in its own temporary directory.
class KvrscanTest : public InTempDir {
 protected:
  static ToolRun Run(const std::vector<std::string>& args) { return RunKvrscan(args); }

  // Runs with --json added and parses standard output.
  static Json RunJson(std::vector<std::string> args, int expectedStatus = 0) {
    args.push_back("--json");
    const ToolRun run = RunKvrscan(args);
    EXPECT_EQ(run.status, expectedStatus) << run.err;
    return Json::parse(run.out);
  }

  // A failure: the given status, nothing but one line on standard error, which
  // starts with `start` and holds `part`.
  static void ExpectOneLineError(const ToolRun& run, int status, const std::string& start, const std::string& part) {
    EXPECT_EQ(run.status, status);
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_TRUE(run.err.starts_with(start)) << run.err;
    EXPECT_NE(run.err.find(part), std::string::npos) << run.err;
  }
};

// A scan with the default header (#KVRSCAN, 200 kHz, blocks from 1024) and
// "rangeOffset = 0.5" as its calibration text, unless the fields say otherwise.
inline writers::HeaderBlockFields RoomHeader() {
  writers::HeaderBlockFields fields;
  fields.calibrationText = "rangeOffset = 0.5\n";
  return fields;
}

}  // namespace kvr::test
