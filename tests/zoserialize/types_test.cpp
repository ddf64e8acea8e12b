#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <support/error_matchers.h>
#include <support/formats.h>
#include <support/hex_bytes.h>
#include <support/memory_lists.h>
#include <support/recording_writer.h>
#include <support/test_streams.h>
#include <zocore/memory_stream.h>
#include <zoserialize/types.h>

namespace demo {

using namespace std::chrono_literals;

enum class Color : std::uint8_t { red, green, blue = 200 };
enum class Tiny : std::int8_t { low = -100, high = 100 };
enum Shape { circle, square, triangle };  // no fixed underlying type: readable with a range
constexpr zoserialize::EnumRange<Shape> zoserialize_enum_range(Shape) {
  return {circle, triangle};
}

struct Author {
  std::string name;
  std::int32_t born = 0;
  friend bool operator==(Author const&, Author const&) = default;
};
ZOSERIALIZE_FIELDS(Author, name, born)

// Fields declared by a member, a binary view and a C array among them.
struct Book {
  std::int64_t id = 0;
  std::string title;
  std::vector<Author> authors;
  std::optional<double> rating;
  std::map<std::string, std::vector<int>> notes;
  Color color = Color::red;
  std::vector<char> cover;
  int shelf[2] = {0, 0};
  template <class A>
  void fields(A& a) {
    a(id, title, authors, rating)(notes, color, zoserialize::as_binary(cover), shelf);
  }
  friend bool operator==(Book const&, Book const&) = default;
};

// Travels by its own hooks, as a bare double.
struct Celsius {
  double degrees = 0;
  friend bool operator==(Celsius const&, Celsius const&) = default;
};
void zoserialize_write(zoserialize::Writer& w, Celsius const& c) {
  w << c.degrees;
}
void zoserialize_read(zoserialize::Reader& r, Celsius& c) {
  c.degrees = r.read_double();
}

// Version 1 and version 2 of the same records: version 2 appends fields, nested and at the top.
struct PartV1 {
  std::int32_t id = 0;
  std::string name;
  friend bool operator==(PartV1 const&, PartV1 const&) = default;
};
ZOSERIALIZE_FIELDS(PartV1, id, name)
struct ItemV1 {
  std::string title;
  PartV1 part;
  std::vector<PartV1> parts;
  friend bool operator==(ItemV1 const&, ItemV1 const&) = default;
};
ZOSERIALIZE_FIELDS(ItemV1, title, part, parts)
struct PartV2 {
  std::int32_t id = 0;
  std::string name;
  double weight = 2.5;
  std::vector<std::string> tags{"untagged"};
  friend bool operator==(PartV2 const&, PartV2 const&) = default;
};
ZOSERIALIZE_FIELDS(PartV2, id, name, weight, tags)
struct ItemV2 {
  std::string title;
  PartV2 part;
  std::vector<PartV2> parts;
  std::map<std::string, PartV2> extras{{"spare", {}}};
  std::optional<int> priority = 7;
  friend bool operator==(ItemV2 const&, ItemV2 const&) = default;
};
ZOSERIALIZE_FIELDS(ItemV2, title, part, parts, extras, priority)

// Its construction from an int fails half-way, leaving a variant without a value.
struct Explosive {
  Explosive() = default;
  explicit Explosive(int) { throw 1; }
  Explosive(Explosive const&) {}  // not trivially copyable: emplace destroys the old value first
  template <class A>
  void fields(A&) {}
};

}  // namespace demo

namespace {

using namespace zoserialize;  // NOLINT(google-build-using-namespace): the tables read better
using namespace demo;
using zotest::Format;

Book sample_book(std::int64_t id) {
  Book b;
  b.id = id, b.title = "Book " + std::to_string(id), b.authors = {{"Ada", 1971}, {"Bo", -44}};
  b.rating = 4.5, b.notes = {{"x", {1, 2}}}, b.color = Color::blue, b.cover = {'\x89', 'P', '\0'};
  b.shelf[1] = -4;
  return b;
}

// Pointers compare by what they point to.
template <class T>
bool same(T const& a, T const& b) {
  if constexpr (requires { a.get(); }) {
    return a ? b && *a == *b : !b;
  } else {
    return a == b;
  }
}

// A test case: samples of one type (empty, one element, many where that applies).
template <auto Samples>
struct Case {
  using Value = typename decltype(Samples())::value_type;
  static auto samples() { return Samples(); }
};
template <class P>
std::vector<P> pointers() {
  std::vector<P> out(2);
  out[1].reset(new typename P::element_type{sample_book(9)});
  return out;
}
template <class... T>
using Many = std::vector<std::tuple<T...>>;
using TP = std::chrono::system_clock::time_point;

// clang-format off
using Cases = ::testing::Types<
    Case<[] { return std::vector<std::vector<int>>{{}, {7}, {1, -2, 300000}}; }>,
    Case<[] { return std::vector<std::vector<Book>>{{}, {sample_book(1)}, {{}, sample_book(2)}}; }>,
    Case<[] { return std::vector<std::deque<std::string>>{{}, {"a"}, {"a", "", "c"}}; }>,
    Case<[] { return std::vector<std::list<Author>>{{}, {{"A", 1}, {"B", 2}}}; }>,
    Case<[] { return std::vector<std::array<short, 3>>{{}, {1, -2, 3}}; }>,
    Case<[] { return std::vector<std::set<std::string>>{{}, {"x"}, {"a", "b", "c"}}; }>,
    Case<[] { return std::vector<std::unordered_set<int>>{{}, {5}, {1, 2, 3}}; }>,
    Case<[] { return std::vector<std::map<std::string, std::vector<int>>>{{}, {{"k", {1}}, {"l", {}}}}; }>,
    Case<[] { return std::vector<std::unordered_map<int, Author>>{{}, {{1, {"A", 1}}, {2, {}}}}; }>,
    Case<[] { return std::vector<std::pair<int, std::string>>{{}, {-1, "z"}}; }>,
    Case<[] { return Many<bool, double, Author, Celsius>{{}, {true, 0.5, {"A", 3}, {21.5}}}; }>,
    Case<[] { return std::vector<std::optional<Author>>{{}, Author{"A", 1}}; }>,
    Case<[] { return std::vector<std::variant<std::monostate, int, std::string, Book>>{{}, 3, "s", sample_book(4)}; }>,
    Case<pointers<std::unique_ptr<Book>>>,
    Case<pointers<std::shared_ptr<Book>>>,
    Case<[] { return std::vector<std::vector<std::byte>>{{}, {std::byte{0xFF}}, std::vector<std::byte>(100000)}; }>,
    Case<[] { return std::vector<std::vector<unsigned char>>{{}, {1, 2, 3}}; }>,
    Case<[] { return std::vector<std::vector<bool>>{{}, {true}, {true, false, true}}; }>,
    Case<[] { return Many<std::chrono::nanoseconds, std::chrono::minutes, std::chrono::duration<double>>{
                  {}, {-1ns, 90min, 1.5s}, {std::chrono::nanoseconds::max(), std::chrono::minutes::max(), -0.25s}}; }>,
    Case<[] { return std::vector<std::vector<TP>>{{TP{}, TP{1700000000123456789ns}, TP::max(), TP{-1s}}}; }>,
    Case<[] { return Many<Color, Tiny, Shape>{{}, {Color::blue, Tiny::low, triangle}}; }>>;
// clang-format on

template <class C>
class TypesRoundTripTest : public ::testing::Test {};
TYPED_TEST_SUITE(TypesRoundTripTest, Cases);

// Through Writer& / Reader& in every format, through the concrete binary and memory archives of
// the conversions; each read goes into a value that holds another sample, which must vanish.
TYPED_TEST(TypesRoundTripTest, EverySampleComesBackThroughEveryFormat) {
  using V = typename TypeParam::Value;
  std::vector<V> const samples = TypeParam::samples();
  for (std::size_t i = 0; i < samples.size(); ++i) {
    V const& original = samples[i];
    std::string const binary = to_binary(original);
    EXPECT_TRUE(same(from_binary<V>(binary), original)) << "from_binary, sample " << i;
    EXPECT_TRUE(same(from_memory_list<V>(to_memory_list(original)), original))
        << "memory list " << i;
    EXPECT_TRUE(same(from_text<V>(to_text(original)), original)) << "text " << i;
    EXPECT_TRUE(same(from_xml<V>(to_xml(original, "  ", "\n")), original)) << "xml " << i;
    for (Format const& format : zotest::formats()) {
      std::string const bytes = format.write([&](Writer& w) { write_value(w, original); });
      if (format.name == "Binary") {
        EXPECT_EQ(zotest::hex(bytes), zotest::hex(binary));  // the concrete and generic paths
      }
      std::vector<V> others = TypeParam::samples();
      V back = std::move(others[(i + 1) % others.size()]);
      auto const reader = format.read(bytes);
      read_value(*reader, back);
      EXPECT_TRUE(same(back, original)) << format.name << ", sample " << i;
      EXPECT_TRUE(reader->is_eof()) << format.name << ", sample " << i;
    }
  }
}

// The layout of each kind, as the core calls that write it.
TEST(TypesTest, LayoutOfEveryKindIsItsCoreCalls) {
  std::vector<std::byte> const bytes{std::byte{1}, std::byte{2}};
  std::vector<int> const ints{1, 2};
  char const text[4] = {'a', 'b', '\0', 'c'};
  std::string payload = "ab";
  std::string const two_ints =
      "sequence_start 2|int 00 00 00 01|sequence_separator|int 00 00 00 02|sequence_end|";
  // clang-format off
  std::vector<std::pair<std::function<void(Writer&)>, std::string>> const rows = {
      {[&](Writer& w) { write_value(w, ints); }, two_ints},
      {[&](Writer& w) { write_value(w, std::span<int const>(ints)); }, two_ints},
      {[](Writer& w) { write_value(w, std::list<int>{}); }, "sequence_start 0|sequence_end|"},
      {[](Writer& w) { write_value(w, std::map<int, bool>{{1, true}}); },
       "sequence_start 1|marker_start|int 00 00 00 01|bool true|marker_end|sequence_end|"},
      {[](Writer& w) { write_value(w, Author{"A", 2}); },
       "marker_start|string A|int 00 00 00 02|marker_end|"},
      {[](Writer& w) { write_value(w, Celsius{1.0}); }, "double 3FF0000000000000|"},
      {[](Writer& w) { write_value(w, std::optional<int>{}); }, "null|"},
      {[](Writer& w) { write_value(w, std::shared_ptr<int>{}); }, "null|"},
      {[](Writer& w) { write_value(w, std::variant<int, std::string>{"x"}); },
       "marker_start|uint 00 00 00 01|string x|marker_end|"},
      {[](Writer& w) { write_value(w, std::variant<std::monostate>{}); },
       "marker_start|uint 00 00 00 00|null|marker_end|"},
      {[](Writer& w) { write_value(w, std::make_tuple(Color::blue, Tiny::low)); },
       "marker_start|uint 00 00 00 00 00 00 00 C8|int FF FF FF FF FF FF FF 9C|marker_end|"},
      {[&](Writer& w) { write_value(w, bytes); }, "binary 01 02|"},
      {[&](Writer& w) { write_value(w, std::span<std::byte const>(bytes)); }, "binary 01 02|"},
      {[&](Writer& w) { write_value(w, as_binary(payload)); }, "binary 61 62|"},
      {[&](Writer& w) {
         write_value(w, std::string_view("ab")), write_value(w, static_cast<char const*>("ab"));
         write_value(w, "ab"), write_value(w, text);
       }, "string ab|string ab|string ab|string ab|"},
      {[](Writer& w) {
         write_value(w, std::pair(std::chrono::milliseconds(-3), std::chrono::sys_seconds::max()));
       }, "marker_start|relative_time -3000000|absolute_time 9223372036854775807|marker_end|"},
  };
  // clang-format on
  for (auto const& [write, expected] : rows) {
    zotest::RecordingWriter w;
    write(w);
    std::string calls;
    for (std::string const& call : w.calls())
      calls += call + "|";
    EXPECT_EQ(calls, expected);
  }
}

// Binary values in whole and chunked form, larger than the first piece a read trusts, read into
// any byte container through the binary view.
TEST(TypesTest, BinaryValuesOfAnySizeAndFormFillAnyByteContainer) {
  std::string const payload = zotest::pattern_string(0, 200000);
  for (Format const& format : zotest::formats()) {
    std::string const bytes = format.write([&](Writer& w) {
      write_value(w, as_binary(payload));
      InterfacePtr<IWriteStream> const stream = w.write_binary();
      stream->write(payload.data(), static_cast<unsigned>(payload.size()));
      stream->close();
    });
    auto const reader = format.read(bytes);
    std::string whole = "old";
    std::vector<char> chunked(3);
    read_value(*reader, as_binary(whole));
    read_value(*reader, as_binary(chunked));
    EXPECT_TRUE(whole == payload && std::string(chunked.begin(), chunked.end()) == payload)
        << format.name;
  }
}

// Beyond a 32-bit length a binary goes through the writer's value stream, in pieces. The bytes
// are untouched pages of a mapping, so nothing of the 4 GiB is ever made resident.
TEST(TypesTest, BinaryBeyond4GiBIsStreamedInPieces) {
  struct Counter : zocore::RefCounted<zocore::AtomicRefCount>, IWriteStream {
    std::vector<unsigned> pieces;
    bool closed = false;
    void write(void const* /*data*/, unsigned size) override { pieces.push_back(size); }
    void close() override { closed = true; }
  };
  struct StreamingWriter : zotest::RecordingWriter {
    using RecordingWriter::write_binary;
    Stream write_binary() override { return Stream(counter); }
    zocore::RefCountPtr<Counter> counter = zocore::make_ref_counted<Counter>();
  } w;
  std::size_t const size = (std::size_t{1} << 32) + 5;
  void* const pages =
      mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(pages, MAP_FAILED);
  write_value(w, std::span<std::byte const>(static_cast<std::byte const*>(pages), size));
  munmap(pages, size);
  EXPECT_EQ(w.counter->pieces, (std::vector<unsigned>{1u << 30, 1u << 30, 1u << 30, 1u << 30, 5u}));
  EXPECT_TRUE(w.counter->closed);
}

TEST(TypesTest, SequenceGuardsWriteAndCheckSeparators) {
  zotest::RecordingWriter w;
  {
    WriteSequence seq(w, 2);
    seq.next();
    w << 1;
    seq.next();
    w << 2;
  }
  {
    WriteSequence seq(w);
    seq.close();
    seq.close();
  }
  try {
    WriteSequence seq(w);
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(w.calls(),
            (std::vector<std::string>{"sequence_start 2", "int 00 00 00 01", "sequence_separator",
                                      "int 00 00 00 02", "sequence_end", "sequence_start",
                                      "sequence_end", "sequence_start"}));
  for (Format const& format : zotest::formats()) {
    std::string const bytes = format.write([](Writer& out) {
      write_value(out, std::vector<int>{1, 2, 3});
      write_value(out, std::vector<std::string>{"a", "b"});
      write_value(out, std::vector<int>{});
      out << 9;
    });
    auto const reader = format.read(bytes);
    ReadSequence first(*reader);
    EXPECT_EQ(first.count_hint(), 3u);
    EXPECT_TRUE(first.next());
    EXPECT_EQ(reader->read_int32(), 1);
    first.close();  // skips 2 and 3
    {
      ReadSequence second(*reader);
      EXPECT_TRUE(second.next());  // "a" is left unread for the destructor to skip
    }
    ReadSequence third(*reader);
    EXPECT_FALSE(third.next());
    EXPECT_FALSE(third.next());
    EXPECT_EQ(reader->read_int32(), 9) << format.name;
  }
}

// Version 2 reads version 1 data with its defaults; version 1 reads version 2 data and skips
// what it does not know; both inside containers, with data behind them.
class TypesEvolutionTest : public ::testing::TestWithParam<Format> {};
INSTANTIATE_TEST_SUITE_P(Formats, TypesEvolutionTest, ::testing::ValuesIn(zotest::formats()),
                         [](auto const& p) { return p.param.name; });

TEST_P(TypesEvolutionTest, NewerAndOlderRecordsReadEachOther) {
  Format const& format = GetParam();
  std::vector<ItemV1> const v1{{"a", {1, "p"}, {{2, "q"}, {3, "r"}}}, {}};
  std::string bytes = format.write([&](Writer& w) {
    write_value(w, v1);
    w << 42;
  });
  auto reader = format.read(bytes);
  std::vector<ItemV2> const upgraded = read_value<std::vector<ItemV2>>(*reader);
  EXPECT_EQ(upgraded, (std::vector<ItemV2>{{"a", {1, "p"}, {{2, "q"}, {3, "r"}}}, {}}));
  EXPECT_EQ(reader->read_int32(), 42);

  std::vector<ItemV2> const v2{{"b", {4, "s", 1.0, {"t"}}, {{5, "u", 0.5, {}}}, {}, std::nullopt}};
  bytes = format.write([&](Writer& w) {
    write_value(w, v2);
    w << 43;
  });
  reader = format.read(bytes);
  EXPECT_EQ(read_value<std::vector<ItemV1>>(*reader),
            (std::vector<ItemV1>{{"b", {4, "s"}, {{5, "u"}}}}));
  EXPECT_EQ(reader->read_int32(), 43);
}

// The concrete binary readers check for a marker's end in their input window, and ask the
// reader when the window is empty: both, with windows of every size.
TEST(TypesTest, BinaryReadersEvolveRecordsAtEveryWindowSize) {
  std::string const old_bytes = to_binary(std::vector<ItemV1>{{"a", {1, "p"}, {{2, "q"}}}});
  std::string const new_bytes =
      to_binary(std::vector<ItemV2>{{"b", {4, "s", 1.0, {"t"}}, {{5, "u", 0.5, {}}}, {}, {}}});
  std::vector<ItemV2> const upgraded{{"a", {1, "p"}, {{2, "q"}}}};
  std::vector<ItemV1> const downgraded{{"b", {4, "s"}, {{5, "u"}}}};
  for (unsigned buffer : {1u, 3u, 4096u}) {
    BinaryReader older{zocore::make_ref_counted<zocore::MemoryReadStream>(old_bytes), buffer};
    BinaryReader newer{zocore::make_ref_counted<zocore::MemoryReadStream>(new_bytes), buffer};
    EXPECT_EQ(read_value<std::vector<ItemV2>>(older), upgraded) << buffer;
    EXPECT_EQ(read_value<std::vector<ItemV1>>(newer), downgraded) << buffer;
  }
  MemoryReader older(zotest::list_in_pieces(old_bytes, {1}));
  MemoryReader newer(zotest::list_in_pieces(new_bytes, {1}));
  EXPECT_EQ(read_value<std::vector<ItemV2>>(older), upgraded);
  EXPECT_EQ(read_value<std::vector<ItemV1>>(newer), downgraded);
}

// Peak bytes held by containers that use Counting: a hostile count hint or length must not
// make a reader allocate ahead of the data beyond a small constant.
std::size_t g_live = 0;
std::size_t g_peak = 0;
template <class T>
struct Counting {
  using value_type = T;
  Counting() = default;
  template <class U>
  Counting(Counting<U> const&) noexcept {}  // NOLINT: allocators convert implicitly
  T* allocate(std::size_t n) {
    g_peak = std::max(g_peak, g_live += n * sizeof(T));  // NOLINT(bugprone-sizeof-expression)
    return std::allocator<T>().allocate(n);
  }
  void deallocate(T* p, std::size_t n) noexcept {
    g_live -= n * sizeof(T);  // NOLINT(bugprone-sizeof-expression): T may be a pointer
    std::allocator<T>().deallocate(p, n);
  }
  friend bool operator==(Counting const&, Counting const&) = default;
};

template <class V>
void expect_small_failure(std::string const& hex, std::size_t limit) {
  std::string const data = zotest::bytes(hex);
  auto source = [&] { return zocore::make_ref_counted<zocore::MemoryReadStream>(data); };
  BinaryReader binary{InterfacePtr<IReadStream>(source())};
  MemoryReader memory(zotest::list_of(data));
  for (Reader* reader : {static_cast<Reader*>(&binary), static_cast<Reader*>(&memory)}) {
    g_peak = g_live = 0;
    try {
      V value;
      read_value(*reader, value);
      ADD_FAILURE() << hex << ": no failure";
    } catch (zocore::ErrorException const& e) {
      EXPECT_TRUE(e.info()->code().is_a(error::zoserialize_reader)) << e.what();
    }
    EXPECT_LE(g_peak, limit) << hex;
  }
}

TEST(TypesTest, HostileCountsAndLengthsFailWithoutAllocatingAhead) {
  // A sequence announcing 0xFFFFFFFF elements that ends after two.
  std::string const sequence = "AA FF FF FF FF 21 AE 22";
  // Bucket arrays round up to a prime above the reservation: allow twice the limit.
  expect_small_failure<std::vector<int, Counting<int>>>(sequence, impl::kReserveLimitBytes);
  expect_small_failure<std::unordered_set<int, std::hash<int>, std::equal_to<int>, Counting<int>>>(
      sequence, 2 * impl::kReserveLimitBytes);
  // A binary announcing 0xFFFFFFF0 bytes that holds three.
  expect_small_failure<std::vector<std::byte, Counting<std::byte>>>("9A FF FF FF F0 01 02 03",
                                                                    impl::kBinaryFirstPieceMax);
}

// Reading a T from what `write` writes.
template <class T>
std::function<void(Format const&)> reading(std::function<void(Writer&)> const& write) {
  return [write](Format const& f) { static_cast<void>(read_value<T>(*f.read(f.write(write)))); };
}

// The failures of this layer: code, message and parameters, in every format.
TEST(TypesTest, FailuresOfTheLayerCarryTheirCodeMessageAndValues) {
  using Params = std::vector<std::pair<char const*, char const*>>;
  struct Row {
    std::function<void(Format const&)> run;
    zocore::ErrorCode const& code;
    char const* message;
    Params params;
  };
  auto writing = [](auto value) {
    return [value](Format const& f) { f.write([&](Writer& w) { write_value(w, value); }); };
  };
  auto const two_ones = [](Writer& w) { write_value(w, std::vector{1, 1}); };
  auto const two_ints = [](Writer& w) { w << 1 << 2; };
  std::variant<int, Explosive> valueless;
  try {
    valueless.emplace<1>(0);
  } catch (int) {
  }
  char const kEnum[] =
      "Read enumeration value is out of range.  Value={@value}, Range=({@minValue}, {@maxValue})";
  char const kArray[] =
      "Sequence length differs from the array size.  ArraySize={@arraySize}, "
      "ElementCount={@elementCount}";
  char const kKey[] = "Read key of a set or map occurs twice.  Index={@index}";
  char const kTime[] =
      "Read time cannot be represented by the duration type.  Nanoseconds={@nanoseconds}";
  char const kDuration[] =
      "Duration cannot be represented as a 64-bit count of nanoseconds.  Count={@count}";
  auto const& range = error::zoserialize_reader_data_type_range;
  auto const& count = error::zoserialize_reader_sequence_element_count;
  auto const& invalid = error::zoserialize_reader_data_invalid;
  auto const& too_long = error::zoserialize_writer_data_range;
  // clang-format off
  std::vector<Row> const rows = {
      {reading<Color>([](Writer& w) { w << 300ull; }), range, kEnum,
       {{"value", "300"}, {"minValue", "0"}, {"maxValue", "255"}}},
      {reading<Tiny>([](Writer& w) { w << -200ll; }), range, kEnum,
       {{"value", "-200"}, {"minValue", "-128"}, {"maxValue", "127"}}},
      {reading<Shape>([](Writer& w) { write_value(w, static_cast<Shape>(3)); }), range, kEnum,
       {{"value", "3"}, {"minValue", "0"}, {"maxValue", "2"}}},
      {reading<std::variant<int, std::string>>(
           [](Writer& w) { write_value(w, std::tuple(2u, 1)); }),
       range, "Read variant index is out of range.  Index={@index}, Alternatives={@alternatives}",
       {{"index", "2"}, {"alternatives", "2"}}},
      {reading<std::array<int, 3>>(two_ones), count, kArray,
       {{"arraySize", "3"}, {"elementCount", "2"}}},
      {reading<std::array<int, 1>>(two_ones), count, kArray,
       {{"arraySize", "1"}, {"elementCount", "2"}}},
      {reading<std::set<int>>(two_ones), invalid, kKey, {{"index", "1"}}},
      {reading<std::unordered_map<int, int>>([](Writer& w) {
         write_value(w, std::vector<std::pair<int, int>>{{1, 2}, {3, 4}, {3, 5}}); }),
       invalid, kKey, {{"index", "2"}}},
      {reading<std::chrono::microseconds>([](Writer& w) { w << RelativeTime(1500); }), range, kTime,
       {{"nanoseconds", "1500"}}},
      {reading<std::chrono::duration<std::int32_t>>(
           [](Writer& w) { w << RelativeTime(3'000'000'000'000'000'000); }),
       range, kTime, {{"nanoseconds", "3000000000000000000"}}},
      {reading<std::chrono::sys_seconds>([](Writer& w) { w << AbsoluteTime(1); }), range, kTime,
       {{"nanoseconds", "1"}}},
      {writing(std::chrono::hours(3'000'000)), too_long, kDuration, {{"count", "3000000"}}},
      {writing(std::chrono::duration<std::int64_t, std::pico>(1500)), too_long, kDuration,
       {{"count", "1500"}}},
      {writing(std::chrono::duration<double>(1e30)), too_long, kDuration, {{"count", "1e+30"}}},
      {writing(valueless), error::zoserialize_writer_data, "Variant to write holds no value", {}},
      {[=](Format const& f) { read_single_value<int>(*f.read(f.write(two_ints))); },
       invalid, "Unexpected data behind the value.  Token={@token}", {{"token", "SignedInteger"}}},
  };
  // clang-format on
  for (Format const& format : zotest::formats()) {
    for (Row const& row : rows) {
      SCOPED_TRACE(format.name + ": " + row.message);
      zotest::ErrorPtr const info = ZO_EXPECT_ERROR(row.run(format), row.code, row.message);
      for (auto const& [name, value] : row.params)
        EXPECT_EQ(zotest::param(info, name), value) << name;
      if (info) {
        EXPECT_EQ(info->params().size(), row.params.size());
      }
    }
  }
}

}  // namespace
