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
using zofuzz::Input;
using zofuzz::PayloadStream;
using zofuzz::PayloadStreamPtr;
using zofuzz::Random;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::Reader;
using zoserialize::TextReader;
using zoserialize::TextWriter;

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

void run_one(Input const& in) {
  Random random(in.control);
  // 0 reads in place; otherwise the read-ahead buffer of a stream source.
  unsigned const buffer = in.size_choice(0, TextReader::kDefaultBufferSize);
  auto const* text = reinterpret_cast<char const*>(in.data);
  auto const length = static_cast<unsigned>(in.size);

  InterfacePtr<IReadStream> kept;
  try {
    std::unique_ptr<TextReader> reader;
    if (buffer == 0) {
      reader = std::make_unique<TextReader>(text, length);
    } else {
      reader = std::make_unique<TextReader>(
          InterfacePtr<IReadStream>(
              zocore::make_ref_counted<zofuzz::ChoppySource>(in, random, false, false)),
          buffer);
    }
    int budget = zofuzz::kBudget;
    TextWalker walker(*reader, random, budget);
    walker.run();
    kept = walker.kept_stream();
  } catch (zocore::ErrorException const&) {
  }
  zofuzz::expect_orphan_fails(kept);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  return zofuzz::run_input(run_one, data, size);
}
