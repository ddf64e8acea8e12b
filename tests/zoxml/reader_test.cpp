#include <algorithm>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zocore/ref_count_ptr.h>
#include <zoxml/errors.h>
#include <zoxml/reader.h>

#include "xml_test_util.h"

namespace zoxml {

class XmlReaderTestPeer {
 public:
  static void set_max_value(XmlReader& parser, std::size_t size) { parser.max_value_ = size; }
  static void break_state(XmlReader& parser) { parser.state_ = static_cast<XmlReader::EState>(42); }
};

}  // namespace zoxml

namespace {

namespace error = zoxml::error;
using zoxml::EToken;
using zoxml::XmlReader;

// A document and a parser over it, read from a std::istream or from an IReadStream.
class Doc {
 public:
  explicit Doc(std::string const& text, std::size_t block = XmlReader::kDefaultBlockSize,
               bool istream = true, std::string_view uri = {})
      : in_(text), source_(zocore::make_ref_counted<zotest::ByteSource>(text)) {
    parser_ = istream ? std::make_unique<XmlReader>(in_, uri, block)
                      : std::make_unique<XmlReader>(*source_, uri, block);
    parser_->set_entity_resolver([](std::string_view name, std::string& out) {
      if (name == "ent") out = "r\tx";
      if (name == "bad") out = "\xC0";
      return name == "ent" || name == "none" || name == "bad";
    });
  }
  XmlReader& operator*() { return *parser_; }
  XmlReader* operator->() { return parser_.get(); }
  zotest::ByteSource& source() { return *source_; }

 private:
  std::istringstream in_;
  zocore::RefCountPtr<zotest::ByteSource> source_;
  std::unique_ptr<XmlReader> parser_;
};

constexpr char kX[] = "{http://www.w3.org/2000/xmlns/}";

// A message template behind the location prefix of a document without a URI.
std::string located(char const* text) {
  return std::string("[line {@line}, pos {@linePos}]: ") + text;
}
constexpr char kXml[] = "{http://www.w3.org/XML/1998/namespace}";

TEST(XmlReaderTest, HandsOutNodesWhateverTheInputAndTheWayValuesAreRead) {
  struct Row {
    std::string doc;
    std::string nodes;
  };
  Row const rows[] = {
      {"\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\" standalone='yes'?>\n<a/>", "<a/></a>"},
      {" \n\t<!-- c --><?pi x?><!DOCTYPE a [<!ENTITY e 'x'>]>\n<a>t</a>\n<!-- -->\r\n<?pi?> ",
       "<a>\"t\"</a>"},
      // References, CDATA sections, comments and processing instructions make one value.
      {"<a>x &#x41;&#65;&lt;&gt;&amp;&quot;&apos;<![CDATA[<&]>]]>y<!--c-->z<?p q?>!</a>",
       "<a>\"x AA<>&\"'<&]>yz!\"</a>"},
      {"<a xmlns=\"urn:d\" xmlns:p=\"urn:p\" p:x=\"1\" y=\"2\"><p:b xml:lang=\"en\"><c xmlns=\"\"/>"
       "</p:b><p:d xmlns:p=\"urn:q\"><e/></p:d><xml:f/></a>",
       std::string("<{urn:d}a ") + kX + "xmlns=\"urn:d\" " + kX +
           "xmlns:p=\"urn:p\" {urn:p}p:x=\"1\" y=\"2\"><{urn:p}p:b " + kXml +
           "xml:lang=\"en\"><c " + kX + "xmlns=\"\"/></c></p:b><{urn:q}p:d " + kX +
           "xmlns:p=\"urn:q\"><{urn:d}e/></e></p:d><" + kXml + "xml:f/></xml:f></a>"},
      {"<a>\n <b xml:space=\"preserve\"> <c> </c><d xml:space='default'> </d></b><![CDATA[ ]]>&#32;"
       "<![CDATA[]]></a>",
       std::string("<a>~\"\\n \"<b ") + kXml + "xml:space=\"preserve\">p~\" \"<c>p~\" \"</c><d " +
           kXml + "xml:space=\"default\">~\" \"</d></b>\"  \"</a>"},
      {"<a b='1\t2\n3\r\n4\r5&#10;6&ent;&none;' c=\"&none;\">&ent;&none;</a>",
       "<a b=\"1 2 3 4 5\\n6r x\" c=\"\">\"r\tx\"</a>"},
      {"<a>1\r\n2\r3\n<![CDATA[4\r\n]]></a>\r\n", "<a>\"1\\n2\\n3\\n4\\n\"</a>"},
      {"<\xC3\xA9 \xC3\xBC='\xC3\x9F'>\xE2\x82\xAC</\xC3\xA9>",
       "<\xC3\xA9 \xC3\xBC=\"\xC3\x9F\">\"\xE2\x82\xAC\"</\xC3\xA9>"},
  };
  for (Row const& row : rows) {
    for (std::size_t block : {std::size_t{1}, std::size_t{2}, std::size_t{7}, std::size_t{65536}}) {
      for (unsigned piece : {0u, 1u, 5u}) {
        Doc doc(row.doc, block, piece != 1);
        EXPECT_EQ(zotest::trace(*doc, piece), row.nodes)
            << row.doc << ", block " << block << ", piece " << piece;
        // A short read ends an IReadStream: it is not asked again after one.
        auto const& calls = doc.source().calls();
        for (std::size_t i = 0; i + 1 < calls.size(); ++i)
          EXPECT_EQ(calls[i].returned, calls[i].requested) << "asked again after a short read";
      }
    }
  }
}

struct ErrorRow {
  std::string doc;
  zocore::ErrorCode const* code;
  char const* message;
  char const* params;  // the message's own parameters
  char const* at;      // "line;linePos;sourcePos"
};

void expect_error_row(ErrorRow const& row, std::size_t block) {
  SCOPED_TRACE(::testing::Message() << row.doc << ", block " << block);
  Doc doc(row.doc, block, true, "u");
  doc->set_entity_resolver(nullptr);
  auto const info = ZO_EXPECT_ERROR(
      while (doc->read_next()) { doc->read_value_into_buffer(); }, *row.code,
      std::string("[line {@line}, pos {@linePos}, uri <{@uri}>]: ") + row.message);
  EXPECT_EQ(zotest::params_of(info, "uri;line;linePos;sourcePos"),
            "uri=u;" + zotest::location_params(row.at));
  if (*row.params) {
    EXPECT_EQ(zotest::params_of(info, row.params), row.params);
  }
}

TEST(XmlReaderTest, EveryWellFormednessErrorIsLocated) {
  auto const* const r = &error::zoxml_reader;
  auto const* const t = &error::zoxml_reader_unexpected_token;
  constexpr char kBom[] =
      "Unexpected non-whitespace content in start of document (only UTF-8 BOM allowed)";
  constexpr char kOutside[] =
      "Unexpected non-whitespace content encountered outside scope of elements";
  constexpr char kToken[] = "Unexpected tokenizer token: {@token}";
  constexpr char kDecl[] = "XML declaration only allowed at start of document";
  constexpr char kElementName[] = "Invalid element name: '{@elementName}'";
  constexpr char kDuplicate[] = "Duplicate attribute name: '{@attributeName}'";
  constexpr char kNamespace[] =
      "Invalid namespace declaration: '{@attributeName}' cannot bind <{@namespaceUri}>";
  constexpr char kCharRef[] = "Invalid character reference: '{@charReference}'";
  constexpr char kEndTag[] = "Unexpected end tag: </{@elementName}>";
  ErrorRow const rows[] = {
      // Before the root element.
      {"x<a/>", r, kBom, "", "1;1;0"},
      {" \r\n<a/>", r, kBom, "", "1;2;1"},
      {"\xEF\xBB\xBF\xEF\xBB\xBF<a/>", r, kBom, "", "1;1;3"},
      {"<?xml version='1.0'?>\n \r\n<a/>", r, "Unexpected non-whitespace content encountered", "",
       "2;2;23"},
      {"<!--c-->&#65;<a/>", r, "Unexpected character reference", "", "1;9;8"},
      {"&amp;<a/>", r, "Unexpected entity reference", "", "1;1;0"},
      {"<![CDATA[x]]><a/>", r, "Unexpected CDATA section", "", "1;1;0"},
      {"</a>", r, kEndTag, "elementName=a", "1;1;0"},
      {" ", r, "Unexpected end of document; no root element", "", "1;2;1"},
      {"<!DOCTYPE a><!DOCTYPE a><a/>", t, kToken, "token=DoctypeStart", "1;13;12"},
      {" <?xml version='1.0'?><a/>", r, kDecl, "", "1;2;1"},
      // The XML declaration.
      {"<?xml encoding='UTF-8'?><a/>", r, "XML declaration must have version information", "",
       "1;7;6"},
      {"<?xml ?><a/>", r, "XML declaration must have version information", "", "1;1;0"},
      {"<?xml version='1.1'?><a/>", r, "Invalid version, expecting \"1.0\"", "", "1;7;6"},
      {"<?xml version='1.0' encoding='ISO-8859-1'?><a/>", r,
       "Mismatched encodings. Expected: {@expected} Found: {@found}",
       "expected=UTF-8;found=ISO-8859-1", "1;21;20"},
      {"<?xml version='1.0' standalone='maybe'?><a/>", r,
       "Invalid value of 'standalone' in XML declaration: \"{@attributeValue}\" expecting 'yes' or "
       "'no'",
       "attributeValue=maybe", "1;21;20"},
      {"<?xml version='1.0' standalone='no' encoding='UTF-8'?><a/>", r,
       "Unexpected attribute '{@attributeName}' in XML declaration", "attributeName=encoding",
       "1;37;36"},
      // After the root element, and markup that belongs before it.
      {"<a/>x", r, kOutside, "", "1;5;4"},
      {"<a/>\r\n x", r, kOutside, "", "2;2;7"},
      {"<a/><b/>", r, kOutside, "", "1;5;4"},
      {"<a/>&#65;", r, "Unexpected character reference outside scope of elements", "", "1;5;4"},
      {"<a/>&lt;", r, "Unexpected entity reference outside scope of elements", "", "1;5;4"},
      {"<a/><![CDATA[]]>", r, "Unexpected CDATA section outside scope of an element ", "", "1;5;4"},
      {"<a/><!DOCTYPE a>", r, "Unexpected DOCTYPE declaration outside scope of elements", "",
       "1;5;4"},
      {"<a><!DOCTYPE a></a>", t, kToken, "token=DoctypeStart", "1;4;3"},
      {"<a><?xml version='1.0'?></a>", r, kDecl, "", "1;4;3"},
      {"<a><b>\n", r,
       "Unexpected end of document; expecting closing tag for element '{@elementName}'",
       "elementName=b", "2;1;7"},
      // Start and end tags.
      {"<1a/>", r, kElementName, "elementName=1a", "1;1;0"},
      {"<a:b:c/>", r, kElementName, "elementName=a:b:c", "1;1;0"},
      {"<xmlns:a xmlns:a='u'/>", r, kElementName, "elementName=xmlns:a", "1;1;0"},
      {"<a b:='1'/>", r, "Invalid attribute name: '{@attributeName}'", "attributeName=b:", "1;4;3"},
      {"<a b='1' b='2'/>", r, kDuplicate, "attributeName=b", "1;10;9"},
      {"<a xmlns:p='u' xmlns:q='u' p:x='1' q:x='2'/>", r, kDuplicate, "attributeName=q:x", "1;1;0"},
      {"<p:a/>", r,
       "Undeclared namespace '{@namespacePrefix}' referenced by element '{@elementName}'",
       "namespacePrefix=p;elementName=p:a", "1;1;0"},
      {"<a><b p:c='1'/></a>", r,
       "Undeclared namespace '{@namespacePrefix}' referenced by attribute '{@attributeName}'",
       "namespacePrefix=p;attributeName=p:c", "1;4;3"},
      {"<a xml:space='keep'/>", r,
       "Unexpected value of 'xml:space' attribute: \"{@attributeValue}\" expecting 'preserve' or "
       "'default'",
       "attributeValue=keep", "1;4;3"},
      {"<a xmlns:p=''/>", r, kNamespace, "attributeName=xmlns:p;namespaceUri=", "1;4;3"},
      {"<a xmlns:xml='urn:x'/>", r, kNamespace, "attributeName=xmlns:xml;namespaceUri=urn:x",
       "1;4;3"},
      {"<a xmlns:xmlns='urn:x'/>", r, kNamespace, "attributeName=xmlns:xmlns", "1;4;3"},
      {"<a xmlns='http://www.w3.org/XML/1998/namespace'/>", r, kNamespace, "attributeName=xmlns",
       "1;4;3"},
      {"<a xmlns:p='http://www.w3.org/2000/xmlns/'/>", r, kNamespace, "attributeName=xmlns:p",
       "1;4;3"},
      {"<a></b>", r, "End element name mismatch: Expecting='{@expectedName}', Found='{@foundName}'",
       "expectedName=a;foundName=b", "1;4;3"},
      {"<a/></a>", r, kEndTag, "elementName=a", "1;5;4"},
      // References.
      {"<a>&foo;</a>", r,
       "Unable to resolve entity reference '{@entityReference}'; no entity resolver specified",
       "entityReference=foo", "1;4;3"},
      {"<a>&#0;</a>", r, kCharRef, "charReferece=0", "1;4;3"},
      {"<a>&#X41;</a>", r, kCharRef, "charReferece=X41", "1;4;3"},
      {"<a b='&#x;'/>", r, kCharRef, "charReferece=x", "1;7;6"},
      {"<a>&#;</a>", r, kCharRef, "charReferece=", "1;4;3"},
      {"<a>&#xD800;</a>", r, kCharRef, "charReferece=xD800", "1;4;3"},
      {"<a>&#x110000;</a>", r, kCharRef, "charReferece=x110000", "1;4;3"},
      {"<a>&#99999999999999999999;</a>", r, kCharRef, "charReferece=99999999999999999999", "1;4;3"},
  };
  for (ErrorRow const& row : rows) {
    for (std::size_t block : {std::size_t{1}, std::size_t{65536}})
      expect_error_row(row, block);
  }
  // Long attribute lists are checked once complete: located at the tag.
  std::string tag = "<a";
  for (int i = 0; i < 40; ++i)
    tag += " a" + std::to_string(i % 39) + "='1'";
  expect_error_row({tag + "/>", r, kDuplicate, "attributeName=a0", "1;1;0"}, 64);
  Doc fine(tag.substr(0, tag.rfind(" a")) + "/>");
  EXPECT_TRUE(fine->read_next());
  EXPECT_EQ(fine->node().attributes().size(), 39u);
}

TEST(XmlReaderTest, EntityResolverAnswersAreChecked) {
  Doc unknown("<a>&what;</a>");
  unknown->read_next();
  auto const info =
      ZO_EXPECT_ERROR(unknown->read_next(), error::zoxml_reader,
                      located("Unable to resolve entity reference '{@entityReference}'"));
  EXPECT_EQ(zotest::params_of(info, "entityReference"), "entityReference=what");
  Doc bad("<a b='&bad;'/>");
  ZO_EXPECT_ERROR(
      bad->read_next(), error::zoxml_reader,
      located("Replacement text of entity reference '{@entityReference}' is not UTF-8"));
}

TEST(XmlReaderTest, ValueIsReadOneWayOnly) {
  auto const at_text = [](char const* text) {
    auto doc = std::make_unique<Doc>(std::string("<a><b/>") + text + "<c/></a>", 3);
    for (int i = 0; i < 4; ++i)
      (*doc)->read_next();
    return doc;
  };
  {  // Whole, twice; then the stream is refused.
    auto doc = at_text("x&amp;y");
    EXPECT_EQ((*doc)->read_value_into_buffer(), "x&y");
    EXPECT_EQ((*doc)->read_value_into_buffer(), "x&y");
    EXPECT_EQ((*doc)->node().value(), "x&y");
    char c;
    ZO_EXPECT_ERROR(
        (*doc)->read_value(&c, 1), error::zoxml_reader,
        located("Value has already been read into a buffer, cannot read it through stream"));
  }
  {  // In pieces through the stream, white space first; skip(); then the buffer is refused.
    auto doc = at_text(" \n abcdef");
    zocore::IReadStream& stream = (*doc)->value_stream();
    EXPECT_EQ(stream.bytes_remaining(), zocore::IReadStream::kUnknownSize);
    char buffer[8] = {};
    EXPECT_EQ(stream.read(buffer, 4), 4u);
    EXPECT_EQ(std::string(buffer, 4), " \n a");
    EXPECT_EQ(stream.skip(2), 2u);
    EXPECT_EQ(stream.read(buffer, 8), 3u);
    EXPECT_EQ(std::string(buffer, 3), "def");
    EXPECT_EQ(stream.read(buffer, 8), 0u);
    ZO_EXPECT_ERROR(
        (*doc)->read_value_into_buffer(), error::zoxml_reader,
        located("Value has already been read through stream, cannot create value buffer"));
  }
  {  // Discarded; neither way reads it after that.
    auto doc = at_text("xyz");
    (*doc)->discard_chardata();
    EXPECT_EQ((*doc)->node().value(), "");
    ZO_EXPECT_ERROR((*doc)->read_value_into_buffer(), error::zoxml_reader,
                    located("Value has already been read, cannot create value buffer"));
    auto other = at_text("xyz");
    (*other)->discard_chardata();
    char c;
    ZO_EXPECT_ERROR((*other)->read_value(&c, 1), error::zoxml_reader,
                    located("Value has been discarded, cannot read it through stream"));
    ZO_EXPECT_ERROR((*other)->read_next(), error::zoxml_reader,
                    located("Cannot continue after error"));
    ZO_EXPECT_ERROR((*other)->read_value_into_buffer(), error::zoxml_reader,
                    located("Value cannot be read after a parse error"));
    ZO_EXPECT_ERROR((*other)->read_value(&c, 1), error::zoxml_reader,
                    located("Value cannot be read after a parse error"));
    ZO_EXPECT_ERROR((*other)->discard_chardata(), error::zoxml_reader,
                    located("Value cannot be read after a parse error"));
  }
  {  // Unread values are skipped; other nodes have no value.
    auto doc = at_text("unread");
    EXPECT_TRUE((*doc)->read_next());
    EXPECT_EQ((*doc)->node().local_name(), "c");
    EXPECT_EQ((*doc)->read_value_into_buffer(), "");
    char c;
    EXPECT_EQ((*doc)->read_value(&c, 1), 0u);
    (*doc)->discard_chardata();
    EXPECT_EQ((*doc)->depth(), 2u);
    EXPECT_EQ((*doc)->element(0).qname(), "a");
    EXPECT_EQ((*doc)->element(1).local_name(), "c");
  }
}

// The limit holds for every way a value grows: text, CDATA, references, attribute values, and
// white space read ahead; values read through the stream or skipped are not held.
TEST(XmlReaderTest, ValuesHeldWholeAreBounded) {
  constexpr char kSize[] =
      "[line {@line}, pos {@linePos}]: Node value exceeds {@maxSize}bytes of character data";
  for (std::string const text :
       {"123456789", "1234<![CDATA[56789]]>", "12345678&amp;", "         x", "         "}) {
    for (std::size_t block : {std::size_t{4}, XmlReader::kDefaultBlockSize}) {
      Doc doc("<a>" + text + "</a>", block);
      zoxml::XmlReaderTestPeer::set_max_value(*doc, 8);
      doc->read_next();
      auto const info =
          ZO_EXPECT_ERROR(doc->read_next(); doc->read_value_into_buffer(),
                                            error::zoxml_reader_unexpected_size, kSize);
      EXPECT_EQ(zotest::params_of(info, "maxSize"), "maxSize=8");
    }
  }
  Doc attribute("<a b='123456789'/>");
  zoxml::XmlReaderTestPeer::set_max_value(*attribute, 8);
  ZO_EXPECT_ERROR(attribute->read_next(), error::zoxml_reader_unexpected_size, kSize);
  Doc fits("<a b='12345678'>12345678</a><!-- 123456789 -->");
  zoxml::XmlReaderTestPeer::set_max_value(*fits, 8);
  EXPECT_EQ(zotest::trace(*fits), "<a b=\"12345678\">\"12345678\"</a>");
  std::string const long_text(100, 'x');
  Doc streamed("<a>" + long_text + "</a>");
  zoxml::XmlReaderTestPeer::set_max_value(*streamed, 8);
  EXPECT_EQ(zotest::trace(*streamed, 7), "<a>\"" + long_text + "\"</a>");
  Doc skipped("<r><a>" + long_text + "</a></r>");
  zoxml::XmlReaderTestPeer::set_max_value(*skipped, 8);
  for (int i = 0; i < 3; ++i)
    skipped->read_next();
  EXPECT_EQ(zotest::trace(*skipped), "</a></r>");
}

// The document "<a>", n times 'x', "</a>", made on the fly.
class LongTextSource final : public zocore::RefCounted<zocore::AtomicRefCount>,
                             public zocore::IReadStream {
 public:
  explicit LongTextSource(std::uint64_t n) : n_(n) {}
  unsigned read(void* buffer, unsigned size) override {
    auto* out = static_cast<char*>(buffer);
    unsigned done = 0;
    std::uint64_t const total = n_ + 7;
    while (done < size && pos_ < total) {
      if (pos_ < 3 || pos_ >= n_ + 3) {
        out[done++] = "<a></a>"[pos_ < 3 ? pos_ : pos_ - n_];
        ++pos_;
        continue;
      }
      auto const run = static_cast<unsigned>(std::min<std::uint64_t>(size - done, n_ + 3 - pos_));
      std::memset(out + done, 'x', run);
      done += run;
      pos_ += run;
    }
    return done;
  }
  unsigned skip(unsigned) override { return 0; }
  unsigned bytes_remaining() const override { return kUnknownSize; }

 private:
  std::uint64_t n_;
  std::uint64_t pos_ = 0;
};

TEST(XmlReaderTest, AValueOfExactlyTheLimitIsAcceptedAndOneByteMoreIsNot) {
  for (std::size_t const extra : {0, 1}) {
    LongTextSource source(XmlReader::kMaxValueSize + extra);
    XmlReader parser(source, "", 1 << 20);
    parser.read_next();
    parser.read_next();
    if (extra == 0) {
      EXPECT_EQ(parser.read_value_into_buffer().size(), XmlReader::kMaxValueSize);
      EXPECT_TRUE(parser.read_next());
      EXPECT_FALSE(parser.read_next());
    } else {
      auto const info =
          ZO_EXPECT_ERROR(parser.read_value_into_buffer(), error::zoxml_reader_unexpected_size,
                          "[line {@line}, pos {@linePos}]: Node value exceeds "
                          "{@maxSize}bytes of character data");
      EXPECT_EQ(zotest::params_of(info, "maxSize"), "maxSize=134217728");
    }
  }
}

TEST(XmlReaderTest, LifecycleAndExpectations) {
  Doc doc("<a xmlns='urn:a'><b/></a>");
  EXPECT_EQ(doc->node().kind(), EToken::DocumentStart);
  ASSERT_TRUE(doc->read_next());
  doc->expect_token(EToken::StartTagStart);
  doc->expect_element("a", "urn:a");
  EXPECT_TRUE(doc->read_next() && doc->read_next() && doc->read_next());
  EXPECT_FALSE(doc->read_next());
  EXPECT_EQ(doc->node().kind(), EToken::DocumentEnd);
  ZO_EXPECT_ERROR(doc->read_next(), error::zoxml_reader, located("Read past end"));
  ZO_EXPECT_ERROR(doc->read_next(), error::zoxml_reader, located("Cannot continue after error"));

  Doc broken("<a/>");
  zoxml::XmlReaderTestPeer::break_state(*broken);
  ZO_EXPECT_ERROR(broken->read_next(), error::zoxml_reader, located("Invalid parser state"));

  auto const expect_failure = [&](auto const& call, zocore::ErrorCode const& code, char const* text,
                                  char const* params) {
    Doc d("<p:a xmlns:p='urn:p'/>");
    d->read_next();
    auto const info = ZO_EXPECT_ERROR(call(*d), code, located(text));
    EXPECT_EQ(zotest::params_of(info, params), params);
    ZO_EXPECT_ERROR(d->read_next(), error::zoxml_reader, located("Cannot continue after error"));
  };
  expect_failure(
      [](XmlReader& p) { p.expect_element("b", "urn:p"); }, error::zoxml_reader_unexpected_element,
      "Unexpected element: Name='{@name}', Namespace=<{@namespace}>.  "
      "ExpectedLocalName='{@expectedLocalName}', ExpectedNamespace=<{@expectedNamespace}>",
      "name=a;namespace=urn:p;expectedLocalName=b;expectedNamespace=urn:p");
  expect_failure(
      [](XmlReader& p) { p.expect_element("a", ""); }, error::zoxml_reader_unexpected_element,
      "Unexpected element: Name='{@name}', Namespace=<{@namespace}>.  "
      "ExpectedLocalName='{@expectedLocalName}', ExpectedNamespace=<{@expectedNamespace}>",
      "expectedNamespace=");
  expect_failure(
      [](XmlReader& p) { p.throw_unexpected_element(); }, error::zoxml_reader_unexpected_element,
      "Unexpected element: Name='{@name}', Namespace=<{@namespace}>", "name=a;namespace=urn:p");
  expect_failure([](XmlReader& p) { p.expect_token(EToken::CharData); },
                 error::zoxml_reader_unexpected_token, "Unexpected tokenizer token: {@token}",
                 "token=StartTagStart");
  expect_failure([](XmlReader& p) { p.read_next(), p.expect_element("a", "urn:p"); },
                 error::zoxml_reader_unexpected_token, "Unexpected tokenizer token: {@token}",
                 "token=EndTag");
}

// Cut anywhere before its end, a document fails with a located parser error, from either kind
// of input and with any block size.
TEST(XmlReaderTest, EveryTruncationFailsCleanly) {
  std::string const text =
      "\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?>\r\n<!DOCTYPE s [<!ELEMENT s ANY>]>"
      "<!--c--><?p x?>\n<s xmlns='urn:s' xmlns:p='urn:p'>\r\n <Sequence count=\"2\"><Item><Int>-5"
      "</Int></Item><Item><String>a&lt;b&#x20AC;<![CDATA[]]>]]></String></Item></Sequence>"
      "<p:Marker p:x='\t1'><Binary encoding=\"base64\">AAEC</Binary><Null/></p:Marker>"
      "<e>\xE2\x82\xAC</e></s>";
  for (std::size_t cut = 0; cut < text.size(); ++cut) {
    for (std::size_t block : {std::size_t{1}, std::size_t{4096}}) {
      SCOPED_TRACE(::testing::Message() << "cut at " << cut << ", block " << block);
      Doc doc(text.substr(0, cut), block, block == 1);
      try {
        while (doc->read_next()) {
          if (doc->node().kind() == EToken::CharData) doc->read_value_into_buffer();
        }
        ADD_FAILURE() << "a truncated document was read to its end";
      } catch (zocore::ErrorException const& e) {
        EXPECT_TRUE(e.info()->code().is_a(error::zoxml)) << e.what();
        EXPECT_TRUE(e.info()->message().view().starts_with("[line {@line}, pos {@linePos}]: "));
        EXPECT_LE(std::stoull(zotest::param(e.info(), "sourcePos")), cut);
      }
    }
  }
}

}  // namespace
