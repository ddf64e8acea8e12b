#include <random>

#include <gtest/gtest.h>

#include <support/formats.h>
#include <support/golden.h>
#include <support/random_document.h>

namespace zotest {

using zoserialize::Reader;
using zoserialize::Writer;
using EToken = Reader::EToken;

class RandomDocument::Generator {
 public:
  // kSkip walks the structure without touching the reader: the part of a marker that an older
  // reader leaves to read_marker_end.
  enum class EMode { kWrite, kRead, kSkip };

  explicit Generator(std::uint64_t seed) : shape_(seed), reading_(seed ^ 0x5DEECE66Dull) {}

  std::vector<std::size_t> write(Writer& writer, std::function<std::size_t()> const& written) {
    w_ = &writer;
    std::vector<std::size_t> ends;
    for (unsigned n = 1 + below(12); n > 0; --n) {
      element(0);
      writer.flush();
      ends.push_back(written());
    }
    return ends;
  }

  void read(Reader& reader) {
    mode_ = EMode::kRead;
    r_ = &reader;
    for (unsigned n = 1 + below(12); n > 0; --n)
      element(0);
    EXPECT_EQ(reader.next_token(), EToken::Eof);  // also finishes a half-read payload stream
  }

 private:
  // Single elements of every form whose copy is identical in every format and equal to them,
  // small enough to keep documents short. The first one is the null.
  static std::vector<GoldenRow const*> const& pool() {
    static auto const rows = [] {
      auto const copies_identically = [](GoldenRow const& row) {
        for (Format const& f : formats()) {
          GoldenRendering const* r = f.column ? f.column->find(row.name) : nullptr;
          if (f.column && (!r || r->copy != ECopy::kIdentical)) return false;
        }
        return true;
      };
      std::vector<GoldenRow const*> out;
      for (GoldenRow const& row : golden_rows()) {
        if (row.elements == 1 && row.self_equal && row.valid_text && row.payload <= 5000 &&
            copies_identically(row))
          out.push_back(&row);
      }
      return out;
    }();
    return rows;
  }

  unsigned below(std::size_t n) { return static_cast<unsigned>(shape_() % n); }

  void element(int depth) {
    unsigned const kind = below(8);
    std::size_t const row = below(pool().size());
    if (budget_ != 0 && depth < 5 && kind == 0) return sequence(depth);
    if (budget_ != 0 && depth < 5 && kind == 1) return marker(depth);
    GoldenRow const& c = *pool()[budget_ == 0 ? 0 : row];
    budget_ -= budget_ != 0;
    if (mode_ == EMode::kWrite) write_script(*w_, c.script);
    // The reading side may skip an element instead, a stream value possibly half read.
    if (mode_ == EMode::kRead && reading_() % 4 == 0) return r_->skip_element();
    if (mode_ == EMode::kRead) read_script(*r_, c.script);
  }

  // Without hint, with the exact hint, or with hint 0.
  void sequence(int depth) {
    unsigned const count = below(4) == 0 ? below(100) : below(5);
    unsigned const form = below(3);
    unsigned const hint = form == 1 ? count : 0;
    bool const reading = mode_ == EMode::kRead;
    if (mode_ == EMode::kWrite)
      form == 0 ? w_->write_sequence_start() : w_->write_sequence_start(hint);
    if (reading) {
      EXPECT_EQ(r_->next_token(), EToken::SequenceStart);
      EXPECT_EQ(r_->read_sequence_start(), hint);
    }
    for (unsigned i = 0; i < count; ++i) {
      if (mode_ == EMode::kWrite && i != 0) w_->write_sequence_separator();
      if (reading) {
        EXPECT_TRUE(r_->read_sequence_next());
      }
      element(depth + 1);
    }
    if (mode_ == EMode::kWrite) w_->write_sequence_end();
    if (reading) {
      EXPECT_FALSE(r_->read_sequence_next());
    }
  }

  void marker(int depth) {
    EMode const outer = mode_;
    if (outer == EMode::kWrite) w_->write_marker_start();
    if (outer == EMode::kRead) {
      EXPECT_EQ(r_->next_token(), EToken::MarkerStart);
      r_->read_marker_start();
    }
    for (unsigned n = below(5); n > 0; --n) {
      if (mode_ == EMode::kRead) {
        EXPECT_FALSE(r_->read_marker_is_end());
      }
      // An older reader knows fewer fields: the marker end skips the rest.
      if (mode_ == EMode::kRead && reading_() % 6 == 0) mode_ = EMode::kSkip;
      element(depth + 1);
    }
    mode_ = outer;
    if (outer == EMode::kWrite) w_->write_marker_end();
    if (outer == EMode::kRead) r_->read_marker_end();
  }

  std::mt19937_64 shape_;    // structure: the same in every mode
  std::mt19937_64 reading_;  // choices only the reading side makes
  EMode mode_ = EMode::kWrite;
  unsigned budget_ = 200;  // elements with content; the rest are nulls
  Writer* w_ = nullptr;
  Reader* r_ = nullptr;
};

RandomDocument::RandomDocument(std::uint64_t seed)
    : generator_(std::make_unique<Generator>(seed)) {}

RandomDocument::~RandomDocument() = default;

std::vector<std::size_t> RandomDocument::write(Writer& writer,
                                               std::function<std::size_t()> const& written) {
  return generator_->write(writer, written);
}

void RandomDocument::read(Reader& reader) {
  generator_->read(reader);
}

}  // namespace zotest
