// libFuzzer target: MemoryReader over hostile bytes laid out as memory lists with seams anywhere.
//
// Input layout: byte 0 chooses how the data become a list (bits 0-2: one pooled list, pieces in
// chunks of their own, a chunk factory of tiny chunks, pieces shared from a larger list, a
// sublist or clone of a larger list) and whether the reader is taken from a MemoryWriter that
// goes on writing into the same list (bit 7); byte 1 is the layout's parameter; bytes 2-5 are
// the control word, the seed of every random choice; the rest is the data.
//
// The shared walker (walk.h) reads the data as callers do. On top of it this target takes
// payloads as lists (read_binary_as_memory_list, read_binary_append_memory_list), markers as
// readers of their own (read_memory_reader), which it walks at once or after the parent reader
// is gone, forwards the reader's rest (MemoryWriter::write_memory_reader), clones, copies,
// moves and assigns the reader in mid-walk, prints its trace, and copies elements into a
// MemoryWriter and a BinaryWriter side by side.
//
// zocore::ErrorException is the reader's way of rejecting data and counts as a clean result.
// Any other exception, a crash, a sanitizer report, a leak or a hang is a finding, and so is a
// broken promise:
// - payload streams deliver exactly their payload, also after the reader moved on or is gone;
// - a twin (a clone taken just before) reading the same element another way agrees: the same
//   acceptance, the same bytes, the same position afterwards;
// - a sub-reader holds exactly the marker's contents; a forwarded rest reads back as the rest;
// - copies read back, copy to the same bytes again, and are the same from both writers; when
//   the whole input copies into a MemoryWriter, the copy compares equal to the input;
// - nothing changes the list being read.
//
// The same code, compiled without libFuzzer, replays stored inputs in the normal test run
// (replay_main.cpp).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <support/memory_lists.h>
#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/stream.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/memory_chunk.h>
#include <zoserialize/memory_list.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>

#include "walk.h"

char const zofuzz::kTargetName[] = "fuzz_memory_reader";

namespace {

using zocore::InterfacePtr;
using zocore::IReadStream;
using zofuzz::EToken;
using zofuzz::finding;
using zofuzz::PayloadStream;
using zofuzz::PayloadStreamPtr;
using zofuzz::Random;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::ConstMemoryListPtr;
using zoserialize::MemoryChunkPtr;
using zoserialize::MemoryList;
using zoserialize::MemoryListBaseType;
using zoserialize::MemoryListPtr;
using zoserialize::MemoryReader;
using zoserialize::MemoryWriter;
using zoserialize::Reader;
using zotest::bytes_of;

constexpr int kMaxDepth = 3;         // nested walkers over sub-readers and clones
constexpr std::size_t kMaxKept = 8;  // payload streams kept past their element
constexpr int kMaxLate = 4;          // sub-readers walked after their parent is gone

[[noreturn]] void finding(zocore::ErrorException const& e, char const* what) {
  std::fprintf(stderr, "%s\n", e.what());
  finding(what);
}

// The bytes the reader has not read yet.
std::string rest_of(MemoryReader const& reader) {
  std::string out;
  for (auto piece = reader.segment_iterator(); !piece.at_end(); piece.next())
    out.append(piece.data(), piece.size());
  return out;
}

// The low nibble of the next tag, -1 at the end.
int next_nibble(MemoryReader const& reader) {
  auto const piece = reader.segment_iterator();
  if (piece.at_end()) return -1;
  return static_cast<unsigned char>(piece.data()[0]) & 0x0F;
}

std::string drain(IReadStream& stream) {
  std::string out;
  char piece[512];
  unsigned got = 0;
  do {
    got = stream.read(piece, sizeof piece);
    out.append(piece, got);
  } while (got == sizeof piece);
  return out;
}

// ---- Layouts -----------------------------------------------------------------------------------

// Fills the chunks around the data in lists whose segments start or end inside a chunk: tags a
// reader that strays out of its range would take for elements.
std::string junk(Random& random) {
  static constexpr char kJunk[] = {'\xBF', '\xA1', '\xAF', '\x21', '\x5F', '\x00', '\xB0', '\xFF'};
  std::string out(random.below(40), '\0');
  for (char& c : out)
    c = kJunk[random.below(sizeof kJunk)];
  return out;
}

// Piece sizes: small ones put a seam inside every tag and length field; the parameter's top bit
// allows pieces of up to about a kilobyte.
unsigned piece_size(unsigned param, Random& random) {
  unsigned const most = (param & 0x80) != 0 ? 1 + (param & 0x7F) * 8 : 1 + param % 16;
  return 1 + random.below(most);
}

MemoryListPtr lay_out(std::string_view data, unsigned layout, unsigned param, Random& random) {
  auto const n = static_cast<unsigned>(data.size());
  switch (layout % 5) {
    case 0: {
      // Pooled chunks as the library makes them, filled by a few appends.
      MemoryListPtr list = MemoryList::create();
      for (unsigned at = 0; at < n;) {
        unsigned const m = std::min(n - at, 1 + random.below(n));
        zotest::list_of(data.substr(at, m), list);
        at += m;
      }
      return list;
    }
    case 1: {
      // Every piece in a heap chunk of exactly its size: no room behind any segment.
      std::vector<std::size_t> sizes;
      for (std::size_t at = 0; at < n; at += sizes.back())
        sizes.push_back(piece_size(param, random));
      return zotest::list_in_pieces(data, sizes);
    }
    case 2: {
      // Tiny chunks from the list's own factory, with room behind the last segment.
      static constexpr unsigned kTiny[] = {1, 3, 7, 64};
      MemoryListPtr list = zotest::tiny_chunk_list(kTiny[param % 4]);
      for (unsigned at = 0; at < n;) {
        unsigned const m = std::min(n - at, 1 + random.below(64));
        zotest::list_of(data.substr(at, m), list);
        at += m;
      }
      return list;
    }
    case 3: {
      // Pieces shared from a larger list (segments that start and end inside its chunks), mixed
      // with pieces copied into chunks of this list's own.
      std::string const before = junk(random);
      MemoryListPtr const base = MemoryList::create();
      base->append(before.data(), static_cast<unsigned>(before.size()));
      base->append(data.data(), n);
      std::string const after = junk(random);
      base->append(after.data(), static_cast<unsigned>(after.size()));
      MemoryListPtr list = MemoryList::create();
      for (unsigned at = 0; at < n;) {
        unsigned const m = std::min(n - at, piece_size(param, random));
        if (random.one_in(3)) {
          list->append(data.data() + at, m);
        } else {
          list->append_list(*base, static_cast<unsigned>(before.size()) + at, m);
        }
        at += m;
      }
      return list;
    }
    default: {
      // A range of a larger list: a sublist, a list object sharing its segments, or a copy.
      std::string const before = junk(random);
      MemoryListPtr const base = MemoryList::create();
      base->append(before.data(), static_cast<unsigned>(before.size()));
      base->append(data.data(), n);
      std::string const after = junk(random);
      base->append(after.data(), static_cast<unsigned>(after.size()));
      auto const start = static_cast<unsigned>(before.size());
      switch (param % 3) {
        case 0:
          return base->sublist(start, n);
        case 1:
          return base->sublist(start, n)->shallow_clone();
        default:
          return base->deep_clone(start, n);
      }
    }
  }
}

// ---- Copies ------------------------------------------------------------------------------------

// A copy must read back, from a list of any layout and from a stream, and be stable: copying a
// copy gives the same bytes again.
void check_copy(std::string const& copy, Random& random) {
  MemoryListPtr const list = lay_out(copy, random.below(5), random.below(256), random);
  try {
    MemoryReader reader{ConstMemoryListPtr(list)};
    zofuzz::walk_copy(reader);
  } catch (zocore::ErrorException const& e) {
    finding(e, "the reader rejected a copy it had produced, reading it element by element");
  }
  try {
    BinaryReader reader(zocore::make_ref_counted<zocore::MemoryReadStream>(copy),
                        1 + random.below(8));
    zofuzz::walk_copy(reader);
  } catch (zocore::ErrorException const& e) {
    finding(e, "the stream reader rejected a copy made from a memory list");
  }
  try {
    MemoryReader reader{ConstMemoryListPtr(list)};
    MemoryWriter writer;
    reader.read_copy_all(writer);
    writer.close();
    if (bytes_of(*writer.memory_list()) != copy) finding("copying a copy changed its bytes");
  } catch (zocore::ErrorException const& e) {
    finding(e, "the reader rejected a copy it had produced, copying it");
  }
}

// When the whole input copies into a MemoryWriter, the copy compares equal to the input.
void check_whole_copy(ConstMemoryListPtr const& input, Random& random) {
  MemoryWriter writer;
  try {
    MemoryReader reader(input);
    reader.read_copy_all(writer);
  } catch (zocore::ErrorException const&) {
    return;  // not a valid document as a whole
  }
  try {
    writer.close();
  } catch (zocore::ErrorException const& e) {
    finding(e, "the writer of a completed copy failed to close");
  }
  ConstMemoryListPtr const copy(writer.memory_list());
  bool has_nan = false;
  try {
    MemoryReader reader(copy);
    has_nan = zofuzz::walk_copy(reader);
  } catch (zocore::ErrorException const& e) {
    finding(e, "the reader rejected a copy of the whole input");
  }
  bool equal = false;
  try {
    MemoryReader a(copy);
    MemoryReader b(input);
    equal = Reader::read_compare_equal_all(a, b);
  } catch (zocore::ErrorException const& e) {
    finding(e, "comparing a copy of the whole input with the input failed");
  }
  // A NaN compares unequal to itself; such a copy is still checked by check_copy.
  if (!equal && !has_nan) finding("a copy of the whole input compares unequal to the input");
  check_copy(bytes_of(*copy), random);
}

// Wraps the reader's rest into a sized marker (behind a prefix that leaves the writer's chunk
// with more or less room) and checks that it reads back as exactly that rest.
void check_forward(MemoryReader const& reader, Random& random) {
  std::string const rest = rest_of(reader);
  unsigned const position = reader.position();
  MemoryWriter writer;
  unsigned const prefix = random.below(3);
  try {
    if (prefix == 1) {
      std::string const filler(random.below(1100), 'f');
      writer.write_binary(filler.data(), static_cast<unsigned>(filler.size()));
    } else if (prefix == 2) {
      writer << "prefix";
    }
    writer.write_memory_reader(reader);
    writer.close();
  } catch (zocore::ErrorException const& e) {
    finding(e, "forwarding a reader's rest failed");
  }
  if (reader.position() != position || rest_of(reader) != rest) {
    finding("forwarding a reader's rest changed the reader");
  }
  // A rest that begins with a marker end tag ends its wrapping marker at once; nothing to check.
  if (!rest.empty() && static_cast<unsigned char>(rest[0]) == 0xBF) return;
  try {
    MemoryReader back{ConstMemoryListPtr(writer.memory_list())};
    if (prefix != 0) back.skip_element();
    MemoryReader const contents = back.read_memory_reader();
    if (contents.size() != rest.size() || rest_of(contents) != rest) {
      finding("a forwarded rest reads back as other bytes");
    }
    if (!back.is_eof()) finding("a forwarded rest is followed by more data");
  } catch (zocore::ErrorException const& e) {
    finding(e, "a forwarded rest does not read back");
  }
}

// ---- The walk ----------------------------------------------------------------------------------

// What the walkers of one input share.
struct Shared {
  std::vector<PayloadStreamPtr> kept;
  // Sub-readers walked once the reader they came from is gone.
  std::vector<std::unique_ptr<MemoryReader>> late;
  int late_taken = 0;
  // Writes into the list being read, when the reader came from it.
  MemoryWriter* writer = nullptr;
};

class MemoryWalker final : public zofuzz::Walker {
 public:
  MemoryWalker(MemoryReader& reader, Random& random, int& budget, Shared& shared, int depth)
      : Walker(reader, random, budget), reader_(reader), shared_(shared), depth_(depth) {}

 private:
  void keep(PayloadStreamPtr const& stream) override {
    if (shared_.kept.size() < kMaxKept) {
      shared_.kept.push_back(stream);
    } else {
      shared_.kept[random().below(kMaxKept)] = stream;
    }
  }

  PayloadStream* kept_for_poke() override {
    if (shared_.kept.empty()) return nullptr;
    return shared_.kept[random().below(static_cast<unsigned>(shared_.kept.size()))].get();
  }

  // Closing a memory reader changes nothing: its open scopes stay open.
  void close_reader() override { reader_.close(); }

  // Opens the payload stream, and the same payload through a twin in another way: through
  // read_binary_as_memory_list, or a second string stream and read_string by value. The stream
  // is then checked against those bytes wherever it is read.
  PayloadStreamPtr open_payload(EToken token) override {
    bool const is_string = token == EToken::String;
    int const nibble = next_nibble(reader_);
    bool const chunked = nibble == 0xB || nibble == 0xC;
    MemoryReader twin = reader_.clone(true);
    MemoryReader by_value = reader_.clone(true);
    std::string expected;
    bool twin_ok = false;
    try {
      if (is_string) {
        InterfacePtr<IReadStream> const other = twin.read_string_stream();
        expected = drain(*other);
      } else {
        expected = bytes_of(*twin.read_binary_as_memory_list());
      }
      twin_ok = true;
    } catch (zocore::ErrorException const&) {
    }
    InterfacePtr<IReadStream> stream;
    try {
      stream = is_string ? reader_.read_string_stream() : reader_.read_binary();
    } catch (zocore::ErrorException const&) {
      if (twin_ok) finding("a payload stream was refused where its twin was accepted");
      throw;
    }
    if (!twin_ok) finding("a payload stream was handed out where its twin was refused");
    if (reader_.position() != twin.position()) {
      finding("a payload stream and its twin leave the reader at different positions");
    }
    if (is_string) {
      // A string that passed as a stream (UTF-8 checked) must pass by value as well.
      try {
        if (by_value.read_string() != expected) finding("a string reads by value as other bytes");
      } catch (zocore::ErrorException const& e) {
        finding(e, "a string accepted as a stream was refused by value");
      }
      if (by_value.position() != twin.position()) {
        finding("a string read by value leaves the reader elsewhere than as a stream");
      }
    }
    return std::make_shared<PayloadStream>(std::move(stream), std::move(expected), chunked);
  }

  bool special(EToken token) override {
    if (!random().one_in(4)) return false;
    switch (random().below(10)) {
      case 0:
        if (token != EToken::Binary) return false;
        payload_as_list();
        return true;
      case 1:
        if (token != EToken::MarkerStart) return false;
        sub_reader();
        return true;
      case 2:
        check_forward(reader_, random());
        return true;
      case 3:
        replace_by_copy();
        return true;
      case 4:
        walk_clone();
        return true;
      case 5:
        assign();
        return true;
      case 6:
        trace();
        return true;
      case 7:
        write_into_list();
        return true;
      case 8:
        check_segments();
        return true;
      default:
        if (token != EToken::Binary) return false;
        // Refused before anything is read.
        reader_.read_binary_append_memory_list(MemoryListPtr());
        finding("appending a payload to a null list was accepted");
    }
  }

  // read_binary_as_memory_list, or read_binary_append_memory_list onto a list that already holds
  // bytes (possibly sharing chunks with the list being read), checked against a twin's stream;
  // sometimes the list is embedded into a writer again and read back.
  void payload_as_list() {
    MemoryReader twin = reader_.clone(true);
    std::string expected;
    bool twin_ok = false;
    try {
      InterfacePtr<IReadStream> const stream = twin.read_binary();
      expected = drain(*stream);
      twin_ok = true;
    } catch (zocore::ErrorException const&) {
    }
    MemoryListPtr list;
    std::string prefix;
    try {
      switch (random().below(3)) {
        case 0:
          list = reader_.read_binary_as_memory_list();
          break;
        case 1:
          prefix = "0123456789";
          list = MemoryList::create();
          list->append(prefix.data(), static_cast<unsigned>(prefix.size()));
          reader_.read_binary_append_memory_list(list);
          break;
        default: {
          // A list that shares chunks with the one being read: appending must not change them.
          ConstMemoryListPtr const& source = reader_.memory_list();
          list = source->sublist(0, random().below(source->size() + 1));
          prefix = bytes_of(*list);
          reader_.read_binary_append_memory_list(list);
          break;
        }
      }
    } catch (zocore::ErrorException const&) {
      if (twin_ok) finding("a payload was refused as a list where its stream was accepted");
      throw;
    }
    if (!twin_ok) finding("a payload was accepted as a list where its stream was refused");
    if (reader_.position() != twin.position()) {
      finding("a payload read as a list leaves the reader elsewhere than as a stream");
    }
    if (bytes_of(*list) != prefix + expected) finding("a payload read as a list holds other bytes");
    if (!list->validate_size()) finding("a payload read as a list has an inconsistent size");
    if (random().one_in(2)) {
      MemoryWriter writer;
      try {
        if (random().one_in(2)) writer << "in front";
        writer.write_binary(ConstMemoryListPtr(list));
        writer.close();
        MemoryReader back{ConstMemoryListPtr(writer.memory_list())};
        if (back.next_token() == EToken::String) back.skip_element();
        if (bytes_of(*back.read_binary_as_memory_list()) != prefix + expected || !back.is_eof()) {
          finding("an embedded list reads back as other bytes");
        }
      } catch (zocore::ErrorException const& e) {
        finding(e, "an embedded list does not read back");
      }
    }
  }

  // read_memory_reader, checked against a twin that reads the marker's start and end; the
  // sub-reader is then walked at once, forwarded, or kept to be walked after this reader is gone.
  void sub_reader() {
    MemoryReader twin = reader_.clone(true);
    std::string expected;
    bool twin_ok = false;
    try {
      twin.read_marker_start();
      std::string const rest = rest_of(twin);
      unsigned const start = twin.position();
      twin.read_marker_end();
      expected = rest.substr(0, twin.position() - start - 1);
      twin_ok = true;
    } catch (zocore::ErrorException const&) {
    }
    std::optional<MemoryReader> sub;
    try {
      sub.emplace(reader_.read_memory_reader());
    } catch (zocore::ErrorException const&) {
      if (twin_ok) finding("read_memory_reader refused a marker that reads as a marker");
      throw;
    }
    if (!twin_ok) finding("read_memory_reader accepted a marker that does not read as a marker");
    if (reader_.position() != twin.position()) {
      finding("read_memory_reader leaves the reader elsewhere than reading the marker");
    }
    if (sub->size() != expected.size() || sub->position() != 0 || rest_of(*sub) != expected ||
        sub->is_eof() != expected.empty()) {
      finding("a sub-reader does not hold exactly the marker's contents");
    }
    switch (random().below(3)) {
      case 0:
        if (depth_ < kMaxDepth) {
          MemoryWalker nested(*sub, random(), budget(), shared_, depth_ + 1);
          nested.run();
        }
        break;
      case 1:
        check_forward(*sub, random());
        break;
      default:
        if (shared_.late_taken < kMaxLate) {
          ++shared_.late_taken;
          shared_.late.push_back(std::make_unique<MemoryReader>(std::move(*sub)));
        }
        break;
    }
  }

  // Carries on with a copy of the reader (scopes included); the original is destroyed.
  void replace_by_copy() {
    unsigned const position = reader_.position();
    switch (random().below(3)) {
      case 0: {
        MemoryReader copy = reader_.clone(true);
        reader_.swap(copy);
        break;
      }
      case 1: {
        MemoryReader copy(reader_);
        reader_.swap(copy);
        break;
      }
      default: {
        MemoryReader moved(std::move(reader_));
        reader_.swap(moved);
        break;
      }
    }
    if (reader_.position() != position) finding("a copy of the reader stands elsewhere");
  }

  // Walks a clone for a while; the reader itself must not move.
  void walk_clone() {
    if (depth_ >= kMaxDepth) return;
    unsigned const position = reader_.position();
    MemoryReader clone = reader_.clone(random().one_in(2));
    {
      MemoryWalker nested(clone, random(), budget(), shared_, depth_ + 1);
      nested.run();
    }
    if (reader_.position() != position) finding("walking a clone moved the reader");
  }

  // Assignment is refused while the reader has open scopes; either way the position stays.
  void assign() {
    unsigned const position = reader_.position();
    MemoryReader other = reader_.clone(false);
    try {
      if (random().one_in(2)) {
        reader_ = other;
      } else {
        reader_ = std::move(other);
      }
    } catch (zocore::ErrorException const&) {
    }
    if (reader_.position() != position) finding("assigning a clone moved the reader");
  }

  void trace() {
    std::ostringstream os;
    os << MemoryReader::Trace{reader_};
    if (os.str().empty()) finding("a reader's trace is empty");
    reader_.memory_list()->write_trace(os, static_cast<int>(random().below(3)));
  }

  // The writer that the reader came from goes on writing into the same list: the reader's bytes
  // must not change (the final check compares the list with the input).
  void write_into_list() {
    MemoryWriter* const writer = shared_.writer;
    if (!writer) return;
    try {
      switch (random().below(3)) {
        case 0:
          *writer << "more";
          break;
        case 1: {
          std::string const filler(random().below(3000), 'w');
          writer->write_binary(filler.data(), static_cast<unsigned>(filler.size()));
          break;
        }
        default:
          writer->write_memory_reader(reader_);
          break;
      }
    } catch (zocore::ErrorException const& e) {
      finding(e, "writing into the list being read failed");
    }
  }

  void check_segments() {
    unsigned total = 0;
    for (auto piece = reader_.segment_iterator(); !piece.at_end(); piece.next()) {
      if (piece.size() == 0) finding("a reader's segment iterator yields an empty piece");
      total += piece.size();
    }
    if (total != reader_.size() - reader_.position()) {
      finding("a reader's segments do not add up to its rest");
    }
    if (!reader_.memory_list()->is_valid_cursor(reader_.cursor())) {
      finding("a reader's cursor is not a valid cursor of its list");
    }
  }

  // Copies into a MemoryWriter, and from a twin into a BinaryWriter; both must agree.
  void copy_element(bool all) override {
    static constexpr unsigned kWriterBuffers[] = {0, 1, 7, 4096, BinaryWriter::kDefaultBufferSize};
    MemoryReader twin = reader_.clone(true);
    auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    bool twin_ok = false;
    {
      BinaryWriter writer(sink, kWriterBuffers[random().below(5)]);
      try {
        if (all) {
          twin.read_copy_all(writer);
        } else {
          twin.read_copy(writer);
        }
        twin_ok = true;
      } catch (zocore::ErrorException const&) {
      }
      if (twin_ok) {
        try {
          writer.close();
        } catch (zocore::ErrorException const& e) {
          finding(e, "the BinaryWriter of a completed copy failed to close");
        }
      }
    }
    MemoryWriter writer;
    try {
      if (all) {
        reader_.read_copy_all(writer);
      } else {
        reader_.read_copy(writer);
      }
    } catch (zocore::ErrorException const&) {
      if (twin_ok)
        finding("a copy into a MemoryWriter failed where one into a BinaryWriter did not");
      throw;
    }
    if (!twin_ok)
      finding("a copy into a BinaryWriter failed where one into a MemoryWriter did not");
    try {
      writer.close();
    } catch (zocore::ErrorException const& e) {
      finding(e, "the MemoryWriter of a completed copy failed to close");
    }
    if (reader_.position() != twin.position()) {
      finding("copies into different writers leave the reader at different positions");
    }
    std::string const copy = bytes_of(*writer.memory_list());
    if (copy != sink->str()) finding("a MemoryWriter and a BinaryWriter copy to different bytes");
    check_copy(copy, random());
  }

  MemoryReader& reader_;
  Shared& shared_;
  int depth_;
};

void run_one(zofuzz::Input const& in) {
  Random random(in.control);
  std::string_view const input(reinterpret_cast<char const*>(in.data), in.size);

  MemoryListPtr list = lay_out(input, in.header[0] & 7, in.header[1], random);
  if (bytes_of(*list) != input || !list->validate_size()) finding("a layout lost the input");
  check_whole_copy(list, random);

  Shared shared;
  std::optional<MemoryWriter> writer;
  if ((in.header[0] & 0x80) != 0) {
    writer.emplace(list);
    shared.writer = &*writer;
  }
  {
    MemoryReader reader = writer ? writer->reader() : MemoryReader(ConstMemoryListPtr(list));
    int budget = zofuzz::kBudget;
    MemoryWalker walker(reader, random, budget, shared, 0);
    walker.run();
  }
  if (bytes_of(*list) != input) finding("the list being read was changed");
  // From here on only the kept streams and sub-readers hold the list.
  shared.writer = nullptr;
  writer.reset();
  list = nullptr;

  int budget = zofuzz::kBudget / 4;
  for (std::size_t i = 0; i < shared.late.size(); ++i) {
    std::unique_ptr<MemoryReader> const sub = std::move(shared.late[i]);
    MemoryWalker walker(*sub, random, budget, shared, kMaxDepth);
    walker.run();
  }
  shared.late.clear();
  std::vector<char> scratch(4096);
  for (PayloadStreamPtr const& stream : shared.kept)
    stream->drain(scratch.data(), 1 + random.below(4096));
}

// The process-wide pools keep chunks and list objects between inputs. Filled before the first
// input, they take back what an input used as they hand it out, so that an input leaves no more
// memory allocated than it found; libFuzzer runs its slow leak check after every input that does.
void fill_pools() {
  std::vector<MemoryChunkPtr> chunks;
  for (unsigned size : {1024u, 4096u, 16384u, 65536u}) {
    for (unsigned i = 0; i < 512; ++i)
      chunks.push_back(zoserialize::create_memory_chunk(size));
  }
  std::vector<MemoryListPtr> lists(MemoryList::kPoolCapacity);
  for (MemoryListPtr& list : lists)
    list = MemoryList::create();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static bool const pools_filled = (fill_pools(), true);
  static_cast<void>(pools_filled);
  return zofuzz::run_input(run_one, data, size);
}
