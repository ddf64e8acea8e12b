#include <sstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zocore/ref_count_ptr.h>
#include <zoxml/errors.h>
#include <zoxml/tokenizer.h>

#include "xml_test_util.h"

namespace {

using zoxml::EToken;
using zoxml::impl::IStreamSource;
using zoxml::impl::Tokenizer;

constexpr std::size_t kBlockSizes[] = {1, 2, 3, 7, Tokenizer::kDefaultBlockSize};

// The tokens of `doc` as "Kind" or "Kind(text)", one CharData for each run of pieces.
std::string tokens(std::string const& doc, std::size_t block, bool normalize) {
  std::istringstream in(doc);
  IStreamSource source(in);
  Tokenizer tok(source, "", block, 1000);
  tok.set_normalize_line_ends(normalize);
  std::string out;
  EToken token;
  EToken last = EToken::Unknown;
  do {
    token = tok.next();
    bool const has_text = token == EToken::StartTagStart || token == EToken::EndTag ||
                          token == EToken::AttributeStart || token == EToken::PIStart ||
                          token == EToken::EntityRef || token == EToken::CharRef ||
                          token == EToken::XmldeclStart || token == EToken::CharData;
    if (token == EToken::CharData && last == EToken::CharData) {
      out.insert(out.size() - 1, tok.text());
      continue;
    }
    if (!out.empty()) out += ' ';
    out += zoxml::token_name(token);
    if (has_text) out += "(" + std::string(tok.text()) + ")";
    last = token;
  } while (token != EToken::DocumentEnd);
  return out;
}

struct TokenRow {
  char const* doc = nullptr;
  char const* expected = nullptr;  // without the DocumentStart and DocumentEnd around it
  bool normalize = true;
};

TEST(TokenizerTest, CutsDocumentsIntoTokensWithAnyBlockSize) {
  TokenRow const rows[] = {
      {"", ""},
      {"\xEF\xBB\xBF<a/>", "StartTagStart(a) StartTagEndEmpty"},
      {"<?xml version=\"1.0\" encoding='UTF-8'?>",
       "XmldeclStart(xml) AttributeStart(version) CharData(1.0) AttributeEnd "
       "AttributeStart(encoding) CharData(UTF-8) AttributeEnd XmldeclEnd"},
      {"<a b = \"x&amp;y&#65;\" c='\"'>t&lt;</a >",
       "StartTagStart(a) AttributeStart(b) CharData(x) EntityRef(amp) CharData(y) CharRef(65) "
       "AttributeEnd AttributeStart(c) CharData(\") AttributeEnd StartTagEnd CharData(t) "
       "EntityRef(lt) EndTag(a)"},
      // Attribute values: tab, line feed, CR and CR LF become one space each.
      {"<a b='1\t2\n3\r\n4\r5'/>",
       "StartTagStart(a) AttributeStart(b) CharData(1 2 3 4 5) AttributeEnd StartTagEndEmpty"},
      {"<!-- a - b --><?pi some data?><?pi?><![CDATA[x]]y]>z\r\n]]>",
       "CommentStart CommentEnd PIStart(pi) PIEnd PIStart(pi) PIEnd CDATAStart "
       "CharData(x]]y]>z\n) CDATAEnd"},
      {"a\r\nb\rc]]d]", "CharData(a\nb\nc]]d])"},
      {"a\r\nb\rc", "CharData(a\r\nb\rc)", false},
      {"<\xC3\xA9 \xC3\xBC='\xC3\x9F'>\xE2\x82\xAC\xF0\x9D\x84\x9E</\xC3\xA9>",
       "StartTagStart(\xC3\xA9) AttributeStart(\xC3\xBC) CharData(\xC3\x9F) AttributeEnd "
       "StartTagEnd CharData(\xE2\x82\xAC\xF0\x9D\x84\x9E) EndTag(\xC3\xA9)"},
      // The DOCTYPE declaration is checked against its grammar and handed out as two tokens.
      {"<!DOCTYPE a PUBLIC \"-//x//\" 'sys' [ <!ELEMENT a (b|c)*> <!ATTLIST a x CDATA #IMPLIED "
       "y (1|2) \"1\" z NOTATION (n) #FIXED 'v&amp;'> <!ENTITY e \"&#65;&e2;\"> <!ENTITY % p "
       "SYSTEM \"x\"> <!ENTITY u SYSTEM \"u\" NDATA n> <!NOTATION n PUBLIC \"p\"> <!NOTATION m "
       "PUBLIC 'p' 's'> %p; <!-- c --> <?pi x?> <!ELEMENT b ((c,d?)+|e)> <!ELEMENT c "
       "(#PCDATA|b)*> <!ELEMENT d EMPTY><!ELEMENT e (#PCDATA)>]><a/>",
       "DoctypeStart DoctypeEnd StartTagStart(a) StartTagEndEmpty"},
      {"<!DOCTYPE a SYSTEM 's'>", "DoctypeStart DoctypeEnd"},
  };
  for (TokenRow const& row : rows) {
    std::string const expected = std::string("DocumentStart ") +
                                 (*row.expected ? row.expected + std::string(" ") : "") +
                                 "DocumentEnd";
    for (std::size_t block : kBlockSizes)
      EXPECT_EQ(tokens(row.doc, block, row.normalize), expected) << row.doc << ", block " << block;
  }
}

TEST(TokenizerTest, TellsWhetherANameIsANameAndAQName) {
  struct Row {
    char const* name;
    bool name_ok;
    bool qname_ok;
    std::size_t colon;
  };
  constexpr std::size_t npos = std::string_view::npos;
  Row const rows[] = {
      {"a:b", true, true, 1},          {":a", true, false, 0},
      {"a:", true, false, 1},          {"a:b:c", true, false, 1},
      {"1a", false, false, npos},      {"a:1", true, false, 1},
      {"a&b", false, false, npos},     {"\xC3\xA9", true, true, npos},
      {"a\xC2\xB7", true, true, npos}, {"\xC2\xB7\x61", false, false, npos},
      {"_.-9", true, true, npos},
  };
  for (Row const& row : rows) {
    std::istringstream in(std::string("<") + row.name + ">");
    IStreamSource source(in);
    Tokenizer tok(source, "", 2, 100);
    tok.next();
    ASSERT_EQ(tok.next(), EToken::StartTagStart);
    EXPECT_EQ(tok.text(), row.name);
    EXPECT_EQ(tok.name_ok(), row.name_ok) << row.name;
    EXPECT_EQ(tok.qname_ok(), row.qname_ok) << row.name;
    EXPECT_EQ(tok.name_colon(), row.colon) << row.name;
  }
}

struct ErrorRow {
  char const* doc;
  char const* message;
  char const* params;  // the message's own parameters
  char const* at;      // "line;linePos;sourcePos"
};

void expect_tokenizer_error(ErrorRow const& row, std::size_t block) {
  SCOPED_TRACE(::testing::Message() << row.doc << ", block " << block);
  std::istringstream in(row.doc);
  IStreamSource source(in);
  Tokenizer tok(source, "u", block, 1000);
  auto const info = ZO_EXPECT_ERROR(
      while (tok.next() != EToken::DocumentEnd){}, zoxml::error::zoxml_tokenizer_syntaxError,
      std::string("[line {@line}, pos {@linePos}, uri <{@uri}>]: ") + row.message);
  EXPECT_EQ(zotest::params_of(info, "line;linePos;sourcePos"), zotest::location_params(row.at));
  std::string const params = row.params;
  std::string const names = params.substr(0, params.find('='));
  if (!names.empty()) {
    EXPECT_EQ(zotest::params_of(info, names), row.params);
  }
}

TEST(TokenizerTest, LexicalErrorsAreLocated) {
  constexpr char kEnd[] = "Unexpected end of document inside {@construct}";
  constexpr char kChar[] = "Character {@character} is not allowed in XML documents";
  constexpr char kUtf8[] = "Malformed UTF-8 sequence starting with byte {@byte}";
  constexpr char kDtd[] = "Syntax error in the DOCTYPE declaration: expected {@expected}";
  constexpr char kLt[] = "'<' is not allowed in an attribute value";
  ErrorRow const rows[] = {
      {"<!-- x", kEnd, "construct=a comment", "1;7;6"},
      {"<?pi x", kEnd, "construct=a processing instruction", "1;7;6"},
      {"<a><![CDATA[x", kEnd, "construct=a CDATA section", "1;14;13"},
      {"<a></a", kEnd, "construct=an end tag", "1;7;6"},
      {"<a b", kEnd, "construct=a start tag", "1;5;4"},
      {"<a", kEnd, "construct=a start tag", "1;3;2"},
      {"<a b='x", kEnd, "construct=an attribute value", "1;8;7"},
      {"<?xml version='1.0'", kEnd, "construct=the XML declaration", "1;20;19"},
      {"<!DOCTYPE a", kEnd, "construct=the DOCTYPE declaration", "1;12;11"},
      {"<!DOCTYPE a SYSTEM 'x", kEnd, "construct=a literal", "1;22;21"},
      {"a\x01", kChar, "character=U+0001", "1;2;1"},
      {"<a>\xEF\xBF\xBE", kChar, "character=U+FFFE", "1;4;3"},
      {"<a>\xEF\xBF\xBFxyz", kChar, "character=U+FFFF", "1;4;3"},
      {"\xC0\x80", kUtf8, "byte=0xC0", "1;1;0"},
      {"a\x80", kUtf8, "byte=0x80", "1;2;1"},
      {"a\x80ghij", kUtf8, "byte=0x80", "1;2;1"},
      {"<!--\xED\xA0\x80-->", kUtf8, "byte=0xED", "1;5;4"},
      {"<a b='\xE2\x82'/>", kUtf8, "byte=0xE2", "1;7;6"},
      {"<a\xF5>", kUtf8, "byte=0xF5", "1;3;2"},
      {"\xE2\x82", kUtf8, "byte=0xE2", "1;1;0"},
      // Lines end at LF, CR and CR LF, also when a CR LF pair straddles two blocks.
      {"<a>\r\n\r\n \rx]]>", "']]>' is not allowed in character data", "", "4;2;10"},
      {"<!x>", "Invalid markup after '<!'", "", "1;1;0"},
      {"</a b>", "Expected '>' at the end of an end tag", "", "1;5;4"},
      {"<?XmL x?>", "The processing instruction target 'xml' is reserved", "", "1;1;0"},
      {"<?a:b x?>", "Invalid processing instruction target", "", "1;1;0"},
      {"<?pi?x?>", "Whitespace is required after a processing instruction target", "", "1;5;4"},
      {"<!-- a -- b -->", "'--' is not allowed inside a comment", "", "1;8;7"},
      {"<!-- a --->", "'--' is not allowed inside a comment", "", "1;8;7"},
      {"&#6 5;", "A character reference must end with ';'", "", "1;4;3"},
      {"& x", "'&' must start an entity or character reference", "", "1;1;0"},
      {"&a:b;", "Invalid entity reference name", "", "1;1;0"},
      {"&amp", "An entity reference must end with ';'", "", "1;5;4"},
      {"<?xml version='1.0'?x", "Expected '?>' at the end of the XML declaration", "", "1;20;19"},
      {"<?xml version='1.0'>", "Unexpected character in the XML declaration", "", "1;20;19"},
      {"<?xml version='&amp;'?>", "References are not allowed in the XML declaration", "",
       "1;16;15"},
      {"<a/ >", "Expected '>' after '/' in an empty-element tag", "", "1;3;2"},
      {"<a =''>", "Unexpected character in a start tag", "", "1;4;3"},
      {"<a b='1'c='2'>", "Whitespace is required before an attribute name", "", "1;9;8"},
      {"<a b c>", "Expected '=' after an attribute name", "", "1;6;5"},
      {"<a b=c>", "Expected a quoted attribute value", "", "1;6;5"},
      {"<a b='<'>", kLt, "", "1;7;6"},
      {"<!DOCTYPEa>", kDtd, "expected=white space", "1;10;9"},
      {"<!DOCTYPE a SYS 'x'>", kDtd, "expected=SYSTEM or PUBLIC", "1;13;12"},
      {"<!DOCTYPE a FOO>", kDtd, "expected='>'", "1;13;12"},
      {"<!DOCTYPE a PUBLIC 'p'>", kDtd, "expected=white space", "1;23;22"},
      {"<!DOCTYPE a [<!FOO>]>", kDtd, "expected=ELEMENT, ATTLIST, ENTITY or NOTATION", "1;16;15"},
      {"<!DOCTYPE a [x]>", kDtd, "expected=a markup declaration or ']'", "1;14;13"},
      {"<!DOCTYPE a [<!ELEMENT a (b,c|d)>]>", kDtd, "expected=',' or ')'", "1;30;29"},
      {"<!DOCTYPE a [<!ELEMENT a (b)c>]>", kDtd, "expected='>'", "1;29;28"},
      {"<!DOCTYPE a [<!ELEMENT a ()>]>", kDtd, "expected=a name", "1;27;26"},
      {"<!DOCTYPE a [<!ELEMENT a FOO>]>", kDtd, "expected=EMPTY, ANY or a content model",
       "1;26;25"},
      {"<!DOCTYPE a [<!ELEMENT a (#PCDATA|b)>]>", kDtd, "expected='*' after a mixed content model",
       "1;37;36"},
      {"<!DOCTYPE a [<!ELEMENT a (#FOO)>]>", kDtd, "expected=#PCDATA", "1;28;27"},
      {"<!DOCTYPE a [<!ATTLIST a b FOO #IMPLIED>]>", kDtd, "expected=an attribute type", "1;28;27"},
      {"<!DOCTYPE a [<!ATTLIST a b CDATA #FOO>]>", kDtd, "expected=#REQUIRED, #IMPLIED or #FIXED",
       "1;35;34"},
      {"<!DOCTYPE a [<!ATTLIST a b (x y)>]>", kDtd, "expected='|' or ')'", "1;31;30"},
      {"<!DOCTYPE a [<!ATTLIST a b (x|!)>]>", kDtd, "expected=a name token", "1;31;30"},
      {"<!DOCTYPE a [<!ATTLIST a b NOTATION n>]>", kDtd, "expected='('", "1;37;36"},
      {"<!DOCTYPE a [<!ENTITY 1 'x'>]>", kDtd, "expected=a name", "1;23;22"},
      {"<!DOCTYPE a [<!ENTITY e SYSTEM 'x' FOO n>]>", kDtd, "expected=NDATA or '>'", "1;36;35"},
      {"<!DOCTYPE a [%p]>", kDtd, "expected=';'", "1;16;15"},
      {"<!DOCTYPE a PUBLIC '[' 's'>", "Invalid character in a public identifier", "", "1;21;20"},
      {"<!DOCTYPE a [<!ENTITY e '%p;'>]>",
       "Parameter-entity references are not allowed inside markup declarations of the internal "
       "subset",
       "", "1;26;25"},
      {"<!DOCTYPE a [<!ENTITY e '&#x;'>]>", "Invalid character reference", "", "1;26;25"},
      {"<!DOCTYPE a [<!ATTLIST a b CDATA '<'>]>", kLt, "", "1;35;34"},
  };
  for (ErrorRow const& row : rows) {
    for (std::size_t block : {std::size_t{1}, std::size_t{3}, Tokenizer::kDefaultBlockSize})
      expect_tokenizer_error(row, block);
  }
  std::string deep = "<!DOCTYPE a [<!ELEMENT a " + std::string(300, '(') + ">]>";
  expect_tokenizer_error({deep.c_str(), kDtd, "expected=a shallower content model", "1;283;282"},
                         64);
}

// A name longer than the token limit fails, however it straddles the blocks; character data
// of any length does not, as it is handed out in pieces.
TEST(TokenizerTest, OnlyMarkupTokensAreBoundedBySize) {
  for (std::size_t block : {std::size_t{1}, std::size_t{4}, std::size_t{64}}) {
    std::istringstream in("<" + std::string(100, 'n') + "/>");
    IStreamSource source(in);
    Tokenizer tok(source, "", block, 8);
    tok.next();
    auto const info = ZO_EXPECT_ERROR(tok.next(), zoxml::error::zoxml_tokenizer_syntaxError,
                                      "[line {@line}, pos {@linePos}]: Markup token exceeds "
                                      "{@maxSize} bytes");
    EXPECT_EQ(zotest::params_of(info, "maxSize;linePos"), "maxSize=8;linePos=2");
  }
  std::string const text(5000, 't');
  EXPECT_EQ(
      tokens("<a>" + text + "</a>", 4, true),
      "DocumentStart StartTagStart(a) StartTagEnd CharData(" + text + ") EndTag(a) DocumentEnd");
}

// Failures of the input stream are reported under their own code, with the cause nested.
TEST(TokenizerTest, StreamFailuresAreReported) {
  constexpr char kMessage[] = "[line {@line}, pos {@linePos}]: Error reading the input stream";
  auto const source = zocore::make_ref_counted<zotest::ByteSource>("<a>text</a>");
  source->fail_at_call(2);
  zoxml::impl::ReadStreamSource stream_source(*source);
  Tokenizer tok(stream_source, "", 4, 100);
  auto const info = ZO_EXPECT_ERROR(while (tok.next() != EToken::DocumentEnd){},
                                    zoxml::error::zoxml_tokenizer_stream, kMessage);
  ASSERT_TRUE(info && info->nested());
  EXPECT_EQ(info->nested()->code(), zotest::test_stream_error);
  EXPECT_EQ(zotest::params_of(info, "sourcePos"), "sourcePos=8");

  // A std::istream whose buffer throws goes bad; one that failed before is refused at once.
  struct ThrowingBuffer : std::streambuf {
    int_type underflow() override { throw std::runtime_error("disk gone"); }
  } broken;
  std::istream bad(&broken);
  std::istringstream failed("<a/>");
  failed.setstate(std::ios::failbit);
  for (std::istream* in : {&bad, static_cast<std::istream*>(&failed)}) {
    IStreamSource istream_source(*in);
    Tokenizer tok2(istream_source, "", 4, 100);
    auto const nested =
        ZO_EXPECT_ERROR(tok2.next(), zoxml::error::zoxml_tokenizer_stream, kMessage);
    ASSERT_TRUE(nested && nested->nested());
    EXPECT_EQ(nested->nested()->code().view(), "error.zocore.exception");
  }
}

}  // namespace
