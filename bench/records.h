// The "records" workload shared by the benchmark programs: a deterministic generator, the
// zoserialize layout (written through any Writer, read through any Reader) and the msgpack-cxx
// layout of the same data, so that every archive is measured against the same bytes of input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <msgpack.hpp>

#include <zocore/stream.h>
#include <zoserialize/reader.h>
#include <zoserialize/writer.h>

namespace zobench {

struct Nested {
  std::int32_t a = 0;
  std::int32_t b = 0;
  std::string label;

  MSGPACK_DEFINE(a, b, label)  // the msgpack layout below, declared once (bench_types)
  friend bool operator==(Nested const&, Nested const&) = default;
};

struct Record {
  std::int64_t id = 0;
  bool flag = false;
  double score = 0.0;
  std::string name;
  std::vector<std::string> tags;
  std::vector<char> blob;
  Nested nested;

  MSGPACK_DEFINE(id, flag, score, name, tags, blob, nested)
  friend bool operator==(Record const&, Record const&) = default;
};

inline constexpr std::size_t kRecordCount = 10000;
inline constexpr std::uint64_t kRecordSeed = 0x5EED'2024'0B1A'5EEDull;

// `count` records from `seed`. The same seed gives the same records with every compiler and
// standard library (no std::*_distribution, whose output is implementation-defined): ids of
// mixed magnitude and sign, names of 5-20 ASCII characters, 0-5 short tags, blobs of 0-64
// bytes, a nested pair of int32 and a label.
std::vector<Record> generate_records(std::size_t count, std::uint64_t seed);

// The kRecordCount records of kRecordSeed, generated on first use.
std::vector<Record> const& standard_records();

// Folds the fields of a decoded record into a running value, so that the optimiser cannot drop
// any part of a decode whose result is otherwise unused.
inline std::uint64_t fold(std::uint64_t acc, Record const& r) noexcept {
  acc = acc * 31 + static_cast<std::uint64_t>(r.id) + (r.flag ? 1 : 0);
  acc += static_cast<std::uint64_t>(r.score) + r.name.size() + r.tags.size() + r.blob.size();
  acc += static_cast<std::uint64_t>(r.nested.a) + static_cast<std::uint64_t>(r.nested.b) +
         r.nested.label.size();
  return acc;
}

// ---- zoserialize layout ------------------------------------------------------------------------
// The whole is a sequence with a count hint; each record a marker holding id, flag, score, name,
// tags (a sequence with a count hint), blob (a binary) and nested (a marker of two int32 and a
// string). Templates, so that a concrete archive type is called without virtual dispatch where
// the compiler can see through it.

template <class W>
void write_record(W& w, Record const& r) {
  w.write_marker_start();
  w << r.id << r.flag << r.score << r.name;
  w.write_sequence_start(static_cast<unsigned>(r.tags.size()));
  for (std::size_t i = 0; i < r.tags.size(); ++i) {
    if (i != 0) w.write_sequence_separator();
    w << r.tags[i];
  }
  w.write_sequence_end();
  w.write_binary(r.blob.data(), static_cast<unsigned>(r.blob.size()));
  w.write_marker_start();
  w << r.nested.a << r.nested.b << r.nested.label;
  w.write_marker_end();
  w.write_marker_end();
}

template <class W>
void write_records(W& w, std::span<Record const> records) {
  w.write_sequence_start(static_cast<unsigned>(records.size()));
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (i != 0) w.write_sequence_separator();
    write_record(w, records[i]);
  }
  w.write_sequence_end();
}

// Reads a binary value whole into `out`, reusing its capacity. False when the stream delivered
// fewer bytes than it announced.
bool read_blob(zocore::IReadStream& stream, std::vector<char>& out);

// Reads one record into `r`, whose strings and vectors keep their capacity from record to
// record. False when the data do not hold a whole record (a blob cut short).
template <class R>
bool read_record(R& rd, Record& r) {
  rd.read_marker_start();
  rd >> r.id >> r.flag >> r.score >> r.name;
  rd.read_sequence_start();
  std::size_t n = 0;
  while (rd.read_sequence_next()) {
    if (n == r.tags.size()) r.tags.emplace_back();
    rd >> r.tags[n++];
  }
  r.tags.resize(n);
  zocore::InterfacePtr<zocore::IReadStream> const blob = rd.read_binary();
  if (!read_blob(*blob, r.blob)) return false;
  rd.read_marker_start();
  rd >> r.nested.a >> r.nested.b >> r.nested.label;
  rd.read_marker_end();
  rd.read_marker_end();
  return true;
}

// Reads the whole sequence, handing each record to `on_record` in the reused `scratch`.
// Returns the number of records read, or SIZE_MAX when a record was cut short.
template <class R, class F>
std::size_t read_records(R& rd, Record& scratch, F&& on_record) {
  rd.read_sequence_start();
  std::size_t n = 0;
  while (rd.read_sequence_next()) {
    if (!read_record(rd, scratch)) return SIZE_MAX;
    on_record(static_cast<Record const&>(scratch));
    ++n;
  }
  return n;
}

// ---- msgpack layout ----------------------------------------------------------------------------
// The whole is an array; each record a positional array of seven elements (no field names):
// id, flag, score, name, tags (array of str), blob (bin), nested (array of int, int, str).

// Into a contiguous buffer, or into a vrefbuffer, which refers to payloads of at least its
// ref_size (32 bytes by default) instead of copying them and hands the result out as an iovec
// array for writev(); such a vrefbuffer must not outlive `records`.
void msgpack_encode(std::span<Record const> records, msgpack::sbuffer& out);
void msgpack_encode(std::span<Record const> records, msgpack::vrefbuffer& out);
// The contiguous msgpack encoding of `records`.
std::string encode_msgpack(std::span<Record const> records);

// How msgpack's unpacker places str and bin payloads: copied into its zone (the library's
// default) or referring into the input buffer, which must then outlive the decode.
enum class MsgpackPayloads { kCopied, kReferenced };

// Unpacks `data` and converts every field of every record into `scratch`, handing each record
// to `on_record`. Returns the number of records; throws msgpack's exceptions on malformed data.
template <class F>
std::size_t msgpack_decode(char const* data, std::size_t size, MsgpackPayloads payloads,
                           Record& scratch, F&& on_record) {
  msgpack::unpack_reference_func const reference =
      payloads == MsgpackPayloads::kReferenced
          ? +[](msgpack::type::object_type, std::size_t, void*) { return true; }
          : nullptr;
  msgpack::object_handle const handle = msgpack::unpack(data, size, reference);
  msgpack::object const& root = handle.get();
  if (root.type != msgpack::type::ARRAY) throw msgpack::type_error();
  for (std::uint32_t i = 0; i < root.via.array.size; ++i) {
    msgpack::object const& rec = root.via.array.ptr[i];
    if (rec.type != msgpack::type::ARRAY || rec.via.array.size != 7) throw msgpack::type_error();
    msgpack::object const* f = rec.via.array.ptr;
    f[0].convert(scratch.id);
    f[1].convert(scratch.flag);
    f[2].convert(scratch.score);
    f[3].convert(scratch.name);
    f[4].convert(scratch.tags);
    f[5].convert(scratch.blob);
    msgpack::object const& nested = f[6];
    if (nested.type != msgpack::type::ARRAY || nested.via.array.size != 3) {
      throw msgpack::type_error();
    }
    nested.via.array.ptr[0].convert(scratch.nested.a);
    nested.via.array.ptr[1].convert(scratch.nested.b);
    nested.via.array.ptr[2].convert(scratch.nested.label);
    on_record(static_cast<Record const&>(scratch));
  }
  return root.via.array.size;
}

// msgpack-cxx's fastest decode: msgpack::parse with a visitor that fills `scratch` field by
// field as the parser meets them (no object tree, no zone), handing each record to
// `on_record`. Returns the number of records, or SIZE_MAX when the parser stops early.
template <class F>
std::size_t msgpack_visit_decode(char const* data, std::size_t size, Record& scratch,
                                 F&& on_record) {
  // Depth 1 is the array of records, 2 a record's fields, 3 its tags or its nested triple.
  struct Visitor : msgpack::null_visitor {
    Record& r;
    F& on_record;
    unsigned depth = 0;
    unsigned field = 0;  // of the record
    unsigned item = 0;   // of the tags or the nested triple
    std::size_t records = 0;

    Visitor(Record& record, F& on) : r(record), on_record(on) {}

    bool visit_positive_integer(std::uint64_t v) { return integer(static_cast<std::int64_t>(v)); }
    bool visit_negative_integer(std::int64_t v) { return integer(v); }
    bool integer(std::int64_t v) {
      if (depth == 2) {
        r.id = v;
      } else if (item == 0) {
        r.nested.a = static_cast<std::int32_t>(v);
      } else {
        r.nested.b = static_cast<std::int32_t>(v);
      }
      return true;
    }
    bool visit_boolean(bool v) {
      r.flag = v;
      return true;
    }
    bool visit_float64(double v) {
      r.score = v;
      return true;
    }
    bool visit_str(char const* p, std::uint32_t n) {
      if (depth == 2) {
        r.name.assign(p, n);
      } else if (field == 4) {
        if (item == r.tags.size()) r.tags.emplace_back();
        r.tags[item].assign(p, n);
      } else {
        r.nested.label.assign(p, n);
      }
      return true;
    }
    bool visit_bin(char const* p, std::uint32_t n) {
      r.blob.assign(p, p + n);
      return true;
    }
    bool start_array(std::uint32_t) {
      ++depth;
      if (depth == 2) field = 0;
      item = 0;
      return true;
    }
    bool end_array_item() {
      if (depth == 2) ++field;
      if (depth == 3) ++item;
      return true;
    }
    bool end_array() {
      if (depth == 3 && field == 4) r.tags.resize(item);
      if (depth == 2) {
        on_record(static_cast<Record const&>(r));
        ++records;
      }
      --depth;
      return true;
    }
  } visitor(scratch, on_record);
  std::size_t offset = 0;
  if (!msgpack::parse(data, size, offset, visitor)) return SIZE_MAX;
  return visitor.records;
}

}  // namespace zobench
