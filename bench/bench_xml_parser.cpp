// The XML pull parser (zoxml::XmlReader) beside libxml2's xmlTextReader and expat, on the same
// bytes: a ~20 MB document in the shape the XML archive writes (the records workload, rendered
// with the layout of an XmlWriter indenting by two spaces) and a ~20 MB text-heavy document.
//
// Each parser visits every node and every value: element names and namespaces, attribute values,
// and all character data (white space between elements included). Before timing, the three must
// agree on the number of elements and on the bytes of character data; a parser that does not is
// reported as failed instead of timed. Arg 0 is the records document, 1 the text document.

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>
#include <expat.h>
#include <libxml/xmlreader.h>

#include <zocore/base64.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoxml/reader.h>

#include "records.h"

namespace zobench {
namespace {

constexpr std::size_t kTargetSize = 20'000'000;

// ---- Documents ---------------------------------------------------------------------------------

// Just enough of the XML archive's rendering for the records: layout "\n" plus two spaces per
// level before every tag that starts a line, minimal integers (decimal up to three significant
// bytes, hex beyond), doubles in the shortened "%.18E" form, the string rule (base64 for control
// characters, CDATA for long strings or leading / trailing spaces, escaped text otherwise).
class ArchiveShape {
 public:
  std::string text = "<Serialized xmlns=\"http://schemas.zoserialize.org/tav/serialization\">";

  void open(char const* tag, std::string const& attributes = {}) {
    line();
    text += "<" + std::string(tag) + attributes + ">";
    ++depth_;
  }
  void close(char const* tag) {
    --depth_;
    line();
    text += "</" + std::string(tag) + ">";
  }
  void value(char const* tag, std::string_view content, std::string const& attributes = {}) {
    line();
    text += "<" + std::string(tag) + attributes + ">";
    text += content;
    text += "</" + std::string(tag) + ">";
  }
  void integer(std::int64_t v) {
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i)
      bytes[i] = static_cast<unsigned char>(static_cast<std::uint64_t>(v) >> (56 - 8 * i));
    unsigned char const sign = v < 0 ? 0xFF : 0x00;
    int first = 0;
    while (first < 8 && bytes[first] == sign)
      ++first;
    if (first == 8 || ((bytes[first] & 0x80) != (sign & 0x80))) --first;
    if (first < 0) first = 0;
    if (8 - first <= 3) return value("Int", std::to_string(v));
    std::string hex = "0x";
    char digits[3];
    for (int i = first; i < 8; ++i) {
      std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
      hex += digits;
    }
    value("Int", hex);
  }
  void real(double v) {
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%.18E", v);
    std::string s = buffer;
    std::size_t const e = s.find('E');
    std::string mantissa = s.substr(0, e);
    while (mantissa.back() == '0')
      mantissa.pop_back();
    if (mantissa.back() == '.') mantissa.pop_back();
    bool const negative = s[e + 1] == '-';
    std::string exponent = s.substr(e + 2);
    exponent.erase(0, std::min(exponent.find_first_not_of('0'), exponent.size()));
    if (!exponent.empty()) mantissa += "E" + std::string(negative ? "-" : "") + exponent;
    value("Double", mantissa);
  }
  void string(std::string const& s) {
    if (s.empty()) {
      line();
      text += "<String/>";
    } else if (std::any_of(s.begin(), s.end(),
                           [](char c) { return static_cast<unsigned char>(c) < 0x20; })) {
      value("String", zocore::base64_encode(s.data(), s.size()), " encoding=\"base64\"");
    } else if (s.size() >= 512 || s.front() == ' ' || s.back() == ' ') {
      value("String", "<![CDATA[" + s + "]]>");
    } else {
      std::string escaped;
      for (char const c : s) {
        escaped += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
      }
      value("String", escaped);
    }
  }
  void end() {
    depth_ = 0;
    line();
    text += "</Serialized>";
  }

 private:
  void line() {
    text += '\n';
    text.append(2 * static_cast<std::size_t>(depth_), ' ');
  }
  int depth_ = 1;
};

void render_record(ArchiveShape& out, Record const& r) {
  out.open("Marker");
  out.integer(r.id);
  out.value("Bool", r.flag ? "true" : "false");
  out.real(r.score);
  out.string(r.name);
  if (r.tags.empty()) {
    out.open("Sequence");
  } else {
    out.open("Sequence", " count=\"" + std::to_string(r.tags.size()) + "\"");
  }
  for (std::string const& tag : r.tags) {
    out.open("Item");
    out.string(tag);
    out.close("Item");
  }
  out.close("Sequence");
  out.value("Binary", zocore::base64_encode(r.blob.data(), r.blob.size()), " encoding=\"base64\"");
  out.open("Marker");
  out.integer(r.nested.a);
  out.integer(r.nested.b);
  out.string(r.nested.label);
  out.close("Marker");
  out.close("Marker");
}

std::string const& records_document() {
  static std::string const document = [] {
    ArchiveShape probe;
    for (Record const& r : generate_records(1000, kRecordSeed))
      render_record(probe, r);
    std::size_t const n = kTargetSize * 1000 / probe.text.size() + 1;
    std::vector<Record> const records = generate_records(n, kRecordSeed);
    ArchiveShape out;
    out.open("Sequence", " count=\"" + std::to_string(n) + "\"");
    for (std::size_t i = 0; i < n; ++i) {
      out.open("Item");
      render_record(out, records[i]);
      out.close("Item");
    }
    out.close("Sequence");
    out.end();
    return out.text;
  }();
  return document;
}

// Paragraphs of 1-4 KB of words (some non-ASCII, some references), in lines of about 70
// characters, with now and then an inline element.
std::string const& text_document() {
  static std::string const document = [] {
    static char const* const kWords[] = {"the",
                                         "parser",
                                         "reads",
                                         "streams",
                                         "of",
                                         "text",
                                         "caf\xC3\xA9",
                                         "na\xC3\xAFve",
                                         "&amp;",
                                         "values",
                                         "&lt;tag&gt;",
                                         "in",
                                         "blocks",
                                         "\xE2\x80\x94",
                                         "and",
                                         "&#x20AC;5",
                                         "without",
                                         "holding",
                                         "them",
                                         "whole",
                                         "stra\xC3\x9F\x65",
                                         "\xE6\x97\xA5\xE6\x9C\xAC"};
    std::uint64_t state = kRecordSeed;
    auto const next = [&state] {
      state = state * 6364136223846793005ull + 1442695040888963407ull;
      return static_cast<unsigned>(state >> 33);
    };
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<doc xmlns=\"urn:text\">\n";
    for (unsigned p = 0; out.size() < kTargetSize; ++p) {
      out += "<p id=\"p" + std::to_string(p) + "\" lang=\"en\">";
      std::size_t const size = 1000 + next() % 3000;
      std::size_t line = 0;
      for (std::size_t start = out.size(); out.size() - start < size;) {
        if (next() % 64 == 0) {
          out += "<em>";
          out += kWords[next() % std::size(kWords)];
          out += "</em> ";
          continue;
        }
        std::string_view const word = kWords[next() % std::size(kWords)];
        out += word;
        line += word.size() + 1;
        if (line > 70) {
          out += '\n';
          line = 0;
        } else {
          out += ' ';
        }
      }
      out += "</p>\n";
    }
    out += "</doc>\n";
    return out;
  }();
  return document;
}

std::string const& document(benchmark::State const& state) {
  return state.range(0) == 0 ? records_document() : text_document();
}

// What a parser saw: every visit folds into it.
struct Visit {
  std::uint64_t elements = 0;
  std::uint64_t text_bytes = 0;
  std::uint64_t other = 0;  // names, namespaces, attribute values

  bool operator==(Visit const& o) const noexcept {
    return elements == o.elements && text_bytes == o.text_bytes;
  }
};

// ---- Parsers
// -------------------------------------------------------------------------------------

Visit parse_zoxml(std::string const& doc) {
  zocore::MemoryReadStream in(doc);
  zoxml::XmlReader parser(in);
  Visit v;
  while (parser.read_next()) {
    zoxml::XmlReader::Node const& node = parser.node();
    switch (node.kind()) {
      case zoxml::EToken::StartTagStart:
        ++v.elements;
        v.other += node.local_name().size() + node.namespace_uri().size();
        for (auto const& a : node.attributes())
          v.other += a.local_name().size() + a.value().size();
        break;
      case zoxml::EToken::CharData:
        v.text_bytes += parser.read_value_into_buffer().size();
        break;
      default:
        v.other += node.local_name().size();
        break;
    }
  }
  return v;
}

Visit parse_libxml2(std::string const& doc) {
  xmlTextReaderPtr reader =
      xmlReaderForMemory(doc.data(), static_cast<int>(doc.size()), nullptr, nullptr, 0);
  Visit v;
  while (xmlTextReaderRead(reader) == 1) {
    switch (xmlTextReaderNodeType(reader)) {
      case XML_READER_TYPE_ELEMENT: {
        ++v.elements;
        xmlChar const* const name = xmlTextReaderConstLocalName(reader);
        xmlChar const* const ns = xmlTextReaderConstNamespaceUri(reader);
        v.other += std::strlen(reinterpret_cast<char const*>(name));
        if (ns) v.other += std::strlen(reinterpret_cast<char const*>(ns));
        while (xmlTextReaderMoveToNextAttribute(reader) == 1) {
          v.other +=
              std::strlen(reinterpret_cast<char const*>(xmlTextReaderConstLocalName(reader)));
          v.other += std::strlen(reinterpret_cast<char const*>(xmlTextReaderConstValue(reader)));
        }
        break;
      }
      case XML_READER_TYPE_TEXT:
      case XML_READER_TYPE_CDATA:
      case XML_READER_TYPE_WHITESPACE:
      case XML_READER_TYPE_SIGNIFICANT_WHITESPACE:
        v.text_bytes += std::strlen(reinterpret_cast<char const*>(xmlTextReaderConstValue(reader)));
        break;
      case XML_READER_TYPE_END_ELEMENT:
        v.other += std::strlen(reinterpret_cast<char const*>(xmlTextReaderConstLocalName(reader)));
        break;
      default:
        break;
    }
  }
  xmlFreeTextReader(reader);
  return v;
}

Visit parse_expat(std::string const& doc) {
  XML_Parser parser = XML_ParserCreateNS(nullptr, ' ');
  Visit v;
  XML_SetUserData(parser, &v);
  XML_SetElementHandler(
      parser,
      [](void* data, XML_Char const* name, XML_Char const** attributes) {
        auto& visit = *static_cast<Visit*>(data);
        ++visit.elements;
        visit.other += std::strlen(name);
        for (; *attributes; attributes += 2)
          visit.other += std::strlen(attributes[0]) + std::strlen(attributes[1]);
      },
      [](void* data, XML_Char const* name) {
        static_cast<Visit*>(data)->other += std::strlen(name);
      });
  XML_SetCharacterDataHandler(parser, [](void* data, XML_Char const*, int length) {
    static_cast<Visit*>(data)->text_bytes += static_cast<std::uint64_t>(length);
  });
  if (XML_Parse(parser, doc.data(), static_cast<int>(doc.size()), XML_TRUE) != XML_STATUS_OK) {
    v.elements = 0;
  }
  XML_ParserFree(parser);
  return v;
}

template <Visit (*Parse)(std::string const&)>
void run_parse(benchmark::State& state) {
  std::string const& doc = document(state);
  state.SetLabel(state.range(0) == 0 ? "records" : "text");
  Visit const reference = parse_zoxml(doc);
  Visit const mine = Parse(doc);
  if (!(mine == reference) || reference.elements == 0) {
    state.SkipWithError("the parsers disagree on the elements or the character data");
    return;
  }
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    Visit const v = Parse(doc);
    benchmark::DoNotOptimize(v.elements + v.text_bytes + v.other);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(doc.size()));
  state.counters["document_bytes"] = static_cast<double>(doc.size());
  state.counters["elements"] = static_cast<double>(reference.elements);
}

void BM_XmlParse_Zoxml(benchmark::State& state) {
  run_parse<parse_zoxml>(state);
}
void BM_XmlParse_LibxmlTextReader(benchmark::State& state) {
  run_parse<parse_libxml2>(state);
}
void BM_XmlParse_Expat(benchmark::State& state) {
  run_parse<parse_expat>(state);
}
BENCHMARK(BM_XmlParse_Zoxml)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_XmlParse_LibxmlTextReader)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_XmlParse_Expat)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zobench
BENCHMARK_MAIN();
