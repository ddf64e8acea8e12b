#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/output_failure.h>

namespace zoserialize::impl {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/impl/output_failure.cpp $";

}  // namespace

void throw_output_incomplete(char const* function) {
  zocore::throw_error(error::zoserialize_writer_state,
                      "Writer output is incomplete: its output stream or a source failed in the "
                      "middle of an element, so nothing more can be written",
                      zocore::SourceLocation(function, kModuleId, __LINE__));
}

}  // namespace zoserialize::impl
