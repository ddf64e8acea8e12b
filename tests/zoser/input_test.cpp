#include "input.h"

#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zocore/core_errors.h>

#include "tool.h"

namespace zoser {
namespace {

std::string read_all(zocore::IReadStream& s, unsigned piece) {
  std::string out;
  std::string buffer(piece, '\0');
  for (;;) {
    unsigned const n = s.read(buffer.data(), piece);
    out.append(buffer.data(), n);
    if (n < piece) return out;
  }
}

TEST(InputTest, PeekedBytesAreDeliveredAgain) {
  zotest::TempDir dir;
  for (std::size_t size : {std::size_t{0}, std::size_t{10}, Input::kPeekSize, Input::kPeekSize + 1,
                           3 * Input::kPeekSize + 17}) {
    SCOPED_TRACE(size);
    std::string const data = zotest::pattern_string(0, size);
    dir.write("in", data);
    for (unsigned piece : {1u, 4096u, 100'000u}) {
      Input in(dir.file("in"));
      EXPECT_EQ(in.peek(), data.substr(0, Input::kPeekSize));
      EXPECT_EQ(in.peek_is_whole(), size < Input::kPeekSize);  // exactly full: cannot tell
      EXPECT_EQ(in.stream()->bytes_remaining(), size);
      if (piece == 1) {
        EXPECT_EQ(in.stream()->skip(3), std::min<std::size_t>(3, size));
        EXPECT_EQ(read_all(*in.stream(), 4096), data.substr(std::min<std::size_t>(3, size)));
      } else {
        EXPECT_EQ(read_all(*in.stream(), piece), data);
      }
      EXPECT_EQ(in.bytes_read(), size);
      EXPECT_EQ(in.stream()->read(nullptr, 0), 0u);
    }
    Input unpeeked(dir.file("in"));  // without detection nothing is kept
    EXPECT_EQ(read_all(*unpeeked.stream(), 4096), data);
  }
}

TEST(InputTest, NamesAndFailures) {
  EXPECT_TRUE(Input("-").is_stdin());
  auto const e = ZO_EXPECT_ERROR(Input("/nonexistent/in.zob"), zocore::error::zocore_errno,
                                 "Cannot open file '{@path}' for reading");
  EXPECT_EQ(zotest::param(e, "path"), "/nonexistent/in.zob");
}

}  // namespace
}  // namespace zoser
