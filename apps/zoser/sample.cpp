// zoser sample: a demonstration archive, of any size.
#include "sample.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string>

#include <zocore/error_exception.h>

#include "commands.h"
#include "errors.h"
#include "output.h"

namespace zoser {

namespace {

using zoserialize::Writer;

constexpr char const* kFirstNames[] = {"Ada",     "Grace",  "Alan",    "Edsger",
                                       "Barbara", "Donald", "Frances", "Niklaus"};
constexpr char const* kLastNames[] = {"Lovelace", "Hopper", "Turing", "Dijkstra",
                                      "Liskov",   "Knuth",  "Allen",  "Wirth"};
constexpr char const* kTitles[] = {"Notes on the Analytical Engine",
                                   "Über die Berechenbarkeit",
                                   "A \"Discipline\" of Programming",
                                   "Structured\tProgramming",
                                   "The Art of ~Computer~ Programming",
                                   "Algorithms + Data",
                                   "Façade — Patterns",
                                   "Programming Pearls"};

// A cheap, fixed pseudo-random sequence (the same on every machine).
std::uint64_t mix(std::uint64_t x) noexcept {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

zocore::Uuid uuid_of(std::uint64_t seed) noexcept {
  std::array<unsigned char, 16> bytes{};
  std::uint64_t const hi = mix(seed);
  std::uint64_t const lo = mix(seed ^ 0xA5A5A5A5u);
  for (int i = 0; i < 8; ++i) {
    bytes[static_cast<std::size_t>(i)] = static_cast<unsigned char>(hi >> (56 - 8 * i));
    bytes[8 + static_cast<std::size_t>(i)] = static_cast<unsigned char>(lo >> (56 - 8 * i));
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
  return zocore::Uuid(bytes);
}

void write_header(Writer& w, SampleOptions const& options) {
  zoserialize::WriteMarker header(w);
  w << "zoser sample catalogue";
  zocore::AbsoluteTime created;
  zocore::AbsoluteTime::from_components_nothrow({2024, 5, 17, 9, 30, 0, 250'000'000}, &created);
  w << created << uuid_of(0) << zocore::RelativeTime(86'400'500'000'000);  // 86400.5 s
  // 2^64 + 5 and -2^70: wider than any C++ integer.
  unsigned char const big_unsigned[9] = {0x01, 0, 0, 0, 0, 0, 0, 0, 0x05};
  w.write_uint_big_endian(big_unsigned, sizeof big_unsigned);
  unsigned char big_negative[16] = {};
  std::fill_n(big_negative, 7, 0xFF);
  big_negative[7] = 0xC0;
  w.write_int_big_endian(big_negative, sizeof big_negative);
  w << 3.141592653589793;
  w.write_null();
  w << true << static_cast<unsigned long long>(options.records);
  header.close();
}

void write_record(Writer& w, std::uint64_t i, zocore::AbsoluteTime base) {
  std::uint64_t const r = mix(i + 1);
  zoserialize::WriteMarker record(w);
  w << static_cast<long long>(i) + 1000 << kTitles[r % std::size(kTitles)];
  std::uint64_t const authors = 1 + (r >> 8) % 3;
  w.write_sequence_start();
  for (std::uint64_t k = 0; k < authors; ++k) {
    if (k != 0) w.write_sequence_separator();
    std::uint64_t const a = mix(r + k);
    w << (std::string(kFirstNames[a % std::size(kFirstNames)]) + " " +
          kLastNames[(a >> 8) % std::size(kLastNames)]);
  }
  w.write_sequence_end();
  w << static_cast<double>((r >> 16) % 500) / 100.0 << (i % 3 == 0);
  w << zocore::AbsoluteTime(base.count() + static_cast<std::int64_t>(i) * 3'600'000'000'000);
  w << zocore::RelativeTime(i % 2 == 0 ? 14 * 86'400'000'000'000 : -1'500'000'000);
  w << uuid_of(i + 1);
  unsigned char cover[64];
  std::size_t const cover_size = 16 + (r >> 24) % 49;
  for (std::size_t k = 0; k < cover_size; ++k)
    cover[k] = static_cast<unsigned char>(mix(r + k));
  w.write_binary(cover, static_cast<unsigned>(cover_size));
  if (i % 4 == 3) {
    w.write_null();
  } else {
    w << static_cast<unsigned>(100 + (r >> 32) % 900);
  }
  record.close();
}

void write_payloads(Writer& w, std::uint64_t size) {
  constexpr std::size_t kPiece = std::size_t{64} << 10;
  auto const piece = std::make_unique<char[]>(kPiece);
  {
    zocore::InterfacePtr<zocore::IWriteStream> const blob = w.write_binary();
    for (std::uint64_t done = 0; done < size;) {
      std::size_t const n = static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, size - done));
      for (std::size_t k = 0; k < n; ++k)
        piece[k] = static_cast<char>(mix((done + k) >> 3) >> (8 * ((done + k) & 7)));
      blob->write(piece.get(), static_cast<unsigned>(n));
      done += n;
    }
    blob->close();
  }
  zocore::InterfacePtr<zocore::IWriteStream> const text = w.write_string_stream();
  static constexpr char kLine[] =
      "line of the sample's long string, streamed in pieces \xE2\x9C\x93\n";
  for (std::uint64_t done = 0; done < size;) {
    std::size_t n = 0;
    while (n + sizeof kLine - 1 <= kPiece && done + n + sizeof kLine - 1 <= size) {
      std::copy_n(kLine, sizeof kLine - 1, piece.get() + n);
      n += sizeof kLine - 1;
    }
    if (n == 0) {  // the last few bytes: plain ASCII, so the text stays valid UTF-8
      n = static_cast<std::size_t>(size - done);
      std::fill_n(piece.get(), n, '.');
    }
    text->write(piece.get(), static_cast<unsigned>(n));
    done += n;
  }
  text->close();
}

constexpr OptionSpec kOptions[] = {
    {"help", 'h', false},
    {"to", 't', true},
    {"records", 0, true},
    {"payload-size", 0, true},
};

constexpr char kHelp[] = R"help(Usage: zoser sample [OPTIONS] [OUT]

Writes a sample archive to OUT (standard output when not given, or "-"): a small library
catalogue that holds every element kind (null, boolean, integers wider than 64 bits, double,
string, times, UUID, binary, sequences and markers), followed by a binary and a string written
in pieces, large enough to show streaming. The content is always the same for the same options,
so it serves as test and benchmark input too.

Options:
  -t, --to FORMAT         format of OUT (binary, text, xml, trace, json); when not given it
                          comes from OUT's extension; standard output gets text
      --records N         book records in the catalogue (default 3)
      --payload-size N    bytes of the streamed binary and of the streamed string (default
                          524288)
  -h, --help              show this help

Exit status: 0 when written, 2 on any error.
)help";

int run(Arguments const& args) {
  static constexpr char const* kNames[] = {"OUT"};
  args.expect_positionals(0, 1, kNames);
  std::string const out = args.positionals().empty() ? "-" : args.positionals()[0];
  Format const& to = output_format(args, out);
  require_writable(to);
  SampleOptions options;
  options.records = args.number("records", options.records, 0, UINT64_MAX);
  options.payload_size = args.number("payload-size", options.payload_size, 0, UINT64_MAX);
  try {
    Output output(out);
    std::unique_ptr<Writer> writer = make_writer(to, output, WriterOptions());
    write_sample(*writer, options);
    writer->close();
    writer.reset();
    finish_output(to, output);
  } catch (zocore::ErrorException const& e) {
    print_error(out, "", *e.info());
    return kExitError;
  }
  return kExitOk;
}

}  // namespace

void write_sample(Writer& w, SampleOptions const& options) {
  write_header(w, options);
  zocore::AbsoluteTime base;
  zocore::AbsoluteTime::from_components_nothrow({2001, 1, 1}, &base);
  if (options.records != 0 && options.records < 0xFFFFFFFFu) {
    w.write_sequence_start(static_cast<unsigned>(options.records));
  } else {
    w.write_sequence_start();
  }
  for (std::uint64_t i = 0; i < options.records; ++i) {
    if (i != 0) w.write_sequence_separator();
    write_record(w, i, base);
  }
  w.write_sequence_end();
  write_payloads(w, options.payload_size);
}

Command const sample_command = {"sample", "write a sample archive with every element kind", kHelp,
                                kOptions, &run};

}  // namespace zoser
