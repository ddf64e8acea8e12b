// Writes the seed corpus of a reader fuzz target: every golden vector of the binary encoding that
// is small enough for a fuzz input, and a few larger documents, each behind the target's 6-byte
// header in three variants.
//
// fuzz_binary_reader (the default): a well-behaved source with the default buffer, a tiny buffer
// with a source that sometimes delivers short pieces, and a small buffer with a choppy source
// that hides its size.
// fuzz_memory_reader: one list of pooled chunks, a list of 1-byte chunks (a seam behind every
// byte), and pieces shared from a larger list read through a MemoryWriter that goes on writing;
// its seeds also include documents that only a MemoryWriter writes (sized markers of forwarded
// readers, embedded lists).
//
// Usage: make_seed_corpus <output directory> [binary_reader|memory_reader]
// The files are committed under fuzz/corpus/<target>/; regenerate them after the golden table
// changes (remove the old files first, so that renamed rows leave nothing behind).

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <support/binary_golden.h>
#include <support/hex_bytes.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/memory_list.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>

namespace {

namespace fs = std::filesystem;
using zoserialize::BinaryWriter;
using zoserialize::MemoryReader;
using zoserialize::MemoryWriter;
using zoserialize::Writer;

// Larger inputs make every fuzz run slower (libFuzzer sizes its inputs after the largest seed)
// without reaching code that smaller ones do not.
constexpr std::size_t kMaxSeedBytes = 8192;

struct Variant {
  char const* suffix;
  unsigned char header[6];  // target-specific (2 bytes), control word (4 bytes, little-endian)
};

constexpr Variant kBinaryVariants[] = {
    // 0xC000: the default buffer; control 0: every read delivers what it asks for.
    {"plain", {0x00, 0xC0, 0x00, 0x00, 0x00, 0x00}},
    // 3-byte buffer; choppiness 1.
    {"tiny", {0x03, 0x00, 0x01, 0x5A, 0x00, 0x00}},
    // 0x8000 | 100: a 101-byte buffer; choppiness 3, size hidden.
    {"choppy", {0x64, 0x80, 0x07, 0xA5, 0x3C, 0x00}},
};

constexpr Variant kMemoryVariants[] = {
    // Layout 0: pooled chunks.
    {"plain", {0x00, 0x00, 0x00, 0x00, 0x00, 0x00}},
    // Layout 2 with parameter 0: chunks of 1 byte from the list's factory.
    {"tiny", {0x02, 0x00, 0x5A, 0x01, 0x00, 0x00}},
    // Layout 3, pieces of 1-16 bytes shared from a larger list; read through a writer (0x80).
    {"shared", {0x83, 0x0F, 0xA5, 0x3C, 0x07, 0x00}},
};

std::string written(std::function<void(Writer&)> const& write) {
  auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  {
    BinaryWriter writer(sink);
    write(writer);
    writer.close();
  }
  return sink->take();
}

void write_record(Writer& w, long long id, char const* name, int tags) {
  w.write_marker_start();
  w << id << (id % 2 == 0) << static_cast<double>(id) / 7.0 << name;
  w.write_sequence_start(static_cast<unsigned>(tags));
  for (int i = 0; i < tags; ++i) {
    if (i != 0) w.write_sequence_separator();
    w << "tag";
  }
  w.write_sequence_end();
  unsigned char const blob[] = {0x00, 0xFF, 0x10, 0x80, 0x7F};
  w.write_binary(blob, sizeof blob);
  w.write_marker_start();
  w << static_cast<int>(id) << -1 << "nested";
  w.write_marker_end();
  w.write_marker_end();
}

// Documents that combine what the golden rows show one at a time.
std::vector<std::pair<std::string, std::string>> documents() {
  std::vector<std::pair<std::string, std::string>> docs;
  docs.emplace_back("doc_records", written([](Writer& w) {
                      w.write_sequence_start(3);
                      write_record(w, 42, "first", 0);
                      w.write_sequence_separator();
                      write_record(w, -5'000'000'000LL, "second record", 3);
                      w.write_sequence_separator();
                      write_record(w, 300, "", 1);
                      w.write_sequence_end();
                    }));
  docs.emplace_back("doc_scalars", written([](Writer& w) {
                      w.write_null();
                      w << true << false << 'x' << static_cast<short>(-300) << 70000u << -1LL
                        << 18446744073709551615ULL;
                      unsigned char wide[16] = {0x80};
                      w.write_int_big_endian(wide, sizeof wide);
                      w << 0.0 << 1.0 << -1.0 << 2.0 << 0.1 << 1.5f;
                      w << zoserialize::AbsoluteTime(0) << zoserialize::AbsoluteTime(1LL << 40)
                        << zoserialize::RelativeTime(INT64_MAX) << zoserialize::RelativeTime(-7);
                      w << zoserialize::Uuid() << zoserialize::Uuid::from_binary(wide);
                      w << ""
                        << "text \xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
                      w.write_binary(nullptr, 0);
                      w << zocore::SourceLocation("ns::f()", "$Id: f.cpp $", 12);
                    }));
  docs.emplace_back("doc_streams", written([](Writer& w) {
                      // Chunked: more than one 4096-byte chunk, with characters across the cut.
                      std::string const text = zotest::golden_text(5000);
                      auto stream = w.write_string_stream();
                      for (std::size_t i = 0; i < text.size(); i += 700) {
                        std::size_t const n = text.size() - i < 700 ? text.size() - i : 700;
                        stream->write(text.data() + i, static_cast<unsigned>(n));
                      }
                      stream->close();
                      auto binary = w.write_binary();
                      binary->write(text.data(), 300);
                      w << 1;
                      zocore::MemoryReadStream source(text.data(), 100);
                      w.write_string_stream(source);
                    }));
  docs.emplace_back("doc_nested", written([](Writer& w) {
                      for (int depth = 0; depth < 24; ++depth) {
                        if (depth % 2 == 0) {
                          w.write_marker_start();
                        } else {
                          w.write_sequence_start(depth % 4 == 1 ? 2 : 0);
                          w << depth;
                          w.write_sequence_separator();
                        }
                      }
                      w << "core";
                      for (int depth = 23; depth >= 0; --depth) {
                        if (depth % 2 == 0) {
                          w.write_marker_end();
                        } else {
                          w.write_sequence_end();
                        }
                      }
                    }));
  // Sized markers come from writers that know their sizes up front; the stream writer never
  // writes them, so they are spelled out: a sized marker around an unsized one and a sequence.
  docs.emplace_back("doc_sized_markers",
                    zotest::bytes("B4 0B  B0 21 BF  A2 22 AE 53 61 62 63 AF  BF  B5 00 01 00 BF"));
  return docs;
}

// Documents that only a MemoryWriter writes: the rest of a reader forwarded as a sized marker,
// in front of an embedded list and behind a marker taken out as a sub-reader.
std::vector<std::pair<std::string, std::string>> memory_documents() {
  auto const bytes_of = [](zoserialize::MemoryListBaseType const& list) {
    std::string out(list.size(), '\0');
    out.resize(list.read_at(0, out.data(), list.size()));
    return out;
  };
  MemoryWriter inner;
  inner.write_marker_start();
  inner << 7 << "inner";
  inner.write_sequence_start(2);
  inner << 1.5;
  inner.write_sequence_separator();
  inner << true;
  inner.write_sequence_end();
  inner.write_marker_end();
  inner << "after";
  MemoryReader source = inner.reader();
  MemoryReader const contents = source.read_memory_reader();

  std::string const text = zotest::golden_text(1500);
  zoserialize::MemoryListPtr const payload = zoserialize::MemoryList::create();
  payload->append(text.data(), static_cast<unsigned>(text.size()));

  MemoryWriter outer;
  outer.write_sequence_start(3);
  outer.write_memory_reader(contents);
  outer.write_sequence_separator();
  outer.write_binary(zoserialize::ConstMemoryListPtr(payload));
  outer.write_sequence_separator();
  outer.write_memory_reader(source);
  outer.write_sequence_end();
  outer.close();
  return {{"doc_forwarded", bytes_of(*outer.memory_list())}};
}

bool write_seed(fs::path const& dir, std::span<Variant const> variants, std::string const& name,
                std::string const& bytes) {
  for (Variant const& v : variants) {
    fs::path const path = dir / (name + "." + v.suffix);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<char const*>(v.header), sizeof v.header);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
      std::fprintf(stderr, "make_seed_corpus: cannot write %s\n", path.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string const target = argc == 3 ? argv[2] : "binary_reader";
  if ((argc != 2 && argc != 3) || (target != "binary_reader" && target != "memory_reader")) {
    std::fprintf(stderr, "usage: %s <output directory> [binary_reader|memory_reader]\n", argv[0]);
    return 2;
  }
  bool const memory = target == "memory_reader";
  std::span<Variant const> const variants = memory ? std::span<Variant const>(kMemoryVariants)
                                                   : std::span<Variant const>(kBinaryVariants);
  fs::path const dir = argv[1];
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) {
    std::fprintf(stderr, "make_seed_corpus: cannot create %s: %s\n", dir.c_str(),
                 ec.message().c_str());
    return 1;
  }
  std::size_t seeds = 0;
  std::size_t skipped = 0;
  zotest::GoldenColumn const& column = zotest::binary_column();
  for (std::string const& name : column.names()) {
    std::string const& bytes = column.find(name)->bytes;
    if (bytes.size() > kMaxSeedBytes) {
      ++skipped;
      continue;
    }
    if (!write_seed(dir, variants, "golden_" + name, bytes)) return 1;
    ++seeds;
  }
  auto docs = documents();
  if (memory) {
    for (auto& doc : memory_documents())
      docs.push_back(std::move(doc));
  }
  for (auto const& [name, bytes] : docs) {
    if (!write_seed(dir, variants, name, bytes)) return 1;
    ++seeds;
  }
  std::printf("make_seed_corpus: %zu seeds x %zu variants in %s (%zu golden rows too large)\n",
              seeds, variants.size(), dir.c_str(), skipped);
  return 0;
}
