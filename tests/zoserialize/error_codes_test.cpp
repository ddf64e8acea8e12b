#include <algorithm>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <zoserialize/error_codes.h>

namespace {

namespace error = zoserialize::error;

// Read by the test program's own static initialisation, in no particular order relative to the
// library's: constant-initialised codes already carry their names here.
char const* const kNameAtStaticInit = error::zoserialize_reader_data_invalid.c_str();

struct CodeRow {
  zocore::ErrorCode const* code;
  std::string name;
};

// A code's name is "error." and its identifier with dots for underscores.
CodeRow row(zocore::ErrorCode const& code, std::string name) {
  std::replace(name.begin(), name.end(), '_', '.');
  return {&code, "error." + name};
}

#define ZO_CODE(id) row(error::id, #id)
CodeRow const kCodes[] = {
    ZO_CODE(zoserialize), ZO_CODE(zoserialize_reader), ZO_CODE(zoserialize_reader_closed),
    ZO_CODE(zoserialize_reader_data), ZO_CODE(zoserialize_reader_data_size),
    ZO_CODE(zoserialize_reader_data_source), ZO_CODE(zoserialize_reader_data_string),
    ZO_CODE(zoserialize_reader_data_string_size), ZO_CODE(zoserialize_reader_data_type),
    ZO_CODE(zoserialize_reader_data_type_mismatch), ZO_CODE(zoserialize_reader_data_type_range),
    // The one deliberate mismatch between identifier and name.
    row(error::zoserialize_reader_data_invalid, "zoserialize_reader_data_unexpected"),
    ZO_CODE(zoserialize_reader_eof), ZO_CODE(zoserialize_reader_marker),
    ZO_CODE(zoserialize_reader_marker_mismatch), ZO_CODE(zoserialize_reader_marker_nesting),
    ZO_CODE(zoserialize_reader_marker_overrun), ZO_CODE(zoserialize_reader_marker_size),
    ZO_CODE(zoserialize_reader_seek), ZO_CODE(zoserialize_reader_sequence),
    ZO_CODE(zoserialize_reader_sequence_element),
    ZO_CODE(zoserialize_reader_sequence_element_count),
    ZO_CODE(zoserialize_reader_sequence_nesting), ZO_CODE(zoserialize_reader_sequence_unexpected),
    ZO_CODE(zoserialize_reader_state), ZO_CODE(zoserialize_reader_unsupported),
    ZO_CODE(zoserialize_reader_xml), ZO_CODE(zoserialize_reader_xml_schema),
    ZO_CODE(zoserialize_reader_xml_state), ZO_CODE(zoserialize_stream), ZO_CODE(zoserialize_writer),
    ZO_CODE(zoserialize_writer_closed), ZO_CODE(zoserialize_writer_data),
    ZO_CODE(zoserialize_writer_data_range), ZO_CODE(zoserialize_writer_data_size),
    ZO_CODE(zoserialize_writer_data_size_unknown), ZO_CODE(zoserialize_writer_incomplete),
    ZO_CODE(zoserialize_writer_marker), ZO_CODE(zoserialize_writer_marker_close),
    ZO_CODE(zoserialize_writer_marker_nesting), ZO_CODE(zoserialize_writer_sequence),
    ZO_CODE(zoserialize_writer_sequence_element),
    ZO_CODE(zoserialize_writer_sequence_element_count),
    ZO_CODE(zoserialize_writer_sequence_nesting), ZO_CODE(zoserialize_writer_state)};
#undef ZO_CODE
static_assert(std::size(kCodes) == 45);

TEST(ErrorCodesTest, EachGlobalCarriesItsNameFromConstantInitialisation) {
  EXPECT_STREQ(kNameAtStaticInit, "error.zoserialize.reader.data.unexpected");
  for (CodeRow const& row : kCodes) {
    EXPECT_EQ(row.code->view(), row.name);
    EXPECT_TRUE(row.code->name().is_static()) << row.name;
  }
}

TEST(ErrorCodesTest, EachParentIsOneOfTheCodesUpToTheRoot) {
  for (CodeRow const& row : kCodes) {
    std::string const parent(row.code->parent().view());
    EXPECT_EQ(parent, row.name.substr(0, row.name.rfind('.'))) << row.name;
    bool const listed = std::any_of(std::begin(kCodes), std::end(kCodes),
                                    [&](CodeRow const& other) { return other.name == parent; });
    EXPECT_EQ(listed, row.code != &error::zoserialize) << row.name;
  }
}

}  // namespace
