// The subcommands of the tool.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "arguments.h"
#include "formats.h"

namespace zoser {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitDifferent = 1;  // compare found a difference
constexpr int kExitError = 2;

// One subcommand: its options, its --help text and what it does. run() returns the exit status;
// failures of the command line itself are thrown (error::zoser_usage and the format lookups)
// and reported by main.
struct Command {
  std::string_view name;
  std::string_view summary;  // one line for zoser --help
  std::string_view help;     // the whole of zoser NAME --help
  std::span<OptionSpec const> options;
  int (*run)(Arguments const& args);
};

extern Command const convert_command;
extern Command const dump_command;
extern Command const hash_command;
extern Command const compare_command;
extern Command const validate_command;
extern Command const stats_command;
extern Command const sample_command;

// Every command, in the order zoser --help lists them.
std::span<Command const* const> commands();

// The format -f names, or null when the option is absent (then it is detected).
Format const* input_format_option(Arguments const& args);

class Output;

// The format of OUT: -t when given, else the one its extension names; standard output gets
// text. Otherwise fails with "Cannot tell the output format from the name '{@path}'; give -t
// FORMAT" (error::zoser_format).
Format const& output_format(Arguments const& args, std::string const& out);

// Ends an output whose writer has closed: the format's trailer, then commit().
void finish_output(Format const& format, Output& output);

// Prints `text` on standard output.
void print_out(std::string_view text);

}  // namespace zoser
