#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/formats.h>
#include <support/hex_bytes.h>
#include <support/recording_writer.h>
#include <support/test_streams.h>
#include <zocore/memory_stream.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/hashing_writer_adapter.h>
#include <zoserialize/trace_writer.h>

namespace zoserialize {
namespace {

using zocore::make_ref_counted;
using zotest::bytes;

// The 8-byte big-endian count that ends a payload and the whole record.
std::string count8(std::uint64_t n) {
  std::string out(8, '\0');
  for (int i = 7; i >= 0; --i, n >>= 8)
    out[i] = static_cast<char>(n & 0xFF);
  return out;
}

// The sink's bytes after `script` ran through an adapter in front of `wrapped` (none if null).
std::string hash_of(std::function<void(Writer&)> const& script, Writer* wrapped = nullptr) {
  auto sink = make_ref_counted<zocore::StringWriteStream>();
  std::unique_ptr<HashingWriterAdapter> adapter =
      wrapped ? std::make_unique<HashingWriterAdapter>(*wrapped, sink)
              : std::make_unique<HashingWriterAdapter>(sink);
  script(*adapter);
  adapter->close();
  return sink->str();
}

struct RecordRow {
  char const* name;
  std::function<void(Writer&)> script;
  char const* record;  // hex, without the close trailer
};

std::vector<RecordRow> const& record_rows() {
  auto image = [](bool is_signed, std::string const& hex) {
    return [is_signed, b = bytes(hex)](Writer& w) {
      is_signed ? w.write_int_big_endian(b.data(), unsigned(b.size()))
                : w.write_uint_big_endian(b.data(), unsigned(b.size()));
    };
  };
  static std::vector<RecordRow> const rows = {
      {"Null", [](Writer& w) { w.write_null(); }, "01"},
      {"True", [](Writer& w) { w << true; }, "02 00"},
      {"False", [](Writer& w) { w << false; }, "02 01"},
      {"IntMinusOne", [](Writer& w) { w << -1; }, "03 01 FF"},
      {"IntZero", [](Writer& w) { w << 0LL; }, "03 01 00"},
      {"IntEmptyImage", image(true, ""), "03 01 00"},
      {"Int127", [](Writer& w) { w << short(127); }, "03 01 7F"},
      {"Int128", [](Writer& w) { w << 128; }, "03 02 00 80"},
      {"IntMinus128", [](Writer& w) { w << char(-128); }, "03 01 80"},
      {"IntMinus129", [](Writer& w) { w << -129LL; }, "03 02 FF 7F"},
      {"IntMin64", [](Writer& w) { w << std::numeric_limits<long long>::min(); },
       "03 08 80 00 00 00 00 00 00 00"},
      {"IntWideImage", image(true, "FFFFFFFFFFFFFFFFFF FF 7F"), "03 02 FF 7F"},
      {"UIntZero", [](Writer& w) { w << 0u; }, "04 00"},
      {"UIntEmptyImage", image(false, ""), "04 00"},
      {"UInt255", [](Writer& w) { w << static_cast<unsigned char>(255); }, "04 01 FF"},
      {"UInt256", [](Writer& w) { w << 256ULL; }, "04 02 01 00"},
      {"UIntMax64", [](Writer& w) { w << ~0ULL; }, "04 08 FF FF FF FF FF FF FF FF"},
      {"Double", [](Writer& w) { w << 1.5; }, "05 08 3F F8 00 00 00 00 00 00"},
      {"DoubleMinusZero", [](Writer& w) { w << -0.0; }, "05 08 80 00 00 00 00 00 00 00"},
      {"DoubleQuietNaN", [](Writer& w) { w << std::numeric_limits<double>::quiet_NaN(); },
       "05 08 7F F1 00 00 00 00 00 00"},
      {"DoubleNegativeNaNPayload",
       [](Writer& w) { w << std::bit_cast<double>(0xFFF0000000000001ull); },
       "05 08 7F F1 00 00 00 00 00 00"},
      {"String", [](Writer& w) { w << "abc"; }, "06 616263 00 00 00 00 00 00 00 03"},
      {"StringEmpty", [](Writer& w) { w << ""; }, "06 00 00 00 00 00 00 00 00"},
      {"AbsoluteTime", [](Writer& w) { w << AbsoluteTime(-2); }, "07 08 FF FF FF FF FF FF FF FE"},
      {"RelativeTime", [](Writer& w) { w << RelativeTime(0x0102); },
       "08 08 00 00 00 00 00 00 01 02"},
      {"Uuid", [](Writer& w) { w << Uuid::from_string("00112233445566778899aabbccddeeff", 32); },
       "09 00112233445566778899AABBCCDDEEFF"},
      {"Binary", [](Writer& w) { w.write_binary("\x00\xFF", 2); },
       "0A 00 FF 00 00 00 00 00 00 00 02"},
      {"Sequence",
       [](Writer& w) {
         w.write_sequence_start(2);
         w.write_null();
         w.write_sequence_separator();
         w.write_null();
         w.write_sequence_end();
         w.write_sequence_start();
         w.write_sequence_end();
       },
       "0B 01 0C 01 0D 0B 0D"},
      {"Marker",
       [](Writer& w) {
         w.write_marker_start();
         w << true;
         w.write_marker_end();
       },
       "0E 02 00 0F"},
  };
  return rows;
}

// Every record, with and without a writer behind the adapter.
TEST(HashingWriterAdapter, CanonicalRecords) {
  for (RecordRow const& row : record_rows()) {
    SCOPED_TRACE(row.name);
    std::string const record = bytes(row.record);
    EXPECT_EQ(zotest::hex(hash_of(row.script)), zotest::hex(record + count8(record.size())));
    zotest::formats().front().write(
        [&](Writer& w) { EXPECT_EQ(hash_of(row.script, &w), record + count8(record.size())); });
  }
}

// A payload hashes the same written whole, through the value stream in pieces (ended by closing
// it or by the next operation) or from an input stream, whatever the writer behind does with it:
// the trace writer keeps 256 bytes and skips the rest, or reads nothing at all past its budget.
TEST(HashingWriterAdapter, PayloadFormsHashAlike) {
  for (std::size_t size : {0, 3, 300, 5000, 70000}) {
    for (bool is_string : {true, false}) {
      SCOPED_TRACE(std::to_string(size) + (is_string ? " string" : " binary"));
      std::string const payload(size, 's');
      std::string const expected =
          std::string(1, is_string ? 6 : 10) + payload + count8(size) + "\x01" + count8(size + 10);
      std::vector<std::function<void(Writer&)>> const forms = {
          [&](Writer& w) {
            is_string ? w.write_string(payload.data(), unsigned(size))
                      : w.write_binary(payload.data(), unsigned(size));
          },
          [&](Writer& w) {
            InterfacePtr<IWriteStream> s = is_string ? w.write_string_stream() : w.write_binary();
            for (std::size_t at = 0; at < size; at += 777)
              s->write(payload.data() + at, unsigned(std::min<std::size_t>(777, size - at)));
            if (size % 2 == 0) s->close();  // else the null ends the value
          },
          [&](Writer& w) {
            zocore::MemoryReadStream source(payload);
            is_string ? w.write_string_stream(source) : w.write_binary(source);
          },
      };
      for (std::size_t f = 0; f < forms.size(); ++f) {
        auto script = [&](Writer& w) {
          forms[f](w);
          w.write_null();
        };
        EXPECT_EQ(hash_of(script), expected) << "form " << f;
        std::ostringstream trace;
        TraceWriter traced(trace, "", " ");
        EXPECT_EQ(hash_of(script, &traced), expected) << "form " << f << " traced";
        TraceWriter elided(trace, "", " ", 1, 0);
        EXPECT_EQ(hash_of(script, &elided), expected) << "form " << f << " elided";
      }
    }
  }
}

// Records reach the sink in 4 KiB batches; a payload run too long for the buffer goes straight.
TEST(HashingWriterAdapter, SinkWritesAreBatched) {
  auto sink = make_ref_counted<zotest::RecordingSink>();
  HashingWriterAdapter adapter(sink);
  for (int i = 0; i < 5000; ++i)
    adapter.write_null();
  adapter.flush();
  EXPECT_EQ(sink->write_sizes(), (std::vector<unsigned>{4096, 904}));
  EXPECT_EQ(adapter.bytes_hashed(), 5000u);
  std::string const big(10000, 'b');
  adapter.write_binary(big.data(), unsigned(big.size()));
  adapter.close();
  EXPECT_EQ(sink->write_sizes(), (std::vector<unsigned>{4096, 904, 1, 10000, 16}));
  EXPECT_EQ(sink->writes()[4], count8(10000) + count8(15009));
}

// The wrapped writer sees exactly the calls made on the adapter, through Writer& and through the
// concrete type's inline front end, which hashes the same. The adapter's close() does not close
// the wrapped writer; afterwards the adapter does nothing.
TEST(HashingWriterAdapter, ForwardsEveryOperation) {
  auto script = [](auto& w) {
    w << true << 'a' << char(-3) << static_cast<signed char>(-2) << static_cast<unsigned char>(200)
      << short(-300) << static_cast<unsigned short>(60000) << -70000 << 4000000000u << -5L << 6UL
      << (-1LL << 40) << ~0ULL << 0.1f << -2.5 << "text" << std::string("str")
      << std::string_view("view") << AbsoluteTime(1) << RelativeTime(2) << Uuid();
    w.write_marker_start();
    w.write_sequence_start(2);
    w.write_binary("b", 1);
    w.write_sequence_separator();
    w.write_null();
    w.write_sequence_end();
    w.write_sequence_start();
    w.write_sequence_end();
    w.write_marker_end();
    zocore::MemoryReadStream a("xy"), b("z");
    w.write_string_stream(a);
    w.write_binary(b);
    // RecordingWriter offers no value stream: the adapter's stream only hashes.
    if (InterfacePtr<IWriteStream> const s = w.write_string_stream()) s->write("q", 1);
    w.flush();
  };
  zotest::RecordingWriter direct, generic_calls, concrete_calls;
  script(static_cast<Writer&>(direct));
  std::string const generic = hash_of([&](Writer& w) { script(w); }, &generic_calls);
  auto sink = make_ref_counted<zotest::RecordingSink>();
  HashingWriterAdapter adapter(concrete_calls, sink);
  script(adapter);
  EXPECT_FALSE(sink->writes().empty());  // flush() handed the records over
  adapter.close();
  EXPECT_EQ(generic_calls.calls(), direct.calls());
  EXPECT_EQ(concrete_calls.calls(), direct.calls());
  EXPECT_EQ(zotest::hex(sink->bytes()), zotest::hex(generic));
  adapter.write_null();
  adapter.close();
  EXPECT_EQ(concrete_calls.calls().size(), direct.calls().size());
  EXPECT_EQ(sink->bytes(), generic);
}

// A failure of the wrapped writer passes through; the hash holds the records before it.
TEST(HashingWriterAdapter, WrappedFailurePassesThrough) {
  zotest::RecordingWriter wrapped;
  wrapped.fail_on("null");
  std::string const hash = hash_of(
      [](Writer& w) {
        w << true;
        ZO_EXPECT_ERROR(w.write_null(), zotest::recording_writer_error,
                        "Recording writer: injected failure");
      },
      &wrapped);
  EXPECT_EQ(zotest::hex(hash), zotest::hex(bytes("02 00") + count8(2)));
}

TEST(HashingWriterAdapter, IntegerTooLongForItsLengthByte) {
  for (bool is_signed : {true, false}) {
    SCOPED_TRACE(is_signed ? "signed" : "unsigned");
    auto write = [&](Writer& w, std::string const& image) {
      is_signed ? w.write_int_big_endian(image.data(), unsigned(image.size()))
                : w.write_uint_big_endian(image.data(), unsigned(image.size()));
    };
    std::string const too_long = "\x01" + std::string(255, '\0');
    std::string const longest = std::string(3, '\0') + "\x01" + std::string(254, '\0');
    zotest::RecordingWriter wrapped;
    HashingWriterAdapter adapter(wrapped, nullptr);
    zotest::ErrorPtr const info = ZO_EXPECT_ERROR(
        write(adapter, too_long), error::zoserialize_writer_data_range,
        "Integer too long to hash: its minimal form exceeds 255 bytes.  Size={@size}");
    EXPECT_EQ(zotest::param(info, "size"), "256");
    EXPECT_EQ(info ? std::string(info->location().function().view()) : "",
              is_signed ? "zoserialize::HashingWriterAdapter::write_int_big_endian()"
                        : "zoserialize::HashingWriterAdapter::write_uint_big_endian()");
    EXPECT_TRUE(wrapped.calls().empty());  // refused before the wrapped writer saw it
    // 255 bytes still fit.
    std::string const hash = hash_of([&](Writer& w) { write(w, longest); });
    EXPECT_EQ(hash.substr(0, 3), std::string(1, is_signed ? 3 : 4) + "\xFF\x01");
    EXPECT_EQ(hash.size(), 2 + 255 + 8u);
  }
}

TEST(HashingWriterAdapter, StreamUsedAfterItsValueEnded) {
  std::vector<std::pair<char const*,
                        std::function<void(HashingWriterAdapter&, IWriteStream&)>>> const enders = {
      {"stream close", [](HashingWriterAdapter&, IWriteStream& s) { s.close(); }},
      {"next element", [](HashingWriterAdapter& a, IWriteStream&) { a.write_null(); }},
      {"adapter close", [](HashingWriterAdapter& a, IWriteStream&) { a.close(); }},
  };
  for (auto const& [name, end] : enders) {
    SCOPED_TRACE(name);
    zotest::RecordingWriter wrapped;
    auto adapter = std::make_unique<HashingWriterAdapter>(wrapped, nullptr);
    InterfacePtr<IWriteStream> const stream = adapter->write_binary();
    stream->write("a", 1);
    end(*adapter, *stream);
    zotest::ErrorPtr const info = ZO_EXPECT_ERROR(
        stream->write("b", 1), error::zoserialize_writer_state, "Stream has already been closed");
    EXPECT_EQ(info ? std::string(info->location().function().view()) : "",
              "zoserialize::HashingWriterAdapter::WriteStreamAdapter::write()");
  }
  // A stream that outlives its adapter fails instead of reaching it.
  InterfacePtr<IWriteStream> stream = HashingWriterAdapter(nullptr).write_string_stream();
  ZO_EXPECT_ERROR(stream->write("b", 1), error::zoserialize_writer_state,
                  "Stream has already been closed");
}

}  // namespace
}  // namespace zoserialize
