#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/formats.h>
#include <support/random_document.h>
#include <support/scripted_reader.h>
#include <zocore/memory_stream.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/hashing_reader_adapter.h>
#include <zoserialize/hashing_writer_adapter.h>

namespace zoserialize {
namespace {

using zocore::make_ref_counted;
using zocore::StringWriteStream;
using EToken = Reader::EToken;

std::string read_all(IReadStream& s) {
  std::string out;
  char block[1000];
  for (unsigned n; (n = s.read(block, sizeof block)) != 0;)
    out.append(block, n);
  return out;
}

// Walks every element of a reader, choosing at random how to read it. With a writer it copies
// what it reads, choosing how to write each payload (whole, through the value stream in pieces,
// from the reader's stream); without one it varies the reading: payloads read whole, in pieces,
// partly or not at all, elements skipped, markers left early, possibly with a sequence inside
// them still open and an element announced but not read.
class Walker {
 public:
  Walker(Reader& r, Writer* w, std::uint64_t seed) : r_(r), w_(w), rng_(seed) {}

  void all() {
    while (!r_.is_eof())
      element();
  }

 private:
  bool chance(unsigned n) { return rng_() % n == 0; }
  unsigned piece() { return 1 + static_cast<unsigned>(rng_() % 700); }

  void element() {
    if (!w_ && chance(8)) return r_.skip_element();
    EToken const t = r_.next_token();
    unsigned char image[64];
    switch (t) {
      case EToken::Null:
        if (chance(2)) {
          EXPECT_TRUE(r_.try_read_null());
        } else {
          r_.read_null();
        }
        if (w_) w_->write_null();
        return;
      case EToken::Boolean: {
        bool const v = r_.read_bool();
        if (w_) w_->write_bool(v);
        return;
      }
      case EToken::SignedInteger:
        r_.read_int_big_endian(image, sizeof image);
        if (w_) w_->write_int_big_endian(image, sizeof image);
        return;
      case EToken::UnsignedInteger:
        r_.read_uint_big_endian(image, sizeof image);
        if (w_) w_->write_uint_big_endian(image, sizeof image);
        return;
      case EToken::Double: {
        double const v = r_.read_double();
        if (w_) w_->write_double(v);
        return;
      }
      case EToken::AbsoluteTime: {
        AbsoluteTime const v = r_.read_absolute_time();
        if (w_) w_->write_absolute_time(v);
        return;
      }
      case EToken::RelativeTime: {
        RelativeTime const v = r_.read_relative_time();
        if (w_) w_->write_relative_time(v);
        return;
      }
      case EToken::Uuid: {
        Uuid const v = r_.read_uuid();
        if (w_) w_->write_uuid(v);
        return;
      }
      case EToken::String:
      case EToken::Binary:
        return w_ ? copy_payload(t == EToken::String) : read_payload(t == EToken::String);
      case EToken::SequenceStart:
        return sequence();
      case EToken::MarkerStart:
        return marker();
      default:
        FAIL() << "unexpected " << t;
    }
  }

  void copy_payload(bool is_string) {
    InterfacePtr<IReadStream> const s = is_string ? r_.read_string_stream() : r_.read_binary();
    switch (rng_() % 3) {
      case 0: {
        std::string const v = read_all(*s);
        is_string ? w_->write_string(v.data(), unsigned(v.size()))
                  : w_->write_binary(v.data(), unsigned(v.size()));
        return;
      }
      case 1: {
        InterfacePtr<IWriteStream> const out =
            is_string ? w_->write_string_stream() : w_->write_binary();
        std::string block(700, '\0');
        for (unsigned n = 1; n != 0;) {
          n = s->read(block.data(), piece());
          out->write(block.data(), n);
        }
        if (chance(2)) out->close();  // else the next operation ends the value
        return;
      }
      default:
        is_string ? w_->write_string_stream(*s) : w_->write_binary(*s);
    }
  }

  void read_payload(bool is_string) {
    unsigned const form = rng_() % 5;
    if (form == 0 && is_string) {
      std::string v;
      SourceString ss;
      unsigned const overload = rng_() % 3;
      if (overload == 0) r_.read_string(v);
      if (overload == 1) v = r_.read_string();
      if (overload == 2) r_.read_string(ss);
      return;
    }
    InterfacePtr<IReadStream> const s = is_string ? r_.read_string_stream() : r_.read_binary();
    char block[700];
    if (form == 0) read_all(*s);
    // In pieces, reading or skipping, to the end (1) or part of the way (2).
    for (unsigned k = 0; form == 1 || (form == 2 && k < 3); ++k) {
      unsigned const want = piece();
      if ((chance(2) ? s->read(block, want) : s->skip(want)) < want) break;
    }
    if (form != 4) s->close();  // 4: the next operation finishes the value
  }

  void sequence() {
    unsigned const hint = r_.read_sequence_start();
    if (w_) hint != 0 ? w_->write_sequence_start(hint) : w_->write_sequence_start();
    for (bool first = true; !abandon_ && r_.read_sequence_next(); first = false) {
      // Left with the element announced: the enclosing marker's end reads the rest.
      if (!w_ && markers_ > 0 && chance(12)) abandon_ = true;
      if (abandon_) return;
      if (w_ && !first) w_->write_sequence_separator();
      element();
    }
    if (w_ && !abandon_) w_->write_sequence_end();
  }

  void marker() {
    r_.read_marker_start();
    if (w_) w_->write_marker_start();
    ++markers_;
    while (!abandon_ && !r_.read_marker_is_end()) {
      if (!w_ && chance(10)) break;  // an older reader: read_marker_end skips the rest
      element();
    }
    --markers_;
    abandon_ = false;
    r_.read_marker_end();
    if (w_) w_->write_marker_end();
  }

  Reader& r_;
  Writer* w_;
  std::mt19937_64 rng_;
  int markers_ = 0;
  bool abandon_ = false;
};

// Random documents in every format: the record is the same written through the adapter in front
// of the format's writer, read back through HashingReaderAdapter in any way, and written again
// through HashingWriterAdapter in any form. The archive written through the adapter is the
// archive written without it.
TEST(HashingAdapters, SameRecordWhateverFormatAndWay) {
  auto no_position = [] { return std::size_t{0}; };
  for (zotest::Format const& format : zotest::formats()) {
    for (std::uint64_t seed = 1; seed <= 25; ++seed) {
      SCOPED_TRACE(format.name + " seed " + std::to_string(seed));
      auto reference = make_ref_counted<StringWriteStream>();
      std::string const archive = format.write([&](Writer& w) {
        HashingWriterAdapter adapter(w, reference);
        zotest::RandomDocument(seed).write(adapter, no_position);
        adapter.close();
      });
      ASSERT_EQ(archive, format.write([&](Writer& w) {
        zotest::RandomDocument(seed).write(w, no_position);
      }));
      auto check = [&](std::function<void(Reader&, InterfacePtr<IWriteStream>)> const& run,
                       char const* way) {
        auto sink = make_ref_counted<StringWriteStream>();
        run(*format.read(archive), sink);
        EXPECT_EQ(sink->str(), reference->str()) << way;
      };
      check(
          [&](Reader& r, InterfacePtr<IWriteStream> sink) {
            HashingReaderAdapter adapter(r, sink);
            zotest::RandomDocument(seed).read(adapter);
            adapter.close();
          },
          "typed reads");
      for (std::uint64_t k = 0; k < 3; ++k) {
        check(
            [&](Reader& r, InterfacePtr<IWriteStream> sink) {
              HashingReaderAdapter adapter(r, sink);
              Walker(adapter, nullptr, seed * 31 + k).all();
              adapter.close();
            },
            "reading forms");
      }
      check(
          [&](Reader& r, InterfacePtr<IWriteStream> sink) {
            HashingWriterAdapter adapter(sink);
            Walker(r, &adapter, seed).all();
            adapter.close();
          },
          "writing forms");
      check(
          [&](Reader& r, InterfacePtr<IWriteStream> sink) {
            auto copied = make_ref_counted<StringWriteStream>();
            HashingReaderAdapter reading(r, sink);
            HashingWriterAdapter writing(copied);
            reading.read_copy_all(writing);
            reading.close();
            writing.close();
            EXPECT_EQ(copied->str(), reference->str()) << "copy written";
          },
          "copy read");
    }
  }
}

// "abc" hashes 6, "abc", its count, whether read whole, through its stream, or not at all.
TEST(HashingReaderAdapter, PayloadReadAnyWay) {
  std::string const expected = std::string(
                                   "\x06"
                                   "abc") +
                               std::string(7, '\0') + "\x03" + "\x01" + std::string(7, '\0') +
                               "\x0D";
  std::vector<std::function<void(Reader&)>> const ways = {
      [](Reader& r) { r.read_string(); },
      [](Reader& r) { EXPECT_EQ(read_all(*r.read_string_stream()), "abc"); },
      [](Reader& r) { r.read_string_stream()->close(); },
      [](Reader& r) { r.read_string_stream(); },
      [](Reader& r) {
        InterfacePtr<IReadStream> const s = r.read_string_stream();
        EXPECT_EQ(s->skip(2), 2u);
        EXPECT_EQ(s->bytes_remaining(), 1u);
      },
      [](Reader& r) { r.skip_element(); },
  };
  for (std::size_t i = 0; i < ways.size(); ++i) {
    zotest::ScriptedReader wrapped("sabc n");
    auto sink = make_ref_counted<StringWriteStream>();
    HashingReaderAdapter adapter(wrapped, sink);
    ways[i](adapter);
    adapter.read_null();
    adapter.close();
    EXPECT_EQ(sink->str(), expected) << "way " << i;
  }
}

// The concrete type's inline front end reads the values and hashes the records of Reader's.
TEST(HashingReaderAdapter, InlineFrontEndMatchesReader) {
  std::string const archive = zotest::formats().front().write([](Writer& w) {
    w << true << char(-3) << static_cast<signed char>(-2) << static_cast<unsigned char>(200)
      << short(-300) << static_cast<unsigned short>(60000) << -70000 << 4000000000u << -5L << 6UL
      << (-1LL << 40) << ~0ULL << -2.5 << "str";
  });
  struct Values {
    bool b = false;
    char c = 0;
    signed char sc = 0;
    unsigned char uc = 0;
    short s = 0;
    unsigned short us = 0;
    int i = 0;
    unsigned u = 0;
    long l = 0;
    unsigned long ul = 0;
    long long ll = 0;
    unsigned long long ull = 0;
    double d = 0;
    std::string str;
  };
  auto read = [&](auto& r, Values& v) {
    r >> v.b >> v.c >> v.sc >> v.uc >> v.s >> v.us >> v.i >> v.u >> v.l >> v.ul >> v.ll >> v.ull >>
        v.d >> v.str;
  };
  Values concrete, generic;
  auto hashed = [&](bool use_concrete, Values& values) {
    auto sink = make_ref_counted<StringWriteStream>();
    std::shared_ptr<Reader> const wrapped = zotest::formats().front().read(archive);
    HashingReaderAdapter adapter(*wrapped, sink);
    if (use_concrete) {
      read(adapter, values);
    } else {
      read(static_cast<Reader&>(adapter), values);
    }
    adapter.close();
    return sink->str();
  };
  EXPECT_EQ(hashed(true, concrete), hashed(false, generic));
  EXPECT_EQ(concrete.c, char(-3));
  EXPECT_EQ(concrete.ull, ~0ULL);
  EXPECT_EQ(concrete.str, generic.str);
  EXPECT_EQ(concrete.ll, generic.ll);
  EXPECT_EQ(concrete.d, -2.5);
}

TEST(HashingReaderAdapter, ClosedAdapterRefusesEveryOperation) {
  zotest::ScriptedReader wrapped("n n");
  HashingReaderAdapter adapter(wrapped, nullptr);
  adapter.close();
  adapter.close();      // harmless
  wrapped.read_null();  // the wrapped reader was not closed
  unsigned char image[4];
  std::string s;
  SourceString ss;
  HashingWriterAdapter nowhere(nullptr);
  std::vector<std::function<void()>> const operations = {
      [&] { (void)adapter.is_eof(); },
      [&] { adapter.next_token(); },
      [&] { adapter.skip_element(); },
      [&] { adapter.read_null(); },
      [&] { adapter.try_read_null(); },
      [&] { adapter.read_bool(); },
      [&] { adapter.read_int_big_endian(image, 4); },
      [&] { adapter.read_uint_big_endian(image, 4); },
      [&] { adapter.read_double(); },
      [&] { adapter.read_string(ss); },
      [&] { adapter.read_string(s); },
      [&] { adapter.read_string(); },
      [&] { adapter.read_string_stream(); },
      [&] { adapter.read_absolute_time(); },
      [&] { adapter.read_relative_time(); },
      [&] { adapter.read_uuid(); },
      [&] { adapter.read_binary(); },
      [&] { adapter.read_sequence_start(); },
      [&] { adapter.read_sequence_next(); },
      [&] { adapter.read_marker_start(); },
      [&] { adapter.read_marker_is_end(); },
      [&] { adapter.read_marker_end(); },
      [&] { adapter.read_copy(nowhere); },
  };
  for (std::size_t i = 0; i < operations.size(); ++i) {
    zotest::ErrorPtr const info = ZO_EXPECT_ERROR(operations[i](), error::zoserialize_reader_closed,
                                                  "HashingReaderAdapter has already been closed");
    EXPECT_EQ(info ? std::string(info->location().function().view()) : "",
              "zoserialize::HashingReaderAdapter::finalize_previous()")
        << "operation " << i;
  }
}

TEST(HashingReaderAdapter, StreamUsedAfterItsValueEnded) {
  std::vector<std::pair<char const*, std::function<void(std::unique_ptr<HashingReaderAdapter>&,
                                                        IReadStream&)>>> const enders = {
      {"stream close", [](auto&, IReadStream& s) { s.close(); }},
      {"next operation", [](auto& a, IReadStream&) { a->next_token(); }},
      {"adapter close", [](auto& a, IReadStream&) { a->close(); }},
      {"adapter gone", [](auto& a, IReadStream&) { a.reset(); }},
  };
  char byte;
  std::vector<std::pair<char const*, std::function<void(IReadStream&)>>> const uses = {
      {"read", [&](IReadStream& s) { s.read(&byte, 1); }},
      {"skip", [](IReadStream& s) { s.skip(1); }},
      {"bytes_remaining", [](IReadStream& s) { (void)s.bytes_remaining(); }},
  };
  for (auto const& ender : enders) {
    for (auto const& use : uses) {
      SCOPED_TRACE(std::string(ender.first) + ", " + use.first);
      zotest::ScriptedReader wrapped("bxyz n");
      auto adapter = std::make_unique<HashingReaderAdapter>(wrapped, nullptr);
      InterfacePtr<IReadStream> const stream = adapter->read_binary();
      ender.second(adapter, *stream);
      zotest::ErrorPtr const info =
          ZO_EXPECT_ERROR(use.second(*stream), error::zoserialize_writer_state,
                          "Binary stream reader object has already been closed");
      EXPECT_EQ(
          info ? std::string(info->location().function().view()) : "",
          std::string("zoserialize::HashingReaderAdapter::ReadStreamAdapter::") + use.first + "()");
    }
  }
}

TEST(HashingReaderAdapter, IntegerTooLongForItsLengthByte) {
  std::string const too_long = "01" + std::string(510, '0');
  for (char kind : {'i', 'u'}) {
    zotest::ScriptedReader wrapped(kind + too_long);
    HashingReaderAdapter adapter(wrapped, nullptr);
    unsigned char image[300];
    zotest::ErrorPtr const info = ZO_EXPECT_ERROR(
        kind == 'i' ? adapter.read_int_big_endian(image, 300)
                    : adapter.read_uint_big_endian(image, 300),
        error::zoserialize_reader_data_type_range,
        "Integer too long to hash: its minimal form exceeds 255 bytes.  Size={@size}");
    EXPECT_EQ(zotest::param(info, "size"), "256");
    EXPECT_EQ(info ? std::string(info->location().function().view()) : "",
              kind == 'i' ? "zoserialize::HashingReaderAdapter::read_int_big_endian()"
                          : "zoserialize::HashingReaderAdapter::read_uint_big_endian()");
  }
}

// A failure of the wrapped reader passes through; the record holds what was read before it.
TEST(HashingReaderAdapter, WrappedFailurePassesThrough) {
  zotest::ScriptedReader wrapped("t");
  auto sink = make_ref_counted<StringWriteStream>();
  HashingReaderAdapter adapter(wrapped, sink);
  EXPECT_TRUE(adapter.read_bool());
  EXPECT_THROW(adapter.read_null(), zocore::ErrorException);
  adapter.close();
  EXPECT_EQ(sink->str(), std::string("\x02\x00", 2) + std::string(7, '\0') + "\x02");
}

}  // namespace
}  // namespace zoserialize
