#include "formats.h"

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/error_exception.h>
#include <zocore/error_info.h>

#include "errors.h"

namespace zoser {
namespace {

TEST(FormatsTest, NamesAndExtensions) {
  for (Format const& f : formats()) {
    EXPECT_EQ(&format_named(f.name), &f);
    if (!f.extension.empty()) {
      EXPECT_EQ(format_for_path("dir/x" + std::string(f.extension)), &f);
    }
  }
  struct Row {
    char const* path;
    char const* format;  // "" for none
  } const rows[] = {
      {"a.zob", "binary"}, {"/d/a.b.zot", "text"}, {"a.xml", "xml"}, {"a.json", "json"},
      {"a.ZOB", ""},       {".zob", ""},           {"d/.zob", ""},   {"zob", ""},
      {"a.zob.gz", ""}};
  for (Row const& row : rows) {
    Format const* const f = format_for_path(row.path);
    EXPECT_EQ(f ? std::string(f->name) : "", row.format) << row.path;
  }
  auto const e = ZO_EXPECT_ERROR(format_named("yaml"), error::zoser_format_unknown,
                                 "Unknown format '{@format}'; known formats: {@formats}");
  EXPECT_EQ(zotest::param(e, "format"), "yaml");
  EXPECT_EQ(zotest::param(e, "formats"), "binary, text, xml, trace, json");
}

TEST(FormatsTest, DirectionsAndMissingFormatsAreRefused) {
  for (char const* name : {"trace", "json"}) {
    auto const e =
        ZO_EXPECT_ERROR(require_readable(format_named(name)), error::zoser_format_direction,
                        "The {@format} format cannot be read");
    EXPECT_EQ(zotest::param(e, "format"), name);
  }
  // Every format of the table is writable today; a read-only one would be refused so.
  Format const read_only{"ro", {}, "", nullptr, nullptr, nullptr, nullptr, {}, true, false};
  auto const w = ZO_EXPECT_ERROR(require_writable(read_only), error::zoser_format_direction,
                                 "The {@format} format cannot be written");
  EXPECT_EQ(zotest::param(w, "format"), "ro");
  // A format this build lacks is refused both ways, before anything is made.
  Format const missing{"gone", {}, "", nullptr, nullptr, nullptr, nullptr, "not built", true, true};
  for (auto const& check : {&require_readable, &require_writable}) {
    auto const m =
        ZO_EXPECT_ERROR(check(missing), error::zoser_format_unavailable,
                        "The {@format} format is not available in this build of zoser: {@reason}");
    EXPECT_EQ(zotest::param(m, "reason"), "not built");
  }
  for (Format const& f : formats()) {
    if (f.missing.empty() && f.writable) {
      EXPECT_NO_THROW(require_writable(f));
    }
    if (f.missing.empty() && f.readable) {
      EXPECT_NO_THROW(require_readable(f));
    }
  }
}

TEST(FormatsTest, LinePlace) {
  auto info = [](zocore::ErrorParams p) {
    return zocore::ErrorInfo::create(error::zoser, zocore::SourceString("m", true), std::move(p),
                                     {});
  };
  EXPECT_EQ(line_place(*info(zocore::ErrorParams().set("line", 3u).set("linePos", 0u))),
            "line 3, column 1");
  EXPECT_EQ(line_place(*info(zocore::ErrorParams().set("line", 1u).set("linePos", 41u))),
            "line 1, column 42");
  EXPECT_EQ(line_place(*info(zocore::ErrorParams().set("line", 2u))), "line 2");
  EXPECT_EQ(line_place(*info(zocore::ErrorParams())), "");
}

}  // namespace
}  // namespace zoser
