// zoser convert: any readable format to any writable one.
#include <memory>
#include <string>

#include <zocore/error_exception.h>
#include <zoserialize/error_codes.h>

#include "commands.h"
#include "errors.h"
#include "output.h"
#include "source.h"

namespace zoser {

namespace {

constexpr OptionSpec kOptions[] = {
    {"help", 'h', false},     {"from", 'f', true},         {"to", 't', true},
    {"ascii-only", 0, false}, {"escape-spaces", 0, false}, {"line-width", 0, true},
    {"crlf", 0, false},       {"indent", 0, true},         {"one-line", 0, false},
    {"quiet", 'q', false},    {"progress", 0, false},
};

constexpr char kHelp[] = R"help(Usage: zoser convert [OPTIONS] [IN] [OUT]

Converts the archive IN into another format and writes it to OUT. IN and OUT default to
standard input and output ("-" names them too). Everything is streamed: strings and binaries of
any size pass through in pieces, so memory use does not grow with the input.

OUT appears only when the conversion is complete: it is written under a temporary name beside
it and renamed at the end; a failed or interrupted conversion leaves no OUT behind.

Options:
  -f, --from FORMAT    format of IN (binary, text, xml); detected when not given
  -t, --to FORMAT      format of OUT (binary, text, xml, trace, json); when not given it comes
                       from OUT's extension (.zob, .zot, .xml, .json); standard output gets text
  -q, --quiet          no progress line
      --progress       show the progress line even when standard error is not a terminal
  -h, --help           show this help

Text output (-t text):
      --ascii-only     escape every byte from 0x7F up inside strings
      --escape-spaces  escape spaces inside strings
      --line-width N   wrap lines at N characters (0: one line, the default)
      --crlf           end wrapped lines with CR LF instead of LF

XML output (-t xml):
      --indent N       indent nested elements by N spaces (default 2)
      --one-line       write the whole document on one line

JSON output (-t json) is a rendering for jq and other JSON tools; it cannot be read back.
See docs/cli.md for its mapping.

Exit status: 0 when converted, 2 on any error.
)help";

WriterOptions writer_options(Arguments const& args, Format const& to) {
  std::string const context = std::string(to.name) + " output";
  WriterOptions o;
  if (to.name != "text") {
    for (char const* name : {"ascii-only", "escape-spaces", "line-width", "crlf"})
      args.refuse(name, context);
  }
  if (to.name != "xml") {
    for (char const* name : {"indent", "one-line"})
      args.refuse(name, context);
  }
  o.text.ascii_only(args.has("ascii-only"))
      .escape_spaces(args.has("escape-spaces"))
      .line_width(static_cast<unsigned>(args.number("line-width", 0, 0, 1'000'000)))
      .line_separator_crlf(args.has("crlf"));
  if (args.has("one-line")) {
    args.refuse("indent", "--one-line");
    o.xml_one_line = true;
    o.xml_indent.clear();
  } else {
    o.xml_indent.assign(args.number("indent", 2, 0, 32), ' ');
  }
  return o;
}

int run(Arguments const& args) {
  static constexpr char const* kNames[] = {"IN", "OUT"};
  args.expect_positionals(0, 2, kNames);
  std::string const in = args.positionals().size() > 0 ? args.positionals()[0] : "-";
  std::string const out = args.positionals().size() > 1 ? args.positionals()[1] : "-";
  Format const* const from = input_format_option(args);
  Format const& to = output_format(args, out);
  WriterOptions const options = writer_options(args, to);
  require_writable(to);

  std::unique_ptr<Source> const source =
      Source::open(in, from, Progress::mode_for(args.has("quiet"), args.has("progress")));
  if (!source) return kExitError;
  try {
    Output output(out);
    std::unique_ptr<zoserialize::Writer> writer = make_writer(to, output, options);
    source->reader().read_copy_all(*writer);
    writer->close();
    writer.reset();
    source->input().finish_progress();
    finish_output(to, output);
  } catch (zocore::ErrorException const& e) {
    if (is_output_failure(e.code())) {
      print_error(out, "", *e.info());
    } else {
      source->report(*e.info());
    }
    return kExitError;
  }
  return kExitOk;
}

}  // namespace

Command const convert_command = {"convert", "convert an archive into another format", kHelp,
                                 kOptions, &run};

}  // namespace zoser
