// The hashing adapters over the records workload with an OpenSSL SHA-256 sink, next to plain
// SHA-256 of the same canonical bytes in one piece (what the adapters cannot beat: the digest of
// the record they produce), and the trace writer on the same records.
//
// Every benchmark first checks that what it hashes is the reference record's digest; a mismatch
// reports the benchmark as failed instead of timing something else.

#include <ostream>
#include <streambuf>
#include <string>

#include <benchmark/benchmark.h>

#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zodigest/digest_sink.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/hashing_reader_adapter.h>
#include <zoserialize/hashing_writer_adapter.h>
#include <zoserialize/trace_writer.h>

#include "records_bench.h"

namespace zobench {
namespace {

using zocore::make_ref_counted;
using zocore::MemoryReadStream;
using zocore::StringWriteStream;
using zodigest::DigestSink;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::HashingReaderAdapter;
using zoserialize::HashingWriterAdapter;

// The canonical record of the standard records, trailer included.
std::string const& canonical_record() {
  static std::string const record = [] {
    auto sink = make_ref_counted<StringWriteStream>();
    HashingWriterAdapter adapter(sink);
    write_records(adapter, standard_records());
    adapter.close();
    return sink->take();
  }();
  return record;
}

std::string const& binary_encoding() {
  static std::string const bytes = [] {
    auto sink = make_ref_counted<StringWriteStream>();
    BinaryWriter writer(sink);
    write_records(writer, standard_records());
    writer.close();
    return sink->take();
  }();
  return bytes;
}

std::string sha256_of(std::string const& bytes) {
  DigestSink sink;
  sink.write(bytes.data(), static_cast<unsigned>(bytes.size()));
  return sink.hex_digest();
}

// Runs `hash(sink)` per iteration on a reset SHA-256 sink; the first run must give the digest of
// the canonical record.
template <class Hash>
void run_hash(benchmark::State& state, Hash&& hash) {
  auto sink = make_ref_counted<DigestSink>();
  hash(sink);
  if (sink->hex_digest() != sha256_of(canonical_record())) {
    state.SkipWithError("the digest is not that of the canonical record");
    return;
  }
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    sink->reset();
    hash(sink);
    benchmark::DoNotOptimize(sink->digest());
  }
  set_records_counters(state, standard_records().size(), canonical_record().size());
}

// ---- Writing -----------------------------------------------------------------------------------

void BM_HashWrite_Sha256Plain(benchmark::State& state) {
  std::string const& record = canonical_record();
  run_hash(state, [&](zocore::RefCountPtr<DigestSink> const& sink) {
    sink->write(record.data(), static_cast<unsigned>(record.size()));
  });
}
BENCHMARK(BM_HashWrite_Sha256Plain);

// The adapter alone, hashing into the digest: the records' canonical bytes are built and
// digested as they are written.
void BM_HashWrite_Adapter(benchmark::State& state) {
  run_hash(state, [](zocore::RefCountPtr<DigestSink> const& sink) {
    HashingWriterAdapter adapter(sink);
    write_records(adapter, standard_records());
    adapter.close();
  });
}
BENCHMARK(BM_HashWrite_Adapter);

// The adapter's own share: the record is built and dropped.
void BM_HashWrite_AdapterNoSink(benchmark::State& state) {
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    HashingWriterAdapter adapter(nullptr);
    write_records(adapter, standard_records());
    benchmark::DoNotOptimize(adapter.bytes_hashed());
    adapter.close();
  }
  set_records_counters(state, standard_records().size(), canonical_record().size());
}
BENCHMARK(BM_HashWrite_AdapterNoSink);

// Writing binary and hashing it on the way, next to writing binary and digesting the record
// afterwards.
void BM_HashWrite_BinaryThroughAdapter(benchmark::State& state) {
  auto out = make_ref_counted<StringWriteStream>();
  out->reserve(binary_encoding().size());
  run_hash(state, [&](zocore::RefCountPtr<DigestSink> const& sink) {
    out->clear();
    BinaryWriter writer(out);
    HashingWriterAdapter adapter(writer, sink);
    write_records(adapter, standard_records());
    adapter.close();
    writer.close();
  });
}
BENCHMARK(BM_HashWrite_BinaryThroughAdapter);

void BM_HashWrite_BinaryThenSha256(benchmark::State& state) {
  auto out = make_ref_counted<StringWriteStream>();
  out->reserve(binary_encoding().size());
  std::string const& record = canonical_record();
  run_hash(state, [&](zocore::RefCountPtr<DigestSink> const& sink) {
    out->clear();
    BinaryWriter writer(out);
    write_records(writer, standard_records());
    writer.close();
    sink->write(record.data(), static_cast<unsigned>(record.size()));
  });
}
BENCHMARK(BM_HashWrite_BinaryThenSha256);

// ---- Reading -----------------------------------------------------------------------------------

// Decoding the binary records through the adapter, next to decoding them and digesting the
// record afterwards.
void BM_HashRead_BinaryThroughAdapter(benchmark::State& state) {
  std::string const& bytes = binary_encoding();
  Record scratch;
  run_hash(state, [&](zocore::RefCountPtr<DigestSink> const& sink) {
    BinaryReader reader(make_ref_counted<MemoryReadStream>(bytes.data(), bytes.size()));
    HashingReaderAdapter adapter(reader, sink);
    std::uint64_t acc = 0;
    read_records(adapter, scratch, [&](Record const& r) { acc = fold(acc, r); });
    benchmark::DoNotOptimize(acc);
    adapter.close();
  });
}
BENCHMARK(BM_HashRead_BinaryThroughAdapter);

void BM_HashRead_BinaryThenSha256(benchmark::State& state) {
  std::string const& bytes = binary_encoding();
  std::string const& record = canonical_record();
  Record scratch;
  run_hash(state, [&](zocore::RefCountPtr<DigestSink> const& sink) {
    BinaryReader reader(make_ref_counted<MemoryReadStream>(bytes.data(), bytes.size()));
    std::uint64_t acc = 0;
    read_records(reader, scratch, [&](Record const& r) { acc = fold(acc, r); });
    benchmark::DoNotOptimize(acc);
    sink->write(record.data(), static_cast<unsigned>(record.size()));
  });
}
BENCHMARK(BM_HashRead_BinaryThenSha256);

// The same through Reader&, the path the adapter takes into the reader it wraps (the binary
// reader's own inline front end is out of its reach).
void BM_HashRead_BinaryGenericThenSha256(benchmark::State& state) {
  std::string const& bytes = binary_encoding();
  std::string const& record = canonical_record();
  Record scratch;
  run_hash(state, [&](zocore::RefCountPtr<DigestSink> const& sink) {
    BinaryReader reader(make_ref_counted<MemoryReadStream>(bytes.data(), bytes.size()));
    std::uint64_t acc = 0;
    read_records(static_cast<zoserialize::Reader&>(reader), scratch,
                 [&](Record const& r) { acc = fold(acc, r); });
    benchmark::DoNotOptimize(acc);
    sink->write(record.data(), static_cast<unsigned>(record.size()));
  });
}
BENCHMARK(BM_HashRead_BinaryGenericThenSha256);

// ---- Trace -------------------------------------------------------------------------------------

// Counts what it is given and keeps nothing, so that the trace is measured, not a growing string.
class CountingBuffer final : public std::streambuf {
 public:
  std::size_t count() const noexcept { return count_; }

 protected:
  std::streamsize xsputn(char const*, std::streamsize n) override {
    count_ += static_cast<std::size_t>(n);
    return n;
  }
  int_type overflow(int_type c) override {
    ++count_;
    return traits_type::not_eof(c);
  }

 private:
  std::size_t count_ = 0;
};

void BM_Trace_Records(benchmark::State& state) {
  CountingBuffer buffer;
  std::ostream out(&buffer);
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    zoserialize::TraceWriter writer(out, "", "  ");
    write_records(writer, standard_records());
    writer.close();
  }
  std::size_t const per_run = buffer.count() / static_cast<std::size_t>(state.iterations());
  set_records_counters(state, standard_records().size(), per_run);
}
BENCHMARK(BM_Trace_Records);

}  // namespace
}  // namespace zobench

BENCHMARK_MAIN();
