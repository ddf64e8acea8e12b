// The state of a writer whose output can no longer be trusted.
#pragma once

#include <zoserialize/export.h>

namespace zoserialize::impl {

// Raised by every operation of a writer after its output stream, or a source it was copying,
// failed in the middle of an element: what was written so far cannot be read back, so the
// writer refuses to go on rather than let close() report success. The writer's own failures
// (a count mismatch, a value out of range) leave it usable and never lead here.
// error::zoserialize_writer_state; `function` names the operation refused.
[[noreturn]] ZOSERIALIZE_API void throw_output_incomplete(char const* function);

}  // namespace zoserialize::impl
