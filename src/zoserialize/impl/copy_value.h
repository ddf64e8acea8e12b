// The part of read_copy that every reader does alike.
#pragma once

#include <zoserialize/reader.h>
#include <zoserialize/writer.h>

namespace zoserialize::impl {

// Copies the next element, announced as `token`, from `reader` to `writer` when it is a value
// that every archive hands over through the same calls (null, Boolean, double, times, UUID,
// string, binary; payloads through streams). Integers and structure are the reader's own
// business (their widths and forms differ): returns false for them and for anything else,
// reading nothing.
bool copy_plain_value(Reader& reader, Reader::EToken token, Writer& writer);

}  // namespace zoserialize::impl
