#include "command_line.h"

#include <algorithm>
#include <climits>

#include "app.h"
#include "commands.h"
#include "console.h"

namespace kvrscan {

namespace {

// The option's long name ("--first"), or empty for a positional.
std::string LongName(const CLI::Option& option) {
  return option.get_lnames().empty() ? std::string() : "--" + option.get_lnames().front();
}

// The options' help block, one aligned line per option and one for --help.
std::string FormatOptions(const CLI::App& command) {
  std::vector<std::pair<std::string, std::string>> rows;
  for (const CLI::Option* option : command.get_options()) {
    if (LongName(*option).empty()) continue;
    std::string left = option->get_snames().empty() ? "    " : "-" + option->get_snames().front() + ", ";
    left += LongName(*option);
    if (!option->get_type_name().empty()) left += " " + option->get_type_name();
    rows.emplace_back(std::move(left), option->get_description());
  }
  rows.emplace_back("-h, --help", "show this help");
  std::size_t width = 0;
  for (const auto& row : rows) width = std::max(width, row.first.size());
  std::string out;
  for (const auto& [left, help] : rows) out += "  " + left + std::string(width - left.size() + 2, ' ') + help + '\n';
  return out;
}

}  // namespace

CommandSet::CommandSet() : app_("kvrscan") {
  kvr::cli::Configure(app_);
  // One command a run; without this a later word naming another command would start it.
  app_.require_subcommand(1);
}

CLI::App& CommandSet::add(const CommandInfo& info, std::function<int(Context&)> run) {
  CLI::App* command = app_.add_subcommand(std::string(info.name), std::string(info.summary));
  kvr::cli::Configure(*command);
  entries_.push_back({&info, command, std::move(run)});
  return *command;
}

void AddAllCommands(CommandSet& commands) {
  AddSimulateCommand(commands);
  AddInfoCommand(commands);
  AddBlocksCommand(commands);
  AddMapCommand(commands);
  AddLineCommand(commands);
  AddExportCommand(commands);
  AddRenderCommand(commands);
  AddTicksCommand(commands);
  AddDevicesCommand(commands);
  AddCameraCommand(commands);
}

const CommandSet::Entry* CommandSet::find(std::string_view name) const {
  for (const Entry& entry : entries_) {
    if (entry.info->name == name) return &entry;
  }
  return nullptr;
}

std::string ProgramHelp(const CommandSet& commands) {
  std::string text =
      "kvrscan: look into the raw files of the terrestrial laser scanner (scan, tick, device and camera\n"
      "files), and turn scans into point clouds and intensity panoramas.\n\n"
      "usage: kvrscan COMMAND [ARGUMENTS] [OPTIONS]\n\ncommands:\n";
  for (const CommandSet::Entry& entry : commands.entries()) {
    text += Format("  %-10s %s\n", std::string(entry.info->name).c_str(), std::string(entry.info->summary).c_str());
  }
  text +=
      "\n'kvrscan COMMAND --help' describes a command. Reports are for people; --json prints one JSON\n"
      "document instead. Errors are one line on standard error; the exit status is 0 on success, 1 for\n"
      "an unreadable or damaged input or an unwritable output, 2 for a malformed command line.\n";
  return text;
}

std::string CommandHelp(const CommandSet::Entry& command) {
  const CommandInfo& info = *command.info;
  std::string text = "usage: kvrscan " + std::string(info.name) + " " + std::string(info.arguments) + "\n\n" +
                     std::string(info.summary) + "\n";
  if (!info.details.empty()) text += "\n" + std::string(info.details) + "\n";
  text += "\noptions:\n" + FormatOptions(*command.app);
  return text;
}

CLI::Option* AddFlag(CLI::App& command, const std::string& names, bool& flag, const std::string& help) {
  return command.add_flag(names, flag, help);
}

CLI::Option* AddText(CLI::App& command, const std::string& names, const std::string& valueName,
                     std::optional<std::string>& value, const std::string& help) {
  return kvr::cli::AddOptional(command, names, value, help)->type_name(valueName);
}

CLI::Option* AddInteger(CLI::App& command, const std::string& names, const std::string& valueName,
                        std::optional<std::int64_t>& value, std::int64_t min, std::int64_t max,
                        const std::string& help) {
  CLI::Option* option = kvr::cli::AddOptional(command, names, value, help)->type_name(valueName);
  return option->check(kvr::cli::WholeNumber(LongName(*option), min, max));
}

CLI::Option* AddJsonOption(CLI::App& command, bool& json) {
  return AddFlag(command, "--json", json, "print one JSON document instead of the report");
}

CLI::Option* AddMapOption(CLI::App& command, std::optional<std::string>& map) {
  return AddText(command, "--map", "MAPFILE", map, "load this map file instead of building the map");
}

CLI::Option* AddTicksOption(CLI::App& command, std::optional<std::string>& ticks) {
  return AddText(command, "--ticks", "FILE", ticks, "tick file (Serial.dat): times become GNSS time of week");
}

CLI::Option* AddTimeOffsetOption(CLI::App& command, std::optional<std::int64_t>& seconds) {
  return AddInteger(command, "--time-offset", "SECONDS", seconds, INT32_MIN, INT32_MAX,
                    "whole seconds added to every time of week (default 0)");
}

CLI::Option* AddPaletteOption(CLI::App& command, std::optional<std::string>& palette) {
  return AddText(command, "--palette", "NAME", palette, "colour ramp: grey (default) or viridis");
}

}  // namespace kvrscan
