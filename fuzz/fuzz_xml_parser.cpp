// libFuzzer target: zoxml::XmlReader over hostile bytes read in blocks of random size.
//
// Input layout: bytes 0-1 choose the block size, bytes 2-5 are the control word (bit 0: read
// from a std::istream or from an IReadStream; the whole word seeds every random choice), the rest
// is the document. The walk visits every node and reads each character-data value in a way chosen
// at random: whole (sometimes twice), through the value stream in random pieces with reads and
// skips, partly and then left for read_next() to skip, or discarded; now and then it checks the
// current node with the expectation helpers.
//
// Every input must end in DocumentEnd or in a zoxml error (a zocore::ErrorException whose code is
// under error.zoxml), after which read_next() refuses with "Cannot continue after error". The same
// walk, with the same random choices, is repeated over a std::istream with the default block size:
// a document read to its end must give the same nodes and values both times, and a document that
// fails must fail both times (a document with several errors may meet another one first when its
// text comes in other pieces, so the errors themselves are not compared). Anything else, a crash, a
// sanitizer report, a leak or a hang is a finding. Memory is bounded by the value limit.
//
// The same code, compiled without libFuzzer, replays stored inputs in the normal test run
// (replay_main.cpp).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>

#include <zocore/atomic_ref_count.h>
#include <zocore/error_exception.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>
#include <zoxml/errors.h>
#include <zoxml/reader.h>

namespace {

using zoxml::EToken;
using zoxml::XmlReader;

constexpr std::size_t kHeaderSize = 6;

[[noreturn]] void finding(char const* what) {
  std::fprintf(stderr, "fuzz_xml_parser: %s\n", what);
  std::abort();
}

// splitmix64: the choices of one input depend on its control word alone.
class Random {
 public:
  explicit Random(std::uint64_t seed) noexcept : state_(seed) {}
  unsigned below(unsigned n) noexcept {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return static_cast<unsigned>((z ^ (z >> 31)) % n);
  }

 private:
  std::uint64_t state_;
};

// The document as an IReadStream that delivers exactly what is asked, up to its end.
class Source final : public zocore::RefCounted<zocore::AtomicRefCount>, public zocore::IReadStream {
 public:
  explicit Source(std::string const& data) noexcept : data_(data) {}
  unsigned read(void* buffer, unsigned size) override {
    unsigned const n = left(size);
    if (n != 0) __builtin_memcpy(buffer, data_.data() + pos_, n);
    pos_ += n;
    return n;
  }
  unsigned skip(unsigned size) override {
    unsigned const n = left(size);
    pos_ += n;
    return n;
  }
  unsigned bytes_remaining() const override { return kUnknownSize; }

 private:
  unsigned left(unsigned size) const noexcept {
    return static_cast<unsigned>(std::min<std::size_t>(size, data_.size() - pos_));
  }

  std::string const& data_;
  std::size_t pos_ = 0;
};

// Block sizes from 1 to beyond the default, weighted towards the tiny ones where every token
// straddles a refill.
std::size_t block_size_from(std::uint8_t b0, std::uint8_t b1) {
  unsigned const v = b0 | (unsigned{b1} << 8);
  switch (v >> 14) {
    case 0:
      return 1 + (v & 7);
    case 1:
      return 1 + (v & 63);
    case 2:
      return 1 + v % 8192;
    default:
      return XmlReader::kDefaultBlockSize;
  }
}

void read_value(XmlReader& parser, Random& random, std::string& trace) {
  char buffer[64];
  switch (random.below(4)) {
    case 0: {
      std::string const value(parser.read_value_into_buffer());
      if (random.below(4) == 0 && parser.read_value_into_buffer() != value) {
        finding("a value read twice into the buffer changed");
      }
      trace += "\"" + value + "\"";
      return;
    }
    case 1:
      trace += "\"";
      for (;;) {
        unsigned const want = 1 + random.below(sizeof buffer);
        bool const skip = random.below(5) == 0;
        unsigned const got =
            skip ? parser.value_stream().skip(want) : parser.value_stream().read(buffer, want);
        if (got > want) finding("the value stream delivered more than asked");
        if (skip) {
          trace += "<skip " + std::to_string(got) + ">";
        } else {
          trace.append(buffer, got);
        }
        if (got < want) break;
      }
      trace += "\"";
      return;
    case 2: {
      unsigned const got = parser.read_value(buffer, 1 + random.below(8));
      trace += "\"" + std::string(buffer, got) + "...";
      return;
    }
    default:
      parser.discard_chardata();
      trace += "?";
      return;
  }
}

// Walks the document, recording what it saw; ends with the error, if any.
std::string walk(std::string const& data, std::size_t block, bool from_istream,
                 std::uint32_t control) {
  Random random(control);
  std::istringstream in(data);
  auto const source = zocore::make_ref_counted<Source>(data);
  XmlReader parser =
      from_istream ? XmlReader(in, "fuzz", block) : XmlReader(*source, "fuzz", block);
  std::string trace;
  try {
    while (parser.read_next()) {
      XmlReader::Node const& node = parser.node();
      switch (node.kind()) {
        case EToken::StartTagStart:
          trace += "<{" + std::string(node.namespace_uri()) + "}" + std::string(node.qname());
          for (auto const& a : node.attributes()) {
            trace += " {" + std::string(a.namespace_uri()) + "}" + std::string(a.qname()) + "=" +
                     std::string(a.value());
          }
          trace += node.is_empty_element() ? "/>" : ">";
          if (random.below(8) == 0) parser.expect_element(node.local_name(), node.namespace_uri());
          if (random.below(64) == 0) parser.expect_element("not-this-name", "");
          break;
        case EToken::EndTag:
          trace += "</" + std::string(node.qname()) + ">";
          break;
        case EToken::CharData:
          if (node.is_whitespace()) trace += "~";
          read_value(parser, random, trace);
          break;
        default:
          finding("read_next() produced a node of an unexpected kind");
      }
      if (random.below(16) == 0) parser.expect_token(node.kind());
    }
    if (parser.node().kind() != EToken::DocumentEnd)
      finding("the document ended without DocumentEnd");
    return trace + "|end";
  } catch (zocore::ErrorException const& e) {
    if (!e.info()->code().is_a(zoxml::error::zoxml)) finding("an error of a foreign code");
    trace += std::string("|") + e.info()->code().c_str() + " " + e.what();
  }
  try {
    parser.read_next();
    finding("read_next() went on after an error");
  } catch (zocore::ErrorException const& e) {
    if (e.info()->message().view().find("Cannot continue after error") == std::string_view::npos) {
      finding("read_next() after an error failed otherwise than as it must");
    }
  }
  return trace;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  try {
    std::uint8_t header[kHeaderSize] = {};
    std::size_t const header_size = size < kHeaderSize ? size : kHeaderSize;
    for (std::size_t i = 0; i < header_size; ++i)
      header[i] = data[i];
    std::uint32_t const control = header[2] | (std::uint32_t{header[3]} << 8) |
                                  (std::uint32_t{header[4]} << 16) |
                                  (std::uint32_t{header[5]} << 24);
    std::string const document(reinterpret_cast<char const*>(data) + header_size,
                               size - header_size);
    std::string const fuzzed =
        walk(document, block_size_from(header[0], header[1]), (control & 1) != 0, control);
    std::string const reference = walk(document, XmlReader::kDefaultBlockSize, true, control);
    bool const fuzzed_ended = fuzzed.ends_with("|end");
    if (fuzzed_ended != reference.ends_with("|end") || (fuzzed_ended && fuzzed != reference)) {
      std::fprintf(stderr, "block-size walk:  %s\ndefault walk:     %s\n", fuzzed.c_str(),
                   reference.c_str());
      finding("the outcome depends on the block size or the kind of input");
    }
  } catch (std::exception const& e) {
    std::fprintf(stderr, "fuzz_xml_parser: unexpected exception: %s\n", e.what());
    std::abort();
  } catch (...) {
    finding("unexpected exception of an unknown type");
  }
  return 0;
}
