// Command-line parsing: options and positional arguments of one subcommand.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zoser {

// One option a subcommand accepts. `long_name` is spelled without its dashes ("line-width");
// `short_name` is 0 when the option has no one-letter form.
struct OptionSpec {
  std::string_view long_name;
  char short_name;
  bool takes_value;
};

// The options and positional arguments of one subcommand. Options may stand anywhere among the
// positional arguments; "--" ends the options; "-" alone is a positional argument (standard
// input or output). Values are given as "--name VALUE", "--name=VALUE", "-x VALUE" or "-xVALUE";
// flags without values can be grouped ("-qh"). An option given twice keeps its last value.
//
// Failures are error::zoser_usage: "Unknown option '{@option}'", "Option '{@option}' needs a
// value", "Option '{@option}' takes no value".
class Arguments {
 public:
  Arguments(std::span<char const* const> args, std::span<OptionSpec const> specs);

  bool has(std::string_view long_name) const noexcept;
  // The last value given for the option, if any.
  std::optional<std::string> value(std::string_view long_name) const;
  // The option's value as an unsigned number in [min, max], `fallback` when it is absent.
  // Anything else fails with "Invalid value '{@value}' for option '{@option}': expected a
  // whole number from {@min} to {@max}" (error::zoser_usage).
  std::uint64_t number(std::string_view long_name, std::uint64_t fallback, std::uint64_t min,
                       std::uint64_t max) const;
  std::vector<std::string> const& positionals() const noexcept { return positionals_; }

  // Fails unless between `min` and `max` positional arguments were given: "Missing argument:
  // {@name}" or "Unexpected argument '{@argument}'" (error::zoser_usage). `names` name the
  // arguments in order, for the first message.
  void expect_positionals(std::size_t min, std::size_t max,
                          std::span<char const* const> names) const;
  // Fails when `long_name` was given: "Option '{@option}' does not apply to {@context}"
  // (error::zoser_usage).
  void refuse(std::string_view long_name, std::string_view context) const;

 private:
  struct Given {
    std::string_view long_name;
    std::optional<std::string> value;
  };
  OptionSpec const* find_long(std::string_view name) const noexcept;
  OptionSpec const* find_short(char name) const noexcept;

  std::span<OptionSpec const> specs_;
  std::vector<Given> given_;
  std::vector<std::string> positionals_;
};

}  // namespace zoser
