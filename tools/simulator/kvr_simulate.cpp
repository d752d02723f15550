// kvr_simulate DIR [options]: writes a simulated scan set; see kSimulateUsage.
#include <chrono>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvr_cli/arguments.h"
#include "kvr_simulator/command_line.h"
#include "kvr_simulator/scan_set.h"

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  kvr::sim::SimulateCommand command;
  if (kvr::cli::AsksForHelp(arguments)) {
    std::printf("usage: kvr_%s", kvr::sim::kSimulateUsage);
    return 0;
  }
  try {
    command = kvr::sim::ParseSimulateArguments(arguments);
  } catch (const std::invalid_argument& e) {
    std::fprintf(stderr, "kvr_simulate: %s\nusage: kvr_%s", e.what(), kvr::sim::kSimulateUsage);
    return 2;
  }
  try {
    const auto start = std::chrono::steady_clock::now();
    if (command.scanBytes) {
      command.options.lines = kvr::sim::LinesForScanBytes(command.options, *command.scanBytes);
      std::fprintf(stderr, "kvr_simulate: %u lines for about %llu bytes\n", command.options.lines,
                   static_cast<unsigned long long>(*command.scanBytes));
    }
    const kvr::sim::ScanSetSummary summary = kvr::sim::WriteScanSet(command.directory, command.options);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    std::fputs(kvr::sim::DescribeScanSet(summary).c_str(), stdout);
    std::fprintf(stderr, "kvr_simulate: written in %.2f s\n", elapsed.count());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kvr_simulate: %s\n", e.what());
    return 1;
  }
  return 0;
}
