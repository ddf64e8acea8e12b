// zoser compare: two archives, in any formats, element by element.
#include "compare.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

#include <zocore/error_exception.h>

#include "commands.h"
#include "errors.h"
#include "source.h"
#include "values.h"

namespace zoser {

namespace {

using zocore::IReadStream;
using zoserialize::Reader;
using EToken = Reader::EToken;

constexpr std::size_t kShown = 64;      // payload bytes a message shows whole
constexpr unsigned kBlock = 64 * 1024;  // payload bytes compared at a time
constexpr unsigned kImage = 128;        // integer image, wide enough for every format

std::string token_text(EToken token) {
  std::ostringstream os;
  os << token;
  return os.str();
}

std::string hex(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (char c : bytes) {
    out += kHex[static_cast<unsigned char>(c) >> 4];
    out += kHex[static_cast<unsigned char>(c) & 15];
  }
  return out;
}

std::uint64_t double_key(double v) noexcept {
  static constexpr std::uint64_t kCanonicalNaN = 0x7FF1000000000000ull;
  return v != v ? kCanonicalNaN : std::bit_cast<std::uint64_t>(v);
}

}  // namespace

// An open sequence or marker, or the top level.
struct Comparison::Frame {
  enum class EKind { kTop, kSequence, kMarker };
  EKind kind;
  std::uint64_t index = 0;  // element (top level, marker) or item (sequence)
  std::uint64_t value = 0;  // value within the current item (sequence)
  bool at_item_start = true;
};

// Two payload streams read side by side in blocks; what a message needs is kept.
class Comparison::Payloads {
 public:
  Payloads() : block_{std::make_unique<char[]>(kBlock), std::make_unique<char[]>(kBlock)} {}

  // Reads one payload to its end: its size and its first kShown bytes.
  std::pair<std::uint64_t, std::string> drain(IReadStream& s) {
    std::uint64_t size = 0;
    std::string head;
    for (;;) {
      unsigned const n = s.read(block_[0].get(), kBlock);
      if (head.size() < kShown + 1)
        head.append(block_[0].get(), std::min<std::size_t>(n, kShown + 1 - head.size()));
      size += n;
      if (n < kBlock) return {size, head};
    }
  }

  std::unique_ptr<char[]> block_[2];
};

Comparison::Comparison(Reader& a, Reader& b) : a_(a), b_(b) {}
Comparison::~Comparison() = default;

std::string Comparison::describe(int side, bool nested) {
  Reader& r = on(side);
  EToken const token = r.next_token();
  // An input that ends inside a sequence or marker is damaged, not different: its reader says
  // so when asked for the element that is missing.
  if (token == EToken::Eof && nested) on(side).skip_element();
  std::string name = token_text(token);
  switch (token) {
    case EToken::Null:
      on(side).read_null();
      return name;
    case EToken::Boolean:
      return name + (on(side).read_bool() ? " true" : " false");
    case EToken::SignedInteger:
    case EToken::UnsignedInteger: {
      unsigned char image[kImage];
      bool const is_signed = token == EToken::SignedInteger;
      if (is_signed) {
        on(side).read_int_big_endian(image, kImage);
      } else {
        on(side).read_uint_big_endian(image, kImage);
      }
      return name + " " + image_to_decimal(image, kImage, is_signed);
    }
    case EToken::Double:
      return name + " " + double_text(on(side).read_double());
    case EToken::String:
    case EToken::Binary: {
      if (!payloads_) payloads_ = std::make_unique<Payloads>();
      zocore::InterfacePtr<IReadStream> const s =
          token == EToken::String ? on(side).read_string_stream() : on(side).read_binary();
      side_ = side;
      auto const [size, head] = payloads_->drain(*s);
      if (size > kShown) return name + " (" + std::to_string(size) + " bytes)";
      return name + " " + (token == EToken::String ? quoted(head, kShown) : hex(head));
    }
    case EToken::AbsoluteTime: {
      zocore::AbsoluteTime const t = on(side).read_absolute_time();
      return name + " " + (t.is_infinite() ? std::string("inf") : t.as_string());
    }
    case EToken::RelativeTime:
      return name + " " + on(side).read_relative_time().as_string();
    case EToken::Uuid:
      return name + " " + on(side).read_uuid().as_string();
    default:  // scopes and the end are named only
      return name;
  }
}

std::string Comparison::compare_payloads(bool binary) {
  if (!payloads_) payloads_ = std::make_unique<Payloads>();
  zocore::InterfacePtr<IReadStream> const sa =
      binary ? A().read_binary() : A().read_string_stream();
  zocore::InterfacePtr<IReadStream> const sb =
      binary ? B().read_binary() : B().read_string_stream();
  std::uint64_t offset = 0;
  for (;;) {
    side_ = 0;
    unsigned const na = sa->read(payloads_->block_[0].get(), kBlock);
    side_ = 1;
    unsigned const nb = sb->read(payloads_->block_[1].get(), kBlock);
    unsigned const common = std::min(na, nb);
    auto const* const pa = payloads_->block_[0].get();
    auto const* const pb = payloads_->block_[1].get();
    unsigned at = static_cast<unsigned>(std::mismatch(pa, pa + common, pb).first - pa);
    if (at == common && na == nb) {
      if (na < kBlock) return {};  // both ended together, equal
      offset += na;
      continue;
    }
    // They differ at offset + at. Measure both to their ends for the message.
    std::uint64_t const first = offset + at;
    std::string head[2];
    std::uint64_t size[2];
    for (int side = 0; side < 2; ++side) {
      unsigned const n = side == 0 ? na : nb;
      char const* const p = payloads_->block_[side].get();
      head[side] = offset < kShown + 1
                       ? std::string(p, std::min<std::size_t>(n, kShown + 1 - offset))
                       : std::string();
      size[side] = offset + n;
      if (n == kBlock) {
        side_ = side;
        size[side] += payloads_->drain(side == 0 ? *sa : *sb).first;
      }
    }
    char const* const kind = binary ? "Binary" : "String";
    std::string shown[2];
    for (int side = 0; side < 2; ++side) {
      if (size[side] > kShown || offset != 0) {
        shown[side] = std::string(kind) + " (" + std::to_string(size[side]) + " bytes)";
      } else {
        shown[side] =
            std::string(kind) + " " + (binary ? hex(head[side]) : quoted(head[side], kShown));
      }
    }
    std::string text = shown[0] + " != " + shown[1];
    if (size[0] > kShown || size[1] > kShown)
      text += ", first difference at byte " + std::to_string(first);
    return text;
  }
}

std::string Comparison::compare_scalars(EToken token) {
  switch (token) {
    case EToken::Null:
      A().read_null();
      B().read_null();
      return {};
    case EToken::Boolean: {
      bool const va = A().read_bool();
      bool const vb = B().read_bool();
      if (va == vb) return {};
      return std::string("Boolean ") + (va ? "true" : "false") + " != Boolean " +
             (vb ? "true" : "false");
    }
    case EToken::SignedInteger:
    case EToken::UnsignedInteger: {
      unsigned char ia[kImage];
      unsigned char ib[kImage];
      bool const is_signed = token == EToken::SignedInteger;
      if (is_signed) {
        A().read_int_big_endian(ia, kImage);
        B().read_int_big_endian(ib, kImage);
      } else {
        A().read_uint_big_endian(ia, kImage);
        B().read_uint_big_endian(ib, kImage);
      }
      if (std::memcmp(ia, ib, kImage) == 0) return {};
      std::string const name = token_text(token);
      return name + " " + image_to_decimal(ia, kImage, is_signed) + " != " + name + " " +
             image_to_decimal(ib, kImage, is_signed);
    }
    case EToken::Double: {
      double const va = A().read_double();
      double const vb = B().read_double();
      if (double_key(va) == double_key(vb)) return {};
      return "Double " + double_text(va) + " != Double " + double_text(vb);
    }
    case EToken::String:
      return compare_payloads(false);
    case EToken::Binary:
      return compare_payloads(true);
    case EToken::AbsoluteTime: {
      zocore::AbsoluteTime const va = A().read_absolute_time();
      zocore::AbsoluteTime const vb = B().read_absolute_time();
      if (va.count() == vb.count()) return {};
      auto text = [](zocore::AbsoluteTime t) {
        return t.is_infinite() ? std::string("inf") : t.as_string();
      };
      return "AbsoluteTime " + text(va) + " != AbsoluteTime " + text(vb);
    }
    case EToken::RelativeTime: {
      zocore::RelativeTime const va = A().read_relative_time();
      zocore::RelativeTime const vb = B().read_relative_time();
      if (va.count() == vb.count()) return {};
      return "RelativeTime " + va.as_string() + " != RelativeTime " + vb.as_string();
    }
    case EToken::Uuid: {
      zocore::Uuid const va = A().read_uuid();
      zocore::Uuid const vb = B().read_uuid();
      if (va == vb) return {};
      return "Uuid " + va.as_string() + " != Uuid " + vb.as_string();
    }
    default:
      // Not the start of an element: the library's comparison raises the proper error.
      side_ = 0;
      Reader::read_compare_equal(a_, b_);
      return "unexpected " + token_text(token);
  }
}

std::optional<std::string> Comparison::run() {
  std::vector<Frame> frames{{Frame::EKind::kTop}};
  auto path = [&frames] {
    std::string p;
    for (Frame const& f : frames) {
      switch (f.kind) {
        case Frame::EKind::kTop:
          p += "/" + std::to_string(f.index);
          break;
        case Frame::EKind::kMarker:
          p += "/marker/" + std::to_string(f.index);
          break;
        case Frame::EKind::kSequence:
          p += "/sequence/" + std::to_string(f.index);
          if (f.value != 0) p += "." + std::to_string(f.value);
          break;
      }
    }
    return p;
  };
  auto differ = [&](std::string const& text) { return path() + ": " + text; };
  auto advance = [&frames] {
    Frame& f = frames.back();
    if (f.kind == Frame::EKind::kSequence) {
      ++f.value;
    } else {
      ++f.index;
    }
  };

  for (;;) {
    Frame& f = frames.back();
    // What comes next in the current scope, on both sides.
    if (f.kind == Frame::EKind::kTop) {
      bool const ea = A().is_eof();
      bool const eb = B().is_eof();
      if (ea && eb) return std::nullopt;
      if (ea || eb) {
        return differ((ea ? std::string("EOF") : describe(0, frames.size() > 1)) +
                      " != " + (eb ? std::string("EOF") : describe(1, frames.size() > 1)));
      }
    } else if (f.kind == Frame::EKind::kMarker) {
      bool const ea = A().read_marker_is_end();
      bool const eb = B().read_marker_is_end();
      if (ea && eb) {
        A().read_marker_end();
        B().read_marker_end();
        frames.pop_back();
        advance();
        continue;
      }
      if (ea || eb) {
        return differ((ea ? std::string("MarkerEnd") : describe(0, frames.size() > 1)) +
                      " != " + (eb ? std::string("MarkerEnd") : describe(1, frames.size() > 1)));
      }
    } else {
      if (f.at_item_start) {
        bool const na = A().read_sequence_next();
        bool const nb = B().read_sequence_next();
        if (!na && !nb) {
          frames.pop_back();
          advance();
          continue;
        }
        if (na != nb) {
          return differ(
              (na ? describe(0, frames.size() > 1) : std::string("SequenceEnd")) +
              " != " + (nb ? describe(1, frames.size() > 1) : std::string("SequenceEnd")));
        }
        f.at_item_start = false;
        f.value = 0;
      }
      EToken const ta = A().next_token();
      EToken const tb = B().next_token();
      auto const ends_item = [](EToken t) {
        return t == EToken::SequenceSeparator || t == EToken::SequenceEnd;
      };
      if (ends_item(ta) && ends_item(tb)) {
        f.at_item_start = true;
        ++f.index;
        f.value = 0;
        continue;
      }
      if (ends_item(ta) || ends_item(tb))
        return differ(describe(0, frames.size() > 1) + " != " + describe(1, frames.size() > 1));
    }

    // One element at path().
    EToken const ta = A().next_token();
    EToken const tb = B().next_token();
    if (ta != tb)
      return differ(describe(0, frames.size() > 1) + " != " + describe(1, frames.size() > 1));
    if (ta == EToken::SequenceStart) {
      A().read_sequence_start();
      B().read_sequence_start();
      frames.push_back({Frame::EKind::kSequence});
      continue;
    }
    if (ta == EToken::MarkerStart) {
      A().read_marker_start();
      B().read_marker_start();
      frames.push_back({Frame::EKind::kMarker});
      continue;
    }
    if (std::string text = compare_scalars(ta); !text.empty()) return differ(text);
    advance();
  }
}

namespace {

constexpr OptionSpec kOptions[] = {
    {"help", 'h', false},
    {"from", 'f', true},
    {"quiet", 'q', false},
};

constexpr char kHelp[] = R"help(Usage: zoser compare [OPTIONS] A B

Compares the archives A and B element by element; they may be in different formats ("-" reads
one of them from standard input). When they are equal it prints "A and B are equal"; otherwise
the first difference and where it is:

  /2/marker/3: SignedInteger 5 != SignedInteger 6

"/2" is the third top-level element, "/marker/3" the fourth element inside that marker;
"/sequence/4" is the fifth item of a sequence (".1" is added for the second value of an item that
holds several). Count hints are not compared; doubles compare by their bits, every NaN alike;
equal archives have equal hashes.

Options:
  -f, --from FORMAT    format of both inputs (binary, text, xml); detected for each when not given
  -q, --quiet          print nothing; the exit status tells
  -h, --help           show this help

Exit status: 0 when equal, 1 when different, 2 on any error.
)help";

int run(Arguments const& args) {
  static constexpr char const* kNames[] = {"A", "B"};
  args.expect_positionals(2, 2, kNames);
  std::string const& name_a = args.positionals()[0];
  std::string const& name_b = args.positionals()[1];
  Format const* const from = input_format_option(args);
  std::unique_ptr<Source> sources[2];
  for (int side = 0; side < 2; ++side) {
    std::string const& name = side == 0 ? name_a : name_b;
    sources[side] = Source::open(name, from, Progress::EMode::kOff);
    if (!sources[side]) return kExitError;
  }
  Comparison comparison(sources[0]->reader(), sources[1]->reader());
  std::optional<std::string> difference;
  try {
    difference = comparison.run();
  } catch (zocore::ErrorException const& e) {
    sources[comparison.failing_side()]->report(*e.info());
    return kExitError;
  }
  bool const quiet = args.has("quiet");
  if (difference) {
    if (!quiet) print_out(*difference + "\n");
    return kExitDifferent;
  }
  if (!quiet) print_out(name_a + " and " + name_b + " are equal\n");
  return kExitOk;
}

}  // namespace

Command const compare_command = {"compare", "compare two archives element by element", kHelp,
                                 kOptions, &run};

}  // namespace zoser
