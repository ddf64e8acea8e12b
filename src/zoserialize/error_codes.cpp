#include <zoserialize/error_codes.h>

namespace zoserialize::error {

// Constant-initialised: usable from any static initialiser of the process.
constinit zocore::ErrorCode const zoserialize("error.zoserialize", true);
constinit zocore::ErrorCode const zoserialize_reader("error.zoserialize.reader", true);
constinit zocore::ErrorCode const zoserialize_reader_closed("error.zoserialize.reader.closed",
                                                            true);
constinit zocore::ErrorCode const zoserialize_reader_data("error.zoserialize.reader.data", true);
constinit zocore::ErrorCode const zoserialize_reader_data_size("error.zoserialize.reader.data.size",
                                                               true);
constinit zocore::ErrorCode const zoserialize_reader_data_source(
    "error.zoserialize.reader.data.source", true);
constinit zocore::ErrorCode const zoserialize_reader_data_string(
    "error.zoserialize.reader.data.string", true);
constinit zocore::ErrorCode const zoserialize_reader_data_string_size(
    "error.zoserialize.reader.data.string.size", true);
constinit zocore::ErrorCode const zoserialize_reader_data_type("error.zoserialize.reader.data.type",
                                                               true);
constinit zocore::ErrorCode const zoserialize_reader_data_type_mismatch(
    "error.zoserialize.reader.data.type.mismatch", true);
constinit zocore::ErrorCode const zoserialize_reader_data_type_range(
    "error.zoserialize.reader.data.type.range", true);
constinit zocore::ErrorCode const zoserialize_reader_data_invalid(
    "error.zoserialize.reader.data.unexpected", true);
constinit zocore::ErrorCode const zoserialize_reader_eof("error.zoserialize.reader.eof", true);
constinit zocore::ErrorCode const zoserialize_reader_marker("error.zoserialize.reader.marker",
                                                            true);
constinit zocore::ErrorCode const zoserialize_reader_marker_mismatch(
    "error.zoserialize.reader.marker.mismatch", true);
constinit zocore::ErrorCode const zoserialize_reader_marker_nesting(
    "error.zoserialize.reader.marker.nesting", true);
constinit zocore::ErrorCode const zoserialize_reader_marker_overrun(
    "error.zoserialize.reader.marker.overrun", true);
constinit zocore::ErrorCode const zoserialize_reader_marker_size(
    "error.zoserialize.reader.marker.size", true);
constinit zocore::ErrorCode const zoserialize_reader_seek("error.zoserialize.reader.seek", true);
constinit zocore::ErrorCode const zoserialize_reader_sequence("error.zoserialize.reader.sequence",
                                                              true);
constinit zocore::ErrorCode const zoserialize_reader_sequence_element(
    "error.zoserialize.reader.sequence.element", true);
constinit zocore::ErrorCode const zoserialize_reader_sequence_element_count(
    "error.zoserialize.reader.sequence.element.count", true);
constinit zocore::ErrorCode const zoserialize_reader_sequence_nesting(
    "error.zoserialize.reader.sequence.nesting", true);
constinit zocore::ErrorCode const zoserialize_reader_sequence_unexpected(
    "error.zoserialize.reader.sequence.unexpected", true);
constinit zocore::ErrorCode const zoserialize_reader_state("error.zoserialize.reader.state", true);
constinit zocore::ErrorCode const zoserialize_reader_unsupported(
    "error.zoserialize.reader.unsupported", true);
constinit zocore::ErrorCode const zoserialize_reader_xml("error.zoserialize.reader.xml", true);
constinit zocore::ErrorCode const zoserialize_reader_xml_schema(
    "error.zoserialize.reader.xml.schema", true);
constinit zocore::ErrorCode const zoserialize_reader_xml_state("error.zoserialize.reader.xml.state",
                                                               true);
constinit zocore::ErrorCode const zoserialize_stream("error.zoserialize.stream", true);
constinit zocore::ErrorCode const zoserialize_writer("error.zoserialize.writer", true);
constinit zocore::ErrorCode const zoserialize_writer_closed("error.zoserialize.writer.closed",
                                                            true);
constinit zocore::ErrorCode const zoserialize_writer_data("error.zoserialize.writer.data", true);
constinit zocore::ErrorCode const zoserialize_writer_data_range(
    "error.zoserialize.writer.data.range", true);
constinit zocore::ErrorCode const zoserialize_writer_data_size("error.zoserialize.writer.data.size",
                                                               true);
constinit zocore::ErrorCode const zoserialize_writer_data_size_unknown(
    "error.zoserialize.writer.data.size.unknown", true);
constinit zocore::ErrorCode const zoserialize_writer_incomplete(
    "error.zoserialize.writer.incomplete", true);
constinit zocore::ErrorCode const zoserialize_writer_marker("error.zoserialize.writer.marker",
                                                            true);
constinit zocore::ErrorCode const zoserialize_writer_marker_close(
    "error.zoserialize.writer.marker.close", true);
constinit zocore::ErrorCode const zoserialize_writer_marker_nesting(
    "error.zoserialize.writer.marker.nesting", true);
constinit zocore::ErrorCode const zoserialize_writer_sequence("error.zoserialize.writer.sequence",
                                                              true);
constinit zocore::ErrorCode const zoserialize_writer_sequence_element(
    "error.zoserialize.writer.sequence.element", true);
constinit zocore::ErrorCode const zoserialize_writer_sequence_element_count(
    "error.zoserialize.writer.sequence.element.count", true);
constinit zocore::ErrorCode const zoserialize_writer_sequence_nesting(
    "error.zoserialize.writer.sequence.nesting", true);
constinit zocore::ErrorCode const zoserialize_writer_state("error.zoserialize.writer.state", true);

}  // namespace zoserialize::error
