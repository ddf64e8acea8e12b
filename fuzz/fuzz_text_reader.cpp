// libFuzzer target: TextReader over hostile text, read in place or through a stream source whose
// stream delivers it in random pieces.
//
// Input layout: bytes 0-1 choose the source (0: the text read in place; otherwise a stream source
// with a read-ahead buffer of that many characters, weighted towards tiny ones), bytes 2-5 are
// the control word (how the stream behaves, and the seed of every random choice), the rest is the
// text. The walker (walk.h, shared with the other reader targets) reads it as callers do.
//
// zocore::ErrorException is the reader's way of rejecting text and counts as a clean result.
// Any other exception, a crash, a sanitizer report, a leak or a hang is a finding. So is a copy
// that fails to make the round trip: whatever the reader copies into a BinaryWriter is read back
// and copied into a TextWriter, and that text must read back to the same elements.
//
// The same code, compiled without libFuzzer, replays stored inputs in the normal test run
// (replay_main.cpp).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>

#include <zocore/atomic_ref_count.h>
#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/text_reader.h>
#include <zoserialize/text_writer.h>

#include "walk.h"

char const zofuzz::kTargetName[] = "fuzz_text_reader";

namespace {

using zocore::InterfacePtr;
using zocore::IReadStream;
using zofuzz::finding;
using zofuzz::PayloadStream;
using zofuzz::PayloadStreamPtr;
using zofuzz::Random;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::Reader;
using zoserialize::TextReader;
using zoserialize::TextWriter;

constexpr std::size_t kHeaderSize = 6;

// 0 reads in place; otherwise the read-ahead buffer of a stream source.
unsigned buffer_size_from(std::uint8_t b0, std::uint8_t b1) {
  unsigned const v = b0 | (unsigned{b1} << 8);
  switch (v >> 14) {
    case 0:
      return v & 7;
    case 1:
      return 1 + (v & 63);
    case 2:
      return 1 + v % 8192;
    default:
      return TextReader::kDefaultBufferSize;
  }
}

// The text, delivered in pieces. Control bits 0-1 say how choppy: 0 delivers what is asked, 1-3
// return ever more often fewer characters than asked although more follow (the source takes a
// short read as the end, but must stay safe either way). Bit 2 hides the remaining size.
class ChoppySource final : public zocore::RefCounted<zocore::AtomicRefCount>, public IReadStream {
 public:
  ChoppySource(std::uint8_t const* data, std::size_t size, std::uint32_t control,
               Random& random) noexcept
      : cur_(data),
        end_(data + size),
        choppiness_(control & 3),
        hide_size_((control & 4) != 0),
        random_(random) {}

  unsigned read(void* buffer, unsigned size) override {
    unsigned const n = piece(size);
    if (n != 0) __builtin_memcpy(buffer, cur_, n);
    cur_ += n;
    return n;
  }
  unsigned skip(unsigned size) override {
    unsigned const n = piece(size);
    cur_ += n;
    return n;
  }
  unsigned bytes_remaining() const override {
    if (hide_size_) return kUnknownSize;
    auto const left = static_cast<std::size_t>(end_ - cur_);
    return left >= kUnknownSize ? kUnknownSize : static_cast<unsigned>(left);
  }

 private:
  unsigned piece(unsigned asked) {
    auto const left = static_cast<std::size_t>(end_ - cur_);
    unsigned const most = left < asked ? static_cast<unsigned>(left) : asked;
    if (most == 0 || choppiness_ == 0) return most;
    if (random_.below(4) >= choppiness_) return most;
    return 1 + random_.below(most);
  }

  std::uint8_t const* cur_;
  std::uint8_t const* end_;
  unsigned choppiness_;
  bool hide_size_;
  Random& random_;
};

// A copy in the binary format must come back as text that reads to the same elements.
void check_copy(std::string const& binary) {
  std::string text;
  try {
    BinaryReader reader(zocore::make_ref_counted<zocore::MemoryReadStream>(binary), 4096);
    TextWriter writer(text);
    reader.read_copy_all(writer);
    writer.close();
  } catch (zocore::ErrorException const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    finding("a binary copy of what the reader accepted could not be written as text");
  }
  bool nan = false;
  try {
    TextReader reader(&text);
    nan = zofuzz::walk_copy(reader);
  } catch (zocore::ErrorException const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    finding("the reader rejected text the writer made from a copy, reading it element by element");
  }
  if (nan) return;  // a NaN equals nothing, not even itself
  try {
    TextReader text_reader(&text);
    BinaryReader binary_reader(zocore::make_ref_counted<zocore::MemoryReadStream>(binary), 4096);
    if (!Reader::read_compare_equal_all(text_reader, binary_reader)) {
      finding("text written from a copy reads to other elements than the copy");
    }
  } catch (zocore::ErrorException const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    finding("comparing the text of a copy with the copy failed");
  }
}

class TextWalker final : public zofuzz::Walker {
 public:
  TextWalker(TextReader& reader, Random& random, int& budget) : Walker(reader, random, budget) {}

  InterfacePtr<IReadStream> kept_stream() const {
    return kept_ ? kept_->stream() : InterfacePtr<IReadStream>();
  }

 private:
  void keep(PayloadStreamPtr const& stream) override { kept_ = stream; }
  PayloadStream* kept_for_poke() override { return kept_.get(); }

  // Copies one element (or, at the top level, everything) into a BinaryWriter and checks that
  // the copy makes the round trip through text.
  void copy_element(bool all) override {
    auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    {
      BinaryWriter writer(sink);
      if (all) {
        reader().read_copy_all(writer);
      } else {
        reader().read_copy(writer);
      }
      // A copy that succeeded leaves no scope open, so the writer must close cleanly.
      try {
        writer.close();
      } catch (zocore::ErrorException const& e) {
        std::fprintf(stderr, "%s\n", e.what());
        finding("the writer of a completed copy failed to close");
      }
    }
    check_copy(sink->str());
  }

  PayloadStreamPtr kept_;
};

void run_one(std::uint8_t const* data, std::size_t size) {
  std::uint8_t header[kHeaderSize] = {};
  std::size_t const header_size = size < kHeaderSize ? size : kHeaderSize;
  for (std::size_t i = 0; i < header_size; ++i)
    header[i] = data[i];
  std::uint32_t const control = header[2] | (std::uint32_t{header[3]} << 8) |
                                (std::uint32_t{header[4]} << 16) | (std::uint32_t{header[5]} << 24);
  Random random(control);
  unsigned const buffer = buffer_size_from(header[0], header[1]);
  auto const* text = reinterpret_cast<char const*>(data + header_size);
  auto const length = static_cast<unsigned>(size - header_size);

  InterfacePtr<IReadStream> kept;
  try {
    std::unique_ptr<TextReader> reader;
    if (buffer == 0) {
      reader = std::make_unique<TextReader>(text, length);
    } else {
      reader = std::make_unique<TextReader>(
          InterfacePtr<IReadStream>(
              zocore::make_ref_counted<ChoppySource>(data + header_size, length, control, random)),
          buffer);
    }
    int budget = zofuzz::kBudget;
    TextWalker walker(*reader, random, budget);
    walker.run();
    kept = walker.kept_stream();
  } catch (zocore::ErrorException const&) {
  }
  // The reader is gone: a stream it handed out must fail cleanly, not reach it.
  if (kept) {
    try {
      char byte;
      static_cast<void>(kept->read(&byte, 1));
      finding("a payload stream still read after its reader was destroyed");
    } catch (zocore::ErrorException const&) {
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  try {
    run_one(data, size);
  } catch (std::exception const& e) {
    std::fprintf(stderr, "fuzz_text_reader: unexpected exception: %s\n", e.what());
    std::abort();
  } catch (...) {
    finding("unexpected exception of an unknown type");
  }
  return 0;
}
