#include <exception>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include <zocore/error_exception.h>

namespace {

using zocore::ErrorCode;
using zocore::ErrorException;
using zocore::ErrorInfo;
using zocore::ErrorParams;
using zocore::SourceLocation;
using zocore::SourceString;

static_assert(std::is_base_of_v<std::exception, ErrorException>);
static_assert(std::is_nothrow_copy_constructible_v<ErrorException>);

constinit ErrorCode const kCode("error.test.exception", true);  // NOLINT(cert-err58-cpp)

zocore::RefCountPtr<ErrorInfo const> make_info() {
  ErrorParams params;
  params.set("size", 7);
  return ErrorInfo::create(kCode, SourceString("Size is {@size}", true), params,
                           SourceLocation("ns::f()", "$Id: x $", 1));
}

TEST(ErrorExceptionTest, WhatIsTheRenderedMessage) {
  ErrorException const e(make_info());
  EXPECT_STREQ(e.what(), "Size is 7");
  EXPECT_EQ(e.code(), kCode);
  std::exception const& base = e;
  EXPECT_STREQ(base.what(), "Size is 7");
}

TEST(ErrorExceptionTest, CopiesShareTheRecord) {
  auto const info = make_info();
  char const* what = nullptr;
  {
    ErrorException const original(info);
    ErrorException const copy(original);  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(copy.info().get(), info.get());
    EXPECT_EQ(info->ref_count(), 3u);
    what = copy.what();
  }
  EXPECT_EQ(info->ref_count(), 1u);
  // The text belongs to the record, which is still alive.
  EXPECT_STREQ(what, "Size is 7");
}

TEST(ErrorExceptionTest, EmptyExceptionHasAFixedTextAndNoCode) {
  ErrorException const e(nullptr);
  EXPECT_STREQ(e.what(), "zocore::ErrorException");
  EXPECT_TRUE(e.code().empty());
  EXPECT_FALSE(e.info());
}

TEST(ErrorExceptionTest, ThrowErrorRethrowsAStoredRecord) {
  auto const info = make_info();
  try {
    ErrorException::throw_error(info);
  } catch (std::exception const& e) {
    auto const* error = dynamic_cast<ErrorException const*>(&e);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->info().get(), info.get());
    EXPECT_STREQ(e.what(), "Size is 7");
    return;
  }
  FAIL() << "nothing was thrown";
}

}  // namespace
