#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

// CLI11 in the words our programs use for a malformed command line. Values are
// checked by validators that throw UsageError with the whole message, so the
// message names the option exactly as the user wrote it in the help.
namespace kvr::cli {

// A malformed command line; the message says which word is at fault.
class UsageError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// Sets the defaults every parser shares: no built-in help flag (callers look
// for -h/--help first, so help works even beside a bad word), the last of a
// repeated option wins, and unknown words are kept so that Parse can name them.
void Configure(CLI::App& app);

// Parses `args` (the words after the program or command name). Throws
// UsageError for anything malformed: "unknown option --x", "unexpected
// argument 'b'", "missing SCAN", "--first needs a value (N)".
void Parse(CLI::App& app, const std::vector<std::string>& args);

// True when -h or --help comes before any "--".
bool AsksForHelp(const std::vector<std::string>& args);

// A whole number in [min, max]; `shown` names it in the message
// ("--first takes a whole number, not 'x'").
std::int64_t ParseInteger(const std::string& text, const std::string& shown, std::int64_t min, std::int64_t max);

// Validators for the checks above, to hang on an option with ->check().
CLI::Validator WholeNumber(std::string shown, std::int64_t min, std::int64_t max);
CLI::Validator NaturalNumber(std::string shown);  // 0 .. 2^64-1

// Options whose absence the command tells apart from any value.
template <class T>
CLI::Option* AddOptional(CLI::App& app, const std::string& names, std::optional<T>& target, const std::string& help) {
  return app.add_option_function<T>(names, [&target](const T& value) { target = value; }, help);
}

}  // namespace kvr::cli
