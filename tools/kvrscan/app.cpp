#include "app.h"

#include <cstdio>
#include <exception>
#include <new>
#include <vector>

#include "commands.h"
#include "console.h"
#include "errors.h"

#ifndef KVRSCAN_VERSION
#define KVRSCAN_VERSION "0"
#endif

namespace kvrscan {

namespace {

const Command* const kCommands[] = {
    &kSimulateCommand, &kInfoCommand,   &kBlocksCommand, &kMapCommand,     &kLineCommand,   &kExportCommand,
    &kRenderCommand, &kTicksCommand,  &kDevicesCommand, &kCameraCommand,
};

std::string ProgramHelp() {
  std::string text =
      "kvrscan: look into the raw files of the terrestrial laser scanner (scan, tick, device and camera\n"
      "files), and turn scans into point clouds and intensity panoramas.\n\n"
      "usage: kvrscan COMMAND [ARGUMENTS] [OPTIONS]\n\ncommands:\n";
  for (const Command* command : kCommands) {
    text += Format("  %-10s %s\n", std::string(command->name).c_str(), std::string(command->summary).c_str());
  }
  text +=
      "\n'kvrscan COMMAND --help' describes a command. Reports are for people; --json prints one JSON\n"
      "document instead. Errors are one line on standard error; the exit status is 0 on success, 1 for\n"
      "an unreadable or damaged input or an unwritable output, 2 for a malformed command line.\n";
  return text;
}

std::string CommandHelp(const Command& command) {
  std::string text = "usage: kvrscan " + std::string(command.name) + " " + std::string(command.arguments) + "\n\n" +
                     std::string(command.summary) + "\n";
  if (!command.details.empty()) text += "\n" + std::string(command.details) + "\n";
  text += "\noptions:\n" + FormatOptions(command.options);
  return text;
}

bool AsksForHelp(std::span<const std::string> args) {
  for (const std::string& word : args) {
    if (word == "--") return false;
    if (word == "-h" || word == "--help") return true;
  }
  return false;
}

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
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "-h" || args[0] == "--help" || args[0] == "help") {
    Console::write(ProgramHelp());
    std::fflush(Console::out());
    return args.empty() ? kExitUsage : kExitOk;
  }
  if (args[0] == "--version") {
    Console::write("kvrscan " KVRSCAN_VERSION "\n");
    std::fflush(Console::out());
    return kExitOk;
  }
  const Command* command = nullptr;
  for (const Command* candidate : kCommands) {
    if (candidate->name == args[0]) command = candidate;
  }
  if (command == nullptr) {
    PrintError("", "unknown command '" + args[0] + "' (see kvrscan --help)");
    return kExitUsage;
  }
  const std::span<const std::string> rest(args.data() + 1, args.size() - 1);
  Context context;
  context.command = std::string(command->name);
  int status = kExitFailure;
  try {
    if (AsksForHelp(rest)) {
      Console::write(CommandHelp(*command));
      status = kExitOk;
    } else {
      const ParsedArgs parsed = ParseArgs(rest, command->options, command->positionalNames, command->minPositional);
      context.json = parsed.has("json");
      context.showProgress = Console::stderrIsTerminal();
      status = command->run(parsed, context);
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
