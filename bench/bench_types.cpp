// The records workload declared once with <zoserialize/types.h>, beside the hand-written layout of
// records.h (the same bytes), msgpack-cxx's MSGPACK_DEFINE and cereal's portable binary archive on
// the same structs.
//
// Every encode benchmark first checks its bytes (the declared layout must equal the hand-written
// one) and every decode benchmark first decodes once and compares the records with the generated
// ones; a mismatch reports the benchmark as failed instead of timing it.

#include <ios>
#include <streambuf>
#include <string>

#include <benchmark/benchmark.h>
#include <cereal/archives/portable_binary.hpp>
#include <cereal/types/string.hpp>
#include <cereal/types/vector.hpp>

#include <zocore/memory_stream.h>
#include <zoserialize/types.h>

#include "records_bench.h"

namespace zobench {

// The whole declaration of the layout: Nested by the macro, Record by a free function because
// its blob travels as one Binary element rather than a sequence of chars.
ZOSERIALIZE_FIELDS(Nested, a, b, label)
template <class A>
void fields(A& a, Record& r) {
  a(r.id, r.flag, r.score, r.name, r.tags, zoserialize::as_binary(r.blob), r.nested);
}

// cereal, non-intrusive.
template <class Archive>
void serialize(Archive& ar, Nested& n) {
  ar(n.a, n.b, n.label);
}
template <class Archive>
void serialize(Archive& ar, Record& r) {
  ar(r.id, r.flag, r.score, r.name, r.tags, r.blob, r.nested);
}

namespace {

using zocore::make_ref_counted;
using zocore::MemoryReadStream;
using zocore::StringWriteStream;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::MemoryReader;
using zoserialize::MemoryWriter;

// ---- zoserialize: hand-written and declared, binary stream and memory list -------------------

enum class Layout { kHandWritten, kDeclared };

template <class W>
void encode_with(W& writer, Layout layout) {
  if (layout == Layout::kHandWritten) {
    write_records(writer, std::span<Record const>(standard_records()));
  } else {
    zoserialize::write_value(writer, standard_records());
  }
  writer.close();
}

std::string encode_binary(Layout layout) {
  auto sink = make_ref_counted<StringWriteStream>();
  BinaryWriter writer(sink);
  encode_with(writer, layout);
  return sink->take();
}

char const* label(Layout layout) {
  return layout == Layout::kHandWritten ? "hand-written" : "declared";
}

// Arg 0: hand-written; 1: declared with types.h.
void BM_RecordsEncode_Binary(benchmark::State& state) {
  auto const layout = static_cast<Layout>(state.range(0));
  state.SetLabel(label(layout));
  std::string const expected = encode_binary(Layout::kHandWritten);
  if (encode_binary(layout) != expected) {
    state.SkipWithError("the declared layout writes other bytes than the hand-written one");
    return;
  }
  auto sink = make_ref_counted<StringWriteStream>();
  sink->reserve(expected.size());
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    sink->clear();
    BinaryWriter writer(sink);
    encode_with(writer, layout);
    benchmark::DoNotOptimize(sink->str().data());
    benchmark::ClobberMemory();
  }
  set_records_counters(state, standard_records().size(), expected.size());
}
BENCHMARK(BM_RecordsEncode_Binary)->Arg(0)->Arg(1);

void BM_RecordsEncode_Memory(benchmark::State& state) {
  auto const layout = static_cast<Layout>(state.range(0));
  state.SetLabel(label(layout));
  std::size_t const encoded = encode_binary(Layout::kHandWritten).size();
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    MemoryWriter writer;
    encode_with(writer, layout);
    benchmark::DoNotOptimize(writer.memory_list()->size());
    benchmark::ClobberMemory();
  }
  set_records_counters(state, standard_records().size(), encoded);
}
BENCHMARK(BM_RecordsEncode_Memory)->Arg(0)->Arg(1);

// Record by record into the reused scratch, the sequence walked by ReadSequence.
template <class R>
std::size_t decode_declared(R& reader, Record& scratch, auto&& on_record) {
  zoserialize::ReadSequence sequence(reader);
  std::size_t n = 0;
  while (sequence.next()) {
    zoserialize::read_value(reader, scratch);
    on_record(static_cast<Record const&>(scratch));
    ++n;
  }
  return n;
}

template <class R>
std::size_t decode_with(R& reader, Layout layout, Record& scratch, auto&& on_record) {
  return layout == Layout::kHandWritten ? read_records(reader, scratch, on_record)
                                        : decode_declared(reader, scratch, on_record);
}

void BM_RecordsDecode_Binary(benchmark::State& state) {
  auto const layout = static_cast<Layout>(state.range(0));
  state.SetLabel(label(layout));
  std::string const bytes = encode_binary(Layout::kHandWritten);
  run_records_decode(state, bytes.size(), [&](Record& scratch, auto&& on_record) {
    BinaryReader reader(make_ref_counted<MemoryReadStream>(bytes.data(), bytes.size()));
    return decode_with(reader, layout, scratch, on_record);
  });
}
BENCHMARK(BM_RecordsDecode_Binary)->Arg(0)->Arg(1);

void BM_RecordsDecode_Memory(benchmark::State& state) {
  auto const layout = static_cast<Layout>(state.range(0));
  state.SetLabel(label(layout));
  MemoryWriter writer;
  encode_with(writer, Layout::kHandWritten);
  zoserialize::ConstMemoryListPtr const list = writer.close_and_detach_memory_list();
  run_records_decode(state, list->size(), [&](Record& scratch, auto&& on_record) {
    MemoryReader reader(list);
    return decode_with(reader, layout, scratch, on_record);
  });
}
BENCHMARK(BM_RecordsDecode_Memory)->Arg(0)->Arg(1);

// The whole vector at once, as a user who does not reuse a scratch record would read it: every
// record, string and vector is built afresh.
void BM_RecordsDecode_BinaryWholeVector(benchmark::State& state) {
  std::string const bytes = encode_binary(Layout::kHandWritten);
  std::vector<Record> records;
  run_records_decode(state, bytes.size(), [&](Record&, auto&& on_record) {
    records = zoserialize::from_binary<std::vector<Record>>(bytes);
    for (Record const& r : records)
      on_record(r);
    return records.size();
  });
}
BENCHMARK(BM_RecordsDecode_BinaryWholeVector);

// ---- msgpack-cxx with MSGPACK_DEFINE ---------------------------------------------------------

void BM_RecordsEncode_MsgpackDefine(benchmark::State& state) {
  std::vector<Record> const& records = standard_records();
  msgpack::sbuffer buffer;
  msgpack::pack(buffer, records);
  std::size_t const encoded = buffer.size();
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    buffer.clear();
    msgpack::pack(buffer, records);
    benchmark::DoNotOptimize(buffer.data());
    benchmark::ClobberMemory();
  }
  set_records_counters(state, records.size(), encoded);
}
BENCHMARK(BM_RecordsEncode_MsgpackDefine);

std::string encode_msgpack_define() {
  msgpack::sbuffer buffer;
  msgpack::pack(buffer, standard_records());
  return {buffer.data(), buffer.size()};
}

// Unpacked whole (payloads copied into msgpack's zone, its default), then converted record by
// record into the scratch. Its speed depends on glibc's heap: unless glibc keeps freed memory
// (GLIBC_TUNABLES=glibc.malloc.trim_threshold=1000000000), it may return the zone's memory to
// the system after every run, and the next run pays page faults for it (docs/performance.md).
void BM_RecordsDecode_MsgpackDefine(benchmark::State& state) {
  std::string const bytes = encode_msgpack_define();
  run_records_decode(state, bytes.size(), [&](Record& scratch, auto&& on_record) {
    msgpack::object_handle const handle = msgpack::unpack(bytes.data(), bytes.size());
    msgpack::object const& root = handle.get();
    if (root.type != msgpack::type::ARRAY) throw msgpack::type_error();
    for (std::uint32_t i = 0; i < root.via.array.size; ++i) {
      root.via.array.ptr[i].convert(scratch);
      on_record(static_cast<Record const&>(scratch));
    }
    return std::size_t{root.via.array.size};
  });
}
BENCHMARK(BM_RecordsDecode_MsgpackDefine);

// ---- cereal PortableBinaryOutputArchive / InputArchive ----------------------------------------

// Stream buffers over a string, so that cereal is measured rather than ostringstream's growth.
class StringOutBuf : public std::streambuf {
 public:
  explicit StringOutBuf(std::string& out) : out_(out) {}

 protected:
  std::streamsize xsputn(char const* s, std::streamsize n) override {
    out_.append(s, static_cast<std::size_t>(n));
    return n;
  }
  int_type overflow(int_type c) override {
    if (c != traits_type::eof()) out_.push_back(traits_type::to_char_type(c));
    return traits_type::not_eof(c);
  }

 private:
  std::string& out_;
};

class MemoryInBuf : public std::streambuf {
 public:
  MemoryInBuf(char const* data, std::size_t size) {
    char* const begin = const_cast<char*>(data);  // NOLINT: get area, never written
    setg(begin, begin, begin + size);
  }
};

void cereal_encode(std::string& out) {
  StringOutBuf buf(out);
  std::ostream os(&buf);
  cereal::PortableBinaryOutputArchive archive(os);
  archive(standard_records());
}

void BM_RecordsEncode_CerealPortable(benchmark::State& state) {
  std::string out;
  cereal_encode(out);
  std::size_t const encoded = out.size();
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    out.clear();
    cereal_encode(out);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  set_records_counters(state, standard_records().size(), encoded);
}
BENCHMARK(BM_RecordsEncode_CerealPortable);

// The vector's size tag, then record by record into the scratch (what cereal's vector load does
// into each element).
void BM_RecordsDecode_CerealPortable(benchmark::State& state) {
  std::string bytes;
  cereal_encode(bytes);
  run_records_decode(state, bytes.size(), [&](Record& scratch, auto&& on_record) {
    MemoryInBuf buf(bytes.data(), bytes.size());
    std::istream is(&buf);
    cereal::PortableBinaryInputArchive archive(is);
    cereal::size_type count = 0;
    archive(cereal::make_size_tag(count));
    for (cereal::size_type i = 0; i < count; ++i) {
      archive(scratch);
      on_record(static_cast<Record const&>(scratch));
    }
    return static_cast<std::size_t>(count);
  });
}
BENCHMARK(BM_RecordsDecode_CerealPortable);

}  // namespace
}  // namespace zobench

BENCHMARK_MAIN();
