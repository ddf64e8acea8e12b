// The error codes of the library. Every failure it raises carries one of these; compare a caught
// error's code against them, or use ErrorCode::is_a to catch a family (all descend from
// error::zoserialize). Note that error::zoserialize_reader_data_invalid is named
// "error.zoserialize.reader.data.unexpected".
#pragma once

#include <zocore/error_code.h>
#include <zoserialize/export.h>

namespace zoserialize::error {

ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_closed;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_data;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_data_size;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_data_source;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_data_string;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_data_string_size;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_data_type;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_data_type_mismatch;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_data_type_range;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_data_invalid;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_eof;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_marker;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_marker_mismatch;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_marker_nesting;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_marker_overrun;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_marker_size;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_seek;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_sequence;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_sequence_element;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_sequence_element_count;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_sequence_nesting;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_sequence_unexpected;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_state;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_unsupported;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_xml;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_xml_schema;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_reader_xml_state;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_stream;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_closed;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_data;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_data_range;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_data_size;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_data_size_unknown;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_incomplete;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_marker;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_marker_close;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_marker_nesting;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_sequence;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_sequence_element;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_sequence_element_count;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_sequence_nesting;
ZOSERIALIZE_API extern zocore::ErrorCode const zoserialize_writer_state;

}  // namespace zoserialize::error
