#include "detect.h"

#include <string>

#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/text_reader.h>

#include "errors.h"
#include "input.h"

namespace zoser {

namespace {

using zoserialize::Reader;

// Reads every element of the block; true when that succeeds, or when the only trouble is an
// element cut off by the end of a block that is not the whole input.
bool parses(Reader& reader, std::size_t size, bool whole) {
  try {
    while (!reader.is_eof())
      reader.skip_element();
    return true;
  } catch (zocore::ErrorException const& e) {
    if (whole) return false;
    if (e.code().is_a(zoserialize::error::zoserialize_reader_eof)) return true;
    // A text token cut at the end (a time, a number) fails where the block ends.
    std::string const* const at = e.info()->params().find("sourcePos");
    return at != nullptr && *at == std::to_string(size);
  }
}

}  // namespace

bool probe_xml(std::string_view block, bool) {
  if (block.starts_with("\xEF\xBB\xBF")) return true;
  std::size_t const first = block.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && block[first] == '<';
}

bool probe_text(std::string_view block, bool whole) {
  std::size_t const first = block.find_first_not_of("\r\n");
  if (first == std::string_view::npos) return false;
  switch (zoserialize::TextReader::token_from_tag(block[first])) {
    case Reader::EToken::Unknown:
    case Reader::EToken::SequenceSeparator:
    case Reader::EToken::SequenceEnd:
    case Reader::EToken::MarkerEnd:
      return false;
    default:
      break;
  }
  zoserialize::TextReader reader(block.data(), static_cast<unsigned>(block.size()));
  return parses(reader, block.size(), whole);
}

bool probe_binary(std::string_view block, bool whole) {
  zoserialize::BinaryReader reader(zocore::make_ref_counted<zocore::MemoryReadStream>(block));
  return parses(reader, block.size(), whole);
}

Detection detect_format(std::string_view block, bool whole, std::string_view path) {
  Detection d;
  for (Format const& f : formats())
    if (f.readable && f.probe != nullptr && f.probe(block, whole)) d.candidates.push_back(&f);
  Format const* const by_name = path.empty() ? nullptr : format_for_path(path);
  if (d.candidates.size() == 1) {
    d.format = d.candidates.front();
    d.basis = Detection::EBasis::kContent;
  } else if (!d.candidates.empty()) {
    for (Format const* f : d.candidates)
      if (f == by_name) d.format = f;
    d.basis = d.format != nullptr ? Detection::EBasis::kExtension : Detection::EBasis::kAmbiguous;
  } else if (by_name != nullptr && by_name->readable) {
    d.format = by_name;
    d.basis = Detection::EBasis::kExtension;
  } else {
    d.format = &format_named("binary");
    d.basis = Detection::EBasis::kFallback;
  }
  return d;
}

Format const& detect_input_format(Input& input) {
  std::string_view const block = input.peek();
  Detection const d =
      detect_format(block, input.peek_is_whole(), input.is_stdin() ? "" : input.name());
  if (d.format != nullptr) return *d.format;
  std::string names;
  for (std::size_t i = 0; i < d.candidates.size(); ++i) {
    if (i != 0) names += i + 1 == d.candidates.size() ? " or " : ", ";
    names += d.candidates[i]->name;
  }
  raise(error::zoser_format_ambiguous,
        "Cannot tell the format of the input: it reads as {@candidates}; give -f FORMAT",
        zocore::ErrorParams().set("candidates", names), "zoser::detect_input_format()");
}

}  // namespace zoser
