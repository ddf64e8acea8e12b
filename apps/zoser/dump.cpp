// zoser dump: the trace rendering of an archive on standard output.
#include <memory>
#include <string>

#include <zocore/error_exception.h>

#include "commands.h"
#include "errors.h"
#include "output.h"
#include "source.h"

namespace zoser {

namespace {

constexpr OptionSpec kOptions[] = {
    {"help", 'h', false},   {"from", 'f', true},   {"max-elements", 0, true},
    {"max-depth", 0, true}, {"quiet", 'q', false}, {"progress", 0, false},
};

constexpr char kHelp[] = R"help(Usage: zoser dump [OPTIONS] [IN]

Prints the archive IN (standard input when not given, or "-") as an indented trace, one line
per element, for reading by people. Long strings and binaries show their first 256 bytes.

Options:
  -f, --from FORMAT     format of IN (binary, text, xml); detected when not given
      --max-elements N  print at most N elements, then "..." (0: all, the default)
      --max-depth N     show N levels of nesting; deeper elements become "..." (0: all)
  -q, --quiet           no progress line
      --progress        show the progress line even when standard error is not a terminal
  -h, --help            show this help

Exit status: 0 when printed, 2 on any error.
)help";

int run(Arguments const& args) {
  static constexpr char const* kNames[] = {"IN"};
  args.expect_positionals(0, 1, kNames);
  std::string const in = args.positionals().empty() ? "-" : args.positionals()[0];
  Format const* const from = input_format_option(args);
  Format const& trace = format_named("trace");
  WriterOptions options;
  options.max_elements = static_cast<unsigned>(args.number("max-elements", 0, 0, 0xFFFFFFFEu));
  options.max_depth = static_cast<unsigned>(args.number("max-depth", 0, 0, 0xFFFFFFFEu));
  require_writable(trace);

  std::unique_ptr<Source> const source =
      Source::open(in, from, Progress::mode_for(args.has("quiet"), args.has("progress")));
  if (!source) return kExitError;
  try {
    Output output("-");
    std::unique_ptr<zoserialize::Writer> writer = make_writer(trace, output, options);
    source->reader().read_copy_all(*writer);
    writer->close();
    writer.reset();
    source->input().finish_progress();
    finish_output(trace, output);
  } catch (zocore::ErrorException const& e) {
    if (is_output_failure(e.code())) {
      print_error("-", "", *e.info());
    } else {
      source->report(*e.info());
    }
    return kExitError;
  }
  return kExitOk;
}

}  // namespace

Command const dump_command = {"dump", "print an archive as an indented trace", kHelp, kOptions,
                              &run};

}  // namespace zoser
