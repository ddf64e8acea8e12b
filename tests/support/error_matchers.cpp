#include <algorithm>

#include <gtest/gtest.h>

#include <support/error_matchers.h>

namespace zotest {

ErrorPtr expect_error(std::function<void()> const& fn, zocore::ErrorCode const& code,
                      std::string_view message, char const* file, int line) {
  ::testing::ScopedTrace const trace(file, line, "expected error here");
  try {
    fn();
    ADD_FAILURE() << "expected ErrorException " << code << " (\"" << message << "\"), none thrown";
  } catch (zocore::ErrorException const& e) {
    ErrorPtr const& info = e.info();
    if (!info) ADD_FAILURE() << "ErrorException without a record";
    if (!info) return nullptr;
    EXPECT_EQ(info->code().view(), code.view()) << "message: " << info->rendered();
    EXPECT_EQ(info->message().view(), message);
    if (info->code() == code && info->message().view() == message) return info;
  } catch (std::exception const& e) {
    ADD_FAILURE() << "expected ErrorException " << code << ", got std::exception: " << e.what();
  }
  return nullptr;
}

std::string param(ErrorPtr const& info, std::string_view name) {
  if (!info) return "<no error>";
  std::string const* value = info->params().find(name);
  return value ? *value : "<missing>";
}

void expect_params(ErrorPtr const& info, std::string_view entries) {
  for (std::size_t at = 0; at < entries.size();) {
    std::size_t const end = std::min(entries.find('|', at), entries.size());
    std::string_view const entry = entries.substr(at, end - at);
    std::string_view const name = entry.substr(0, entry.find('='));
    EXPECT_EQ(param(info, name), entry.substr(name.size() + 1)) << name;
    at = end + 1;
  }
}

}  // namespace zotest
