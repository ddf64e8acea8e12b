// libFuzzer target: BinaryReader over hostile bytes that arrive in random pieces.
//
// Input layout: bytes 0-1 choose the read-ahead buffer size, bytes 2-5 are the control word
// (how the source behaves, and the seed of every random choice below), the rest is the data.
// The walker then does what callers do: asks next_token and reads the element with the matching
// typed operation, or skips it, or copies it into a BinaryWriter; it reads payload streams in
// random pieces and sometimes abandons them half read, and walks sequences and markers, now and
// then ending them early or doing something out of place. An operation budget bounds the run.
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
#include <string>
#include <vector>

#include <zocore/atomic_ref_count.h>
#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/source_location.h>
#include <zocore/stream.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>

namespace {

using zocore::InterfacePtr;
using zocore::IReadStream;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::Reader;
using EToken = Reader::EToken;

constexpr std::size_t kHeaderSize = 6;
constexpr int kBudget = 4000;      // operations per input
constexpr int kMaxRejections = 4;  // errors survived before giving up on an input

[[noreturn]] void finding(char const* what) {
  std::fprintf(stderr, "fuzz_binary_reader: %s\n", what);
  std::abort();
}

// splitmix64: the choices of one input depend on its control word alone.
class Random {
 public:
  explicit Random(std::uint64_t seed) noexcept : state_(seed) {}

  std::uint64_t next() noexcept {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  unsigned below(unsigned n) noexcept { return static_cast<unsigned>(next() % n); }
  bool one_in(unsigned n) noexcept { return below(n) == 0; }

 private:
  std::uint64_t state_;
};

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

// Reads a copy element by element with the matching typed operations, payloads through their
// streams (read to the end and closed). Everything in a copy was written by BinaryWriter from
// elements the reader accepted, so nothing of it may be rejected.
void walk_copy(std::string const& bytes, unsigned buffer_size) {
  enum class EScope { kSequence, kMarker };
  BinaryReader reader(zocore::make_ref_counted<zocore::MemoryReadStream>(bytes), buffer_size);
  std::vector<EScope> scopes;
  unsigned char image[64];
  char payload[512];
  for (;;) {
    if (!scopes.empty()) {
      if (scopes.back() == EScope::kSequence ? !reader.read_sequence_next()
                                             : reader.read_marker_is_end()) {
        if (scopes.back() == EScope::kMarker) reader.read_marker_end();
        scopes.pop_back();
        continue;
      }
    }
    EToken const token = reader.next_token();
    switch (token) {
      case EToken::Eof:
        if (!scopes.empty()) finding("a copy ends inside a sequence or marker");
        return;
      case EToken::Null:
        reader.read_null();
        break;
      case EToken::Boolean:
        static_cast<void>(reader.read_bool());
        break;
      case EToken::SignedInteger:
        reader.read_int_big_endian(image, sizeof image);
        break;
      case EToken::UnsignedInteger:
        reader.read_uint_big_endian(image, sizeof image);
        break;
      case EToken::Double:
        static_cast<void>(reader.read_double());
        break;
      case EToken::AbsoluteTime:
        static_cast<void>(reader.read_absolute_time());
        break;
      case EToken::RelativeTime:
        static_cast<void>(reader.read_relative_time());
        break;
      case EToken::Uuid:
        static_cast<void>(reader.read_uuid());
        break;
      case EToken::String:
      case EToken::Binary: {
        InterfacePtr<IReadStream> const stream =
            token == EToken::String ? reader.read_string_stream() : reader.read_binary();
        while (stream->read(payload, sizeof payload) == sizeof payload) {
        }
        stream->close();
        break;
      }
      case EToken::SequenceStart:
        reader.read_sequence_start();
        scopes.push_back(EScope::kSequence);
        break;
      case EToken::MarkerStart:
        reader.read_marker_start();
        scopes.push_back(EScope::kMarker);
        break;
      default:
        finding("a copy holds a separator, an end or an unknown tag out of place");
    }
  }
}

// Copies must read back, and be stable: copying a copy gives the same bytes again (the writer's
// forms are a fixed point of read_copy).
void check_copy(std::string const& copy, unsigned buffer_size) {
  try {
    walk_copy(copy, buffer_size);
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

class Walker {
 public:
  Walker(BinaryReader& reader, Random& random) : reader_(reader), random_(random) {
    scratch_.resize(1 << 16);
  }

  void run() {
    int rejections = 0;
    while (budget_ > 0) {
      --budget_;
      try {
        if (!step()) break;
      } catch (zocore::ErrorException const&) {
        // Rejected; the reader must stay safe to use afterwards, so carry on for a while.
        if (++rejections > kMaxRejections || random_.one_in(3)) break;
      }
    }
  }

  // A payload stream kept past its element, to be used after the reader moved on (and after the
  // reader is gone).
  InterfacePtr<IReadStream> const& kept_stream() const noexcept { return kept_; }

 private:
  enum class EScope { kSequence, kMarker };

  bool step() {
    if (random_.one_in(256)) poke_kept_stream();
    if (random_.one_in(512)) {
      reader_.close();
      scopes_.clear();
    }
    if (scopes_.empty()) {
      if (random_.one_in(64)) {
        copy_element(true);
        return true;
      }
      return element();
    }
    if (scopes_.back() == EScope::kSequence) {
      if (!reader_.read_sequence_next()) {
        scopes_.pop_back();
        return true;
      }
      return element();
    }
    // Inside a marker: leave it early now and then (the reader skips the rest), else read on
    // until its end.
    if (random_.one_in(8) || reader_.read_marker_is_end()) {
      scopes_.pop_back();
      reader_.read_marker_end();
      return true;
    }
    return element();
  }

  // One element at the current position; false when the data ended at the top level.
  bool element() {
    EToken const token = reader_.next_token();
    unsigned const how = random_.below(32);
    if (how == 0) {
      reader_.skip_element();
      return true;
    }
    if (how == 1) {
      copy_element(false);
      return true;
    }
    if (how == 2) {
      // Out of place: read a kind chosen at random, whatever comes.
      read_as(static_cast<EToken>(1 + random_.below(15)));
      return true;
    }
    if (token == EToken::Eof) {
      if (!reader_.is_eof()) finding("next_token reported the end of the data, is_eof did not");
      if (scopes_.empty() && random_.one_in(2)) return false;
      read_as(EToken::Boolean);
      finding("a value was read past the end of the data");
    }
    read_as(token);
    return true;
  }

  void read_as(EToken token) {
    switch (token) {
      case EToken::Null:
        if (random_.one_in(2)) {
          reader_.read_null();
        } else {
          reader_.try_read_null();
        }
        break;
      case EToken::Boolean: {
        bool b = false;
        reader_ >> b;
        break;
      }
      case EToken::SignedInteger:
      case EToken::UnsignedInteger:
        read_integer(token == EToken::SignedInteger);
        break;
      case EToken::Double:
        if (random_.one_in(4)) {
          static_cast<void>(reader_.read_float());
        } else {
          static_cast<void>(reader_.read_double());
        }
        break;
      case EToken::String:
        read_string();
        break;
      case EToken::AbsoluteTime:
        static_cast<void>(reader_.read_absolute_time());
        break;
      case EToken::RelativeTime:
        static_cast<void>(reader_.read_relative_time());
        break;
      case EToken::Uuid:
        static_cast<void>(reader_.read_uuid());
        break;
      case EToken::Binary:
        read_payload(reader_.read_binary());
        break;
      case EToken::SequenceStart:
        reader_.read_sequence_start();
        scopes_.push_back(EScope::kSequence);
        break;
      case EToken::MarkerStart:
        if (random_.one_in(16)) {
          // The layout of a source location: a marker of two strings and a number.
          zocore::SourceLocation location;
          reader_ >> location;
        } else {
          reader_.read_marker_start();
          scopes_.push_back(EScope::kMarker);
        }
        break;
      case EToken::SequenceSeparator:
      case EToken::SequenceEnd:
        reader_.read_sequence_next();
        break;
      case EToken::MarkerEnd:
        reader_.read_marker_end();
        break;
      default:
        reader_.skip_element();
        break;
    }
  }

  void read_integer(bool is_signed) {
    static constexpr unsigned kSizes[] = {0, 1, 2, 3, 4, 5, 8, 9, 16, 31, 32, 64, 65, 100};
    unsigned const pick = random_.below(sizeof kSizes / sizeof kSizes[0] + 2);
    if (pick == sizeof kSizes / sizeof kSizes[0]) {
      // The typed front end.
      if (is_signed) {
        long long v = 0;
        reader_ >> v;
      } else {
        unsigned short v = 0;
        reader_ >> v;
      }
      return;
    }
    unsigned const size = pick < sizeof kSizes / sizeof kSizes[0] ? kSizes[pick] : 8;
    unsigned char image[128];
    if (is_signed) {
      reader_.read_int_big_endian(image, size);
    } else {
      reader_.read_uint_big_endian(image, size);
    }
  }

  void read_string() {
    switch (random_.below(5)) {
      case 0:
        reader_ >> text_;
        break;
      case 1: {
        zocore::SourceString s;
        reader_ >> s;
        break;
      }
      case 2: {
        std::wstring wide;
        reader_ >> wide;
        break;
      }
      case 3:
        static_cast<void>(reader_.read_string());
        break;
      default:
        read_payload(reader_.read_string_stream());
        break;
    }
  }

  // Reads a payload stream in random pieces, sometimes stopping half way.
  void read_payload(InterfacePtr<IReadStream> const& stream) {
    static constexpr unsigned kPieces[] = {1, 2, 3, 7, 64, 4095, 4096, 65535, 1u << 16};
    if (random_.one_in(16)) kept_ = stream;
    while (budget_ > 0) {
      --budget_;
      switch (random_.below(16)) {
        case 0:
          return;  // abandoned: the reader finishes it when it moves on
        case 1:
          stream->close();
          return;
        case 2:
          static_cast<void>(stream->bytes_remaining());
          break;
        case 3:
          if (stream->skip(1 + random_.below(100)) == 0) return;
          break;
        default: {
          unsigned const n = kPieces[random_.below(sizeof kPieces / sizeof kPieces[0])];
          if (stream->read(scratch_.data(), n) < n) return;
        }
      }
    }
  }

  // A stream kept from an earlier element is detached by now, or still the current one.
  void poke_kept_stream() {
    if (!kept_) return;
    switch (random_.below(4)) {
      case 0:
        static_cast<void>(kept_->read(scratch_.data(), 1 + random_.below(16)));
        break;
      case 1:
        static_cast<void>(kept_->skip(1 + random_.below(16)));
        break;
      case 2:
        static_cast<void>(kept_->bytes_remaining());
        break;
      default:
        kept_->close();
        break;
    }
  }

  // Copies one element (or, at the top level, everything) into a BinaryWriter and checks that
  // the copy reads back.
  void copy_element(bool all) {
    static constexpr unsigned kWriterBuffers[] = {0, 1, 7, 4096, BinaryWriter::kDefaultBufferSize};
    auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    {
      BinaryWriter writer(sink, kWriterBuffers[random_.below(5)]);
      if (all) {
        reader_.read_copy_all(writer);
      } else {
        reader_.read_copy(writer);
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
    check_copy(sink->str(), kReaderBuffers[random_.below(4)]);
  }

  BinaryReader& reader_;
  Random& random_;
  int budget_ = kBudget;
  std::vector<EScope> scopes_;
  std::vector<char> scratch_;
  std::string text_;
  InterfacePtr<IReadStream> kept_;
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
    Walker walker(reader, random);
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
