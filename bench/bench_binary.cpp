// The binary archives over memory-backed streams, side by side with msgpack-cxx on the same
// records, and large binary values against a plain memcpy of the same size.
//
// Every decode benchmark first decodes once and compares the result with the generated data;
// a mismatch reports the benchmark as failed instead of timing a broken decoder.

#include <cstring>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>

#include "records_bench.h"

namespace zobench {
namespace {

using zocore::make_ref_counted;
using zocore::MemoryReadStream;
using zocore::StringWriteStream;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;

// ---- records -----------------------------------------------------------------------------------

std::string encode_zoserialize(std::span<Record const> records) {
  auto sink = make_ref_counted<StringWriteStream>();
  {
    BinaryWriter writer(sink);
    write_records(writer, records);
    writer.close();
  }
  return sink->take();
}

void BM_RecordsEncode_Zoserialize(benchmark::State& state) {
  std::vector<Record> const& records = standard_records();
  std::size_t const encoded = encode_zoserialize(records).size();
  auto sink = make_ref_counted<StringWriteStream>();
  sink->reserve(encoded);
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    sink->clear();
    BinaryWriter writer(sink);
    write_records(writer, records);
    writer.close();
    benchmark::DoNotOptimize(sink->str().data());
    benchmark::ClobberMemory();
  }
  set_records_counters(state, records.size(), encoded);
}
BENCHMARK(BM_RecordsEncode_Zoserialize);

void BM_RecordsEncode_Msgpack(benchmark::State& state) {
  run_msgpack_encode(state);
}
BENCHMARK(BM_RecordsEncode_Msgpack);

std::size_t decode_zoserialize(std::string const& bytes, Record& scratch, auto&& on_record) {
  BinaryReader reader(make_ref_counted<MemoryReadStream>(bytes.data(), bytes.size()));
  return read_records(reader, scratch, on_record);
}

void BM_RecordsDecode_Zoserialize(benchmark::State& state) {
  std::string const bytes = encode_zoserialize(standard_records());
  run_records_decode(state, bytes.size(), [&](Record& scratch, auto&& on_record) {
    return decode_zoserialize(bytes, scratch, on_record);
  });
}
BENCHMARK(BM_RecordsDecode_Zoserialize);

void BM_RecordsDecode_Msgpack(benchmark::State& state) {
  run_msgpack_decode(state);
}
BENCHMARK(BM_RecordsDecode_Msgpack)->Arg(0)->Arg(1);

void BM_RecordsDecode_MsgpackVisitor(benchmark::State& state) {
  run_msgpack_visit_decode(state);
}
BENCHMARK(BM_RecordsDecode_MsgpackVisitor);

// ---- one large binary value -------------------------------------------------------------------

void write_blob_in_pieces(BinaryWriter& writer, char const* payload) {
  zocore::InterfacePtr<zocore::IWriteStream> const stream = writer.write_binary();
  for (std::size_t off = 0; off < kBlobSize; off += kPiece)
    stream->write(payload + off, kPiece);
  stream->close();
}

// The encoding of the payload written through the value stream (chunked) or from an input
// stream of known size (one whole value).
std::string const& encoded_blob(bool chunked) {
  static std::string const encoded[2] = {[] {
                                           auto sink = make_ref_counted<StringWriteStream>();
                                           MemoryReadStream source(blob_payload(), kBlobSize);
                                           BinaryWriter writer(sink);
                                           writer.write_binary(source);
                                           writer.close();
                                           return sink->take();
                                         }(),
                                         [] {
                                           auto sink = make_ref_counted<StringWriteStream>();
                                           BinaryWriter writer(sink);
                                           write_blob_in_pieces(writer, blob_payload());
                                           writer.close();
                                           return sink->take();
                                         }()};
  return encoded[chunked ? 1 : 0];
}

// A sink with room for `expected`, its pages already written once, so that the timed writes
// measure copying rather than the kernel mapping fresh pages.
zocore::RefCountPtr<StringWriteStream> warm_sink(std::string const& expected) {
  auto sink = make_ref_counted<StringWriteStream>();
  sink->reserve(expected.size());
  sink->write(expected.data(), static_cast<unsigned>(expected.size()));
  sink->clear();
  return sink;
}

void BM_BlobMemcpy(benchmark::State& state) {
  run_blob_memcpy(state);
}
BENCHMARK(BM_BlobMemcpy)->Unit(benchmark::kMillisecond);

// The value stream of write_binary(), fed in 1 MiB pieces, into a sink reserved in advance.
void BM_BlobWrite_ValueStream(benchmark::State& state) {
  char const* const payload = blob_payload();
  auto sink = warm_sink(encoded_blob(true));
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    sink->clear();
    BinaryWriter writer(sink);
    write_blob_in_pieces(writer, payload);
    writer.close();
    benchmark::DoNotOptimize(sink->str().data());
    benchmark::ClobberMemory();
  }
  if (sink->str() != encoded_blob(true)) state.SkipWithError("unexpected encoding");
  set_blob_counters(state);
}
BENCHMARK(BM_BlobWrite_ValueStream)->Unit(benchmark::kMillisecond);

// write_binary(IReadStream&) from a memory stream of known size.
void BM_BlobWrite_FromReadStream(benchmark::State& state) {
  char const* const payload = blob_payload();
  auto sink = warm_sink(encoded_blob(false));
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    sink->clear();
    MemoryReadStream source(payload, kBlobSize);
    BinaryWriter writer(sink);
    writer.write_binary(source);
    writer.close();
    benchmark::DoNotOptimize(sink->str().data());
    benchmark::ClobberMemory();
  }
  if (sink->str() != encoded_blob(false)) state.SkipWithError("unexpected encoding");
  set_blob_counters(state);
}
BENCHMARK(BM_BlobWrite_FromReadStream)->Unit(benchmark::kMillisecond);

// read_binary() in 1 MiB reads. Arg 0: the whole-value form; 1: the chunked form that the value
// stream writes.
void BM_BlobRead(benchmark::State& state) {
  bool const chunked = state.range(0) != 0;
  state.SetLabel(chunked ? "chunked" : "whole");
  std::string const& encoded = encoded_blob(chunked);
  std::unique_ptr<char[]> const dest = touched_buffer();
  auto read_all = [&] {
    BinaryReader reader(make_ref_counted<MemoryReadStream>(encoded.data(), encoded.size()));
    zocore::InterfacePtr<zocore::IReadStream> const stream = reader.read_binary();
    std::size_t total = 0;
    for (std::size_t off = 0; off < kBlobSize; off += kPiece) {
      total += stream->read(dest.get() + off, kPiece);
    }
    return total;
  };
  if (read_all() != kBlobSize || std::memcmp(dest.get(), blob_payload(), kBlobSize) != 0) {
    state.SkipWithError("the value read back differs from the payload");
    return;
  }
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    std::size_t const total = read_all();
    benchmark::DoNotOptimize(total);
    benchmark::ClobberMemory();
  }
  set_blob_counters(state);
}
BENCHMARK(BM_BlobRead)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zobench

BENCHMARK_MAIN();
