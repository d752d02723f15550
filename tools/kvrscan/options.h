#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kvrscan {

// One option of a subcommand. Options are written --name VALUE, --name=VALUE or,
// when they have a short form, -x VALUE.
struct OptionSpec {
  std::string_view name;       // long name without the dashes
  char shortName = 0;          // 0: none
  std::string_view valueName;  // empty: a flag without a value
  std::string_view help;
};

// The command line of one subcommand after parsing.
class ParsedArgs {
 public:
  const std::vector<std::string>& positional() const { return positional_; }
  bool has(std::string_view name) const { return values_.count(std::string(name)) != 0; }
  std::optional<std::string> value(std::string_view name) const;

  // Typed values; a malformed one is a UsageError naming the option.
  std::optional<std::int64_t> integer(std::string_view name, std::int64_t min, std::int64_t max) const;
  std::optional<std::uint64_t> unsignedInteger(std::string_view name) const;

  void add(std::string name, std::string value) { values_[std::move(name)] = std::move(value); }
  void addPositional(std::string value) { positional_.push_back(std::move(value)); }

 private:
  std::vector<std::string> positional_;
  std::map<std::string, std::string> values_;
};

// Parses args (the words after the subcommand). "--" ends the options. Throws
// UsageError for an unknown option, a missing value or a wrong number of
// positional arguments: at least minPositional, at most one per name.
ParsedArgs ParseArgs(std::span<const std::string> args, std::span<const OptionSpec> options,
                     std::span<const std::string_view> positionalNames, std::size_t minPositional);

// A whole number in [min, max]; `what` names it in the error.
std::int64_t ParseInteger(std::string_view text, std::string_view what, std::int64_t min, std::int64_t max);

// The options' help block, one line per option (and one for --help), aligned.
std::string FormatOptions(std::span<const OptionSpec> options);

}  // namespace kvrscan
