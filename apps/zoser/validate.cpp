// zoser validate: reads every element and reports the first error of each input.
#include <string>

#include <zocore/error_exception.h>

#include "commands.h"
#include "errors.h"
#include "progress.h"
#include "source.h"
#include "stats_writer.h"

namespace zoser {

namespace {

constexpr OptionSpec kOptions[] = {
    {"help", 'h', false},
    {"from", 'f', true},
    {"quiet", 'q', false},
    {"progress", 0, false},
};

constexpr char kHelp[] = R"help(Usage: zoser validate [OPTIONS] [IN...]

Reads every element of each input (standard input when none is given, or "-") with all the
checks of its reader: structure, count hints, UTF-8 of strings, value ranges. A valid input is
reported on standard output as "IN: OK (FORMAT, N elements, SIZE)"; the first error of an
invalid one on standard error as

  zoser: IN: PLACE: MESSAGE [error.code]

where PLACE is "byte N" for binary input and "line L, column C" for text and XML. Every input is
checked, also after one failed.

Options:
  -f, --from FORMAT    format of the inputs (binary, text, xml); detected for each when not given
  -q, --quiet          no "OK" lines and no progress line
      --progress       show the progress line even when standard error is not a terminal
  -h, --help           show this help

Exit status: 0 when every input is valid, 2 otherwise.
)help";

int run(Arguments const& args) {
  Format const* const from = input_format_option(args);
  std::vector<std::string> names = args.positionals();
  if (names.empty()) names.emplace_back("-");
  Progress::EMode const progress = Progress::mode_for(args.has("quiet"), args.has("progress"));
  int status = kExitOk;
  for (std::string const& name : names) {
    std::unique_ptr<Source> const source = Source::open(name, from, progress);
    if (!source) {
      status = kExitError;
      continue;
    }
    try {
      StatsWriter counter;
      source->reader().read_copy_all(counter);
      counter.close();
      source->input().finish_progress();
      if (!args.has("quiet")) {
        print_out(name + ": OK (" + std::string(source->format().name) + ", " +
                  std::to_string(counter.stats().elements) + " elements, " +
                  format_size(source->input().bytes_read()) + ")\n");
      }
    } catch (zocore::ErrorException const& e) {
      source->report(*e.info());
      status = kExitError;
    }
  }
  return status;
}

}  // namespace

Command const validate_command = {"validate", "read every element and report the first error",
                                  kHelp, kOptions, &run};

}  // namespace zoser
