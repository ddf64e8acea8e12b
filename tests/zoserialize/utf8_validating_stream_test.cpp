#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/atomic_ref_count.h>
#include <zocore/core_errors.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>
#include <zoserialize/impl/utf8_validating_stream.h>

namespace {

using zoserialize::impl::Utf8CarryValidator;
using zoserialize::impl::Utf8ValidatingStreamImpl;

constexpr char kUtf8Error[] = "Invalid UTF-8 sequence at offset {@offset}";

// Text with sequences of every length: "a", U+00E9, U+20AC, U+1F600.
constexpr std::string_view kMixed = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";

// ---- The carry validator -------------------------------------------------------------------

TEST(Utf8CarryValidatorTest, EveryCutOfValidTextValidates) {
  for (std::size_t a = 0; a <= kMixed.size(); ++a) {
    for (std::size_t b = a; b <= kMixed.size(); ++b) {
      Utf8CarryValidator v;
      v.feed(kMixed.data(), static_cast<unsigned>(a));
      v.feed(kMixed.data() + a, static_cast<unsigned>(b - a));
      v.feed(kMixed.data() + b, static_cast<unsigned>(kMixed.size() - b));
      v.finish();
      EXPECT_FALSE(v.has_carry()) << a << "/" << b;
    }
  }
}

TEST(Utf8CarryValidatorTest, ByteByByteValidates) {
  Utf8CarryValidator v;
  for (char c : kMixed)
    v.feed(&c, 1);
  v.finish();
}

TEST(Utf8CarryValidatorTest, IncompleteSequenceIsHeldUntilTheEnd) {
  for (char const* tail : {"\xC3", "\xE2\x82", "\xF0\x9F\x98"}) {
    Utf8CarryValidator v;
    std::string const text = std::string("ab") + tail;
    v.feed(text.data(), static_cast<unsigned>(text.size()));
    EXPECT_TRUE(v.has_carry()) << tail;
    ZO_EXPECT_ERROR(v.finish(), zocore::error::zocore_utf8, kUtf8Error);
    EXPECT_FALSE(v.has_carry());
  }
}

TEST(Utf8CarryValidatorTest, MalformedInputFailsInAnyPiece) {
  struct Case {
    std::string text;
    std::size_t cut;
  };
  Case const cases[] = {
      {"a\xFF"
       "b",
       1},  // byte that starts nothing
      {"a\x80"
       "b",
       2},                                    // stray continuation byte
      {"\xC3(", 1},                           // lead byte followed by a non-continuation
      {"\xC3\xA9\xA9", 2},                    // continuation after a complete sequence
      {"\xC0\xAF", 1},                        // overlong
      {"\xED\xA0\x80", 1},                    // surrogate
      {"\xF4\x90\x80\x80", 2},                // above U+10FFFF
      {"ab\x80\x80\x80\x80\x80\x80\x80", 9},  // continuation bytes only, more than 6
      {"\xE2\x82\xAC\x82", 4},                // continuation without lead at the end of a piece
      {"\xE2\x82"
       "a",
       2},  // carried sequence completed by a non-continuation
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.text));
    bool failed = false;
    try {
      Utf8CarryValidator v;
      v.feed(c.text.data(), static_cast<unsigned>(c.cut));
      v.feed(c.text.data() + c.cut, static_cast<unsigned>(c.text.size() - c.cut));
      v.finish();
    } catch (zocore::ErrorException const& e) {
      failed = true;
      EXPECT_EQ(e.info()->code(), zocore::error::zocore_utf8);
    }
    EXPECT_TRUE(failed);
  }
}

TEST(Utf8CarryValidatorTest, FiveAndSixByteLeadsAreCarriedThenRefused) {
  // The carry holds as many bytes as the lead announces (up to 6), then the checker refuses the
  // sequence: such forms are not UTF-8 any more.
  for (std::string const& text :
       {std::string("\xF8\x88\x80\x80\x80"), std::string("\xFC\x84\x80\x80\x80\x80")}) {
    Utf8CarryValidator v;
    v.feed(text.data(), 3);
    EXPECT_TRUE(v.has_carry());
    ZO_EXPECT_ERROR(v.feed(text.data() + 3, static_cast<unsigned>(text.size() - 3)),
                    zocore::error::zocore_utf8, kUtf8Error);
  }
}

// ---- The validating stream over an inner stream ---------------------------------------------

// An inner payload stream over bytes that keeps the stream contract (short only at the end) and
// finishes like an element stream: close() skips the rest through the virtual skip().
class ContractStream : public zocore::IReadStream,
                       public zocore::RefCounted<zocore::AtomicRefCount> {
 public:
  explicit ContractStream(std::string data) : data_(std::move(data)) {}

  unsigned read(void* buffer, unsigned size) override {
    ++reads_;
    unsigned const n = std::min(size, static_cast<unsigned>(data_.size() - pos_));
    if (n != 0) std::memcpy(buffer, data_.data() + pos_, n);
    pos_ += n;
    return n;
  }
  unsigned skip(unsigned size) override {
    unsigned const n = std::min(size, static_cast<unsigned>(data_.size() - pos_));
    pos_ += n;
    return n;
  }
  unsigned bytes_remaining() const override { return static_cast<unsigned>(data_.size() - pos_); }
  void close() override {
    closed_ = true;
    skip(bytes_remaining());
  }

  unsigned reads() const noexcept { return reads_; }
  bool closed() const noexcept { return closed_; }

 private:
  std::string data_;
  std::size_t pos_ = 0;
  unsigned reads_ = 0;
  bool closed_ = false;
};

using ValidatingStream = Utf8ValidatingStreamImpl<ContractStream>;

zocore::RefCountPtr<ValidatingStream> validating(std::string data) {
  return zocore::make_ref_counted<ValidatingStream>(std::move(data));
}

TEST(Utf8ValidatingStreamTest, ReadsValidTextInAnyPieces) {
  std::string text;
  for (int i = 0; i < 300; ++i)
    text += kMixed;
  for (unsigned request : {1u, 2u, 3u, 4u, 7u, 100u, 4096u, 5000u}) {
    auto const stream = validating(text);
    std::string got;
    std::string block(request, '\0');
    for (;;) {
      unsigned const n = stream->read(block.data(), request);
      got.append(block.data(), n);
      if (n == 0) break;
    }
    EXPECT_EQ(got, text) << request;
    stream->close();
  }
}

TEST(Utf8ValidatingStreamTest, ShortReadEndingInsideACharacterFails) {
  auto stream = validating("ab\xE2\x82");
  char buffer[8];
  ZO_EXPECT_ERROR(stream->read(buffer, 8), zocore::error::zocore_utf8, kUtf8Error);
  stream = validating("ab\xE2\x82");
  EXPECT_EQ(stream->read(buffer, 4), 4u);
  ZO_EXPECT_ERROR(stream->read(buffer, 4), zocore::error::zocore_utf8, kUtf8Error);
}

TEST(Utf8ValidatingStreamTest, CloseReportsAnIncompleteEnd) {
  auto const stream = validating("ab\xE2\x82");
  char buffer[4];
  EXPECT_EQ(stream->read(buffer, 4), 4u);
  ZO_EXPECT_ERROR(stream->close(), zocore::error::zocore_utf8, kUtf8Error);
  EXPECT_TRUE(stream->closed());
}

TEST(Utf8ValidatingStreamTest, CloseValidatesTheUnreadRest) {
  std::string text = std::string(10000, 'x') + "\xFF";
  auto stream = validating(text);
  char c;
  EXPECT_EQ(stream->read(&c, 1), 1u);
  ZO_EXPECT_ERROR(stream->close(), zocore::error::zocore_utf8, kUtf8Error);
  stream = validating(std::string(10000, 'x') + std::string(kMixed));
  EXPECT_EQ(stream->read(&c, 1), 1u);
  stream->close();
  EXPECT_EQ(stream->bytes_remaining(), 0u);
}

TEST(Utf8ValidatingStreamTest, SkipReadsAndValidatesInPiecesOf4096) {
  std::string const text = std::string(9000, 'x');
  auto stream = validating(text);
  EXPECT_EQ(stream->skip(9000), 9000u);
  EXPECT_EQ(stream->reads(), 3u);  // 4096 + 4096 + 808
  stream = validating(text);
  EXPECT_EQ(stream->skip(20000), 9000u);
  EXPECT_EQ(stream->bytes_remaining(), 0u);
  stream = validating("x\xFFx");
  ZO_EXPECT_ERROR(stream->skip(3), zocore::error::zocore_utf8, kUtf8Error);
  // A character cut by the skip is completed by the next read.
  stream = validating(std::string(kMixed));
  EXPECT_EQ(stream->skip(2), 2u);
  char rest[16];
  EXPECT_EQ(stream->read(rest, 16), kMixed.size() - 2);
}

TEST(Utf8ValidatingStreamTest, BytesRemainingIsTheInnerStreams) {
  auto const stream = validating("abcdef");
  char buffer[3];
  EXPECT_EQ(stream->bytes_remaining(), 6u);
  EXPECT_EQ(stream->read(buffer, 3), 3u);
  EXPECT_EQ(stream->bytes_remaining(), 3u);
}

}  // namespace
