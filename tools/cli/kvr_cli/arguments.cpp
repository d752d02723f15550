#include "kvr_cli/arguments.h"

#include <algorithm>
#include <charconv>

namespace kvr::cli {

namespace {

// The option's name in a CLI11 message "NAME: detail", or empty.
std::string NameBefore(const std::string& message, std::string_view separator) {
  const std::size_t at = message.find(separator);
  return at == std::string::npos ? std::string() : message.substr(0, at);
}

// CLI11's own complaints, in our words where we know their shape. Its
// messages name one option each, so the rewritten line stays as precise.
constexpr std::string_view kFlagOverride = " was given a disallowed flag override";

std::string Explain(const CLI::ParseError& error, const CLI::App& app) {
  const std::string message = error.what();
  const std::string kind = error.get_name();
  if (kind == "RequiredError" && message.ends_with(" is required")) {
    return "missing " + message.substr(0, message.size() - std::string_view(" is required").size());
  }
  if (kind == "ArgumentMismatch" && !message.ends_with(kFlagOverride)) {
    const std::string name = NameBefore(message, ": ");
    if (const CLI::Option* option = name.empty() ? nullptr : app.get_option_no_throw(name)) {
      return name + " needs a value (" + option->get_type_name() + ")";
    }
  }
  if (kind == "ArgumentMismatch" && message.ends_with(kFlagOverride)) {
    return "--" + message.substr(0, message.size() - kFlagOverride.size()) + " takes no value";
  }
  return message;
}

}  // namespace

void Configure(CLI::App& app) {
  app.set_help_flag();
  app.allow_extras();
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)->disable_flag_override();
}

void Parse(CLI::App& app, const std::vector<std::string>& args) {
  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::ParseError& error) {
    const CLI::App* at = &app;
    for (const CLI::App* sub : app.get_subcommands()) at = sub;
    throw UsageError(Explain(error, *at));
  }
  std::vector<std::string> extras = app.remaining(true);
  // CLI11 keeps the "--" that ends the options among the words it did not take.
  if (const auto mark = std::find(extras.begin(), extras.end(), "--"); mark != extras.end()) extras.erase(mark);
  const auto option = std::find_if(extras.begin(), extras.end(),
                                   [](const std::string& word) { return word.size() > 1 && word[0] == '-'; });
  if (option != extras.end()) throw UsageError("unknown option " + option->substr(0, option->find('=')));
  if (!extras.empty()) throw UsageError("unexpected argument '" + extras.front() + "'");
}

bool AsksForHelp(const std::vector<std::string>& args) {
  for (const std::string& word : args) {
    if (word == "--") return false;
    if (word == "-h" || word == "--help") return true;
  }
  return false;
}

std::int64_t ParseInteger(const std::string& text, const std::string& shown, std::int64_t min, std::int64_t max) {
  std::int64_t result = 0;
  const char* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, result);
  if (ec != std::errc() || ptr != end || text.empty()) {
    throw UsageError(shown + " takes a whole number, not '" + text + "'");
  }
  if (result < min || result > max) {
    throw UsageError(shown + " must lie between " + std::to_string(min) + " and " + std::to_string(max) + ", not " +
                     text);
  }
  return result;
}

CLI::Validator WholeNumber(std::string shown, std::int64_t min, std::int64_t max) {
  return CLI::Validator(
      [shown, min, max](std::string& text) {
        ParseInteger(text, shown, min, max);
        return std::string();
      },
      "", "whole number");
}

CLI::Validator NaturalNumber(std::string shown) {
  return CLI::Validator(
      [shown](std::string& text) {
        std::uint64_t result = 0;
        const char* end = text.data() + text.size();
        const auto [ptr, ec] = std::from_chars(text.data(), end, result);
        if (ec != std::errc() || ptr != end || text.empty()) {
          throw UsageError(shown + " takes a whole number of 0 or more, not '" + text + "'");
        }
        return std::string();
      },
      "", "natural number");
}

}  // namespace kvr::cli
