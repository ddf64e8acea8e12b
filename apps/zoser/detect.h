// Recognising the format of an input when -f is not given.
#pragma once

#include <string_view>
#include <vector>

#include "formats.h"

namespace zoser {

class Input;

// The content probes of the format table. `block` is the start of the input, `whole` tells
// that the input ends there.
// - XML: the block starts with a UTF-8 byte order mark, or its first byte that is not a space,
//   tab, CR or LF is '<'.
// - Text: its first character other than CR and LF starts a text element, and the block parses
//   as text without error (an element cut at the end of a block that is not the whole input
//   does not count).
// - Binary: the block parses as binary elements, with the same allowance for a cut.
bool probe_xml(std::string_view block, bool whole);
bool probe_text(std::string_view block, bool whole);
bool probe_binary(std::string_view block, bool whole);

// What detection decided, and why.
struct Detection {
  enum class EBasis { kContent, kExtension, kFallback, kAmbiguous };
  Format const* format = nullptr;  // null when ambiguous
  EBasis basis = EBasis::kFallback;
  std::vector<Format const*> candidates;  // readable formats whose probe accepted the content
};

// The rules, in order: the readable formats whose probe accepts the content are the
// candidates; one candidate decides. With several, the extension of `path` decides if it names
// one of them, otherwise the input is ambiguous. With none (damaged or unknown content), the
// extension decides if it names a readable format, otherwise binary is assumed. `path` is empty
// for standard input.
Detection detect_format(std::string_view block, bool whole, std::string_view path);

// Detection for `input` (peeking at it, which consumes nothing). An ambiguous input fails with
// "Cannot tell the format of the input: it reads as {@candidates}; give -f FORMAT"
// (error::zoser_format_ambiguous).
Format const& detect_input_format(Input& input);

}  // namespace zoser
