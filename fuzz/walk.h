// The part of the reader fuzz targets that does not depend on the reader: the random choices of
// one input, a walker that reads hostile data the way callers do, payload streams read in random
// pieces (optionally checked against the bytes they must deliver), and a walk that reads a copy
// element by element.
//
// Each target compiles this header once, into a program of its own, and defines
// zofuzz::kTargetName, which every finding names.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <zocore/atomic_ref_count.h>
#include <zocore/error_exception.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/source_location.h>
#include <zocore/source_string.h>
#include <zocore/stream.h>
#include <zoserialize/reader.h>

namespace zofuzz {

using zocore::InterfacePtr;
using zocore::IReadStream;
using zoserialize::Reader;
using EToken = Reader::EToken;

// The program's name as findings print it, e.g. "fuzz_binary_reader".
extern char const kTargetName[];

inline constexpr int kBudget = 4000;      // operations per input
inline constexpr int kMaxRejections = 4;  // errors survived before giving up on an input

[[noreturn]] inline void finding(char const* what) {
  std::fprintf(stderr, "%s: %s\n", kTargetName, what);
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

// An input of a reader target: bytes 0-1 choose the reader's buffer (or block) size, bytes 2-5
// are the control word (how the source behaves, and the seed of every random choice), the rest
// is the data. A shorter input counts as padded with zeros.
struct Input {
  static constexpr std::size_t kHeaderSize = 6;

  Input(std::uint8_t const* bytes, std::size_t length) noexcept {
    std::size_t const header_size = length < kHeaderSize ? length : kHeaderSize;
    for (std::size_t i = 0; i < header_size; ++i)
      header[i] = bytes[i];
    control = header[2] | (std::uint32_t{header[3]} << 8) | (std::uint32_t{header[4]} << 16) |
              (std::uint32_t{header[5]} << 24);
    data = bytes + header_size;
    size = length - header_size;
  }

  // Bytes 0-1 as a size weighted towards the tiny ones, where every token straddles a refill:
  // `smallest` plus 0 to 7, 1 to 64 or 1 to 8192, or `largest`.
  unsigned size_choice(unsigned smallest, unsigned largest) const noexcept {
    switch (selector() >> 14) {
      case 0:
        return smallest + (selector() & 7);
      case 1:
        return 1 + (selector() & 63);
      case 2:
        return 1 + selector() % 8192;
      default:
        return largest;
    }
  }
  unsigned selector() const noexcept { return header[0] | (unsigned{header[1]} << 8); }

  std::uint8_t header[kHeaderSize] = {};
  std::uint32_t control = 0;
  std::uint8_t const* data = nullptr;
  std::size_t size = 0;
};

// The data, delivered in pieces. Control bits 0-1 say how choppy: 0 delivers what is asked (as
// the stream contract wants), 1-3 return ever more often fewer bytes than asked although more
// follow (the reader takes a short read as the end, but must stay safe either way); a source
// that `stalls` at 3 now and then returns nothing in the middle. Bit 2 hides the remaining size
// (always hidden when `hides_size`).
class ChoppySource final : public zocore::RefCounted<zocore::AtomicRefCount>, public IReadStream {
 public:
  ChoppySource(Input const& in, Random& random, bool stalls, bool hides_size) noexcept
      : cur_(in.data),
        end_(in.data + in.size),
        choppiness_(in.control & 3),
        stalls_(stalls),
        hide_size_(hides_size || (in.control & 4) != 0),
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
    if (stalls_ && choppiness_ == 3 && random_.one_in(64)) return 0;
    if (random_.below(4) >= choppiness_) return most;
    return 1 + random_.below(most);
  }

  std::uint8_t const* cur_;
  std::uint8_t const* end_;
  unsigned choppiness_;
  bool stalls_;
  bool hide_size_;
  Random& random_;
};

// Once its reader is gone, a payload stream it handed out must fail cleanly, not reach it.
inline void expect_orphan_fails(InterfacePtr<IReadStream> const& kept) {
  if (!kept) return;
  try {
    char byte;
    static_cast<void>(kept->read(&byte, 1));
    finding("a payload stream still read after its reader was destroyed");
  } catch (zocore::ErrorException const&) {
  }
}

// The body of LLVMFuzzerTestOneInput: runs one input; an exception other than the reader's own
// (which `run` takes as a clean result) is a finding.
inline int run_input(void (*run)(Input const&), std::uint8_t const* data, std::size_t size) {
  try {
    run(Input(data, size));
  } catch (std::exception const& e) {
    std::fprintf(stderr, "%s: unexpected exception: %s\n", kTargetName, e.what());
    std::abort();
  } catch (...) {
    finding("unexpected exception of an unknown type");
  }
  return 0;
}

// A payload stream handed out by a reader. Unchecked, it only passes calls on. Checked, it knows
// the whole payload and fails the run when the stream delivers anything else: a count other
// than what is left (archives' streams never return short before their end), other bytes, a
// wrong bytes_remaining(), bytes after close(), or an error.
class PayloadStream {
 public:
  explicit PayloadStream(InterfacePtr<IReadStream> stream) noexcept : stream_(std::move(stream)) {}
  // `chunked`: the value's size shows only at its end, so bytes_remaining() cannot tell it.
  PayloadStream(InterfacePtr<IReadStream> stream, std::string expected, bool chunked) noexcept
      : stream_(std::move(stream)),
        checked_(true),
        chunked_(chunked),
        expected_(std::move(expected)) {}

  InterfacePtr<IReadStream> const& stream() const noexcept { return stream_; }

  unsigned read(char* buffer, unsigned n) {
    if (!checked_) return stream_->read(buffer, n);
    unsigned got = 0;
    try {
      got = stream_->read(buffer, n);
    } catch (zocore::ErrorException const& e) {
      report(e, "a checked payload stream failed to read");
    }
    std::size_t const want = closed_ ? 0 : std::min<std::size_t>(n, left());
    if (got != want) finding("a payload stream read a count other than what was left");
    if (got != 0 && std::memcmp(buffer, expected_.data() + offset_, got) != 0) {
      finding("a payload stream delivered bytes other than the payload's");
    }
    offset_ += got;
    return got;
  }

  unsigned skip(unsigned n) {
    if (!checked_) return stream_->skip(n);
    unsigned got = 0;
    try {
      got = stream_->skip(n);
    } catch (zocore::ErrorException const& e) {
      report(e, "a checked payload stream failed to skip");
    }
    std::size_t const want = closed_ ? 0 : std::min<std::size_t>(n, left());
    if (got != want) finding("a payload stream skipped a count other than what was left");
    offset_ += got;
    return got;
  }

  void bytes_remaining() const {
    unsigned const n = stream_->bytes_remaining();
    if (!checked_) return;
    if (chunked_) {
      if (n != IReadStream::kUnknownSize && !closed_) {
        finding("a chunked payload stream claims to know its remaining size");
      }
    } else if (n != (closed_ ? 0 : left())) {
      finding("a payload stream reports a remaining size other than what is left");
    }
  }

  void close() {
    if (!checked_) {
      stream_->close();
      return;
    }
    try {
      stream_->close();
    } catch (zocore::ErrorException const& e) {
      report(e, "closing a checked payload stream failed");
    }
    closed_ = true;
  }

  // Reads what is left in pieces of `piece` bytes and checks that the stream then stays ended.
  void drain(char* buffer, unsigned piece) {
    while (read(buffer, piece) == piece) {
    }
    if (read(buffer, 1) != 0) finding("a payload stream went on after its end");
  }

 private:
  std::size_t left() const noexcept { return expected_.size() - offset_; }

  [[noreturn]] static void report(zocore::ErrorException const& e, char const* what) {
    std::fprintf(stderr, "%s\n", e.what());
    finding(what);
  }

  InterfacePtr<IReadStream> stream_;
  bool checked_ = false;
  bool chunked_ = false;
  bool closed_ = false;
  std::string expected_;
  std::size_t offset_ = 0;
};

using PayloadStreamPtr = std::shared_ptr<PayloadStream>;

// Reads a copy element by element with the matching typed operations, payloads through their
// streams (read to the end and closed). Everything in a copy was written by a writer from
// elements a reader accepted, so nothing of it may be rejected: the caller treats an
// ErrorException as a finding. Returns true when the copy holds a NaN (which compares unequal to
// itself).
inline bool walk_copy(Reader& reader) {
  enum class EScope { kSequence, kMarker };
  std::vector<EScope> scopes;
  unsigned char image[64];
  char payload[512];
  bool nan = false;
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
        return nan;
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
      case EToken::Double: {
        double const d = reader.read_double();
        nan = nan || d != d;
        break;
      }
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

// Walks hostile data as callers do: asks next_token and reads the element with the matching
// typed operation, or skips it, or copies it; reads payload streams in random pieces and
// sometimes abandons them half read; walks sequences and markers, now and then ending them early
// or doing something out of place. Every operation spends one unit of a budget that nested
// walkers may share.
//
// A target adapts it through the virtual hooks; a hook that the target leaves alone draws no
// random numbers, so a target's choices stay those of its own hooks.
class Walker {
 public:
  Walker(Reader& reader, Random& random, int& budget)
      : reader_(reader), random_(random), budget_(budget) {}
  Walker(Walker const&) = delete;
  Walker& operator=(Walker const&) = delete;
  virtual ~Walker() = default;

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

 protected:
  enum class EScope { kSequence, kMarker };

  // Copies one element (or, at the top level, everything) and checks the copy.
  virtual void copy_element(bool all) = 0;
  // May do something of the target's own with the element ahead; true when it did.
  virtual bool special(EToken /*token*/) { return false; }
  // Reads a String (as a stream) or a Binary element and returns its stream.
  virtual PayloadStreamPtr open_payload(EToken token) {
    return std::make_shared<PayloadStream>(token == EToken::String ? reader_.read_string_stream()
                                                                   : reader_.read_binary());
  }
  // Keeps a payload stream past its element, to be used after the reader moved on.
  virtual void keep(PayloadStreamPtr const& stream) = 0;
  // One of the kept streams, or null.
  virtual PayloadStream* kept_for_poke() = 0;
  virtual void close_reader() {
    reader_.close();
    scopes_.clear();
  }

  Reader& reader() noexcept { return reader_; }
  Random& random() noexcept { return random_; }
  int& budget() noexcept { return budget_; }
  std::vector<EScope>& scopes() noexcept { return scopes_; }
  // 64 KiB for payload pieces, one buffer for every walker: a target nests walkers over
  // sub-readers and clones, and a buffer of their own each (zeroed, mapped, then quarantined by
  // the address sanitizer once freed) cost more than the walk and held on to memory.
  static std::vector<char>& scratch() {
    static std::vector<char> buffer(1 << 16);
    return buffer;
  }

  // Reads a payload stream in random pieces, sometimes stopping half way.
  void read_payload(PayloadStreamPtr const& stream) {
    static constexpr unsigned kPieces[] = {1, 2, 3, 7, 64, 4095, 4096, 65535, 1u << 16};
    if (random_.one_in(16)) keep(stream);
    while (budget_ > 0) {
      --budget_;
      switch (random_.below(16)) {
        case 0:
          return;  // abandoned: the reader finishes it when it moves on
        case 1:
          stream->close();
          return;
        case 2:
          stream->bytes_remaining();
          break;
        case 3:
          if (stream->skip(1 + random_.below(100)) == 0) return;
          break;
        default: {
          unsigned const n = kPieces[random_.below(sizeof kPieces / sizeof kPieces[0])];
          if (stream->read(scratch().data(), n) < n) return;
        }
      }
    }
  }

 private:
  bool step() {
    if (random_.one_in(256)) poke_kept_stream();
    if (random_.one_in(512)) close_reader();
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
    if (special(token)) return true;
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
        read_payload(open_payload(EToken::Binary));
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
        read_payload(open_payload(EToken::String));
        break;
    }
  }

  // A stream kept from an earlier element is detached by now, or still the current one.
  void poke_kept_stream() {
    PayloadStream* const kept = kept_for_poke();
    if (!kept) return;
    switch (random_.below(4)) {
      case 0:
        static_cast<void>(kept->read(scratch().data(), 1 + random_.below(16)));
        break;
      case 1:
        static_cast<void>(kept->skip(1 + random_.below(16)));
        break;
      case 2:
        kept->bytes_remaining();
        break;
      default:
        kept->close();
        break;
    }
  }

  Reader& reader_;
  Random& random_;
  int& budget_;
  std::vector<EScope> scopes_;
  std::string text_;
};

}  // namespace zofuzz
