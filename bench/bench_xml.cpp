// The XML archives next to libxml2 on the same records: XmlWriter into a std::string (through an
// ostream) and XmlReader from it, against libxml2's xmlTextWriter into an xmlBuffer and its
// xmlTextReader over the document in memory. Both documents have the same shape and element names
// (XmlWriter's vocabulary, without layout white space): a Sequence of Items, each a Marker with
// Int, Bool, Double, String, a Sequence of tags, a base64 Binary and a nested Marker. Both sides
// decode every field into the same typed variables.
//
// Every decode benchmark first decodes once and compares the result with the generated data;
// a mismatch reports the benchmark as failed instead of timing a broken decoder.

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>
#include <libxml/xmlreader.h>
#include <libxml/xmlwriter.h>

#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/xml_reader.h>
#include <zoserialize/xml_writer.h>

#include "records_bench.h"

namespace zobench {
namespace {

using zoserialize::XmlReader;
using zoserialize::XmlWriter;

// ---- XmlWriter / XmlReader ----------------------------------------------------------------------

// A stream buffer that appends to a string, as a caller writing into memory would use.
class StringBuf final : public std::streambuf {
 public:
  explicit StringBuf(std::string& out) : out_(out) {}

 protected:
  std::streamsize xsputn(char const* s, std::streamsize n) override {
    out_.append(s, static_cast<std::size_t>(n));
    return n;
  }
  int_type overflow(int_type c) override {
    if (!traits_type::eq_int_type(c, traits_type::eof()))
      out_.push_back(traits_type::to_char_type(c));
    return traits_type::not_eof(c);
  }

 private:
  std::string& out_;
};

void write_xml(std::string& out, std::span<Record const> records) {
  StringBuf buf(out);
  std::ostream os(&buf);
  XmlWriter writer(os, "", "");
  write_records(writer, records);
  writer.close();
}

std::string encode_xml(std::span<Record const> records) {
  std::string out;
  write_xml(out, records);
  return out;
}

void BM_RecordsEncode_Xml(benchmark::State& state) {
  std::vector<Record> const& records = standard_records();
  std::size_t const encoded = encode_xml(records).size();
  std::string out;
  out.reserve(encoded);
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    out.clear();
    write_xml(out, records);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  set_records_counters(state, records.size(), encoded);
}
BENCHMARK(BM_RecordsEncode_Xml);

void BM_RecordsDecode_Xml(benchmark::State& state) {
  std::string const text = encode_xml(standard_records());
  run_records_decode(state, text.size(), [&](Record& scratch, auto&& on_record) {
    XmlReader reader(zocore::InterfacePtr<zocore::IReadStream>(
        zocore::make_ref_counted<zocore::MemoryReadStream>(text)));
    return read_records(reader, scratch, on_record);
  });
}
BENCHMARK(BM_RecordsDecode_Xml);

// ---- libxml2 ------------------------------------------------------------------------------------

auto const* x(char const* s) noexcept {
  return reinterpret_cast<xmlChar const*>(s);
}

template <class T>
void number(xmlTextWriterPtr w, char const* name, T value) {
  char text[32];
  char* const end = std::to_chars(text, text + sizeof text - 1, value).ptr;
  *end = 0;
  xmlTextWriterStartElement(w, x(name));
  xmlTextWriterWriteRawLen(w, x(text), static_cast<int>(end - text));
  xmlTextWriterEndElement(w);
}

void string_element(xmlTextWriterPtr w, std::string const& s) {
  xmlTextWriterStartElement(w, x("String"));
  if (!s.empty()) xmlTextWriterWriteString(w, x(s.c_str()));
  xmlTextWriterEndElement(w);
}

void write_libxml2(xmlBufferPtr buffer, std::span<Record const> records) {
  xmlTextWriterPtr const w = xmlNewTextWriterMemory(buffer, 0);
  xmlTextWriterStartElementNS(w, nullptr, x("Serialized"), x(XmlWriter::kNamespace));
  char count[16];
  xmlTextWriterStartElement(w, x("Sequence"));
  *std::to_chars(count, count + 15, records.size()).ptr = 0;
  xmlTextWriterWriteAttribute(w, x("count"), x(count));
  for (Record const& r : records) {
    xmlTextWriterStartElement(w, x("Item"));
    xmlTextWriterStartElement(w, x("Marker"));
    number(w, "Int", r.id);
    xmlTextWriterWriteElement(w, x("Bool"), x(r.flag ? "true" : "false"));
    number(w, "Double", r.score);
    string_element(w, r.name);
    xmlTextWriterStartElement(w, x("Sequence"));
    if (!r.tags.empty()) {
      *std::to_chars(count, count + 15, r.tags.size()).ptr = 0;
      xmlTextWriterWriteAttribute(w, x("count"), x(count));
    }
    for (std::string const& tag : r.tags) {
      xmlTextWriterStartElement(w, x("Item"));
      string_element(w, tag);
      xmlTextWriterEndElement(w);
    }
    xmlTextWriterFullEndElement(w);
    xmlTextWriterStartElement(w, x("Binary"));
    xmlTextWriterWriteAttribute(w, x("encoding"), x("base64"));
    xmlTextWriterWriteBase64(w, r.blob.data(), 0, static_cast<int>(r.blob.size()));
    xmlTextWriterEndElement(w);
    xmlTextWriterStartElement(w, x("Marker"));
    number(w, "Int", r.nested.a);
    number(w, "Int", r.nested.b);
    string_element(w, r.nested.label);
    xmlTextWriterEndElement(w);
    xmlTextWriterEndElement(w);
    xmlTextWriterEndElement(w);
  }
  xmlTextWriterEndElement(w);
  xmlTextWriterEndElement(w);
  xmlTextWriterFlush(w);
  xmlFreeTextWriter(w);
}

std::string encode_libxml2(std::span<Record const> records) {
  xmlBufferPtr const buffer = xmlBufferCreate();
  write_libxml2(buffer, records);
  std::string out(reinterpret_cast<char const*>(xmlBufferContent(buffer)),
                  static_cast<std::size_t>(xmlBufferLength(buffer)));
  xmlBufferFree(buffer);
  return out;
}

void BM_RecordsEncode_Libxml2(benchmark::State& state) {
  std::vector<Record> const& records = standard_records();
  std::size_t const encoded = encode_libxml2(records).size();
  xmlBufferPtr const buffer = xmlBufferCreateSize(encoded + 1);
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores): the loop idiom
    xmlBufferEmpty(buffer);
    write_libxml2(buffer, records);
    benchmark::DoNotOptimize(xmlBufferContent(buffer));
    benchmark::ClobberMemory();
  }
  xmlBufferFree(buffer);
  set_records_counters(state, records.size(), encoded);
}
BENCHMARK(BM_RecordsEncode_Libxml2);

constexpr std::array<std::uint8_t, 256> kBase64Values = [] {
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<std::uint8_t, 256> t{};
  t.fill(0xFF);
  for (unsigned i = 0; i < 64; ++i)
    t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  return t;
}();

// Padded base64 into a reused vector, skipping the line breaks that xmlTextWriterWriteBase64
// puts after every 72 characters; false on anything else.
bool decode_base64(std::string_view text, std::vector<char>& out) {
  out.clear();
  std::uint32_t v = 0;
  unsigned sextets = 0;
  unsigned pad = 0;
  for (char const c : text) {
    if (c == '\n' || c == '\r') continue;
    std::uint8_t d = 0;
    if (c == '=') {
      ++pad;
    } else {
      d = kBase64Values[static_cast<unsigned char>(c)];
      if (d == 0xFF || pad != 0) return false;
    }
    v = v << 6 | d;
    if (++sextets == 4) {
      char const group[3] = {static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                             static_cast<char>(v)};
      out.insert(out.end(), group, group + 3 - pad);
      sextets = 0;
      v = 0;
    }
  }
  return sextets == 0;
}

// The records read back with xmlTextReader, the way a caller walks it: start tags checked by
// local name, the text of each value element gathered and converted.
class Libxml2Records {
 public:
  Libxml2Records(std::string const& text)
      : reader_(
            xmlReaderForMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, 0)) {}
  ~Libxml2Records() { xmlFreeTextReader(reader_); }
  Libxml2Records(Libxml2Records const&) = delete;
  Libxml2Records& operator=(Libxml2Records const&) = delete;

  template <class F>
  std::size_t read(Record& r, F&& on_record) {
    if (!start("Serialized") || !start("Sequence")) return 0;
    std::size_t n = 0;
    while (next_item()) {
      if (!start("Marker") || !integer("Int", r.id) || !text("Bool")) return 0;
      r.flag = text_ == "true";
      if (!text("Double")) return 0;
      std::from_chars(text_.data(), text_.data() + text_.size(), r.score);
      if (!text("String")) return 0;
      r.name = text_;
      if (!start("Sequence")) return 0;
      std::size_t tags = 0;
      while (next_item()) {
        if (!text("String")) return 0;
        if (tags == r.tags.size()) r.tags.emplace_back();
        r.tags[tags++] = text_;
        if (!end()) return 0;  // </Item>
      }
      r.tags.resize(tags);
      if (!text("Binary") || !decode_base64(text_, r.blob)) return 0;
      if (!start("Marker") || !integer("Int", r.nested.a) || !integer("Int", r.nested.b) ||
          !text("String")) {
        return 0;
      }
      r.nested.label = text_;
      if (!end() || !end() || !end()) return 0;  // </Marker></Marker></Item>
      on_record(static_cast<Record const&>(r));
      ++n;
    }
    return n;
  }

 private:
  int type() { return xmlTextReaderNodeType(reader_); }
  bool named(char const* name) {
    return std::strcmp(reinterpret_cast<char const*>(xmlTextReaderConstLocalName(reader_)), name) ==
           0;
  }
  // Moves to the next node that is not white space between elements.
  bool next() {
    while (xmlTextReaderRead(reader_) == 1) {
      int const t = type();
      if (t != XML_READER_TYPE_SIGNIFICANT_WHITESPACE && t != XML_READER_TYPE_WHITESPACE &&
          t != XML_READER_TYPE_COMMENT) {
        return true;
      }
    }
    return false;
  }
  bool start(char const* name) {
    return next() && type() == XML_READER_TYPE_ELEMENT && named(name);
  }
  bool end() { return next() && type() == XML_READER_TYPE_END_ELEMENT; }
  // The next element of a sequence: true at an Item start tag, false at the sequence's end (an
  // empty sequence has no end tag of its own).
  bool next_item() {
    if (type() == XML_READER_TYPE_ELEMENT && named("Sequence") &&
        xmlTextReaderIsEmptyElement(reader_) != 0) {
      return false;
    }
    return next() && type() == XML_READER_TYPE_ELEMENT && named("Item");
  }
  // The text of the next element, which must be `name`, in text_.
  bool text(char const* name) {
    if (!start(name)) return false;
    text_.clear();
    if (xmlTextReaderIsEmptyElement(reader_) != 0) return true;
    while (xmlTextReaderRead(reader_) == 1) {
      int const t = type();
      if (t == XML_READER_TYPE_END_ELEMENT) return true;
      if (t == XML_READER_TYPE_TEXT || t == XML_READER_TYPE_CDATA ||
          t == XML_READER_TYPE_SIGNIFICANT_WHITESPACE) {
        text_ += reinterpret_cast<char const*>(xmlTextReaderConstValue(reader_));
      }
    }
    return false;
  }
  template <class T>
  bool integer(char const* name, T& out) {
    return text(name) &&
           std::from_chars(text_.data(), text_.data() + text_.size(), out).ec == std::errc();
  }

  xmlTextReaderPtr reader_;
  std::string text_;
};

void BM_RecordsDecode_Libxml2(benchmark::State& state) {
  std::string const text = encode_libxml2(standard_records());
  run_records_decode(state, text.size(), [&](Record& scratch, auto&& on_record) {
    Libxml2Records reader(text);
    return reader.read(scratch, on_record);
  });
}
BENCHMARK(BM_RecordsDecode_Libxml2);

}  // namespace
}  // namespace zobench

BENCHMARK_MAIN();
