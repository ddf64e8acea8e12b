#include "formats.h"

#include <charconv>
#include <string>

#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/text_reader.h>
#include <zoserialize/trace_writer.h>
#include <zoserialize/xml_reader.h>
#include <zoserialize/xml_writer.h>

#include "detect.h"
#include "errors.h"
#include "json_writer.h"
#include "output.h"

namespace zoser {

namespace {

using zoserialize::Reader;
using zoserialize::Writer;

std::unique_ptr<Reader> binary_reader(zocore::InterfacePtr<zocore::IReadStream> source) {
  return std::make_unique<zoserialize::BinaryReader>(std::move(source));
}
std::unique_ptr<Writer> binary_writer(Output& output, WriterOptions const&) {
  return std::make_unique<zoserialize::BinaryWriter>(output.stream());
}
std::string binary_place(Reader& reader, zocore::ErrorInfo const&) {
  return "byte " + std::to_string(static_cast<zoserialize::BinaryReader&>(reader).position());
}

std::unique_ptr<Reader> text_reader(zocore::InterfacePtr<zocore::IReadStream> source) {
  return std::make_unique<zoserialize::TextReader>(std::move(source));
}
std::unique_ptr<Writer> text_writer(Output& output, WriterOptions const& options) {
  return std::make_unique<zoserialize::TextWriter>(output.stream(), options.text);
}
std::string text_place(Reader&, zocore::ErrorInfo const& failure) {
  return line_place(failure);
}

std::unique_ptr<Reader> xml_reader(zocore::InterfacePtr<zocore::IReadStream> source) {
  return std::make_unique<zoserialize::XmlReader>(std::move(source));
}
// One line: no indentation and no line breaks at all.
std::unique_ptr<Writer> xml_writer(Output& output, WriterOptions const& options) {
  return std::make_unique<zoserialize::XmlWriter>(output.ostream(), options.xml_indent.c_str(),
                                                  options.xml_one_line ? "" : "\n");
}

std::unique_ptr<Writer> trace_writer(Output& output, WriterOptions const& options) {
  return std::make_unique<zoserialize::TraceWriter>(output.ostream(), "", "  ",
                                                    options.max_elements, options.max_depth);
}

std::unique_ptr<Writer> json_writer(Output& output, WriterOptions const&) {
  return std::make_unique<JsonWriter>(output.stream());
}

// clang-format off
constexpr Format kFormats[] = {
    // name     extension  summary
    //          probe          reader          writer          place          missing
    //          readable writable trailer
    {"binary", ".zob", "the tagged binary encoding",
                &probe_binary, &binary_reader, &binary_writer, &binary_place, {},
                true, true},
    {"text", ".zot", "the single-byte text encoding",
                &probe_text,   &text_reader,   &text_writer,   &text_place,   {},
                true, true, "\n"},
    {"xml", ".xml", "the XML document",
                &probe_xml,    &xml_reader,    &xml_writer,    &text_place,   {},
                true, true, "\n"},
    {"trace", {}, "the indented trace of dump (write-only)",
                nullptr,       nullptr,        &trace_writer,  nullptr,       {},
                false, true},
    {"json", ".json", "a JSON rendering for jq and other JSON tools (write-only)",
                nullptr,       nullptr,        &json_writer,   nullptr,       {},
                false, true},
};
// clang-format on

[[noreturn]] void throw_unavailable(Format const& format, char const* function) {
  raise(error::zoser_format_unavailable,
        "The {@format} format is not available in this build of zoser: {@reason}",
        zocore::ErrorParams().set("format", format.name).set("reason", format.missing), function);
}

}  // namespace

std::span<Format const> formats() {
  return kFormats;
}

Format const& format_named(std::string_view name) {
  for (Format const& f : kFormats)
    if (f.name == name) return f;
  std::string known;
  for (Format const& f : kFormats)
    known.append(known.empty() ? "" : ", ").append(f.name);
  raise(error::zoser_format_unknown, "Unknown format '{@format}'; known formats: {@formats}",
        zocore::ErrorParams().set("format", name).set("formats", known), "zoser::format_named()");
}

Format const* format_for_path(std::string_view path) {
  for (Format const& f : kFormats) {
    if (!f.extension.empty() && path.size() > f.extension.size() && path.ends_with(f.extension) &&
        path[path.size() - f.extension.size() - 1] != '/')
      return &f;
  }
  return nullptr;
}

void require_readable(Format const& format) {
  char const* const function = "zoser::require_readable()";
  if (!format.readable) {
    raise(error::zoser_format_direction, "The {@format} format cannot be read",
          zocore::ErrorParams().set("format", format.name), function);
  }
  if (!format.missing.empty() || format.make_reader == nullptr) throw_unavailable(format, function);
}

void require_writable(Format const& format) {
  char const* const function = "zoser::require_writable()";
  if (!format.writable) {
    raise(error::zoser_format_direction, "The {@format} format cannot be written",
          zocore::ErrorParams().set("format", format.name), function);
  }
  if (!format.missing.empty() || format.make_writer == nullptr) throw_unavailable(format, function);
}

std::unique_ptr<Reader> make_reader(Format const& format,
                                    zocore::InterfacePtr<zocore::IReadStream> source) {
  require_readable(format);
  return format.make_reader(std::move(source));
}

std::unique_ptr<Writer> make_writer(Format const& format, Output& output,
                                    WriterOptions const& options) {
  require_writable(format);
  return format.make_writer(output, options);
}

std::string line_place(zocore::ErrorInfo const& failure) {
  std::string const* const line = failure.params().find("line");
  std::string const* const line_pos = failure.params().find("linePos");
  if (line == nullptr) return {};
  std::string place = "line " + *line;
  unsigned long long pos = 0;
  if (line_pos != nullptr) {
    auto const [ptr, ec] =
        std::from_chars(line_pos->data(), line_pos->data() + line_pos->size(), pos);
    if (ec == std::errc() && ptr == line_pos->data() + line_pos->size())
      place += ", column " + std::to_string(pos + 1);
  }
  return place;
}

}  // namespace zoser
