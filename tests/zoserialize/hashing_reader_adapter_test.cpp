#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/formats.h>
#include <support/random_document.h>
#include <support/script.h>
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

// Reads every element through the adapter, choosing at random how: payloads whole, in pieces
// (reads and skips), partly or not at all; elements skipped; markers left early, possibly with a
// sequence inside still open and an element announced but not read.
class Walker {
 public:
  Walker(Reader& r, std::uint64_t seed) : r_(r), rng_(seed) {}

  void all() {
    while (!r_.is_eof())
      element();
  }

 private:
  bool chance(unsigned n) { return rng_() % n == 0; }

  void element() {
    if (chance(8)) return r_.skip_element();
    unsigned char image[64];
    switch (r_.next_token()) {
      case EToken::Null:
        return chance(2) ? r_.read_null() : (void)r_.try_read_null();
      case EToken::Boolean:
        return (void)r_.read_bool();
      case EToken::SignedInteger:
        return r_.read_int_big_endian(image, sizeof image);
      case EToken::UnsignedInteger:
        return r_.read_uint_big_endian(image, sizeof image);
      case EToken::Double:
        return (void)r_.read_double();
      case EToken::AbsoluteTime:
        return (void)r_.read_absolute_time();
      case EToken::RelativeTime:
        return (void)r_.read_relative_time();
      case EToken::Uuid:
        return (void)r_.read_uuid();
      case EToken::String:
        return payload(true);
      case EToken::Binary:
        return payload(false);
      case EToken::SequenceStart:
        return sequence();
      case EToken::MarkerStart:
        return marker();
      default:
        FAIL() << "unexpected " << r_.next_token();
    }
  }

  void payload(bool is_string) {
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
    if (form == 0) zotest::read_all(*s);
    // In pieces, reading or skipping, to the end (1) or part of the way (2).
    char block[700];
    for (unsigned k = 0; form == 1 || (form == 2 && k < 3); ++k) {
      unsigned const want = 1 + static_cast<unsigned>(rng_() % sizeof block);
      if ((chance(2) ? s->read(block, want) : s->skip(want)) < want) break;
    }
    if (form != 4) s->close();  // 4: the next operation finishes the value
  }

  void sequence() {
    r_.read_sequence_start();
    while (!abandon_ && r_.read_sequence_next()) {
      // Left with the element announced: the enclosing marker's end reads the rest.
      if (markers_ > 0 && chance(12)) abandon_ = true;
      if (!abandon_) element();
    }
  }

  void marker() {
    r_.read_marker_start();
    ++markers_;
    // An older reader stops early: read_marker_end skips the rest.
    while (!abandon_ && !r_.read_marker_is_end() && !chance(10))
      element();
    --markers_;
    abandon_ = false;
    r_.read_marker_end();
  }

  Reader& r_;
  std::mt19937_64 rng_;
  int markers_ = 0;
  bool abandon_ = false;
};

// Random documents (their payloads written whole, in pieces and from streams), each seed in the
// next format: the record written through the adapter in front of the format's writer is the
// record read back through HashingReaderAdapter in any way, and that of a copy. The archive
// written through the adapter is the archive written without it.
TEST(HashingAdapters, SameRecordWhateverFormatAndWay) {
  auto no_position = [] { return std::size_t{0}; };
  for (std::uint64_t seed = 1; seed <= 60; ++seed) {
    zotest::Format const& format = zotest::formats()[seed % zotest::formats().size()];
    SCOPED_TRACE(format.name + " seed " + std::to_string(seed));
    auto reference = make_ref_counted<StringWriteStream>();
    std::string const archive = format.write([&](Writer& w) {
      HashingWriterAdapter adapter(w, reference);
      zotest::RandomDocument(seed).write(adapter, no_position);
      adapter.close();
    });
    ASSERT_EQ(archive,
              format.write([&](Writer& w) { zotest::RandomDocument(seed).write(w, no_position); }));
    auto check = [&](std::function<void(Reader&, InterfacePtr<IWriteStream> const&)> const& run,
                     char const* way) {
      auto sink = make_ref_counted<StringWriteStream>();
      run(*format.read(archive), sink);
      EXPECT_EQ(sink->str(), reference->str()) << way;
    };
    check(
        [&](Reader& r, InterfacePtr<IWriteStream> const& sink) {
          HashingReaderAdapter adapter(r, sink);
          zotest::RandomDocument(seed).read(adapter);
          adapter.close();
        },
        "typed reads");
    for (std::uint64_t k = 0; k < 3; ++k) {
      check(
          [&](Reader& r, InterfacePtr<IWriteStream> const& sink) {
            HashingReaderAdapter adapter(r, sink);
            Walker(adapter, seed * 31 + k).all();
            adapter.close();
          },
          "reading forms");
    }
    check(
        [&](Reader& r, InterfacePtr<IWriteStream> const& sink) {
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

// The concrete type's inline front end reads the values and hashes what was written.
TEST(HashingReaderAdapter, InlineFrontEnd) {
  auto written = make_ref_counted<StringWriteStream>();
  std::string const archive = zotest::formats().front().write([&](Writer& w) {
    HashingWriterAdapter adapter(w, written);
    static_cast<Writer&>(adapter) << true << char(-3) << static_cast<signed char>(-2)
                                  << static_cast<unsigned char>(200) << short(-300)
                                  << static_cast<unsigned short>(60000) << -70000 << 4000000000u
                                  << -5L << 6UL << (-1LL << 40) << ~0ULL << -2.5 << "str";
    adapter.close();
  });
  std::tuple<bool, char, signed char, unsigned char, short, unsigned short, int, unsigned, long,
             unsigned long, long long, unsigned long long, double, std::string>
      values;
  auto sink = make_ref_counted<StringWriteStream>();
  std::shared_ptr<Reader> const wrapped = zotest::formats().front().read(archive);
  HashingReaderAdapter adapter(*wrapped, sink);
  std::apply([&](auto&... value) { (adapter >> ... >> value); }, values);
  adapter.close();
  EXPECT_EQ(sink->str(), written->str());
  std::ostringstream out;
  auto const shown = [](auto const& v) {  // characters as numbers
    if constexpr (std::is_arithmetic_v<std::decay_t<decltype(v)>>) {
      return +v;
    } else {
      return v;
    }
  };
  std::apply([&](auto const&... value) { ((out << shown(value) << ' '), ...); }, values);
  EXPECT_EQ(out.str(),
            "1 -3 -2 200 -300 60000 -70000 4000000000 -5 6 -1099511627776 18446744073709551615 "
            "-2.5 str ");
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
  long long ll = 0;
  // clang-format off
  std::vector<std::function<void()>> const operations = {
      [&] { (void)adapter.is_eof(); }, [&] { adapter.next_token(); },
      [&] { adapter.skip_element(); }, [&] { adapter.read_null(); },
      [&] { adapter.try_read_null(); }, [&] { adapter.read_bool(); },
      [&] { adapter.read_int_big_endian(image, 4); }, [&] { adapter.read_uint_big_endian(image, 4); },
      [&] { adapter.read_double(); }, [&] { adapter.read_string(ss); },
      [&] { adapter.read_string(s); }, [&] { adapter.read_string(); },
      [&] { adapter.read_string_stream(); }, [&] { adapter.read_absolute_time(); },
      [&] { adapter.read_relative_time(); }, [&] { adapter.read_uuid(); },
      [&] { adapter.read_binary(); }, [&] { adapter.read_sequence_start(); },
      [&] { adapter.read_sequence_next(); }, [&] { adapter.read_marker_start(); },
      [&] { adapter.read_marker_is_end(); }, [&] { adapter.read_marker_end(); },
      [&] { adapter.read_copy(nowhere); }, [&] { adapter >> ll; },
      [&] { adapter >> s; },
  };
  // clang-format on
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

// A payload stream counts exactly what it delivered or skipped, across skip blocks and to the end.
TEST(HashingReaderAdapter, PayloadStreamCountsWhatItPasses) {
  zotest::ScriptedReader wrapped("b" + std::string(20000, 'x') + " n");
  HashingReaderAdapter adapter(wrapped, nullptr);
  InterfacePtr<IReadStream> const stream = adapter.read_binary();
  char block[500];
  EXPECT_EQ(stream->skip(10000), 10000u);
  EXPECT_EQ(stream->read(block, sizeof block), sizeof block);
  EXPECT_EQ(stream->skip(20000), 9500u);
  EXPECT_EQ(stream->read(block, 1), 0u);
  EXPECT_EQ(stream->skip(1), 0u);
  stream->close();
  EXPECT_EQ(adapter.bytes_hashed(), 1 + 20000 + 8u);  // code, bytes, count
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
