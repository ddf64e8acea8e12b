// The text archives next to RapidJSON on the same records: TextWriter into a std::string and
// TextReader from it, against RapidJSON's Writer into a StringBuffer and its SAX Reader, the
// records as JSON arrays. Both sides decode every field into the same typed variables, and both
// carry the blob as base64 text.
//
// Every decode benchmark first decodes once and compares the result with the generated data;
// a mismatch reports the benchmark as failed instead of timing a broken decoder.

#include <array>
#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <zocore/base64.h>
#include <zoserialize/text_reader.h>
#include <zoserialize/text_writer.h>

#include "records_bench.h"

namespace zobench {
namespace {

using zoserialize::TextReader;
using zoserialize::TextWriter;

// ---- TextWriter / TextReader --------------------------------------------------------------------

std::string encode_text(std::span<Record const> records) {
  std::string out;
  TextWriter writer(out);
  write_records(writer, records);
  writer.close();
  return out;
}

void BM_RecordsEncode_Text(benchmark::State& state) {
  std::vector<Record> const& records = standard_records();
  std::size_t const encoded = encode_text(records).size();
  std::string out;
  out.reserve(encoded);
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    out.clear();
    TextWriter writer(out);
    write_records(writer, records);
    writer.close();
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  set_records_counters(state, records.size(), encoded);
}
BENCHMARK(BM_RecordsEncode_Text);

void BM_RecordsDecode_Text(benchmark::State& state) {
  std::string const text = encode_text(standard_records());
  run_records_decode(state, text.size(), [&](Record& scratch, auto&& on_record) {
    TextReader reader(&text);
    return read_records(reader, scratch, on_record);
  });
}
BENCHMARK(BM_RecordsDecode_Text);

// ---- RapidJSON ----------------------------------------------------------------------------------
// [[id, flag, score, "name", ["tag", ...], "blob in base64", [a, b, "label"]], ...]

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

void write_json(JsonWriter& w, std::span<Record const> records) {
  char blob[96];  // base64 of at most 64 bytes
  w.StartArray();
  for (Record const& r : records) {
    w.StartArray();
    w.Int64(r.id);
    w.Bool(r.flag);
    w.Double(r.score);
    w.String(r.name.data(), static_cast<rapidjson::SizeType>(r.name.size()));
    w.StartArray();
    for (std::string const& tag : r.tags)
      w.String(tag.data(), static_cast<rapidjson::SizeType>(tag.size()));
    w.EndArray();
    std::size_t const n = zocore::base64_encode(r.blob.data(), r.blob.size(), blob);
    w.String(blob, static_cast<rapidjson::SizeType>(n));
    w.StartArray();
    w.Int(r.nested.a);
    w.Int(r.nested.b);
    w.String(r.nested.label.data(), static_cast<rapidjson::SizeType>(r.nested.label.size()));
    w.EndArray();
    w.EndArray();
  }
  w.EndArray();
}

std::string encode_json(std::span<Record const> records) {
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  write_json(writer, records);
  return {buffer.GetString(), buffer.GetSize()};
}

void BM_RecordsEncode_RapidJson(benchmark::State& state) {
  std::vector<Record> const& records = standard_records();
  std::size_t const encoded = encode_json(records).size();
  rapidjson::StringBuffer buffer(nullptr, encoded + 1);
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    buffer.Clear();
    JsonWriter writer(buffer);
    write_json(writer, records);
    benchmark::DoNotOptimize(buffer.GetString());
    benchmark::ClobberMemory();
  }
  set_records_counters(state, records.size(), encoded);
}
BENCHMARK(BM_RecordsEncode_RapidJson);

constexpr std::array<std::uint8_t, 256> kBase64Values = [] {
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<std::uint8_t, 256> t{};
  t.fill(0xFF);
  for (unsigned i = 0; i < 64; ++i)
    t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  return t;
}();

// Padded base64 into a reused vector; false on anything else.
bool decode_base64(char const* text, std::size_t size, std::vector<char>& out) {
  if (size % 4 != 0) return false;
  std::size_t const pad = size == 0 ? 0 : (text[size - 1] == '=') + (text[size - 2] == '=');
  out.resize(size / 4 * 3 - pad);
  std::size_t o = 0;
  for (std::size_t i = 0; i < size; i += 4) {
    std::uint32_t v = 0;
    for (std::size_t k = 0; k < 4; ++k) {
      std::uint8_t const d =
          text[i + k] == '=' ? 0 : kBase64Values[static_cast<unsigned char>(text[i + k])];
      if (d == 0xFF) return false;
      v = v << 6 | d;
    }
    char const group[3] = {static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                           static_cast<char>(v)};
    for (int k = 0; k < 3 && o < out.size(); ++k)
      out[o++] = group[k];
  }
  return true;
}

// SAX handler that fills the fields of one record by position and hands each finished record on.
template <class F>
class RecordsHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, RecordsHandler<F>> {
 public:
  RecordsHandler(Record& r, F& on_record) : r_(r), on_record_(on_record) {}

  std::size_t count() const noexcept { return count_; }

  bool StartArray() {
    ++depth_;
    if (depth_ == 2) field_ = 0;
    if (depth_ == 3) index_ = 0;
    return depth_ <= 3;
  }
  bool EndArray(rapidjson::SizeType) {
    if (depth_ == 3 && field_ == 4) r_.tags.resize(index_);
    if (depth_ == 3) ++field_;
    if (depth_ == 2) {
      on_record_(static_cast<Record const&>(r_));
      ++count_;
    }
    --depth_;
    return true;
  }
  bool Bool(bool b) { return depth_ == 2 && field_ == 1 ? (r_.flag = b, ++field_, true) : false; }
  bool Int(int i) { return integer(i); }
  bool Uint(unsigned u) { return integer(u); }
  bool Int64(std::int64_t i) { return integer(i); }
  bool Uint64(std::uint64_t u) { return u <= INT64_MAX && integer(static_cast<std::int64_t>(u)); }
  bool Double(double d) {
    return depth_ == 2 && field_ == 2 ? (r_.score = d, ++field_, true) : false;
  }
  bool String(char const* s, rapidjson::SizeType n, bool) {
    if (depth_ == 2 && field_ == 3) {
      r_.name.assign(s, n);
    } else if (depth_ == 2 && field_ == 5) {
      if (!decode_base64(s, n, r_.blob)) return false;
    } else if (depth_ == 3 && field_ == 4) {
      if (index_ == r_.tags.size()) r_.tags.emplace_back();
      r_.tags[index_++].assign(s, n);
      return true;
    } else if (depth_ == 3 && field_ == 6 && index_ == 2) {
      r_.nested.label.assign(s, n);
      return true;
    } else {
      return false;
    }
    ++field_;
    return true;
  }
  bool Default() { return false; }

 private:
  bool integer(std::int64_t v) {
    if (depth_ == 2 && field_ == 0) {
      r_.id = v;
      ++field_;
      return true;
    }
    if (depth_ != 3 || field_ != 6 || index_ > 1) return false;
    (index_++ == 0 ? r_.nested.a : r_.nested.b) = static_cast<std::int32_t>(v);
    return true;
  }

  Record& r_;
  F& on_record_;
  int depth_ = 0;
  unsigned field_ = 0;
  std::size_t index_ = 0;
  std::size_t count_ = 0;
};

// Full precision: the default parse may be one unit in the last place off, and would not give
// back the generated doubles.
constexpr unsigned kParseFlags = rapidjson::kParseFullPrecisionFlag;

void BM_RecordsDecode_RapidJson(benchmark::State& state) {
  std::string const json = encode_json(standard_records());
  run_records_decode(state, json.size(), [&](Record& scratch, auto&& on_record) -> std::size_t {
    RecordsHandler handler(scratch, on_record);
    rapidjson::Reader reader;
    rapidjson::StringStream in(json.c_str());
    if (reader.Parse<kParseFlags>(in, handler).IsError()) return 0;
    return handler.count();
  });
}
BENCHMARK(BM_RecordsDecode_RapidJson);

}  // namespace
}  // namespace zobench

BENCHMARK_MAIN();
