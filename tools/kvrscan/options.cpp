#include "options.h"

#include <charconv>

#include "errors.h"

namespace kvrscan {

namespace {

const OptionSpec* FindLong(std::span<const OptionSpec> options, std::string_view name) {
  for (const OptionSpec& option : options) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

const OptionSpec* FindShort(std::span<const OptionSpec> options, char name) {
  for (const OptionSpec& option : options) {
    if (option.shortName != 0 && option.shortName == name) return &option;
  }
  return nullptr;
}

}  // namespace

std::optional<std::string> ParsedArgs::value(std::string_view name) const {
  const auto it = values_.find(std::string(name));
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

std::optional<std::int64_t> ParsedArgs::integer(std::string_view name, std::int64_t min, std::int64_t max) const {
  const auto text = value(name);
  if (!text) return std::nullopt;
  return ParseInteger(*text, "--" + std::string(name), min, max);
}

std::optional<std::uint64_t> ParsedArgs::unsignedInteger(std::string_view name) const {
  const auto text = value(name);
  if (!text) return std::nullopt;
  std::uint64_t result = 0;
  const char* end = text->data() + text->size();
  const auto [ptr, ec] = std::from_chars(text->data(), end, result);
  if (ec != std::errc() || ptr != end || text->empty()) {
    throw UsageError("--" + std::string(name) + " takes a whole number of 0 or more, not '" + *text + "'");
  }
  return result;
}

std::int64_t ParseInteger(std::string_view text, std::string_view what, std::int64_t min, std::int64_t max) {
  std::int64_t result = 0;
  const char* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, result);
  if (ec != std::errc() || ptr != end || text.empty()) {
    throw UsageError(std::string(what) + " takes a whole number, not '" + std::string(text) + "'");
  }
  if (result < min || result > max) {
    throw UsageError(std::string(what) + " must lie between " + std::to_string(min) + " and " + std::to_string(max) +
                     ", not " + std::string(text));
  }
  return result;
}

ParsedArgs ParseArgs(std::span<const std::string> args, std::span<const OptionSpec> options,
                     std::span<const std::string_view> positionalNames, std::size_t minPositional) {
  const std::size_t maxPositional = positionalNames.size();
  ParsedArgs parsed;
  bool optionsEnded = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (optionsEnded || word.size() < 2 || word[0] != '-') {
      parsed.addPositional(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    const OptionSpec* option = nullptr;
    std::optional<std::string> inlineValue;
    std::string shown;
    if (word[1] == '-') {
      std::string_view name(word);
      name.remove_prefix(2);
      if (const auto eq = name.find('='); eq != std::string_view::npos) {
        inlineValue = std::string(name.substr(eq + 1));
        name = name.substr(0, eq);
      }
      option = FindLong(options, name);
      shown = "--" + std::string(name);
    } else {
      if (word.size() != 2) throw UsageError("unknown option " + word);
      option = FindShort(options, word[1]);
      shown = word;
    }
    if (option == nullptr) throw UsageError("unknown option " + shown);
    if (option->valueName.empty()) {
      if (inlineValue) throw UsageError(shown + " takes no value");
      parsed.add(std::string(option->name), "");
      continue;
    }
    if (!inlineValue) {
      if (i + 1 >= args.size()) throw UsageError(shown + " needs a value (" + std::string(option->valueName) + ")");
      inlineValue = args[++i];
    }
    parsed.add(std::string(option->name), *inlineValue);
  }
  const std::size_t count = parsed.positional().size();
  if (count < minPositional) throw UsageError("missing " + std::string(positionalNames[count]));
  if (count > maxPositional) throw UsageError("unexpected argument '" + parsed.positional()[maxPositional] + "'");
  return parsed;
}

std::string FormatOptions(std::span<const OptionSpec> commandOptions) {
  static constexpr OptionSpec kHelp{"help", 'h', "", "show this help"};
  std::vector<OptionSpec> options(commandOptions.begin(), commandOptions.end());
  options.push_back(kHelp);
  std::vector<std::string> left;
  std::size_t width = 0;
  for (const OptionSpec& option : options) {
    std::string text = option.shortName != 0 ? std::string("-") + option.shortName + ", " : "    ";
    text += "--";
    text += option.name;
    if (!option.valueName.empty()) {
      text += ' ';
      text += option.valueName;
    }
    width = std::max(width, text.size());
    left.push_back(std::move(text));
  }
  std::string out;
  for (std::size_t i = 0; i < options.size(); ++i) {
    out += "  " + left[i] + std::string(width - left[i].size() + 2, ' ') + std::string(options[i].help) + '\n';
  }
  return out;
}

}  // namespace kvrscan
