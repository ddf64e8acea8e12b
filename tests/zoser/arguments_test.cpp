#include "arguments.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>

#include "errors.h"

namespace zoser {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"help", 'h', false}, {"from", 'f', true}, {"quiet", 'q', false}, {"line-width", 0, true}};

Arguments parse(std::vector<char const*> const& args) {
  return Arguments(args, kSpecs);
}

struct ParseRow {
  std::vector<char const*> args;
  std::string from;  // "-" when absent
  bool quiet;
  std::vector<std::string> positionals;
};

TEST(ArgumentsTest, ParsesEveryForm) {
  ParseRow const rows[] = {
      {{}, "-", false, {}},
      {{"a", "b"}, "-", false, {"a", "b"}},
      {{"-f", "text", "in"}, "text", false, {"in"}},
      {{"-ftext", "in"}, "text", false, {"in"}},
      {{"--from", "xml"}, "xml", false, {}},
      {{"--from=binary", "in", "-q"}, "binary", true, {"in"}},
      {{"in", "--quiet", "out"}, "-", true, {"in", "out"}},
      {{"-qf", "text"}, "text", true, {}},  // grouped flags, the last takes a value
      {{"-", "--", "-q", "--from"}, "-", false, {"-", "-q", "--from"}},  // "--" ends options
      {{"-f", "a", "-f", "b"}, "b", false, {}},                          // the last value wins
  };
  for (ParseRow const& row : rows) {
    Arguments const a = parse(row.args);
    EXPECT_EQ(a.value("from").value_or("-"), row.from);
    EXPECT_EQ(a.has("quiet"), row.quiet);
    EXPECT_EQ(a.positionals(), row.positionals);
  }
}

TEST(ArgumentsTest, RefusesMalformedOptions) {
  struct Row {
    std::vector<char const*> args;
    char const* message;
    char const* option;
  } const rows[] = {
      {{"--nope"}, "Unknown option '{@option}'", "--nope"},
      {{"-x"}, "Unknown option '{@option}'", "-x"},
      {{"-qx"}, "Unknown option '{@option}'", "-x"},
      {{"--from"}, "Option '{@option}' needs a value", "--from"},
      {{"-f"}, "Option '{@option}' needs a value", "-f"},
      {{"--quiet=yes"}, "Option '{@option}' takes no value", "--quiet"},
  };
  for (Row const& row : rows) {
    auto const e = ZO_EXPECT_ERROR(parse(row.args), error::zoser_usage, row.message);
    EXPECT_EQ(zotest::param(e, "option"), row.option);
  }
}

TEST(ArgumentsTest, NumbersAreCheckedAgainstTheirRange) {
  EXPECT_EQ(parse({}).number("line-width", 7, 0, 100), 7u);
  EXPECT_EQ(parse({"--line-width", "100"}).number("line-width", 7, 0, 100), 100u);
  for (char const* bad : {"", "x", "101", "-1", "12a", "99999999999999999999999"}) {
    auto const e = ZO_EXPECT_ERROR(
        parse({"--line-width", bad}).number("line-width", 0, 0, 100), error::zoser_usage,
        "Invalid value '{@value}' for option '{@option}': expected a whole number from {@min} "
        "to {@max}");
    EXPECT_EQ(zotest::param(e, "value"), bad);
    EXPECT_EQ(zotest::param(e, "option"), "--line-width");
    EXPECT_EQ(zotest::param(e, "min"), "0");
    EXPECT_EQ(zotest::param(e, "max"), "100");
  }
}

TEST(ArgumentsTest, PositionalCountAndRefusedOptions) {
  static constexpr char const* kNames[] = {"A", "B"};
  parse({"x", "y"}).expect_positionals(2, 2, kNames);
  auto e = ZO_EXPECT_ERROR(parse({"x"}).expect_positionals(2, 2, kNames), error::zoser_usage,
                           "Missing argument: {@name}");
  EXPECT_EQ(zotest::param(e, "name"), "B");
  e = ZO_EXPECT_ERROR(parse({"x", "y", "z"}).expect_positionals(0, 2, kNames), error::zoser_usage,
                      "Unexpected argument '{@argument}'");
  EXPECT_EQ(zotest::param(e, "argument"), "z");

  parse({}).refuse("quiet", "binary output");
  e = ZO_EXPECT_ERROR(parse({"-q"}).refuse("quiet", "binary output"), error::zoser_usage,
                      "Option '{@option}' does not apply to {@context}");
  EXPECT_EQ(zotest::param(e, "option"), "--quiet");
  EXPECT_EQ(zotest::param(e, "context"), "binary output");
}

}  // namespace
}  // namespace zoser
