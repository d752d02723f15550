#include "kvr_simulator/command_line.h"

#include <charconv>
#include <cmath>
#include <optional>
#include <stdexcept>

#include "kvr_cli/arguments.h"

namespace kvr::sim {

const char* const kSimulateUsage =
    "simulate DIR [--seed N] [--kind 90|360] [--prf 50|200|500] [--lines N | --size BYTES[k|M|G]]\n"
    "    [--lines-per-second R] [--room LxWxH] [--signature MAGIC] [--camera-images N] [--threads N]\n"
    "  Writes a simulated scan set into DIR: the scan file, its side table and normalization\n"
    "  parameters, Serial.dat, Devices.dat and Camera.dat.\n";

namespace {

template <class T>
T Number(const std::string& option, const std::string& text) {
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw cli::UsageError(option + " takes a number, not \"" + text + "\"");
  }
  return value;
}

RoomSize ParseRoom(const std::string& text) {
  RoomSize room;
  double* dimensions[3] = {&room.length, &room.width, &room.height};
  std::size_t start = 0;
  for (int i = 0; i < 3; ++i) {
    const std::size_t end = i < 2 ? text.find('x', start) : text.size();
    if (end == std::string::npos) throw cli::UsageError("--room takes LxWxH in metres, not \"" + text + "\"");
    *dimensions[i] = Number<double>("--room", text.substr(start, end - start));
    start = end + 1;
  }
  return room;
}

// A number option read with the message above.
template <class T>
CLI::Option* AddNumber(CLI::App& app, const std::string& name, const std::string& valueName, T& target) {
  return app.add_option_function<std::string>(name, [name, &target](const std::string& text) {
    target = Number<T>(name, text);
  })->type_name(valueName);
}

}  // namespace

std::uint64_t ParseByteSize(const std::string& text) {
  std::uint64_t unit = 1;
  std::string digits = text;
  if (!digits.empty()) {
    switch (digits.back()) {
      case 'k':
      case 'K':
        unit = 1ull << 10;
        break;
      case 'm':
      case 'M':
        unit = 1ull << 20;
        break;
      case 'g':
      case 'G':
        unit = 1ull << 30;
        break;
      default:
        break;
    }
    if (unit != 1) digits.pop_back();
  }
  const double value = Number<double>("--size", digits);
  if (!(value > 0.0) || value * static_cast<double>(unit) > 1e15) {
    throw cli::UsageError("--size must be a positive size, not \"" + text + "\"");
  }
  return static_cast<std::uint64_t>(std::llround(value * static_cast<double>(unit)));
}

SimulateCommand ParseSimulateArguments(const std::vector<std::string>& arguments) {
  SimulateCommand command;
  SimulationOptions& o = command.options;
  std::optional<std::uint32_t> lines;
  std::string directory;
  CLI::App app("kvr_simulate");
  cli::Configure(app);
  app.add_option("DIR", directory);
  AddNumber(app, "--seed", "N", o.seed);
  app.add_option_function<std::string>("--kind", [&o](const std::string& v) {
    if (v != "90" && v != "360") throw cli::UsageError("--kind is 90 or 360, not \"" + v + "\"");
    o.kind = v == "90" ? ScannerKind::kNinetyDegree : ScannerKind::kThreeSixty;
  });
  AddNumber(app, "--prf", "50|200|500", o.prf);
  app.add_option_function<std::string>("--lines", [&lines](const std::string& v) {
    lines = Number<std::uint32_t>("--lines", v);
  })->type_name("N");
  app.add_option_function<std::string>("--size", [&command](const std::string& v) {
    command.scanBytes = ParseByteSize(v);
  })->type_name("BYTES");
  AddNumber(app, "--lines-per-second", "R", o.linesPerSecond);
  app.add_option_function<std::string>("--room", [&o](const std::string& v) { o.room = ParseRoom(v); })
      ->type_name("LxWxH");
  app.add_option("--signature", o.signature)->type_name("MAGIC");
  AddNumber(app, "--camera-images", "N", o.cameraImages);
  AddNumber(app, "--threads", "N", o.threads);
  cli::Parse(app, arguments);
  if (directory.empty()) throw cli::UsageError("the directory to write into is missing");
  command.directory = directory;
  if (lines && command.scanBytes) throw cli::UsageError("--lines and --size exclude each other");
  o.lines = lines.value_or(o.lines);
  ValidateOptions(o);
  return command;
}

}  // namespace kvr::sim
