// UTF-8 validation of text that arrives in pieces, shared by the readers that hand out string
// payloads (stream reader, memory reader, XML reader).
#pragma once

#include <cstring>

#include <zocore/utf8.h>

namespace zoserialize::impl {

// Validates a text piece by piece. A multi-byte sequence cut by a piece boundary is held back
// (at most 6 bytes) and checked once the rest of it arrives. Every malformed sequence is
// reported by zocore::check_valid_utf8, which throws.
class Utf8CarryValidator {
 public:
  void feed(char const* data, unsigned size) {
    if (carry_size_ != 0) {
      unsigned const need = zocore::utf8_sequence_length(carry_[0]);
      while (carry_size_ < need && size != 0) {
        carry_[carry_size_++] = *data++;
        --size;
      }
      if (carry_size_ < need) return;  // still incomplete; wait for more
      check_carry();
    }
    if (size == 0) return;
    if (static_cast<unsigned char>(data[size - 1]) < 0x80) {
      zocore::check_valid_utf8(data, size);
      return;
    }
    // Find the lead byte of the last sequence. More than 6 trailing continuation bytes cannot
    // belong to one sequence, so the walk looks at 7 bytes at most.
    unsigned lead = size;
    bool found = false;
    for (unsigned steps = 0; lead > 0 && steps < 7 && !found; ++steps) {
      --lead;
      found = (static_cast<unsigned char>(data[lead]) & 0xC0) != 0x80;
    }
    unsigned const k = size - lead;
    if (!found || k > 6 || zocore::utf8_sequence_length(data[lead]) == k) {
      zocore::check_valid_utf8(data, size);
      return;
    }
    zocore::check_valid_utf8(data, lead);
    std::memcpy(carry_, data + lead, k);
    carry_size_ = k;
  }

  // The text has ended: a held-back sequence is incomplete, which check_valid_utf8 reports.
  void finish() {
    if (carry_size_ != 0) check_carry();
  }

  bool has_carry() const noexcept { return carry_size_ != 0; }

 private:
  void check_carry() {
    unsigned const n = carry_size_;
    carry_size_ = 0;
    zocore::check_valid_utf8(carry_, n);
  }

  char carry_[8] = {};
  unsigned carry_size_ = 0;
};

// Wraps a payload stream so that everything read (and skipped) through it is validated as
// UTF-8. Inner must be an IReadStream implementation with virtual read, skip and close.
template <class Inner>
class Utf8ValidatingStreamImpl final : public Inner {
 public:
  using Inner::Inner;

  unsigned read(void* buffer, unsigned size) override {
    unsigned const got = Inner::read(buffer, size);
    validator_.feed(static_cast<char const*>(buffer), got);
    if (got < size) validator_.finish();
    return got;
  }

  // Skipped bytes are read and validated too.
  unsigned skip(unsigned size) override {
    char block[4096];
    unsigned total = 0;
    while (total < size) {
      unsigned const piece = size - total < sizeof block ? size - total : unsigned{sizeof block};
      unsigned const got = read(block, piece);
      total += got;
      if (got < piece) break;
    }
    return total;
  }

  // The inner close skips the unread rest through skip() above; a sequence left incomplete at
  // the very end is reported here.
  void close() override {
    Inner::close();
    validator_.finish();
  }

 private:
  Utf8CarryValidator validator_;
};

}  // namespace zoserialize::impl
