#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zoxml/errors.h>

#include "xml_test_util.h"

namespace {

namespace error = zoxml::error;

// Parents and is_a follow from the names (zocore's ErrorCode tests).
TEST(ZoxmlErrorCodesTest, Names) {
  std::string names;
  for (zocore::ErrorCode const* code :
       {&error::zoxml, &error::zoxml_reader, &error::zoxml_reader_unexpected,
        &error::zoxml_reader_unexpected_element, &error::zoxml_reader_unexpected_token,
        &error::zoxml_reader_unexpected_size, &error::zoxml_tokenizer,
        &error::zoxml_tokenizer_stream, &error::zoxml_tokenizer_syntaxError})
    names += std::string(code->view()) + " ";
  EXPECT_EQ(names,
            "error.zoxml error.zoxml.reader error.zoxml.reader.unexpected "
            "error.zoxml.reader.unexpected.element error.zoxml.reader.unexpected.token "
            "error.zoxml.reader.unexpected.size error.zoxml.tokenizer error.zoxml.tokenizer.stream "
            "error.zoxml.tokenizer.syntaxError ");
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
