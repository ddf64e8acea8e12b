// zoser hash: the canonical digest of archives, the same for the same data in every format.
#include <memory>
#include <string>

#include <zocore/error_exception.h>
#include <zocore/ref_count_ptr.h>
#include <zodigest/digest_sink.h>
#include <zoserialize/hashing_reader_adapter.h>

#include "commands.h"
#include "errors.h"
#include "source.h"

namespace zoser {

namespace {

constexpr OptionSpec kOptions[] = {
    {"help", 'h', false},  {"from", 'f', true},    {"algorithm", 'a', true},
    {"quiet", 'q', false}, {"progress", 0, false},
};

constexpr char kHelp[] = R"help(Usage: zoser hash [OPTIONS] [IN...]

Prints the canonical digest of each input (standard input when none is given, or "-") as
lowercase hex followed by two spaces and the name, like sha256sum:

  3a7bd3e2360a3d29eea436fcfb7e44c735d117c42d1c1835420b6b9942dd4f1b  catalogue.zob

The digest is taken over the hashing adapters' canonical record of the elements, not over the
file's bytes, so the same data gives the same digest in every format (binary, text, XML) and
however its strings and binaries were chunked; any change to any element changes it. Count
hints are not part of it, and every NaN hashes alike.

Options:
  -a, --algorithm NAME  any digest OpenSSL knows: SHA-256 (the default), SHA-512, SHA3-256,
                        BLAKE2B-512, ...
  -f, --from FORMAT     format of the inputs (binary, text, xml); detected for each when not given
  -q, --quiet           no progress line
      --progress        show the progress line even when standard error is not a terminal
  -h, --help            show this help

Exit status: 0 when every input was hashed, 2 otherwise (every input is tried).
)help";

int run(Arguments const& args) {
  Format const* const from = input_format_option(args);
  std::string const algorithm =
      args.value("algorithm").value_or(zodigest::DigestSink::kDefaultAlgorithm);
  // An unknown algorithm is the command line's fault: refused before any input is opened.
  zodigest::DigestSink const check(algorithm);
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
      auto const sink = zocore::make_ref_counted<zodigest::DigestSink>(algorithm);
      zoserialize::HashingReaderAdapter adapter(source->reader(),
                                                zocore::InterfacePtr<zocore::IWriteStream>(sink));
      while (!adapter.is_eof())
        adapter.skip_element();
      adapter.close();
      source->input().finish_progress();
      print_out(sink->hex_digest() + "  " + name + "\n");
    } catch (zocore::ErrorException const& e) {
      source->report(*e.info());
      status = kExitError;
    }
  }
  return status;
}

}  // namespace

Command const hash_command = {"hash", "print the canonical digest of archives", kHelp, kOptions,
                              &run};

}  // namespace zoser
