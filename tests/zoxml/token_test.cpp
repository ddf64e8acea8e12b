#include <gtest/gtest.h>

#include <zoxml/token.h>

namespace {

TEST(ZoxmlTokenTest, KindsPrintByNameAndOtherNumbersAsUnknown) {
  char const* const names[] = {
      "Unknown",          "DocumentStart", "DocumentEnd",    "Error",
      "XmldeclStart",     "XmldeclEnd",    "DoctypeStart",   "DoctypeEnd",
      "CommentStart",     "CommentEnd",    "PIStart",        "PIEnd",
      "CDATAStart",       "CDATAEnd",      "StartTagStart",  "StartTagEnd",
      "StartTagEndEmpty", "EndTag",        "AttributeStart", "AttributeEnd",
      "CharData",         "EntityRef",     "CharRef"};
  for (unsigned i = 0; i < 23; ++i)
    EXPECT_EQ(zoxml::token_name(static_cast<zoxml::EToken>(i)), names[i]);
  EXPECT_EQ(zoxml::token_name(static_cast<zoxml::EToken>(23)), "##UNKNOWN(23)##");
  EXPECT_EQ(zoxml::token_name(static_cast<zoxml::EToken>(4000000000u)), "##UNKNOWN(4000000000)##");
}

}  // namespace
