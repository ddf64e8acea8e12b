// The memory archives side by side with msgpack-cxx on the same records, and large binary values
// embedded into a MemoryWriter by reference against copying them.
//
// Every decode benchmark first decodes once and compares the result with the generated data, and
// every embedding benchmark first checks what it embeds; a mismatch reports the benchmark as
// failed instead of timing a broken archive.

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include <zoserialize/memory_chunk.h>
#include <zoserialize/memory_list.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>

#include "records_bench.h"

namespace zobench {
namespace {

using zoserialize::ConstMemoryListPtr;
using zoserialize::MemoryList;
using zoserialize::MemoryListBaseType;
using zoserialize::MemoryListPtr;
using zoserialize::MemoryReader;
using zoserialize::MemoryWriter;

// ---- records -----------------------------------------------------------------------------------

ConstMemoryListPtr encode_memory(std::span<Record const> records) {
  MemoryWriter writer;
  write_records(writer, records);
  writer.close();
  return writer.close_and_detach_memory_list();
}

std::string flat(msgpack::vrefbuffer const& buffer) {
  std::string out;
  for (std::size_t i = 0; i < buffer.vector_size(); ++i) {
    iovec const& piece = buffer.vector()[i];
    out.append(static_cast<char const*>(piece.iov_base), piece.iov_len);
  }
  return out;
}

// A fresh writer per run: its chunks come from the pools, to which the previous run's list
// returned them.
void BM_RecordsEncode_MemoryWriter(benchmark::State& state) {
  std::vector<Record> const& records = standard_records();
  std::size_t const encoded = encode_memory(records)->size();
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    MemoryWriter writer;
    write_records(writer, records);
    writer.close();
    benchmark::DoNotOptimize(writer.memory_list()->size());
    benchmark::ClobberMemory();
  }
  set_records_counters(state, records.size(), encoded);
}
BENCHMARK(BM_RecordsEncode_MemoryWriter);

// msgpack::packer into a reused sbuffer, cleared per run.
void BM_RecordsEncode_MsgpackSbuffer(benchmark::State& state) {
  run_msgpack_encode(state);
}
BENCHMARK(BM_RecordsEncode_MsgpackSbuffer);

// msgpack::packer into a reused vrefbuffer (payloads of 32 bytes or more referenced, not
// copied), cleared per run.
void BM_RecordsEncode_MsgpackVrefbuffer(benchmark::State& state) {
  std::vector<Record> const& records = standard_records();
  std::string const expected = encode_msgpack(records);
  msgpack::vrefbuffer buffer;
  msgpack_encode(records, buffer);
  if (flat(buffer) != expected) {
    state.SkipWithError("the vrefbuffer holds other bytes than the sbuffer");
    return;
  }
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    buffer.clear();
    msgpack_encode(records, buffer);
    benchmark::DoNotOptimize(buffer.vector());
    benchmark::ClobberMemory();
  }
  state.counters["iovecs"] = static_cast<double>(buffer.vector_size());
  set_records_counters(state, records.size(), expected.size());
}
BENCHMARK(BM_RecordsEncode_MsgpackVrefbuffer);

std::size_t decode_memory(ConstMemoryListPtr const& list, Record& scratch, auto&& on_record) {
  MemoryReader reader(list);
  return read_records(reader, scratch, on_record);
}

void BM_RecordsDecode_MemoryReader(benchmark::State& state) {
  ConstMemoryListPtr const list = encode_memory(standard_records());
  state.counters["segments"] = static_cast<double>(list->segment_count());
  run_records_decode(state, list->size(), [&](Record& scratch, auto&& on_record) {
    return decode_memory(list, scratch, on_record);
  });
}
BENCHMARK(BM_RecordsDecode_MemoryReader);

void BM_RecordsDecode_Msgpack(benchmark::State& state) {
  run_msgpack_decode(state);
}
BENCHMARK(BM_RecordsDecode_Msgpack)->Arg(0)->Arg(1);

void BM_RecordsDecode_MsgpackVisitor(benchmark::State& state) {
  run_msgpack_visit_decode(state);
}
BENCHMARK(BM_RecordsDecode_MsgpackVisitor);

// ---- one large binary value, written through the value stream ----------------------------------

void BM_BlobMemcpy(benchmark::State& state) {
  run_blob_memcpy(state);
}
BENCHMARK(BM_BlobMemcpy)->Unit(benchmark::kMillisecond);

// Chunks of 64 KiB that the benchmark keeps without bound: from the second run on, the writer
// copies into memory whose pages are mapped, as memcpy's destination is. (The library's pools
// keep 32 such chunks; the rest of 64 MiB is fresh memory from the heap on every run, and the
// page faults of mapping it cost more than the copy.)
class WarmChunk final : public zoserialize::MemoryChunk {
 public:
  static constexpr unsigned kSize = 65536;

  static zoserialize::MemoryChunkPtr create(unsigned /*request*/) {
    std::vector<WarmChunk*>& idle = idle_chunks();
    WarmChunk* const chunk = idle.empty() ? new WarmChunk : idle.back();
    if (!idle.empty()) idle.pop_back();
    return zoserialize::MemoryChunkPtr(chunk);
  }

  zoserialize::MemoryChunkPtr clone_range(unsigned offset, unsigned length) const override {
    zoserialize::MemoryChunkPtr copy = create(kSize);
    if (offset < kSize)
      std::memcpy(copy->data(), data() + offset, std::min(length, kSize - offset));
    return copy;
  }

 protected:
  void destroy() override { idle_chunks().push_back(this); }

 private:
  WarmChunk() noexcept : MemoryChunkBase(storage_, kSize) {}
  static std::vector<WarmChunk*>& idle_chunks() {
    static std::vector<WarmChunk*> idle;
    return idle;
  }

  char storage_[kSize];
};

// The value stream of write_binary(), fed in 1 MiB pieces, into a fresh writer per run. Arg 0:
// the library's chunks (pooled as far as the pools hold them, fresh from the heap beyond); 1:
// chunks the benchmark keeps warm.
void BM_BlobWrite_ValueStream(benchmark::State& state) {
  bool const warm = state.range(0) != 0;
  state.SetLabel(warm ? "warm chunks" : "library chunks");
  char const* const payload = blob_payload();
  auto const write = [&] {
    MemoryWriter writer(warm ? MemoryList::create_with_factory(&WarmChunk::create) : nullptr);
    zocore::InterfacePtr<zocore::IWriteStream> const stream = writer.write_binary();
    for (std::size_t off = 0; off < kBlobSize; off += kPiece)
      stream->write(payload + off, kPiece);
    stream->close();
    return writer.close_and_detach_memory_list();
  };
  MemoryListPtr first = write();
  MemoryReader check{ConstMemoryListPtr(first)};
  std::string got(kBlobSize, '\0');
  if (check.read_binary()->read(got.data(), kBlobSize) != kBlobSize ||
      std::memcmp(got.data(), payload, kBlobSize) != 0) {
    state.SkipWithError("the value read back differs from the payload");
    return;
  }
  first = nullptr;
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    MemoryListPtr const list = write();
    benchmark::DoNotOptimize(list->size());
    benchmark::ClobberMemory();
  }
  set_blob_counters(state);
}
BENCHMARK(BM_BlobWrite_ValueStream)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// ---- one large binary value, embedded ----------------------------------------------------------

// 1,600 segments of 64 KiB: a list grown by appending asks the pools for ever larger chunks and
// gets their largest class.
constexpr unsigned kLargeSegments = 1600;
constexpr unsigned kLargeSegmentSize = 65536;
constexpr unsigned kLargeSize = kLargeSegments * kLargeSegmentSize;

char const* large_payload() {
  static std::unique_ptr<char[]> const payload = [] {
    auto p = std::make_unique<char[]>(kLargeSize);
    std::uint32_t x = 0x9E3779B9u;
    for (unsigned i = 0; i < kLargeSize; ++i) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      p[i] = static_cast<char>(x);
    }
    return p;
  }();
  return payload.get();
}

// The first segments * segment_size bytes of the payload as a list of that many segments, built
// once per shape.
ConstMemoryListPtr const& large_list(unsigned segments = kLargeSegments,
                                     unsigned segment_size = kLargeSegmentSize) {
  static std::map<std::pair<unsigned, unsigned>, ConstMemoryListPtr> lists;
  ConstMemoryListPtr& list = lists[{segments, segment_size}];
  if (!list) {
    MemoryListPtr const l = MemoryList::create();
    for (unsigned i = 0; i < segments; ++i) {
      zoserialize::MemoryChunkPtr chunk = zoserialize::create_memory_chunk(segment_size);
      std::memcpy(chunk->data(), large_payload() + std::size_t{i} * segment_size, segment_size);
      l->append(chunk, 0, segment_size);
    }
    list = ConstMemoryListPtr(l);
  }
  return list;
}

// True when `list` holds exactly the first `size` bytes of the payload.
bool holds_payload(MemoryListBaseType const& list, unsigned size = kLargeSize) {
  if (list.size() != size) return false;
  unsigned at = 0;
  for (auto piece = list.segment_read_iterator(); !piece.at_end(); piece.next()) {
    if (std::memcmp(piece.data(), large_payload() + at, piece.size()) != 0) return false;
    at += piece.size();
  }
  return at == size;
}

// What a message around a large value looks like: a short header element first, so the writer's
// chunk has room behind it when the value comes.
void write_header(MemoryWriter& writer) {
  writer << "header" << 42;
}

// Reads back what a benchmark wrote; true when the value is exactly the payload's first `size`
// bytes.
bool reads_back(ConstMemoryListPtr const& written, unsigned size = kLargeSize) {
  MemoryReader reader(written);
  std::string header;
  int number = 0;
  reader >> header >> number;
  MemoryListPtr const value = reader.read_binary_as_memory_list();
  return header == "header" && number == 42 && reader.is_eof() && holds_payload(*value, size);
}

void set_large_counters(benchmark::State& state, unsigned segments, unsigned size = kLargeSize) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(size));
  state.counters["segments"] = static_cast<double>(segments);
}

// MemoryWriter::write_binary(list): the list's segments are shared, so the cost follows their
// number, not the bytes. Each run builds a writer, embeds, and releases the writer with its
// references. Args: segments, segment size in bytes (1,600 x 64 KiB is the 100 MB list).
void BM_EmbedList_Shared(benchmark::State& state) {
  auto const segments = static_cast<unsigned>(state.range(0));
  auto const segment_size = static_cast<unsigned>(state.range(1));
  ConstMemoryListPtr const& list = large_list(segments, segment_size);
  {
    MemoryWriter writer;
    write_header(writer);
    writer.write_binary(list);
    writer.close();
    if (!reads_back(writer.memory_list(), list->size())) {
      state.SkipWithError("the embedded list reads back as other bytes");
      return;
    }
  }
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    MemoryWriter writer;
    write_header(writer);
    writer.write_binary(list);
    benchmark::DoNotOptimize(writer.memory_list()->size());
  }
  set_large_counters(state, list->segment_count(), list->size());
}
BENCHMARK(BM_EmbedList_Shared)
    ->Args({kLargeSegments, kLargeSegmentSize})
    ->Args({kLargeSegments / 4, kLargeSegmentSize})
    ->Args({kLargeSegments, 1024})
    ->Unit(benchmark::kMicrosecond);

// For contrast, the same bytes written by value: write_binary(ptr, size) copies 100 MB into the
// writer's chunks.
void BM_EmbedList_DeepCopy(benchmark::State& state) {
  char const* const payload = large_payload();
  {
    MemoryWriter writer;
    write_header(writer);
    writer.write_binary(payload, kLargeSize);
    writer.close();
    if (!reads_back(writer.memory_list())) {
      state.SkipWithError("the copied value reads back as other bytes");
      return;
    }
  }
  unsigned segments = 0;
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    MemoryWriter writer;
    write_header(writer);
    writer.write_binary(payload, kLargeSize);
    segments = writer.memory_list()->segment_count();
    benchmark::ClobberMemory();
  }
  set_large_counters(state, segments);
}
BENCHMARK(BM_EmbedList_DeepCopy)->Unit(benchmark::kMillisecond);

// MemoryReader::read_binary_as_memory_list of the value, which shares the reader's chunks. Arg 0:
// the value embedded by reference; 1: the value copied in.
void BM_ReadBinaryAsMemoryList(benchmark::State& state) {
  bool const copied = state.range(0) != 0;
  state.SetLabel(copied ? "copied value" : "embedded list");
  ConstMemoryListPtr written;
  {
    MemoryWriter writer;
    write_header(writer);
    if (copied) {
      writer.write_binary(large_payload(), kLargeSize);
    } else {
      writer.write_binary(large_list());
    }
    writer.close();
    written = writer.close_and_detach_memory_list();
  }
  if (!reads_back(written)) {
    state.SkipWithError("the value reads back as other bytes");
    return;
  }
  unsigned segments = 0;
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    MemoryReader reader(written);
    reader.skip_element();
    reader.skip_element();
    MemoryListPtr const value = reader.read_binary_as_memory_list();
    segments = value->segment_count();
    benchmark::DoNotOptimize(value->size());
  }
  set_large_counters(state, segments);
}
BENCHMARK(BM_ReadBinaryAsMemoryList)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// msgpack-cxx's own ways to put 100 MB into a message: a vrefbuffer refers to the body (one
// iovec), an sbuffer copies it.
void BM_EmbedBlob_Msgpack(benchmark::State& state) {
  bool const by_reference = state.range(0) == 0;
  state.SetLabel(by_reference ? "vrefbuffer" : "sbuffer");
  char const* const payload = large_payload();
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    if (by_reference) {
      msgpack::vrefbuffer buffer;
      msgpack::packer<msgpack::vrefbuffer> pk(buffer);
      pk.pack_str(6);
      pk.pack_str_body("header", 6);
      pk.pack_int(42);
      pk.pack_bin(kLargeSize);
      pk.pack_bin_body(payload, kLargeSize);
      benchmark::DoNotOptimize(buffer.vector());
    } else {
      msgpack::sbuffer buffer;
      msgpack::packer<msgpack::sbuffer> pk(buffer);
      pk.pack_str(6);
      pk.pack_str_body("header", 6);
      pk.pack_int(42);
      pk.pack_bin(kLargeSize);
      pk.pack_bin_body(payload, kLargeSize);
      benchmark::DoNotOptimize(buffer.data());
    }
    benchmark::ClobberMemory();
  }
  set_large_counters(state, 1);
}
BENCHMARK(BM_EmbedBlob_Msgpack)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace zobench

BENCHMARK_MAIN();
