// Writes the seed corpus of fuzz_xml_reader: the documents of the XML format's golden column
// (tests/support/xml_golden) of up to 2048 bytes, and a few random documents under indenting
// layouts, each behind the target's 6-byte header, every one with another header of three (a
// 4-byte parser block over a stream that sometimes delivers short pieces, the default block, an
// istream), so that the corpus stays small.
//
// Usage: make_xml_seeds <output directory>
// The files are committed under fuzz/corpus/xml_reader/; regenerate them after the column changes
// (remove the old files first, so that renamed rows leave nothing behind).

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <support/random_document.h>
#include <support/xml_golden.h>
#include <zoserialize/xml_writer.h>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxSeedBytes = 2048;

// Source (2 bytes), control word (4 bytes, little-endian).
constexpr unsigned char kHeaders[][6] = {
    {0x03, 0x00, 0x01, 0x5A, 0x00, 0x00},
    {0xFE, 0xFF, 0x00, 0x00, 0x00, 0x00},
    {0xFF, 0xFF, 0x07, 0xA5, 0x3C, 0x00},
};

std::string document(std::uint64_t seed, char const* unit, char const* prefix) {
  std::ostringstream os;
  zoserialize::XmlWriter writer(os, unit, prefix);
  zotest::RandomDocument(seed).write(writer, [] { return 0; });
  writer.close();
  return os.str();
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
  for (std::string const& name : zotest::xml_column().names()) {
    auto const* rendering = zotest::xml_column().find(name);
    if (rendering != nullptr && rendering->bytes.size() <= kMaxSeedBytes)
      seeds.emplace_back("golden_" + name, rendering->bytes);
  }
  for (std::uint64_t seed = 1; seed <= 40 && seeds.size() < 200; ++seed) {
    std::string const doc = document(seed, seed % 2 != 0 ? "  " : "\t", "\n");
    if (doc.size() <= 4 * kMaxSeedBytes) seeds.emplace_back("doc_" + std::to_string(seed), doc);
  }
  std::size_t written = 0;
  for (auto const& [name, text] : seeds) {
    unsigned char const* header = kHeaders[written % std::size(kHeaders)];
    fs::path const path = dir / name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<char const*>(header), 6);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!out) {
      std::fprintf(stderr, "make_xml_seeds: cannot write %s\n", path.c_str());
      return 1;
    }
    ++written;
  }
  std::printf("make_xml_seeds: %zu seeds in %s\n", written, dir.c_str());
  return 0;
}
