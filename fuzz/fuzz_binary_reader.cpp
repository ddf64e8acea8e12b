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
using zofuzz::Input;
using zofuzz::PayloadStream;
using zofuzz::PayloadStreamPtr;
using zofuzz::Random;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;

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

void run_one(Input const& in) {
  Random random(in.control);
  auto source = zocore::make_ref_counted<zofuzz::ChoppySource>(in, random, true, false);

  InterfacePtr<IReadStream> kept;
  try {
    BinaryReader reader(source, in.size_choice(0, BinaryReader::kDefaultBufferSize));
    int budget = zofuzz::kBudget;
    BinaryWalker walker(reader, random, budget);
    walker.run();
    kept = walker.kept_stream();
  } catch (zocore::ErrorException const&) {
    // Rejected while finishing a stream in the reader's destructor path or the constructor.
  }
  zofuzz::expect_orphan_fails(kept);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  return zofuzz::run_input(run_one, data, size);
}
