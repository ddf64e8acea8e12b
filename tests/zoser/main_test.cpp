// The executable's entry: help, version, unknown commands and usage errors.
#include <string>

#include <gtest/gtest.h>

#include "commands.h"
#include "tool.h"

namespace zoser {
namespace {

using zotest::run_zoser;

TEST(MainTest, HelpAndVersion) {
  for (char const* flag : {"--help", "-h", "help"}) {
    zotest::ToolResult const r = run_zoser({flag});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.starts_with("Usage: zoser COMMAND [OPTIONS] [ARGUMENTS]\n")) << r.out;
    for (Command const* c : commands())
      EXPECT_NE(r.out.find("\n  " + std::string(c->name) + " "), std::string::npos) << c->name;
    EXPECT_NE(r.out.find("  xml     .xml   the XML document"), std::string::npos);
  }
  zotest::ToolResult const none = run_zoser({});
  EXPECT_EQ(none.status, 2);
  EXPECT_TRUE(none.out.starts_with("Usage: zoser")) << none.out;

  zotest::ToolResult const version = run_zoser({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out, "zoser " ZOSER_TEST_VERSION "\n");
}

TEST(MainTest, EveryCommandHasItsHelp) {
  for (Command const* c : commands()) {
    zotest::ToolResult const r = run_zoser({std::string(c->name), "--help"});
    EXPECT_EQ(r.status, 0) << c->name;
    EXPECT_EQ(r.out, c->help);
    EXPECT_TRUE(r.out.starts_with("Usage: zoser " + std::string(c->name) + " ")) << r.out;
    EXPECT_NE(r.out.find("Exit status:"), std::string::npos) << c->name;
  }
}

TEST(MainTest, UsageErrors) {
  struct Row {
    std::vector<std::string> args;
    char const* err;
  } const rows[] = {
      {{"frobnicate"},
       "zoser: Unknown command 'frobnicate' [error.zoser.usage]\n"
       "zoser: run \"zoser --help\" for the list of commands\n"},
      {{"convert", "--nope"},
       "zoser: Unknown option '--nope' [error.zoser.usage]\n"
       "zoser: run \"zoser convert --help\" for its usage\n"},
      {{"compare", "a"},
       "zoser: Missing argument: B [error.zoser.usage]\n"
       "zoser: run \"zoser compare --help\" for its usage\n"},
      {{"stats", "a", "b"},
       "zoser: Unexpected argument 'b' [error.zoser.usage]\n"
       "zoser: run \"zoser stats --help\" for its usage\n"},
      {{"validate", "-f", "yaml"},
       "zoser: Unknown format 'yaml'; known formats: binary, text, xml, trace, json "
       "[error.zoser.format.unknown]\n"},
      {{"hash", "-f", "json"},
       "zoser: The json format cannot be read [error.zoser.format.direction]\n"},
  };
  for (Row const& row : rows) {
    zotest::ToolResult const r = run_zoser(row.args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, row.err);
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
}  // namespace zoser
