#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "kvr_simulator/options.h"

// The arguments of "simulate DIR [options]", shared by kvr_simulate and any
// other front end that offers the simulator.
namespace kvr::sim {

struct SimulateCommand {
  std::filesystem::path directory;
  SimulationOptions options;
  std::optional<std::uint64_t> scanBytes;  // --size: choose the number of lines for this scan file size
};

extern const char* const kSimulateUsage;

// Throws std::invalid_argument (kvr::cli::UsageError for a malformed command
// line) with a message for the user.
SimulateCommand ParseSimulateArguments(const std::vector<std::string>& arguments);

// "1G", "512M", "64k" or a plain number of bytes.
std::uint64_t ParseByteSize(const std::string& text);

}  // namespace kvr::sim
