// libFuzzer target: XmlReader over hostile documents, read through the pull parser from a stream
// source that delivers them in random pieces, or from an istream.
//
// Input layout: bytes 0-1 choose the parser's block size (weighted towards tiny ones; the top
// value reads from an istream), bytes 2-5 are the control word (how the stream behaves, and the
// seed of every random choice), the rest is the document. The walker (walk.h, shared with the
// other reader targets) reads it as callers do. The seeds (fuzz/corpus/xml_reader/) are written
// documents, so the fuzzer's mutations start from the writer's own forms.
//
// zocore::ErrorException is the reader's (or the parser's) way of rejecting a document and
// counts as a clean result. Any other exception, a crash, a sanitizer report, a leak or a hang is
// a finding. So is a copy that fails to make the round trip: whatever the reader copies into a
// BinaryWriter is read back and written with an XmlWriter, and that document must read back to
// the same elements.
//
// The same code, compiled without libFuzzer, replays stored inputs in the normal test run
// (replay_main.cpp).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <sstream>
#include <string>

#include <zocore/atomic_ref_count.h>
#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/xml_reader.h>
#include <zoserialize/xml_writer.h>

#include "walk.h"

char const zofuzz::kTargetName[] = "fuzz_xml_reader";

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
using zoserialize::XmlReader;
using zoserialize::XmlWriter;

// XML cannot carry U+FFFE and U+FFFF as characters; a string holding them (read from base64) is
// written as it stands, and no parser reads that document back (docs/xml-format.md).
bool has_non_xml_character(std::string const& document) {
  return document.find("\xEF\xBF\xBE") != std::string::npos ||
         document.find("\xEF\xBF\xBF") != std::string::npos;
}

// A copy in the binary format must come back as a document that reads to the same elements.
void check_copy(std::string const& binary, unsigned layout) {
  static char const* const kUnits[] = {"", "  ", "\t", "\t"};
  static char const* const kPrefixes[] = {"", "\n", "\r\n", "\n>"};
  std::ostringstream os;
  try {
    BinaryReader reader(zocore::make_ref_counted<zocore::MemoryReadStream>(binary), 4096);
    XmlWriter writer(os, kUnits[layout & 3], kPrefixes[(layout >> 2) & 3]);
    reader.read_copy_all(writer);
    writer.close();
  } catch (zocore::ErrorException const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    finding("a binary copy of what the reader accepted could not be written as XML");
  }
  std::string const document = os.str();
  // A line prefix that is not white space is text between elements, which the reader refuses.
  if ((layout >> 2 & 3) == 3 || has_non_xml_character(document)) return;
  bool nan = false;
  try {
    std::istringstream in(document);
    XmlReader reader(in);
    nan = zofuzz::walk_copy(reader);
  } catch (zocore::ErrorException const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    finding("the reader rejected a document the writer made from a copy");
  }
  if (nan) return;  // a NaN equals nothing, not even itself
  try {
    std::istringstream in(document);
    XmlReader xml_reader(in);
    BinaryReader binary_reader(zocore::make_ref_counted<zocore::MemoryReadStream>(binary), 4096);
    if (!Reader::read_compare_equal_all(xml_reader, binary_reader)) {
      finding("a document written from a copy reads to other elements than the copy");
    }
  } catch (zocore::ErrorException const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    finding("comparing the document of a copy with the copy failed");
  }
}

class XmlWalker final : public zofuzz::Walker {
 public:
  XmlWalker(XmlReader& reader, Random& random, int& budget) : Walker(reader, random, budget) {}

  InterfacePtr<IReadStream> kept_stream() const {
    return kept_ ? kept_->stream() : InterfacePtr<IReadStream>();
  }

 private:
  void keep(PayloadStreamPtr const& stream) override { kept_ = stream; }
  PayloadStream* kept_for_poke() override { return kept_.get(); }

  void copy_element(bool all) override {
    auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    {
      BinaryWriter writer(sink);
      if (all) {
        reader().read_copy_all(writer);
      } else {
        reader().read_copy(writer);
      }
      try {
        writer.close();
      } catch (zocore::ErrorException const& e) {
        std::fprintf(stderr, "%s\n", e.what());
        finding("the writer of a completed copy failed to close");
      }
    }
    check_copy(sink->str(), random().below(16));
  }

  PayloadStreamPtr kept_;
};

void run_one(Input const& in) {
  Random random(in.control);
  // The parser's block size; 0 reads from an istream.
  std::size_t const block =
      (in.selector() >> 14) == 3 && (in.selector() & 1) != 0
          ? 0
          : in.size_choice(1, static_cast<unsigned>(XmlReader::kDefaultBlockSize));
  std::istringstream document(std::string(reinterpret_cast<char const*>(in.data), in.size));

  InterfacePtr<IReadStream> kept;
  try {
    std::unique_ptr<XmlReader> reader;
    if (block == 0) {
      reader = std::make_unique<XmlReader>(document, 1 + random.below(16));
    } else {
      reader = std::make_unique<XmlReader>(
          InterfacePtr<IReadStream>(
              zocore::make_ref_counted<zofuzz::ChoppySource>(in, random, false, true)),
          block);
    }
    int budget = zofuzz::kBudget;
    XmlWalker walker(*reader, random, budget);
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
