#include "app.h"

#include <cstdio>
#include <exception>
#include <new>
#include <vector>

#include "command_line.h"
#include "console.h"
#include "errors.h"

#ifndef KVRSCAN_VERSION
#define KVRSCAN_VERSION "0"
#endif

namespace kvrscan {

namespace {

void PrintError(const std::string& command, const std::string& message) {
  std::fprintf(stderr, "kvrscan%s%s: %s\n", command.empty() ? "" : " ", command.c_str(), message.c_str());
}

}  // namespace

int Context::damaged(const std::string& message) const {
  PrintError(command, message + log.note());
  return kExitFailure;
}

void TextReport::heading(std::string_view title) {
  if (!text_.empty()) text_ += '\n';
  text_ += title;
  text_ += '\n';
}

void TextReport::field(std::string_view label, std::string_view value) {
  constexpr std::size_t kWidth = 24;
  text_ += "  ";
  text_ += label;
  text_.append(label.size() < kWidth ? kWidth - label.size() : 1, ' ');
  text_ += value;
  text_ += '\n';
}

void TextReport::line(std::string_view text) {
  text_ += text;
  text_ += '\n';
}

int RunTool(int argc, char** argv) {
  Console::DivertLibraryOutput();
  CommandSet commands;
  AddAllCommands(commands);
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "-h" || args[0] == "--help" || args[0] == "help") {
    Console::write(ProgramHelp(commands));
    std::fflush(Console::out());
    return args.empty() ? kExitUsage : kExitOk;
  }
  if (args[0] == "--version") {
    Console::write("kvrscan " KVRSCAN_VERSION "\n");
    std::fflush(Console::out());
    return kExitOk;
  }
  const CommandSet::Entry* command = commands.find(args[0]);
  if (command == nullptr) {
    PrintError("", "unknown command '" + args[0] + "' (see kvrscan --help)");
    return kExitUsage;
  }
  Context context;
  context.command = args[0];
  int status = kExitFailure;
  try {
    if (kvr::cli::AsksForHelp({args.begin() + 1, args.end()})) {
      Console::write(CommandHelp(*command));
      status = kExitOk;
    } else {
      kvr::cli::Parse(commands.tool(), args);
      context.showProgress = Console::stderrIsTerminal();
      status = command->run(context);
    }
  } catch (const UsageError& error) {
    PrintError(context.command, std::string(error.what()) + " (see kvrscan " + context.command + " --help)");
    status = kExitUsage;
  } catch (const ToolError& error) {
    PrintError(context.command, error.what() + context.log.note());
    status = kExitFailure;
  } catch (const std::bad_alloc&) {
    PrintError(context.command, "out of memory" + context.log.note());
    status = kExitFailure;
  } catch (const std::exception& error) {
    PrintError(context.command, std::string("unexpected error: ") + error.what() + context.log.note());
    status = kExitFailure;
  }
  if (std::fflush(Console::out()) != 0 && status == kExitOk) {
    PrintError(context.command, "cannot write to standard output");
    status = kExitFailure;
  }
  return status;
}

}  // namespace kvrscan
