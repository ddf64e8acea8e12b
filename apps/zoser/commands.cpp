#include "commands.h"

#include <cerrno>

#include <unistd.h>

#include "errors.h"
#include "output.h"

namespace zoser {

std::span<Command const* const> commands() {
  static Command const* const kCommands[] = {&convert_command, &dump_command,     &hash_command,
                                             &compare_command, &validate_command, &stats_command,
                                             &sample_command};
  return kCommands;
}

Format const* input_format_option(Arguments const& args) {
  std::optional<std::string> const from = args.value("from");
  if (!from) return nullptr;
  Format const& f = format_named(*from);
  require_readable(f);
  return &f;
}

Format const& output_format(Arguments const& args, std::string const& out) {
  if (std::optional<std::string> const to = args.value("to")) return format_named(*to);
  if (out == "-") return format_named("text");
  if (Format const* const f = format_for_path(out)) return *f;
  raise(error::zoser_format,
        "Cannot tell the output format from the name '{@path}'; give -t FORMAT",
        zocore::ErrorParams().set("path", out), "zoser::output_format()");
}

void finish_output(Format const& format, Output& output) {
  if (!format.trailer.empty())
    output.stream()->write(format.trailer.data(), static_cast<unsigned>(format.trailer.size()));
  output.commit();
}

void print_out(std::string_view text) {
  while (!text.empty()) {
    ssize_t const n = ::write(STDOUT_FILENO, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(n));
  }
}

}  // namespace zoser
