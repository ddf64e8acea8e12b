// zoser: convert, dump, hash, compare and validate zoserialize archives from the shell.
#include <span>
#include <string>
#include <string_view>

#include <zocore/error_exception.h>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "formats.h"
#include "output.h"

#ifndef ZOSER_VERSION
#error "ZOSER_VERSION is defined by the build"
#endif

namespace zoser {
namespace {

std::string main_help() {
  std::string text = R"help(Usage: zoser COMMAND [OPTIONS] [ARGUMENTS]
       zoser --help | --version

Converts, inspects, hashes, compares and validates zoserialize archives, streaming them in
constant memory whatever their size.

Commands:
)help";
  for (Command const* c : commands()) {
    std::string line = "  " + std::string(c->name);
    line.resize(12, ' ');
    text += line + std::string(c->summary) + "\n";
  }
  text += "\nFormats:\n";
  for (Format const& f : formats()) {
    std::string line = "  " + std::string(f.name);
    line.resize(10, ' ');
    line += f.extension.empty() ? std::string() : std::string(f.extension);
    line.resize(17, ' ');
    line += f.summary;
    if (!f.missing.empty()) line += " [not available in this build]";
    text += line + "\n";
  }
  text += R"help(
When -f is not given, the format of an input is recognised by its content: XML when it starts
with a byte order mark or its first character other than space, tab, CR and LF is '<'; text when
its first character other than CR and LF starts a text element and its first 64 KiB parse as
text; binary when they parse as binary. When the content fits more than one format (short inputs
can), the file's extension (.zob, .zot, .xml) decides, and without one zoser asks for -f. Content
that fits no format (damaged input) is read as the extension says, or else as binary.

IN and OUT are file names; "-" or leaving them out means standard input and output. Errors are
printed as "zoser: FILE: PLACE: MESSAGE [error.code]", PLACE being "byte N" in binary input and
"line L, column C" in text and XML.

Exit status: 0 on success (and "equal" for compare), 1 when compare finds a difference, 2 on
any error.

Run "zoser COMMAND --help" for the options of a command; docs/cli.md is the manual.
)help";
  return text;
}

int run_command(Command const& command, std::span<char const* const> args) {
  Arguments const parsed(args, command.options);
  if (parsed.has("help")) {
    print_out(command.help);
    return kExitOk;
  }
  return command.run(parsed);
}

int run(int argc, char** argv) {
  std::span<char const* const> const args(argv + 1, argc > 0 ? argc - 1 : 0);
  if (args.empty()) {
    print_out(main_help());
    return kExitError;
  }
  std::string_view const first = args[0];
  if (first == "--help" || first == "-h" || first == "help") {
    print_out(main_help());
    return kExitOk;
  }
  if (first == "--version") {
    print_out("zoser " ZOSER_VERSION "\n");
    return kExitOk;
  }
  for (Command const* c : commands()) {
    if (c->name != first) continue;
    try {
      return run_command(*c, args.subspan(1));
    } catch (zocore::ErrorException const& e) {
      print_error("", "", *e.info());
      if (e.code().is_a(error::zoser_usage))
        print_note("", "run \"zoser " + std::string(first) + " --help\" for its usage");
      return kExitError;
    }
  }
  try {
    raise(error::zoser_usage, "Unknown command '{@command}'",
          zocore::ErrorParams().set("command", first), "zoser::run()");
  } catch (zocore::ErrorException const& e) {
    print_error("", "", *e.info());
    print_note("", "run \"zoser --help\" for the list of commands");
  }
  return kExitError;
}

}  // namespace
}  // namespace zoser

int main(int argc, char** argv) {
  zoser::Output::install_signal_cleanup();
  try {
    return zoser::run(argc, argv);
  } catch (std::exception const& e) {
    // Anything that is not a framework error (memory exhausted, a library bug) still ends with
    // a message and the error status rather than an abort.
    zoser::print_note("", std::string("unexpected failure: ") + e.what());
    return zoser::kExitError;
  }
}
