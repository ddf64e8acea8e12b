#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/error_exception.h>
#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>

namespace {

namespace error = zoserialize::error;
using zocore::ErrorCode;

// Taken during the test program's static initialisation, in no particular order relative to
// other initialisers: constant-initialised codes already carry their names here.
char const* const kNameAtStaticInit = error::zoserialize_reader_data_invalid.c_str();
std::size_t const kSizeAtStaticInit = error::zoserialize_writer_state.view().size();

struct CodeRow {
  ErrorCode const* code;
  char const* identifier;
  char const* name;
};

#define ZO_CODE_ROW(id, name) \
  CodeRow {                   \
    &error::id, #id, name     \
  }

CodeRow const kCodes[] = {
    ZO_CODE_ROW(zoserialize, "error.zoserialize"),
    ZO_CODE_ROW(zoserialize_reader, "error.zoserialize.reader"),
    ZO_CODE_ROW(zoserialize_reader_closed, "error.zoserialize.reader.closed"),
    ZO_CODE_ROW(zoserialize_reader_data, "error.zoserialize.reader.data"),
    ZO_CODE_ROW(zoserialize_reader_data_size, "error.zoserialize.reader.data.size"),
    ZO_CODE_ROW(zoserialize_reader_data_source, "error.zoserialize.reader.data.source"),
    ZO_CODE_ROW(zoserialize_reader_data_string, "error.zoserialize.reader.data.string"),
    ZO_CODE_ROW(zoserialize_reader_data_string_size, "error.zoserialize.reader.data.string.size"),
    ZO_CODE_ROW(zoserialize_reader_data_type, "error.zoserialize.reader.data.type"),
    ZO_CODE_ROW(zoserialize_reader_data_type_mismatch,
                "error.zoserialize.reader.data.type.mismatch"),
    ZO_CODE_ROW(zoserialize_reader_data_type_range, "error.zoserialize.reader.data.type.range"),
    ZO_CODE_ROW(zoserialize_reader_data_invalid, "error.zoserialize.reader.data.unexpected"),
    ZO_CODE_ROW(zoserialize_reader_eof, "error.zoserialize.reader.eof"),
    ZO_CODE_ROW(zoserialize_reader_marker, "error.zoserialize.reader.marker"),
    ZO_CODE_ROW(zoserialize_reader_marker_mismatch, "error.zoserialize.reader.marker.mismatch"),
    ZO_CODE_ROW(zoserialize_reader_marker_nesting, "error.zoserialize.reader.marker.nesting"),
    ZO_CODE_ROW(zoserialize_reader_marker_overrun, "error.zoserialize.reader.marker.overrun"),
    ZO_CODE_ROW(zoserialize_reader_marker_size, "error.zoserialize.reader.marker.size"),
    ZO_CODE_ROW(zoserialize_reader_seek, "error.zoserialize.reader.seek"),
    ZO_CODE_ROW(zoserialize_reader_sequence, "error.zoserialize.reader.sequence"),
    ZO_CODE_ROW(zoserialize_reader_sequence_element, "error.zoserialize.reader.sequence.element"),
    ZO_CODE_ROW(zoserialize_reader_sequence_element_count,
                "error.zoserialize.reader.sequence.element.count"),
    ZO_CODE_ROW(zoserialize_reader_sequence_nesting, "error.zoserialize.reader.sequence.nesting"),
    ZO_CODE_ROW(zoserialize_reader_sequence_unexpected,
                "error.zoserialize.reader.sequence.unexpected"),
    ZO_CODE_ROW(zoserialize_reader_state, "error.zoserialize.reader.state"),
    ZO_CODE_ROW(zoserialize_reader_unsupported, "error.zoserialize.reader.unsupported"),
    ZO_CODE_ROW(zoserialize_reader_xml, "error.zoserialize.reader.xml"),
    ZO_CODE_ROW(zoserialize_reader_xml_schema, "error.zoserialize.reader.xml.schema"),
    ZO_CODE_ROW(zoserialize_reader_xml_state, "error.zoserialize.reader.xml.state"),
    ZO_CODE_ROW(zoserialize_stream, "error.zoserialize.stream"),
    ZO_CODE_ROW(zoserialize_writer, "error.zoserialize.writer"),
    ZO_CODE_ROW(zoserialize_writer_closed, "error.zoserialize.writer.closed"),
    ZO_CODE_ROW(zoserialize_writer_data, "error.zoserialize.writer.data"),
    ZO_CODE_ROW(zoserialize_writer_data_range, "error.zoserialize.writer.data.range"),
    ZO_CODE_ROW(zoserialize_writer_data_size, "error.zoserialize.writer.data.size"),
    ZO_CODE_ROW(zoserialize_writer_data_size_unknown, "error.zoserialize.writer.data.size.unknown"),
    ZO_CODE_ROW(zoserialize_writer_incomplete, "error.zoserialize.writer.incomplete"),
    ZO_CODE_ROW(zoserialize_writer_marker, "error.zoserialize.writer.marker"),
    ZO_CODE_ROW(zoserialize_writer_marker_close, "error.zoserialize.writer.marker.close"),
    ZO_CODE_ROW(zoserialize_writer_marker_nesting, "error.zoserialize.writer.marker.nesting"),
    ZO_CODE_ROW(zoserialize_writer_sequence, "error.zoserialize.writer.sequence"),
    ZO_CODE_ROW(zoserialize_writer_sequence_element, "error.zoserialize.writer.sequence.element"),
    ZO_CODE_ROW(zoserialize_writer_sequence_element_count,
                "error.zoserialize.writer.sequence.element.count"),
    ZO_CODE_ROW(zoserialize_writer_sequence_nesting, "error.zoserialize.writer.sequence.nesting"),
    ZO_CODE_ROW(zoserialize_writer_state, "error.zoserialize.writer.state"),
};

#undef ZO_CODE_ROW

// The identifier is the name without "error." and with dots turned into underscores, except
// for the one deliberate mismatch.
std::string identifier_for(std::string_view name) {
  std::string id(name.substr(std::string_view("error.").size()));
  for (char& c : id) {
    if (c == '.') c = '_';
  }
  return id;
}

TEST(ErrorCodesTest, FortyFiveDistinctCodes) {
  EXPECT_EQ(std::size(kCodes), 45u);
  std::set<std::string_view> names;
  std::set<ErrorCode const*> objects;
  for (CodeRow const& row : kCodes) {
    names.insert(row.name);
    objects.insert(row.code);
  }
  EXPECT_EQ(names.size(), 45u);
  EXPECT_EQ(objects.size(), 45u);
}

TEST(ErrorCodesTest, EachGlobalCarriesItsName) {
  for (CodeRow const& row : kCodes) {
    SCOPED_TRACE(row.identifier);
    EXPECT_EQ(row.code->view(), row.name);
    EXPECT_TRUE(row.code->name().is_static());
    if (std::string_view(row.identifier) != "zoserialize_reader_data_invalid") {
      EXPECT_EQ(identifier_for(row.name), row.identifier);
    }
  }
}

TEST(ErrorCodesTest, DataInvalidIsNamedUnexpected) {
  EXPECT_EQ(error::zoserialize_reader_data_invalid.view(),
            "error.zoserialize.reader.data.unexpected");
  EXPECT_EQ(error::zoserialize_reader_data_invalid.parent(), error::zoserialize_reader_data);
}

TEST(ErrorCodesTest, NamesAreSetBeforeDynamicInitialisation) {
  ASSERT_NE(kNameAtStaticInit, nullptr);
  EXPECT_STREQ(kNameAtStaticInit, "error.zoserialize.reader.data.unexpected");
  EXPECT_EQ(kSizeAtStaticInit, std::string_view("error.zoserialize.writer.state").size());
}

TEST(ErrorCodesTest, EveryParentIsOneOfTheCodesUpToTheRoot) {
  std::map<std::string_view, ErrorCode const*> by_name;
  for (CodeRow const& row : kCodes)
    by_name.emplace(row.name, row.code);

  for (CodeRow const& row : kCodes) {
    SCOPED_TRACE(row.name);
    EXPECT_TRUE(row.code->is_a(error::zoserialize));
    EXPECT_TRUE(row.code->is_a(*row.code));
    if (row.code == &error::zoserialize) {
      EXPECT_EQ(row.code->parent().view(), "error");
      continue;
    }
    ErrorCode const parent = row.code->parent();
    auto const it = by_name.find(parent.view());
    ASSERT_NE(it, by_name.end()) << "parent " << parent << " is not a code";
    EXPECT_TRUE(row.code->is_a(*it->second));
    EXPECT_FALSE(it->second->is_a(*row.code));
    // Walking up always reaches the root within the depth of the tree.
    ErrorCode up = parent;
    int steps = 0;
    while (up != error::zoserialize && steps < 6) {
      up = up.parent();
      ++steps;
    }
    EXPECT_EQ(up, error::zoserialize);
  }
}

struct ChildrenRow {
  ErrorCode const* parent;
  std::vector<std::string_view> children;  // last components, sorted
};

TEST(ErrorCodesTest, TreeHasTheDocumentedShape) {
  ChildrenRow const rows[] = {
      {&error::zoserialize, {"reader", "stream", "writer"}},
      {&error::zoserialize_reader,
       {"closed", "data", "eof", "marker", "seek", "sequence", "state", "unsupported", "xml"}},
      {&error::zoserialize_reader_data, {"size", "source", "string", "type", "unexpected"}},
      {&error::zoserialize_reader_data_string, {"size"}},
      {&error::zoserialize_reader_data_type, {"mismatch", "range"}},
      {&error::zoserialize_reader_marker, {"mismatch", "nesting", "overrun", "size"}},
      {&error::zoserialize_reader_sequence, {"element", "nesting", "unexpected"}},
      {&error::zoserialize_reader_sequence_element, {"count"}},
      {&error::zoserialize_reader_xml, {"schema", "state"}},
      {&error::zoserialize_writer, {"closed", "data", "incomplete", "marker", "sequence", "state"}},
      {&error::zoserialize_writer_data, {"range", "size"}},
      {&error::zoserialize_writer_data_size, {"unknown"}},
      {&error::zoserialize_writer_marker, {"close", "nesting"}},
      {&error::zoserialize_writer_sequence, {"element", "nesting"}},
      {&error::zoserialize_writer_sequence_element, {"count"}},
  };
  std::size_t listed = 1;  // the root
  for (ChildrenRow const& row : rows) {
    SCOPED_TRACE(row.parent->view());
    std::vector<std::string_view> children;
    for (CodeRow const& code : kCodes) {
      if (code.code->parent() == *row.parent) {
        std::string_view const name = code.code->view();
        children.push_back(name.substr(name.rfind('.') + 1));
      }
    }
    std::sort(children.begin(), children.end());
    EXPECT_EQ(children, row.children);
    listed += row.children.size();
  }
  EXPECT_EQ(listed, 45u);
}

struct FamilyRow {
  ErrorCode const* thrown;
  ErrorCode const* family;
  bool caught;
};

TEST(ErrorCodesTest, CallersCatchWholeFamilies) {
  FamilyRow const rows[] = {
      {&error::zoserialize_reader_eof, &error::zoserialize_reader, true},
      {&error::zoserialize_reader_eof, &error::zoserialize, true},
      {&error::zoserialize_reader_eof, &error::zoserialize_writer, false},
      {&error::zoserialize_reader_data_type_range, &error::zoserialize_reader_data_type, true},
      {&error::zoserialize_reader_data_type_range, &error::zoserialize_reader_data, true},
      {&error::zoserialize_reader_data_invalid, &error::zoserialize_reader_data, true},
      {&error::zoserialize_reader_data_source, &error::zoserialize_reader_data_string, false},
      {&error::zoserialize_reader_data_string_size, &error::zoserialize_reader_data_size, false},
      {&error::zoserialize_writer_data_size_unknown, &error::zoserialize_writer_data_size, true},
      {&error::zoserialize_writer_sequence_element_count, &error::zoserialize_writer_sequence,
       true},
      {&error::zoserialize_writer_sequence_element_count, &error::zoserialize_reader_sequence,
       false},
      {&error::zoserialize_stream, &error::zoserialize_writer, false},
      {&error::zoserialize_writer, &error::zoserialize_writer_closed, false},
  };
  for (FamilyRow const& row : rows) {
    SCOPED_TRACE(std::string(row.thrown->view()) + " in " + std::string(row.family->view()));
    bool caught = false;
    try {
      zocore::throw_error(*row.thrown, "failure", zocore::SourceLocation("f()", "$Id: x $", 1));
    } catch (zocore::ErrorException const& e) {
      caught = e.code().is_a(*row.family);
    }
    EXPECT_EQ(caught, row.caught);
  }
}

}  // namespace
