// The sample archive that zoser writes for demonstrations, tests and benchmarks.
#pragma once

#include <cstdint>

#include <zoserialize/writer.h>

namespace zoser {

struct SampleOptions {
  std::uint64_t records = 3;                // book records in the catalogue
  std::uint64_t payload_size = 512 * 1024;  // bytes of the streamed binary and of the string
};

// Writes a small library catalogue that holds every element kind: a header marker (title,
// creation time, UUID, a relative time, integers wider than 64 bits, a double, null, a boolean),
// a sequence of `records` book records (markers with an id, a title with non-ASCII text, quotes
// and a tab, a sequence of authors, a rating, flags, times, an ISBN UUID, a small cover binary,
// and either a page count or null), then a binary and a string of `payload_size` bytes each,
// written in pieces through the writer's value streams. The content depends only on the options;
// memory use does not grow with them.
void write_sample(zoserialize::Writer& writer, SampleOptions const& options);

}  // namespace zoser
