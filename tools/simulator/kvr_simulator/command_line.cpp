#include "kvr_simulator/command_line.h"

#include <charconv>
#include <cmath>
#include <stdexcept>

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
    throw std::invalid_argument(option + " takes a number, not \"" + text + "\"");
  }
  return value;
}

RoomSize ParseRoom(const std::string& text) {
  RoomSize room;
  double* dimensions[3] = {&room.length, &room.width, &room.height};
  std::size_t start = 0;
  for (int i = 0; i < 3; ++i) {
    const std::size_t end = i < 2 ? text.find('x', start) : text.size();
    if (end == std::string::npos) throw std::invalid_argument("--room takes LxWxH in metres, not \"" + text + "\"");
    *dimensions[i] = Number<double>("--room", text.substr(start, end - start));
    start = end + 1;
  }
  return room;
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
    throw std::invalid_argument("--size must be a positive size, not \"" + text + "\"");
  }
  return static_cast<std::uint64_t>(std::llround(value * static_cast<double>(unit)));
}

SimulateCommand ParseSimulateArguments(const std::vector<std::string>& arguments) {
  SimulateCommand command;
  SimulationOptions& o = command.options;
  bool linesGiven = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& a = arguments[i];
    if (a.rfind("--", 0) != 0) {
      if (!command.directory.empty()) throw std::invalid_argument("one directory only, \"" + a + "\" is extra");
      command.directory = a;
      continue;
    }
    if (i + 1 == arguments.size()) throw std::invalid_argument(a + " needs a value");
    const std::string& v = arguments[++i];
    if (a == "--seed") {
      o.seed = Number<std::uint64_t>(a, v);
    } else if (a == "--kind") {
      if (v != "90" && v != "360") throw std::invalid_argument("--kind is 90 or 360, not \"" + v + "\"");
      o.kind = v == "90" ? ScannerKind::kNinetyDegree : ScannerKind::kThreeSixty;
    } else if (a == "--prf") {
      o.prf = Number<std::uint32_t>(a, v);
    } else if (a == "--lines") {
      o.lines = Number<std::uint32_t>(a, v);
      linesGiven = true;
    } else if (a == "--size") {
      command.scanBytes = ParseByteSize(v);
    } else if (a == "--lines-per-second") {
      o.linesPerSecond = Number<double>(a, v);
    } else if (a == "--room") {
      o.room = ParseRoom(v);
    } else if (a == "--signature") {
      o.signature = v;
    } else if (a == "--camera-images") {
      o.cameraImages = Number<std::uint32_t>(a, v);
    } else if (a == "--threads") {
      o.threads = Number<unsigned>(a, v);
    } else {
      throw std::invalid_argument("unknown option " + a);
    }
  }
  if (command.directory.empty()) throw std::invalid_argument("the directory to write into is missing");
  if (linesGiven && command.scanBytes) throw std::invalid_argument("--lines and --size exclude each other");
  ValidateOptions(o);
  return command;
}

}  // namespace kvr::sim
