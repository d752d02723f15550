#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app.h"
#include "kvr_cli/arguments.h"

namespace kvrscan {

// A command as its --help and the command list show it.
struct CommandInfo {
  std::string_view name;
  std::string_view arguments;  // synopsis after the name, e.g. "SCAN [--stats]"
  std::string_view summary;    // one line for the command list
  std::string_view details;    // the rest of its --help
};

// The tool's commands. Each command's file has an Add<Name>Command that takes a
// subcommand from add(), declares its options on it bound to an options struct,
// and hands over the function that runs on that struct: a command's body never
// sees the parser, and the parser never sees a body.
class CommandSet {
 public:
  struct Entry {
    const CommandInfo* info;
    CLI::App* app;
    std::function<int(Context&)> run;
  };

  CommandSet();

  // Options must have a `bool json` (every command prints JSON on request).
  template <class Options>
  CLI::App& add(const CommandInfo& info, std::shared_ptr<Options> options, int (*run)(const Options&, Context&)) {
    return add(info, [options, run](Context& context) {
      context.json = options->json;
      return run(*options, context);
    });
  }
  CLI::App& add(const CommandInfo& info, std::function<int(Context&)> run);

  CLI::App& tool() { return app_; }
  const Entry* find(std::string_view name) const;
  const std::vector<Entry>& entries() const { return entries_; }

 private:
  CLI::App app_;
  std::vector<Entry> entries_;
};

// Every command of the tool, in the order of the command list.
void AddAllCommands(CommandSet& commands);

std::string ProgramHelp(const CommandSet& commands);
std::string CommandHelp(const CommandSet::Entry& command);

// Declarations the commands share, so each option reads the same everywhere.
template <class T>
CLI::Option* AddInput(CLI::App& command, const std::string& name, T& value) {  // a required positional
  return command.add_option(name, value)->required();
}
CLI::Option* AddFlag(CLI::App& command, const std::string& names, bool& flag, const std::string& help);
CLI::Option* AddText(CLI::App& command, const std::string& names, const std::string& valueName,
                     std::optional<std::string>& value, const std::string& help);
CLI::Option* AddInteger(CLI::App& command, const std::string& names, const std::string& valueName,
                        std::optional<std::int64_t>& value, std::int64_t min, std::int64_t max, const std::string& help);
CLI::Option* AddJsonOption(CLI::App& command, bool& json);
CLI::Option* AddMapOption(CLI::App& command, std::optional<std::string>& map);
CLI::Option* AddTicksOption(CLI::App& command, std::optional<std::string>& ticks);
CLI::Option* AddTimeOffsetOption(CLI::App& command, std::optional<std::int64_t>& seconds);
CLI::Option* AddPaletteOption(CLI::App& command, std::optional<std::string>& palette);

}  // namespace kvrscan
