// User types and standard containers over any Writer / Reader: declare a type's fields once and
// write or read it, its containers, optionals, variants and smart pointers with one call.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <iterator>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <ratio>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include <zocore/error_composer.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/throw_error.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>
#include <zoserialize/reader.h>
#include <zoserialize/string_ostream.h>
#include <zoserialize/text_reader.h>
#include <zoserialize/text_writer.h>
#include <zoserialize/writer.h>
#include <zoserialize/xml_reader.h>
#include <zoserialize/xml_writer.h>

// How a type travels (docs/types.md has the full list and the rules of evolution):
//
//   struct Point { int x = 0; int y = 0; };
//   ZOSERIALIZE_FIELDS(Point, x, y)                       // at namespace scope, beside Point
//
//   zoserialize::write_value(writer, std::vector<Point>{{1, 2}});
//   auto points = zoserialize::read_value<std::vector<Point>>(reader);
//   std::string bytes = zoserialize::to_binary(points);
//
// A record (a type with fields) is a marker of its fields in declaration order. Reading fills
// the fields in order until the marker ends, leaving the rest as they are (a value made by the
// reader keeps its defaults), and skips fields it does not know: a newer writer may append
// fields, an older reader ignores them, and neither needs a version number.
//
// Every function here is a template over the archive type, so a call with a concrete archive
// (BinaryWriter, MemoryReader, ...) reaches its inline front end without a virtual call; a call
// with Writer& / Reader& works the same through the virtual core. Failures are the archive's own,
// except for the few this layer detects itself (an enumeration value or variant index out of
// range, a key repeated in a set or map, an array of the wrong length, a time that does not fit,
// data left behind a single value); these are listed in docs/types.md.

namespace zoserialize {

template <class W>
concept WriterType = std::derived_from<W, Writer>;
template <class R>
concept ReaderType = std::derived_from<R, Reader>;

template <WriterType W, class T>
void write_value(W& writer, T const& value);
template <ReaderType R, class T>
void read_value(R& reader, T& value);

// ---- Declaring a record ------------------------------------------------------------------------
// A record names its fields once for both directions, as a member
//
//   template <class Archive> void fields(Archive& archive) { archive(id, name, tags); }
//
// or as a free function found by argument-dependent lookup (ZOSERIALIZE_FIELDS writes one)
//
//   template <class Archive> void fields(Archive& archive, Book& b) { archive(b.id, b.title); }
//
// The archive is a FieldWriter or a FieldReader; calling it with several fields, or several
// times, handles them in order. Writing calls fields() on a const object through a const_cast:
// the function must not modify the object (a FieldWriter only reads the fields it is given).

// Writes the fields it is given, in order. Borrows the writer.
template <class W>
class FieldWriter {
 public:
  static constexpr bool is_reading = false;

  explicit FieldWriter(W& writer) noexcept : writer_(writer) {}
  template <class... F>
  FieldWriter& operator()(F const&... field) {
    (write_value(writer_, field), ...);
    return *this;
  }
  W& writer() const noexcept { return writer_; }

 private:
  W& writer_;
};

namespace impl {
template <class R>
[[gnu::always_inline]] inline bool marker_end_is_next(R& reader);
}  // namespace impl

// Reads the fields it is given, in order, until the record's marker ends; fields behind the end
// are left untouched. Borrows the reader.
template <class R>
class FieldReader {
 public:
  static constexpr bool is_reading = true;

  explicit FieldReader(R& reader) noexcept : reader_(reader) {}
  template <class... F>
  FieldReader& operator()(F&&... field) {
    // The fold stops at the first field that finds the marker's end.
    if (!ended_) ended_ = !(read_field(field) && ...);
    return *this;
  }
  R& reader() const noexcept { return reader_; }
  // True once the marker's end was met: the remaining fields were not in the data.
  bool ended() const noexcept { return ended_; }

 private:
  // False, reading nothing, when the marker ends before the field.
  template <class F>
  [[gnu::always_inline]] bool read_field(F& field) {
    // A binary reader decodes a plain field straight from its window; only when that fails (the
    // marker's end, or anything the full read handles) is the end looked for first.
    if constexpr (std::derived_from<R, BinaryReaderBase> &&
                  requires(BinaryReaderBase & r) { r.try_read_inline(field); }) {
      if (static_cast<BinaryReaderBase&>(reader_).try_read_inline(field)) [[likely]]
        return true;
    }
    if (impl::marker_end_is_next(reader_)) [[unlikely]]
      return false;
    read_value(reader_, field);
    return true;
  }

  R& reader_;
  bool ended_ = false;
};

// A contiguous container of byte-sized elements (std::vector<char>, std::string, ...) to be
// written and read as one Binary element instead of a sequence. Borrows the container:
//   archive(id, zoserialize::as_binary(payload));
template <class C>
struct BinaryRef {
  C& bytes;
};
template <class C>
requires(sizeof(typename std::remove_cvref_t<C>::value_type) == 1 &&
         std::is_trivially_copyable_v<typename std::remove_cvref_t<C>::value_type>)
    BinaryRef<C> as_binary(C& bytes)
noexcept {
  return {bytes};
}

// The valid values of an enumeration, declared beside it so that reading checks them:
//   constexpr zoserialize::EnumRange<Color> zoserialize_enum_range(Color) {
//     return {Color::red, Color::blue};
//   }
// Without a declaration every value of the underlying type is accepted; an enumeration without
// a fixed underlying type can only be read with one.
template <class E>
struct EnumRange {
  E min;
  E max;
};

namespace impl {

inline constexpr char kTypesModuleId[] = "$Id: src/zoserialize/types.h $";
inline zocore::SourceLocation types_here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kTypesModuleId, line};
}

// A count hint reserves at most this many bytes of elements up front; containers grow as
// elements arrive beyond it, so a hostile hint cannot make a reader allocate more than a small
// constant ahead of the data.
inline constexpr std::size_t kReserveLimitBytes = 4096;
// Binary values are read in pieces: the first of at most this many bytes, each later one at most
// as large as what has already arrived (and at most kBinaryPieceMax), so a hostile announced
// length costs at most this much ahead of the data.
inline constexpr std::size_t kBinaryFirstPieceMax = 65536;
inline constexpr std::size_t kBinaryPieceMax = std::size_t{1} << 30;

// ---- Errors (cold, out of line) ----

template <class V>
[[noreturn, gnu::cold, gnu::noinline]] void throw_enum_out_of_range(V value, V min, V max) {
  zocore::ErrorComposer(
      "Read enumeration value is out of range.  Value={@value}, Range=({@minValue}, {@maxValue})")
      .add("value", value)
      .add("minValue", min)
      .add("maxValue", max)
      .throw_error(error::zoserialize_reader_data_type_range,
                   types_here("zoserialize::read_value()"));
}

[[noreturn, gnu::cold, gnu::noinline]] inline void throw_variant_index(unsigned long long index,
                                                                       std::size_t count) {
  zocore::ErrorComposer(
      "Read variant index is out of range.  Index={@index}, Alternatives={@alternatives}")
      .add("index", index)
      .add("alternatives", static_cast<unsigned long long>(count))
      .throw_error(error::zoserialize_reader_data_type_range,
                   types_here("zoserialize::read_value()"));
}

[[noreturn, gnu::cold, gnu::noinline]] inline void throw_valueless_variant() {
  zocore::throw_error(error::zoserialize_writer_data, "Variant to write holds no value",
                      types_here("zoserialize::write_value()"));
}

[[noreturn, gnu::cold, gnu::noinline]] inline void throw_array_length(std::size_t size,
                                                                      std::size_t count) {
  zocore::ErrorComposer(
      "Sequence length differs from the array size.  ArraySize={@arraySize}, "
      "ElementCount={@elementCount}")
      .add("arraySize", static_cast<unsigned long long>(size))
      .add("elementCount", static_cast<unsigned long long>(count))
      .throw_error(error::zoserialize_reader_sequence_element_count,
                   types_here("zoserialize::read_value()"));
}

[[noreturn, gnu::cold, gnu::noinline]] inline void throw_duplicate_key(std::size_t index) {
  zocore::ErrorComposer("Read key of a set or map occurs twice.  Index={@index}")
      .add("index", static_cast<unsigned long long>(index))
      .throw_error(error::zoserialize_reader_data_invalid, types_here("zoserialize::read_value()"));
}

template <class V>
[[noreturn, gnu::cold, gnu::noinline]] void throw_duration_range(V count) {
  zocore::ErrorComposer(
      "Duration cannot be represented as a 64-bit count of nanoseconds.  Count={@count}")
      .add("count", count)
      .throw_error(error::zoserialize_writer_data_range, types_here("zoserialize::write_value()"));
}

[[noreturn, gnu::cold, gnu::noinline]] inline void throw_time_range(std::int64_t nanoseconds) {
  zocore::ErrorComposer(
      "Read time cannot be represented by the duration type.  Nanoseconds={@nanoseconds}")
      .add("nanoseconds", static_cast<long long>(nanoseconds))
      .throw_error(error::zoserialize_reader_data_type_range,
                   types_here("zoserialize::read_value()"));
}

[[noreturn, gnu::cold, gnu::noinline]] inline void throw_trailing_data(Reader::EToken token) {
  zocore::ErrorComposer("Unexpected data behind the value.  Token={@token}")
      .add("token", token_name(token))
      .throw_error(error::zoserialize_reader_data_invalid,
                   types_here("zoserialize::read_single_value()"));
}

// ---- The marker end check ----
// Reading a record asks before every field whether its marker ends. Through Reader& that is the
// virtual read_marker_is_end(). Inside an open marker a binary reader answers it by the next tag
// alone, which its input window usually holds: the check looks there first, inline, and asks the
// reader only when the window is empty. It saves an out-of-line call per field, most of the
// layer's cost.

// Inside a marker the reader has just opened: whether its end comes next.
template <class R>
[[gnu::always_inline]] inline bool marker_end_is_next(R& reader) {
  if constexpr (std::derived_from<R, BinaryReaderBase>) {
    int const known = static_cast<BinaryReaderBase const&>(reader).peek_marker_end();
    if (known >= 0) [[likely]]
      return known != 0;
  }
  return reader.read_marker_is_end();
}

// ---- Type classification ----

template <class T, class... U>
inline constexpr bool is_one_of_v = (std::is_same_v<T, U> || ...);

// Types the typed front end of Writer and Reader handles itself.
template <class T>
inline constexpr bool is_front_end_v =
    is_one_of_v<T, bool, char, signed char, unsigned char, short, unsigned short, int, unsigned,
                long, unsigned long, long long, unsigned long long, float, double, std::string,
                std::wstring, SourceString, StringKey, UuidKey, Uuid, AbsoluteTime, RelativeTime,
                SourceLocation>;
// Written by the front end, not readable into.
template <class T>
inline constexpr bool is_write_only_front_end_v =
    is_one_of_v<T, std::string_view, char const*, char*, wchar_t const*, wchar_t*>;

template <class T>
inline constexpr bool is_byte_v = is_one_of_v<std::remove_const_t<T>, std::byte, unsigned char>;

template <class T>
struct is_nullable : std::false_type {};
template <class T>
struct is_nullable<std::optional<T>> : std::true_type {};
template <class T>
struct is_nullable<std::unique_ptr<T>> : std::true_type {};
template <class T>
struct is_nullable<std::shared_ptr<T>> : std::true_type {};
template <>
struct is_nullable<std::monostate> : std::true_type {};

// Null stands for "no value"; a value that may itself be null would come back as the outer "no
// value", so such nesting is refused at compile time.
template <class T>
constexpr void check_not_nullable() {
  static_assert(!is_nullable<std::remove_cv_t<T>>::value,
                "a nullable value (optional, unique_ptr, shared_ptr, monostate) inside another "
                "cannot be told apart from an empty outer one: wrap the inner one in a record");
}

template <class T, class A>
concept HasMemberFields = requires(T& value, A& archive) {
  value.fields(archive);
};

// Only argument-dependent lookup may find the user's functions.
void fields() = delete;
void zoserialize_write() = delete;
void zoserialize_read() = delete;
void zoserialize_enum_range() = delete;

template <class T, class A>
concept HasFreeFields = requires(T& value, A& archive) {
  fields(archive, value);
};
template <class W, class T>
concept HasCustomWrite = requires(W& writer, T const& value) {
  zoserialize_write(writer, value);
};
template <class R, class T>
concept HasCustomRead = requires(R& reader, T& value) {
  zoserialize_read(reader, value);
};
template <class E>
concept HasEnumRange = requires(E value) {
  { zoserialize_enum_range(value) } -> std::same_as<EnumRange<E>>;
};
// C++17 allows list-initialising an enumeration from an integer only when its underlying type
// is fixed: only then is every value of that type a valid value of the enumeration.
template <class E>
concept HasFixedUnderlyingType = requires {
  E{std::underlying_type_t<E>{}};
};

template <class A, class T>
inline void invoke_fields(A& archive, T& value) {
  if constexpr (HasMemberFields<T, A>) {
    value.fields(archive);
  } else {
    fields(archive, value);
  }
}

template <class T>
struct dependent_false : std::false_type {};

// ---- Helpers shared by the serializers ----

template <class W>
inline void write_sequence_start_for(W& w, std::size_t count) {
  if (count <= 0xFFFFFFFFu) {
    w.write_sequence_start(static_cast<unsigned>(count));
  } else {
    w.write_sequence_start();
  }
}

template <class W, class It>
inline void write_range(W& w, std::size_t count, It it, It end) {
  auto const write_element = [&w](It const& at) {
    if constexpr (std::is_same_v<std::iter_value_t<It>, bool>) {
      write_value(w, static_cast<bool>(*at));  // std::vector<bool> hands out proxies
    } else {
      write_value(w, *at);
    }
  };
  write_sequence_start_for(w, count);
  if (it != end) {
    write_element(it);
    for (++it; it != end; ++it) {
      w.write_sequence_separator();
      write_element(it);
    }
  }
  w.write_sequence_end();
}

template <class C>
[[gnu::always_inline]] inline void reserve_from_hint(C& c, unsigned hint) {
  if constexpr (requires { c.reserve(std::size_t{}); }) {
    // Hash containers reserve buckets (a pointer each); vectors reserve elements.
    constexpr std::size_t per_element = requires(C & x) {
      x.bucket_count();
    }
    ? sizeof(void*) : sizeof(typename C::value_type);
    constexpr std::size_t limit = std::max<std::size_t>(1, kReserveLimitBytes / per_element);
    std::size_t const wanted = std::min<std::size_t>(hint, limit);
    if constexpr (requires { c.capacity(); }) {
      if (wanted > c.capacity()) c.reserve(wanted);
    } else if (wanted > c.size()) {
      c.reserve(wanted);
    }
  }
}

template <class R, class C>
[[gnu::always_inline]] inline void read_sequence_into(R& r, C& c) {
  using T = typename C::value_type;
  unsigned const hint = r.read_sequence_start();
  if constexpr (std::is_same_v<T, bool>) {
    c.clear();
    reserve_from_hint(c, hint);
    while (r.read_sequence_next()) {
      bool b = false;  // std::vector<bool> hands out proxies, not bool&
      read_value(r, b);
      c.push_back(b);
    }
  } else if constexpr (is_front_end_v<T>) {
    // Reading overwrites such a value whole, so the elements already there are reused, with
    // the capacity of their strings, exactly as if they were fresh.
    reserve_from_hint(c, hint);
    auto at = c.begin();
    while (r.read_sequence_next()) {
      if (at != c.end()) {
        read_value(r, *at++);
      } else {
        read_value(r, c.emplace_back());
        at = c.end();
      }
    }
    c.erase(at, c.end());
  } else {
    c.clear();
    reserve_from_hint(c, hint);
    while (r.read_sequence_next())
      read_value(r, c.emplace_back());
  }
}

// Sets and maps: every element must add a key.
template <class R, class C, class Element>
inline void read_keyed_into(R& r, C& c) {
  unsigned const hint = r.read_sequence_start();
  c.clear();
  reserve_from_hint(c, hint);
  std::size_t index = 0;
  while (r.read_sequence_next()) {
    Element element{};
    read_value(r, element);
    std::size_t const before = c.size();
    if constexpr (requires { typename C::mapped_type; }) {
      c.emplace_hint(c.end(), std::move(element.first), std::move(element.second));
    } else {
      c.emplace_hint(c.end(), std::move(element));
    }
    if (c.size() == before) throw_duplicate_key(index);
    ++index;
  }
}

template <class R, class T, std::size_t N>
void read_fixed_into(R& r, std::span<T, N> out) {
  r.read_sequence_start();
  std::size_t count = 0;
  while (r.read_sequence_next()) {
    if (count < N) {
      read_value(r, out[count]);
    } else {
      r.skip_element();
    }
    ++count;
  }
  if (count != N) throw_array_length(N, count);
}

template <class W>
inline void write_binary_bytes(W& w, void const* data, std::size_t size) {
  if (size <= 0xFFFFFFFFu) [[likely]] {
    w.write_binary(data, static_cast<unsigned>(size));
    return;
  }
  // Beyond the 32-bit length of a whole value: as a streamed value, in pieces.
  InterfacePtr<IWriteStream> const stream = w.write_binary();
  auto const* bytes = static_cast<unsigned char const*>(data);
  for (std::size_t done = 0; done < size;) {
    auto const piece = static_cast<unsigned>(std::min(size - done, kBinaryPieceMax));
    stream->write(bytes + done, piece);
    done += piece;
  }
  stream->close();
}

// Reads a Binary element into `out` (anything with data(), size(), resize(), clear() over
// byte-sized elements). The length a value announces is trusted only for the first piece, so
// that a value cut short cannot make the reader allocate far ahead of the bytes that arrived.
template <class R, class C>
[[gnu::always_inline]] inline void read_binary_into(R& r, C& out) {
  InterfacePtr<IReadStream> const stream = r.read_binary();
  unsigned const announced = stream->bytes_remaining();
  auto const bytes = [&out] { return reinterpret_cast<unsigned char*>(out.data()); };  // NOLINT
  if (announced <= kBinaryFirstPieceMax) {
    // Known and small: one piece, over the container's old bytes (no clearing first).
    out.resize(announced);
    unsigned const got = stream->read(bytes(), announced);
    if (got != announced) [[unlikely]]
      out.resize(got);
    return;
  }
  out.clear();
  bool const known = announced != IReadStream::kUnknownSize;
  std::size_t step = known ? kBinaryFirstPieceMax : 4096;
  for (;;) {
    std::size_t const have = out.size();
    out.resize(have + step);
    unsigned const got = stream->read(bytes() + have, static_cast<unsigned>(step));
    out.resize(have + got);
    if (got < step || (known && have + got == announced)) break;
    step = std::min(have + got, kBinaryPieceMax);
  }
  // The whole value has been read: the stream needs no close() (readers finish a value whose
  // stream was dropped before they read on).
}

// ---- Times ----
// Durations convert to and from nanoseconds exactly; a value that cannot (it overflows, or it
// has a fraction of a nanosecond, or nanoseconds lost to a coarser type) fails. Floating-point
// durations round to the nearest nanosecond. The infinite time and D::max() stand for each other.

template <class Rep, class Period>
std::int64_t to_nanoseconds(std::chrono::duration<Rep, Period> d) {
  using D = std::chrono::duration<Rep, Period>;
  using PerTick = std::ratio_divide<Period, std::nano>;  // nanoseconds per tick
  if (d == D::max()) return RelativeTime::kInfiniteCount;
  Rep const count = d.count();
  if constexpr (std::is_floating_point_v<Rep>) {
    long double const ns = static_cast<long double>(count) * PerTick::num / PerTick::den;
    long double const rounded = ns < 0 ? -std::floor(-ns + 0.5L) : std::floor(ns + 0.5L);
    if (!(rounded >= -0x1p63L && rounded < 0x1p63L) || rounded == 0x1p63L - 1) {
      throw_duration_range(static_cast<double>(count));
    }
    return static_cast<std::int64_t>(rounded);
  } else {
    static_assert(std::is_integral_v<Rep>, "durations need an arithmetic representation");
    auto const as_param = [](Rep c) {
      if constexpr (std::is_signed_v<Rep>) {
        return static_cast<long long>(c);
      } else {
        return static_cast<unsigned long long>(c);
      }
    };
    Rep ticks = count;
    if constexpr (PerTick::den != 1) {
      if (ticks % PerTick::den != 0) throw_duration_range(as_param(count));
      ticks /= PerTick::den;
    }
    std::int64_t ns = 0;
    // The largest count stands for the infinite time: only D::max() may produce it.
    if (__builtin_mul_overflow(ticks, PerTick::num, &ns) || ns == RelativeTime::kInfiniteCount) {
      throw_duration_range(as_param(count));
    }
    return ns;
  }
}

template <class D>
D from_nanoseconds(std::int64_t ns) {
  using Rep = typename D::rep;
  using PerTick = std::ratio_divide<typename D::period, std::nano>;
  if (ns == RelativeTime::kInfiniteCount) return D::max();
  if constexpr (std::is_floating_point_v<Rep>) {
    return D(static_cast<Rep>(static_cast<long double>(ns) * PerTick::den / PerTick::num));
  } else {
    std::int64_t whole = ns;
    if constexpr (PerTick::num != 1) {
      if (whole % PerTick::num != 0) throw_time_range(ns);
      whole /= PerTick::num;
    }
    Rep ticks{};
    if (__builtin_mul_overflow(whole, PerTick::den, &ticks) || ticks == D::max().count()) {
      throw_time_range(ns);
    }
    return D(ticks);
  }
}

// ---- Serializers ----
// Serializer<T>::write(W&, T const&) and read(R&, T&) for every type this layer knows; the
// primary template handles front-end types, enumerations and records.

template <class T>
struct Serializer {
  template <class W>
  static void write(W& w, T const& value) {
    if constexpr (is_front_end_v<T> || is_write_only_front_end_v<T>) {
      w << value;
    } else if constexpr (std::is_enum_v<T>) {
      using U = std::underlying_type_t<T>;
      if constexpr (std::is_signed_v<U> || std::is_same_v<U, char>) {
        w << static_cast<long long>(value);
      } else {
        w << static_cast<unsigned long long>(value);
      }
    } else if constexpr (HasMemberFields<T, FieldWriter<W>> || HasFreeFields<T, FieldWriter<W>>) {
      w.write_marker_start();
      FieldWriter<W> archive(w);
      invoke_fields(archive, const_cast<T&>(value));  // NOLINT: fields() only reads here
      w.write_marker_end();
    } else {
      static_assert(dependent_false<T>::value,
                    "zoserialize cannot write this type: declare its fields (a fields() member, a "
                    "free fields(archive, value), ZOSERIALIZE_FIELDS) or a zoserialize_write()");
    }
  }

  template <class R>
  static void read(R& r, T& value) {
    if constexpr (is_front_end_v<T>) {
      r >> value;
    } else if constexpr (std::is_enum_v<T>) {
      read_enum(r, value);
    } else if constexpr (HasMemberFields<T, FieldReader<R>> || HasFreeFields<T, FieldReader<R>>) {
      r.read_marker_start();
      FieldReader<R> archive(r);
      invoke_fields(archive, value);
      r.read_marker_end();
    } else {
      static_assert(dependent_false<T>::value,
                    "zoserialize cannot read this type: declare its fields (a fields() member, a "
                    "free fields(archive, value), ZOSERIALIZE_FIELDS) or a zoserialize_read()");
    }
  }

 private:
  template <class R>
  static void read_enum(R& r, T& value) {
    using U = std::underlying_type_t<T>;
    constexpr bool is_signed = std::is_signed_v<U> || std::is_same_v<U, char>;
    using Wide = std::conditional_t<is_signed, long long, unsigned long long>;
    using Narrow = std::conditional_t<std::is_same_v<U, char>, signed char, U>;
    static_assert(HasFixedUnderlyingType<T> || HasEnumRange<T>,
                  "an enumeration without a fixed underlying type needs zoserialize_enum_range() "
                  "to be read: only the values of its enumerators' range are valid");
    // NOLINTNEXTLINE(bugprone-signed-char-misuse): a number, not a character
    Wide min = static_cast<Wide>(std::numeric_limits<Narrow>::min());
    Wide max = static_cast<Wide>(std::numeric_limits<Narrow>::max());
    if constexpr (HasEnumRange<T>) {
      EnumRange<T> const range = zoserialize_enum_range(T{});
      min = static_cast<Wide>(range.min);
      max = static_cast<Wide>(range.max);
    }
    Wide v = 0;
    if constexpr (is_signed) {
      v = r.read_int64();
    } else {
      v = r.read_uint64();
    }
    if (v < min || v > max) throw_enum_out_of_range(v, min, max);
    value = static_cast<T>(static_cast<U>(v));
  }
};

template <class T, std::size_t N>
struct Serializer<T[N]> {
  template <class W>
  static void write(W& w, T const (&value)[N]) {
    if constexpr (std::is_same_v<T, char>) {
      // A character array is text up to its first 0 byte (or its end).
      auto const length = static_cast<std::size_t>(std::find(value, value + N, '\0') - value);
      w << std::string_view(value, length);
    } else {
      write_range(w, N, std::begin(value), std::end(value));
    }
  }
  template <class R>
  static void read(R& r, T (&value)[N]) {
    static_assert(!std::is_same_v<T, char>, "read text into std::string, not into char[N]");
    read_fixed_into(r, std::span<T, N>(value));
  }
};

template <class T, std::size_t N>
struct Serializer<std::array<T, N>> {
  template <class W>
  static void write(W& w, std::array<T, N> const& value) {
    write_range(w, N, value.begin(), value.end());
  }
  template <class R>
  static void read(R& r, std::array<T, N>& value) {
    read_fixed_into(r, std::span<T, N>(value));
  }
};

// Sequences with a count hint.
template <class C>
struct SequenceSerializer {
  template <class W>
  static void write(W& w, C const& value) {
    write_range(w, value.size(), value.begin(), value.end());
  }
  template <class R>
  [[gnu::always_inline]] static void read(R& r, C& value) {
    read_sequence_into(r, value);
  }
};
template <class T, class A>
struct Serializer<std::vector<T, A>> : SequenceSerializer<std::vector<T, A>> {};
template <class T, class A>
struct Serializer<std::deque<T, A>> : SequenceSerializer<std::deque<T, A>> {};
template <class T, class A>
struct Serializer<std::list<T, A>> : SequenceSerializer<std::list<T, A>> {};

// Write-only views: a span of bytes is a Binary, any other span a sequence.
template <class T, std::size_t E>
struct Serializer<std::span<T, E>> {
  template <class W>
  static void write(W& w, std::span<T, E> value) {
    if constexpr (is_byte_v<T>) {
      write_binary_bytes(w, value.data(), value.size());
    } else {
      write_range(w, value.size(), value.begin(), value.end());
    }
  }
};

// Binary elements.
template <class C>
struct BinarySerializer {
  template <class W>
  static void write(W& w, C const& value) {
    write_binary_bytes(w, value.data(), value.size());
  }
  template <class R>
  static void read(R& r, C& value) {
    read_binary_into(r, value);
  }
};
template <class A>
struct Serializer<std::vector<std::byte, A>> : BinarySerializer<std::vector<std::byte, A>> {};
template <class A>
struct Serializer<std::vector<unsigned char, A>> : BinarySerializer<std::vector<unsigned char, A>> {
};

template <class C>
struct Serializer<BinaryRef<C>> {
  template <class W>
  static void write(W& w, BinaryRef<C> const& value) {
    write_binary_bytes(w, value.bytes.data(), value.bytes.size());
  }
  template <class R>
  static void read(R& r, BinaryRef<C> const& value) {
    static_assert(!std::is_const_v<C>, "as_binary() of a const container can only be written");
    read_binary_into(r, value.bytes);
  }
};

// Sets and maps: sequences of keys, or of two-element markers (key, value).
template <class C, class Element>
struct KeyedSerializer {
  template <class W>
  static void write(W& w, C const& value) {
    write_range(w, value.size(), value.begin(), value.end());
  }
  template <class R>
  static void read(R& r, C& value) {
    read_keyed_into<R, C, Element>(r, value);
  }
};
template <class K, class C, class A>
struct Serializer<std::set<K, C, A>> : KeyedSerializer<std::set<K, C, A>, K> {};
template <class K, class H, class E, class A>
struct Serializer<std::unordered_set<K, H, E, A>>
    : KeyedSerializer<std::unordered_set<K, H, E, A>, K> {};
template <class K, class V, class C, class A>
struct Serializer<std::map<K, V, C, A>> : KeyedSerializer<std::map<K, V, C, A>, std::pair<K, V>> {};
template <class K, class V, class H, class E, class A>
struct Serializer<std::unordered_map<K, V, H, E, A>>
    : KeyedSerializer<std::unordered_map<K, V, H, E, A>, std::pair<K, V>> {};

// Pairs and tuples: markers of their elements, read like record fields.
template <class T1, class T2>
struct Serializer<std::pair<T1, T2>> {
  template <class W>
  static void write(W& w, std::pair<T1, T2> const& value) {
    w.write_marker_start();
    write_value(w, value.first);
    write_value(w, value.second);
    w.write_marker_end();
  }
  template <class R>
  static void read(R& r, std::pair<T1, T2>& value) {
    r.read_marker_start();
    FieldReader<R> archive(r);
    archive(value.first, value.second);
    r.read_marker_end();
  }
};

template <class... T>
struct Serializer<std::tuple<T...>> {
  template <class W>
  static void write(W& w, std::tuple<T...> const& value) {
    w.write_marker_start();
    std::apply([&w](auto const&... element) { (write_value(w, element), ...); }, value);
    w.write_marker_end();
  }
  template <class R>
  static void read(R& r, std::tuple<T...>& value) {
    r.read_marker_start();
    FieldReader<R> archive(r);
    std::apply([&archive](auto&... element) { archive(element...); }, value);
    r.read_marker_end();
  }
};

// Nullables: Null, or the value.
template <>
struct Serializer<std::monostate> {
  template <class W>
  static void write(W& w, std::monostate) {
    w.write_null();
  }
  template <class R>
  static void read(R& r, std::monostate&) {
    r.read_null();
  }
};

template <class T>
struct Serializer<std::optional<T>> {
  template <class W>
  static void write(W& w, std::optional<T> const& value) {
    check_not_nullable<T>();
    if (value) {
      write_value(w, *value);
    } else {
      w.write_null();
    }
  }
  template <class R>
  static void read(R& r, std::optional<T>& value) {
    check_not_nullable<T>();
    if (r.try_read_null()) {
      value.reset();
    } else {
      read_value(r, value.emplace());
    }
  }
};

// Smart pointers write the object they point to as its static type T (no object identity: an
// object shared twice is written twice and read back as two).
template <class P, class T>
struct PointerSerializer {
  template <class W>
  static void write(W& w, P const& value) {
    check_not_nullable<T>();
    if (value) {
      write_value(w, *value);
    } else {
      w.write_null();
    }
  }
  template <class R>
  static void read(R& r, P& value) {
    check_not_nullable<T>();
    if (r.try_read_null()) {
      value.reset();
      return;
    }
    if constexpr (std::is_same_v<P, std::unique_ptr<T>>) {
      auto fresh = std::make_unique<T>();
      read_value(r, *fresh);
      value = std::move(fresh);
    } else {
      auto fresh = std::make_shared<std::remove_const_t<T>>();
      read_value(r, *fresh);
      value = std::move(fresh);
    }
  }
};
template <class T>
struct Serializer<std::unique_ptr<T>> : PointerSerializer<std::unique_ptr<T>, T> {};
template <class T>
struct Serializer<std::shared_ptr<T>> : PointerSerializer<std::shared_ptr<T>, T> {};

// A variant: a marker of the alternative's index (unsigned) and its value.
template <class... T>
struct Serializer<std::variant<T...>> {
  using V = std::variant<T...>;

  template <class W>
  static void write(W& w, V const& value) {
    if (value.valueless_by_exception()) throw_valueless_variant();
    w.write_marker_start();
    w << static_cast<unsigned>(value.index());
    std::visit([&w](auto const& alternative) { write_value(w, alternative); }, value);
    w.write_marker_end();
  }
  template <class R>
  static void read(R& r, V& value) {
    r.read_marker_start();
    if (!marker_end_is_next(r)) {
      unsigned long long const index = r.read_uint64();
      if (index >= sizeof...(T)) throw_variant_index(index, sizeof...(T));
      read_alternative(r, value, static_cast<std::size_t>(index), std::index_sequence_for<T...>{});
    }
    r.read_marker_end();
  }

 private:
  template <class R, std::size_t I>
  static void read_as(R& r, V& value) {
    auto& alternative = value.template emplace<I>();
    if (!marker_end_is_next(r)) read_value(r, alternative);
  }
  template <class R, std::size_t... I>
  static void read_alternative(R& r, V& value, std::size_t index, std::index_sequence<I...>) {
    using Read = void (*)(R&, V&);
    static constexpr Read kRead[] = {&read_as<R, I>...};
    kRead[index](r, value);
  }
};

// Times.
template <class Rep, class Period>
struct Serializer<std::chrono::duration<Rep, Period>> {
  using D = std::chrono::duration<Rep, Period>;
  template <class W>
  static void write(W& w, D value) {
    w << RelativeTime(to_nanoseconds(value));
  }
  template <class R>
  static void read(R& r, D& value) {
    value = from_nanoseconds<D>(r.read_relative_time().count());
  }
};

template <class D>
struct Serializer<std::chrono::time_point<std::chrono::system_clock, D>> {
  using TP = std::chrono::time_point<std::chrono::system_clock, D>;
  template <class W>
  static void write(W& w, TP value) {
    w << AbsoluteTime(to_nanoseconds(value.time_since_epoch()));
  }
  template <class R>
  static void read(R& r, TP& value) {
    value = TP(from_nanoseconds<D>(r.read_absolute_time().count()));
  }
};

}  // namespace impl

// ---- Entry points ------------------------------------------------------------------------------

// Writes `value`. A type is written by, in this order: a zoserialize_write(writer, value) found
// by argument-dependent lookup; the writer's typed front end; its underlying integer (an
// enumeration); the layout of the standard type (docs/types.md); a marker of its fields. The
// writer is borrowed.
template <WriterType W, class T>
void write_value(W& writer, T const& value) {
  if constexpr (impl::HasCustomWrite<W, T>) {
    zoserialize_write(writer, value);
  } else {
    impl::Serializer<std::remove_cv_t<T>>::write(writer, value);
  }
}

// Reads into `value`, by the same rules as write_value (a custom hook is zoserialize_read(reader,
// value)). Containers are emptied first and get fresh, default-constructed elements (strings and
// numbers are overwritten in place, to the same effect); a record keeps the fields the data does
// not hold as they were. The reader is borrowed.
template <ReaderType R, class T>
void read_value(R& reader, T& value) {
  static_assert(!std::is_const_v<T>, "cannot read into a const object");
  if constexpr (impl::HasCustomRead<R, T>) {
    zoserialize_read(reader, value);
  } else {
    impl::Serializer<T>::read(reader, value);
  }
}

// Reads through a binary view: read_value(reader, as_binary(bytes)).
template <ReaderType R, class C>
void read_value(R& reader, BinaryRef<C>&& value) {
  impl::Serializer<BinaryRef<C>>::read(reader, value);
}

// Reads a value into a fresh, value-initialised T.
template <class T, ReaderType R>
T read_value(R& reader) {
  T value{};
  read_value(reader, value);
  return value;
}

// Reads a value that must be the whole rest of the input: anything behind it fails with
// error::zoserialize_reader_data_invalid.
template <class T, ReaderType R>
T read_single_value(R& reader) {
  T value = read_value<T>(reader);
  if (!reader.is_eof()) impl::throw_trailing_data(reader.next_token());
  return value;
}

// ---- Sequences by hand -------------------------------------------------------------------------

// Scope guard for writing a sequence: the constructor writes the start (with a count hint when
// one is given; 0 or a count beyond 32 bits gives none), next() the separator before every
// element but the first, close() or the destructor the end. The destructor writes nothing when
// the scope is left by an exception (the archive is broken then anyway) and swallows errors. The
// writer is borrowed and must outlive the guard.
//
//   WriteSequence seq(writer, items.size());
//   for (auto const& item : items) { seq.next(); writer << item.name; }
template <WriterType W = Writer>
class WriteSequence {
 public:
  explicit WriteSequence(W& writer) : writer_(&writer) { writer.write_sequence_start(); }
  WriteSequence(W& writer, std::size_t count_hint) : writer_(&writer) {
    impl::write_sequence_start_for(writer, count_hint);
  }
  WriteSequence(WriteSequence const&) = delete;
  WriteSequence& operator=(WriteSequence const&) = delete;
  ~WriteSequence() {
    if (writer_ && std::uncaught_exceptions() == exceptions_) {
      try {
        close();
      } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor must not throw
      }
    }
  }

  // Call before writing each element.
  void next() {
    if (started_) writer_->write_sequence_separator();
    started_ = true;
  }
  // Writes the end once; later calls do nothing.
  void close() {
    if (W* const w = std::exchange(writer_, nullptr)) w->write_sequence_end();
  }

 private:
  W* writer_;
  int exceptions_ = std::uncaught_exceptions();
  bool started_ = false;
};

// Scope guard for reading a sequence: the constructor reads the start and keeps the count hint,
// next() tells whether another element follows (consuming the separator, or the end), close() or
// the destructor skips what the caller did not read and the end. The destructor does nothing
// when the scope is left by an exception and swallows errors. The reader is borrowed and must
// outlive the guard.
//
//   ReadSequence seq(reader);
//   while (seq.next()) names.push_back(reader.read_string());
template <ReaderType R = Reader>
class ReadSequence {
 public:
  explicit ReadSequence(R& reader) : reader_(&reader), count_hint_(reader.read_sequence_start()) {}
  ReadSequence(ReadSequence const&) = delete;
  ReadSequence& operator=(ReadSequence const&) = delete;
  ~ReadSequence() {
    if (reader_ && std::uncaught_exceptions() == exceptions_) {
      try {
        close();
      } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor must not throw
      }
    }
  }

  // The count hint of the sequence; 0 when it has none.
  unsigned count_hint() const noexcept { return count_hint_; }
  // True while another element follows. False once the end was read (and from then on).
  bool next() {
    if (!reader_) return false;
    if (reader_->read_sequence_next()) {
      in_element_ = true;
      return true;
    }
    reader_ = nullptr;
    return false;
  }
  // Skips the elements left (including one that next() announced and the caller did not read)
  // and the end; later calls do nothing.
  void close() {
    R* const r = std::exchange(reader_, nullptr);
    if (!r) return;
    if (!in_element_ && !r->read_sequence_next()) return;
    do {
      Reader::EToken const token = r->next_token();
      if (token != Reader::EToken::SequenceSeparator && token != Reader::EToken::SequenceEnd) {
        r->skip_element();
      }
    } while (r->read_sequence_next());
  }

 private:
  R* reader_;
  unsigned count_hint_;
  int exceptions_ = std::uncaught_exceptions();
  bool in_element_ = false;
};

// ---- Whole values to bytes and back ------------------------------------------------------------
// Each format is one line over these: W must be constructible from the sink stream, R from the
// source stream.

// The bytes of `value` written by a fresh W, closed.
template <WriterType W, class T>
std::string to_bytes(T const& value) {
  auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  W writer{InterfacePtr<IWriteStream>(sink)};
  write_value(writer, value);
  writer.close();
  return sink->take();
}

// The value that `bytes` holds, read by an R; data behind the value fail. `bytes` is only
// borrowed for the call.
template <class T, ReaderType R>
T from_bytes(std::string_view bytes) {
  R reader{InterfacePtr<IReadStream>(zocore::make_ref_counted<zocore::MemoryReadStream>(bytes))};
  return read_single_value<T>(reader);
}

// The binary encoding (docs/binary-format.md).
template <class T>
std::string to_binary(T const& value) {
  return to_bytes<BinaryWriter>(value);
}
template <class T>
T from_binary(std::string_view bytes) {
  return from_bytes<T, BinaryReader>(bytes);
}

// The text format (docs/text-format.md), with the writer's default options.
template <class T>
std::string to_text(T const& value) {
  return to_bytes<TextWriter>(value);
}
template <class T>
T from_text(std::string_view text) {
  return from_bytes<T, TextReader>(text);
}

// The XML document (docs/xml-format.md); the layout strings are XmlWriter's (null: none, the
// whole document on one line).
template <class T>
std::string to_xml(T const& value, char const* indent_unit = nullptr,
                   char const* line_prefix = nullptr) {
  auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  StringOStream os{InterfacePtr<IWriteStream>(sink)};
  {
    XmlWriter writer(os, indent_unit, line_prefix);
    write_value(writer, value);
    writer.close();
  }
  os.close();
  return sink->take();
}
template <class T>
T from_xml(std::string_view document) {
  return from_bytes<T, XmlReader>(document);
}

// The binary encoding in a memory list, whose chunks the result owns.
template <class T>
MemoryListPtr to_memory_list(T const& value) {
  MemoryWriter writer;
  write_value(writer, value);
  return writer.close_and_detach_memory_list();
}
// Shares the list's chunks while reading; payloads are copied into the value.
template <class T>
T from_memory_list(ConstMemoryListPtr list) {
  MemoryReader reader(std::move(list));
  return read_single_value<T>(reader);
}

}  // namespace zoserialize

// ---- ZOSERIALIZE_FIELDS ------------------------------------------------------------------------
// ZOSERIALIZE_FIELDS(Type, a, b, c), at namespace scope in Type's namespace, declares the fields
// of a type whose members are accessible there (for private members write a fields() member
// instead). Type must be a single name or qualified name (no template arguments with commas).

#define ZOSERIALIZE_FIELDS(Type, ...)                                           \
  template <class ZoArchive>                                                    \
  void fields(ZoArchive& zo_archive, Type& zo_value) {                          \
    static_cast<void>(zo_value);                                                \
    static_cast<void>(zo_archive ZOSERIALIZE_IMPL_FOR_EACH_FIELD(__VA_ARGS__)); \
  }

// Expands to (zo_value.a)(zo_value.b)... : each field is one more call of the archive. The
// rescans of ZOSERIALIZE_IMPL_EXPAND allow up to 256 fields.
#define ZOSERIALIZE_IMPL_FOR_EACH_FIELD(...) \
  __VA_OPT__(ZOSERIALIZE_IMPL_EXPAND(ZOSERIALIZE_IMPL_FIELD_STEP(__VA_ARGS__)))
#define ZOSERIALIZE_IMPL_FIELD_STEP(field, ...) \
  (zo_value.field) __VA_OPT__(ZOSERIALIZE_IMPL_FIELD_AGAIN ZOSERIALIZE_IMPL_PARENS(__VA_ARGS__))
#define ZOSERIALIZE_IMPL_FIELD_AGAIN() ZOSERIALIZE_IMPL_FIELD_STEP
#define ZOSERIALIZE_IMPL_PARENS ()
#define ZOSERIALIZE_IMPL_EXPAND(...) \
  ZOSERIALIZE_IMPL_EXPAND4(          \
      ZOSERIALIZE_IMPL_EXPAND4(ZOSERIALIZE_IMPL_EXPAND4(ZOSERIALIZE_IMPL_EXPAND4(__VA_ARGS__))))
#define ZOSERIALIZE_IMPL_EXPAND4(...) \
  ZOSERIALIZE_IMPL_EXPAND3(           \
      ZOSERIALIZE_IMPL_EXPAND3(ZOSERIALIZE_IMPL_EXPAND3(ZOSERIALIZE_IMPL_EXPAND3(__VA_ARGS__))))
#define ZOSERIALIZE_IMPL_EXPAND3(...) \
  ZOSERIALIZE_IMPL_EXPAND2(           \
      ZOSERIALIZE_IMPL_EXPAND2(ZOSERIALIZE_IMPL_EXPAND2(ZOSERIALIZE_IMPL_EXPAND2(__VA_ARGS__))))
#define ZOSERIALIZE_IMPL_EXPAND2(...) __VA_ARGS__
