// The parser's error codes and the one routine that raises its located errors.
//
// The codes form their own tree under "error.zoxml"; they are not exported from the libraries
// the parser is linked into, so callers outside compare a caught code by name (ErrorCode
// compares by its dotted name) or with ErrorCode::is_a against a code built from the name.
#pragma once

#include <cstdint>
#include <string_view>

#include <zocore/error_code.h>
#include <zocore/error_info.h>
#include <zocore/error_params.h>
#include <zocore/source_location.h>

namespace zoxml {

namespace error {

extern zocore::ErrorCode const zoxml;                    // root, never raised itself
extern zocore::ErrorCode const zoxml_reader;             // well-formedness, state, values
extern zocore::ErrorCode const zoxml_reader_unexpected;  // parent of the next three
extern zocore::ErrorCode const zoxml_reader_unexpected_element;
extern zocore::ErrorCode const zoxml_reader_unexpected_token;
extern zocore::ErrorCode const zoxml_reader_unexpected_size;  // a value over the limit
extern zocore::ErrorCode const zoxml_tokenizer;               // parent of the next two
extern zocore::ErrorCode const zoxml_tokenizer_stream;        // the input stream failed
extern zocore::ErrorCode const zoxml_tokenizer_syntaxError;   // lexical errors

}  // namespace error

// A place in the input: 1-based line, the source offset of that line's first byte and the
// source offset itself (0-based, counted in bytes from the first byte read, a byte order mark
// included). The column reported is pos - line_start + 1, in bytes.
struct Location {
  std::uint64_t line = 1;
  std::uint64_t line_start = 0;
  std::uint64_t pos = 0;

  friend bool operator==(Location const&, Location const&) = default;
};

// Throws a zocore::ErrorException whose message is `message` behind the location prefix
// "[line {@line}, pos {@linePos}" + (", uri <{@uri}>" when `uri` is not empty) + "]: ", with
// `params` and the parameters "uri", "line", "linePos" and "sourcePos" added. `message` is kept
// as part of the record's template; `function` names the raising operation ("zoxml::...()").
[[noreturn]] void throw_located(zocore::ErrorCode const& code, char const* message,
                                zocore::ErrorParams params, Location const& at,
                                std::string_view uri, char const* function, char const* module,
                                unsigned line,
                                zocore::RefCountPtr<zocore::ErrorInfo const> nested = {});

}  // namespace zoxml
