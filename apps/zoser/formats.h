// The table of archive formats the tool knows: how to recognise, read and write each one.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include <zocore/error_info.h>
#include <zocore/stream.h>
#include <zoserialize/reader.h>
#include <zoserialize/text_writer.h>
#include <zoserialize/writer.h>

namespace zoser {

class Output;

// How writers shape their output; each format takes the options that concern it.
struct WriterOptions {
  zoserialize::TextWriter::Options text;
  // XML: the indentation of one level, and whether the whole document is one line.
  std::string xml_indent = "  ";
  bool xml_one_line = false;
  // Trace: elements printed (0: all) and the depth shown (0: all).
  unsigned max_elements = 0;
  unsigned max_depth = 0;
};

// One format. Adding a format is adding one row to the table in formats.cpp; every command
// (detection, convert, dump, hash, compare, validate, stats) then knows it.
struct Format {
  std::string_view name;       // as given to -f / -t
  std::string_view extension;  // ".zob"; empty when files of the format have none of their own
  std::string_view summary;    // one line for --help
  // Whether `block`, the first bytes of an input, reads as this format; `whole` tells that the
  // input ends there (otherwise an element cut at the block's end is not held against it).
  // Null when the format is never recognised by content.
  bool (*probe)(std::string_view block, bool whole);
  // Null when the format cannot be read (trace and json are write-only).
  std::unique_ptr<zoserialize::Reader> (*make_reader)(zocore::InterfacePtr<zocore::IReadStream>);
  // Null when the format cannot be written.
  std::unique_ptr<zoserialize::Writer> (*make_writer)(Output& output, WriterOptions const& options);
  // Where in the input a failure happened, for messages ("byte 1234", "line 3, column 18");
  // empty when the failure carries no place.
  std::string (*place)(zoserialize::Reader& reader, zocore::ErrorInfo const& failure);
  // Why this build of the tool cannot handle the format; empty when it can.
  std::string_view missing;
  bool readable;  // by design, even when missing
  bool writable;
  // Written after the writer has closed: a final line feed for text, whose writer ends the
  // document without one (readers skip line breaks).
  std::string_view trailer = {};
};

// Every format, in the order --help lists them.
std::span<Format const> formats();

// The format called `name`. Fails with "Unknown format '{@format}'; known formats:
// {@formats}" (error::zoser_format_unknown).
Format const& format_named(std::string_view name);
// The format whose extension `path` ends with, or null.
Format const* format_for_path(std::string_view path);

// Fail as make_reader() / make_writer() would, without building anything.
void require_readable(Format const& format);
void require_writable(Format const& format);

// A reader of `format` over `source`. Fails with "The {@format} format cannot be read"
// (error::zoser_format_direction) for a write-only format, and with "The {@format} format is not
// available in this build of zoser: {@reason}" (error::zoser_format_unavailable) for a missing
// one.
std::unique_ptr<zoserialize::Reader> make_reader(Format const& format,
                                                 zocore::InterfacePtr<zocore::IReadStream> source);
// A writer of `format` on `output` (borrowed: it must outlive the writer); "The {@format} format
// cannot be written" and the unavailable failure as above.
std::unique_ptr<zoserialize::Writer> make_writer(Format const& format, Output& output,
                                                 WriterOptions const& options);

// The place of a failure in the text formats: "line L, column C" from the failure's "line" and
// "linePos" parameters (the column counted from 1), or empty when it has none.
std::string line_place(zocore::ErrorInfo const& failure);

}  // namespace zoser
