#include <utility>
#include <vector>

#include <zocore/error_composer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/marshal_error.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/marshal_error.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

// The fields of one record of a chain, read before the records are built innermost first.
struct Level {
  ErrorCode code;
  SourceString message;
  ErrorParams params;
  SourceLocation location;
  SourceString context;
};

[[noreturn, gnu::cold, gnu::noinline]] void throw_chain_too_deep() {
  zocore::ErrorComposer("Chain of error causes is nested too deeply.  MaxDepth={@maxDepth}")
      .add("maxDepth", kMaxErrorDepth)
      .throw_error(error::zoserialize_reader_marker_nesting,
                   here("zoserialize::read_error_info()"));
}

}  // namespace

void write_error_code(Writer& writer, ErrorCode const& code) {
  writer.write_string(code.name().data(), code.name().size());
}

void read_error_code(Reader& reader, ErrorCode& code) {
  SourceString name;
  reader.read_string(name);
  ErrorCode(std::move(name)).swap(code);
}

void write_error_params(Writer& writer, ErrorParams const& params) {
  writer.write_sequence_start();
  bool first = true;
  for (auto const& [name, value] : params) {
    if (!std::exchange(first, false)) writer.write_sequence_separator();
    writer << name << value;
  }
  writer.write_sequence_end();
}

void read_error_params(Reader& reader, ErrorParams& params) {
  reader.read_sequence_start();
  while (reader.read_sequence_next()) {
    SourceString name;
    std::string value;
    reader.read_string(name);
    reader.read_string(value);
    params.set(std::move(name), std::move(value));
  }
}

// Written as a loop, not by recursion: the markers of the chain stay open until its final Null.
void write_error_info(Writer& writer, ErrorInfo const* info) {
  unsigned depth = 0;
  for (; info; info = info->nested().get(), ++depth) {
    writer.write_marker_start();
    write_error_code(writer, info->code());
    writer << info->message();
    write_error_params(writer, info->params());
    writer << info->location() << info->context();
  }
  writer.write_null();
  while (depth-- != 0)
    writer.write_marker_end();
}

void write_error_info(Writer& writer, ErrorInfo const& info) {
  write_error_info(writer, &info);
}

void write_error_info(Writer& writer, RefCountPtr<ErrorInfo const> const& info) {
  write_error_info(writer, info.get());
}

void write_error_exception(Writer& writer, ErrorException const& e) {
  write_error_info(writer, e.info());
}

void write_std_exception(Writer& writer, std::exception const& e) {
  write_error_info(writer,
                   ErrorInfo::from_exception(e, here("zoserialize::write_std_exception()")));
}

RefCountPtr<ErrorInfo const> read_error_info(Reader& reader) {
  std::vector<Level> levels;
  while (!reader.try_read_null()) {
    if (levels.size() == kMaxErrorDepth) throw_chain_too_deep();
    reader.read_marker_start();
    Level& level = levels.emplace_back();
    read_error_code(reader, level.code);
    reader.read_string(level.message);
    read_error_params(reader, level.params);
    reader >> level.location;
    reader.read_string(level.context);
  }
  // The innermost marker ends first; each record becomes the cause of the one around it.
  RefCountPtr<ErrorInfo const> info;
  for (auto level = levels.rbegin(); level != levels.rend(); ++level) {
    reader.read_marker_end();
    info = ErrorInfo::create(std::move(level->code), std::move(level->message),
                             std::move(level->params), std::move(level->location), std::move(info),
                             std::move(level->context));
  }
  return info;
}

void write_simple_date_time(Writer& writer, SimpleDateTime const& value) {
  writer.write_marker_start();
  writer << value.time();
  writer.write_int32(value.offset_minutes());
  writer.write_marker_end();
}

SimpleDateTime read_simple_date_time(Reader& reader) {
  reader.read_marker_start();
  AbsoluteTime const time = reader.read_absolute_time();
  int const offset = reader.read_int32();
  reader.read_marker_end();
  return {time, offset};
}

}  // namespace zoserialize
