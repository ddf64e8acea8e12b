// Writes a small object graph (a library catalogue) through the abstract Writer into the binary
// encoding, prints the encoded bytes, then walks them back with a BinaryReader, printing every
// token it meets, and finally reads the catalogue back into objects and checks the round trip.
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zocore/streamers.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>

namespace {

using zoserialize::Reader;
using zoserialize::Writer;

struct Author {
  std::string name;
  std::int32_t born = 0;
};

struct Book {
  std::int64_t id = 0;
  std::string title;
  std::vector<Author> authors;
  zocore::AbsoluteTime added;
  zocore::Uuid isbn_key;
  double rating = 0.0;
  bool on_loan = false;
  std::string cover;  // raw bytes
};

// Each book is a marker, so that a reader of an older layout could skip fields appended later.
void write_book(Writer& w, Book const& b) {
  zoserialize::WriteMarker marker(w);
  w << b.id << b.title;
  w.write_sequence_start(static_cast<unsigned>(b.authors.size()));
  for (std::size_t i = 0; i < b.authors.size(); ++i) {
    if (i != 0) w.write_sequence_separator();
    zoserialize::WriteMarker author(w);
    w << b.authors[i].name << b.authors[i].born;
  }
  w.write_sequence_end();
  w << b.added << b.isbn_key << b.rating << b.on_loan;
  w.write_binary(b.cover.data(), static_cast<unsigned>(b.cover.size()));
}

Book read_book(Reader& r) {
  Book b;
  zoserialize::ReadMarker marker(r);
  r >> b.id >> b.title;
  r.read_sequence_start();
  while (r.read_sequence_next()) {
    zoserialize::ReadMarker author(r);
    Author a;
    r >> a.name >> a.born;
    b.authors.push_back(a);
  }
  r >> b.added >> b.isbn_key >> b.rating >> b.on_loan;
  auto cover = r.read_binary();
  char buf[256];
  for (unsigned n; (n = cover->read(buf, sizeof buf)) != 0;)
    b.cover.append(buf, n);
  return b;
}

std::vector<Book> sample_catalogue() {
  zocore::AbsoluteTime added;
  zocore::AbsoluteTime::from_string_nothrow("2026-11-21 09:30:00", &added);
  return {
      {1001,
       "The Art of Serialization",
       {{"Ada Byte", 1971}, {"Bo Endian", 1984}},
       added,
       zocore::Uuid::from_string("6f1c2e4a-9b3d-4c8e-a1f0-27d5e8b9c3a4", 36),
       4.5,
       false,
       std::string("\x89PNG\r\n\x1a\n", 8)},
      {1002,
       "Streams, Chunks and Markers",
       {{"Cy Stream", -44}},
       added,
       zocore::Uuid(),
       3.75,
       true,
       std::string()},
  };
}

// Prints one element and everything inside it, one token per line, indented by nesting.
void print_element(Reader& r, int depth) {
  std::string const indent(static_cast<std::size_t>(depth) * 2, ' ');
  Reader::EToken const t = r.next_token();
  std::cout << indent << t;
  switch (t) {
    case Reader::EToken::SignedInteger:
      std::cout << " " << r.read_int64() << "\n";
      return;
    case Reader::EToken::UnsignedInteger:
      std::cout << " " << r.read_uint64() << "\n";
      return;
    case Reader::EToken::String:
      std::cout << " \"" << r.read_string() << "\"\n";
      return;
    case Reader::EToken::Double:
      std::cout << " " << r.read_double() << "\n";
      return;
    case Reader::EToken::Boolean:
      std::cout << " " << zocore::streamers::Boolean{r.read_bool()} << "\n";
      return;
    case Reader::EToken::AbsoluteTime:
      std::cout << " " << r.read_absolute_time().as_string() << "\n";
      return;
    case Reader::EToken::Uuid:
      std::cout << " " << r.read_uuid().as_string() << "\n";
      return;
    case Reader::EToken::Binary: {
      auto payload = r.read_binary();
      std::cout << " (" << payload->bytes_remaining() << " bytes)\n";
      return;
    }
    case Reader::EToken::SequenceStart:
      std::cout << " (count hint " << r.read_sequence_start() << ")\n";
      while (r.read_sequence_next())
        print_element(r, depth + 1);
      std::cout << indent << Reader::EToken::SequenceEnd << "\n";
      return;
    case Reader::EToken::MarkerStart:
      std::cout << "\n";
      r.read_marker_start();
      while (!r.read_marker_is_end())
        print_element(r, depth + 1);
      r.read_marker_end();
      std::cout << indent << Reader::EToken::MarkerEnd << "\n";
      return;
    default:
      std::cout << "\n";
      r.skip_element();
      return;
  }
}

}  // namespace

int main() {
  try {
    std::vector<Book> const books = sample_catalogue();

    // Write: a sequence of books with a count hint.
    auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    {
      zoserialize::BinaryWriter w{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
      w.write_sequence_start(static_cast<unsigned>(books.size()));
      for (std::size_t i = 0; i < books.size(); ++i) {
        if (i != 0) w.write_sequence_separator();
        write_book(w, books[i]);
      }
      w.write_sequence_end();
      w.close();
    }
    std::string const& bytes = sink->str();
    std::cout << "Wrote " << books.size() << " books as " << bytes.size() << " bytes:\n";
    zocore::streamers::render_hex_dump(std::cout, bytes.data(), bytes.size(), 0, "  ");
    std::cout << "\n\nTokens read back:\n";

    {
      auto src = zocore::make_ref_counted<zocore::MemoryReadStream>(bytes);
      zoserialize::BinaryReader r{zocore::InterfacePtr<zocore::IReadStream>(src)};
      while (!r.is_eof())
        print_element(r, 1);
    }

    // Read back into objects.
    auto src = zocore::make_ref_counted<zocore::MemoryReadStream>(bytes);
    zoserialize::BinaryReader r{zocore::InterfacePtr<zocore::IReadStream>(src)};
    std::vector<Book> back;
    r.read_sequence_start();
    while (r.read_sequence_next())
      back.push_back(read_book(r));
    bool same = back.size() == books.size();
    for (std::size_t i = 0; same && i < books.size(); ++i) {
      same = back[i].id == books[i].id && back[i].title == books[i].title &&
             back[i].authors.size() == books[i].authors.size() && back[i].cover == books[i].cover &&
             back[i].rating == books[i].rating && back[i].isbn_key == books[i].isbn_key;
    }
    std::cout << "\nRound trip: " << (same ? "all books read back unchanged" : "MISMATCH") << "\n";
    return same ? 0 : 1;
  } catch (zocore::ErrorException const& e) {
    std::cerr << "error " << e.code() << ": " << e.what() << "\n";
    return 1;
  }
}
