// zoser stats: what an archive holds.
#include <cstdio>
#include <string>

#include <zocore/error_exception.h>

#include "commands.h"
#include "errors.h"
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

constexpr char kHelp[] = R"help(Usage: zoser stats [OPTIONS] [IN]

Reads every element of IN (standard input when not given, or "-") and prints what it holds:
its size in bytes, the number of elements of each kind (a sequence or a marker counts as one
element besides what it holds), the deepest nesting of sequences and markers, and the largest
string and binary in bytes.

Options:
  -f, --from FORMAT    format of IN (binary, text, xml); detected when not given
  -q, --quiet          no progress line
      --progress       show the progress line even when standard error is not a terminal
  -h, --help           show this help

Exit status: 0 when read, 2 on any error.
)help";

std::string row(std::string_view label, std::string const& value) {
  std::string line(label);
  line += ':';
  line.resize(std::max<std::size_t>(line.size() + 1, 20), ' ');
  return line + value + '\n';
}

int run(Arguments const& args) {
  static constexpr char const* kNames[] = {"IN"};
  args.expect_positionals(0, 1, kNames);
  std::string const in = args.positionals().empty() ? "-" : args.positionals()[0];
  Format const* const from = input_format_option(args);
  std::unique_ptr<Source> const source =
      Source::open(in, from, Progress::mode_for(args.has("quiet"), args.has("progress")));
  if (!source) return kExitError;
  StatsWriter counter;
  try {
    source->reader().read_copy_all(counter);
    counter.close();
    source->input().finish_progress();
  } catch (zocore::ErrorException const& e) {
    source->report(*e.info());
    return kExitError;
  }
  Stats const& s = counter.stats();
  std::string text = row("file", in) + row("format", std::string(source->format().name)) +
                     row("bytes", std::to_string(source->input().bytes_read())) +
                     row("elements", std::to_string(s.elements));
  for (unsigned k = 0; k < Stats::kKindCount; ++k) {
    text += row(std::string("  ") += Stats::kind_name(static_cast<Stats::EKind>(k)),
                std::to_string(s.counts[k]));
  }
  text += row("maximum depth", std::to_string(s.max_depth)) +
          row("largest string", std::to_string(s.largest_string)) +
          row("largest binary", std::to_string(s.largest_binary)) +
          row("string bytes", std::to_string(s.string_bytes)) +
          row("binary bytes", std::to_string(s.binary_bytes));
  print_out(text);
  return kExitOk;
}

}  // namespace

Command const stats_command = {"stats", "count the elements of an archive by kind", kHelp, kOptions,
                               &run};

}  // namespace zoser
