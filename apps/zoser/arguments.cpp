#include "arguments.h"

#include <charconv>
#include <string>

#include "errors.h"

namespace zoser {

namespace {

constexpr char kParse[] = "zoser::Arguments::Arguments()";

[[noreturn]] void option_error(char const* message, std::string_view option) {
  raise(error::zoser_usage, message, zocore::ErrorParams().set("option", option), kParse);
}

}  // namespace

Arguments::Arguments(std::span<char const* const> args, std::span<OptionSpec const> specs)
    : specs_(specs) {
  bool options_ended = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string_view const arg = args[i];
    if (options_ended || arg.size() < 2 || arg[0] != '-') {
      positionals_.emplace_back(arg);
      continue;
    }
    if (arg == "--") {
      options_ended = true;
      continue;
    }
    if (arg[1] == '-') {
      std::string_view name = arg.substr(2);
      std::optional<std::string> value;
      if (auto const eq = name.find('='); eq != std::string_view::npos) {
        value.emplace(name.substr(eq + 1));
        name = name.substr(0, eq);
      }
      OptionSpec const* const spec = find_long(name);
      if (spec == nullptr) option_error("Unknown option '{@option}'", std::string("--") += name);
      if (spec->takes_value && !value) {
        if (i + 1 == args.size())
          option_error("Option '{@option}' needs a value", std::string("--") += name);
        value.emplace(args[++i]);
      } else if (!spec->takes_value && value) {
        option_error("Option '{@option}' takes no value", std::string("--") += name);
      }
      given_.push_back({spec->long_name, std::move(value)});
      continue;
    }
    // One or more one-letter options; one that takes a value takes the rest of the argument or
    // the next one.
    for (std::size_t k = 1; k < arg.size(); ++k) {
      OptionSpec const* const spec = find_short(arg[k]);
      std::string const shown{'-', arg[k]};
      if (spec == nullptr) option_error("Unknown option '{@option}'", shown);
      if (!spec->takes_value) {
        given_.push_back({spec->long_name, std::nullopt});
        continue;
      }
      if (k + 1 < arg.size()) {
        given_.push_back({spec->long_name, std::string(arg.substr(k + 1))});
      } else {
        if (i + 1 == args.size()) option_error("Option '{@option}' needs a value", shown);
        given_.push_back({spec->long_name, std::string(args[++i])});
      }
      break;
    }
  }
}

bool Arguments::has(std::string_view long_name) const noexcept {
  for (Given const& g : given_)
    if (g.long_name == long_name) return true;
  return false;
}

std::optional<std::string> Arguments::value(std::string_view long_name) const {
  std::optional<std::string> last;
  for (Given const& g : given_)
    if (g.long_name == long_name) last = g.value;
  return last;
}

std::uint64_t Arguments::number(std::string_view long_name, std::uint64_t fallback,
                                std::uint64_t min, std::uint64_t max) const {
  std::optional<std::string> const text = value(long_name);
  if (!text) return fallback;
  std::uint64_t n = 0;
  char const* const end = text->data() + text->size();
  auto const [ptr, ec] = std::from_chars(text->data(), end, n);
  if (text->empty() || ec != std::errc() || ptr != end || n < min || n > max) {
    raise(error::zoser_usage,
          "Invalid value '{@value}' for option '{@option}': expected a whole number from {@min} "
          "to {@max}",
          zocore::ErrorParams()
              .set("value", *text)
              .set("option", std::string("--") += long_name)
              .set("min", static_cast<unsigned long long>(min))
              .set("max", static_cast<unsigned long long>(max)),
          "zoser::Arguments::number()");
  }
  return n;
}

void Arguments::expect_positionals(std::size_t min, std::size_t max,
                                   std::span<char const* const> names) const {
  if (positionals_.size() < min) {
    raise(error::zoser_usage, "Missing argument: {@name}",
          zocore::ErrorParams().set("name", names[positionals_.size()]),
          "zoser::Arguments::expect_positionals()");
  }
  if (positionals_.size() > max) {
    raise(error::zoser_usage, "Unexpected argument '{@argument}'",
          zocore::ErrorParams().set("argument", positionals_[max]),
          "zoser::Arguments::expect_positionals()");
  }
}

void Arguments::refuse(std::string_view long_name, std::string_view context) const {
  if (!has(long_name)) return;
  raise(error::zoser_usage, "Option '{@option}' does not apply to {@context}",
        zocore::ErrorParams().set("option", std::string("--") += long_name).set("context", context),
        "zoser::Arguments::refuse()");
}

OptionSpec const* Arguments::find_long(std::string_view name) const noexcept {
  for (OptionSpec const& s : specs_)
    if (s.long_name == name) return &s;
  return nullptr;
}

OptionSpec const* Arguments::find_short(char name) const noexcept {
  for (OptionSpec const& s : specs_)
    if (s.short_name != 0 && s.short_name == name) return &s;
  return nullptr;
}

}  // namespace zoser
