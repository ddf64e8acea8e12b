// The library catalogue of sample_graph.cpp, declared once with <zoserialize/types.h> instead of
// written and read field by field: the declarations below are the whole serialization code. It
// writes the catalogue into the binary encoding, prints the bytes, reads it back, and then reads
// the same bytes with an older, shorter declaration of a book, which skips the fields it does not
// know.
#include <chrono>
#include <cstdint>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <zocore/error_exception.h>
#include <zocore/streamers.h>
#include <zoserialize/types.h>

namespace catalogue {

enum class Format : std::uint8_t { hardcover, paperback, ebook };
constexpr zoserialize::EnumRange<Format> zoserialize_enum_range(Format) {
  return {Format::hardcover, Format::ebook};
}

struct Author {
  std::string name;
  std::int32_t born = 0;
  friend bool operator==(Author const&, Author const&) = default;
};
ZOSERIALIZE_FIELDS(Author, name, born)

struct Book {
  std::int64_t id = 0;
  std::string title;
  std::vector<Author> authors;
  std::chrono::system_clock::time_point added;
  zocore::Uuid isbn_key;
  std::optional<double> rating;  // not rated yet: Null
  bool on_loan = false;
  Format format = Format::paperback;
  std::map<std::string, std::int32_t> copies_by_branch;
  std::string cover;  // raw bytes, sent as one Binary element

  template <class Archive>
  void fields(Archive& archive) {
    archive(id, title, authors, added, isbn_key, rating, on_loan, format, copies_by_branch,
            zoserialize::as_binary(cover));
  }
  friend bool operator==(Book const&, Book const&) = default;
};

// What an older program knew of a book: its first two fields.
struct BookSummary {
  std::int64_t id = 0;
  std::string title;
};
ZOSERIALIZE_FIELDS(BookSummary, id, title)

std::vector<Book> sample() {
  using namespace std::chrono_literals;
  std::chrono::system_clock::time_point const added{1795253400s};  // 2026-11-21 09:30:00 UTC
  return {
      {1001,
       "The Art of Serialization",
       {{"Ada Byte", 1971}, {"Bo Endian", 1984}},
       added,
       zocore::Uuid::from_string("6f1c2e4a-9b3d-4c8e-a1f0-27d5e8b9c3a4", 36),
       4.5,
       false,
       Format::hardcover,
       {{"north", 2}, {"south", 1}},
       std::string("\x89PNG\r\n\x1a\n", 8)},
      {1002,
       "Streams, Chunks and Markers",
       {{"Cy Stream", -44}},
       added + 90min,
       zocore::Uuid(),
       std::nullopt,
       true,
       Format::ebook,
       {},
       std::string()},
  };
}

}  // namespace catalogue

int main() {
  try {
    std::vector<catalogue::Book> const books = catalogue::sample();

    std::string const bytes = zoserialize::to_binary(books);
    std::cout << "Wrote " << books.size() << " books as " << bytes.size() << " bytes:\n";
    zocore::streamers::render_hex_dump(std::cout, bytes.data(), bytes.size(), 0, "  ");

    auto const back = zoserialize::from_binary<std::vector<catalogue::Book>>(bytes);
    bool const same = back == books;
    std::cout << "\n\nRound trip: " << (same ? "all books read back unchanged" : "MISMATCH")
              << "\n";

    std::cout << "Read by an older program that knows only id and title:\n";
    for (auto const& summary : zoserialize::from_binary<std::vector<catalogue::BookSummary>>(bytes))
      std::cout << "  " << summary.id << " " << summary.title << "\n";
    return same ? 0 : 1;
  } catch (zocore::ErrorException const& e) {
    std::cerr << "error " << e.code() << ": " << e.what() << "\n";
    return 1;
  }
}
