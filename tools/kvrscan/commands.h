#pragma once

#include "app.h"

namespace kvrscan {

extern const Command kSimulateCommand;
extern const Command kInfoCommand;
extern const Command kBlocksCommand;
extern const Command kMapCommand;
extern const Command kLineCommand;
extern const Command kExportCommand;
extern const Command kRenderCommand;
extern const Command kTicksCommand;
extern const Command kDevicesCommand;
extern const Command kCameraCommand;

// Options that several commands share, one definition each so that they read
// the same everywhere.
inline constexpr OptionSpec kJsonOption{"json", 0, "", "print one JSON document instead of the report"};
inline constexpr OptionSpec kTicksOption{"ticks", 0, "FILE",
                                         "tick file (Serial.dat): times become GNSS time of week"};
inline constexpr OptionSpec kTimeOffsetOption{"time-offset", 0, "SECONDS",
                                              "whole seconds added to every time of week (default 0)"};
inline constexpr OptionSpec kMapOption{"map", 0, "MAPFILE", "load this map file instead of building the map"};
inline constexpr OptionSpec kPaletteOption{"palette", 0, "NAME", "colour ramp: grey (default) or viridis"};

}  // namespace kvrscan
