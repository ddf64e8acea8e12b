#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <zoserialize/error_codes.h>

namespace {

namespace error = zoserialize::error;
using zocore::ErrorCode;

// Read by the test program's own static initialisation, in no particular order relative to the
// library's: constant-initialised codes already carry their names here.
char const* const kNameAtStaticInit = error::zoserialize_reader_data_invalid.c_str();

struct CodeRow {
  ErrorCode const* code;
  char const* name;
};

#define ZO_CODE(id, name) \
  CodeRow {               \
    &error::id, name      \
  }
CodeRow const kCodes[] = {
    ZO_CODE(zoserialize, "error.zoserialize"),
    ZO_CODE(zoserialize_reader, "error.zoserialize.reader"),
    ZO_CODE(zoserialize_reader_closed, "error.zoserialize.reader.closed"),
    ZO_CODE(zoserialize_reader_data, "error.zoserialize.reader.data"),
    ZO_CODE(zoserialize_reader_data_size, "error.zoserialize.reader.data.size"),
    ZO_CODE(zoserialize_reader_data_source, "error.zoserialize.reader.data.source"),
    ZO_CODE(zoserialize_reader_data_string, "error.zoserialize.reader.data.string"),
    ZO_CODE(zoserialize_reader_data_string_size, "error.zoserialize.reader.data.string.size"),
    ZO_CODE(zoserialize_reader_data_type, "error.zoserialize.reader.data.type"),
    ZO_CODE(zoserialize_reader_data_type_mismatch, "error.zoserialize.reader.data.type.mismatch"),
    ZO_CODE(zoserialize_reader_data_type_range, "error.zoserialize.reader.data.type.range"),
    // The one deliberate mismatch between identifier and name.
    ZO_CODE(zoserialize_reader_data_invalid, "error.zoserialize.reader.data.unexpected"),
    ZO_CODE(zoserialize_reader_eof, "error.zoserialize.reader.eof"),
    ZO_CODE(zoserialize_reader_marker, "error.zoserialize.reader.marker"),
    ZO_CODE(zoserialize_reader_marker_mismatch, "error.zoserialize.reader.marker.mismatch"),
    ZO_CODE(zoserialize_reader_marker_nesting, "error.zoserialize.reader.marker.nesting"),
    ZO_CODE(zoserialize_reader_marker_overrun, "error.zoserialize.reader.marker.overrun"),
    ZO_CODE(zoserialize_reader_marker_size, "error.zoserialize.reader.marker.size"),
    ZO_CODE(zoserialize_reader_seek, "error.zoserialize.reader.seek"),
    ZO_CODE(zoserialize_reader_sequence, "error.zoserialize.reader.sequence"),
    ZO_CODE(zoserialize_reader_sequence_element, "error.zoserialize.reader.sequence.element"),
    ZO_CODE(zoserialize_reader_sequence_element_count,
            "error.zoserialize.reader.sequence.element.count"),
    ZO_CODE(zoserialize_reader_sequence_nesting, "error.zoserialize.reader.sequence.nesting"),
    ZO_CODE(zoserialize_reader_sequence_unexpected, "error.zoserialize.reader.sequence.unexpected"),
    ZO_CODE(zoserialize_reader_state, "error.zoserialize.reader.state"),
    ZO_CODE(zoserialize_reader_unsupported, "error.zoserialize.reader.unsupported"),
    ZO_CODE(zoserialize_reader_xml, "error.zoserialize.reader.xml"),
    ZO_CODE(zoserialize_reader_xml_schema, "error.zoserialize.reader.xml.schema"),
    ZO_CODE(zoserialize_reader_xml_state, "error.zoserialize.reader.xml.state"),
    ZO_CODE(zoserialize_stream, "error.zoserialize.stream"),
    ZO_CODE(zoserialize_writer, "error.zoserialize.writer"),
    ZO_CODE(zoserialize_writer_closed, "error.zoserialize.writer.closed"),
    ZO_CODE(zoserialize_writer_data, "error.zoserialize.writer.data"),
    ZO_CODE(zoserialize_writer_data_range, "error.zoserialize.writer.data.range"),
    ZO_CODE(zoserialize_writer_data_size, "error.zoserialize.writer.data.size"),
    ZO_CODE(zoserialize_writer_data_size_unknown, "error.zoserialize.writer.data.size.unknown"),
    ZO_CODE(zoserialize_writer_incomplete, "error.zoserialize.writer.incomplete"),
    ZO_CODE(zoserialize_writer_marker, "error.zoserialize.writer.marker"),
    ZO_CODE(zoserialize_writer_marker_close, "error.zoserialize.writer.marker.close"),
    ZO_CODE(zoserialize_writer_marker_nesting, "error.zoserialize.writer.marker.nesting"),
    ZO_CODE(zoserialize_writer_sequence, "error.zoserialize.writer.sequence"),
    ZO_CODE(zoserialize_writer_sequence_element, "error.zoserialize.writer.sequence.element"),
    ZO_CODE(zoserialize_writer_sequence_element_count,
            "error.zoserialize.writer.sequence.element.count"),
    ZO_CODE(zoserialize_writer_sequence_nesting, "error.zoserialize.writer.sequence.nesting"),
    ZO_CODE(zoserialize_writer_state, "error.zoserialize.writer.state"),
};
#undef ZO_CODE
static_assert(std::size(kCodes) == 45);

TEST(ErrorCodesTest, EachGlobalCarriesItsNameFromConstantInitialisation) {
  EXPECT_STREQ(kNameAtStaticInit, "error.zoserialize.reader.data.unexpected");
  for (CodeRow const& row : kCodes) {
    EXPECT_EQ(row.code->view(), row.name);
    EXPECT_TRUE(row.code->name().is_static()) << row.name;
  }
}

// A code's parent is one of the 45 up to the root, and a code belongs to exactly the families
// named by its own dotted prefixes.
TEST(ErrorCodesTest, ParentsAndFamiliesFollowTheDottedNames) {
  for (CodeRow const& row : kCodes) {
    SCOPED_TRACE(row.name);
    std::string_view const name = row.name;
    std::string_view const parent = name.substr(0, name.rfind('.'));
    EXPECT_EQ(row.code->parent().view(), parent);
    int parents_listed = 0;
    for (CodeRow const& other : kCodes) {
      std::string_view const family = other.name;
      parents_listed += family == parent ? 1 : 0;
      bool const member =
          name == family || name.substr(0, family.size() + 1) == std::string(family) + ".";
      EXPECT_EQ(row.code->is_a(*other.code), member) << "family " << family;
    }
    EXPECT_EQ(parents_listed, row.code == &error::zoserialize ? 0 : 1);
  }
}

}  // namespace
