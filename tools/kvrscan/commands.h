#pragma once

#include "command_line.h"

namespace kvrscan {

// One per command, each in its cmd_<name>.cpp: declares the command's options
// and the function that runs it.
void AddSimulateCommand(CommandSet& commands);
void AddInfoCommand(CommandSet& commands);
void AddBlocksCommand(CommandSet& commands);
void AddMapCommand(CommandSet& commands);
void AddLineCommand(CommandSet& commands);
void AddExportCommand(CommandSet& commands);
void AddRenderCommand(CommandSet& commands);
void AddTicksCommand(CommandSet& commands);
void AddDevicesCommand(CommandSet& commands);
void AddCameraCommand(CommandSet& commands);

}  // namespace kvrscan
