// libFuzzer target: BinaryReader over hostile bytes that arrive in random pieces.
//
// Input layout: bytes 0-1 choose the read-ahead buffer size, bytes 2-5 are the control word
// (how the source behaves, and the seed of every random choice below), the rest is the data.
// The walker (walk.h, shared with the other reader targets) then does what callers do: asks
// next_token and reads the element with the matching typed operation, or skips it, or copies it
// into a BinaryWriter; it reads payload streams in random pieces and sometimes abandons them half
// read, and walks sequences and markers, now and then ending them early or doing something out of
// place. An operation budget bounds the run.
//
// zocore::ErrorException is the reader's way of rejecting data and counts as a clean result.
// Any other exception, a crash, a sanitizer report, a leak or a hang is a finding; so is a copy
// that the reader produced and then cannot read back or copy to the same bytes again.
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

#include "walk.h"

char const zofuzz::kTargetName[] = "fuzz_binary_reader";

namespace {

using zocore::InterfacePtr;
using zocore::IReadStream;
using zofuzz::finding;
using zofuzz::PayloadStream;
using zofuzz::PayloadStreamPtr;
using zofuzz::Random;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;

constexpr std::size_t kHeaderSize = 6;

// Read-ahead sizes from 0 (raised to 1 by the reader) to beyond the default, weighted towards
// the tiny ones where every tag and length straddles a refill.
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
      return BinaryReader::kDefaultBufferSize;
  }
}

// The data, delivered in pieces. Control bits 0-1 say how choppy: 0 delivers what is asked
// (as the stream contract wants), 1-3 return ever more often fewer bytes than asked, although
// more follow (the reader takes a short read as the end, but must stay safe either way), and 3
// now and then returns nothing in the middle. Bit 2 hides the remaining size.
class ChoppySource final : public IReadStream, public zocore::RefCounted<zocore::AtomicRefCount> {
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
    if (choppiness_ == 3 && random_.one_in(64)) return 0;
    if (random_.below(4) >= choppiness_) return most;
    return 1 + random_.below(most);
  }

  std::uint8_t const* cur_;
  std::uint8_t const* end_;
  unsigned choppiness_;
  bool hide_size_;
  Random& random_;
};

// Copies must read back, and be stable: copying a copy gives the same bytes again (the writer's
// forms are a fixed point of read_copy).
void check_copy(std::string const& copy, unsigned buffer_size) {
  try {
    BinaryReader reader(zocore::make_ref_counted<zocore::MemoryReadStream>(copy), buffer_size);
    zofuzz::walk_copy(reader);
  } catch (zocore::ErrorException const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    finding("the reader rejected a copy it had produced, reading it element by element");
  }
  try {
    auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    {
      BinaryReader reader(zocore::make_ref_counted<zocore::MemoryReadStream>(copy), buffer_size);
      BinaryWriter writer(sink);
      reader.read_copy_all(writer);
      writer.close();
    }
    if (sink->str() != copy) finding("copying a copy changed its bytes");
  } catch (zocore::ErrorException const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    finding("the reader rejected a copy it had produced, copying it");
  }
}

// The shared walk, with copies into a BinaryWriter and one kept payload stream, which must fail
// cleanly once its reader is gone.
class BinaryWalker final : public zofuzz::Walker {
 public:
  BinaryWalker(BinaryReader& reader, Random& random, int& budget)
      : Walker(reader, random, budget) {}

  InterfacePtr<IReadStream> kept_stream() const {
    return kept_ ? kept_->stream() : InterfacePtr<IReadStream>();
  }

 private:
  void keep(PayloadStreamPtr const& stream) override { kept_ = stream; }
  PayloadStream* kept_for_poke() override { return kept_.get(); }

  // Copies one element (or, at the top level, everything) into a BinaryWriter and checks that
  // the copy reads back.
  void copy_element(bool all) override {
    static constexpr unsigned kWriterBuffers[] = {0, 1, 7, 4096, BinaryWriter::kDefaultBufferSize};
    auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    {
      BinaryWriter writer(sink, kWriterBuffers[random().below(5)]);
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
    static constexpr unsigned kReaderBuffers[] = {1, 3, 7, 4096};
    check_copy(sink->str(), kReaderBuffers[random().below(4)]);
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
  auto source = zocore::make_ref_counted<ChoppySource>(data + header_size, size - header_size,
                                                       control, random);

  InterfacePtr<IReadStream> kept;
  try {
    BinaryReader reader(source, buffer_size_from(header[0], header[1]));
    int budget = zofuzz::kBudget;
    BinaryWalker walker(reader, random, budget);
    walker.run();
    kept = walker.kept_stream();
  } catch (zocore::ErrorException const&) {
    // Rejected while finishing a stream in the reader's destructor path or the constructor.
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
    std::fprintf(stderr, "fuzz_binary_reader: unexpected exception: %s\n", e.what());
    std::abort();
  } catch (...) {
    finding("unexpected exception of an unknown type");
  }
  return 0;
}
