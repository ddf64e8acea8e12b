#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zocore/core_errors.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/impl/utf8_validating_stream.h>

namespace {

using zoserialize::impl::Utf8CarryValidator;

constexpr char kUtf8Error[] = "Invalid UTF-8 sequence at offset {@offset}";

// Sequences of every length: "a", U+00E9, U+20AC, U+1F600.
constexpr std::string_view kMixed = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";

// Feeds `text` cut at a and b; returns whether a sequence was still held back before finish().
bool feed_in_three(Utf8CarryValidator& v, std::string_view text, std::size_t a, std::size_t b) {
  v.feed(text.data(), static_cast<unsigned>(a));
  v.feed(text.data() + a, static_cast<unsigned>(b - a));
  v.feed(text.data() + b, static_cast<unsigned>(text.size() - b));
  return v.has_carry();
}

TEST(Utf8CarryValidatorTest, EveryCutOfValidTextValidates) {
  for (std::size_t a = 0; a <= kMixed.size(); ++a) {
    for (std::size_t b = a; b <= kMixed.size(); ++b) {
      Utf8CarryValidator v;
      EXPECT_FALSE(feed_in_three(v, kMixed, a, b)) << a << "/" << b;
      v.finish();
    }
  }
}

TEST(Utf8CarryValidatorTest, MalformedOrIncompleteTextFailsInAnyPiece) {
  std::string const cases[] = {
      "a\xFF"
      "b",
      "a\x80"
      "b",                               // a byte that starts nothing, a stray continuation
      "\xC3(", "\xC3\xA9\xA9",           // a lead without continuation, one continuation too many
      "\xC0\xAF", "\xED\xA0\x80",        // overlong, a surrogate
      "\xF4\x90\x80\x80",                // above U+10FFFF
      "ab\x80\x80\x80\x80\x80\x80\x80",  // continuation bytes only, more than 6
      "\xE2\x82"
      "a",                         // a carried sequence completed by a non-continuation
      "ab\xC3", "ab\xF0\x9F\x98",  // incomplete at the end
      // 5- and 6-byte leads are carried as long as they announce, then refused.
      "\xF8\x88\x80\x80\x80", "\xFC\x84\x80\x80\x80\x80"};
  for (std::string const& text : cases) {
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
      SCOPED_TRACE(::testing::Message() << ::testing::PrintToString(text) << " cut at " << cut);
      Utf8CarryValidator v;
      ZO_EXPECT_ERROR((feed_in_three(v, text, cut, cut), v.finish()), zocore::error::zocore_utf8,
                      kUtf8Error);
    }
  }
}

// Over a ByteSource, which keeps the contract of an element stream: short only at the end.
using ValidatingSource = zoserialize::impl::Utf8ValidatingStreamImpl<zotest::ByteSource>;

TEST(Utf8ValidatingStreamTest, ReadsAndSkipsValidTextInAnyPieces) {
  std::string text;
  for (int i = 0; i < 300; ++i)
    text += kMixed;
  for (unsigned request : {1u, 2u, 3u, 7u, 4096u, 5000u}) {
    auto const stream = zocore::make_ref_counted<ValidatingSource>(text);
    std::string got;
    std::string block(request, '\0');
    for (unsigned n = request; n == request; got.append(block.data(), n))
      n = stream->read(block.data(), request);
    EXPECT_EQ(got, text) << request;
  }
  // Skipped bytes are read and validated in pieces of 4096; a character cut by the skip is
  // completed by the next read.
  auto stream = zocore::make_ref_counted<ValidatingSource>(std::string(9000, 'x'));
  EXPECT_EQ(stream->skip(20000), 9000u);
  EXPECT_EQ(stream->calls().size(), 3u);  // 4096 + 4096 + 808
  stream = zocore::make_ref_counted<ValidatingSource>(std::string(kMixed));
  EXPECT_EQ(stream->skip(2), 2u);
  EXPECT_EQ(stream->bytes_remaining(), kMixed.size() - 2);
  char rest[16];
  EXPECT_EQ(stream->read(rest, 16), kMixed.size() - 2);
  stream = zocore::make_ref_counted<ValidatingSource>("x\xFFx");
  ZO_EXPECT_ERROR(stream->skip(3), zocore::error::zocore_utf8, kUtf8Error);
}

}  // namespace
