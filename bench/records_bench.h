// Benchmark bodies of the records workload that every archive's program shares: the counters,
// the check that a decoder reproduces the generated records before it is timed, and the
// msgpack-cxx baselines, so that each program compares against the same reference.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "records.h"

namespace zobench {

// Throughput and size counters of a records benchmark.
inline void set_records_counters(benchmark::State& state, std::size_t records,
                                 std::size_t encoded) {
  auto const iterations = static_cast<std::int64_t>(state.iterations());
  state.SetItemsProcessed(iterations * static_cast<std::int64_t>(records));
  state.SetBytesProcessed(iterations * static_cast<std::int64_t>(encoded));
  // Seconds per record; the console shows it with an SI prefix (n for nanoseconds).
  state.counters["time_per_record"] = benchmark::Counter(
      static_cast<double>(records),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["encoded_bytes"] = static_cast<double>(encoded);
  state.counters["bytes_per_record"] = static_cast<double>(encoded) / static_cast<double>(records);
}

// Times `decode(scratch, on_record)`, which returns the number of records it decoded, after
// checking once that it reproduces the generated records; a decoder that does not is reported
// as failed instead of timed.
template <class Decode>
void run_records_decode(benchmark::State& state, std::size_t encoded, Decode&& decode) {
  std::vector<Record> const& expected = standard_records();
  Record scratch;
  std::size_t index = 0;
  bool same = true;
  std::size_t const decoded = decode(scratch, [&](Record const& r) {
    same = same && index < expected.size() && r == expected[index];
    ++index;
  });
  if (!same || decoded != expected.size() || index != expected.size()) {
    state.SkipWithError("decoded records differ from the generated ones");
    return;
  }
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    std::uint64_t acc = 0;
    std::size_t const n = decode(scratch, [&](Record const& r) { acc = fold(acc, r); });
    benchmark::DoNotOptimize(acc);
    benchmark::DoNotOptimize(n);
  }
  set_records_counters(state, expected.size(), encoded);
}

// msgpack::packer into a reused sbuffer, cleared per run.
inline void run_msgpack_encode(benchmark::State& state) {
  std::vector<Record> const& records = standard_records();
  std::size_t const encoded = encode_msgpack(records).size();
  msgpack::sbuffer buffer(encoded);
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    buffer.clear();
    msgpack_encode(records, buffer);
    benchmark::DoNotOptimize(buffer.data());
    benchmark::ClobberMemory();
  }
  set_records_counters(state, records.size(), encoded);
}

// Arg 0: payloads copied into msgpack's zone (its default); 1: referring into the input.
inline void run_msgpack_decode(benchmark::State& state) {
  MsgpackPayloads const payloads =
      state.range(0) == 0 ? MsgpackPayloads::kCopied : MsgpackPayloads::kReferenced;
  state.SetLabel(payloads == MsgpackPayloads::kCopied ? "payloads copied" : "payloads referenced");
  std::string const bytes = encode_msgpack(standard_records());
  run_records_decode(state, bytes.size(), [&](Record& scratch, auto&& on_record) {
    return msgpack_decode(bytes.data(), bytes.size(), payloads, scratch, on_record);
  });
}

// msgpack::parse with a visitor filling the same variables, without an object tree.
inline void run_msgpack_visit_decode(benchmark::State& state) {
  std::string const bytes = encode_msgpack(standard_records());
  run_records_decode(state, bytes.size(), [&](Record& scratch, auto&& on_record) {
    return msgpack_visit_decode(bytes.data(), bytes.size(), scratch, on_record);
  });
}

// ---- One large binary value, shared by the programs that write one ----------------------------

inline constexpr std::size_t kBlobSize = std::size_t{64} << 20;
inline constexpr unsigned kPiece = 1u << 20;

// A buffer of kBlobSize bytes whose pages are already mapped, so that no benchmark pays for
// first-touch page faults inside its timed loop.
inline std::unique_ptr<char[]> touched_buffer() {
  auto buffer = std::make_unique<char[]>(kBlobSize);
  std::memset(buffer.get(), 0, kBlobSize);
  return buffer;
}

// kBlobSize bytes of a xorshift sequence, made once.
inline char const* blob_payload() {
  static std::unique_ptr<char[]> const payload = [] {
    auto p = touched_buffer();
    std::uint32_t x = 0x9E3779B9u;
    for (std::size_t i = 0; i < kBlobSize; ++i) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      p[i] = static_cast<char>(x);
    }
    return p;
  }();
  return payload.get();
}

inline void set_blob_counters(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(kBlobSize));
}

// The reference for writing the value: one memcpy of it into a buffer already mapped.
inline void run_blob_memcpy(benchmark::State& state) {
  char const* const source = blob_payload();
  std::unique_ptr<char[]> const dest = touched_buffer();
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    std::memcpy(dest.get(), source, kBlobSize);
    benchmark::DoNotOptimize(dest.get());
    benchmark::ClobberMemory();
  }
  set_blob_counters(state);
}

}  // namespace zobench
