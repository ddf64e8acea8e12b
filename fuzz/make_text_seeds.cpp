// Writes the seed corpus of fuzz_text_reader: every text of the text format's golden column
// (tests/support/text_golden) that is small enough for a fuzz input, and a few larger documents
// written with wrapping and escaping options, each behind the target's 6-byte header in three
// variants: read in place, through a 3-character buffer from a stream that sometimes delivers short
// pieces, and through a 101-character buffer from a choppy stream that hides its size.
//
// Usage: make_text_seeds <output directory>
// The files are committed under fuzz/corpus/text_reader/; regenerate them after the column changes
// (remove the old files first, so that renamed rows leave nothing behind).

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <support/random_document.h>
#include <support/text_golden.h>
#include <zoserialize/text_writer.h>

namespace {

namespace fs = std::filesystem;
using zoserialize::TextWriter;

constexpr std::size_t kMaxSeedBytes = 8192;

struct Variant {
  char const* suffix;
  unsigned char header[6];  // source (2 bytes), control word (4 bytes, little-endian)
};

constexpr Variant kVariants[] = {
    {"plain", {0x00, 0x00, 0x00, 0x00, 0x00, 0x00}},
    {"tiny", {0x03, 0x00, 0x01, 0x5A, 0x00, 0x00}},
    {"choppy", {0x64, 0x80, 0x07, 0xA5, 0x3C, 0x00}},
};

std::string document(std::uint64_t seed, TextWriter::Options const& options) {
  std::string text;
  TextWriter writer(text, options);
  zotest::RandomDocument(seed).write(writer, [&] { return text.size(); });
  writer.close();
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <output directory>\n", argv[0]);
    return 2;
  }
  fs::path const dir = argv[1];
  std::error_code ec;
  fs::create_directories(dir, ec);
  std::vector<std::pair<std::string, std::string>> seeds;
  for (std::string const& name : zotest::text_column().names()) {
    if (auto const* rendering = zotest::text_column().find(name))
      seeds.emplace_back("golden_" + name, rendering->bytes);
  }
  seeds.emplace_back("doc_plain", document(1, TextWriter::Options()));
  seeds.emplace_back("doc_wrapped", document(2, TextWriter::Options().line_width(13)));
  seeds.emplace_back("doc_escaped", document(3, TextWriter::Options()
                                                    .ascii_only(true)
                                                    .escape_spaces(true)
                                                    .line_width(40)
                                                    .line_separator_crlf(true)));
  std::size_t written = 0;
  for (auto const& [name, text] : seeds) {
    if (text.size() > kMaxSeedBytes) continue;
    for (Variant const& v : kVariants) {
      fs::path const path = dir / (name + "." + v.suffix);
      std::ofstream out(path, std::ios::binary | std::ios::trunc);
      out.write(reinterpret_cast<char const*>(v.header), sizeof v.header);
      out.write(text.data(), static_cast<std::streamsize>(text.size()));
      if (!out) {
        std::fprintf(stderr, "make_text_seeds: cannot write %s\n", path.c_str());
        return 1;
      }
      ++written;
    }
  }
  std::printf("make_text_seeds: %zu seeds in %s\n", written, dir.c_str());
  return 0;
}
