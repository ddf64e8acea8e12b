// Error records, error codes, parameters and dates as data-model elements.
#pragma once

#include <exception>

#include <zocore/error_code.h>
#include <zocore/error_exception.h>
#include <zocore/error_info.h>
#include <zocore/error_params.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/simple_date_time.h>
#include <zoserialize/export.h>
#include <zoserialize/reader.h>
#include <zoserialize/writer.h>

// Layouts (fixed across versions and formats; see docs/marshalling.md):
//   ErrorCode       String: the full dotted name.
//   ErrorParams     Sequence without count hint; per parameter, in ascending name order, a
//                   String name then a String value; separators stand between parameters.
//   ErrorInfo       Null for no record, else a Marker: code, String message template, params,
//                   SourceLocation, String context text, the cause (an ErrorInfo again).
//   SimpleDateTime  Marker: AbsoluteTime, SignedInteger (32-bit) offset.
// These functions add no checks of their own: an element of the wrong kind or a truncated input
// fails inside the Reader with the format's error, and a partly read value is discarded.
namespace zoserialize {

using zocore::ErrorCode;
using zocore::ErrorException;
using zocore::ErrorInfo;
using zocore::ErrorParams;
using zocore::RefCountPtr;
using zocore::SimpleDateTime;

ZOSERIALIZE_API void write_error_code(Writer& writer, ErrorCode const& code);
// Replaces `code` with the code named by the next String.
ZOSERIALIZE_API void read_error_code(Reader& reader, ErrorCode& code);

ZOSERIALIZE_API void write_error_params(Writer& writer, ErrorParams const& params);
// Adds each parameter read to `params`; a name read again (or already present) takes the value
// read last.
ZOSERIALIZE_API void read_error_params(Reader& reader, ErrorParams& params);

// A null `info` writes Null. The chain of causes is written whole.
ZOSERIALIZE_API void write_error_info(Writer& writer, ErrorInfo const* info);
ZOSERIALIZE_API void write_error_info(Writer& writer, ErrorInfo const& info);
ZOSERIALIZE_API void write_error_info(Writer& writer, RefCountPtr<ErrorInfo const> const& info);
// The exception's record.
ZOSERIALIZE_API void write_error_exception(Writer& writer, ErrorException const& e);
// The record of ErrorInfo::from_exception(e, location), the location naming this function: an
// ErrorException's own record, otherwise a record with code error::zocore_exception and e.what()
// as its message.
ZOSERIALIZE_API void write_std_exception(Writer& writer, std::exception const& e);

// The record with its chain of causes; null when the next element is Null. Chains are read
// without recursion; one nested deeper than kMaxErrorDepth records fails with
// error::zoserialize_reader_marker_nesting, so that hostile input cannot build a chain whose
// release exhausts the stack.
ZOSERIALIZE_API RefCountPtr<ErrorInfo const> read_error_info(Reader& reader);
inline constexpr unsigned kMaxErrorDepth = 1000;

ZOSERIALIZE_API void write_simple_date_time(Writer& writer, SimpleDateTime const& value);
ZOSERIALIZE_API SimpleDateTime read_simple_date_time(Reader& reader);

}  // namespace zoserialize
