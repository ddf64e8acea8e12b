// Definitions of the tagged binary encoding shared by the binary and memory archives. Installed
// only because the inline front ends of the binary archives use its tag values.
//
// Every element is one tag byte followed by a payload whose length the tag determines. The high
// nibble of the tag is the type prefix, the low nibble its value. All multi-byte numbers are
// big-endian. There is no header or version: a stream is a series of elements.
#pragma once

#include <zoserialize/export.h>

namespace zoserialize::impl {

enum class ETypePrefix : unsigned char {
  Null = 0x00,
  Boolean = 0x10,
  SignedInteger = 0x20,
  UnsignedInteger = 0x30,
  IEEE754 = 0x40,
  String = 0x50,
  AbsoluteTime = 0x60,
  RelativeTime = 0x70,
  Uuid = 0x80,
  Binary = 0x90,
  Sequence = 0xA0,
  Marker = 0xB0,
  ReservedC = 0xC0,
  ReservedD = 0xD0,
  ReservedE = 0xE0,
  ReservedF = 0xF0,
};

constexpr int prefix_value(ETypePrefix p) noexcept {
  return static_cast<int>(p);
}

// Tags and value nibbles with a fixed meaning.
inline constexpr unsigned char kTagNull = 0x00;
inline constexpr unsigned char kTagFalse = 0x10;
inline constexpr unsigned char kTagTrue = 0x11;
inline constexpr unsigned char kTagSequenceSeparator = 0xAE;
inline constexpr unsigned char kTagSequenceEnd = 0xAF;
inline constexpr unsigned char kTagMarkerStart = 0xB0;  // no size field
inline constexpr unsigned char kTagMarkerEnd = 0xBF;

// Length forms of strings and binaries (value nibble).
inline constexpr unsigned kNibbleLength1 = 0x8;      // 1-byte length follows
inline constexpr unsigned kNibbleLength2 = 0x9;      // 2-byte length
inline constexpr unsigned kNibbleLength4 = 0xA;      // 4-byte length
inline constexpr unsigned kNibbleFirstChunk1 = 0xB;  // first chunk, 1-byte length
inline constexpr unsigned kNibbleFirstChunk2 = 0xC;  // first chunk, 2-byte length
inline constexpr unsigned kNibbleNextChunk1 = 0xD;   // continuation chunk, 1-byte length
inline constexpr unsigned kNibbleNextChunk2 = 0xE;   // continuation chunk, 2-byte length
inline constexpr unsigned kNibbleChunkEnd = 0xF;     // end of a chunked value

// Times: value nibbles.
inline constexpr unsigned kNibbleTimeZero = 0x0;
inline constexpr unsigned kNibbleTimeInfinite = 0x1;
inline constexpr unsigned kNibbleTime32 = 0x4;
inline constexpr unsigned kNibbleTime64 = 0x5;

// Size of the chunks a value stream emits when its buffer fills, and of the blocks in which
// values are copied from input streams.
inline constexpr unsigned kStreamChunkSize = 4096;
// Largest chunk a single direct write is cut into (2-byte length field).
inline constexpr unsigned kMaxChunkSize = 65535;
// Largest string a reader returns by value; bigger ones must be read as streams.
inline constexpr unsigned kMaxStringByValue = 0x8000000;

// The name printed for a type prefix (the high nibble of `tag_or_prefix` is used): "Null",
// "Boolean", ..., "ReservedF"; "##UNKNOWN##" for values outside 0x00..0xFF.
ZOSERIALIZE_API char const* type_prefix_name(int tag_or_prefix) noexcept;

}  // namespace zoserialize::impl
