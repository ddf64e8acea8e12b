#include <climits>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <zocore/error_params.h>

namespace {

using zocore::ErrorParams;
using zocore::SourceString;

std::vector<std::pair<std::string, std::string>> entries(ErrorParams const& params) {
  std::vector<std::pair<std::string, std::string>> out;
  for (auto const& [name, value] : params)
    out.emplace_back(name.str(), value);
  return out;
}

TEST(ErrorParamsTest, IteratesInNameOrderWhateverTheInsertionOrder) {
  ErrorParams params;
  params.set("value", 1).set("maxBits", 2).set("actualBits", 3).set("Zeta", 4);
  EXPECT_EQ(entries(params),
            (std::vector<std::pair<std::string, std::string>>{
                {"Zeta", "4"}, {"actualBits", "3"}, {"maxBits", "2"}, {"value", "1"}}));
  EXPECT_EQ(params.size(), 4u);
  EXPECT_FALSE(params.empty());
}

TEST(ErrorParamsTest, SettingANameAgainReplacesItsValue) {
  ErrorParams params;
  params.set("size", 1);
  params.set("size", "two");
  ASSERT_EQ(params.size(), 1u);
  ASSERT_NE(params.find("size"), nullptr);
  EXPECT_EQ(*params.find("size"), "two");
}

TEST(ErrorParamsTest, FindTakesAnyView) {
  ErrorParams params;
  params.set("name", "value");
  EXPECT_EQ(params.find("nam"), nullptr);
  EXPECT_EQ(params.find("names"), nullptr);
  std::string_view const probe = std::string_view("name-and-more").substr(0, 4);
  ASSERT_NE(params.find(probe), nullptr);
  EXPECT_EQ(*params.find(probe), "value");
}

struct RenderCase {
  char const* label;
  std::function<void(ErrorParams&)> set;
  std::string expected;
};

TEST(ErrorParamsTest, NumbersAndTextBecomeDecimalOrVerbatimText) {
  RenderCase const cases[] = {
      {"int", [](ErrorParams& p) { p.set("v", -5); }, "-5"},
      {"int min", [](ErrorParams& p) { p.set("v", INT_MIN); }, "-2147483648"},
      {"unsigned max", [](ErrorParams& p) { p.set("v", UINT_MAX); }, "4294967295"},
      {"long", [](ErrorParams& p) { p.set("v", -7L); }, "-7"},
      {"unsigned long", [](ErrorParams& p) { p.set("v", 7UL); }, "7"},
      {"int64 min", [](ErrorParams& p) { p.set("v", std::numeric_limits<long long>::min()); },
       "-9223372036854775808"},
      {"uint64 max",
       [](ErrorParams& p) { p.set("v", std::numeric_limits<unsigned long long>::max()); },
       "18446744073709551615"},
      {"size_t", [](ErrorParams& p) { p.set("v", std::size_t{1} << 32); }, "4294967296"},
      {"double 0.1", [](ErrorParams& p) { p.set("v", 0.1); }, "0.1"},
      {"double integral", [](ErrorParams& p) { p.set("v", 100.0); }, "100"},
      {"double zero", [](ErrorParams& p) { p.set("v", 0.0); }, "0"},
      {"double negative zero", [](ErrorParams& p) { p.set("v", -0.0); }, "-0"},
      {"double big", [](ErrorParams& p) { p.set("v", 3.5e+38); }, "3.5e+38"},
      {"double float max", [](ErrorParams& p) { p.set("v", -3.4028234663852886e+38); },
       "-3.4028234663852886e+38"},
      {"double small", [](ErrorParams& p) { p.set("v", 1e-7); }, "1e-07"},
      {"double denormal", [](ErrorParams& p) { p.set("v", 5e-324); }, "5e-324"},
      {"double inf", [](ErrorParams& p) { p.set("v", std::numeric_limits<double>::infinity()); },
       "inf"},
      {"double -inf", [](ErrorParams& p) { p.set("v", -std::numeric_limits<double>::infinity()); },
       "-inf"},
      {"double nan", [](ErrorParams& p) { p.set("v", std::numeric_limits<double>::quiet_NaN()); },
       "nan"},
      {"char pointer", [](ErrorParams& p) { p.set("v", "text"); }, "text"},
      {"null char pointer", [](ErrorParams& p) { p.set("v", static_cast<char const*>(nullptr)); },
       ""},
      {"string", [](ErrorParams& p) { p.set("v", std::string("a\0b", 3)); },
       std::string("a\0b", 3)},
      {"view", [](ErrorParams& p) { p.set("v", std::string_view("viewed").substr(0, 4)); }, "view"},
  };
  for (RenderCase const& c : cases) {
    SCOPED_TRACE(c.label);
    ErrorParams params;
    c.set(params);
    ASSERT_NE(params.find("v"), nullptr);
    EXPECT_EQ(*params.find("v"), c.expected);
  }
}

TEST(ErrorParamsTest, RunTimeNamesAreOwned) {
  ErrorParams params;
  {
    std::string name = "runtime";
    params.set(SourceString(std::string_view(name)), "value");
    name.assign("xxxxxxx");
  }
  ASSERT_NE(params.find("runtime"), nullptr);
  EXPECT_EQ(*params.find("runtime"), "value");
}

TEST(ErrorParamsTest, EqualityClearAndSwap) {
  ErrorParams a;
  a.set("x", 1).set("y", "two");
  ErrorParams b;
  b.set("y", "two").set("x", 1);
  EXPECT_EQ(a, b);
  b.set("x", 2);
  EXPECT_NE(a, b);

  ErrorParams c;
  c.swap(a);
  EXPECT_TRUE(a.empty());
  EXPECT_EQ(c.size(), 2u);
  c.clear();
  EXPECT_TRUE(c.empty());
  EXPECT_EQ(c.begin(), c.end());
}

}  // namespace
