#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zoxml/errors.h>

#include "xml_test_util.h"

namespace {

namespace error = zoxml::error;

TEST(ZoxmlErrorCodesTest, NamesAndParents) {
  struct Row {
    zocore::ErrorCode const* code;
    char const* name;
    char const* parent;
  };
  Row const rows[] = {
      {&error::zoxml, "error.zoxml", "error"},
      {&error::zoxml_reader, "error.zoxml.reader", "error.zoxml"},
      {&error::zoxml_reader_unexpected, "error.zoxml.reader.unexpected", "error.zoxml.reader"},
      {&error::zoxml_reader_unexpected_element, "error.zoxml.reader.unexpected.element",
       "error.zoxml.reader.unexpected"},
      {&error::zoxml_reader_unexpected_token, "error.zoxml.reader.unexpected.token",
       "error.zoxml.reader.unexpected"},
      {&error::zoxml_reader_unexpected_size, "error.zoxml.reader.unexpected.size",
       "error.zoxml.reader.unexpected"},
      {&error::zoxml_tokenizer, "error.zoxml.tokenizer", "error.zoxml"},
      {&error::zoxml_tokenizer_stream, "error.zoxml.tokenizer.stream", "error.zoxml.tokenizer"},
      {&error::zoxml_tokenizer_syntaxError, "error.zoxml.tokenizer.syntaxError",
       "error.zoxml.tokenizer"},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(row.code->view(), row.name);
    EXPECT_EQ(row.code->parent().view(), row.parent);
    EXPECT_TRUE(row.code->is_a(error::zoxml)) << row.name;
  }
}

// The location prefix, with and without a URI; the location parameters are always attached.
TEST(ZoxmlErrorCodesTest, ThrowLocatedPrefixesTheMessage) {
  zoxml::Location const at{3, 100, 104};
  for (std::string uri : {"", "file:///a.xml"}) {
    zocore::ErrorParams params;
    params.set("name", "x");
    std::string const prefix = uri.empty() ? "[line {@line}, pos {@linePos}]: "
                                           : "[line {@line}, pos {@linePos}, uri <{@uri}>]: ";
    auto const info = ZO_EXPECT_ERROR(zoxml::throw_located(error::zoxml_reader, "Bad '{@name}'",
                                                           params, at, uri, "f()", "$Id: m $", 7),
                                      error::zoxml_reader, prefix + "Bad '{@name}'");
    EXPECT_EQ(zotest::params_of(info, "uri;line;linePos;sourcePos;name"),
              "uri=" + uri + ";line=3;linePos=5;sourcePos=104;name=x");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->location().function().view(), "f()");
    EXPECT_EQ(info->rendered(), uri.empty() ? "[line 3, pos 5]: Bad 'x'"
                                            : "[line 3, pos 5, uri <file:///a.xml>]: Bad 'x'");
  }
}

}  // namespace
